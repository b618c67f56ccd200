#include "platform/los_utils.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <string>

#include "tests/file/temp_tree.h"
#include "tests/thread/child_process.h"

namespace {

std::string Split(std::string const& text) {
    int a = -1, b = -1, c = -1;
    _LSplitOSVersion(text.c_str(), a, b, c);
    return std::to_string(a) + "." + std::to_string(b) + "." + std::to_string(c);
}

TEST(OSVersion, SplitsAVersionText) {
    EXPECT_EQ(Split("12"), "12.0.0");
    EXPECT_EQ(Split("11.2"), "11.2.0");
    EXPECT_EQ(Split("1.2.3.4"), "1.2.3");
    EXPECT_EQ(Split("6.18.44-fc"), "6.18.44");
    EXPECT_EQ(Split(""), "0.0.0");
    EXPECT_EQ(Split(std::string(259, '0') + "7.1"), "0.1.0");  // pieces are cut at 259
}

// In children that drop to nobody (with one supplementary group, or none for -1), so that
// the test process keeps root.
template <typename Body>
int AsNobody(gid_t group, Body body) {
    return ltest::WaitChild(ltest::ForkChild([&] {
        bool dropped = setgroups(group == gid_t(-1) ? 0 : 1, &group) == 0 && setgid(65534) == 0 &&
                       setuid(65534) == 0;
        return dropped ? body() : 90;
    }));
}

TEST(Users, RootAdministratorAndSwitch) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root to change users";
    }
    ltest::EnvOverride user("USER", "root"), logname("LOGNAME", "nobody");
    EXPECT_EQ(AsNobody(-1, [] { return LIsUserRoot() && LIsUserAdministrator() ? 0 : 1; }), 0);
    user.Set("nobody");
    EXPECT_EQ(AsNobody(-1, [] { return !LIsUserRoot() && !LIsUserAdministrator() ? 0 : 1; }), 0);
    if (group const* sudo = getgrnam("sudo")) {
        EXPECT_EQ(AsNobody(sudo->gr_gid, [] { return LIsUserRunningAsAdministrator() ? 0 : 1; }),
                  0);
    }

    auto switchAndBack = [] {
        return ltest::WaitChild(ltest::ForkChild([] {
            return !LSwitchToUser() ? 1 : getuid() == 65534 && !LSwitchToRoot() ? 0 : 2;
        }));
    };
    EXPECT_EQ(switchAndBack(), 0);  // LOGNAME first
    logname.Set("");
    EXPECT_EQ(switchAndBack(), 0);  // then USER
    user.Set(nullptr);              // an empty name is looked up
    EXPECT_EQ(switchAndBack(), 1);
    EXPECT_TRUE(LSwitchToRoot());
}

TEST(ProcessLookup, FindsChildByCommandNameIgnoringCase) {
    pid_t child = ltest::ForkChild([] {
        prctl(PR_SET_NAME, "VadSleePer");
        return pause();
    });
    pid_t found = -1;
    for (int i = 0; i < 200 && (found = LGetBSDProcessUid("vadsleeper")) == -1; ++i) {
        usleep(10000);  // until the child has renamed itself
    }
    EXPECT_EQ(found, child);
    EXPECT_EQ(LGetBSDProcessUid("vadsleepe"), -1);

    EXPECT_EQ(LGetProcessUid("no-such-process-name"), -1);  // not kept: searched again
    EXPECT_EQ(LGetProcessUid("VadSleeper"), child);
    kill(child, SIGKILL);
    ltest::WaitChild(child);
    EXPECT_EQ(LGetBSDProcessUid("vadsleeper"), -1);
    EXPECT_EQ(LGetProcessUid("VadSleeper"), child);  // kept once found
}

}  // namespace
