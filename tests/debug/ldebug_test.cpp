#include "debug/ldebug.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <condition_variable>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <latch>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/file/temp_tree.h"
#include "tests/thread/child_process.h"

namespace {

class HangDetectorTest : public ::testing::Test {
protected:
    ltest::TempTree tree_;
    ltest::EnvOverride cache_{"XDG_CACHE_HOME", tree_.root()};
    ltest::EnvOverride logname_{"LOGNAME", "hanger"};
    std::string path_ = tree_.Path("_kavelplvadhelper_rl_hanger");

    std::string Contents() const {
        std::ifstream in(path_, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
};

TEST_F(HangDetectorTest, PathComesFromLognameThenUser) {
    EXPECT_EQ(LHangDetector().GetLockFilePath(), path_);
    logname_.Set("");
    ltest::EnvOverride user("USER", "someone");
    EXPECT_EQ(LHangDetector().GetLockFilePath(), tree_.Path("_kavelplvadhelper_rl_someone"));
    user.Set(nullptr);
    EXPECT_EQ(LHangDetector().GetLockFilePath(), tree_.Path("_kavelplvadhelper_rl_"));
    EXPECT_FALSE(std::filesystem::exists(path_));  // constructing opens nothing
}

TEST(HangDetectorRecord, TickWrapsInThirtyTwoBits) {
    struct {
        int64_t seconds, micros;
        uint64_t ticks;
    } const cases[] = {
        {0, 999999, 999},
        {4294967, 296000, 0},     // exactly 2^32 ms
        {4294968, 999999, 1703},  // 4294968999 - 2^32
        {1700000000, 123456, 1700000000ull * 1000 % (1ull << 32) + 123},
    };
    for (auto const& c : cases) {
        LHangDetectorRecord r = _LHangDetectorMakeRecord(c.seconds, c.micros);
        EXPECT_EQ(r.seconds, c.seconds);
        EXPECT_EQ(r.ticks, c.ticks) << c.seconds;
    }
}

TEST_F(HangDetectorTest, HeldFileCarriesRecordAndGoesAwayOnRelease) {
    auto detector = std::make_unique<LHangDetector>();
    time_t before = time(nullptr);
    detector->InitAndTest();
    int fd = detector->GetFileDescriptor();
    ASSERT_NE(fd, -1);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    std::string bytes = Contents();
    ASSERT_EQ(bytes.size(), 16u);
    LHangDetectorRecord record;
    memcpy(&record, bytes.data(), 16);
    EXPECT_GE(record.seconds, before);
    EXPECT_LE(record.seconds, time(nullptr));
    // The tick is the same second's milliseconds, wrapped to 32 bits.
    uint32_t const secondTicks = static_cast<uint32_t>(record.seconds) * 1000u;
    EXPECT_LT(record.ticks, 1ull << 32);
    EXPECT_LT(static_cast<uint32_t>(record.ticks - secondTicks), 1000u);

    detector.reset();
    EXPECT_FALSE(std::filesystem::exists(path_));
}

// A live holder in another process; a second instance; then the holder killed.
TEST_F(HangDetectorTest, SecondInstanceAndStaleFileAcrossProcesses) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t holder = ltest::ForkChild([&] {
        LHangDetector detector;
        detector.InitAndTest();
        char ok = detector.GetFileDescriptor() != -1 ? 'y' : 'n';
        (void)!write(ready[1], &ok, 1);
        for (;;) {
            pause();
        }
        return 0;
    });
    char ok = 0;
    ASSERT_EQ(read(ready[0], &ok, 1), 1);
    ASSERT_EQ(ok, 'y');
    std::string const holderRecord = Contents();

    LHangDetector second;
    second.InitAndTest();
    EXPECT_EQ(second.GetFileDescriptor(), -1);
    EXPECT_EQ(Contents(), holderRecord);
    int probe = open(path_.c_str(), O_RDONLY);
    EXPECT_NE(flock(probe, LOCK_SH | LOCK_NB), 0) << "the holder lost its lock";
    close(probe);

    kill(holder, SIGKILL);
    EXPECT_EQ(ltest::WaitChild(holder), -1);
    ASSERT_TRUE(std::filesystem::exists(path_));

    second.InitAndTest();  // stale: deleted, no new marker
    EXPECT_EQ(second.GetFileDescriptor(), -1);
    EXPECT_FALSE(std::filesystem::exists(path_));
    second.InitAndTest();
    EXPECT_NE(second.GetFileDescriptor(), -1);
    EXPECT_EQ(Contents().size(), 16u);
    close(ready[0]);
    close(ready[1]);
}

// ---- Thread registry ----

// A thread that runs the functions handed to it, one at a time, on itself.
class Worker {
public:
    Worker() : thread_([this] { Loop(); }) {}
    ~Worker() {
        Run(nullptr);
        thread_.join();
    }
    void Run(std::function<void()> job) {
        std::unique_lock lock(mutex_);
        job_ = std::move(job);
        quit_ = !job_;
        pending_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return !pending_; });
    }

private:
    void Loop() {
        std::unique_lock lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return pending_; });
            if (!quit_) {
                job_();
            }
            pending_ = false;
            changed_.notify_all();
            if (quit_) {
                return;
            }
        }
    }
    std::mutex mutex_;
    std::condition_variable changed_;
    std::function<void()> job_;
    bool pending_ = false, quit_ = false;
    std::thread thread_;
};

class ThreadRegistryTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(gnDebugThreads.load(), 0u); }
    void TearDown() override { EXPECT_EQ(gnDebugThreads.load(), 0u) << "a record was left"; }
};

TEST_F(ThreadRegistryTest, SixtyFiveAtOnceThenSlotReuse) {
    std::latch go(65);
    std::vector<std::unique_ptr<Worker>> workers;
    std::vector<std::thread> starters;
    for (int i = 0; i < 65; ++i) {
        workers.push_back(std::make_unique<Worker>());
    }
    for (auto& w : workers) {
        starters.emplace_back([&go, &w] {
            w->Run([&go] {
                go.arrive_and_wait();
                LDebugThreadDataStartThread("WRKR");
            });
        });
    }
    for (auto& t : starters) {
        t.join();
    }
    EXPECT_EQ(gnDebugThreads.load(), 64u);
    std::vector<LDebugThreadData*> records(65);
    Worker* left = nullptr;
    for (int i = 0; i < 65; ++i) {
        workers[i]->Run([&, i] { records[i] = LDebugThreadFindData(); });
        if (records[i] == nullptr) {
            EXPECT_EQ(left, nullptr) << "two threads were left out";
            left = workers[i].get();
        }
    }
    ASSERT_NE(left, nullptr);

    Worker* leaving = workers[0].get() == left ? workers[1].get() : workers[0].get();
    LDebugThreadData* freed = nullptr;
    leaving->Run([&] {
        freed = LDebugThreadFindData();
        LDebugThreadDataStopThread();
    });
    LDebugThreadData* taken = nullptr;
    left->Run([&] {
        LDebugThreadDataStartThread(nullptr);
        taken = LDebugThreadFindData();
    });
    EXPECT_EQ(taken, freed);
    for (auto& w : workers) {
        w->Run(LDebugThreadDataStopThread);
    }
}

TEST_F(ThreadRegistryTest, StopTrimsPastFreeSlotsDownToClaimedOrOwned) {
    for (uint32_t t : {1001u, 1002u, 1003u, 1004u, 1005u}) {
        _LDebugThreadDataStartThread(t, "x");
    }
    _LDebugThreadDataStopThread(1002);
    _LDebugThreadDataStopThread(1003);
    EXPECT_EQ(gnDebugThreads.load(), 5u);  // free slots below an owned one stay counted
    _LDebugThreadDataStartThread(1006, "x");
    EXPECT_EQ(_LDebugThreadFindData(1006), &gDebugThreadData[1]);
    _LDebugThreadDataStopThread(1006);
    _LDebugThreadDataStopThread(1005);
    EXPECT_EQ(gnDebugThreads.load(), 4u);
    _LDebugThreadDataStopThread(1004);
    EXPECT_EQ(gnDebugThreads.load(), 1u);

    _LDebugThreadDataStartThread(1007, "x");
    _LDebugThreadDataStartThread(1008, "x");
    gDebugThreadData[1].dwThread = kLDebugThreadClaimed;  // being filled in by its thread
    _LDebugThreadDataStopThread(1008);
    EXPECT_EQ(gnDebugThreads.load(), 2u);
    gDebugThreadData[1].dwThread = 1007;
    _LDebugThreadDataStopThread(99);  // unknown thread: nothing happens
    EXPECT_EQ(gnDebugThreads.load(), 2u);
    _LDebugThreadDataStopThread(1007);
    _LDebugThreadDataStopThread(1001);
}

TEST_F(ThreadRegistryTest, NamesAndLastDialog) {
    struct {
        uint32_t thread;
        char const* name;
        char const* expected;
    } const cases[] = {
        {123456, nullptr, "3456"}, {12, nullptr, "0012"}, {7, "LongName", "Long"}, {8, "", ""}};
    for (auto const& c : cases) {
        _LDebugThreadDataStartThread(c.thread, c.name);
        EXPECT_STREQ(_LDebugThreadFindData(c.thread)->szName, c.expected);
        _LDebugThreadDataStopThread(c.thread);
    }

    Worker worker;
    worker.Run([] {
        char name[8] = "junk";
        LDebugThreadGetName(name);
        EXPECT_STREQ(name, "");  // unregistered
        LDebugThreadSetLastDialog("ignored");
        EXPECT_EQ(LDebugThreadFindData(), nullptr);
        EXPECT_FALSE(LIsMainThread());

        uint32_t const self = _LDebugThreadCurrentNumber();
        EXPECT_EQ(self, static_cast<uint32_t>(gettid()));
        LDebugThreadDataStartThread(nullptr);
        LDebugThreadGetName(name);
        EXPECT_EQ(std::stoul(name), self % 10000);
        LDebugThreadSetName("Opts and more");
        LDebugThreadGetName(name);
        EXPECT_STREQ(name, "Opts");
        LDebugThreadGetName(nullptr);

        std::string const digits = {char('0' + self % 10), char('0' + self / 10 % 10),
                                    char('0' + self / 100 % 10)};
        LDebugThreadSetLastDialog("Opts");
        EXPECT_EQ(LDebugThreadFindData()->szLastDialog, "Opts" + digits);
        std::string const longText(40, 'd');
        LDebugThreadSetLastDialog(longText.c_str());
        EXPECT_EQ(LDebugThreadFindData()->szLastDialog, longText.substr(0, 31));
        LDebugThreadDataStopThread();
    });
    EXPECT_TRUE(LIsMainThread());
}

}  // namespace
