// Connections, sending and replying, servers and their teardown, over real sockets in one
// process: anonymous listeners reached through endpoints, and a named service served by
// LXPCMachServer::Start on a thread of its own.
#include <fstream>
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

void SetUpSide(LXPCBase& base, bool server) {
    base.AddKeys(kRequestKeys, server);
    base.AddKeys(kReplyKeys, !server);
}

LList<LXPCDataListable> Request(long value, const char* tag) {
    return Values(
        {{"REQ", LXPCDataTypeInt64, value}, {"TAG", LXPCDataTypeString, LXPCPointerAsValue(tag)}});
}

// A message hook having `server` answer every request with REP = 2 * REQ and the same TAG.
auto Echoing(LXPCBase& server) {
    return [&server](long connection, long message, const LList<LXPCDataListable>& data) {
        const auto request = Record(data);
        server.SendReply(connection, message,
                         Values({{"REP", LXPCDataTypeInt64, Find(request, "REQ").data.nValue * 2},
                                 {"TAG", LXPCDataTypeString, Find(request, "TAG").data.nValue}}));
    };
}

// Counts into counters that outlive it: a delivery after its deletion is both a use after
// free (seen by ASan) and a count (seen by the test).
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

bool WaitFor(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// An anonymous listener that hands its clients to pServer. It starts with the first
// connection, once the test has built its server: ThreadSanitizer then sees that order.
class LXPCLink : public ::testing::Test {
protected:
    LXPCLink() { SetUpSide(client, false); }
    void TearDown() override {
        if (listener_ != nullptr) {
            xpc_connection_cancel(listener_);
            xpc_release(listener_);
            xpc_release(endpoint_);
        }
    }
    std::unique_ptr<LXPCConnection> Connect(LXPCBase& base) {
        if (listener_ == nullptr) {
            listener_ = xpc_connection_create(nullptr, nullptr);
            xpc_connection_set_event_handler(listener_, [](xpc_object_t peer) {
                LXPCServerBase::StaticNewConnectionHandler(peer);
            });
            xpc_connection_resume(listener_);
            endpoint_ = xpc_endpoint_create(listener_);
        }
        return Adopt(base, xpc_connection_create_from_endpoint(endpoint_));
    }

    xpc_connection_t listener_ = nullptr;
    xpc_endpoint_t endpoint_ = nullptr;
    Recorder serverEvents;  // declared before the tests' servers, so outliving them
    Recorder clientEvents;
    LXPCBase client{&clientEvents};
};

}  // namespace

TEST(LXPCConnectionObject, ReferencesAndStateFollowTheCounts) {
    xpc_connection_t raw = xpc_connection_create(nullptr, nullptr);
    ASSERT_NE(raw, nullptr);
    {
        LXPCConnection connection(LXPCPointerAsValue(raw));
        EXPECT_TRUE(connection.bSuspended);
        connection.Release();  // nothing held: nothing released, handle kept
        EXPECT_TRUE(connection.IsValid());
        EXPECT_EQ(connection.nRetainCount, 0u);
        connection.Resume();
        EXPECT_FALSE(connection.bSuspended);
        connection.Suspend();
        EXPECT_TRUE(connection.bSuspended);
        connection.Retain();
        connection.Retain();
        connection.Release();
        EXPECT_TRUE(connection.IsValid());
        connection.Retain();
        // Destroy gives back one reference; the last one invalidates the handle.
        connection.Destroy();
        EXPECT_EQ(connection.nRetainCount, 1u);
        connection.Release();
        EXPECT_FALSE(connection.IsValid());
        // A destroyed connection stays out of the transport: no second cancel or release.
        connection.Destroy();
        connection.Release();
        connection.Cancel();
        connection.Resume();
    }                  // nor does the destructor's Destroy
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
    // Error objects and local dictionaries have no remote connection: the one given stays.
    EXPECT_EQ(LXPCEventConnection(XPC_ERROR_CONNECTION_INVALID, 77), 77);
    EXPECT_EQ(LXPCEventConnection(lookalike, 78), 78);
    EXPECT_EQ(LXPCEventConnection(nullptr, 79), 79);
    xpc_release(lookalike);
}

TEST_F(LXPCLink, RequestAndReplyInBothForms) {
    LXPCServer server(&serverEvents);
    EXPECT_EQ(pServer, &server);
    SetUpSide(server, true);
    // Without a client check, even a process id of 0 is never asked for or refused.
    std::atomic<int> asked{0};
    server.SetProcessIdSource([&asked](long) {
        ++asked;
        return pid_t{0};
    });
    serverEvents.onMessage = Echoing(server);
    for (const bool arrayForm : {false, true}) {
        Recorder formEvents;
        formEvents.bArrayForm = arrayForm;
        LXPCBase formClient(&formEvents);
        SetUpSide(formClient, false);
        auto connection = Connect(formClient);
        formClient.SendMessage(connection->hConnection, Request(21, "tag"), true);
        ASSERT_TRUE(formEvents.WaitUntil([&] { return formEvents.replies.size() == 1; }));
        const Delivery& reply = formEvents.replies[0];
        EXPECT_EQ(reply.connection, connection->hConnection);
        EXPECT_EQ(reply.arrayForm, arrayForm);
        EXPECT_EQ(Find(reply.values, "REP").data.nValue, 42);
        EXPECT_EQ(Find(reply.values, "TAG").bytes, "tag");
        EXPECT_TRUE(formEvents.sent.empty());  // a message wanting a reply has no barrier
    }
    // Two clients, each kept once, and a barrier after each reply (on two queues: any order).
    ASSERT_TRUE(serverEvents.WaitUntil([&] { return serverEvents.sent.size() == 2; }));
    ASSERT_EQ(serverEvents.messages.size(), 2u);
    EXPECT_EQ(std::multiset<long>(serverEvents.sent.begin(), serverEvents.sent.end()),
              (std::multiset<long>{serverEvents.messages[0].connection,
                                   serverEvents.messages[1].connection}));
    EXPECT_EQ(server.ConnectionCount(), 2u);
    EXPECT_EQ(serverEvents.invalidAttempts, 0);
    EXPECT_EQ(asked, 0);
}

TEST_F(LXPCLink, AServerTakesMessagesInTheArrayForm) {
    serverEvents.bArrayForm = true;
    LXPCServer server(&serverEvents);
    SetUpSide(server, true);
    auto connection = Connect(client);
    client.SendMessage(connection->hConnection, Request(21, "tag"), false);
    ASSERT_TRUE(serverEvents.WaitUntil([&] { return serverEvents.messages.size() == 1; }));
    EXPECT_TRUE(serverEvents.messages[0].arrayForm);
    EXPECT_EQ(Find(serverEvents.messages[0].values, "REQ").data.nValue, 21);
    EXPECT_EQ(Find(serverEvents.messages[0].values, "TAG").bytes, "tag");
}

TEST_F(LXPCLink, BarriersFollowEverySendInOrderAndEmptyMessagesAreDropped) {
    LXPCServer server(&serverEvents);
    SetUpSide(server, true);
    client.AddKey("UNHEARD", LXPCDataTypeInt64, false);
    auto connection = Connect(client);
    // Messages that decode to nothing on the server are sent (with a barrier), not delivered.
    client.SendMessage(connection->hConnection, Values({{"UNHEARD", LXPCDataTypeInt64, 1}}), false);
    client.SendMessage(connection->hConnection, LList<LXPCDataListable>(), false);
    constexpr int kCount = 8;
    for (int i = 0; i < kCount; ++i) {
        client.SendMessage(connection->hConnection, Request(i, "small"), false);
    }
    ASSERT_TRUE(clientEvents.WaitUntil([&] { return clientEvents.sent.size() == kCount + 2; }));
    EXPECT_EQ(std::set<long>(clientEvents.sent.begin(), clientEvents.sent.end()),
              std::set<long>{connection->hConnection});
    ASSERT_TRUE(serverEvents.WaitUntil([&] { return serverEvents.messages.size() == kCount; }));
    for (int i = 0; i < kCount; ++i) {
        EXPECT_EQ(Find(serverEvents.messages[i].values, "REQ").data.nValue, i);
    }
}

TEST_F(LXPCLink, DisconnectDropsOnlyTheNamedConnection) {
    LXPCServer server(&serverEvents);
    SetUpSide(server, true);
    serverEvents.onError = [&](long connection, LXPCErrorType) { server.Disconnect(connection); };
    serverEvents.onMessage = Echoing(server);
    auto first = Connect(client);
    auto second = Connect(client);
    client.SendMessage(first->hConnection, Request(1, "first"), false);
    client.SendMessage(second->hConnection, Request(2, "second"), false);
    ASSERT_TRUE(serverEvents.WaitUntil([&] { return serverEvents.messages.size() == 2; }));
    server.Disconnect(12345);  // unknown: nothing happens
    EXPECT_EQ(server.ConnectionCount(), 2u);

    const long goneId = Find(serverEvents.messages[0].values, "REQ").data.nValue == 1
                            ? serverEvents.messages[0].connection
                            : serverEvents.messages[1].connection;
    first.reset();
    ASSERT_TRUE(serverEvents.WaitUntil([&] { return !serverEvents.errors.empty(); }));
    EXPECT_EQ(serverEvents.errors[0],
              (std::pair<long, LXPCErrorType>{goneId, LXPCErrorConnectionInvalid}));
    EXPECT_FALSE(server.HasConnection(goneId));
    EXPECT_EQ(server.ConnectionCount(), 1u);
    client.SendMessage(second->hConnection, Request(3, "still"), true);
    ASSERT_TRUE(clientEvents.WaitUntil([&] { return clientEvents.replies.size() == 1; }));
    EXPECT_EQ(Find(clientEvents.replies[0].values, "REP").data.nValue, 6);
}

TEST_F(LXPCLink, DestroyingTheServerWithABarrierQueuedDeliversNothing) {
    std::atomic<int> sent{0};
    std::atomic<long> serverConnection{0};
    auto* handler = new CountingHandler(&sent, &serverConnection);
    auto* server = new ProbedServer(handler);
    SetUpSide(*server, true);
    const std::weak_ptr<lxpc_detail::DeliveryGate> gate = server->Gate();
    auto connection = Connect(client);
    client.SendMessage(connection->hConnection, Request(1, "hello"), false);
    ASSERT_TRUE(WaitFor([&] { return serverConnection != 0; }));

    // Occupy the server connection's queue, then queue a send and its barrier behind it.
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> blocking{false};
    xpc_connection_send_barrier(LXPCValueAsPointer(serverConnection), [released, &blocking] {
        blocking = true;
        released.wait();
    });
    ASSERT_TRUE(WaitFor([&] { return blocking.load(); }));
    server->SendMessage(serverConnection, Values({{"REP", LXPCDataTypeInt64, 1}}), false);
    delete server;
    EXPECT_EQ(pServer, nullptr);
    EXPECT_FALSE(handler->bAlive);
    delete handler;
    release.set_value();
    ASSERT_TRUE(WaitFor([&] { return gate.expired(); }));
    EXPECT_EQ(sent, 0);
}

TEST_F(LXPCLink, HandlerMayDestroyTheServerFromItsOwnCallback) {
    auto* server = new LXPCServer(&serverEvents);
    SetUpSide(*server, true);
    serverEvents.onMessage = [&](long, long, const LList<LXPCDataListable>&) { delete server; };
    auto connection = Connect(client);
    client.SendMessage(connection->hConnection, Request(1, "bye"), false);
    client.SendMessage(connection->hConnection, Request(2, "unheard"), false);
    // Recorded after the hook ran.
    ASSERT_TRUE(serverEvents.WaitUntil([&] { return serverEvents.messages.size() == 1; }));
    EXPECT_EQ(pServer, nullptr);
    EXPECT_FALSE(serverEvents.bAlive);
    // The client hears its peer go; the second message found no server to deliver to.
    ASSERT_TRUE(clientEvents.WaitUntil([&] { return !clientEvents.errors.empty(); }));
    ASSERT_TRUE(serverEvents.WaitUntil([&] { return serverEvents.messages.size() == 1; }));
}

class LXPCNamedService : public ::testing::Test {
protected:
    // Serves `server` on a thread until the main queue stops; returns once it listens.
    void Serve(LXPCMachServer& server) {
        SetUpSide(server, true);
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
    // A new client with its own base, both kept until the test ends.
    LXPCConnection& Connect() {
        clients_.push_back(std::make_unique<LXPCBase>(&clientEvents_));
        SetUpSide(*clients_.back(), false);
        connections_.push_back(
            Adopt(*clients_.back(), xpc_connection_create_mach_service(name_.c_str(), nullptr, 0)));
        return *connections_.back();
    }

    ltest::TempTree tree_;
    ltest::EnvOverride env_{"LXPC_SERVICE_DIR", tree_.root()};
    std::string name_ = "com.test.lxpc.named";
    std::thread serving_;
    Recorder serverEvents_;
    Recorder clientEvents_;  // outlives the bases that feed it
    std::vector<std::unique_ptr<LXPCBase>> clients_;
    std::vector<std::unique_ptr<LXPCConnection>> connections_;
};

TEST_F(LXPCNamedService, ServesRequestsUntilStopped) {
    LXPCMachServer server(&serverEvents_);
    serverEvents_.onMessage = Echoing(server);
    Serve(server);
    LXPCConnection& first = Connect();
    clients_.back()->SendMessage(first.hConnection, Request(8, "named"), true);
    ASSERT_TRUE(clientEvents_.WaitUntil([&] { return clientEvents_.replies.size() == 1; }));
    EXPECT_EQ(Find(clientEvents_.replies[0].values, "REP").data.nValue, 16);
    EXPECT_EQ(server.ConnectionCount(), 1u);  // our own pid is in range

    // Once Start returns, the service no longer accepts anyone: the late client's connection
    // and its request each hear an error (which one depends on how far the closing got).
    LMainQueueStop();
    serving_.join();
    LXPCConnection& late = Connect();
    clients_.back()->SendMessage(late.hConnection, Request(9, "late"), true);
    std::vector<std::pair<long, LXPCErrorType>> errors;  // copied under the recorder's lock
    ASSERT_TRUE(clientEvents_.WaitUntil([&] {
        errors = clientEvents_.errors;
        return errors.size() >= 2;
    }));
    for (const auto& error : errors) {
        EXPECT_EQ(error.first, late.hConnection);
    }
    EXPECT_EQ(clientEvents_.replies.size(), 1u);
    EXPECT_EQ(server.ConnectionCount(), 1u);
}

TEST_F(LXPCNamedService, ClientsOutsideTheProcessIdRangeAreRefused) {
    LXPCMachServer server(&serverEvents_);
    std::atomic<pid_t> nextPid{0};
    std::atomic<int> asked{0};
    server.SetProcessIdSource([&](long) {
        ++asked;
        return nextPid.load();
    });
    Serve(server);
    const pid_t refused[] = {0, -5, LXPCServerBase::MaxProcessId() + 1};
    for (size_t i = 0; i < std::size(refused); ++i) {
        nextPid = refused[i];
        // Nothing is sent on a refused client: sending would connect again, a new attempt.
        Connect();
        ASSERT_TRUE(serverEvents_.WaitUntil([&] {
            return serverEvents_.invalidAttempts == static_cast<int>(i + 1);
        })) << "refusal "
            << i;
    }
    EXPECT_EQ(server.ConnectionCount(), 0u);
    for (const pid_t pid : {pid_t{1}, LXPCServerBase::MaxProcessId()}) {
        nextPid = pid;
        LXPCConnection& accepted = Connect();
        clients_.back()->SendMessage(accepted.hConnection, Request(2, "yes"), false);
    }
    ASSERT_TRUE(serverEvents_.WaitUntil([&] { return serverEvents_.messages.size() == 2; }));
    EXPECT_EQ(server.ConnectionCount(), 2u);
    EXPECT_EQ(serverEvents_.invalidAttempts, 3);
    EXPECT_EQ(asked, 5);
}

TEST(LXPCNamedServiceStart, LargestPidAndUnlistenableFolder) {
    long pidMax = 0;
    std::ifstream("/proc/sys/kernel/pid_max") >> pidMax;
    EXPECT_EQ(LXPCServerBase::MaxProcessId(), pidMax);

    ltest::EnvOverride dir("LXPC_SERVICE_DIR", "/nonexistent/lxpc/folder");
    Recorder events;
    LXPCMachServer server(&events);
    server.Start("com.test.lxpc.unlistenable", 0);  // would block in the run loop otherwise
    EXPECT_EQ(server.ConnectionCount(), 0u);
}
