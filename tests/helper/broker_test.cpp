// The endpoint broker of the real service, driven by clients over the transport: a device
// that publishes an anonymous listener's endpoint and applications that ask for it.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "helper/vadhelper_startup.h"
#include "service_process.h"
#include "tools/vadctl_messages.h"

using namespace std::chrono_literals;
using helper_test::ServiceProcess;
using vadctl::Value;
using Values = std::optional<std::vector<Value>>;

namespace {

long AsValue(void const* pointer) {
    return static_cast<long>(reinterpret_cast<intptr_t>(pointer));
}

// A client of the service as the application or the device sees it.
class Client {
public:
    ~Client() {
        if (connection_) {
            lxpc::xpc_connection_cancel(connection_);
            lxpc::xpc_release(connection_);
        }
    }
    // The decoded reply, or nothing on an error.
    Values Send(std::initializer_list<std::pair<char const*, long>> values) {
        lxpc::xpc_object_t message = inbox_->keys.Encode(values);
        bool timedOut = false;
        Values reply = vadctl::SendAndWait(connection_, message, inbox_->keys, 10s, timedOut);
        lxpc::xpc_release(message);
        return reply;
    }
    Values Ask() { return Send({{"REQUEST_ENDPOINT", 1}}); }
    Values Publish(void const* endpoint) { return Send({{"NEW_ENDPOINT", AsValue(endpoint)}}); }
    // The values of the next message the service pushed within `timeout`, or nothing.
    Values Pushed(std::chrono::milliseconds timeout) {
        auto event = inbox_->events.Pop(timeout);
        return event && !event->error ? Values(std::move(event->values)) : std::nullopt;
    }

private:
    std::shared_ptr<vadctl::Inbox> inbox_ =
        std::make_shared<vadctl::Inbox>(arVADHelperTxKeys, arVADHelperRxKeys);
    lxpc::xpc_connection_t connection_ = vadctl::ConnectToService(inbox_);
};

// The device's side: an anonymous listener whose endpoint is published, counting the
// connections that reach it through that endpoint.
class Listener {
public:
    Listener() {
        // The handler shares the queue: it may still run after this listener is gone.
        lxpc::xpc_connection_set_event_handler(
            listener_, [accepted = accepted_](lxpc::xpc_object_t peer) {
                if (lxpc::xpc_get_type(peer) != lxpc::XPC_TYPE_CONNECTION)
                    return;
                lxpc::xpc_connection_set_event_handler(peer, [](lxpc::xpc_object_t) {});
                lxpc::xpc_connection_resume(peer);
                lxpc::xpc_connection_cancel(peer);
                accepted->Push({});
            });
        lxpc::xpc_connection_resume(listener_);
    }
    ~Listener() {
        lxpc::xpc_release(endpoint_);
        lxpc::xpc_connection_cancel(listener_);
        lxpc::xpc_release(listener_);
    }

    lxpc::xpc_endpoint_t Endpoint() const { return endpoint_; }
    bool Accepted(std::chrono::milliseconds timeout) { return accepted_->Pop(timeout).has_value(); }

private:
    lxpc::xpc_connection_t listener_ = lxpc::xpc_connection_create(nullptr, nullptr);
    lxpc::xpc_endpoint_t endpoint_ = lxpc::xpc_endpoint_create(listener_);
    std::shared_ptr<vadctl::EventQueue> accepted_ = std::make_shared<vadctl::EventQueue>();
};

// Whether the "SEND_ENDPOINT" among `values` leads to `device`: connecting through it and
// saying something reaches the device's listener within `wait`.
bool Reaches(Values const& values, Listener& device, std::chrono::milliseconds wait = 5s) {
    Value const* sent = values ? vadctl::Find(*values, "SEND_ENDPOINT") : nullptr;
    if (!sent || !sent->object)
        return false;
    lxpc::xpc_connection_t direct = lxpc::xpc_connection_create_from_endpoint(sent->object);
    lxpc::xpc_connection_set_event_handler(direct, [](lxpc::xpc_object_t) {});
    lxpc::xpc_connection_resume(direct);
    lxpc::xpc_object_t hello = lxpc::xpc_dictionary_create(nullptr, nullptr, 0);
    lxpc::xpc_dictionary_set_bool(hello, "START_RECORDING", true);
    lxpc::xpc_connection_send_message(direct, hello);
    lxpc::xpc_release(hello);
    lxpc::xpc_connection_cancel(direct);
    lxpc::xpc_release(direct);
    return device.Accepted(wait);
}

class Broker : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(service_.Ready()) << "service did not start"; }
    void TearDown() override { EXPECT_TRUE(service_.Running()) << "service ended during the test"; }

    ServiceProcess service_;
};

}  // namespace

TEST_F(Broker, PublishRepliesPushesToTheLastRequesterOnlyAndReplacesTheStoredOne) {
    // Before any endpoint: an empty reply, nothing pushed. Only an endpoint is published: a
    // plain descriptor in its place is answered, neither pushed nor kept.
    Client first, last, publisher, late;
    Values empty = first.Ask();
    EXPECT_TRUE(empty && empty->empty());
    lxpc::xpc_object_t file = lxpc::xpc_fd_create(STDIN_FILENO);
    Values reply = Client().Publish(file);
    lxpc::xpc_release(file);
    ASSERT_TRUE(reply && vadctl::Find(*reply, "NEW_ENDPOINT_REPLY"));
    EXPECT_FALSE(first.Pushed(200ms));
    empty = first.Ask();
    EXPECT_TRUE(empty && empty->empty());
    ASSERT_TRUE(last.Send({{"REQUEST_ENDPOINT", 0}}));  // presence counts, not the value

    Listener device, newer;
    reply = publisher.Publish(device.Endpoint());
    Value const* published = reply ? vadctl::Find(*reply, "NEW_ENDPOINT_REPLY") : nullptr;
    ASSERT_NE(published, nullptr);
    EXPECT_EQ(published->number, 1);
    // The pushed endpoint is the device's own: connecting through it reaches its listener.
    EXPECT_TRUE(Reaches(last.Pushed(5s), device)) << "no push to the last requester";
    EXPECT_FALSE(first.Pushed(200ms));
    EXPECT_FALSE(publisher.Pushed(0ms));
    // A later request gets the stored endpoint in its reply; a newer one replaces it.
    EXPECT_TRUE(Reaches(late.Ask(), device));
    ASSERT_TRUE(publisher.Publish(newer.Endpoint()));
    EXPECT_TRUE(Reaches(late.Ask(), newer));
    EXPECT_FALSE(device.Accepted(200ms));
}

TEST_F(Broker, AMessageWithBothKeysPublishesFirst) {
    Client waiting, both, publisher;
    ASSERT_TRUE(waiting.Ask());
    // Publication first: the push goes to the requester stored before this message, and
    // the reply to the message itself is the publication's.
    Listener device, second;
    Values reply =
        both.Send({{"NEW_ENDPOINT", AsValue(device.Endpoint())}, {"REQUEST_ENDPOINT", 1}});
    EXPECT_TRUE(reply && vadctl::Find(*reply, "NEW_ENDPOINT_REPLY"));
    EXPECT_TRUE(Reaches(waiting.Pushed(5s), device)) << "the earlier requester got no push";
    // ... and then the request: the sender of both keys is now the requester. The message
    // also got a second reply (the request's); whatever the transport makes of it, the push
    // of the new endpoint must follow.
    ASSERT_TRUE(publisher.Publish(second.Endpoint()));
    bool reachedSecond = false;
    for (Values pushed; !reachedSecond && (pushed = both.Pushed(5s));)
        reachedSecond = Reaches(pushed, second, 1s);
    EXPECT_TRUE(reachedSecond) << "the sender of both keys did not become the requester";
    EXPECT_FALSE(waiting.Pushed(200ms));
}

// A requester that left is never confused with a newcomer given the same handle: the
// allocator often hands the memory of a connection that went to the next one (sanitizer
// builds keep freed memory aside, so this bites in plain builds).
TEST_F(Broker, APushNeverReachesANewcomer) {
    Listener device;
    int pushed = 0;
    for (int trial = 0; trial < 20; ++trial) {
        ASSERT_TRUE(Client().Ask());
        std::this_thread::sleep_for(20ms);  // the service lets it go
        Client newcomer;
        ASSERT_TRUE(newcomer.Publish(device.Endpoint()));
        pushed += newcomer.Pushed(100ms).has_value();
    }
    EXPECT_EQ(pushed, 0);
}

// The client tool asking for the endpoint, silenced; the shell hands its process over to it.
pid_t StartRequester() {
    return helper_test::Spawn(
        {"/bin/sh", "-c",
         std::string("exec ") + VADCTL_EXE + " request --wait 20000 >/dev/null 2>&1"},
        {});
}

TEST_F(Broker, AClientDyingMidExchangeLeavesTheServiceServing) {
    // An application that asked, got the endpoint pushed and is connecting to the device
    // when it is killed.
    pid_t app = StartRequester();
    ASSERT_GT(app, 0);
    Listener device, next;
    Client publisher;
    bool reached = false;
    for (int i = 0; i < 100 && !reached; ++i) {
        ASSERT_TRUE(publisher.Publish(device.Endpoint()));
        reached = device.Accepted(100ms);
    }
    ASSERT_TRUE(reached) << "the application never reached the device";
    // The dead client was the last requester: publishing again must not hurt the service;
    // nor must a client killed right after it connected, maybe before it said anything.
    for (pid_t client : {app, pid_t(0)}) {
        client = client ? client : StartRequester();
        kill(client, SIGKILL);
        waitpid(client, nullptr, 0);
        ASSERT_TRUE(publisher.Publish(device.Endpoint()));
    }
    Client other;
    ASSERT_TRUE(Reaches(other.Ask(), device)) << "the service stopped serving";
    // The killed requester's request may still be handled after this one (each connection
    // has its queue), and the last requester is the one pushed to: a second round settles it.
    bool pushed = false;
    for (int round = 0; round < 2 && !pushed; ++round) {
        ASSERT_TRUE(round == 0 || Reaches(other.Ask(), next));
        ASSERT_TRUE(publisher.Publish(next.Endpoint()));
        pushed = Reaches(other.Pushed(round == 0 ? 1s : 5s), next);
    }
    EXPECT_TRUE(pushed);
}

// Started by a service manager that asked to be told (NOTIFY_SOCKET), the service says
// "READY=1" once clients can connect.
TEST(Startup, TheServiceTellsItsManagerWhenItIsReady) {
    sockaddr_un address{AF_UNIX, {}};
    std::snprintf(address.sun_path, sizeof address.sun_path, "/tmp/vadhelper_notify.%d", getpid());
    int const manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ServiceProcess service({std::string("NOTIFY_SOCKET=") + address.sun_path});
    pollfd wait{manager, POLLIN, 0};
    char said[256] = {};
    EXPECT_TRUE(poll(&wait, 1, 10000) == 1 && recv(manager, said, sizeof said - 1, 0) > 0);
    EXPECT_NE(std::string(said).find("READY=1"), std::string::npos) << said;
    EXPECT_TRUE(Client().Ask());
    close(manager);
    unlink(address.sun_path);
}
