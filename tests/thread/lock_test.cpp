#include "thread/llock.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

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
    EXPECT_TRUE(exclusive.load());
    lock.LockShared();
    EXPECT_EQ(guarded, 1);
    lock.UnlockShared();
    EXPECT_EQ(lock.GetReaderCount(), 0);
}

TEST(LockObjectShared, SoleReaderUpgradesAndDowngrades) {
    LLockObjectShared lock;
    lock.LockShared();
    lock.UpgradeLock();
    // Exclusive now: no reader counted, and another reader has to wait for the mutex.
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
    EXPECT_TRUE(readerIn.load());
    EXPECT_EQ(lock.GetReaderCount(), 1);
    lock.UnlockShared();
    EXPECT_EQ(lock.GetReaderCount(), 0);
    lock.LockExclusive();
    lock.UnlockExclusive();
}

TEST(SystemLockKey, HashOfTheName) {
    EXPECT_EQ(LSystemLockMutex::MakeKey("UID"), 367844708u);
    EXPECT_EQ(LSystemLockMutex::MakeKey(""), 11223u);
    EXPECT_EQ(LSystemLockMutex::MakeKey("A"), 11223u * 32 + 65);
}

// Each test opens its own set (named after the process and the test) and removes it after.
class SystemLock : public ::testing::Test {
protected:
    void SetUp() override {
        name_ = "lsystemlock_" + std::to_string(getpid()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name();
        pauses_ = 0;
        _gLSystemLockPause = CountingPause;
    }
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

    static inline std::atomic<int> pauses_{0};
    void (*savedPause_)(unsigned int) = _gLSystemLockPause;
    std::string name_;
};

TEST_F(SystemLock, OpeningCreatesTheSetWithTheLockFree) {
    LSystemLockMutex lock(name_.c_str());
    ASSERT_TRUE(lock.IsValid());
    EXPECT_EQ(semctl(lock.GetSetId(), 0, GETVAL), 1);
    LSystemLockMutex again(name_.c_str());
    EXPECT_EQ(again.GetSetId(), lock.GetSetId());
    EXPECT_TRUE(lock.Lock(0));
    EXPECT_EQ(semctl(lock.GetSetId(), 0, GETVAL), 0);
    lock.Unlock();
    EXPECT_EQ(semctl(lock.GetSetId(), 0, GETVAL), 1);
}

TEST_F(SystemLock, TimedLockOnAHeldLockPausesTwiceFor25ms) {
    LSystemLockMutex lock(name_.c_str());
    int ready[2], release[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(release), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        LSystemLockMutex held(name_.c_str());
        held.LockForever();
        char c = 1;
        (void)!write(ready[1], &c, 1);
        (void)!read(release[0], &c, 1);
        held.Unlock();
        _exit(0);
    }
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    EXPECT_FALSE(lock.Lock(25));
    EXPECT_EQ(pauses_.load(), 2);
    pauses_ = 0;
    EXPECT_FALSE(lock.Lock(10));
    EXPECT_EQ(pauses_.load(), 0);
    ASSERT_EQ(write(release[1], &c, 1), 1);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(lock.Lock(0));
    lock.Unlock();
    for (int fd : {ready[0], ready[1], release[0], release[1]}) {
        close(fd);
    }
}

TEST_F(SystemLock, AProcessThatDiesHoldingTheLockGivesItBack) {
    LSystemLockMutex lock(name_.c_str());
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        LSystemLockMutex held(name_.c_str());
        held.LockForever();
        _exit(semctl(held.GetSetId(), 0, GETVAL) == 0 ? 0 : 1);  // dies holding it
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(semctl(lock.GetSetId(), 0, GETVAL), 1);
    EXPECT_TRUE(lock.Lock(0));
    lock.Unlock();
}

TEST_F(SystemLock, LockForeverWaitsForAnotherProcessToRelease) {
    LSystemLockMutex lock(name_.c_str());
    lock.LockForever();
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        LSystemLockMutex other(name_.c_str());
        other.LockForever();
        other.Unlock();
        _exit(0);
    }
    usleep(20000);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, WNOHANG), 0);  // still waiting for us
    lock.Unlock();
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
}

TEST_F(SystemLock, ExcludesOtherThreadsOfTheSameProcess) {
    LSystemLockMutex lock(name_.c_str());
    ASSERT_TRUE(lock.IsValid());
    // Atomics, so that an overlap is counted rather than being a race of its own.
    std::atomic<int> inside{0}, overlaps{0};
    auto worker = [&] {
        LSystemLockMutex mine(name_.c_str());
        for (int i = 0; i < 200; ++i) {
            mine.LockForever();
            if (inside.fetch_add(1) != 0) {
                ++overlaps;
            }
            sched_yield();
            inside.fetch_sub(1);
            mine.Unlock();
        }
    };
    std::thread a(worker), b(worker);
    a.join();
    b.join();
    EXPECT_EQ(overlaps.load(), 0);
    EXPECT_EQ(semctl(lock.GetSetId(), 0, GETVAL), 1);
}

TEST_F(SystemLock, TimedLockSucceedsOnceAnotherThreadReleases) {
    LSystemLockMutex lock(name_.c_str());
    lock.LockForever();
    LSignalObject tried;
    std::atomic<bool> got{false};
    std::thread waiter([&] {
        LSystemLockMutex other(name_.c_str());
        tried.Signal();
        got = other.Lock(LSignalInfinite - 1);
        if (got) {
            other.Unlock();
        }
    });
    tried.WaitSignal(LSignalInfinite);
    while (pauses_.load() == 0) {
        usleep(1000);
    }
    EXPECT_FALSE(got.load());
    lock.Unlock();
    waiter.join();
    EXPECT_TRUE(got.load());
}

TEST_F(SystemLock, ReleasingAFreeLockRemovesTheSet) {
    LSystemLockMutex lock(name_.c_str());
    lock.LockForever();
    lock.Unlock();
    EXPECT_NE(semget(static_cast<key_t>(lock.GetKey()), 0, 0), -1);
    // Value above 0 and this process made the last operation: nothing to give back.
    lock.Unlock();
    EXPECT_EQ(semget(static_cast<key_t>(lock.GetKey()), 0, 0), -1);
}

}  // namespace
