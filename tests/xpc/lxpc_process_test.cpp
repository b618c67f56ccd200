// Messaging across processes. The peer is this program run again (fork, then exec, for a
// fresh transport): with LXPC_TEST_CHILD set, it serves the service xpc_main runs before any
// test starts. It echoes every value back, writes to a descriptor it gets, calls back through
// an endpoint it gets, leaves "HOLD" requests unanswered and exits on "EXIT".
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

// clang-format off
const LXPCDictionaryKey kWireKeys[] = {
    {"I", LXPCDataTypeInt64}, {"DATA", LXPCDataTypeData}, {"S", LXPCDataTypeString},
    {"FD", LXPCDataTypeFD}, {"ENDPOINT", LXPCDataTypeObject}, {"HOLD", LXPCDataTypeBool},
    {"EXIT", LXPCDataTypeBool}, {"CHILD_PID", LXPCDataTypeInt64},
    {"VIA_ENDPOINT", LXPCDataTypeString}, {"", LXPCDataTypeNone}};
// clang-format on

constexpr int kReadyFd = 100;
constexpr const char kChildText[] = "written by the child";

const LXPCDataListable* FindValue(const LList<LXPCDataListable>& values, const char* name) {
    return values.FindFirst(
        [name](const LXPCDataListable& value) { return std::strcmp(value.szName, name) == 0; });
}

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
        const LXPCDataListable* fd = FindValue(data, "FD");
        if (fd != nullptr &&
            write(static_cast<int>(fd->nValue), kChildText, sizeof kChildText - 1) < 0) {
            _exit(3);
        }
        if (const LXPCDataListable* endpoint = FindValue(data, "ENDPOINT")) {
            xpc_connection_t back = xpc_connection_create_from_endpoint(
                reinterpret_cast<xpc_object_t>(endpoint->nValue));
            LXPCConnection* held = Adopt(*direct, back).release();  // lives as the child
            static char text[64];
            snprintf(text, sizeof text, "hello from %d", static_cast<int>(getpid()));
            LList<LXPCDataListable> hello;
            Push(hello, "VIA_ENDPOINT", LXPCDataTypeString, Ptr(text));
            direct->SendMessage(held->hConnection, hello, false);
        }
        LList<LXPCDataListable> reply;
        for (const LXPCDataListable& value : data) {
            Push(reply, value.szName, value.type, value.nValue, value.nLength);
        }
        Push(reply, "CHILD_PID", LXPCDataTypeInt64, getpid());
        server->SendReply(connection, message, reply);
        if (fd != nullptr) {  // decoded descriptors are ours to close once the reply has its own
            close(static_cast<int>(fd->nValue));
        }
    }
};

class ChildRole : public ::testing::Environment {
public:
    void SetUp() override {
        if (getenv("LXPC_TEST_CHILD") == nullptr) {
            return;
        }
        ChildHandler handler;
        LXPCServer server(&handler);
        LXPCBase direct(&handler);
        server.AddKeys(kWireKeys, true);
        server.AddKeys(kWireKeys, false);
        direct.AddKeys(kWireKeys, false);
        handler.server = &server;
        handler.direct = &direct;
        LMainQueueAsync([] {
            if (write(kReadyFd, "r", 1) != 1) {
                _exit(5);
            }
            close(kReadyFd);
        });
        server.Start();
        _exit(6);
    }
};

[[maybe_unused]] ::testing::Environment* const gChildRole =
    ::testing::AddGlobalTestEnvironment(new ChildRole);

class LXPCAcrossProcesses : public ::testing::Test {
protected:
    void SetUp() override {
        // Everything the child needs is built before fork: after it, only exec.
        std::vector<std::string> env;
        for (char** entry = environ; *entry != nullptr; ++entry) {
            env.emplace_back(*entry);
        }
        env.push_back("LXPC_TEST_CHILD=1");
        env.push_back("LXPC_SERVICE_NAME=" + service_);
        std::vector<char*> envp;
        for (std::string& entry : env) {
            envp.push_back(entry.data());
        }
        envp.push_back(nullptr);
        char exe[] = "/proc/self/exe";
        char filter[] = "--gtest_filter=LXPCAcrossProcesses.*";
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

    ServiceDir dir_;
    std::string service_ = UniqueServiceName("process");
    pid_t child_ = -1;
    Recorder events_;
    LXPCBase base_{&events_};
    std::unique_ptr<LXPCConnection> connection_;
};

}  // namespace

// Value encodings are shown on dictionaries (lxpc_data_test.cpp); here, what only another
// process shows: descriptors and endpoints crossing, and pending replies when the peer dies.
TEST_F(LXPCAcrossProcesses, DescriptorsEndpointsAndPeerDeath) {
    char path[] = "/tmp/lxpc_cross_XXXXXX";
    const int file = mkstemp(path);
    ASSERT_GE(file, 0);
    unlink(path);
    // An anonymous listener whose endpoint lets the child call us directly.
    Recorder directEvents;
    LXPCBase direct(&directEvents);
    direct.AddKeys(kWireKeys, true);
    std::mutex acceptedLock;
    std::vector<std::unique_ptr<LXPCConnection>> accepted;
    xpc_connection_t listener = xpc_connection_create(nullptr, nullptr);
    xpc_connection_set_event_handler(listener, [&](xpc_object_t peer) {
        if (xpc_get_type(peer) == XPC_TYPE_CONNECTION) {
            auto held = std::make_unique<LXPCConnection>(Handle(peer));
            direct.SetupConnectionHandlerAndResume(*held);
            held->Retain();
            std::lock_guard lock(acceptedLock);
            accepted.push_back(std::move(held));
        }
    });
    xpc_connection_resume(listener);
    xpc_endpoint_t endpoint = xpc_endpoint_create(listener);
    const std::string bytes("\x00\x01binary\xff", 9);

    LList<LXPCDataListable> request;
    Push(request, "I", LXPCDataTypeInt64, INT64_MIN);
    Push(request, "DATA", LXPCDataTypeData, Ptr(bytes.data()), bytes.size());
    Push(request, "S", LXPCDataTypeString, Ptr("caf\xc3\xa9"));
    Push(request, "FD", LXPCDataTypeFD, file);
    Push(request, "ENDPOINT", LXPCDataTypeObject, Ptr(endpoint));
    base_.SendMessage(connection_->hConnection, request, true);
    ASSERT_TRUE(events_.WaitUntil([&] { return events_.replies.size() == 1; }));
    const Delivery& reply = events_.replies[0];
    EXPECT_EQ(reply.connection, connection_->hConnection);
    EXPECT_EQ(Find(reply.values, "CHILD_PID").data.nValue, child_);
    EXPECT_EQ(Find(reply.values, "I").data.nValue, INT64_MIN);
    EXPECT_EQ(Find(reply.values, "DATA").bytes, bytes);
    EXPECT_EQ(Find(reply.values, "S").bytes, "caf\xc3\xa9");
    const long endpointBack = Find(reply.values, "ENDPOINT").data.nValue;
    EXPECT_NE(endpointBack, 0);
    EXPECT_NE(endpointBack, Ptr(endpoint));
    // The child wrote through the descriptor, and what came back is a new one, same file.
    const int back = static_cast<int>(Find(reply.values, "FD").data.nValue);
    struct stat original {};
    struct stat returned {};
    ASSERT_EQ(fstat(file, &original), 0);
    ASSERT_EQ(fstat(back, &returned), 0);
    EXPECT_EQ(original.st_ino, returned.st_ino);
    EXPECT_NE(back, file);
    close(back);
    char written[64] = {};
    EXPECT_GT(pread(file, written, sizeof written - 1, 0), 0);
    EXPECT_STREQ(written, kChildText);
    ASSERT_TRUE(directEvents.WaitUntil([&] { return directEvents.messages.size() == 1; }));
    EXPECT_EQ(Find(directEvents.messages[0].values, "VIA_ENDPOINT").bytes,
              "hello from " + std::to_string(child_));
    {
        std::lock_guard lock(acceptedLock);
        ASSERT_EQ(accepted.size(), 1u);
        EXPECT_EQ(directEvents.messages[0].connection, accepted[0]->hConnection);
        EXPECT_EQ(xpc_connection_get_pid(Object(accepted[0]->hConnection)), child_);
    }

    // Each unanswered request, and the connection itself, hear "interrupted" when it dies.
    constexpr int kPending = 3;
    for (int i = 0; i < kPending; ++i) {
        LList<LXPCDataListable> hold;
        Push(hold, "HOLD", LXPCDataTypeBool, 1);
        base_.SendMessage(connection_->hConnection, hold, true);
    }
    LList<LXPCDataListable> exitNow;
    Push(exitNow, "EXIT", LXPCDataTypeBool, 1);
    base_.SendMessage(connection_->hConnection, exitNow, false);
    ASSERT_TRUE(events_.WaitUntil([&] { return events_.errors.size() == kPending + 1; }));
    for (const auto& error : events_.errors) {
        EXPECT_EQ(error, (std::pair<long, LXPCErrorType>{connection_->hConnection,
                                                         LXPCErrorConnectionInterrupted}));
    }
    EXPECT_EQ(events_.replies.size(), 1u);
    EXPECT_EQ(events_.sent.size(), 1u);  // the barrier after EXIT

    xpc_connection_cancel(listener);
    xpc_release(listener);
    xpc_release(endpoint);
    close(file);
    std::lock_guard lock(acceptedLock);
    accepted.clear();
}
