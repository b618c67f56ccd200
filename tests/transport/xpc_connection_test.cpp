// Connections over real sockets: request and reply, replies reaching their owners whoever reads
// the socket, barriers, suspend and resume, cancel, the error each side sees when the other
// goes away, hostile packets, large data, and a client of another user.
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/file/temp_tree.h"
#include "tests/thread/child_process.h"
#include "xpc/transport/xpc_transport.h"
#include "xpc/transport/xpc_wire.h"

using namespace lxpc;
using namespace std::chrono_literals;

namespace {

constexpr auto kPatience = 20s;  // only reached when something is broken

// Collects objects delivered on other threads (retained) and waits for them.
class Inbox {
public:
    ~Inbox() {
        for (xpc_object_t o : items_) {
            xpc_release(o);
        }
    }
    void Push(xpc_object_t o) {
        std::lock_guard lock(mutex_);
        items_.push_back(xpc_retain(o));
        cv_.notify_all();
    }
    bool WaitFor(size_t count) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, kPatience, [&] { return items_.size() >= count; });
    }
    size_t Count() {
        std::lock_guard lock(mutex_);
        return items_.size();
    }
    xpc_object_t At(size_t i) {
        std::lock_guard lock(mutex_);
        return items_.at(i);
    }
    // The first item once it came; nullptr when none did.
    xpc_object_t First() { return WaitFor(1) ? At(0) : nullptr; }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<xpc_object_t> items_;
};

// Every connection test has a private service folder in LXPC_SERVICE_DIR.
class XpcConnection : public ::testing::Test {
protected:
    std::string Path(const char* name) const { return tree_.Path(std::string(name) + ".sock"); }

    ltest::TempTree tree_;
    ltest::EnvOverride env_{"LXPC_SERVICE_DIR", tree_.root()};
};

// A listening service (on `queue` when one is given) whose peers get `onMessage` as their
// handler, and are resumed unless `resumePeers` is false; errors on peers are collected in
// `peerErrors`. Handlers share the state, so that events still arriving while the service is
// torn down find it alive.
struct ServiceState {
    std::function<void(xpc_connection_t, xpc_object_t)> handler;
    Inbox peers, peerErrors, listenerErrors;
    bool resumePeers = true;
};

struct Service {
    Service(const char* name, std::function<void(xpc_connection_t, xpc_object_t)> onMessage,
            xpc_queue_t queue = nullptr, bool resumePeers = true)
        : state(std::make_shared<ServiceState>()) {
        state->handler = std::move(onMessage);
        state->resumePeers = resumePeers;
        listener =
            xpc_connection_create_mach_service(name, queue, XPC_CONNECTION_MACH_SERVICE_LISTENER);
        xpc_connection_set_event_handler(listener, [state = state](xpc_object_t peer) {
            if (xpc_get_type(peer) != XPC_TYPE_CONNECTION) {
                state->listenerErrors.Push(peer);
                return;
            }
            state->peers.Push(peer);
            xpc_connection_set_event_handler(peer, [state, peer](xpc_object_t event) {
                if (xpc_get_type(event) == XPC_TYPE_ERROR) {
                    state->peerErrors.Push(event);
                } else {
                    state->handler(peer, event);
                }
            });
            if (state->resumePeers) {
                xpc_connection_resume(peer);
            }
        });
        xpc_connection_resume(listener);
    }
    ~Service() {
        for (size_t i = 0; i < state->peers.Count(); ++i) {
            xpc_connection_cancel(state->peers.At(i));
        }
        xpc_connection_cancel(listener);
        // The listening socket is closed once the final event arrives.
        EXPECT_TRUE(state->listenerErrors.WaitFor(1));
        xpc_release(listener);
    }
    std::shared_ptr<ServiceState> state;
    xpc_connection_t listener;
};

int64_t V(xpc_object_t message) {
    return xpc_dictionary_get_int64(message, "v");
}

xpc_object_t Message(int64_t value) {
    xpc_object_t m = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_dictionary_set_int64(m, "v", value);
    return m;
}

void Send(xpc_connection_t c, int64_t value) {
    xpc_object_t m = Message(value);
    xpc_connection_send_message(c, m);
    xpc_release(m);
}

void Reply(xpc_connection_t peer, xpc_object_t message, int64_t value) {
    xpc_object_t reply = xpc_dictionary_create_reply(message);
    ASSERT_NE(reply, nullptr);
    xpc_dictionary_set_int64(reply, "v", value);
    xpc_connection_send_message(peer, reply);
    xpc_release(reply);
}

// A service handler replying {v: value} to every request.
std::function<void(xpc_connection_t, xpc_object_t)> Answering(int64_t value) {
    return [value](xpc_connection_t peer, xpc_object_t m) { Reply(peer, m, value); };
}

void Close(xpc_connection_t c) {
    xpc_connection_cancel(c);
    xpc_release(c);
}

// A connection to `name` (listening as `name` with the listener flag), resumed, its events
// collected in `events`. It stands for the connection, which it closes when it goes.
class Client {
public:
    explicit Client(const char* name, uint64_t flags = 0)
        : connection_(xpc_connection_create_mach_service(name, nullptr, flags)) {
        xpc_connection_set_event_handler(connection_,
                                         [events = events](xpc_object_t e) { events->Push(e); });
        xpc_connection_resume(connection_);
    }
    Client(const Client&) = delete;
    ~Client() { Close(connection_); }
    operator xpc_connection_t() const { return connection_; }

    const std::shared_ptr<Inbox> events = std::make_shared<Inbox>();

private:
    xpc_connection_t connection_;
};

// Sends {v: value} and waits for the reply's "v"; -1 when an error came instead.
int64_t Ask(xpc_connection_t c, int64_t value = 0) {
    xpc_object_t m = Message(value);
    xpc_object_t r = xpc_connection_send_message_with_reply_sync(c, m);
    const int64_t v = xpc_get_type(r) == XPC_TYPE_DICTIONARY ? V(r) : -1;
    xpc_release(r);
    xpc_release(m);
    return v;
}

// Sends {v: value} with a reply handler; the reply (or error) arrives in the inbox returned.
std::shared_ptr<Inbox> AskLater(xpc_connection_t c, int64_t value) {
    auto replies = std::make_shared<Inbox>();
    xpc_object_t m = Message(value);
    xpc_connection_send_message_with_reply(c, m, nullptr,
                                           [replies](xpc_object_t r) { replies->Push(r); });
    xpc_release(m);
    return replies;
}

// Queues a barrier; the inbox returned gets an item when it runs.
std::shared_ptr<Inbox> Barrier(xpc_connection_t c) {
    auto ran = std::make_shared<Inbox>();
    xpc_connection_send_barrier(c, [ran] { ran->Push(XPC_ERROR_CONNECTION_INVALID); });
    return ran;
}

// A service handler answering requests below 10 at once with their own value, and holding
// the others (on its peer's serial queue) until `count` are in; it then sends events 1 and 2,
// answers the held ones in reverse order with their value plus one, and sends event 3.
std::function<void(xpc_connection_t, xpc_object_t)> Holding(size_t count) {
    auto held = std::make_shared<std::vector<xpc_object_t>>();
    return [held, count](xpc_connection_t peer, xpc_object_t m) {
        if (V(m) < 10) {
            return Reply(peer, m, V(m));
        }
        held->push_back(xpc_retain(m));
        if (held->size() < count) {
            return;
        }
        Send(peer, 1);
        Send(peer, 2);
        for (auto it = held->rbegin(); it != held->rend(); ++it) {
            Reply(peer, *it, V(*it) + 1);
            xpc_release(*it);
        }
        Send(peer, 3);
    };
}

TEST_F(XpcConnection, ManyRequestsInFlightGetTheirOwnReplies) {
    constexpr int64_t kCount = 64;
    Service service("t.routing", Holding(kCount));
    Client c("t.routing");
    std::vector<std::shared_ptr<Inbox>> replies;
    for (int64_t i = 10; i < 10 + kCount; ++i) {
        replies.push_back(AskLater(c, i));
    }
    for (int64_t i = 0; i < kCount; ++i) {
        EXPECT_EQ(V(replies[i]->First()), i + 11);
    }
}

// Two requests warm a connection up: from then on a synchronous caller reads its socket.
void WarmUp(xpc_connection_t c) {
    ASSERT_EQ(Ask(c, 1), 1);
    ASSERT_EQ(Ask(c, 2), 2);
}

TEST_F(XpcConnection, ASynchronousCallerReadingTheSocketHandsOnWhatIsNotItsOwn) {
    // Three requests are held (two synchronous ones from two threads, one with a reply
    // handler): whichever caller reads, every reply reaches its owner and the events stay in
    // order.
    Service service("t.handover", Holding(3));
    Client c("t.handover");
    WarmUp(c);
    auto reply = AskLater(c, 30);
    int64_t other = 0;
    std::thread thread([&] { other = Ask(c, 20); });
    EXPECT_EQ(Ask(c, 10), 11);
    thread.join();
    EXPECT_EQ(other, 21);
    EXPECT_EQ(V(reply->First()), 31);
    ASSERT_TRUE(c.events->WaitFor(3));
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(V(c.events->At(i)), static_cast<int64_t>(i + 1));
    }
}

TEST_F(XpcConnection, ASynchronousCallerReadingTheSocketLearnsOfItsEnd) {
    // The peer going away reaches a named-service client's waiting caller and handler as
    // "interrupted"; its own cancel, from another thread, as "invalid".
    const struct {
        const char* service;
        bool clientCancels;
        xpc_object_t error;
    } cases[] = {
        {"t.lost", false, XPC_ERROR_CONNECTION_INTERRUPTED},
        {"t.cancelled", true, XPC_ERROR_CONNECTION_INVALID},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.service);
        auto asked = std::make_shared<Inbox>();
        Service service(k.service,
                        [asked, cancels = k.clientCancels](xpc_connection_t peer, xpc_object_t m) {
                            if (V(m) < 10) {
                                return Reply(peer, m, V(m));
                            }
                            asked->Push(m);  // and never replies
                            if (!cancels) {
                                xpc_connection_cancel(peer);
                            }
                        });
        Client c(k.service);
        WarmUp(c);
        std::thread canceller([&] {
            if (k.clientCancels && asked->WaitFor(1)) {
                std::this_thread::sleep_for(20ms);  // the caller is waiting by now
                xpc_connection_cancel(c);
            }
        });
        xpc_object_t m = Message(10);
        EXPECT_EQ(xpc_connection_send_message_with_reply_sync(c, m), k.error);
        canceller.join();
        EXPECT_EQ(c.events->First(), k.error);
        if (k.clientCancels) {
            // A cancelled connection is never connected again: sends fail at once, and nothing
            // follows its final event (a barrier runs after whatever was queued before it).
            EXPECT_EQ(xpc_connection_send_message_with_reply_sync(c, m),
                      XPC_ERROR_CONNECTION_INVALID);
            ASSERT_TRUE(Barrier(c)->WaitFor(1));
            EXPECT_EQ(c.events->Count(), 1u);
            // Nor is one cancelled before it ever ran, though its service is there.
            xpc_connection_t early = xpc_connection_create_mach_service(k.service, nullptr, 0);
            xpc_connection_cancel(early);
            EXPECT_EQ(AskLater(early, 10)->First(), XPC_ERROR_CONNECTION_INVALID);
            xpc_release(early);
        }
        xpc_release(m);
    }
}

TEST_F(XpcConnection, BarrierWaitsUntilEverythingBeforeItIsWritten) {
    auto arrived = std::make_shared<Inbox>();
    auto keep = [arrived](xpc_connection_t, xpc_object_t m) { arrived->Push(m); };
    Service service("t.barrier", keep, nullptr, false);  // the peer reads nothing until resumed
    Client c("t.barrier");
    ASSERT_TRUE(service.state->peers.WaitFor(1));
    constexpr int kCount = 400;  // far more than the socket buffer holds
    std::vector<char> payload(16 * 1024, 'p');
    for (int i = 0; i < kCount; ++i) {
        xpc_object_t m = Message(i);
        xpc_dictionary_set_data(m, "p", payload.data(), payload.size());
        xpc_connection_send_message(c, m);
        xpc_release(m);
    }
    auto done = Barrier(c);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(done->Count(), 0u);
    xpc_connection_resume(service.state->peers.At(0));
    ASSERT_TRUE(done->WaitFor(1));
    // Everything was written before the barrier ran, so all of it arrives, in order.
    ASSERT_TRUE(arrived->WaitFor(kCount));
    for (int i = 0; i < kCount; ++i) {
        EXPECT_EQ(V(arrived->At(i)), i);
    }
}

TEST_F(XpcConnection, SuspendHoldsEventsUntilResume) {
    Service service("t.suspend", [&](xpc_connection_t peer, xpc_object_t m) {
        xpc_connection_send_message(peer, m);  // echoed back as a plain message
    });
    Client c("t.suspend");
    xpc_connection_suspend(c);
    Send(c, 5);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(c.events->Count(), 0u);
    xpc_connection_resume(c);
    EXPECT_EQ(V(c.events->First()), 5);
}

// A connection whose queue does not keep up holds its peer back instead of taking in all it
// sends: past the backlog limit the service stops receiving, the flooding client's own
// queue overflows and the client drops its connection; the surplus never reaches the
// service.
TEST_F(XpcConnection, AStalledQueueHoldsItsFloodingPeerBack) {
    xpc_queue_t queue = xpc_queue_create("t.flood");
    std::atomic<size_t> handled{0};
    Service service(
        "t.flood", [&handled](xpc_connection_t, xpc_object_t) { ++handled; }, queue);
    Client c("t.flood");
    xpc_object_t m = Message(1);
    xpc_connection_send_message(c, m);
    // The stall queues behind the handler that resumed the peer.
    ASSERT_TRUE(service.state->peers.WaitFor(1));
    std::promise<void> release;
    xpc_queue_async(queue, [released = release.get_future().share()] { released.wait(); });
    // Paced, so that a service that went on receiving would keep the client's queue empty.
    for (size_t i = 1; i <= 4 * wire::kMaxQueuedPackets; ++i) {
        xpc_connection_send_message(c, m);
        if (i % 32 == 0) {
            std::this_thread::sleep_for(1ms);
        }
    }
    xpc_release(m);
    EXPECT_EQ(c.events->First(), XPC_ERROR_CONNECTION_INVALID);
    release.set_value();
    EXPECT_NE(service.state->peerErrors.First(), nullptr);  // the service saw the client go
    EXPECT_LT(handled, 2 * wire::kMaxQueuedPackets);
    xpc_queue_release(queue);  // the service's connections hold it until they are gone
}

TEST_F(XpcConnection, ASynchronousRequestInsideAHandlerIsAnswered) {
    // The service, while handling a request, asks the client something on the same
    // connection and waits for the answer before replying.
    Service service("t.nested", [&](xpc_connection_t peer, xpc_object_t m) {
        xpc_object_t question = Message(7);
        xpc_object_t answer = xpc_connection_send_message_with_reply_sync(peer, question);
        Reply(peer, m, V(answer) + V(m));
        xpc_release(answer);
        xpc_release(question);
    });
    xpc_connection_t c = xpc_connection_create_mach_service("t.nested", nullptr, 0);
    xpc_connection_set_event_handler(c, [c](xpc_object_t e) {
        if (xpc_get_type(e) == XPC_TYPE_DICTIONARY) {
            Reply(c, e, V(e) * 10);
        }
    });
    xpc_connection_resume(c);
    EXPECT_EQ(Ask(c, 1), 71);
    Close(c);
}

TEST_F(XpcConnection, LargeDataArrivesIntactBothWaysAroundEveryThreshold) {
    Service service("t.large", [](xpc_connection_t peer, xpc_object_t m) {
        EXPECT_EQ(xpc_dictionary_get_remote_connection(m), peer);
        EXPECT_EQ(xpc_connection_get_pid(peer), getpid());
        xpc_object_t reply = xpc_dictionary_create_reply(m);
        xpc_dictionary_set_value(reply, "d", xpc_dictionary_get_value(m, "d"));
        xpc_connection_send_message(peer, reply);
        xpc_release(reply);
    });
    Client c("t.large");
    // Inline, just out of the packet, a whole packet, a ring that must grow, the largest
    // ring, beyond it (sealed), and small again in the grown ring.
    for (size_t size : {wire::kInlineDataMax, wire::kInlineDataMax + 1, wire::kMaxPacketSize,
                        size_t{1} << 20, (size_t{4} << 20) + 1, wire::kMaxRegionRing,
                        wire::kMaxRegionRing + 1, wire::kInlineDataMax + 1}) {
        std::vector<uint8_t> bytes(size);
        for (size_t i = 0; i < size; ++i)
            bytes[i] = static_cast<uint8_t>(i * 131 + size);
        xpc_object_t m = xpc_dictionary_create(nullptr, nullptr, 0);
        xpc_dictionary_set_data(m, "d", bytes.data(), bytes.size());
        xpc_object_t r = xpc_connection_send_message_with_reply_sync(c, m);
        size_t length = 0;
        const void* got = xpc_dictionary_get_data(r, "d", &length);
        EXPECT_TRUE(length == size && std::memcmp(got, bytes.data(), size) == 0) << size;
        EXPECT_EQ(xpc_dictionary_get_remote_connection(r), c);
        EXPECT_EQ(xpc_dictionary_create_reply(m), nullptr);  // not a received request
        xpc_release(r);
        xpc_release(m);
    }
    EXPECT_EQ(xpc_connection_get_pid(c), getpid());
    EXPECT_STREQ(xpc_connection_get_name(c), "t.large");
}

// Another user asks the service of the parent test (below), in a child process: this test
// program started again to run only this test. Exec gives the child a fresh process: a forked
// copy of a multi-threaded parent may inherit locks other threads held at the fork.
TEST(XpcChild, AsNobody) {
    if (std::getenv("LXPC_TEST_CHILD") == nullptr) {
        GTEST_SKIP() << "runs as a child process only";
    }
    alarm(20);  // only reached when something is broken
    const bool answered = setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0 &&
                          Ask(Client("t.share")) == 9;
    _exit(answered ? 0 : 1);
}

// A connection counts until its socket closes, however long the program keeps the peer
// (this service keeps them all); one user may hold only part of the connections.
TEST_F(XpcConnection, ConnectionsAreCountedWhileOpenAndSharedAmongUsers) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to connect as another user";
    }
    chmod(std::getenv("LXPC_SERVICE_DIR"), 0755);
    Service service("t.share", Answering(9));
    int closedAnswered = 0, openAnswered = 0;
    for (size_t i = 0; i < wire::kMaxConnections; ++i) {
        closedAnswered += Ask(Client("t.share")) == 9;
    }
    // A peer's slot is given back before its error is delivered: once every closed peer has
    // reported, every slot is free again.
    ASSERT_TRUE(service.state->peerErrors.WaitFor(wire::kMaxConnections));
    std::list<Client> open;
    for (size_t i = 0; i < wire::kMaxConnections; ++i) {
        open.emplace_back("t.share");
        openAnswered += Ask(open.back()) == 9;
    }
    EXPECT_EQ(closedAnswered, static_cast<int>(wire::kMaxConnections));
    EXPECT_EQ(openAnswered, static_cast<int>(wire::kMaxConnectionsPerUser));
    ltest::EnvOverride child("LXPC_TEST_CHILD", "1");
    char self[] = "/proc/self/exe", filter[] = "--gtest_filter=XpcChild.AsNobody";
    char* argv[] = {self, filter, nullptr};
    const pid_t pid = ltest::ForkChild([&] {
        execv(self, argv);
        return 127;
    });
    EXPECT_EQ(ltest::WaitChild(pid), 0) << "another user was refused";
}

// The life of a service's socket: a stale one left behind is replaced, a live one kept from a
// second instance, and a malformed packet drops only the connection it came on. A clean stop
// takes the path away: its clients are interrupted and new ones find no service, until a
// restarted service takes the interrupted ones back.
TEST_F(XpcConnection, AServiceSocketFromAStaleFileThroughHostilePeersToARestart) {
    const std::string path = Path("t.socket");
    sockaddr_un address{AF_UNIX, {}};
    std::strcpy(address.sun_path, path.c_str());
    const int stale = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(stale);  // left behind, nobody listening
    auto service = std::make_unique<Service>("t.socket", Answering(4));
    // The second instance is closed at once, before the live one is used.
    EXPECT_EQ(Client("t.socket", XPC_CONNECTION_MACH_SERVICE_LISTENER).events->First(),
              XPC_ERROR_CONNECTION_INVALID);

    Client good("t.socket");
    const int raw = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ASSERT_EQ(connect(raw, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const char garbage[] = "LXPC\x01\x01 this is not a packet";
    ASSERT_EQ(send(raw, garbage, sizeof garbage, 0), static_cast<ssize_t>(sizeof garbage));
    EXPECT_EQ(service->state->peerErrors.First(), XPC_ERROR_CONNECTION_INVALID);
    char byte;
    EXPECT_EQ(recv(raw, &byte, 1, 0), 0);  // the hostile socket was closed
    close(raw);
    EXPECT_EQ(Ask(good), 4);

    // The sockets are staged under private names; none of those is left behind.
    for (const auto& entry : std::filesystem::directory_iterator(tree_.root())) {
        EXPECT_EQ(entry.path(), path);
    }
    service.reset();
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(path)));
    EXPECT_EQ(good.events->First(), XPC_ERROR_CONNECTION_INTERRUPTED);
    Client late("t.socket");
    auto reply = AskLater(late, 1);
    EXPECT_EQ(late.events->First(), XPC_ERROR_CONNECTION_INVALID);
    EXPECT_EQ(reply->First(), XPC_ERROR_CONNECTION_INVALID);
    xpc_object_t m = Message(1);
    EXPECT_EQ(xpc_connection_send_message_with_reply_sync(late, m), XPC_ERROR_CONNECTION_INVALID);
    xpc_release(m);
    service = std::make_unique<Service>("t.socket", Answering(5));
    EXPECT_EQ(Ask(good), 5);
}

}  // namespace
