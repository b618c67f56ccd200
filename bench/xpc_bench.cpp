// The transport against its two peers in the same run: sd-bus in peer-to-peer mode (the
// typed request/reply library a Linux program would otherwise pick) and a raw SOCK_SEQPACKET
// socket pair (what the kernel allows). Every server is another process, as a service and
// its client are; each benchmark name ends in the peer it measures: _xpc, _sdbus, _raw.
//
// - RoundTrip/64: a small request and its reply (transport: an int and a short string, the
//   reply an int; sd-bus: method "Ping", "xs" -> "x"; raw: a 64-byte packet echoed).
//   RoundTrip/4096: 4 KiB of data there and the same 4 KiB back ("ay" -> "ay" for sd-bus).
//   Targets: the transport at most 1.25x raw and at most 0.85x sd-bus.
// - OneWay/N (64 KiB to 8 MiB): N bytes sent, the receiver reads every byte (a checksum) and
//   acknowledges each message with it (sd-bus: "ay" -> "t"; raw: 64 KiB packets, one
//   checksum back per N bytes). Target: at most 1.0x sd-bus, 1 MiB at most 0.5x.
// - Clients8: 8 client threads, each on its own connection, doing small round trips at once;
//   the counter round_trips_per_s is the throughput of all of them. Target: at least 1.5x
//   sd-bus.
// - RoundTripHandlerDriven_xpc: the small round trip chained through reply handlers, as an
//   event-driven client does (the counter round_trip is the time of one).
//
// - OneWayMemoryFloor/1 MiB: no transport at all, the least memory work behind OneWay when the
//   receiver keeps its own copy (see the case). Compare it with OneWay/1 MiB of sd-bus.
//
// Reading the ratios: compare the times (or round_trips_per_s) of the same case and size
// between the three peers; bench/xpc_ratios.py does it from
// `--benchmark_repetitions=5 --benchmark_format=json` output, per repetition, with the spread.
//
// Children die with this process (PR_SET_PDEATHSIG) and are killed when their case ends.
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "xpc/transport/xpc_region.h"
#include "xpc/transport/xpc_transport.h"

using namespace lxpc;

namespace {

constexpr size_t kSmall = 64;
constexpr int kClients = 8;
constexpr int kBatch = 64;               // round trips per client per iteration of Clients8
constexpr size_t kRawChunk = 64 * 1024;  // a raw packet of a large one-way message
constexpr const char* kPath = "/bench";
constexpr const char* kInterface = "bench.Sink";

// What every receiver does with the bytes it is sent: reads each of them once.
uint64_t Checksum(const void* bytes, size_t length) {
    const auto* p = static_cast<const uint8_t*>(bytes);
    uint64_t sum = 0;
    size_t i = 0;
    for (; i + sizeof(uint64_t) <= length; i += sizeof(uint64_t)) {
        uint64_t word;
        std::memcpy(&word, p + i, sizeof word);
        sum += word;
    }
    for (; i < length; ++i) {
        sum += p[i];
    }
    return sum;
}

std::vector<uint8_t> Payload(size_t size) {
    std::vector<uint8_t> payload(size);
    for (size_t i = 0; i < size; ++i) {
        payload[i] = static_cast<uint8_t>(i * 131 + 7);
    }
    return payload;
}

// Every server process, of every peer, is forked by one spawner process that this program
// starts before any benchmark runs. A process starts with its parent's scheduler history:
// one forked from a thread that has just woken many others has its wake-ups placed across
// the CPUs, one forked from a quiet thread has them pulled onto the waker's CPU, and with
// eight client/server pairs on two CPUs that alone changes throughput by nearly 2x. Forked
// from the main thread, each peer's servers would start in whatever state the cases before
// them left it; forked by the spawner, all start alike, as a service started by the system
// does.
class Spawner {
public:
    using Body = void (*)(int, size_t);

    Spawner() {
        // The transport's service finds its socket folder through the environment, which
        // the spawner's children inherit from here.
        char pattern[] = "/tmp/lxpc-bench-XXXXXX";
        if (mkdtemp(pattern) != nullptr) {
            dir_ = pattern;
            setenv("LXPC_SERVICE_DIR", pattern, 1);
        }
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
            return;
        }
        const pid_t parent = getpid();
        if (fork() == 0) {
            close(pair[0]);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() == parent) {
                Serve(pair[1]);
            }
            _exit(0);
        }
        close(pair[1]);
        socket_ = pair[0];
    }
    ~Spawner() {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }

    const std::string& Dir() const { return dir_; }

    // Starts body(fd, arg) in a new process (fd, if any, is passed along; the caller keeps
    // its own); its process id, or -1.
    pid_t Spawn(Body body, int fd, size_t arg) {
        std::lock_guard lock(mutex_);
        const Request request{body, arg};
        iovec data{const_cast<Request*>(&request), sizeof request};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr message{};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        if (fd >= 0) {
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            cmsghdr* header = CMSG_FIRSTHDR(&message);
            header->cmsg_level = SOL_SOCKET;
            header->cmsg_type = SCM_RIGHTS;
            header->cmsg_len = CMSG_LEN(sizeof(int));
            std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
        }
        pid_t pid = -1;
        if (socket_ < 0 || sendmsg(socket_, &message, 0) != sizeof request ||
            recv(socket_, &pid, sizeof pid, 0) != sizeof pid) {
            return -1;
        }
        return pid;
    }

private:
    struct Request {
        Body body;
        size_t arg;
    };

    static void Serve(int socket) {
        signal(SIGCHLD, SIG_IGN);  // children are reaped by the system
        const pid_t spawner = getpid();
        for (;;) {
            Request request{};
            iovec data{&request, sizeof request};
            alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
            msghdr message{};
            message.msg_iov = &data;
            message.msg_iovlen = 1;
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            if (recvmsg(socket, &message, 0) != sizeof request) {
                return;
            }
            int fd = -1;
            if (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr) {
                std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
            }
            const pid_t pid = fork();
            if (pid == 0) {
                close(socket);
                signal(SIGCHLD, SIG_DFL);
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                if (getppid() == spawner) {
                    request.body(fd, request.arg);
                }
                _exit(0);
            }
            if (fd >= 0) {
                close(fd);
            }
            if (send(socket, &pid, sizeof pid, MSG_NOSIGNAL) != sizeof pid) {
                return;
            }
        }
    }

    std::mutex mutex_;
    int socket_ = -1;
    std::string dir_;
};

// Made before main: the spawner must start before this process has any other thread.
Spawner gSpawner;

// A server process running body(fd, arg); killed when this goes, and gone when the
// destructor returns.
class Child {
public:
    Child(Spawner::Body body, int fd, size_t arg) : pid_(gSpawner.Spawn(body, fd, arg)) {}
    ~Child() {
        if (pid_ <= 0) {
            return;
        }
        const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
        kill(pid_, SIGKILL);
        if (pidfd >= 0) {
            pollfd gone{pidfd, POLLIN, 0};
            poll(&gone, 1, -1);
            close(pidfd);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

private:
    pid_t pid_;
};

// A connected pair whose second end is served by a child; first() is this process's end.
class Served {
public:
    explicit Served(void (*body)(int, size_t), size_t arg = 0, int type = SOCK_SEQPACKET) {
        if (socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds_) != 0) {
            fds_[0] = fds_[1] = -1;
            return;
        }
        child_ = std::make_unique<Child>(body, fds_[1], arg);
        close(fds_[1]);
    }
    ~Served() {
        if (fds_[0] >= 0) {
            close(fds_[0]);
        }
    }
    Served(const Served&) = delete;
    Served& operator=(const Served&) = delete;
    int first() const { return fds_[0]; }

private:
    int fds_[2];
    std::unique_ptr<Child> child_;
};

// Keeps kClients threads doing roundTrip(client) back to back for the whole benchmark; an
// iteration lasts until kClients * kBatch more round trips are done. The threads never wait
// for each other: a barrier per batch would idle the early finishers while the last ones
// end theirs, and every peer would be measured partly by that idling.
void RunClients(benchmark::State& state, const std::function<bool(int)>& roundTrip) {
    std::atomic<uint64_t> done{0};     // round trips so far, all threads
    std::atomic<uint64_t> target{0};   // what ends the current iteration
    std::atomic<uint32_t> reached{0};  // bumped by the round trip that ends one
    std::atomic<bool> stop{false};
    std::atomic<bool> ok{true};
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
        threads.emplace_back([&, i] {
            while (!stop.load(std::memory_order_relaxed)) {
                if (!roundTrip(i)) {
                    ok = false;
                }
                if (done.fetch_add(1) + 1 == target.load()) {
                    reached.fetch_add(1);
                    reached.notify_one();
                }
            }
        });
    }
    uint64_t end = done.load();  // the warm-up before the first iteration does not count
    for (auto _ : state) {
        end += kClients * kBatch;
        const uint32_t seen = reached.load();
        target.store(end);
        if (done.load() < end) {
            reached.wait(seen);
        }
        if (!ok) {
            state.SkipWithError("round trip failed");
            break;
        }
    }
    stop = true;
    for (std::thread& t : threads) {
        t.join();
    }
    state.counters["round_trips_per_s"] = benchmark::Counter(
        static_cast<double>(state.iterations() * kClients * kBatch), benchmark::Counter::kIsRate);
}

// ---- raw ----

void EchoRaw(int fd, size_t) {
    std::vector<uint8_t> buffer(kRawChunk);
    for (;;) {
        const ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
        if (n <= 0 || send(fd, buffer.data(), static_cast<size_t>(n), MSG_NOSIGNAL) != n) {
            return;
        }
    }
}

// Reads messages of `size` bytes as kRawChunk packets, acknowledging each with its checksum.
void SinkRaw(int fd, size_t size) {
    std::vector<uint8_t> buffer(kRawChunk);
    for (;;) {
        uint64_t sum = 0;
        for (size_t got = 0; got < size;) {
            const ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
            if (n <= 0) {
                return;
            }
            sum += Checksum(buffer.data(), static_cast<size_t>(n));
            got += static_cast<size_t>(n);
        }
        if (send(fd, &sum, sizeof sum, MSG_NOSIGNAL) != sizeof sum) {
            return;
        }
    }
}

bool RawRoundTrip(int fd, const std::vector<uint8_t>& request, std::vector<uint8_t>& reply) {
    return send(fd, request.data(), request.size(), 0) == static_cast<ssize_t>(request.size()) &&
           recv(fd, reply.data(), reply.size(), 0) == static_cast<ssize_t>(request.size());
}

void BM_RoundTrip_raw(benchmark::State& state) {
    Served served(EchoRaw);
    const std::vector<uint8_t> request = Payload(static_cast<size_t>(state.range(0)));
    std::vector<uint8_t> reply(request.size());
    for (auto _ : state) {
        if (!RawRoundTrip(served.first(), request, reply)) {
            state.SkipWithError("ping-pong failed");
            break;
        }
    }
}
BENCHMARK(BM_RoundTrip_raw)->Arg(kSmall)->Arg(4096)->UseRealTime();

void BM_OneWay_raw(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    Served served(SinkRaw, size);
    const std::vector<uint8_t> payload = Payload(size);
    uint64_t expected = 0;
    for (size_t at = 0; at < size; at += kRawChunk) {
        expected += Checksum(payload.data() + at, std::min(kRawChunk, size - at));
    }
    for (auto _ : state) {
        bool ok = true;
        for (size_t at = 0; ok && at < size; at += kRawChunk) {
            const size_t n = std::min(kRawChunk, size - at);
            ok = send(served.first(), payload.data() + at, n, 0) == static_cast<ssize_t>(n);
        }
        uint64_t ack = 0;
        if (!ok || recv(served.first(), &ack, sizeof ack, 0) != sizeof ack || ack != expected) {
            state.SkipWithError("transfer failed");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}
BENCHMARK(BM_OneWay_raw)->RangeMultiplier(4)->Range(64 << 10, 1 << 20)->Arg(8 << 20)->UseRealTime();

void BM_Clients8_raw(benchmark::State& state) {
    std::vector<std::unique_ptr<Served>> served;
    for (int i = 0; i < kClients; ++i) {
        served.push_back(std::make_unique<Served>(EchoRaw));
    }
    const std::vector<uint8_t> request = Payload(kSmall);
    RunClients(state, [&](int client) {
        std::vector<uint8_t> reply(kSmall);
        return RawRoundTrip(served[client]->first(), request, reply);
    });
}
BENCHMARK(BM_Clients8_raw)->UseRealTime();

// ---- sd-bus, peer to peer ----

int SdPing(sd_bus_message* m, void*, sd_bus_error*) {
    int64_t v = 0;
    const char* s = nullptr;
    const int r = sd_bus_message_read(m, "xs", &v, &s);
    return r < 0 ? r : sd_bus_reply_method_return(m, "x", v);
}

int SdEcho(sd_bus_message* m, void*, sd_bus_error*) {
    const void* bytes = nullptr;
    size_t length = 0;
    int r = sd_bus_message_read_array(m, 'y', &bytes, &length);
    if (r < 0) {
        return r;
    }
    sd_bus_message* reply = nullptr;
    r = sd_bus_message_new_method_return(m, &reply);
    if (r >= 0) {
        r = sd_bus_message_append_array(reply, 'y', bytes, length);
    }
    if (r >= 0) {
        r = sd_bus_send(nullptr, reply, nullptr);
    }
    sd_bus_message_unref(reply);
    return r;
}

int SdSink(sd_bus_message* m, void*, sd_bus_error*) {
    const void* bytes = nullptr;
    size_t length = 0;
    const int r = sd_bus_message_read_array(m, 'y', &bytes, &length);
    return r < 0 ? r : sd_bus_reply_method_return(m, "t", Checksum(bytes, length));
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Ping", "xs", "x", SdPing, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Echo", "ay", "ay", SdEcho, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Sink", "ay", "t", SdSink, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};
#pragma GCC diagnostic pop

// One end of a connected socket as a peer-to-peer bus: anonymous authentication, descriptor
// passing on; the server end has a server id. Null on failure.
sd_bus* OpenBus(int fd, bool server) {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0) {
        return nullptr;
    }
    sd_id128_t id;
    if (sd_bus_set_fd(bus, fd, fd) < 0 || sd_bus_set_anonymous(bus, 1) < 0 ||
        sd_bus_negotiate_fds(bus, 1) < 0 ||
        (server &&
         (sd_id128_randomize(&id) < 0 || sd_bus_set_server(bus, 1, id) < 0 ||
          sd_bus_add_object_vtable(bus, nullptr, kPath, kInterface, kVtable, nullptr) < 0)) ||
        sd_bus_start(bus) < 0) {
        sd_bus_unref(bus);
        return nullptr;
    }
    return bus;
}

void ServeSdBus(int fd, size_t) {
    sd_bus* bus = OpenBus(fd, true);
    while (bus != nullptr) {
        const int r = sd_bus_process(bus, nullptr);
        if (r < 0 || (r == 0 && sd_bus_wait(bus, UINT64_MAX) < 0)) {
            break;
        }
    }
    _exit(0);
}

// A client bus on a pair served by a child. D-Bus is a byte stream: its authentication lines
// and messages are not packets.
struct SdClient {
    SdClient() : served(ServeSdBus, 0, SOCK_STREAM), bus(OpenBus(dup(served.first()), false)) {}
    ~SdClient() { sd_bus_flush_close_unref(bus); }
    Served served;
    sd_bus* bus;
};

bool SdPingOnce(sd_bus* bus) {
    sd_bus_message* reply = nullptr;
    int64_t v = 0;
    const bool ok = sd_bus_call_method(bus, nullptr, kPath, kInterface, "Ping", nullptr, &reply,
                                       "xs", int64_t{7}, "a short request") >= 0 &&
                    sd_bus_message_read(reply, "x", &v) >= 0 && v == 7;
    sd_bus_message_unref(reply);
    return ok;
}

// Calls `method` with `payload` as "ay"; `check` sees the reply.
template <typename Check>
bool SdCallArray(sd_bus* bus, const char* method, const std::vector<uint8_t>& payload,
                 Check&& check) {
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    const bool ok =
        sd_bus_message_new_method_call(bus, &call, nullptr, kPath, kInterface, method) >= 0 &&
        sd_bus_message_append_array(call, 'y', payload.data(), payload.size()) >= 0 &&
        sd_bus_call(bus, call, 0, nullptr, &reply) >= 0 && check(reply);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    return ok;
}

void BM_RoundTrip_sdbus(benchmark::State& state) {
    SdClient client;
    if (client.bus == nullptr) {
        state.SkipWithError("sd-bus connection failed");
        return;
    }
    const std::vector<uint8_t> payload = Payload(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        const bool ok =
            state.range(0) == kSmall
                ? SdPingOnce(client.bus)
                : SdCallArray(client.bus, "Echo", payload, [&](sd_bus_message* reply) {
                      const void* bytes = nullptr;
                      size_t length = 0;
                      return sd_bus_message_read_array(reply, 'y', &bytes, &length) >= 0 &&
                             length == payload.size();
                  });
        if (!ok) {
            state.SkipWithError("call failed");
            break;
        }
    }
}
BENCHMARK(BM_RoundTrip_sdbus)->Arg(kSmall)->Arg(4096)->UseRealTime();

void BM_OneWay_sdbus(benchmark::State& state) {
    SdClient client;
    if (client.bus == nullptr) {
        state.SkipWithError("sd-bus connection failed");
        return;
    }
    const std::vector<uint8_t> payload = Payload(static_cast<size_t>(state.range(0)));
    const uint64_t expected = Checksum(payload.data(), payload.size());
    for (auto _ : state) {
        if (!SdCallArray(client.bus, "Sink", payload, [&](sd_bus_message* reply) {
                uint64_t sum = 0;
                return sd_bus_message_read(reply, "t", &sum) >= 0 && sum == expected;
            })) {
            state.SkipWithError("call failed");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_OneWay_sdbus)
    ->RangeMultiplier(4)
    ->Range(64 << 10, 1 << 20)
    ->Arg(8 << 20)
    ->UseRealTime();

void BM_Clients8_sdbus(benchmark::State& state) {
    std::vector<std::unique_ptr<SdClient>> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<SdClient>());
        if (clients.back()->bus == nullptr) {
            state.SkipWithError("sd-bus connection failed");
            return;
        }
    }
    RunClients(state, [&](int client) { return SdPingOnce(clients[client]->bus); });
}
BENCHMARK(BM_Clients8_sdbus)->UseRealTime();

// ---- the transport ----

// The service in a child: replies to every request; with "echo" the reply carries the
// request's data back, else the checksum of every byte of it.
void Service(int, size_t) {
    xpc_connection_t listener = xpc_connection_create_mach_service(
        "bench.sink", nullptr, XPC_CONNECTION_MACH_SERVICE_LISTENER);
    xpc_connection_set_event_handler(listener, [](xpc_object_t peer) {
        if (xpc_get_type(peer) != XPC_TYPE_CONNECTION) {
            return;
        }
        xpc_connection_set_event_handler(peer, [peer](xpc_object_t m) {
            xpc_object_t reply =
                xpc_get_type(m) == XPC_TYPE_DICTIONARY ? xpc_dictionary_create_reply(m) : nullptr;
            if (reply == nullptr) {
                return;
            }
            size_t length = 0;
            const void* bytes = xpc_dictionary_get_data(m, "d", &length);
            if (xpc_dictionary_get_bool(m, "echo")) {
                xpc_dictionary_set_data(reply, "d", bytes, length);
            } else {
                xpc_dictionary_set_int64(reply, "v", xpc_dictionary_get_int64(m, "v"));
                xpc_dictionary_set_uint64(reply, "c", Checksum(bytes, length));
            }
            xpc_connection_send_message(peer, reply);
            xpc_release(reply);
        });
        xpc_connection_resume(peer);
    });
    xpc_connection_resume(listener);
    pause();
}

// One service process for the whole run, in the spawner's socket folder.
xpc_connection_t Connect() {
    static const bool started = [] {
        static Child service(Service, -1, 0);
        const auto path = std::filesystem::path(gSpawner.Dir()) / "bench.sink.sock";
        while (!std::filesystem::exists(path)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }();
    (void)started;
    xpc_connection_t c = xpc_connection_create_mach_service("bench.sink", nullptr, 0);
    xpc_connection_set_event_handler(c, [](xpc_object_t) {});
    xpc_connection_resume(c);
    return c;
}

xpc_connection_t ServiceClient() {
    static xpc_connection_t client = Connect();
    return client;
}

bool XpcPing(xpc_connection_t client) {
    xpc_object_t m = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_dictionary_set_int64(m, "v", 7);
    xpc_dictionary_set_string(m, "s", "a short request");  // with the int: about kSmall bytes
    xpc_object_t r = xpc_connection_send_message_with_reply_sync(client, m);
    const bool ok = xpc_dictionary_get_int64(r, "v") == 7;
    xpc_release(r);
    xpc_release(m);
    return ok;
}

// Sends `payload` as data; `check` sees the reply.
template <typename Check>
bool XpcSendData(xpc_connection_t client, const std::vector<uint8_t>& payload, bool echo,
                 Check&& check) {
    xpc_object_t m = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_dictionary_set_data(m, "d", payload.data(), payload.size());
    if (echo) {
        xpc_dictionary_set_bool(m, "echo", true);
    }
    xpc_object_t r = xpc_connection_send_message_with_reply_sync(client, m);
    const bool ok = check(r);
    xpc_release(r);
    xpc_release(m);
    return ok;
}

void BM_RoundTrip_xpc(benchmark::State& state) {
    xpc_connection_t client = ServiceClient();
    const std::vector<uint8_t> payload = Payload(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        const bool ok = state.range(0) == kSmall
                            ? XpcPing(client)
                            : XpcSendData(client, payload, true, [&](xpc_object_t r) {
                                  size_t length = 0;
                                  return xpc_dictionary_get_data(r, "d", &length) != nullptr &&
                                         length == payload.size();
                              });
        if (!ok) {
            state.SkipWithError("bad reply");
            break;
        }
    }
}
BENCHMARK(BM_RoundTrip_xpc)->Arg(kSmall)->Arg(4096)->UseRealTime();

void BM_OneWay_xpc(benchmark::State& state) {
    xpc_connection_t client = ServiceClient();
    const std::vector<uint8_t> payload = Payload(static_cast<size_t>(state.range(0)));
    const uint64_t expected = Checksum(payload.data(), payload.size());
    for (auto _ : state) {
        if (!XpcSendData(client, payload, false, [&](xpc_object_t r) {
                return xpc_dictionary_get_uint64(r, "c") == expected;
            })) {
            state.SkipWithError("bad acknowledgement");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_OneWay_xpc)->RangeMultiplier(4)->Range(64 << 10, 1 << 20)->Arg(8 << 20)->UseRealTime();

void BM_Clients8_xpc(benchmark::State& state) {
    static const std::vector<xpc_connection_t> clients = [] {
        std::vector<xpc_connection_t> made;
        for (int i = 0; i < kClients; ++i) {
            made.push_back(Connect());
        }
        return made;
    }();
    RunClients(state, [&](int client) { return XpcPing(clients[client]); });
}
BENCHMARK(BM_Clients8_xpc)->UseRealTime();

// The small round trip driven by reply handlers: each reply's handler sends the next request,
// so no thread waits on the side. Each iteration is a chain of kChain round trips.
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

void BM_RoundTripHandlerDriven_xpc(benchmark::State& state) {
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
BENCHMARK(BM_RoundTripHandlerDriven_xpc)->UseRealTime();

// ---- memory alone ----

// The least a large one-way message costs whatever carries it, once the receiver must hold a
// copy that the sender can no longer change: the caller's bytes written once where the
// receiver can read them (with the shared region's own copy, straight from the caller's
// buffer), copied once into the receiver's memory, and read there by the checksum. Two
// threads of this process hand each message over by spinning: no system call, wake-up,
// encoding or allocation is counted, so a transport's OneWay time at the same size can come
// near this one but not under it.
void BM_OneWayMemoryFloor(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    const std::vector<uint8_t> payload = Payload(size);
    const uint64_t expected = Checksum(payload.data(), payload.size());
    wire::SendRegion out;
    wire::ReceiveRegion in;
    const char* why = nullptr;
    if (!out.Reserve(size) || !in.Adopt(out.TakeAnnouncement(), &why)) {
        state.SkipWithError("no region");
        return;
    }
    std::atomic<uint64_t> posted{0};  // 1 + the position of the message waiting, 0 for none
    std::atomic<uint64_t> sum{0};     // the receiver's checksum of it, once posted is 0 again
    std::atomic<bool> stop{false};
    std::thread receiver([&] {
        std::vector<uint8_t> copy(size);
        for (;;) {
            uint64_t p;
            while ((p = posted.load(std::memory_order_acquire)) == 0) {
                if (stop.load(std::memory_order_relaxed)) {
                    return;
                }
            }
            in.CopyOut(p - 1, size, copy.data());
            in.Release(p - 1 + size);
            sum.store(Checksum(copy.data(), size), std::memory_order_relaxed);
            posted.store(0, std::memory_order_release);
        }
    });
    for (auto _ : state) {
        const std::optional<uint64_t> at = out.Allocate(size);
        if (!at) {
            state.SkipWithError("the ring is full");
            break;
        }
        out.Place(*at, payload.data(), size);
        posted.store(*at + 1, std::memory_order_release);
        while (posted.load(std::memory_order_acquire) != 0) {
        }
        if (sum.load(std::memory_order_relaxed) != expected) {
            state.SkipWithError("bad checksum");
            break;
        }
    }
    stop = true;
    receiver.join();
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_OneWayMemoryFloor)->Arg(1 << 20)->UseRealTime();

}  // namespace
