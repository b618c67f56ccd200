// Queued notifications (worker posts delivered on the main thread in order, the draining
// rule, teardown, worker reports), the process interface's forms, and associated data.
#include "thread/lqueued_notify.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "thread/lthread_platform.h"

namespace {

// Records every call that reaches it; progress separately.
class Recorder : public LProcessInterface {
public:
    bool IsToStop() override { return Log("IsToStop"), true; }
    bool ProcessWait(unsigned int ms) override { return Log("ProcessWait", ms), true; }
    int ProcessWaitSignal(LSignalObjectRef, unsigned int ms) override {
        return Log("ProcessWaitSignal", ms), 1;
    }
    int ProcessWaitSignalObjectGroup(LSignalObjectGroup&, unsigned int ms) override {
        return Log("ProcessWaitSignalObjectGroup", ms), 0;
    }
    void SetError(char const* text) override { Log(std::string("SetError ") + text); }
    void SetStatus(char const* text, int level) override {
        Log("SetStatus " + std::to_string(level) + " " + text);
    }
    void SetProgress(double p) override { progress.push_back(p); }
    void SetProgressIndeterminateOn() override { Log("On"); }
    void SetProgressIndeterminateOff() override { Log("Off"); }

    void Log(std::string const& call, unsigned int ms) { Log(call + " " + std::to_string(ms)); }
    void Log(std::string const& call) { calls.push_back(call); }
    std::vector<std::string> calls;
    std::vector<double> progress;
};

// Records each delivery as "code", "code=bytes" or "code:value", and where it ran.
class RecordingHandler : public LQueuedNotifyDataHandler {
public:
    void EvQueuedNotifyData(unsigned int code, void const* data,
                            unsigned long lengthOrValue) override {
        std::string d = std::to_string(code);
        if (data != nullptr) {
            d += "=" + std::string(static_cast<char const*>(data), lengthOrValue);
        } else if (lengthOrValue != 0) {
            d += ":" + std::to_string(static_cast<long>(lengthOrValue));
        }
        deliveries.push_back(d);
        allOnMain = allOnMain && _LThreadIsMainThread();
    }
    std::vector<std::string> deliveries;
    bool allOnMain = true;
};

// Runs the main queue until it has been idle for a moment.
void DrainMainQueue() {
    while (LMainQueueDrain(20) != 0) {
    }
}

// Every test leaves the main queue empty for the next one.
class QueuedNotify : public ::testing::Test {
protected:
    void TearDown() override { DrainMainQueue(); }
};

TEST_F(QueuedNotify, WorkerPostsArriveOnTheMainThreadInOrderUntilTeardown) {
    RecordingHandler handler;
    LQueuedNotifyDataSender sender(&handler);
    auto fromWorker = [&] {
        std::thread([&] {
            sender.NotifyData(7, "abc", 3);
            sender.NotifyData(8);
            sender.NotifyData(9, -5L);
            sender.NotifyData();
        }).join();
    };
    fromWorker();
    EXPECT_TRUE(handler.deliveries.empty());  // nothing before the main thread runs
    DrainMainQueue();
    EXPECT_EQ(handler.deliveries, (std::vector<std::string>{"7=abc", "8", "9:-5", "0"}));
    EXPECT_TRUE(handler.allOnMain);
    fromWorker();
    handler.QueuedNotifyDataHandlerDestroy();
    sender.NotifyData(2);  // after teardown: dropped at once
    DrainMainQueue();
    EXPECT_EQ(handler.deliveries.size(), 4u);
    LQueuedNotifyDataSender().NotifyData(3);  // no handler: nothing happens

    // Destroying the handler drops what is queued (ASan would see a delivery to a dead one).
    auto* dying = new RecordingHandler;
    LQueuedNotifyDataSender toDying(dying);
    std::thread([&] { toDying.NotifyData(1); }).join();
    delete dying;
}

// Receives dispatcher calls directly, to watch the draining rule.
class Receiver : public LObject {
public:
    static void Call(LObject& self, LObject* object) {
        static_cast<Receiver&>(self).received.push_back(
            static_cast<LNotifyDataObject*>(object)->code);
    }
    std::vector<unsigned int> received;
};

TEST_F(QueuedNotify, DispatcherDropsPostsWhileDrainingAndRunsQueuedOnes) {
    auto receiver = std::make_shared<Receiver>();
    auto dispatcher = std::make_shared<LNotifyMessageDispatcher>(receiver);
    auto dispatch = [&](unsigned int code) {
        dispatcher->DispatchData(std::make_shared<LNotifyDataObject>(code, nullptr, 0),
                                 Receiver::Call);
    };
    dispatch(1);
    dispatch(2);
    dispatcher->DrainMessages();
    EXPECT_TRUE(dispatcher->IsDraining());
    dispatch(3);
    DrainMainQueue();
    // Queued before the drain: delivered (at once, since the dispatcher was draining then).
    EXPECT_EQ(receiver->received, (std::vector<unsigned int>{1, 2}));
    EXPECT_FALSE(dispatcher->IsDraining());
    dispatch(4);
    DrainMainQueue();
    dispatch(5);
    dispatcher->SetReceiver(nullptr);
    DrainMainQueue();
    EXPECT_EQ(receiver->received, (std::vector<unsigned int>{1, 2, 4}));
}

class CountingQueuedNotify : public LThreadQueuedNotify {
public:
    void EvQueuedNotify() override {
        ++count;
        allOnMain = allOnMain && _LThreadIsMainThread();
    }
    int count = 0;
    bool allOnMain = true;
};

TEST_F(QueuedNotify, ThreadNotifyCallsAtOnceOnTheMainThreadOthersQueue) {
    CountingQueuedNotify n;
    n.PostQueueNotify();
    EXPECT_EQ(n.count, 1);
    std::thread([&] { n.PostQueueNotify(); }).join();
    EXPECT_EQ(n.count, 1);
    DrainMainQueue();
    EXPECT_EQ(n.count, 2);
    EXPECT_TRUE(n.allOnMain);
    std::thread([&] { n.PostQueueNotify(); }).join();
    n.ThreadQueuedNotifyDestroy();
    DrainMainQueue();
    EXPECT_EQ(n.count, 2);
}

class ReportingThread : public LThreadNotifyInterface {
public:
    using LThreadNotifyInterface::LThreadNotifyInterface;
    ~ReportingThread() override { StopThreadAndWait(); }
    void ThreadMain() override {
        SetError("boom");
        SetStatus("first", 0);
        SetStatus("second", 0);
        SetStatus(std::string(300, 'L').c_str(), 1);
        SetStatus("ignored", 2);
        // Whole hundredths cut toward zero; what a long cannot hold is pinned (NaN to 0).
        for (double p : {0.123, -0.019, 1e300, std::numeric_limits<double>::quiet_NaN()}) {
            SetProgress(p);
        }
        SetProgressIndeterminateOn();
        SetProgressIndeterminateOff();
        SetErrorF("%s %d", "code", 7);
        // Until stopped, when asked to: a body still reporting as it is destroyed.
        if (chatty) {
            started.Signal();
        }
        for (int i = 0; chatty && !IsToStop(); ++i) {
            SetStatusF(i & 1, "line %d", i);
        }
    }
    bool chatty = false;
    LSignalObject started;
};

TEST_F(QueuedNotify, WorkerReportsReachTheTargetOnTheMainThreadUntilTeardown) {
    Recorder target;
    ReportingThread thread(&target);
    thread.EvQueuedNotifyData(6, nullptr, 0);  // codes above five are ignored
    thread.EvQueuedNotifyData(0, nullptr, 0);  // an error without bytes shows nothing
    thread.Start(0);
    thread.GetFinishedEvent().WaitSignal(LSignalInfinite);
    EXPECT_TRUE(target.calls.empty());
    DrainMainQueue();
    // Two level-0 statuses both deliver the second; level 2 is not reported.
    EXPECT_EQ(target.calls,
              (std::vector<std::string>{"SetError boom", "SetStatus 0 second", "SetStatus 0 second",
                                        "SetStatus 1 " + std::string(259, 'L'), "On", "Off",
                                        "SetError code 7"}));
    EXPECT_EQ(target.progress, (std::vector<double>{12 * 0.01, -0.01, LONG_MAX * 0.01, 0.0}));

    // Teardown, or destruction of a body still reporting, drops what the worker queued.
    target.calls.clear();
    thread.Start(0);
    thread.GetFinishedEvent().WaitSignal(LSignalInfinite);
    thread.QueuedNotifyDataHandlerDestroy();
    DrainMainQueue();
    EXPECT_TRUE(target.calls.empty());
    auto* running = new ReportingThread(&target);
    running->chatty = true;
    running->Start(0);
    running->started.WaitSignal(LSignalInfinite);
    usleep(2000);
    delete running;
    DrainMainQueue();
    EXPECT_TRUE(target.calls.empty());
}

// The endless waits use the timed ones for the longest time; a nested interface forwards stop,
// waits and errors.
TEST(ProcessInterface, EndlessFormsFormattedReportsAndNesting) {
    std::string const forever = " 4294967295";
    std::vector<std::string> const endless = {"ProcessWait" + forever,
                                              "ProcessWaitSignal" + forever,
                                              "ProcessWaitSignalObjectGroup" + forever};
    Recorder r;
    LProcessInterfaceNested nested(&r);
    LSignalObject event;
    LSignalObjectGroup group;
    for (LProcessInterface* p : std::initializer_list<LProcessInterface*>{&r, &nested}) {
        EXPECT_EQ(
            std::vector<int>({p->ProcessWaitUntilStopped(), p->ProcessWaitSignalForever(event),
                              p->ProcessWaitSignalObjectGroupForever(group)}),
            (std::vector<int>{1, 1, 0}));
        EXPECT_EQ(r.calls, endless);
        r.calls.clear();
    }
    r.SetErrorF("%s", std::string(9000, 'a').c_str());
    r.SetStatusF(3, "%d of %s", 7, "ten");
    EXPECT_EQ(std::vector<int>({nested.IsToStop(), nested.ProcessWait(5),
                                nested.ProcessWaitSignal(event, 6),
                                nested.ProcessWaitSignalObjectGroup(group, 7)}),
              (std::vector<int>{1, 1, 1, 0}));
    nested.SetError("bad");
    nested.SetStatus("status", 0);
    nested.SetProgress(0.5);
    nested.SetProgressIndeterminateOn();
    EXPECT_EQ(r.calls, (std::vector<std::string>{
                           "SetError " + std::string(8191, 'a'), "SetStatus 3 7 of ten", "IsToStop",
                           "ProcessWait 5", "ProcessWaitSignal 6", "ProcessWaitSignalObjectGroup 7",
                           "SetError bad"}));
    EXPECT_TRUE(r.progress.empty());
}

TEST(ProcessInterfaceVoid, NeverStopsReallyWaitsAndReportsNowhere) {
    LProcessInterfaceVoid v;
    EXPECT_FALSE(v.IsToStop());
    // Whole seconds and the milliseconds beyond them both count.
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(v.ProcessWait(1500));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
    v.SetErrorF("%s", "x");
    LSignalObject event, quiet;
    LSignalObjectGroup group;
    EXPECT_EQ(v.ProcessWaitSignalObjectGroup(group, 0), 2);
    group.Add(quiet);
    EXPECT_EQ(v.ProcessWaitSignal(event, 0) + v.ProcessWaitSignalObjectGroup(group, 0), 4);
    event.Signal();
    EXPECT_EQ(v.ProcessWaitSignal(event, 0), 0);
    group.Add(event);
    EXPECT_EQ(v.ProcessWaitSignalObjectGroup(group, 0), 0);
    EXPECT_EQ(v.ProcessWaitSignalObjectGroupForever(group), 0);
}

TEST(ProcessInterfaceSubProcess, MapsProgressAndIndentsStatus) {
    Recorder parent;
    LProcessInterfaceSubProcess sub(&parent, 0.5, 0.25);
    sub.SetProgress(1.0);
    sub.SetProgress(0.0);
    sub.SetStatus("copying", 0);
    sub.SetProgressIndeterminateOn();
    sub.SetProgressIndeterminateOff();
    sub.SetError("e");
    EXPECT_EQ(parent.progress, (std::vector<double>{0.75, 0.5}));
    EXPECT_EQ(parent.calls, (std::vector<std::string>{"SetStatus 1 copying", "SetError e"}));
}

TEST(AssociatedData, AttachesWrappedAndDirectData) {
    auto object = std::make_shared<LObject>();
    static char const keyA = 0, keyB = 0;
    int value = 5;
    LAssociatedData::SetData(&value, object.get(), &keyA);
    EXPECT_EQ(LAssociatedData::GetDataForObject(object.get(), &keyA), &value);
    EXPECT_EQ(LAssociatedData::GetDataForObject(object.get()), nullptr);
    LAssociatedData::SetData(&value, object.get());
    EXPECT_EQ(LAssociatedData::GetDataForObject(object.get()), &value);

    std::weak_ptr<LObject> watch;
    {
        auto attached = std::make_shared<LObject>();
        watch = attached;
        LAssociatedData::SetDataDirect(attached, object.get(), &keyB);
    }
    EXPECT_EQ(LAssociatedData::GetDataDirect(object.get(), &keyB), watch.lock());
    EXPECT_FALSE(watch.expired());  // the association retains it
    // A direct object is no wrapper: the wrapped-data getter gives null for it.
    EXPECT_EQ(LAssociatedData::GetDataForObject(object.get(), &keyB), nullptr);
    LAssociatedData::SetDataDirect(nullptr, object.get(), &keyB);
    EXPECT_TRUE(watch.expired());
}

}  // namespace
