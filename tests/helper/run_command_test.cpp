// LRunCommand: formatting into a 512-byte command line and reading the shell's status.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "helper/vadhelper_notify.h"

namespace fs = std::filesystem;

class RunCommand : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/run_command_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { fs::remove_all(dir_); }
    fs::path dir_;
};

TEST_F(RunCommand, TrueOnlyForANormalExitWithZero) {
    EXPECT_TRUE(LRunCommand("true"));
    EXPECT_FALSE(LRunCommand("false"));
    EXPECT_FALSE(LRunCommand("exit %d", 3));
    EXPECT_FALSE(LRunCommand("kill -TERM $$"));
    EXPECT_FALSE(LRunCommand("/nonexistent/command/%s", "x"));
}

TEST_F(RunCommand, LongCommandsAreCutAt511Characters) {
    fs::path marker = dir_ / "after";
    std::string const filler(470, 'x');
    // Everything from the 512th byte on is dropped: the touch makes "af", not "after".
    EXPECT_TRUE(LRunCommand(": %s; touch %s", filler.c_str(), marker.c_str()));
    EXPECT_FALSE(fs::exists(marker));
    // A shorter filler leaves the whole command, formatted, in the buffer.
    std::string const shorter(400, 'x');
    EXPECT_TRUE(LRunCommand(": %s; touch %s", shorter.c_str(), marker.c_str()));
    EXPECT_TRUE(fs::exists(marker));
}
