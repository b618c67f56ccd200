#include "debug/ldebug.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/file/temp_tree.h"
#include "tests/thread/child_process.h"

namespace {

// A live holder in another process; a second instance beside it; then the holder killed.
TEST(HangDetector, SecondInstanceAndStaleFileAcrossProcesses) {
    ltest::TempTree tree;
    ltest::EnvOverride cache("XDG_CACHE_HOME", tree.root()), logname("LOGNAME", ""),
        user("USER", "hanger");
    std::string const path = tree.Path("_kavelplvadhelper_rl_hanger");
    EXPECT_EQ(LHangDetector().GetLockFilePath(), path);
    EXPECT_TRUE(std::filesystem::is_empty(tree.root()));  // constructing opens nothing
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    logname.Set("hanger");  // LOGNAME comes first
    user.Set("other");
    time_t const before = time(nullptr);
    pid_t holder = ltest::ForkChild([&] {
        LHangDetector detector;
        detector.InitAndTest();
        int fd = detector.GetFileDescriptor();
        char ok = fd != -1 && (fcntl(fd, F_GETFD) & FD_CLOEXEC) ? 'y' : 'n';
        (void)!write(ready[1], &ok, 1);
        return pause();
    });
    char ok = 0;
    ASSERT_TRUE(read(ready[0], &ok, 1) == 1 && ok == 'y');
    std::string const record = ltest::Slurp(path);
    LHangDetectorRecord held{};
    memcpy(&held, record.data(), std::min<size_t>(record.size(), 16));
    EXPECT_TRUE(record.size() == 16 && held.seconds >= before && held.seconds <= time(nullptr));

    LHangDetector second;
    second.InitAndTest();
    EXPECT_EQ(second.GetFileDescriptor(), -1);
    EXPECT_EQ(ltest::Slurp(path), record);
    EXPECT_NE(flock(open(path.c_str(), O_RDONLY | O_CLOEXEC), LOCK_SH | LOCK_NB), 0);

    kill(holder, SIGKILL);
    ltest::WaitChild(holder);
    second.InitAndTest();  // stale: deleted, no new marker yet
    EXPECT_TRUE(second.GetFileDescriptor() == -1 && !std::filesystem::exists(path));
    second.InitAndTest();
    EXPECT_TRUE(second.GetFileDescriptor() != -1 && ltest::Slurp(path).size() == 16u);
    second._Release();
    EXPECT_FALSE(std::filesystem::exists(path));
}

class ThreadRegistry : public ::testing::Test {
    void TearDown() override { EXPECT_EQ(gnDebugThreads.load(), 0u) << "a record was left"; }
};

TEST_F(ThreadRegistry, SixtyFourSlotsReuseTrimmingNamesAndLastDialog) {
    for (uint32_t t = 1; t <= 65; ++t) {
        _LDebugThreadDataStartThread(t, "WRKR");
    }
    EXPECT_EQ(gnDebugThreads.load(), 64u);
    EXPECT_EQ(_LDebugThreadFindData(65), nullptr);  // no slot left for it
    for (uint32_t t = 1; t <= 65; ++t) {
        _LDebugThreadDataStopThread(t);  // the 65th has no record: nothing to stop
    }
    // Stopping trims the count past free slots down to the highest owned or claimed one.
    for (uint32_t t = 1001; t <= 1004; ++t) {
        _LDebugThreadDataStartThread(t, "x");
    }
    _LDebugThreadDataStopThread(1002);
    _LDebugThreadDataStopThread(1003);
    EXPECT_EQ(gnDebugThreads.load(), 4u);  // free slots below an owned one stay counted
    _LDebugThreadDataStartThread(1005, "x");
    EXPECT_EQ(_LDebugThreadFindData(1005), &gDebugThreadData[1]);
    _LDebugThreadDataStopThread(1004);
    EXPECT_EQ(gnDebugThreads.load(), 2u);
    gDebugThreadData[0].dwThread = kLDebugThreadClaimed;  // being filled in by its thread
    _LDebugThreadDataStopThread(1005);
    EXPECT_EQ(gnDebugThreads.load(), 1u);
    gDebugThreadData[0].dwThread = 1001;
    _LDebugThreadDataStopThread(1001);
    auto nameOf = [](uint32_t thread, char const* name) {
        _LDebugThreadDataStartThread(thread, name);
        std::string given = _LDebugThreadFindData(thread)->szName;
        _LDebugThreadDataStopThread(thread);
        return given;
    };
    EXPECT_EQ(nameOf(7, "LongName"), "Long");
    EXPECT_TRUE(LIsMainThread());
    std::thread([] {
        char name[8] = "junk";
        LDebugThreadGetName(name);
        EXPECT_TRUE(name[0] == 0 && !LIsMainThread());  // unregistered, not the main thread
        uint32_t const self = gettid();
        LDebugThreadDataStartThread(nullptr);
        LDebugThreadGetName(name);
        EXPECT_EQ(std::stoul(name), self % 10000);
        LDebugThreadSetName("Opts and more");
        LDebugThreadSetLastDialog("Opts");  // then the units, tens and hundreds digits
        std::string const digits = {char('0' + self % 10), char('0' + self / 10 % 10),
                                    char('0' + self / 100 % 10)};
        LDebugThreadData const* record = LDebugThreadFindData();
        EXPECT_EQ(std::string(record->szName) + "/" + record->szLastDialog, "Opts/Opts" + digits);
        LDebugThreadSetLastDialog(std::string(40, 'd').c_str());
        EXPECT_EQ(record->szLastDialog, std::string(31, 'd'));
        LDebugThreadDataStopThread();
    }).join();
}

}  // namespace
