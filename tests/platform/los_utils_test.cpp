#include "platform/los_utils.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "tests/file/temp_tree.h"
#include "tests/thread/child_process.h"

namespace {

TEST(OSVersion, SplitsDottedPieces) {
    struct {
        std::string text;
        int major, minor, patch;
    } const cases[] = {
        {"12", 12, 0, 0},
        {"11.2", 11, 2, 0},
        {"10.15.7", 10, 15, 7},
        {"1.2.3.4", 1, 2, 3},
        {"6.18.44-fc-v769", 6, 18, 44},
        {"", 0, 0, 0},
        {"..9", 0, 0, 9},
        {std::string(258, '0') + "7.1", 7, 1, 0},  // a piece is cut at 259 characters
        {std::string(259, '0') + "7.1", 0, 1, 0},
    };
    for (auto const& c : cases) {
        int a = -1, b = -1, p = -1;
        _LSplitOSVersion(c.text.c_str(), a, b, p);
        EXPECT_EQ(a, c.major) << c.text;
        EXPECT_EQ(b, c.minor) << c.text;
        EXPECT_EQ(p, c.patch) << c.text;
    }
}

TEST(OSVersion, ReadsVersionIdFromOSRelease) {
    char out[260];
    std::string const text =
        "NAME=\"Debian GNU/Linux\"\nVERSION=\"12 (bookworm)\"\nVERSION_IDX=9\n"
        "VERSION_ID=\"12\"\r\nID=debian\n";
    ASSERT_TRUE(_LOSReleaseValue(text, "VERSION_ID", out));
    EXPECT_STREQ(out, "12");
    ASSERT_TRUE(_LOSReleaseValue("VERSION_ID='3.19.1'", "VERSION_ID", out));
    EXPECT_STREQ(out, "3.19.1");
    ASSERT_TRUE(_LOSReleaseValue("ID=arch\nVERSION_ID=11.2", "VERSION_ID", out));
    EXPECT_STREQ(out, "11.2");
    EXPECT_FALSE(_LOSReleaseValue("ID=arch\n VERSION_ID=1\n", "VERSION_ID", out));
    EXPECT_STREQ(out, "");
}

// The running system's answer, against what the shell reads from the same file.
TEST(OSVersion, MatchesThisMachineAndStaysCached) {
    FILE* shell = popen(". /etc/os-release && echo \"$VERSION_ID\"", "r");
    ASSERT_NE(shell, nullptr);
    char line[64] = {};
    (void)!fgets(line, sizeof line, shell);
    pclose(shell);
    int a = 0, b = 0, c = 0;
    _LSplitOSVersion(line, a, b, c);
    if (a < 1) {
        GTEST_SKIP() << "no VERSION_ID on this machine";
    }
    unsigned char major = 0, minor = 0, patch = 0;
    LGetOSVersion(major, minor, patch);
    EXPECT_EQ(major, a);
    EXPECT_EQ(minor, b);
    EXPECT_EQ(patch, c);
    unsigned char again = 0, minorAgain = 0;
    LGetOSVersion(again, minorAgain);
    EXPECT_EQ(again, major);
    EXPECT_EQ(minorAgain, minor);
}

// The user tests run in children that give up root, so the test process keeps it.
class UserTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (getuid() != 0) {
            GTEST_SKIP() << "needs root to change users";
        }
        for (char const* name : {"sudo", "wheel", "admin"}) {
            if (group const* g = getgrnam(name)) {
                adminGid_ = g->gr_gid;
            }
        }
    }
    // Drops to nobody with only the given supplementary group (none for -1), then runs body.
    template <typename Body>
    int AsNobody(gid_t extraGroup, Body body) {
        return ltest::WaitChild(ltest::ForkChild([&] {
            gid_t groups[1] = {extraGroup};
            if (setgroups(extraGroup == gid_t(-1) ? 0 : 1, groups) != 0 || setgid(65534) != 0 ||
                setuid(65534) != 0) {
                return 90;
            }
            return body();
        }));
    }
    gid_t adminGid_ = gid_t(-1);
};

TEST_F(UserTest, RootAndAdministratorTests) {
    ltest::EnvOverride user("USER", "root");
    EXPECT_TRUE(LIsUserRoot());
    EXPECT_TRUE(LIsUserAdministrator());
    EXPECT_EQ(AsNobody(gid_t(-1), [] { return LIsUserRoot() && LIsUserAdministrator() ? 0 : 1; }),
              0);
    user.Set("nobody");
    EXPECT_EQ(AsNobody(gid_t(-1), [] { return !LIsUserRoot() && !LIsUserAdministrator() ? 0 : 1; }),
              0);
    if (adminGid_ == gid_t(-1)) {
        GTEST_SKIP() << "no administrator group on this machine";
    }
    EXPECT_EQ(AsNobody(adminGid_, [] { return LIsUserRunningAsAdministrator() ? 0 : 1; }), 0);
}

TEST_F(UserTest, SwitchToUserAndBack) {
    ltest::EnvOverride logname("LOGNAME", "nobody");
    ltest::EnvOverride user("USER", "root");
    auto switchAndReport = [] {
        return ltest::WaitChild(ltest::ForkChild([] {
            if (!LSwitchToUser()) {
                return 1;
            }
            return getuid() == 65534 && !LSwitchToRoot() ? 0 : 2;
        }));
    };
    EXPECT_EQ(switchAndReport(), 0);
    logname.Set("");
    user.Set("nobody");
    EXPECT_EQ(switchAndReport(), 0);
    logname.Set(nullptr);
    user.Set("no-such-user-here");
    EXPECT_EQ(switchAndReport(), 1);
    user.Set(nullptr);
    EXPECT_EQ(switchAndReport(), 1);
    EXPECT_TRUE(LSwitchToRoot());
}

TEST(ProcessLookup, FindsChildByCommandNameIgnoringCase) {
    ltest::TempTree tree;
    std::string const program = tree.Path("VadSleePer");
    std::filesystem::copy_file("/bin/sleep", program);
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    pid_t child = fork();
    if (child == 0) {
        execl(program.c_str(), program.c_str(), "30", static_cast<char*>(nullptr));
        _exit(127);
    }
    ASSERT_GT(child, 0);
    pid_t found = -1;
    for (int i = 0; i < 200 && found == -1; ++i) {  // until the exec has renamed the child
        found = LGetBSDProcessUid("vadsleeper");
        if (found == -1) {
            usleep(10000);
        }
    }
    EXPECT_EQ(found, child);
    EXPECT_EQ(LGetBSDProcessUid("VADSLEEPER"), child);
    EXPECT_EQ(LGetBSDProcessUid("vadsleepe"), -1);

    EXPECT_EQ(LGetProcessUid("no-such-process-name"), -1);  // not kept: searched again
    EXPECT_EQ(LGetProcessUid("VadSleeper"), child);
    kill(child, SIGKILL);
    ltest::WaitChild(child);
    EXPECT_EQ(LGetBSDProcessUid("vadsleeper"), -1);
    EXPECT_EQ(LGetProcessUid("VadSleeper"), child);  // kept once found
}

}  // namespace
