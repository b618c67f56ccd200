// The recursive lock, the shared/exclusive lock, and the system lock across threads and
// processes (a System V semaphore set per name, removed after each test).
#include "thread/llock.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "child_process.h"
#include "thread/lsystem_lock_platform.h"

namespace {

TEST(LockObject, IsRecursiveAndExcludesOtherThreads) {
    LLockObject lock;
    lock.Lock();
    lock.Lock();
    auto tryFromOtherThread = [&] {
        bool got = false;
        std::thread([&] {
            got = lock.TryLock();
            if (got) {
                lock.Unlock();
            }
        }).join();
        return got;
    };
    EXPECT_FALSE(tryFromOtherThread());
    lock.Unlock();
    EXPECT_FALSE(tryFromOtherThread());
    lock.Unlock();
    EXPECT_TRUE(tryFromOtherThread());
}

TEST(LockObjectShared, ExclusiveWaitsForTheLastReader) {
    LLockObjectShared lock;
    lock.LockShared();
    lock.LockShared();
    EXPECT_EQ(lock.GetReaderCount(), 2);
    std::atomic<bool> exclusive{false};
    int guarded = 0;
    std::thread writer([&] {
        lock.LockExclusive();
        exclusive = true;
        guarded = 1;
        lock.UnlockExclusive();
    });
    lock.UnlockShared();
    usleep(20000);
    EXPECT_FALSE(exclusive.load());
    lock.UnlockShared();
    writer.join();
    lock.LockShared();
    EXPECT_EQ(guarded, 1);
    // A sole reader leaving wakes a waiting writer as well.
    std::thread second([&] {
        lock.LockExclusive();
        guarded = 2;
        lock.UnlockExclusive();
    });
    usleep(20000);
    lock.UnlockShared();
    second.join();
    EXPECT_EQ(guarded, 2);
    EXPECT_EQ(lock.GetReaderCount(), 0);
}

TEST(LockObjectShared, SoleReaderUpgradesAndDowngrades) {
    LLockObjectShared lock;
    lock.LockShared();
    lock.UpgradeLock();
    // Exclusive now: another reader has to wait until the downgrade.
    std::atomic<bool> readerIn{false};
    std::thread reader([&] {
        lock.LockShared();
        readerIn = true;
        lock.UnlockShared();
    });
    usleep(20000);
    EXPECT_FALSE(readerIn.load());
    lock.DowngradeLock();
    reader.join();
    EXPECT_EQ(lock.GetReaderCount(), 1);
    lock.UnlockShared();
    EXPECT_EQ(lock.GetReaderCount(), 0);
    lock.LockExclusive();
    lock.UnlockExclusive();
}

TEST(SystemLockKey, HashOfTheName) {
    EXPECT_EQ(LSystemLockMutex::MakeKey("UID"), 367844708u);
    EXPECT_EQ(LSystemLockMutex::MakeKey(""), 11223u);
    EXPECT_EQ(LSystemLockMutex::MakeKey("A"), 359201u);
}

// Each test opens its own set (named after the process and the test) and removes it after;
// the pauses of a timed lock are counted instead of slept through unobserved.
class SystemLock : public ::testing::Test {
protected:
    void SetUp() override { _gLSystemLockPause = CountingPause; }
    void TearDown() override {
        _gLSystemLockPause = savedPause_;
        int id = semget(static_cast<key_t>(LSystemLockMutex::MakeKey(name_.c_str())), 0, 0);
        if (id != -1) {
            semctl(id, 0, IPC_RMID);
        }
    }
    static void CountingPause(unsigned int ms) {
        ++pauses_;
        usleep(ms * 1000);
    }
    int Value(LSystemLockMutex const& lock) { return semctl(lock.GetSetId(), 0, GETVAL); }

    static inline std::atomic<int> pauses_{0};
    void (*savedPause_)(unsigned int) = _gLSystemLockPause;
    std::string name_ = "lsystemlock_" + std::to_string(getpid()) + "_" +
                        ::testing::UnitTest::GetInstance()->current_test_info()->name();
};

TEST_F(SystemLock, OpeningCreatesTheSetWithTheLockFreeAndReleasingItFreeRemovesIt) {
    LSystemLockMutex lock(name_.c_str());
    ASSERT_TRUE(lock.IsValid());
    EXPECT_EQ(Value(lock), 1);
    LSystemLockMutex again(name_.c_str());
    EXPECT_EQ(again.GetSetId(), lock.GetSetId());
    EXPECT_TRUE(lock.Lock(0));
    EXPECT_EQ(Value(lock), 0);
    lock.Unlock();
    EXPECT_EQ(Value(lock), 1);
    // Releasing a free lock (value above 0, this process made the last operation) removes
    // the set.
    EXPECT_NE(semget(static_cast<key_t>(lock.GetKey()), 0, 0), -1);
    lock.Unlock();
    EXPECT_EQ(semget(static_cast<key_t>(lock.GetKey()), 0, 0), -1);
}

TEST_F(SystemLock, TimedLockOnAHeldLockPausesTwiceFor25ms) {
    LSystemLockMutex held(name_.c_str());
    LSystemLockMutex lock(name_.c_str());
    held.LockForever();
    pauses_ = 0;
    EXPECT_FALSE(lock.Lock(25));
    EXPECT_EQ(pauses_.load(), 2);
    pauses_ = 0;
    EXPECT_FALSE(lock.Lock(10));
    EXPECT_EQ(pauses_.load(), 0);
    held.Unlock();
    EXPECT_TRUE(lock.Lock(0));
    lock.Unlock();
}

TEST_F(SystemLock, AProcessThatDiesHoldingTheLockGivesItBack) {
    LSystemLockMutex lock(name_.c_str());
    pid_t child = ltest::ForkChild([&] {
        LSystemLockMutex held(name_.c_str());
        held.LockForever();
        return semctl(held.GetSetId(), 0, GETVAL) == 0 ? 0 : 1;  // dies holding it
    });
    ASSERT_GE(child, 0);
    EXPECT_EQ(ltest::WaitChild(child), 0);
    EXPECT_EQ(Value(lock), 1);
    EXPECT_TRUE(lock.Lock(0));
    lock.Unlock();
}

TEST_F(SystemLock, TimedLockSucceedsOnceAnotherThreadReleases) {
    LSystemLockMutex lock(name_.c_str());
    lock.LockForever();
    pauses_ = 0;
    std::atomic<bool> got{false};
    std::thread waiter([&] {
        LSystemLockMutex other(name_.c_str());
        got = other.Lock(LSignalInfinite - 1);
        if (got) {
            other.Unlock();
        }
    });
    while (pauses_.load() == 0 && !got.load()) {
        usleep(1000);
    }
    EXPECT_FALSE(got.load());
    lock.Unlock();
    waiter.join();
    EXPECT_TRUE(got.load());
}

}  // namespace
