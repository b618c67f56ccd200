// Messaging across processes. The peer is this test program run again (fork, then exec of
// /proc/self/exe, so that it starts with a fresh transport rather than a copy of this one's
// threads): with LXPC_TEST_CHILD set, a global test environment serves a named service with
// LXPCMachServer before any test runs and never returns to the test runner.
//
// The child echoes every value it decodes back in its reply, writes to a descriptor it is
// given, opens a direct connection to an endpoint it is given, keeps "HOLD" requests
// unanswered and exits at once on "EXIT".
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <thread>

#include "lxpc_test_util.h"
#include "thread/main_queue.h"

extern char** environ;

using namespace lxpc;
using namespace lxpc_test;

namespace {

// The vocabulary of both directions.
// clang-format off
const LXPCDictionaryKey kWireKeys[] = {
    {"B", LXPCDataTypeBool}, {"I", LXPCDataTypeInt64}, {"U", LXPCDataTypeUInt64},
    {"D", LXPCDataTypeDouble}, {"T", LXPCDataTypeDate}, {"DATA", LXPCDataTypeData},
    {"UUID", LXPCDataTypeUUID}, {"S", LXPCDataTypeString}, {"FD", LXPCDataTypeFD},
    {"ENDPOINT", LXPCDataTypeObject}, {"ARRAY", LXPCDataTypeObject}, {"HOLD", LXPCDataTypeBool},
    {"EXIT", LXPCDataTypeBool}, {"CHILD_PID", LXPCDataTypeInt64},
    {"VIA_ENDPOINT", LXPCDataTypeString}, {"", LXPCDataTypeNone}};
// clang-format on

constexpr int kReadyFd = 100;
constexpr const char kChildText[] = "written by the child";

const LXPCDataListable* FindValue(const LList<LXPCDataListable>& values, const char* name) {
    return values.FindFirst(
        [name](const LXPCDataListable& value) { return std::strcmp(value.szName, name) == 0; });
}

// ---- the child ----

class ChildHandler final : public LXPCServerEventNotify {
public:
    LXPCBase* server = nullptr;
    LXPCBase* direct = nullptr;

    void EvConnectionError(long, LXPCErrorType) override {}
    void EvMessageSent(long) override {}
    void EvReplyReceived(long, LList<LXPCDataListable> const&) override {}
    void EvInvalidConnectionAttempt() override {}
    void EvMessageReceived(long connection, long message,
                           LList<LXPCDataListable> const& data) override {
        if (FindValue(data, "EXIT") != nullptr) {
            _exit(0);
        }
        if (FindValue(data, "HOLD") != nullptr) {
            return;
        }
        if (const LXPCDataListable* fd = FindValue(data, "FD")) {
            const int descriptor = static_cast<int>(fd->nValue);
            if (write(descriptor, kChildText, sizeof kChildText - 1) < 0) {
                _exit(3);
            }
        }
        if (const LXPCDataListable* endpoint = FindValue(data, "ENDPOINT")) {
            OpenDirect(reinterpret_cast<xpc_object_t>(endpoint->nValue));
        }
        LList<LXPCDataListable> reply;
        for (const LXPCDataListable& value : data) {
            LXPCDictionaryKeyListable key;
            LXPCCopyName(key.szName, value.szName);
            key.type = value.type;
            LXPCDataListable* copy = CreateXPCData(key, value.nValue, value.nLength);
            copy->fValue = value.fValue;
            reply.PushFront(copy);
        }
        Push(reply, "CHILD_PID", LXPCDataTypeInt64, getpid());
        server->SendReply(connection, message, reply);
        // Decoded descriptors are ours to close once the reply carries its own copy.
        if (const LXPCDataListable* fd = FindValue(data, "FD")) {
            close(static_cast<int>(fd->nValue));
        }
    }

private:
    void OpenDirect(xpc_object_t endpoint) {
        xpc_connection_t connection = xpc_connection_create_from_endpoint(endpoint);
        if (connection == nullptr) {
            _exit(4);
        }
        LXPCConnection* held = Adopt(*direct, connection).release();  // lives as the child
        static char text[64];
        snprintf(text, sizeof text, "hello from %d", static_cast<int>(getpid()));
        LList<LXPCDataListable> hello;
        Push(hello, "VIA_ENDPOINT", LXPCDataTypeString, Ptr(text));
        direct->SendMessage(held->hConnection, hello, false);
    }
};

// Serves LXPC_TEST_SERVICE with an LXPCMachServer ("mach"), or as the service xpc_main runs
// (LXPC_SERVICE_NAME) with an LXPCServer ("main").
[[noreturn]] void RunChild(const std::string& role) {
    const char* service = getenv("LXPC_TEST_SERVICE");
    if (service == nullptr) {
        _exit(2);
    }
    ChildHandler handler;
    std::unique_ptr<LXPCServerBase> server;
    if (role == "main") {
        server = std::make_unique<LXPCServer>(&handler);
    } else {
        server = std::make_unique<LXPCMachServer>(&handler);
    }
    LXPCBase direct(&handler);
    server->AddKeys(kWireKeys, true);
    server->AddKeys(kWireKeys, false);
    direct.AddKeys(kWireKeys, false);
    handler.server = server.get();
    handler.direct = &direct;
    LMainQueueAsync([] {
        const char ready = 'r';
        if (write(kReadyFd, &ready, 1) != 1) {
            _exit(5);
        }
        close(kReadyFd);
    });
    if (role == "main") {
        static_cast<LXPCServer&>(*server).Start();
    }
    static_cast<LXPCMachServer&>(*server).Start(service, 0);
    _exit(6);  // Start only returns when the service could not be listened on
}

class ChildRole : public ::testing::Environment {
public:
    void SetUp() override {
        if (const char* role = getenv("LXPC_TEST_CHILD")) {
            RunChild(role);
        }
    }
};

[[maybe_unused]] ::testing::Environment* const gChildRole =
    ::testing::AddGlobalTestEnvironment(new ChildRole);

// ---- the parent ----

class LXPCAcrossProcesses : public ::testing::Test {
protected:
    virtual const char* Role() const { return "mach"; }

    void SetUp() override {
        // Everything the child needs is built before fork: after it, only exec.
        std::vector<std::string> env;
        for (char** entry = environ; *entry != nullptr; ++entry) {
            env.emplace_back(*entry);
        }
        env.push_back(std::string("LXPC_TEST_CHILD=") + Role());
        env.push_back("LXPC_TEST_SERVICE=" + service_);
        env.push_back("LXPC_SERVICE_NAME=" + service_);
        std::vector<char*> envp;
        for (std::string& entry : env) {
            envp.push_back(entry.data());
        }
        envp.push_back(nullptr);
        char exe[] = "/proc/self/exe";
        char filter[] = "--gtest_filter=LXPCAcrossProcesses.*:LXPCServiceMain.*";
        char* argv[] = {exe, filter, nullptr};
        int ready[2];
        ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
        const int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);

        child_ = fork();
        if (child_ == 0) {
            dup2(ready[1], kReadyFd);
            dup2(devNull, STDOUT_FILENO);
            execve(exe, argv, envp.data());
            _exit(127);
        }
        close(ready[1]);
        close(devNull);
        ASSERT_GT(child_, 0);
        pollfd wait{ready[0], POLLIN, 0};
        char byte = 0;
        const bool listening = poll(&wait, 1, kWaitMs) == 1 && read(ready[0], &byte, 1) == 1;
        close(ready[0]);
        ASSERT_TRUE(listening) << "the child did not start serving";

        base_.AddKeys(kWireKeys, false);
        base_.AddKeys(kWireKeys, true);
        connection_ =
            Adopt(base_, xpc_connection_create_mach_service(service_.c_str(), nullptr, 0));
    }

    void TearDown() override {
        connection_.reset();
        if (child_ > 0) {
            kill(child_, SIGKILL);
            waitpid(child_, nullptr, 0);
        }
    }

    // Waits for the child to end by itself; its exit status.
    int WaitForChildExit() {
        int status = -1;
        for (int waited = 0; waited < kWaitMs; waited += 5) {
            if (waitpid(child_, &status, WNOHANG) == child_) {
                child_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return -1;
    }

    ServiceDir dir_;
    std::string service_ = UniqueServiceName("process");
    pid_t child_ = -1;
    Recorder events_;
    LXPCBase base_{&events_};
    std::unique_ptr<LXPCConnection> connection_;
};

}  // namespace

// Every value type's encoding is shown in lxpc_data_test.cpp and the wire tests; here, what
// only another process can show: descriptors, endpoints and objects crossing, and the pid.
TEST_F(LXPCAcrossProcesses, ValuesDescriptorsAndEndpointsCross) {
    // A file the child writes to through the descriptor it receives.
    char path[] = "/tmp/lxpc_cross_XXXXXX";
    const int file = mkstemp(path);
    ASSERT_GE(file, 0);
    // An anonymous listener whose endpoint lets the child call us directly.
    Recorder directEvents;
    LXPCBase direct(&directEvents);
    direct.AddKeys(kWireKeys, true);
    std::mutex acceptedLock;
    std::vector<std::unique_ptr<LXPCConnection>> accepted;
    xpc_connection_t listener = xpc_connection_create(nullptr, nullptr);
    xpc_connection_set_event_handler(listener, [&](xpc_object_t peer) {
        if (xpc_get_type(peer) != XPC_TYPE_CONNECTION) {
            return;
        }
        auto held = std::make_unique<LXPCConnection>(Handle(peer));
        direct.SetupConnectionHandlerAndResume(*held);
        held->Retain();
        std::lock_guard lock(acceptedLock);
        accepted.push_back(std::move(held));
    });
    xpc_connection_resume(listener);
    xpc_endpoint_t endpoint = xpc_endpoint_create(listener);
    xpc_object_t array = xpc_array_create(nullptr, 0);
    xpc_object_t element = xpc_int64_create(99);
    xpc_array_append_value(array, element);
    xpc_release(element);
    const std::string bytes("\x00\x01binary\xff", 9);

    LList<LXPCDataListable> request;
    Push(request, "I", LXPCDataTypeInt64, INT64_MIN);
    Push(request, "DATA", LXPCDataTypeData, Ptr(bytes.data()), bytes.size());
    Push(request, "S", LXPCDataTypeString, Ptr("caf\xc3\xa9"));
    Push(request, "FD", LXPCDataTypeFD, file);
    Push(request, "ENDPOINT", LXPCDataTypeObject, Ptr(endpoint));
    Push(request, "ARRAY", LXPCDataTypeObject, Ptr(array));
    base_.SendMessage(connection_->hConnection, request, true);

    ASSERT_TRUE(events_.WaitUntil([&] { return events_.replies.size() == 1; }));
    const Delivery& reply = events_.replies[0];
    EXPECT_EQ(reply.connection, connection_->hConnection);
    EXPECT_EQ(Find(reply.values, "CHILD_PID")->data.nValue, child_);
    EXPECT_EQ(Find(reply.values, "I")->data.nValue, INT64_MIN);
    EXPECT_EQ(Find(reply.values, "DATA")->bytes, bytes);
    EXPECT_EQ(Find(reply.values, "S")->bytes, "caf\xc3\xa9");
    // Objects come back as new objects of the same kind.
    const long endpointBack = Find(reply.values, "ENDPOINT")->data.nValue;
    EXPECT_NE(endpointBack, 0);
    EXPECT_NE(endpointBack, Ptr(endpoint));
    EXPECT_EQ(Find(reply.values, "HOLD"), nullptr);

    // The descriptor went there and back: the child wrote through it, and what came back is
    // a new descriptor of the same file.
    const int back = static_cast<int>(Find(reply.values, "FD")->data.nValue);
    ASSERT_GE(back, 0);
    struct stat original {};
    struct stat returned {};
    ASSERT_EQ(fstat(file, &original), 0);
    ASSERT_EQ(fstat(back, &returned), 0);
    EXPECT_EQ(original.st_ino, returned.st_ino);
    EXPECT_NE(back, file);
    close(back);
    char written[64] = {};
    EXPECT_EQ(pread(file, written, sizeof written - 1, 0),
              static_cast<ssize_t>(sizeof kChildText - 1));
    EXPECT_STREQ(written, kChildText);

    // The endpoint let the child open a direct connection to our anonymous listener.
    ASSERT_TRUE(directEvents.WaitUntil([&] { return directEvents.messages.size() == 1; }));
    EXPECT_EQ(Find(directEvents.messages[0].values, "VIA_ENDPOINT")->bytes,
              "hello from " + std::to_string(child_));
    {
        std::lock_guard lock(acceptedLock);
        ASSERT_EQ(accepted.size(), 1u);
        EXPECT_EQ(directEvents.messages[0].connection, accepted[0]->hConnection);
        EXPECT_EQ(xpc_connection_get_pid(Object(accepted[0]->hConnection)), child_);
    }

    xpc_connection_cancel(listener);
    xpc_release(listener);
    xpc_release(endpoint);
    xpc_release(array);
    close(file);
    unlink(path);
    std::lock_guard lock(acceptedLock);
    accepted.clear();
}

TEST_F(LXPCAcrossProcesses, PendingRepliesGetTheErrorWhenThePeerDies) {
    constexpr int kPending = 6;
    for (int i = 0; i < kPending; ++i) {
        LList<LXPCDataListable> hold;
        Push(hold, "HOLD", LXPCDataTypeBool, 1);
        Push(hold, "I", LXPCDataTypeInt64, i);
        base_.SendMessage(connection_->hConnection, hold, true);
    }
    LList<LXPCDataListable> exitNow;
    Push(exitNow, "EXIT", LXPCDataTypeBool, 1);
    base_.SendMessage(connection_->hConnection, exitNow, false);
    EXPECT_EQ(WaitForChildExit(), 0);

    // One error for each unanswered request and one for the connection itself, all for this
    // connection and all "interrupted", as a named service's client sees its peer go.
    ASSERT_TRUE(events_.WaitUntil([&] { return events_.errors.size() == kPending + 1; }));
    for (const auto& [connection, type] : events_.errors) {
        EXPECT_EQ(connection, connection_->hConnection);
        EXPECT_EQ(type, LXPCErrorConnectionInterrupted);
    }
    EXPECT_TRUE(events_.replies.empty());
    EXPECT_EQ(events_.sent.size(), 1u);  // the barrier after EXIT
}

// The service that xpc_main runs: LXPCServer takes every client, whatever its process id.
class LXPCServiceMain : public LXPCAcrossProcesses {
protected:
    const char* Role() const override { return "main"; }
};

TEST_F(LXPCServiceMain, ServesThroughXpcMain) {
    for (int i = 0; i < 3; ++i) {
        LList<LXPCDataListable> request;
        Push(request, "I", LXPCDataTypeInt64, 100 + i);
        Push(request, "S", LXPCDataTypeString, Ptr("through xpc_main"));
        base_.SendMessage(connection_->hConnection, request, true);
    }
    ASSERT_TRUE(events_.WaitUntil([&] { return events_.replies.size() == 3; }));
    for (int i = 0; i < 3; ++i) {
        const Delivery& reply = events_.replies[i];
        EXPECT_EQ(Find(reply.values, "I")->data.nValue, 100 + i);
        EXPECT_EQ(Find(reply.values, "S")->bytes, "through xpc_main");
        EXPECT_EQ(Find(reply.values, "CHILD_PID")->data.nValue, child_);
    }
}
