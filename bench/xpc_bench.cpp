// The transport against a raw SOCK_SEQPACKET socket pair in the same run.
//
// - Round trip: a small request and its reply through the transport (synchronous send with
//   reply over a direct connection) versus a raw ping-pong of a packet of the same size
//   between two threads. Target: the transport at most 1.5 times the raw time.
// - Throughput: messages carrying 4 KiB and 1 MiB of data, sender to receiver, the receiver
//   reading the first and last byte of each; 1 MiB travels in a sealed memfd. The raw peer
//   for 4 KiB is a stream of 4 KiB packets; for 1 MiB, one memcpy of the payload (data
//   passed through a socket cannot do better than copying it once). Target: 1 MiB at
//   4 GB/s or more.
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "xpc/transport/xpc_transport.h"

using namespace lxpc;

namespace {

constexpr size_t kSmall = 64;

// An anonymous listener whose peers answer every request wanting a reply and count the
// data bytes they see; the client is connected through the listener's endpoint.
struct Pair {
    Pair() {
        listener = xpc_connection_create(nullptr, nullptr);
        xpc_connection_set_event_handler(listener, [this](xpc_object_t peer) {
            if (xpc_get_type(peer) != XPC_TYPE_CONNECTION) {
                return;
            }
            xpc_retain(peer);
            peers.push_back(peer);
            xpc_connection_set_event_handler(peer, [this, peer](xpc_object_t m) {
                if (xpc_get_type(m) != XPC_TYPE_DICTIONARY) {
                    return;
                }
                size_t length = 0;
                const auto* bytes =
                    static_cast<const uint8_t*>(xpc_dictionary_get_data(m, "d", &length));
                if (bytes != nullptr && length != 0) {
                    seen.fetch_add(bytes[0] + bytes[length - 1] + length,
                                   std::memory_order_relaxed);
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
        xpc_object_t endpoint = xpc_endpoint_create(listener);
        client = xpc_connection_create_from_endpoint(endpoint);
        xpc_release(endpoint);
        xpc_connection_set_event_handler(client, [](xpc_object_t) {});
        xpc_connection_resume(client);
    }
    ~Pair() {
        xpc_connection_cancel(client);
        xpc_release(client);
        for (xpc_object_t p : peers) {
            xpc_connection_cancel(p);
            xpc_release(p);
        }
        xpc_connection_cancel(listener);
        xpc_release(listener);
        // Let the cancellations' final events run before the handlers' captures go.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    xpc_connection_t listener = nullptr;
    xpc_connection_t client = nullptr;
    std::vector<xpc_object_t> peers;
    std::atomic<uint64_t> seen{0};
};

void BM_RawSeqpacketRoundTrip(benchmark::State& state) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) {
        state.SkipWithError("socketpair");
        return;
    }
    std::thread echo([fd = fds[1]] {
        char buffer[4096];
        for (;;) {
            const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0 || send(fd, buffer, static_cast<size_t>(n), MSG_NOSIGNAL) != n) {
                return;
            }
        }
    });
    char packet[kSmall] = {1};
    for (auto _ : state) {
        if (send(fds[0], packet, sizeof packet, 0) != sizeof packet ||
            recv(fds[0], packet, sizeof packet, 0) != sizeof packet) {
            state.SkipWithError("ping-pong failed");
            break;
        }
    }
    shutdown(fds[0], SHUT_RDWR);
    echo.join();
    close(fds[0]);
    close(fds[1]);
}
BENCHMARK(BM_RawSeqpacketRoundTrip)->UseRealTime();

void BM_XpcRoundTrip(benchmark::State& state) {
    Pair pair;
    xpc_object_t m = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_dictionary_set_int64(m, "v", 7);
    xpc_dictionary_set_string(m, "s", "a short request text");
    for (auto _ : state) {
        xpc_object_t r = xpc_connection_send_message_with_reply_sync(pair.client, m);
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

// Sends data messages; every 32nd wants a reply and is waited for, which keeps the
// receiver within reach and makes the time include its work.
void BM_XpcDataThroughput(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    std::vector<uint8_t> payload(size, 0x5a);
    Pair pair;
    int64_t n = 0;
    for (auto _ : state) {
        xpc_object_t m = xpc_dictionary_create(nullptr, nullptr, 0);
        xpc_dictionary_set_data(m, "d", payload.data(), payload.size());
        if (++n % 32 == 0) {
            xpc_release(xpc_connection_send_message_with_reply_sync(pair.client, m));
        } else {
            xpc_connection_send_message(pair.client, m);
        }
        xpc_release(m);
    }
    xpc_object_t last = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_release(xpc_connection_send_message_with_reply_sync(pair.client, last));
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
    std::atomic<uint64_t> seen{0};
    std::thread sink([fd = fds[1], &seen] {
        std::vector<uint8_t> buffer(8192);
        for (;;) {
            const ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
            if (n <= 0) {
                return;
            }
            seen.fetch_add(buffer[0] + buffer[n - 1], std::memory_order_relaxed);
        }
    });
    std::vector<uint8_t> payload(4096, 0x5a);
    for (auto _ : state) {
        if (send(fds[0], payload.data(), payload.size(), 0) != 4096) {
            state.SkipWithError("send");
            break;
        }
    }
    shutdown(fds[0], SHUT_RDWR);
    sink.join();
    close(fds[0]);
    close(fds[1]);
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
