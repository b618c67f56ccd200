// The transport against a raw SOCK_SEQPACKET socket pair in the same run, both between two
// processes (the peer is a forked child, as a service and its client are).
//
// - Round trip: a small request and its reply through the transport (synchronous send with
//   reply) versus a raw ping-pong of a packet of the same size. Target: the transport at
//   most 1.5 times the raw time.
// - Throughput: messages carrying 4 KiB and 1 MiB of data, the receiver reading the first
//   and last byte of each; 1 MiB travels in a sealed memfd. The raw peer for 4 KiB is a
//   stream of 4 KiB packets; for 1 MiB, one memcpy of the payload. Target: 1 MiB at 4 GB/s
//   or more.
//
// Children are forked before this process starts any transport thread, and die with it.
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "xpc/transport/xpc_transport.h"

using namespace lxpc;

namespace {

constexpr size_t kSmall = 64;

// Runs body(fd) in a child; `other` (the parent's end) is closed there.
pid_t ForkChild(void (*body)(int), int fd, int other) {
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        if (other >= 0) {
            close(other);
        }
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(0);
        }
        body(fd);
        _exit(0);
    }
    return child;
}

void EchoRaw(int fd) {
    char buffer[8192];
    for (;;) {
        const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0 || send(fd, buffer, static_cast<size_t>(n), MSG_NOSIGNAL) != n) {
            return;
        }
    }
}

void SinkRaw(int fd) {
    std::vector<uint8_t> buffer(8192);
    uint64_t seen = 0;
    for (;;) {
        const ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
        if (n <= 0) {
            return;
        }
        seen += buffer[0] + buffer[n - 1];
        if (buffer[0] == 'A' && send(fd, "k", 1, MSG_NOSIGNAL) != 1) {  // an acknowledgement
            return;
        }
    }
}

// The service in the child: answers requests wanting a reply, reads the first and last byte
// of any data.
void Service(int) {
    xpc_connection_t listener = xpc_connection_create_mach_service(
        "bench.sink", nullptr, XPC_CONNECTION_MACH_SERVICE_LISTENER);
    xpc_connection_set_event_handler(listener, [](xpc_object_t peer) {
        if (xpc_get_type(peer) != XPC_TYPE_CONNECTION) {
            return;
        }
        xpc_connection_set_event_handler(peer, [peer](xpc_object_t m) {
            if (xpc_get_type(m) != XPC_TYPE_DICTIONARY) {
                return;
            }
            static std::atomic<uint64_t> seen{0};
            size_t length = 0;
            const auto* bytes =
                static_cast<const uint8_t*>(xpc_dictionary_get_data(m, "d", &length));
            if (bytes != nullptr && length != 0) {
                seen.fetch_add(bytes[0] + bytes[length - 1], std::memory_order_relaxed);
            }
            if (xpc_object_t reply = xpc_dictionary_create_reply(m)) {
                xpc_dictionary_set_int64(reply, "v", xpc_dictionary_get_int64(m, "v"));
                xpc_connection_send_message(peer, reply);
                xpc_release(reply);
            }
        });
        xpc_connection_resume(peer);
    });
    xpc_connection_resume(listener);
    pause();
}

// One service process for the whole run, in a private socket folder.
xpc_connection_t ServiceClient() {
    static xpc_connection_t client = [] {
        static std::string dir = [] {
            char pattern[] = "/tmp/lxpc-bench-XXXXXX";
            return std::string(mkdtemp(pattern));
        }();
        setenv("LXPC_SERVICE_DIR", dir.c_str(), 1);
        ForkChild(Service, -1, -1);
        const auto path = std::filesystem::path(dir) / "bench.sink.sock";
        while (!std::filesystem::exists(path)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(dir, ignored);
        });
        xpc_connection_t c = xpc_connection_create_mach_service("bench.sink", nullptr, 0);
        xpc_connection_set_event_handler(c, [](xpc_object_t) {});
        xpc_connection_resume(c);
        return c;
    }();
    return client;
}

void BM_RawSeqpacketRoundTrip(benchmark::State& state) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) {
        state.SkipWithError("socketpair");
        return;
    }
    const pid_t child = ForkChild(EchoRaw, fds[1], fds[0]);
    close(fds[1]);
    char packet[kSmall] = {1};
    for (auto _ : state) {
        if (send(fds[0], packet, sizeof packet, 0) != sizeof packet ||
            recv(fds[0], packet, sizeof packet, 0) != sizeof packet) {
            state.SkipWithError("ping-pong failed");
            break;
        }
    }
    close(fds[0]);
    waitpid(child, nullptr, 0);
}
BENCHMARK(BM_RawSeqpacketRoundTrip)->UseRealTime();

void BM_XpcRoundTrip(benchmark::State& state) {
    xpc_connection_t client = ServiceClient();
    xpc_object_t m = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_dictionary_set_int64(m, "v", 7);
    xpc_dictionary_set_string(m, "s", "a short request");  // with the int: about kSmall bytes
    for (auto _ : state) {
        xpc_object_t r = xpc_connection_send_message_with_reply_sync(client, m);
        if (xpc_dictionary_get_int64(r, "v") != 7) {
            state.SkipWithError("bad reply");
            xpc_release(r);
            break;
        }
        xpc_release(r);
    }
    xpc_release(m);
}
BENCHMARK(BM_XpcRoundTrip)->UseRealTime();

// The same round trip driven by reply handlers: each reply's handler sends the next request,
// as an event-driven client does, so no thread waits on the side. Each iteration is a chain
// of kChain round trips; the "round_trip" counter is the time of one.
constexpr int kChain = 100;

struct Chain {
    xpc_connection_t client;
    xpc_object_t message;
    std::mutex mutex;
    std::condition_variable done_cv;
    int left = 0;

    void Next() {
        xpc_connection_send_message_with_reply(client, message, nullptr, [this](xpc_object_t) {
            std::lock_guard lock(mutex);
            if (--left == 0) {
                done_cv.notify_one();
            } else {
                Next();
            }
        });
    }
};

void BM_XpcRoundTripHandlerDriven(benchmark::State& state) {
    Chain chain;
    chain.client = ServiceClient();
    chain.message = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_dictionary_set_int64(chain.message, "v", 7);
    xpc_dictionary_set_string(chain.message, "s", "a short request");
    for (auto _ : state) {
        std::unique_lock lock(chain.mutex);
        chain.left = kChain;
        chain.Next();
        chain.done_cv.wait(lock, [&] { return chain.left == 0; });
    }
    xpc_release(chain.message);
    state.counters["round_trip"] =
        benchmark::Counter(static_cast<double>(state.iterations() * kChain),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_XpcRoundTripHandlerDriven)->UseRealTime();

// Sends data messages; every 32nd wants a reply and is waited for, which keeps the
// receiver within reach and makes the time include its work.
void BM_XpcDataThroughput(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    std::vector<uint8_t> payload(size, 0x5a);
    xpc_connection_t client = ServiceClient();
    int64_t n = 0;
    for (auto _ : state) {
        xpc_object_t m = xpc_dictionary_create(nullptr, nullptr, 0);
        xpc_dictionary_set_data(m, "d", payload.data(), payload.size());
        if (++n % 32 == 0) {
            xpc_release(xpc_connection_send_message_with_reply_sync(client, m));
        } else {
            xpc_connection_send_message(client, m);
        }
        xpc_release(m);
    }
    xpc_object_t last = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_release(xpc_connection_send_message_with_reply_sync(client, last));
    xpc_release(last);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}
BENCHMARK(BM_XpcDataThroughput)->Arg(4096)->Arg(1 << 20)->UseRealTime();

void BM_RawSeqpacket4KiBThroughput(benchmark::State& state) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) {
        state.SkipWithError("socketpair");
        return;
    }
    const pid_t child = ForkChild(SinkRaw, fds[1], fds[0]);
    close(fds[1]);
    std::vector<uint8_t> payload(4096, 0x5a);
    int64_t n = 0;
    char ack;
    for (auto _ : state) {
        // Every 32nd packet is acknowledged, as the transport's every 32nd message is.
        payload[0] = ++n % 32 == 0 ? 'A' : 0x5a;
        if (send(fds[0], payload.data(), payload.size(), 0) != 4096 ||
            (payload[0] == 'A' && recv(fds[0], &ack, 1, 0) != 1)) {
            state.SkipWithError("send");
            break;
        }
    }
    close(fds[0]);
    waitpid(child, nullptr, 0);
    state.SetBytesProcessed(state.iterations() * 4096);
}
BENCHMARK(BM_RawSeqpacket4KiBThroughput)->UseRealTime();

void BM_Memcpy1MiB(benchmark::State& state) {
    std::vector<uint8_t> from(1 << 20, 0x5a), to(1 << 20);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), from.size());
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * (1 << 20));
}
BENCHMARK(BM_Memcpy1MiB);

}  // namespace
