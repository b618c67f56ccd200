// LThread, detached threads with their owner, and commands run on their own thread.
#include "thread/lthread.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace {

// A thread whose body is a function; it stops and waits for its body before its own members
// go, as every thread class with state must.
class FunctionThread : public LThread {
public:
    explicit FunctionThread(std::function<void(FunctionThread&)> body) : body(std::move(body)) {}
    ~FunctionThread() override { StopThreadAndWait(); }
    void ThreadMain() override {
        ++runs;
        body(*this);
    }

    std::function<void(FunctionThread&)> body;
    std::atomic<int> runs{0};
};

void UntilStopped(LThread& self) {
    self.ProcessWaitUntilStopped();
}

TEST(Thread, StartRunsTheBodyOnceFinishedEndsItAndEachRunOwnsItsEvent) {
    LSignalObject go;
    std::atomic<int32_t> bodyId{0};
    FunctionThread t([&](FunctionThread&) {
        bodyId = static_cast<int32_t>(gettid());
        go.WaitSignal(LSignalInfinite);
    });
    t.SetPriority(10);  // no thread yet: nothing happens
    t.Start(5);
    t.Start(0);  // running: no second body
    EXPECT_TRUE(t.GetStartedEvent().IsSignaled() && t.IsRunning() && t.GetPriority() == 5);
    while (bodyId.load() == 0) {
        usleep(1000);
    }
    EXPECT_EQ(t.GetMachThreadId(), bodyId.load());
    go.Signal();
    EXPECT_TRUE(t.GetFinishedEvent().WaitSignal(LSignalInfinite));
    EXPECT_TRUE(!t.IsRunning() && t.GetMachThreadId() == -1 && t.runs.load() == 1);
    // A finished thread starts again, with fresh events.
    t.body = [](FunctionThread& self) { UntilStopped(self); };
    t.Start(0);
    EXPECT_FALSE(t.IsToStop());
    t.StopThreadAndWait();
    EXPECT_EQ(t.runs.load(), 2);

    // Restarted the moment its body has ended, the finished event of the new run must not be
    // set by the run before it, or a stop-and-wait would return while the new body runs.
    t.body = [&](FunctionThread&) {
        go.WaitSignal(LSignalInfinite);
        go.Reset();
    };
    go.Reset();
    int stale = 0;
    for (int cycle = 0; cycle < 1000 && stale == 0; ++cycle) {
        t.Start(0);
        stale += t.GetFinishedEvent().IsSignaled();
        go.Signal();
        while (t.IsRunning()) {
        }
    }
    EXPECT_EQ(stale, 0);
}

TEST(Thread, WaitResultsAndTheGroupKeepsTheStopEventWhileThereIsRoom) {
    FunctionThread t([](FunctionThread&) {});
    LSignalObject a, b;
    LSignalObjectGroup group, full;
    group.Add(a);
    group.Add(b);
    EXPECT_FALSE(t.ProcessWait(0));
    EXPECT_EQ(t.ProcessWaitSignal(b, 0) + t.ProcessWaitSignalObjectGroup(group, 0), 4);
    EXPECT_EQ(group.GetCount(), 3u);
    b.Signal();
    EXPECT_EQ(t.ProcessWaitSignal(b, 0) + t.ProcessWaitSignalObjectGroup(group, 0), 0);
    b.Reset();
    t.StopThreadSoon();
    EXPECT_TRUE(t.IsToStop() && t.ProcessWait(LSignalInfinite));
    EXPECT_EQ(t.ProcessWaitSignal(b, LSignalInfinite), 1);
    EXPECT_EQ(t.ProcessWaitSignalObjectGroupForever(group), 1);
    for (int i = 0; i < 256; ++i) {
        full.Add(a);
    }
    EXPECT_EQ(t.ProcessWaitSignalObjectGroup(full, 0), 2);
    EXPECT_EQ(full.GetCount(), 256u);
}

// The audio priority is the real-time FIFO class at 20 (granted to root); any other value
// goes back to the ordinary class with the value as its priority.
TEST(Thread, AudioPriorityIsRealTimeForRoot) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "real-time scheduling needs root";
    }
    FunctionThread t([](FunctionThread& self) { UntilStopped(self); });
    t.Start(91);
    for (int priority : {91, 0, 91}) {
        t.SetPriority(priority);
        sched_param param{};
        ASSERT_EQ(sched_getparam(t.GetMachThreadId(), &param), 0);
        EXPECT_EQ(sched_getscheduler(t.GetMachThreadId()), priority ? SCHED_FIFO : SCHED_OTHER);
        EXPECT_EQ(param.sched_priority, priority ? 20 : 0) << priority;
    }
}

// Counts its destruction. With `linger` the body keeps using its members after the stop request
// and the destructor does not wait for it: whoever destroys it must wait first.
class CountingDetached : public LDetachedThread {
public:
    CountingDetached(std::atomic<int>& destroyed, std::function<void(LThread&)> body,
                     bool linger = false)
        : destroyed(destroyed), body(std::move(body)), linger(linger) {}
    ~CountingDetached() override {
        if (!linger) {
            StopThreadAndWait();
        }
        ++destroyed;
    }
    void ThreadMain() override {
        body(*this);
        for (int i = 0; linger && i < 20; ++i) {
            usleep(500);
            log.push_back('x');  // freed memory if the object were already being destroyed
        }
    }

    std::atomic<int>& destroyed;
    std::function<void(LThread&)> body;
    bool linger;
    std::string log;
};

// Self-destruction happens on the threads themselves: wait (boundedly) for the count, then
// check that it did not overshoot.
bool WaitForCount(std::atomic<int>& count, int expected) {
    for (int i = 0; i < 10000 && count.load() < expected; ++i) {
        usleep(1000);
    }
    usleep(1000);
    return count.load() == expected;
}

void StartDetached(LDetachedThreadsOwner& owner, std::atomic<int>& destroyed, int count,
                   std::function<void(LThread&)> body = UntilStopped, bool linger = false) {
    for (int i = 0; i < count; ++i) {
        (new CountingDetached(destroyed, body, linger))->StartDetached(owner, 0);
    }
}

TEST(DetachedThread, StopsNowOrSoonDestroyEachThreadOnceAlsoRacingWithStartsAndEnds) {
    LDetachedThreadsOwner owner;
    std::atomic<int> destroyed{0};
    StartDetached(owner, destroyed, 8, UntilStopped, true);
    EXPECT_EQ(owner.GetThreadCount(), 8u);
    owner.StopThreadsNow();
    // A thread that saw the stop before the owner took it destroys itself; let it finish.
    EXPECT_TRUE(WaitForCount(destroyed, 8));

    // Stopped soon, bodies end on their own and their threads destroy themselves.
    StartDetached(owner, destroyed, 4);
    owner.StopThreadsSoon();
    ASSERT_TRUE(WaitForCount(destroyed, 12));
    EXPECT_EQ(owner.GetThreadCount(), 0u);

    // Threads ending on their own while the owner stops them, and an owner stopping threads that
    // another thread is starting: each is destroyed once, and a stop is neither erased by the
    // start nor destroys a thread whose start still uses it.
    for (int round = 0; round < 10; ++round) {
        destroyed = 0;
        {
            LDetachedThreadsOwner ending;
            StartDetached(ending, destroyed, 4, [](LThread&) {});
            ending.StopThreadsNow();
        }
        ASSERT_TRUE(WaitForCount(destroyed, 4));
    }
    for (bool now : {true, false}) {
        SCOPED_TRACE(now ? "StopThreadsNow" : "StopThreadsSoon");
        destroyed = 0;
        for (int round = 0; round < 200; ++round) {
            std::thread starter([&] { StartDetached(owner, destroyed, 1); });
            while (owner.GetThreadCount() == 0) {
            }
            now ? owner.StopThreadsNow() : owner.StopThreadsSoon();
            starter.join();
            ASSERT_TRUE(WaitForCount(destroyed, round + 1)) << "round " << round;
        }
    }
}

TEST(ProcessRun, ReportsTheExitCode) {
    // -1: ended by a signal, so there is none.
    std::pair<char const*, int> const cases[] = {{"exit 3", 3}, {nullptr, 0}, {"kill -9 $$", -1}};
    for (auto [command, exitCode] : cases) {
        SCOPED_TRACE(command != nullptr ? command : "null");
        auto* run = new ProcessRunData(command);
        pthread_t thread;
        ASSERT_EQ(pthread_create(&thread, nullptr, ProcessRunThreadCallback, run), 0);
        pthread_detach(thread);
        run->finishedEvent.WaitSignal(LSignalInfinite);
        EXPECT_TRUE(run->state == 0 && run->exitCode == exitCode);
        run->releaseEvent.Signal();  // the thread deletes the data
    }
    EXPECT_EQ(ProcessRunThreadCallback(nullptr), nullptr);
}

}  // namespace
