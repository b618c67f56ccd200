// Signal objects, groups, and named events over Unix-domain sockets in a private data
// folder, across threads and processes.
#include "thread/lsignal_object.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "child_process.h"
#include "tests/file/temp_tree.h"

namespace {

TEST(SignalObject, SignalTwiceResetOnceLeavesItUnsignalledWithoutBlocking) {
    LSignalObject event, b, c;
    int fd = event.GetRef().GetDescriptor();
    ASSERT_GE(fd, 0);
    EXPECT_TRUE((fcntl(fd, F_GETFL) & O_NONBLOCK) && (fcntl(fd, F_GETFD) & FD_CLOEXEC));
    event.Reset();  // resetting an empty event must not block
    EXPECT_FALSE(event.IsSignaled());
    event.Signal();
    event.Signal();
    EXPECT_TRUE(event.IsSignaled());
    event.Reset();
    EXPECT_FALSE(event.WaitSignal(0));
    // Dual and triple waits see any of their events.
    EXPECT_FALSE(event.GetRef().WaitSignalTriple(b, c, 0));
    c.Signal();
    EXPECT_FALSE(event.GetRef().WaitSignalDual(b, 0));
    EXPECT_TRUE(event.GetRef().WaitSignalTriple(b, c, 0));
    b.Signal();
    EXPECT_TRUE(event.GetRef().WaitSignalDual(b, 0));
}

TEST(SignalObjectGroup, The257thEntryIsIgnoredWhetherAddedAloneOrInAGroup) {
    LSignalObject quiet, loud;
    loud.Signal();
    LSignalObjectGroup group;
    EXPECT_FALSE(group.Select(0));  // an empty group never selects
    for (int i = 0; i < 256; ++i) {
        group.Add(quiet.GetRef());
    }
    EXPECT_EQ(group.GetCount(), 256u);
    group.Add(loud.GetRef());
    EXPECT_EQ(group.GetCount(), 256u);
    EXPECT_FALSE(group.Select(0));

    // Adding a group takes what fits and reports ready entries.
    LSignalObjectGroup big, other;
    for (int i = 0; i < 250; ++i) {
        big.Add(quiet.GetRef());
    }
    for (int i = 0; i < 10; ++i) {
        other.Add(i == 5 ? loud.GetRef() : quiet.GetRef());
    }
    big.Add(other);  // entries 250 to 255: the signalled one is the last that fits
    EXPECT_EQ(big.GetCount(), 256u);
    EXPECT_TRUE(big.Select(0));
    EXPECT_TRUE(big.IsEntryReady(255));
    EXPECT_FALSE(big.IsEntryReady(256));
}

// The user's data folder is a private temporary folder for the test's life.
class NamedSignal : public ::testing::Test {
protected:
    ltest::IsolatedHome home_;
    std::string data_ = home_.tree().MakeFolder(".local/share");
    ltest::EnvOverride dataHome_{"XDG_DATA_HOME", data_};
    std::string name_ = "ev" + std::to_string(getpid());
};

TEST_F(NamedSignal, PathsInTheDataFolderOrUnderHomeAndASignalToNobody) {
    EXPECT_EQ(std::string(LSignalObjectNamedSignaller(name_.c_str()).GetPath()),
              data_ + "/" + name_);
    std::string longName(200, 'n');
    EXPECT_EQ(std::string(LSignalObjectNamedSignaller(longName.c_str()).GetPath()),
              (data_ + "/" + longName).substr(0, 103));
    unsetenv("XDG_DATA_HOME");
    LSignalObjectNamedWaiter waiter(name_.c_str());
    EXPECT_EQ(std::string(waiter.GetPath()),
              home_.home() + "/Library/Application Support/" + name_);
    // The folder is made on the way, so the waiter could bind and a signal gets through.
    LSignalObjectNamedSignaller(name_.c_str()).Signal();
    EXPECT_TRUE(waiter.WaitSignal(LSignalInfinite));
    EXPECT_GE(waiter.GetAcceptedDescriptor(), 0);

    // A signal nobody listens for returns.
    LSignalObjectNamedSignaller((name_ + "_nobody").c_str()).Signal();
}

TEST_F(NamedSignal, WaiterAcceptsSignalsFromThreadsAndProcessesAndRemovesItsSocket) {
    auto waiter = std::make_unique<LSignalObjectNamedWaiter>(name_.c_str());
    std::string const path = waiter->GetPath();
    EXPECT_EQ(std::filesystem::status(path).type(), std::filesystem::file_type::socket);
    // Nobody signals: the wait ends with true after the timeout, nothing accepted.
    EXPECT_TRUE(waiter->WaitSignal(10));
    EXPECT_EQ(waiter->GetAcceptedDescriptor(), -1);
    std::thread t([&] { LSignalObjectNamedSignaller(name_.c_str()).Signal(); });
    EXPECT_TRUE(waiter->WaitSignal(LSignalInfinite));
    t.join();
    ASSERT_GE(waiter->GetAcceptedDescriptor(), 0);
    waiter->Reset();
    // Drained: only the end of the closed connection is left.
    unsigned char byte = 0;
    EXPECT_EQ(read(waiter->GetAcceptedDescriptor(), &byte, 1), 0);

    pid_t child = ltest::ForkChild([&] {
        LSignalObjectNamed(name_.c_str()).Signal();
        return 0;
    });
    ASSERT_GE(child, 0);
    EXPECT_TRUE(waiter->WaitSignal(LSignalInfinite));
    pollfd p{waiter->GetAcceptedDescriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, -1), 1);
    EXPECT_EQ(read(p.fd, &byte, 1), 1);
    EXPECT_EQ(byte, 1);
    EXPECT_EQ(ltest::WaitChild(child), 0);
    waiter.reset();
    EXPECT_FALSE(std::filesystem::exists(path));
}

// A waiter that could not bind never sees a signal, yet a caller looping on its wait must not
// spin: the wait lasts its full time and reports no signal.
TEST_F(NamedSignal, WaiterWhoseBindFailedWaitsOutItsTimeout) {
    std::string missing = "no_such_folder/" + name_;
    LSignalObjectNamedWaiter waiter(missing.c_str());
    LSignalObjectNamedSignaller(missing.c_str()).Signal();
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(waiter.WaitSignal(150));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150));
    EXPECT_EQ(waiter.GetAcceptedDescriptor(), -1);
}

}  // namespace
