// The process interface: slot defaults, formatted-report cuts, and the void, nested and
// sub-process forms.
#include "thread/lprocess_interface.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

// Records every call that reaches it.
class Recorder : public LProcessInterface {
public:
    bool IsToStop() override {
        calls.push_back("IsToStop");
        return stop;
    }
    bool ProcessWait(unsigned int ms) override {
        calls.push_back("ProcessWait " + std::to_string(ms));
        return stop;
    }
    int ProcessWaitSignal(LSignalObjectRef, unsigned int ms) override {
        calls.push_back("ProcessWaitSignal " + std::to_string(ms));
        return 1;
    }
    int ProcessWaitSignalObjectGroup(LSignalObjectGroup&, unsigned int ms) override {
        calls.push_back("ProcessWaitSignalObjectGroup " + std::to_string(ms));
        return 0;
    }
    void SetError(char const* text) override { calls.push_back(std::string("SetError ") + text); }
    void SetStatus(char const* text, int level) override {
        calls.push_back("SetStatus " + std::to_string(level) + " " + text);
    }
    void SetProgress(double p) override { progress.push_back(p); }
    void SetProgressIndeterminateOn() override { calls.push_back("On"); }
    void SetProgressIndeterminateOff() override { calls.push_back("Off"); }

    bool stop = true;
    std::vector<std::string> calls;
    std::vector<double> progress;
};

TEST(ProcessInterface, EndlessFormsUseTheTimedFormsWithAllBitsSet) {
    Recorder r;
    LSignalObject event;
    LSignalObjectGroup group;
    EXPECT_TRUE(r.ProcessWaitUntilStopped());
    EXPECT_EQ(r.ProcessWaitSignalForever(event), 1);
    EXPECT_EQ(r.ProcessWaitSignalObjectGroupForever(group), 0);
    EXPECT_EQ(r.calls,
              (std::vector<std::string>{"ProcessWait 4294967295", "ProcessWaitSignal 4294967295",
                                        "ProcessWaitSignalObjectGroup 4294967295"}));
}

TEST(ProcessInterface, FormattedReportsAreCutTo8191Characters) {
    Recorder r;
    std::string longText(9000, 'a');
    r.SetErrorF("%s", longText.c_str());
    r.SetStatusF(3, "%d of %s", 7, "ten");
    ASSERT_EQ(r.calls.size(), 2u);
    EXPECT_EQ(r.calls[0], "SetError " + std::string(8191, 'a'));
    EXPECT_EQ(r.calls[1], "SetStatus 3 7 of ten");
}

TEST(ProcessInterfaceVoid, NeverStopsAndReallyWaits) {
    LProcessInterfaceVoid v;
    EXPECT_FALSE(v.IsToStop());
    // Whole seconds and the milliseconds beyond them both count.
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(v.ProcessWait(1500));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
    // Reports go nowhere (and must not crash).
    v.SetError("x");
    v.SetStatus("x", 0);
    v.SetProgress(0.5);
    v.SetErrorF("%s", "x");
}

TEST(ProcessInterfaceVoid, WaitResults) {
    LProcessInterfaceVoid v;
    LSignalObject event;
    EXPECT_EQ(v.ProcessWaitSignal(event, 0), 2);
    event.Signal();
    EXPECT_EQ(v.ProcessWaitSignal(event, 0), 0);

    LSignalObjectGroup group;
    EXPECT_EQ(v.ProcessWaitSignalObjectGroup(group, 0), 2);
    LSignalObject quiet;
    group.Add(quiet);
    EXPECT_EQ(v.ProcessWaitSignalObjectGroup(group, 0), 2);
    group.Add(event);
    EXPECT_EQ(v.ProcessWaitSignalObjectGroup(group, 0), 0);
    EXPECT_EQ(v.ProcessWaitSignalObjectGroupForever(group), 0);
}

TEST(ProcessInterfaceNested, ForwardsStopWaitsAndErrorsButNotStatusOrProgress) {
    Recorder parent;
    LProcessInterfaceNested nested(&parent);
    LSignalObject event;
    LSignalObjectGroup group;
    EXPECT_TRUE(nested.IsToStop());
    EXPECT_TRUE(nested.ProcessWait(5));
    EXPECT_EQ(nested.ProcessWaitSignal(event, 6), 1);
    EXPECT_EQ(nested.ProcessWaitSignalObjectGroup(group, 7), 0);
    EXPECT_TRUE(nested.ProcessWaitUntilStopped());
    EXPECT_EQ(nested.ProcessWaitSignalForever(event), 1);
    EXPECT_EQ(nested.ProcessWaitSignalObjectGroupForever(group), 0);
    nested.SetError("bad");
    nested.SetStatus("status", 0);
    nested.SetProgress(0.5);
    nested.SetProgressIndeterminateOn();
    EXPECT_EQ(parent.calls, (std::vector<std::string>{
                                "IsToStop", "ProcessWait 5", "ProcessWaitSignal 6",
                                "ProcessWaitSignalObjectGroup 7", "ProcessWait 4294967295",
                                "ProcessWaitSignal 4294967295",
                                "ProcessWaitSignalObjectGroup 4294967295", "SetError bad"}));
    EXPECT_TRUE(parent.progress.empty());
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
    ASSERT_EQ(parent.progress.size(), 2u);
    EXPECT_DOUBLE_EQ(parent.progress[0], 0.75);
    EXPECT_DOUBLE_EQ(parent.progress[1], 0.5);
    EXPECT_EQ(parent.calls, (std::vector<std::string>{"SetStatus 1 copying", "SetError e"}));

    // Nesting twice indents twice and composes the ranges.
    LProcessInterfaceSubProcess inner(&sub, 0.5, 0.5);
    inner.SetStatus("file", 0);
    inner.SetProgress(1.0);
    EXPECT_EQ(parent.calls.back(), "SetStatus 2 file");
    EXPECT_DOUBLE_EQ(parent.progress.back(), 0.75);
}

}  // namespace
