// What one client can cost the real service: clients that send and never read, and clients
// arriving while the service is out of descriptors. Each bound is checked against the
// service process's own descriptor table, resident memory and processor time, and the
// figures are printed for the record. Labelled "load"; each case takes a few seconds.
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "helper/vadhelper_startup.h"
#include "service_process.h"
#include "xpc/transport/xpc_wire.h"

using namespace std::chrono_literals;
using helper_test::ServiceProcess;

namespace {

size_t Descriptors(pid_t pid) {
    size_t n = 0;
    for ([[maybe_unused]] auto const& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd"))
        ++n;
    return n;
}

long ResidentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6));
    return -1;
}

long CpuTicks(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), {});
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    long ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i)
        if (i >= 14)
            ticks += std::stol(field);
    return ticks;
}

void LimitDescriptors(pid_t pid, rlim_t limit) {
    rlimit const lim{limit, limit};
    ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &lim, nullptr), 0);
}

// A client speaking the wire format directly, which sends and never reads.
class RawClient {
public:
    explicit RawClient(std::string const& dir) {
        fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s/%s.sock", dir.c_str(),
                      kLVADHelperServiceName);
        connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        timeval const patience{2, 0};
        setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    }
    ~RawClient() { close(fd_); }
    bool Connected() const { return connected_; }

    // Sends {key: value} wanting a reply; false once the service has dropped this client.
    bool Send(char const* key, lxpc::xpc_object_t value) {
        lxpc::xpc_object_t message = lxpc::xpc_dictionary_create(nullptr, nullptr, 0);
        lxpc::xpc_dictionary_set_value(message, key, value);
        lxpc::wire::Packet packet;
        bool const encoded =
            lxpc::wire::Encode({lxpc::wire::Kind::messageWantingReply, ++id_, 0}, message, packet);
        lxpc::xpc_release(message);
        if (!encoded)
            return false;
        iovec iov{packet.bytes.data(), packet.bytes.size()};
        msghdr header{};
        header.msg_iov = &iov;
        header.msg_iovlen = 1;
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 4)] = {};
        if (!packet.fds.empty()) {
            header.msg_control = control;
            header.msg_controllen = CMSG_SPACE(sizeof(int) * packet.fds.size());
            cmsghdr* c = CMSG_FIRSTHDR(&header);
            c->cmsg_level = SOL_SOCKET;
            c->cmsg_type = SCM_RIGHTS;
            c->cmsg_len = CMSG_LEN(sizeof(int) * packet.fds.size());
            std::memcpy(CMSG_DATA(c), packet.fds.data(), sizeof(int) * packet.fds.size());
        }
        return sendmsg(fd_, &header, MSG_NOSIGNAL) >= 0;
    }

    // True once the service has closed its end, within `timeout`.
    bool Dropped(std::chrono::milliseconds timeout) {
        pollfd p{fd_, POLLRDHUP, 0};
        return poll(&p, 1, static_cast<int>(timeout.count())) == 1 &&
               (p.revents & (POLLRDHUP | POLLHUP)) != 0;
    }

private:
    int fd_ = -1;
    bool connected_ = false;
    uint64_t id_ = 0;
};

lxpc::xpc_object_t True() {
    return lxpc::xpc_bool_create(true);
}

}  // namespace

// Every unread reply to REQUEST_ENDPOINT holds a duplicate of the endpoint's descriptor.
TEST(Load, UnreadEndpointRepliesCannotExhaustTheServiceDescriptors) {
    ServiceProcess service;
    ASSERT_TRUE(service.Ready());
    LimitDescriptors(service.Pid(), 1024);  // systemd's default for a service
    size_t const before = Descriptors(service.Pid());

    lxpc::xpc_connection_t device = lxpc::xpc_connection_create(nullptr, nullptr);
    lxpc::xpc_connection_set_event_handler(device, [](lxpc::xpc_object_t) {});
    lxpc::xpc_connection_resume(device);
    lxpc::xpc_object_t endpoint = lxpc::xpc_endpoint_create(device);
    RawClient flood(service.Dir());
    ASSERT_TRUE(flood.Connected());
    ASSERT_TRUE(flood.Send("NEW_ENDPOINT", endpoint));
    lxpc::xpc_object_t yes = True();
    int sent = 0;
    while (sent < 2000 && flood.Send("REQUEST_ENDPOINT", yes))
        ++sent;
    lxpc::xpc_release(yes);
    EXPECT_TRUE(flood.Dropped(5s)) << "the service kept a client that never reads";
    // Requests already read when the client was dropped are still answered (into nothing)
    // for a moment.
    size_t held = Descriptors(service.Pid()) - before;
    for (int i = 0; i < 60 && held >= lxpc::wire::kMaxQueuedDescriptors / 4; ++i) {
        std::this_thread::sleep_for(50ms);
        held = Descriptors(service.Pid()) - before;
    }
    std::printf("requests sent: %d, descriptors held by the service: %zu\n", sent, held);
    EXPECT_LT(held, lxpc::wire::kMaxQueuedDescriptors / 4);

    // Everyone else is still served.
    RawClient other(service.Dir());
    EXPECT_TRUE(other.Connected());
    EXPECT_FALSE(other.Dropped(200ms));
    lxpc::xpc_release(endpoint);
    lxpc::xpc_connection_cancel(device);
    lxpc::xpc_release(device);
}

TEST(Load, UnreadPlainRepliesCannotGrowTheService) {
    ServiceProcess service;
    ASSERT_TRUE(service.Ready());
    long const before = ResidentKiB(service.Pid());
    RawClient flood(service.Dir());
    ASSERT_TRUE(flood.Connected());
    lxpc::xpc_object_t yes = True();
    int sent = 0;
    auto const stop = std::chrono::steady_clock::now() + 5s;
    while (sent < 300000 && std::chrono::steady_clock::now() < stop &&
           flood.Send("REQUEST_ENDPOINT", yes))
        ++sent;
    lxpc::xpc_release(yes);
    EXPECT_TRUE(flood.Dropped(5s)) << "the service kept a client that never reads";
    long const growth = ResidentKiB(service.Pid()) - before;
    std::printf("requests sent: %d, service growth: %ld KiB\n", sent, growth);
    EXPECT_LT(growth, 16 * 1024);
}

// Clients waiting in the backlog of a service that has no descriptor to accept them with.
TEST(Load, AServiceOutOfDescriptorsDoesNotSpin) {
#if defined(__SANITIZE_ADDRESS__)
    // Their object checks need descriptors of their own and abort the service without them.
    GTEST_SKIP() << "runs in builds without sanitizers";
#endif
    ServiceProcess service;
    ASSERT_TRUE(service.Ready());
    // Not one descriptor to spare: the first accept already fails.
    LimitDescriptors(service.Pid(), Descriptors(service.Pid()));
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 24; ++i)
        clients.push_back(std::make_unique<RawClient>(service.Dir()));
    std::this_thread::sleep_for(300ms);
    long const start = CpuTicks(service.Pid());
    std::this_thread::sleep_for(1s);
    long const used = CpuTicks(service.Pid()) - start;
    std::printf("processor time in 1 s while out of descriptors: %ld ticks of %ld\n", used,
                sysconf(_SC_CLK_TCK));
    EXPECT_LT(used, sysconf(_SC_CLK_TCK) / 10);
    clients.clear();
    EXPECT_TRUE(service.Running());
}
