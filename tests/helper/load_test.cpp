// What one client can cost the running service, read from its descriptor table, resident
// memory and processor time (figures printed for the record). Labelled "load".
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "service_process.h"
#include "xpc/transport/xpc_transport.h"

using namespace std::chrono_literals;
using helper_test::ServiceProcess;

namespace {

// From /proc/<pid>/FILE: the entries of fd, VmRSS (KiB) of status, user+system ticks of stat.
long Proc(pid_t pid, char const* file) {
    std::string const base = "/proc/" + std::to_string(pid) + "/";
    if (std::string(file) == "fd")
        return std::distance(std::filesystem::directory_iterator(base + "fd"), {});
    std::ifstream in(base + file);
    std::string word;
    long value = 0, utime = 0;
    for (int i = 1; in >> word; ++i) {
        if (std::string(file) == "status" && word == "VmRSS:")
            return in >> value, value;
        if (std::string(file) == "stat" && i == 14)
            utime = std::stol(word);
        if (std::string(file) == "stat" && i == 15)
            return utime + std::stol(word);
    }
    return -1;
}

}  // namespace

// A client that publishes an endpoint and then asks for it again and again, never reading a
// reply: every reply holds a duplicate of the endpoint's descriptor and its bytes.
TEST(Load, UnreadRepliesCostTheServiceABoundedAmount) {
    // Resident memory is live memory only when the address checker keeps nothing freed aside.
    char const* checks = std::getenv("ASAN_OPTIONS");
    ServiceProcess service(
        {std::string("ASAN_OPTIONS=") + (checks ? checks : "") + ":quarantine_size_mb=0"});
    ASSERT_TRUE(service.Ready());
    rlimit const systemdDefault{1024, 1024};
    ASSERT_EQ(prlimit(service.Pid(), RLIMIT_NOFILE, &systemdDefault, nullptr), 0);
    long const fds = Proc(service.Pid(), "fd"), rss = Proc(service.Pid(), "status");

    lxpc::xpc_connection_t device = lxpc::xpc_connection_create(nullptr, nullptr);
    lxpc::xpc_connection_set_event_handler(device, [](lxpc::xpc_object_t) {});
    lxpc::xpc_connection_resume(device);
    lxpc::xpc_object_t publish = lxpc::xpc_dictionary_create(nullptr, nullptr, 0);
    lxpc::xpc_object_t endpoint = lxpc::xpc_endpoint_create(device);
    lxpc::xpc_dictionary_set_value(publish, "NEW_ENDPOINT", endpoint);
    lxpc::xpc_object_t ask = lxpc::xpc_dictionary_create(nullptr, nullptr, 0);
    lxpc::xpc_dictionary_set_bool(ask, "REQUEST_ENDPOINT", true);
    // Never resumed, the client never reads what the service sends it (and, dropped,
    // connects again and goes on).
    lxpc::xpc_connection_t flood = lxpc::xpc_connection_create_mach_service(
        "com.tessalysoftware.KavelPL.VadHelper", nullptr, 0);
    auto ignore = [](lxpc::xpc_object_t) {};
    lxpc::xpc_connection_send_message_with_reply(flood, publish, nullptr, ignore);
    auto const stop = std::chrono::steady_clock::now() + 5s;
    for (int i = 0; i < 300000 && std::chrono::steady_clock::now() < stop; ++i)
        lxpc::xpc_connection_send_message_with_reply(flood, ask, nullptr, ignore);
    std::this_thread::sleep_for(500ms);
    long const heldFds = Proc(service.Pid(), "fd") - fds;
    long const growth = Proc(service.Pid(), "status") - rss;
    std::printf("descriptors held: %ld, resident growth: %ld KiB\n", heldFds, growth);
    // At most what one connection may leave unsent.
    EXPECT_LE(heldFds, 256 + 16);
    EXPECT_LT(growth, 16 * 1024);
    lxpc::xpc_release(endpoint);
    lxpc::xpc_release(publish);
    lxpc::xpc_release(ask);
    lxpc::xpc_connection_cancel(flood);
    lxpc::xpc_release(flood);
    lxpc::xpc_connection_cancel(device);
    lxpc::xpc_release(device);
}

// Clients waiting in the backlog of a service without a descriptor to accept them with.
TEST(Load, AServiceOutOfDescriptorsDoesNotSpin) {
#if defined(__SANITIZE_ADDRESS__)
    // Their object checks need descriptors of their own and abort the service without them.
    GTEST_SKIP() << "runs in builds without sanitizers";
#endif
    ServiceProcess service;
    ASSERT_TRUE(service.Ready());
    rlimit const none{rlim_t(Proc(service.Pid(), "fd")), rlim_t(Proc(service.Pid(), "fd"))};
    ASSERT_EQ(prlimit(service.Pid(), RLIMIT_NOFILE, &none, nullptr), 0);
    std::vector<lxpc::xpc_connection_t> clients;
    for (int i = 0; i < 16; ++i)
        clients.push_back(lxpc::xpc_connection_create_mach_service(
            "com.tessalysoftware.KavelPL.VadHelper", nullptr, 0));
    std::this_thread::sleep_for(300ms);
    long const start = Proc(service.Pid(), "stat");
    std::this_thread::sleep_for(1s);
    long const used = Proc(service.Pid(), "stat") - start;
    std::printf("processor ticks in 1 s: %ld of %ld\n", used, sysconf(_SC_CLK_TCK));
    EXPECT_LT(used, sysconf(_SC_CLK_TCK) / 10);
    for (lxpc::xpc_connection_t c : clients) {
        lxpc::xpc_connection_cancel(c);
        lxpc::xpc_release(c);
    }
}
