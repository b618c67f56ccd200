// Connections, sending and replying, servers and their teardown, over real sockets in one
// process: anonymous listeners reached through endpoints, and a named service served by
// LXPCMachServer::Start on a thread of its own.
#include <atomic>
#include <future>
#include <set>
#include <thread>

#include "lxpc_test_util.h"
#include "thread/main_queue.h"

using namespace lxpc;
using namespace lxpc_test;

namespace {

const LXPCDictionaryKey kRequestKeys[] = {
    {"REQ", LXPCDataTypeInt64}, {"TAG", LXPCDataTypeString}, {"", LXPCDataTypeNone}};
const LXPCDictionaryKey kReplyKeys[] = {
    {"REP", LXPCDataTypeInt64}, {"TAG", LXPCDataTypeString}, {"", LXPCDataTypeNone}};

// Client side: sends requests, receives replies.
void SetUpClient(LXPCBase& base) {
    base.AddKeys(kRequestKeys, false);
    base.AddKeys(kReplyKeys, true);
}

// Server side: receives requests, sends replies.
void SetUpServer(LXPCBase& base) {
    base.AddKeys(kRequestKeys, true);
    base.AddKeys(kReplyKeys, false);
}

LList<LXPCDataListable> Request(long value, const char* tag) {
    LList<LXPCDataListable> values;
    Push(values, "REQ", LXPCDataTypeInt64, value);
    Push(values, "TAG", LXPCDataTypeString, Ptr(tag));
    return values;
}

// Answers every request with REP = 2 * REQ and the same TAG.
void Echo(LXPCBase& server, long connection, long message, const LList<LXPCDataListable>& data) {
    LList<LXPCDataListable> reply;
    for (const LXPCDataListable& value : data) {
        if (std::strcmp(value.szName, "REQ") == 0) {
            Push(reply, "REP", LXPCDataTypeInt64, value.nValue * 2);
        } else if (std::strcmp(value.szName, "TAG") == 0) {
            Push(reply, "TAG", LXPCDataTypeString, value.nValue);
        }
    }
    server.SendReply(connection, message, reply);
}

const RecordedValue& Value(const Delivery& delivery, const char* name) {
    static const RecordedValue missing{};
    const RecordedValue* found = Find(delivery.values, name);
    EXPECT_NE(found, nullptr) << name;
    return found != nullptr ? *found : missing;
}

// Counts deliveries in counters that outlive it, so that a delivery after its deletion is
// both a use after free (seen by ASan) and a count (seen by the test).
class CountingHandler final : public LXPCServerEventNotify {
public:
    CountingHandler(std::atomic<int>* sent, std::atomic<long>* lastConnection)
        : sent_(sent), lastConnection_(lastConnection) {}
    void EvConnectionError(long, LXPCErrorType) override {}
    void EvMessageSent(long) override { ++*sent_; }
    void EvMessageReceived(long connection, long, LList<LXPCDataListable> const&) override {
        *lastConnection_ = connection;
    }
    void EvReplyReceived(long, LList<LXPCDataListable> const&) override {}
    void EvInvalidConnectionAttempt() override {}

private:
    std::atomic<int>* sent_;
    std::atomic<long>* lastConnection_;
};

// Exposes the delivery gate, to see when every queued callback of a server is gone.
class ProbedServer : public LXPCServer {
public:
    using LXPCServer::LXPCServer;
    std::weak_ptr<lxpc_detail::DeliveryGate> Gate() const { return pGate; }
};

bool WaitFor(const std::function<bool()>& done, int ms = kWaitMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// An anonymous listener that hands its clients to pServer, and client connections to it.
// The listener starts with the first connection, once the test has built its server side:
// what the listener's thread then sees was written before that thread was created, which
// ThreadSanitizer can tell (it cannot see order carried by the sockets themselves).
class LXPCLink : public ::testing::Test {
protected:
    LXPCLink() { SetUpClient(client); }
    void TearDown() override {
        if (listener_ != nullptr) {
            xpc_connection_cancel(listener_);
            xpc_release(listener_);
            xpc_release(endpoint_);
        }
    }

    xpc_endpoint_t Endpoint() {
        if (listener_ == nullptr) {
            listener_ = xpc_connection_create(nullptr, nullptr);
            xpc_connection_set_event_handler(listener_, [](xpc_object_t peer) {
                LXPCServerBase::StaticNewConnectionHandler(peer);
            });
            xpc_connection_resume(listener_);
            endpoint_ = xpc_endpoint_create(listener_);
            EXPECT_NE(endpoint_, nullptr);
        }
        return endpoint_;
    }

    // A client connection through the endpoint, held by an LXPCConnection with one reference.
    std::unique_ptr<LXPCConnection> Connect(LXPCBase& base) {
        return Adopt(base, xpc_connection_create_from_endpoint(Endpoint()));
    }

    xpc_connection_t listener_ = nullptr;
    xpc_endpoint_t endpoint_ = nullptr;
    // Declared before the servers of the tests, so outliving them.
    Recorder serverEvents;
    Recorder clientEvents;
    LXPCBase client{&clientEvents};
};

}  // namespace

TEST(LXPCConnectionObject, ReferencesAndStateFollowTheCounts) {
    xpc_connection_t raw = xpc_connection_create(nullptr, nullptr);
    ASSERT_NE(raw, nullptr);
    {
        LXPCConnection connection(Handle(raw));
        EXPECT_TRUE(connection.IsValid());
        EXPECT_TRUE(connection.bSuspended);
        EXPECT_EQ(connection.nRetainCount, 0u);

        connection.Release();  // nothing held: nothing released, handle kept
        EXPECT_TRUE(connection.IsValid());
        EXPECT_EQ(connection.nRetainCount, 0u);

        connection.Resume();
        EXPECT_FALSE(connection.bSuspended);
        connection.Resume();
        connection.Suspend();
        EXPECT_TRUE(connection.bSuspended);
        connection.Suspend();

        connection.Retain();
        connection.Retain();
        EXPECT_EQ(connection.nRetainCount, 2u);
        connection.Release();
        EXPECT_TRUE(connection.IsValid());
        connection.Retain();

        // Destroy gives back one reference; the last one invalidates the handle.
        connection.Destroy();
        EXPECT_EQ(connection.nRetainCount, 1u);
        EXPECT_FALSE(connection.bSuspended);
        connection.Release();
        EXPECT_FALSE(connection.IsValid());
        EXPECT_EQ(connection.nRetainCount, 0u);

        // A destroyed connection stays out of the transport: no second cancel or release.
        connection.Destroy();
        connection.Release();
        connection.Cancel();
        connection.Resume();
        EXPECT_FALSE(connection.IsValid());
    }                  // the destructor's Destroy does nothing either
    xpc_release(raw);  // the creation reference, still ours: a double release would trip ASan
}

TEST(LXPCErrors, MapByIdentityAndKeepTheConnection) {
    Recorder handler;
    xpc_object_t lookalike = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_dictionary_set_string(lookalike, XPC_ERROR_KEY_DESCRIPTION, "Connection invalid");
    ErrorHandler(XPC_ERROR_CONNECTION_INVALID, 11, &handler);
    ErrorHandler(XPC_ERROR_CONNECTION_INTERRUPTED, 12, &handler);
    ErrorHandler(XPC_ERROR_TERMINATION_IMMINENT, 13, &handler);
    ErrorHandler(lookalike, 14, &handler);
    ErrorHandler(lookalike, 15, nullptr);
    using Seen = std::vector<std::pair<long, LXPCErrorType>>;
    EXPECT_EQ(handler.errors, (Seen{{11, LXPCErrorConnectionInvalid},
                                    {12, LXPCErrorConnectionInterrupted},
                                    {13, LXPCErrorTerminationImminent},
                                    {14, LXPCErrorOther}}));

    // The connection of an error event is the one it arrived on: error objects are never
    // asked for a remote connection.
    EXPECT_EQ(LXPCEventConnection(XPC_ERROR_CONNECTION_INVALID, 77), 77);
    EXPECT_EQ(LXPCEventConnection(lookalike, 78), 78);  // a local dictionary has no remote
    EXPECT_EQ(LXPCEventConnection(nullptr, 79), 79);
    xpc_release(lookalike);
}

TEST_F(LXPCLink, RequestAndReplyInBothForms) {
    LXPCServer server(&serverEvents);
    EXPECT_EQ(pServer, &server);
    SetUpServer(server);
    // Without a client check, even a process id of 0 is never asked for or refused.
    std::atomic<int> asked{0};
    server.SetProcessIdSource([&asked](long) {
        ++asked;
        return pid_t{0};
    });
    serverEvents.onMessage = [&](long c, long m, const LList<LXPCDataListable>& d) {
        Echo(server, c, m, d);
    };

    for (const bool arrayForm : {false, true}) {
        Recorder formEvents;
        formEvents.bArrayForm = arrayForm;
        LXPCBase formClient(&formEvents);
        SetUpClient(formClient);
        auto connection = Connect(formClient);
        formClient.SendMessage(connection->hConnection, Request(21, "tag"), true);
        ASSERT_TRUE(formEvents.WaitUntil([&] { return formEvents.replies.size() == 1; }));
        const Delivery& reply = formEvents.replies[0];
        EXPECT_EQ(reply.connection, connection->hConnection);
        EXPECT_EQ(reply.arrayForm, arrayForm);
        EXPECT_EQ(Value(reply, "REP").data.nValue, 42);
        EXPECT_EQ(Value(reply, "TAG").bytes, "tag");
        EXPECT_TRUE(formEvents.sent.empty());  // a message wanting a reply has no barrier
    }
    // The server saw two clients, each kept once, and a barrier after each reply.
    ASSERT_TRUE(serverEvents.WaitUntil([&] { return serverEvents.sent.size() == 2; }));
    EXPECT_EQ(serverEvents.messages.size(), 2u);
    // The barriers of two connections run on two queues, in either order.
    EXPECT_EQ(std::multiset<long>(serverEvents.sent.begin(), serverEvents.sent.end()),
              (std::multiset<long>{serverEvents.messages[0].connection,
                                   serverEvents.messages[1].connection}));
    EXPECT_TRUE(server.HasConnection(serverEvents.messages[0].connection));
    EXPECT_TRUE(server.HasConnection(serverEvents.messages[1].connection));
    EXPECT_EQ(serverEvents.invalidAttempts, 0);
    EXPECT_EQ(asked, 0);
}

TEST_F(LXPCLink, BarriersFollowEverySendInOrderAndEmptyMessagesAreDropped) {
    LXPCServer server(&serverEvents);
    SetUpServer(server);
    client.AddKey("UNHEARD", LXPCDataTypeInt64, false);
    auto connection = Connect(client);
    // Messages that decode to nothing on the server are sent (with a barrier) but not delivered.
    LList<LXPCDataListable> unheard;
    Push(unheard, "UNHEARD", LXPCDataTypeInt64, 1);
    client.SendMessage(connection->hConnection, unheard, false);
    client.SendMessage(connection->hConnection, LList<LXPCDataListable>(), false);

    constexpr int kCount = 40;
    for (int i = 0; i < kCount; ++i) {
        client.SendMessage(connection->hConnection, Request(i, "small"), false);
    }
    ASSERT_TRUE(clientEvents.WaitUntil([&] { return clientEvents.sent.size() == kCount + 2; }));
    for (long id : clientEvents.sent) {
        EXPECT_EQ(id, connection->hConnection);
    }
    ASSERT_TRUE(serverEvents.WaitUntil([&] { return serverEvents.messages.size() == kCount; }));
    for (int i = 0; i < kCount; ++i) {
        EXPECT_EQ(Value(serverEvents.messages[i], "REQ").data.nValue, i);
    }
}

TEST_F(LXPCLink, DisconnectDropsOnlyTheNamedConnection) {
    LXPCServer server(&serverEvents);
    SetUpServer(server);
    serverEvents.onError = [&](long connection, LXPCErrorType) { server.Disconnect(connection); };
    serverEvents.onMessage = [&](long c, long m, const LList<LXPCDataListable>& d) {
        Echo(server, c, m, d);
    };

    auto first = Connect(client);
    auto second = Connect(client);
    client.SendMessage(first->hConnection, Request(1, "first"), false);
    client.SendMessage(second->hConnection, Request(2, "second"), false);
    ASSERT_TRUE(serverEvents.WaitUntil([&] { return serverEvents.messages.size() == 2; }));
    EXPECT_EQ(server.ConnectionCount(), 2u);

    server.Disconnect(12345);  // unknown: nothing happens
    EXPECT_EQ(server.ConnectionCount(), 2u);

    // The first client goes away; the server hears of it on that connection and drops it.
    const long goneId = Value(serverEvents.messages[0], "REQ").data.nValue == 1
                            ? serverEvents.messages[0].connection
                            : serverEvents.messages[1].connection;
    first.reset();
    ASSERT_TRUE(serverEvents.WaitUntil([&] { return !serverEvents.errors.empty(); }));
    EXPECT_EQ(serverEvents.errors[0].first, goneId);
    EXPECT_EQ(serverEvents.errors[0].second, LXPCErrorConnectionInvalid);
    EXPECT_FALSE(server.HasConnection(goneId));
    EXPECT_EQ(server.ConnectionCount(), 1u);

    // The other one still works.
    client.SendMessage(second->hConnection, Request(3, "still"), true);
    ASSERT_TRUE(clientEvents.WaitUntil([&] { return clientEvents.replies.size() == 1; }));
    EXPECT_EQ(Value(clientEvents.replies[0], "REP").data.nValue, 6);
}

TEST_F(LXPCLink, DestroyingTheServerWithABarrierQueuedDeliversNothing) {
    std::atomic<int> sent{0};
    std::atomic<long> serverConnection{0};
    auto* handler = new CountingHandler(&sent, &serverConnection);
    auto* server = new ProbedServer(handler);
    SetUpServer(*server);
    const std::weak_ptr<lxpc_detail::DeliveryGate> gate = server->Gate();

    auto connection = Connect(client);
    client.SendMessage(connection->hConnection, Request(1, "hello"), false);
    ASSERT_TRUE(WaitFor([&] { return serverConnection != 0; }));

    // Occupy the server connection's queue, then queue a send and its barrier behind it.
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> blocking{false};
    xpc_connection_send_barrier(Object(serverConnection), [released, &blocking] {
        blocking = true;
        released.wait();
    });
    ASSERT_TRUE(WaitFor([&] { return blocking.load(); }));
    LList<LXPCDataListable> reply;
    Push(reply, "REP", LXPCDataTypeInt64, 1);
    server->SendMessage(serverConnection, reply, false);

    delete server;
    EXPECT_EQ(pServer, nullptr);
    EXPECT_FALSE(handler->bAlive);
    delete handler;
    release.set_value();

    // Once every callback the server queued has run or been dropped, none has delivered.
    ASSERT_TRUE(WaitFor([&] { return gate.expired(); }));
    EXPECT_EQ(sent, 0);
}

TEST_F(LXPCLink, HandlerMayDestroyTheServerFromItsOwnCallback) {
    auto* server = new LXPCServer(&serverEvents);
    SetUpServer(*server);
    std::atomic<bool> destroyed{false};
    serverEvents.onMessage = [&](long, long, const LList<LXPCDataListable>&) {
        delete server;
        destroyed = true;
    };
    auto connection = Connect(client);
    client.SendMessage(connection->hConnection, Request(1, "bye"), false);
    client.SendMessage(connection->hConnection, Request(2, "unheard"), false);
    ASSERT_TRUE(WaitFor([&] { return destroyed.load(); }));
    EXPECT_EQ(pServer, nullptr);
    EXPECT_FALSE(serverEvents.bAlive);
    // The client hears its peer go; the second message found no server to deliver to.
    ASSERT_TRUE(clientEvents.WaitUntil([&] { return !clientEvents.errors.empty(); }));
    ASSERT_TRUE(serverEvents.WaitUntil([&] { return !serverEvents.messages.empty(); }));
    EXPECT_EQ(serverEvents.Read<size_t>([&] { return serverEvents.messages.size(); }), 1u);
}

// ---- the named service ----

class LXPCNamedService : public ::testing::Test {
protected:
    // Serves `server` on a thread until StopServing; returns once it listens.
    void Serve(LXPCMachServer& server) {
        std::promise<void> listening;
        auto ready = listening.get_future();
        LMainQueueAsync([&listening] { listening.set_value(); });
        serving_ = std::thread([&server, this] { server.Start(name_.c_str(), 0); });
        ASSERT_EQ(ready.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    }
    void TearDown() override {
        if (serving_.joinable()) {
            LMainQueueStop();
            serving_.join();
        }
    }
    std::unique_ptr<LXPCConnection> Connect(LXPCBase& base) {
        return Adopt(base, xpc_connection_create_mach_service(name_.c_str(), nullptr, 0));
    }

    ServiceDir dir_;
    std::string name_ = UniqueServiceName("named");
    std::thread serving_;
};

TEST_F(LXPCNamedService, ServesRequestsUntilStopped) {
    Recorder serverEvents;
    LXPCMachServer server(&serverEvents);
    SetUpServer(server);
    serverEvents.onMessage = [&](long c, long m, const LList<LXPCDataListable>& d) {
        Echo(server, c, m, d);
    };
    Serve(server);
    Recorder clientEvents;
    LXPCBase client(&clientEvents);
    SetUpClient(client);
    auto connection = Connect(client);
    client.SendMessage(connection->hConnection, Request(8, "named"), true);
    ASSERT_TRUE(clientEvents.WaitUntil([&] { return clientEvents.replies.size() == 1; }));
    EXPECT_EQ(Value(clientEvents.replies[0], "REP").data.nValue, 16);
    EXPECT_EQ(server.ConnectionCount(), 1u);  // our own pid is in range

    // Once Start returns, the service no longer accepts anyone.
    LMainQueueStop();
    serving_.join();
    Recorder lateEvents;
    LXPCBase late(&lateEvents);
    SetUpClient(late);
    auto lateConnection = Connect(late);
    late.SendMessage(lateConnection->hConnection, Request(9, "late"), true);
    ASSERT_TRUE(lateEvents.WaitUntil([&] { return !lateEvents.errors.empty(); }));
    EXPECT_TRUE(lateEvents.replies.empty());
    EXPECT_EQ(server.ConnectionCount(), 1u);
}

TEST_F(LXPCNamedService, ClientsOutsideTheProcessIdRangeAreRefused) {
    Recorder serverEvents;
    LXPCMachServer server(&serverEvents);
    SetUpServer(server);
    std::atomic<pid_t> nextPid{0};
    std::atomic<int> asked{0};
    server.SetProcessIdSource([&](long) {
        ++asked;
        return nextPid.load();
    });
    Serve(server);

    const pid_t refused[] = {0, -5, LXPCServerBase::MaxProcessId() + 1};
    Recorder clientEvents;  // outlives the bases that feed it
    std::vector<std::unique_ptr<LXPCBase>> clients;
    std::vector<std::unique_ptr<LXPCConnection>> connections;
    for (size_t i = 0; i < std::size(refused); ++i) {
        nextPid = refused[i];
        clients.push_back(std::make_unique<LXPCBase>(&clientEvents));
        SetUpClient(*clients.back());
        // Nothing is sent on a refused client: a named-service client connects again when it
        // sends after its peer went, and that would be a new attempt.
        connections.push_back(Connect(*clients.back()));
        ASSERT_TRUE(serverEvents.WaitUntil([&] {
            return serverEvents.invalidAttempts == static_cast<int>(i + 1);
        })) << "refusal "
            << i << ": " << serverEvents.invalidAttempts << " refused";
        EXPECT_EQ(server.ConnectionCount(), 0u);
    }
    // The edges of the range are accepted.
    for (const pid_t pid : {pid_t{1}, LXPCServerBase::MaxProcessId()}) {
        nextPid = pid;
        clients.push_back(std::make_unique<LXPCBase>(&clientEvents));
        SetUpClient(*clients.back());
        connections.push_back(Connect(*clients.back()));
        clients.back()->SendMessage(connections.back()->hConnection, Request(2, "yes"), false);
    }
    ASSERT_TRUE(serverEvents.WaitUntil([&] { return serverEvents.messages.size() == 2; }));
    EXPECT_EQ(server.ConnectionCount(), 2u);
    EXPECT_EQ(serverEvents.invalidAttempts, 3);
    EXPECT_EQ(asked, 5);
    for (const Delivery& message : serverEvents.messages) {
        EXPECT_EQ(Value(message, "TAG").bytes, "yes");
    }
}

TEST(LXPCProcessIds, UpperBoundIsThePlatformsLargestPid) {
    FILE* file = fopen("/proc/sys/kernel/pid_max", "r");
    ASSERT_NE(file, nullptr);
    long pidMax = 0;
    ASSERT_EQ(fscanf(file, "%ld", &pidMax), 1);
    fclose(file);
    EXPECT_EQ(LXPCServerBase::MaxProcessId(), pidMax);
}

TEST(LXPCNamedServiceStart, ReturnsAtOnceWhenItCannotListen) {
    ScopedEnv dir("LXPC_SERVICE_DIR", "/nonexistent/lxpc/folder");
    Recorder events;
    LXPCMachServer server(&events);
    server.Start("com.test.lxpc.unlistenable", 0);  // would block in the run loop otherwise
    EXPECT_EQ(server.ConnectionCount(), 0u);
}
