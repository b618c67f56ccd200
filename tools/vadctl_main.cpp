// kavelpl-vadctl: talks to the helper service as its clients do.
//
//   publish      acts as the virtual audio device: makes an anonymous listener, publishes
//                its endpoint with "NEW_ENDPOINT", then serves the application's direct
//                connections: "START_RECORDING" starts a stream of "AUDIO_DATA" frames,
//                "STOP_RECORDING" ends it.
//   request      acts as the recording application: asks for the endpoint with
//                "REQUEST_ENDPOINT" (waiting for a pushed "SEND_ENDPOINT" if none is
//                published yet), connects to the device directly, records a few frames
//                and prints what arrived.
//   load-driver  offers a driver bundle to the installer and prints the reply.
//
// The service is found as every client finds it: by name, in $LXPC_SERVICE_DIR or /run.
// Output lines are stable ("KEY: value"), so scripts can check them; complaints go to
// stderr. No wait is unbounded: each answer is waited for at most --timeout seconds.
#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "helper/vadhelper_startup.h"
#include "tools/vadctl_messages.h"

using namespace std::chrono_literals;
using vadctl::Event;
using vadctl::Inbox;
using vadctl::KeyLists;
using vadctl::Value;

namespace {

constexpr char kUsage[] =
    "usage: kavelpl-vadctl COMMAND [OPTIONS]\n"
    "\n"
    "Talks to the helper service com.tessalysoftware.KavelPL.VadHelper, found in\n"
    "$LXPC_SERVICE_DIR (default /run).\n"
    "\n"
    "commands:\n"
    "  publish [--sessions N]    act as the audio device: publish an endpoint with\n"
    "                            NEW_ENDPOINT, then serve direct connections (answer\n"
    "                            START_RECORDING/STOP_RECORDING, stream AUDIO_DATA);\n"
    "                            ends after N recording sessions, else on SIGINT/SIGTERM\n"
    "  request [--wait MS] [--frames N]\n"
    "                            act as the application: REQUEST_ENDPOINT, wait up to MS\n"
    "                            (default 5000) for a pushed SEND_ENDPOINT when none is\n"
    "                            published, connect to the endpoint, record N frames\n"
    "                            (default 5) and print what arrived\n"
    "  load-driver PATH          offer the driver bundle at PATH (LOAD_DRIVER; a relative\n"
    "                            PATH is made absolute first) and print the reply\n"
    "  --help                    show this text\n"
    "\n"
    "every command also takes:\n"
    "  --timeout SECONDS         wait at most this long for each answer (default 5)\n"
    "\n"
    "output: one \"KEY: value\" line per event, on stdout; complaints on stderr\n"
    "\n"
    "exit status: 0 done, 1 nothing to do (no endpoint published), 2 the service or the\n"
    "device did not answer in time or failed, 3 cannot connect to the service, 64 usage\n"
    "error\n";

constexpr int kExitNothing = 1;
constexpr int kExitNoAnswer = 2;
constexpr int kExitCannotConnect = 3;
constexpr int kExitUsage = 64;

// How long any one answer is waited for (--timeout).
std::chrono::milliseconds gTimeout = 5000ms;

// One frame is 10 ms of a 440 Hz tone, 16-bit mono at 48 kHz.
constexpr int kSampleRate = 48000;
constexpr int kFrameSamples = 480;
constexpr double kToneHz = 440.0;

// Ends a connection this program holds: no handler runs for it afterwards, and its reference
// is given back.
void Close(lxpc::xpc_connection_t connection) {
    lxpc::xpc_connection_cancel(connection);
    lxpc::xpc_release(connection);
}

// Says why the service's socket cannot be connected to, naming where it was looked for.
void ExplainCannotConnect() {
    char const* dir = std::getenv("LXPC_SERVICE_DIR");
    bool const set = dir && *dir;
    std::string const path =
        std::string(set ? dir : "/run") + "/" + kLVADHelperServiceName + ".sock";
    // The transport does not say why; one more attempt here does.
    char const* why = "unknown reason";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        why = std::strerror(ENAMETOOLONG);
    } else if (int const fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0); fd >= 0) {
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            why = std::strerror(errno);
        close(fd);
    }
    std::fprintf(
        stderr, "kavelpl-vadctl: cannot connect to the service at %s (%s; LXPC_SERVICE_DIR %s%s)\n",
        path.c_str(), why, set ? "is " : "is not set, so /run", set ? dir : "");
}

// Connects to the service with `inbox` for its replies and pushed messages; null, said on
// stderr, when the service cannot be reached.
lxpc::xpc_connection_t OpenService(std::shared_ptr<Inbox> const& inbox) {
    lxpc::xpc_connection_t service = vadctl::ConnectToService(inbox);
    // A named connection that found nobody to connect to knows no peer.
    if (service && lxpc::xpc_connection_get_pid(service) == 0) {
        lxpc::xpc_connection_cancel(service);
        lxpc::xpc_release(service);
        service = nullptr;
    }
    if (!service)
        ExplainCannotConnect();
    return service;
}

// Sends `message` to `who` and waits for the reply; says on stderr why none came.
std::optional<std::vector<Value>> Ask(lxpc::xpc_connection_t connection, lxpc::xpc_object_t message,
                                      KeyLists& keys, char const* who, char const* what) {
    bool timedOut = false;
    auto reply = vadctl::SendAndWait(connection, message, keys, gTimeout, timedOut);
    if (timedOut)
        std::fprintf(stderr, "kavelpl-vadctl: the %s did not answer %s within %.3g s (--timeout)\n",
                     who, what, gTimeout.count() / 1000.0);
    else if (!reply)
        std::fprintf(stderr, "kavelpl-vadctl: the %s connection failed before %s was answered\n",
                     who, what);
    return reply;
}

bool ParseSeconds(char const* text, std::chrono::milliseconds& out) {
    char* end = nullptr;
    double const seconds = std::strtod(text, &end);
    if (!text[0] || *end || !(seconds > 0) || seconds > 86400)
        return false;
    out = std::chrono::milliseconds(std::max<long long>(1, std::llround(seconds * 1000)));
    return true;
}

bool ParseCount(char const* text, long& out) {
    char* end = nullptr;
    long value = std::strtol(text, &end, 10);
    if (!text[0] || *end || value < 0)
        return false;
    out = value;
    return true;
}

// --- publish: the audio device --------------------------------------------------------------

struct Stream {
    lxpc::xpc_connection_t connection;  // retained
    bool recording = false;
    uint64_t sampleIndex = 0;
    uint64_t framesSent = 0;
};

// Shared with every handler it installs (they may run once more after Run has cancelled
// their connections), so it lives until the last of them is dropped.
class Device : public std::enable_shared_from_this<Device> {
public:
    Device()
        : toService_(arVADHelperTxKeys, arVADHelperRxKeys),
          direct_(arVADHelperRxKeys, arVADHelperTxKeys) {}

    int Run(long sessions);

private:
    void Accept(lxpc::xpc_connection_t peer);
    void Handle(lxpc::xpc_connection_t peer, lxpc::xpc_object_t event);
    void Reply(lxpc::xpc_object_t message, lxpc::xpc_connection_t peer, char const* name);
    void SendFrames();
    void EndSession(Stream& stream);

    KeyLists toService_;
    KeyLists direct_;
    std::mutex mutex_;
    std::map<lxpc::xpc_connection_t, Stream> streams_;
    std::atomic<long> sessionsEnded_{0};
};

void Device::Accept(lxpc::xpc_connection_t peer) {
    lxpc::xpc_retain(peer);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        streams_[peer] = Stream{peer};
    }
    lxpc::xpc_connection_set_event_handler(
        peer,
        [self = shared_from_this(), peer](lxpc::xpc_object_t event) { self->Handle(peer, event); });
    lxpc::xpc_connection_resume(peer);
    std::printf("DIRECT_CONNECTION: application\n");
    std::fflush(stdout);
}

void Device::Reply(lxpc::xpc_object_t message, lxpc::xpc_connection_t peer, char const* name) {
    lxpc::xpc_object_t reply = lxpc::xpc_dictionary_create_reply(message);
    if (!reply)
        return;
    direct_.Fill(reply, {{name, 1}});
    lxpc::xpc_connection_send_message(peer, reply);
    lxpc::xpc_release(reply);
}

void Device::EndSession(Stream& stream) {
    if (stream.recording) {
        stream.recording = false;
        std::printf("STOP_RECORDING: %llu frames sent\n",
                    static_cast<unsigned long long>(stream.framesSent));
        std::fflush(stdout);
        ++sessionsEnded_;
    }
}

void Device::Handle(lxpc::xpc_connection_t peer, lxpc::xpc_object_t event) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = streams_.find(peer);
    if (it == streams_.end())
        return;
    if (lxpc::xpc_get_type(event) != lxpc::XPC_TYPE_DICTIONARY) {
        // The application went away: a recording it left running ends here.
        EndSession(it->second);
        Close(peer);
        streams_.erase(it);
        return;
    }
    std::vector<Value> values = vadctl::Decode(event, direct_.receive);
    if (vadctl::Find(values, "START_RECORDING")) {
        it->second.recording = true;
        it->second.framesSent = 0;
        std::printf("START_RECORDING: received\n");
        std::fflush(stdout);
        Reply(event, peer, "START_RECORDING");
    }
    if (Value const* volume = vadctl::Find(values, "VOLUME_CHANGED")) {
        std::printf("VOLUME_CHANGED: %.2f\n", volume->floating);
        std::fflush(stdout);
    }
    if (vadctl::Find(values, "STOP_RECORDING")) {
        EndSession(it->second);
        Reply(event, peer, "STOP_RECORDING");
    }
}

void Device::SendFrames() {
    std::lock_guard<std::mutex> lock(mutex_);
    int16_t samples[kFrameSamples];
    for (auto& [peer, stream] : streams_) {
        if (!stream.recording)
            continue;
        for (int i = 0; i < kFrameSamples; ++i) {
            double t = static_cast<double>(stream.sampleIndex + i) / kSampleRate;
            samples[i] =
                static_cast<int16_t>(std::lround(16000.0 * std::sin(2 * M_PI * kToneHz * t)));
        }
        stream.sampleIndex += kFrameSamples;
        lxpc::xpc_object_t message = direct_.EncodeData("AUDIO_DATA", samples, sizeof samples);
        lxpc::xpc_connection_send_message(peer, message);
        lxpc::xpc_release(message);
        ++stream.framesSent;
    }
}

int Device::Run(long sessions) {
    // Signals are taken synchronously by this thread; blocked before any transport thread
    // exists so that none of them receives one.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    lxpc::xpc_connection_t listener = lxpc::xpc_connection_create(nullptr, nullptr);
    if (!listener) {
        std::fprintf(stderr, "kavelpl-vadctl: cannot create an anonymous listener\n");
        return kExitNoAnswer;
    }
    lxpc::xpc_connection_set_event_handler(
        listener, [self = shared_from_this()](lxpc::xpc_object_t peer) {
            if (lxpc::xpc_get_type(peer) == lxpc::XPC_TYPE_CONNECTION)
                self->Accept(peer);
        });
    lxpc::xpc_connection_resume(listener);
    lxpc::xpc_endpoint_t endpoint = lxpc::xpc_endpoint_create(listener);

    lxpc::xpc_connection_t service =
        OpenService(std::make_shared<Inbox>(arVADHelperTxKeys, arVADHelperRxKeys));
    int status = service ? kExitNoAnswer : kExitCannotConnect;
    if (service && endpoint) {
        lxpc::xpc_object_t message =
            toService_.Encode({{"NEW_ENDPOINT", LXPCPointerAsValue(endpoint)}});
        auto reply = Ask(service, message, toService_, "service", "NEW_ENDPOINT");
        lxpc::xpc_release(message);
        Value const* published = reply ? vadctl::Find(*reply, "NEW_ENDPOINT_REPLY") : nullptr;
        if (published) {
            std::printf("NEW_ENDPOINT_REPLY: %s\n", published->number ? "true" : "false");
            std::printf("SERVING: direct connections\n");
            std::fflush(stdout);
            status = 0;
        } else if (reply) {
            std::fprintf(stderr, "kavelpl-vadctl: the service's reply lacks NEW_ENDPOINT_REPLY\n");
        }
    } else if (service) {
        std::fprintf(stderr, "kavelpl-vadctl: cannot make an endpoint\n");
    }

    // Serve until told to stop or until enough sessions have ended; this thread is also the
    // frame clock.
    timespec const tick{0, 10'000'000};
    while (status == 0) {
        int signal = sigtimedwait(&stopSignals, nullptr, &tick);
        if (signal == SIGINT || signal == SIGTERM)
            break;
        SendFrames();
        if (sessions > 0 && sessionsEnded_ >= sessions)
            break;
    }

    if (service)
        Close(service);
    lxpc::xpc_connection_cancel(listener);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& [peer, stream] : streams_) {
            Close(peer);
        }
        streams_.clear();
    }
    if (endpoint)
        lxpc::xpc_release(endpoint);
    lxpc::xpc_release(listener);
    return status;
}

// --- request: the application ---------------------------------------------------------------

int Request(long waitMs, long frames) {
    auto fromService = std::make_shared<Inbox>(arVADHelperTxKeys, arVADHelperRxKeys);
    lxpc::xpc_connection_t service = OpenService(fromService);
    if (!service)
        return kExitCannotConnect;
    KeyLists& keys = fromService->keys;
    auto finish = [&](int status) {
        Close(service);
        return status;
    };

    lxpc::xpc_object_t message = keys.Encode({{"REQUEST_ENDPOINT", 1}});
    auto reply = Ask(service, message, keys, "service", "REQUEST_ENDPOINT");
    lxpc::xpc_release(message);
    if (!reply)
        return finish(kExitNoAnswer);

    lxpc::xpc_object_t endpoint = nullptr;
    char const* how = "received";
    if (Value const* sent = vadctl::Find(*reply, "SEND_ENDPOINT"); sent && sent->object)
        endpoint = lxpc::xpc_retain(sent->object);
    // Nothing published yet: the service pushes the endpoint to this connection when the
    // device publishes one.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
    while (!endpoint && std::chrono::steady_clock::now() < deadline) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        std::optional<Event> event = fromService->events.Pop(std::max(left, 1ms));
        if (!event)
            break;
        if (event->error) {
            std::fprintf(stderr, "kavelpl-vadctl: the service connection failed\n");
            return finish(kExitNoAnswer);
        }
        if (Value const* sent = vadctl::Find(event->values, "SEND_ENDPOINT");
            sent && sent->object) {
            endpoint = lxpc::xpc_retain(sent->object);
            how = "pushed";
        }
    }
    if (!endpoint) {
        std::printf("SEND_ENDPOINT: none\n");
        return finish(waitMs > 0 ? kExitNothing : 0);
    }
    std::printf("SEND_ENDPOINT: %s\n", how);
    std::fflush(stdout);

    // From here on the application talks to the device directly; the service is not involved.
    auto fromDevice = std::make_shared<Inbox>(arVADHelperTxKeys, arVADHelperRxKeys);
    lxpc::xpc_connection_t device = lxpc::xpc_connection_create_from_endpoint(endpoint);
    lxpc::xpc_release(endpoint);
    if (!device) {
        std::fprintf(stderr, "kavelpl-vadctl: cannot connect to the endpoint\n");
        return finish(kExitNoAnswer);
    }
    vadctl::Watch(device, fromDevice);

    int status = 0;
    message = keys.Encode({{"START_RECORDING", 1}});
    reply = Ask(device, message, keys, "device", "START_RECORDING");
    lxpc::xpc_release(message);
    if (!reply || !vadctl::Find(*reply, "START_RECORDING")) {
        status = kExitNoAnswer;
    } else {
        std::printf("START_RECORDING: true\n");
        message = keys.EncodeDouble("VOLUME_CHANGED", 0.5);
        lxpc::xpc_connection_send_message(device, message);
        lxpc::xpc_release(message);

        long received = 0;
        size_t bytes = 0;
        int peak = 0;
        while (received < frames) {
            std::optional<Event> event = fromDevice->events.Pop(gTimeout);
            if (!event || event->error) {
                std::fprintf(stderr, "kavelpl-vadctl: %s after %ld of %ld AUDIO_DATA frames\n",
                             event ? "the device connection failed" : "no frame within --timeout",
                             received, frames);
                break;
            }
            if (Value const* audio = vadctl::Find(event->values, "AUDIO_DATA")) {
                ++received;
                bytes += audio->bytes.size();
                for (size_t i = 0; i + 1 < audio->bytes.size(); i += 2) {
                    int16_t sample;
                    std::memcpy(&sample, &audio->bytes[i], sizeof sample);
                    peak = std::max(peak, std::abs(static_cast<int>(sample)));
                }
            }
        }
        std::printf("AUDIO_DATA: %ld frames, %zu bytes, peak %d\n", received, bytes, peak);
        if (received < frames)
            status = kExitNoAnswer;

        message = keys.Encode({{"STOP_RECORDING", 1}});
        reply = Ask(device, message, keys, "device", "STOP_RECORDING");
        lxpc::xpc_release(message);
        if (reply && vadctl::Find(*reply, "STOP_RECORDING"))
            std::printf("STOP_RECORDING: true\n");
        else
            status = kExitNoAnswer;
    }
    std::fflush(stdout);
    Close(device);
    return finish(status);
}

// --- load-driver ----------------------------------------------------------------------------

int LoadDriver(char const* given) {
    // The service runs elsewhere, in its own working folder, and takes only absolute paths.
    std::string path = given;
    if (!path.empty() && path[0] != '/') {
        std::error_code error;
        std::filesystem::path const absolute = std::filesystem::absolute(path, error);
        if (error) {
            std::fprintf(stderr, "kavelpl-vadctl: cannot make %s absolute: %s\n", given,
                         error.message().c_str());
            return kExitUsage;
        }
        path = absolute.lexically_normal().string();
        std::fprintf(stderr, "kavelpl-vadctl: relative path %s offered as %s\n", given,
                     path.c_str());
    }
    auto fromService = std::make_shared<Inbox>(arVADHelperTxKeys, arVADHelperRxKeys);
    lxpc::xpc_connection_t service = OpenService(fromService);
    if (!service)
        return kExitCannotConnect;
    std::printf("LOAD_DRIVER: %s\n", path.c_str());
    KeyLists& keys = fromService->keys;
    lxpc::xpc_object_t message = keys.Encode({{"LOAD_DRIVER", LXPCPointerAsValue(path.c_str())}});
    auto reply = Ask(service, message, keys, "service", "LOAD_DRIVER");
    lxpc::xpc_release(message);
    Close(service);
    Value const* answer = reply ? vadctl::Find(*reply, "LOAD_DRIVER_REPLY") : nullptr;
    if (!answer) {
        if (reply)
            std::fprintf(stderr, "kavelpl-vadctl: the service's reply lacks LOAD_DRIVER_REPLY\n");
        return kExitNoAnswer;
    }
    std::printf("LOAD_DRIVER_REPLY: %s\n", answer->number ? "true" : "false");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    // Line by line, so that the lines of the two roles interleave in order when both write
    // to one terminal or pipe.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc < 2) {
        std::fputs(kUsage, stderr);
        return kExitUsage;
    }
    std::string command = argv[1];
    if (command == "--help" || command == "-h" || command == "help") {
        std::fputs(kUsage, stdout);
        return 0;
    }
    long sessions = 0, waitMs = 5000, frames = 5;
    char const* driverPath = nullptr;
    for (int i = 2; i < argc; ++i) {
        std::string option = argv[i];
        bool ok = i + 1 < argc;
        if (command == "load-driver" && !driverPath && (option.empty() || option[0] != '-'))
            ok = (driverPath = argv[i]) != nullptr;
        else if (ok && option == "--timeout")
            ok = ParseSeconds(argv[++i], gTimeout);
        else if (ok && command == "publish" && option == "--sessions")
            ok = ParseCount(argv[++i], sessions);
        else if (ok && command == "request" && option == "--wait")
            ok = ParseCount(argv[++i], waitMs);
        else if (ok && command == "request" && option == "--frames")
            ok = ParseCount(argv[++i], frames);
        else
            ok = false;
        if (!ok) {
            std::fprintf(stderr, "kavelpl-vadctl: bad option %s\n\n", option.c_str());
            std::fputs(kUsage, stderr);
            return kExitUsage;
        }
    }
    if (command == "load-driver") {
        if (!driverPath) {
            std::fputs(kUsage, stderr);
            return kExitUsage;
        }
        return LoadDriver(driverPath);
    }
    if (command == "publish")
        return std::make_shared<Device>()->Run(sessions);
    if (command == "request")
        return Request(waitMs, frames);
    std::fprintf(stderr, "kavelpl-vadctl: unknown command %s\n\n", command.c_str());
    std::fputs(kUsage, stderr);
    return kExitUsage;
}
