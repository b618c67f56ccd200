// The recursive lock, the shared/exclusive lock, and the system lock across threads and
// processes (a System V semaphore set per name, removed after each test).
#include "thread/llock.h"

#include <gtest/gtest.h>
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
    for (bool freed : {false, true}) {
        bool got = false;
        lock.Unlock();
        std::thread([&] { (got = lock.TryLock()) ? lock.Unlock() : void(); }).join();
        EXPECT_EQ(got, freed);
    }
}

TEST(LockObjectShared, ExclusiveWaitsForTheLastReaderAndReadersForTheDowngrade) {
    LLockObjectShared lock;
    std::atomic<int> in{0};
    auto contend = [&](bool exclusive) {
        return std::thread([&, exclusive] {
            exclusive ? lock.LockExclusive() : lock.LockShared();
            ++in;
            exclusive ? lock.UnlockExclusive() : lock.UnlockShared();
        });
    };
    for (int readers : {2, 1}) {
        for (int i = 0; i < readers; ++i) {
            lock.LockShared();
        }
        EXPECT_EQ(lock.GetReaderCount(), readers);
        std::thread writer = contend(true);
        for (int i = 0; i < readers; ++i) {
            usleep(20000);
            EXPECT_EQ(in.load(), 2 - readers);
            lock.UnlockShared();
        }
        writer.join();
        EXPECT_EQ(in.load(), 3 - readers);
    }
    // A sole reader upgrades: exclusive now, another reader waits for the downgrade.
    lock.LockShared();
    lock.UpgradeLock();
    std::thread reader = contend(false);
    usleep(20000);
    EXPECT_EQ(in.load(), 2);
    lock.DowngradeLock();
    reader.join();
    EXPECT_EQ(lock.GetReaderCount(), 1);
    lock.UnlockShared();
    EXPECT_EQ(in.load(), 3);
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
    static void CountingPause(unsigned int ms) { ++pauses_, usleep(ms * 1000); }
    int Value(LSystemLockMutex const& lock) { return semctl(lock.GetSetId(), 0, GETVAL); }

    static inline std::atomic<int> pauses_{0};
    void (*savedPause_)(unsigned int) = _gLSystemLockPause;
    // The key keeps only the last few characters of the name: the process id goes last, so
    // that runs of the same test at once (other build folders) do not share a set.
    std::string name_ = std::string("lsystemlock_") +
                        ::testing::UnitTest::GetInstance()->current_test_info()->name() + "_" +
                        std::to_string(getpid());
};

TEST_F(SystemLock, OpensFreeLocksComesBackFromADeadHolderAndGoesWhenReleasedFree) {
    // The key is a hash of the name: every process must derive the same one.
    EXPECT_EQ(LSystemLockMutex::MakeKey("UID"), 367844708u);
    EXPECT_EQ(LSystemLockMutex::MakeKey(""), 11223u);
    LSystemLockMutex lock(name_.c_str());
    ASSERT_TRUE(lock.IsValid());
    EXPECT_EQ(Value(lock), 1);
    EXPECT_EQ(LSystemLockMutex(name_.c_str()).GetSetId(), lock.GetSetId());
    EXPECT_TRUE(lock.Lock(0));
    EXPECT_EQ(Value(lock), 0);
    lock.Unlock();
    EXPECT_EQ(Value(lock), 1);
    // A process that dies holding the lock gives it back.
    pid_t child = ltest::ForkChild([&] {
        LSystemLockMutex held(name_.c_str());
        held.LockForever();
        return semctl(held.GetSetId(), 0, GETVAL) == 0 ? 0 : 1;
    });
    ASSERT_GE(child, 0);
    EXPECT_EQ(ltest::WaitChild(child), 0);
    EXPECT_EQ(Value(lock), 1);
    EXPECT_TRUE(lock.Lock(0));
    lock.Unlock();
    // Releasing a free lock (this process made the last operation) removes the set.
    lock.Unlock();
    EXPECT_EQ(semget(static_cast<key_t>(lock.GetKey()), 0, 0), -1);
}

// A timed lock on a held lock pauses 10 ms at a time while time is left (25 ms: two pauses),
// and gets the lock once another thread lets it go.
TEST_F(SystemLock, TimedLockPausesWhileHeldAndSucceedsOnceReleased) {
    LSystemLockMutex held(name_.c_str());
    LSystemLockMutex lock(name_.c_str());
    held.LockForever();
    for (auto [ms, pauses] : {std::pair{25u, 2}, {10u, 0}}) {
        pauses_ = 0;
        EXPECT_FALSE(lock.Lock(ms));
        EXPECT_EQ(pauses_.load(), pauses) << ms;
    }
    pauses_ = 0;
    std::atomic<bool> got{false};
    std::thread waiter([&] {
        LSystemLockMutex other(name_.c_str());
        if ((got = other.Lock(LSignalInfinite - 1))) {
            other.Unlock();
        }
    });
    while (pauses_.load() == 0 && !got.load()) {
        usleep(1000);
    }
    EXPECT_FALSE(got.load());
    held.Unlock();
    waiter.join();
    EXPECT_TRUE(got.load());
}

}  // namespace
