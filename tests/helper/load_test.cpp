// What one client can cost the running service, read from its descriptor table, resident
// memory and processor time (figures printed for the record). Labelled "load".
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "service_process.h"
#include "xpc/transport/xpc_transport.h"

using namespace std::chrono_literals;
using namespace lxpc;

namespace {

// /proc/<pid>/fd entries; with `field`, that (1-based) field of /proc/<pid>/`file`.
long Proc(pid_t pid, char const* file, int field = 0) {
    std::string const path = "/proc/" + std::to_string(pid) + "/" + file;
    if (field == 0)
        return std::distance(std::filesystem::directory_iterator(path), {});
    std::ifstream in(path);
    std::string word;
    for (int i = 1; in >> word; ++i)
        if (i == field)
            return std::stol(word);
    return -1;
}

xpc_connection_t Service() {
    return xpc_connection_create_mach_service("com.tessalysoftware.KavelPL.VadHelper", nullptr, 0);
}

}  // namespace

// A client that publishes an endpoint, then asks for it again and again and never reads
// (never resumed; dropped, it connects again): every reply holds a duplicate descriptor.
TEST(Load, UnreadRepliesCostTheServiceABoundedAmount) {
    // Resident memory is live memory only when the address checker keeps nothing freed aside.
    char const* checks = std::getenv("ASAN_OPTIONS");
    helper_test::ServiceProcess service(
        {std::string("ASAN_OPTIONS=") + (checks ? checks : "") + ":quarantine_size_mb=0"});
    ASSERT_TRUE(service.Ready());
    rlimit const systemdDefault{1024, 1024};
    ASSERT_EQ(prlimit(service.Pid(), RLIMIT_NOFILE, &systemdDefault, nullptr), 0);
    long const fds = Proc(service.Pid(), "fd"), rss = Proc(service.Pid(), "statm", 2);
    xpc_connection_t device = xpc_connection_create(nullptr, nullptr);
    xpc_connection_set_event_handler(device, [](xpc_object_t) {});
    xpc_connection_resume(device);
    xpc_object_t publish = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_object_t ask = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_object_t endpoint = xpc_endpoint_create(device);
    xpc_dictionary_set_value(publish, "NEW_ENDPOINT", endpoint);
    xpc_dictionary_set_bool(ask, "REQUEST_ENDPOINT", true);
    xpc_connection_t flood = Service();
    auto const stop = std::chrono::steady_clock::now() + 5s;
    for (int i = 0; i < 300000 && std::chrono::steady_clock::now() < stop; ++i)
        xpc_connection_send_message_with_reply(flood, i ? ask : publish, nullptr, [](auto) {});
    std::this_thread::sleep_for(500ms);
    long const held = Proc(service.Pid(), "fd") - fds;
    long const growth = (Proc(service.Pid(), "statm", 2) - rss) * getpagesize() / 1024;
    std::printf("descriptors held: %ld, resident growth: %ld KiB\n", held, growth);
    EXPECT_LE(held, 256 + 16);  // at most what one connection may leave unsent
#if !defined(__SANITIZE_THREAD__)
    // The race detector's shadow and history grow with every event it watches, whatever the
    // service keeps: the plain and address-checked passes hold it to the bound.
    EXPECT_LT(growth, 32 * 1024);
#endif
    for (xpc_object_t o : {endpoint, publish, ask})
        xpc_release(o);
    for (xpc_connection_t c : {flood, device})
        xpc_connection_cancel(c), xpc_release(c);
}

// Clients waiting in the backlog of a service without a descriptor to accept them with.
TEST(Load, AServiceOutOfDescriptorsDoesNotSpin) {
#if defined(__SANITIZE_ADDRESS__)
    // Their object checks need descriptors of their own and abort the service without them.
    GTEST_SKIP() << "runs in builds without sanitizers";
#endif
    helper_test::ServiceProcess service;
    ASSERT_TRUE(service.Ready());
    rlimit const none{rlim_t(Proc(service.Pid(), "fd")), rlim_t(Proc(service.Pid(), "fd"))};
    ASSERT_EQ(prlimit(service.Pid(), RLIMIT_NOFILE, &none, nullptr), 0);
    std::vector<xpc_connection_t> waiting;  // more than the gaps in its descriptor table
    for (int i = 0; i < 16; ++i)
        waiting.push_back(Service());
    std::this_thread::sleep_for(300ms);
    long const start = Proc(service.Pid(), "stat", 14) + Proc(service.Pid(), "stat", 15);
    std::this_thread::sleep_for(1s);
    long const used = Proc(service.Pid(), "stat", 14) + Proc(service.Pid(), "stat", 15) - start;
    std::printf("processor ticks in 1 s: %ld of %ld\n", used, sysconf(_SC_CLK_TCK));
    EXPECT_LT(used, sysconf(_SC_CLK_TCK) / 10);
    for (xpc_connection_t c : waiting)
        xpc_connection_cancel(c), xpc_release(c);
}
