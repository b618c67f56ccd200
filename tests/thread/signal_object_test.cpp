#include "thread/lsignal_object.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(SignalObject, SignalTwiceResetOnceLeavesItUnsignalled) {
    LSignalObject event;
    EXPECT_FALSE(event.IsSignaled());
    event.Signal();
    event.Signal();
    EXPECT_TRUE(event.IsSignaled());
    event.Reset();
    EXPECT_FALSE(event.IsSignaled());
    EXPECT_FALSE(event.WaitSignal(0));
}

TEST(SignalObject, DescriptorsAreNonBlockingAndCloseOnExec) {
    LSignalObject event;
    int fd = event.GetRef().GetDescriptor();
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    // Resetting an empty event must not block.
    event.Reset();
}

TEST(SignalObject, SignalFromAnotherThreadEndsAnEndlessWait) {
    LSignalObject event;
    int value = 0;
    std::thread signaller([&] {
        value = 42;
        event.Signal();
    });
    EXPECT_TRUE(event.WaitSignal(LSignalInfinite));
    EXPECT_EQ(value, 42);
    signaller.join();
}

TEST(SignalObject, DualAndTripleWaitsSeeAnyOfTheirEvents) {
    LSignalObject a, b, c;
    EXPECT_FALSE(a.GetRef().WaitSignalDual(b, 0));
    EXPECT_FALSE(a.GetRef().WaitSignalTriple(b, c, 0));
    c.Signal();
    EXPECT_FALSE(a.GetRef().WaitSignalDual(b, 0));
    EXPECT_TRUE(a.GetRef().WaitSignalTriple(b, c, 0));
    b.Signal();
    EXPECT_TRUE(a.GetRef().WaitSignalDual(b, 0));
}

TEST(SignalObjectGroup, EmptyGroupNeverSelects) {
    LSignalObjectGroup group;
    EXPECT_FALSE(group.Select(0));
    EXPECT_FALSE(group.IsSignaled());
}

TEST(SignalObjectGroup, The257thEntryIsIgnored) {
    LSignalObject quiet, loud;
    loud.Signal();
    LSignalObjectGroup group;
    for (int i = 0; i < 256; ++i) {
        group.Add(quiet.GetRef());
    }
    EXPECT_EQ(group.GetCount(), 256u);
    group.Add(loud.GetRef());
    EXPECT_EQ(group.GetCount(), 256u);
    EXPECT_FALSE(group.Select(0));
}

TEST(SignalObjectGroup, AddingAGroupTakesWhatFitsAndReportsReadyEntries) {
    LSignalObject quiet, loud;
    loud.Signal();
    LSignalObjectGroup big;
    for (int i = 0; i < 250; ++i) {
        big.Add(quiet.GetRef());
    }
    LSignalObjectGroup other;
    for (int i = 0; i < 10; ++i) {
        other.Add(i == 5 ? loud.GetRef() : quiet.GetRef());
    }
    big.Add(other);
    EXPECT_EQ(big.GetCount(), 256u);
    EXPECT_TRUE(big.Select(0));
    EXPECT_TRUE(big.IsEntryReady(255));
    EXPECT_FALSE(big.IsEntryReady(254));
    EXPECT_FALSE(big.IsEntryReady(256));
}

// Points the user's data folder at a private temporary folder for the test's life.
class NamedSignal : public ::testing::Test {
protected:
    void SetUp() override {
        for (char const* name : {"HOME", "XDG_DATA_HOME"}) {
            char const* v = getenv(name);
            saved_.emplace_back(name, v != nullptr ? std::optional<std::string>(v) : std::nullopt);
        }
        char pattern[] = "/tmp/lsignal_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root_ = pattern;
        std::filesystem::create_directories(root_ / ".local/share");
        setenv("HOME", root_.c_str(), 1);
        setenv("XDG_DATA_HOME", (root_ / ".local/share").c_str(), 1);
        name_ = "ev" + std::to_string(getpid());
    }
    void TearDown() override {
        for (auto& [name, value] : saved_) {
            if (value) {
                setenv(name.c_str(), value->c_str(), 1);
            } else {
                unsetenv(name.c_str());
            }
        }
        std::filesystem::remove_all(root_);
    }

    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
    std::filesystem::path root_;
    std::string name_;
};

TEST_F(NamedSignal, PathLiesInTheUsersDataFolder) {
    LSignalObjectNamedSignaller signaller(name_.c_str());
    EXPECT_EQ(std::string(signaller.GetPath()), (root_ / ".local/share" / name_).string());
}

TEST_F(NamedSignal, WithoutADataFolderSettingThePathLiesUnderHome) {
    unsetenv("XDG_DATA_HOME");
    std::filesystem::path folder = root_ / "Library/Application Support";
    LSignalObjectNamedWaiter waiter(name_.c_str());
    EXPECT_EQ(std::string(waiter.GetPath()), (folder / name_).string());
    // The folder is made on the way, so the waiter could bind and a signal gets through.
    EXPECT_TRUE(std::filesystem::is_directory(folder));
    LSignalObjectNamedSignaller(name_.c_str()).Signal();
    EXPECT_TRUE(waiter.WaitSignal(LSignalInfinite));
    EXPECT_GE(waiter.GetAcceptedDescriptor(), 0);
}

TEST_F(NamedSignal, LongPathsAreCutToTheAddress) {
    std::string longName(200, 'n');
    LSignalObjectNamedSignaller signaller(longName.c_str());
    std::string expected = (root_ / ".local/share" / longName).string().substr(0, 103);
    EXPECT_EQ(std::string(signaller.GetPath()), expected);
}

// The descriptors this process holds, by number.
std::vector<int> OpenDescriptors() {
    std::vector<int> fds;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        fds.push_back(std::stoi(entry.path().filename().string()));
    }
    std::sort(fds.begin(), fds.end());
    return fds;
}

TEST_F(NamedSignal, SignalWithNobodyListeningReturnsAndKeepsItsSocket) {
    std::vector<int> before = OpenDescriptors();
    LSignalObjectNamedSignaller(name_.c_str()).Signal();
    std::vector<int> after = OpenDescriptors();
    std::vector<int> added;
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                        std::back_inserter(added));
    // The failed connect leaves its socket open, as this event always has.
    ASSERT_EQ(added.size(), 1u);
    close(added[0]);
}

TEST_F(NamedSignal, WaitEndsWithTrueAfterTheTimeoutWhenNobodySignals) {
    LSignalObjectNamedWaiter waiter(name_.c_str());
    struct stat st;
    ASSERT_EQ(stat(waiter.GetPath(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_TRUE(waiter.WaitSignal(10));
    EXPECT_EQ(waiter.GetAcceptedDescriptor(), -1);
}

TEST_F(NamedSignal, SignalFromAnotherThreadIsAccepted) {
    LSignalObjectNamedWaiter waiter(name_.c_str());
    std::thread t([&] { LSignalObjectNamedSignaller(name_.c_str()).Signal(); });
    EXPECT_TRUE(waiter.WaitSignal(LSignalInfinite));
    t.join();
    ASSERT_GE(waiter.GetAcceptedDescriptor(), 0);
    waiter.Reset();
    // Drained: only the end of the closed connection is left.
    unsigned char byte;
    EXPECT_EQ(read(waiter.GetAcceptedDescriptor(), &byte, 1), 0);
}

TEST_F(NamedSignal, SignalCrossesProcesses) {
    LSignalObjectNamedWaiter waiter(name_.c_str());
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        LSignalObjectNamed(name_.c_str()).Signal();
        _exit(0);
    }
    EXPECT_TRUE(waiter.WaitSignal(LSignalInfinite));
    int fd = waiter.GetAcceptedDescriptor();
    ASSERT_GE(fd, 0);
    pollfd p{fd, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, -1), 1);
    unsigned char byte = 0;
    EXPECT_EQ(read(fd, &byte, 1), 1);
    EXPECT_EQ(byte, 1);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(NamedSignal, WaiterWhoseBindFailedNeverSeesASignal) {
    std::string missing = "no_such_folder/" + name_;
    LSignalObjectNamedWaiter waiter(missing.c_str());
    LSignalObjectNamedSignaller(missing.c_str()).Signal();
    waiter.WaitSignal(0);
    EXPECT_EQ(waiter.GetAcceptedDescriptor(), -1);
}

TEST_F(NamedSignal, WaiterRemovesItsSocketFile) {
    std::string path;
    {
        LSignalObjectNamedWaiter waiter(name_.c_str());
        path = waiter.GetPath();
        EXPECT_TRUE(std::filesystem::exists(path));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
