// LThread, detached threads with their owner, and commands run on their own thread.
#include "thread/lthread.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
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

TEST(Thread, StartRunsTheBodyAndFinishedEndsIt) {
    LSignalObject go;
    std::atomic<int32_t> bodyId{0};
    FunctionThread t([&](FunctionThread&) {
        bodyId = static_cast<int32_t>(gettid());
        go.WaitSignal(LSignalInfinite);
    });
    t.Start(5);
    EXPECT_TRUE(t.GetStartedEvent().IsSignaled());
    EXPECT_TRUE(t.IsRunning());
    EXPECT_EQ(t.GetPriority(), 5);
    while (bodyId.load() == 0) {
        usleep(1000);
    }
    EXPECT_EQ(t.GetMachThreadId(), bodyId.load());
    go.Signal();
    EXPECT_TRUE(t.GetFinishedEvent().WaitSignal(LSignalInfinite));
    EXPECT_FALSE(t.IsRunning());
    EXPECT_EQ(t.GetMachThreadId(), -1);
    EXPECT_EQ(t.runs.load(), 1);
}

TEST(Thread, StartOnARunningThreadStartsNoSecond) {
    FunctionThread t([](FunctionThread& self) { self.ProcessWaitUntilStopped(); });
    t.Start(0);
    t.Start(0);
    t.StopThreadAndWait();
    EXPECT_EQ(t.runs.load(), 1);
    // A finished thread starts again, with fresh events.
    t.Start(0);
    EXPECT_FALSE(t.IsToStop());
    t.StopThreadAndWait();
    EXPECT_EQ(t.runs.load(), 2);
}

TEST(Thread, WaitResults) {
    FunctionThread t([](FunctionThread&) {});
    LSignalObject event;
    EXPECT_FALSE(t.ProcessWait(0));
    EXPECT_EQ(t.ProcessWaitSignal(event, 0), 2);
    event.Signal();
    EXPECT_EQ(t.ProcessWaitSignal(event, 0), 0);
    event.Reset();
    t.StopThreadSoon();
    EXPECT_TRUE(t.IsToStop());
    EXPECT_TRUE(t.ProcessWait(LSignalInfinite));
    EXPECT_EQ(t.ProcessWaitSignal(event, LSignalInfinite), 1);
}

TEST(Thread, GroupWaitAppendsTheStopEventWhileThereIsRoom) {
    FunctionThread t([](FunctionThread&) {});
    LSignalObject a, b;
    LSignalObjectGroup group;
    group.Add(a);
    group.Add(b);
    EXPECT_EQ(t.ProcessWaitSignalObjectGroup(group, 0), 2);
    EXPECT_EQ(group.GetCount(), 3u);  // the group keeps the stop event
    b.Signal();
    EXPECT_EQ(t.ProcessWaitSignalObjectGroup(group, 0), 0);
    b.Reset();
    t.StopThreadSoon();
    EXPECT_EQ(t.ProcessWaitSignalObjectGroupForever(group), 1);

    LSignalObjectGroup full;
    for (int i = 0; i < 256; ++i) {
        full.Add(a);
    }
    EXPECT_EQ(t.ProcessWaitSignalObjectGroup(full, 0), 2);
    EXPECT_EQ(full.GetCount(), 256u);
}

TEST(Thread, DestructionStopsAndWaitsForTheBody) {
    std::atomic<bool> bodyEnded{false};
    {
        FunctionThread t([&](FunctionThread& self) {
            while (!self.ProcessWait(1)) {
            }
            bodyEnded = true;
        });
        t.Start(0);
    }
    EXPECT_TRUE(bodyEnded.load());
}

TEST(Thread, SetPriorityOnARunningThreadKeepsItRunning) {
    FunctionThread t([](FunctionThread& self) { self.ProcessWaitUntilStopped(); });
    t.SetPriority(10);  // no thread yet: nothing happens
    t.Start(91);
    EXPECT_EQ(t.GetPriority(), 91);
    t.SetPriority(0);
    EXPECT_TRUE(t.IsRunning());
    t.StopThreadAndWait();
}

// Counts its destruction so that tests can see self-destruction happen.
class CountingDetached : public LDetachedThread {
public:
    CountingDetached(std::atomic<int>& destroyed, std::function<void(LThread&)> body)
        : destroyed(destroyed), body(std::move(body)) {}
    ~CountingDetached() override {
        StopThreadAndWait();
        ++destroyed;
    }
    void ThreadMain() override { body(*this); }

    std::atomic<int>& destroyed;
    std::function<void(LThread&)> body;
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

TEST(DetachedThread, DestroysItselfWhenItsBodyEnds) {
    LDetachedThreadsOwner owner;
    std::atomic<int> destroyed{0};
    LSignalObject go;
    auto* t = new CountingDetached(destroyed, [&](LThread&) { go.WaitSignal(LSignalInfinite); });
    t->StartDetached(owner, 0);
    EXPECT_EQ(owner.GetThreadCount(), 1u);
    go.Signal();
    ASSERT_TRUE(WaitForCount(destroyed, 1));
    EXPECT_EQ(owner.GetThreadCount(), 0u);
}

// Starts count detached threads that wait for the stop request.
void StartWaiters(LDetachedThreadsOwner& owner, std::atomic<int>& destroyed, int count) {
    for (int i = 0; i < count; ++i) {
        (new CountingDetached(destroyed, [](LThread& self) {
            self.ProcessWaitUntilStopped();
        }))->StartDetached(owner, 0);
    }
}

TEST(DetachedThread, StopThreadsNowDestroysEveryThreadAndSoonLetsThemEndOnTheirOwn) {
    LDetachedThreadsOwner owner;
    std::atomic<int> destroyed{0};
    StartWaiters(owner, destroyed, 8);
    EXPECT_EQ(owner.GetThreadCount(), 8u);
    owner.StopThreadsNow();
    EXPECT_EQ(owner.GetThreadCount(), 0u);
    // A thread that saw the stop before the owner took it destroys itself; let it finish.
    EXPECT_TRUE(WaitForCount(destroyed, 8));

    StartWaiters(owner, destroyed, 4);
    owner.StopThreadsSoon();
    ASSERT_TRUE(WaitForCount(destroyed, 12));
    EXPECT_EQ(owner.GetThreadCount(), 0u);
}

TEST(DetachedThread, ThreadsEndingWhileTheOwnerStopsThemAreDestroyedOnce) {
    for (int round = 0; round < 10; ++round) {
        std::atomic<int> destroyed{0};
        {
            LDetachedThreadsOwner owner;
            for (int i = 0; i < 4; ++i) {
                (new CountingDetached(destroyed, [](LThread&) {}))->StartDetached(owner, 0);
            }
            owner.StopThreadsNow();
        }
        // Threads that ended on their own may still be destroying themselves.
        ASSERT_TRUE(WaitForCount(destroyed, 4));
    }
}

// A detached thread that leaves all stopping to the owner: its body keeps using its own
// members after the stop request, so the owner must wait for the body before destroying it.
class LingeringDetached : public LDetachedThread {
public:
    explicit LingeringDetached(std::atomic<int>& finished) : finished(finished) {}
    void ThreadMain() override {
        ProcessWaitUntilStopped();
        for (int i = 0; i < 20; ++i) {
            usleep(500);
            log.push_back('x');  // freed memory if the object were already being destroyed
        }
        ++finished;
    }
    std::atomic<int>& finished;
    std::string log;
};

TEST(DetachedThread, StopThreadsNowWaitsForTheBodyBeforeDestroying) {
    std::atomic<int> finished{0};
    LDetachedThreadsOwner owner;
    for (int i = 0; i < 3; ++i) {
        (new LingeringDetached(finished))->StartDetached(owner, 0);
    }
    owner.StopThreadsNow();
    // Threads the owner destroyed were waited for; any that saw the stop first and removed
    // themselves from the list finish on their own.
    EXPECT_TRUE(WaitForCount(finished, 3));
    EXPECT_EQ(owner.GetThreadCount(), 0u);
}

TEST(ProcessRun, ReportsTheExitCode) {
    struct Case {
        char const* command;
        int exitCode;  // -1: ended by a signal, so there is none
    } const cases[] = {{"exit 3", 3}, {nullptr, 0}, {"kill -9 $$", -1}};
    for (Case const& c : cases) {
        SCOPED_TRACE(c.command != nullptr ? c.command : "null");
        auto* run = new ProcessRunData(c.command);
        EXPECT_EQ(run->state, 1);
        pthread_t thread;
        ASSERT_EQ(pthread_create(&thread, nullptr, ProcessRunThreadCallback, run), 0);
        pthread_detach(thread);
        run->finishedEvent.WaitSignal(LSignalInfinite);
        EXPECT_EQ(run->state, 0);
        EXPECT_EQ(run->exitCode, c.exitCode);
        run->releaseEvent.Signal();  // the thread deletes the data
    }
    EXPECT_EQ(ProcessRunThreadCallback(nullptr), nullptr);
}

}  // namespace

namespace {

// Restarting a thread the moment its body has ended: the finished event of the new run must
// not be set by the run before it, or a stop-and-wait would return while the new body runs.
TEST(ThreadRace, RestartedRunOwnsItsFinishedEvent) {
    LSignalObject go;
    FunctionThread t([&](FunctionThread&) {
        go.WaitSignal(LSignalInfinite);
        go.Reset();
    });
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

// The owner stops threads while another thread is starting them: a stop must neither
// destroy a thread whose start is still using it nor be erased by that start.
TEST(ThreadRace, OwnerStopsThreadsWhileTheyStart) {
    for (bool now : {true, false}) {
        SCOPED_TRACE(now ? "StopThreadsNow" : "StopThreadsSoon");
        std::atomic<int> destroyed{0};
        LDetachedThreadsOwner owner;
        int const rounds = 200;
        for (int round = 0; round < rounds; ++round) {
            std::thread starter([&] { StartWaiters(owner, destroyed, 1); });
            while (owner.GetThreadCount() == 0) {
            }
            now ? owner.StopThreadsNow() : owner.StopThreadsSoon();
            starter.join();
            ASSERT_TRUE(WaitForCount(destroyed, round + 1)) << "round " << round;
        }
    }
}

// The audio priority is the real-time FIFO class at 20 (granted to root); any other value
// goes back to the ordinary class with the value as its priority.
TEST(ThreadPriority, AudioPriorityIsRealTimeForRoot) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "real-time scheduling needs root";
    }
    FunctionThread t([](FunctionThread& self) { self.ProcessWaitUntilStopped(); });
    struct Case {
        int priority, policy, schedPriority;
    } const cases[] = {{91, SCHED_FIFO, 20}, {0, SCHED_OTHER, 0}, {91, SCHED_FIFO, 20}};
    t.Start(cases[0].priority);
    for (Case const& c : cases) {
        t.SetPriority(c.priority);
        sched_param param{};
        ASSERT_EQ(sched_getparam(t.GetMachThreadId(), &param), 0);
        EXPECT_EQ(sched_getscheduler(t.GetMachThreadId()), c.policy) << c.priority;
        EXPECT_EQ(param.sched_priority, c.schedPriority) << c.priority;
    }
    t.StopThreadAndWait();
}

}  // namespace
