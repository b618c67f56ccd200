// The process interface: slot defaults, formatted-report cuts, and the void, nested and
// sub-process forms.
#include "thread/lprocess_interface.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

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

// The endless waits, then everything else, through `p`.
void CallEveryWait(LProcessInterface& p, std::vector<int>& results, unsigned int ms) {
    LSignalObject event;
    LSignalObjectGroup group;
    results = {p.ProcessWaitUntilStopped(), p.ProcessWaitSignalForever(event),
               p.ProcessWaitSignalObjectGroupForever(group)};
    if (ms != 0) {
        results.insert(results.end(),
                       {p.IsToStop(), p.ProcessWait(ms), p.ProcessWaitSignal(event, ms + 1),
                        p.ProcessWaitSignalObjectGroup(group, ms + 2)});
    }
}

std::string const kForever = " 4294967295";

TEST(ProcessInterface, EndlessFormsUseTheTimedFormsAndFormattedReportsAreCut) {
    Recorder r;
    std::vector<int> results;
    CallEveryWait(r, results, 0);
    EXPECT_EQ(results, (std::vector<int>{1, 1, 0}));
    r.SetErrorF("%s", std::string(9000, 'a').c_str());
    r.SetStatusF(3, "%d of %s", 7, "ten");
    EXPECT_EQ(r.calls, (std::vector<std::string>{
                           "ProcessWait" + kForever, "ProcessWaitSignal" + kForever,
                           "ProcessWaitSignalObjectGroup" + kForever,
                           "SetError " + std::string(8191, 'a'), "SetStatus 3 7 of ten"}));
}

TEST(ProcessInterfaceVoid, NeverStopsReallyWaitsAndReportsNowhere) {
    LProcessInterfaceVoid v;
    EXPECT_FALSE(v.IsToStop());
    // Whole seconds and the milliseconds beyond them both count.
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(v.ProcessWait(1500));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
    v.SetError("x");
    v.SetStatus("x", 0);
    v.SetProgress(0.5);
    v.SetErrorF("%s", "x");

    LSignalObject event, quiet;
    LSignalObjectGroup group;
    EXPECT_EQ(v.ProcessWaitSignal(event, 0), 2);
    EXPECT_EQ(v.ProcessWaitSignalObjectGroup(group, 0), 2);
    group.Add(quiet);
    EXPECT_EQ(v.ProcessWaitSignalObjectGroup(group, 0), 2);
    event.Signal();
    EXPECT_EQ(v.ProcessWaitSignal(event, 0), 0);
    group.Add(event);
    EXPECT_EQ(v.ProcessWaitSignalObjectGroup(group, 0), 0);
    EXPECT_EQ(v.ProcessWaitSignalObjectGroupForever(group), 0);
}

TEST(ProcessInterfaceNested, ForwardsStopWaitsAndErrorsButNotStatusOrProgress) {
    Recorder parent;
    LProcessInterfaceNested nested(&parent);
    std::vector<int> results;
    CallEveryWait(nested, results, 5);
    nested.SetError("bad");
    nested.SetStatus("status", 0);
    nested.SetProgress(0.5);
    nested.SetProgressIndeterminateOn();
    EXPECT_EQ(results, (std::vector<int>{1, 1, 0, 1, 1, 1, 0}));
    EXPECT_EQ(parent.calls,
              (std::vector<std::string>{"ProcessWait" + kForever, "ProcessWaitSignal" + kForever,
                                        "ProcessWaitSignalObjectGroup" + kForever, "IsToStop",
                                        "ProcessWait 5", "ProcessWaitSignal 6",
                                        "ProcessWaitSignalObjectGroup 7", "SetError bad"}));
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
    // Nesting twice indents twice and composes the ranges.
    LProcessInterfaceSubProcess inner(&sub, 0.5, 0.5);
    inner.SetStatus("file", 0);
    inner.SetProgress(1.0);
    EXPECT_EQ(parent.progress, (std::vector<double>{0.75, 0.5, 0.75}));
    EXPECT_EQ(parent.calls,
              (std::vector<std::string>{"SetStatus 1 copying", "SetError e", "SetStatus 2 file"}));
}

}  // namespace
