// The offered-path check that keeps shell syntax out of the installer's command lines.
#include "helper/offered_path.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

class OfferedPath : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/offered_path_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
    }
    void TearDown() override { fs::remove_all(root_); }

    std::string Folder(std::string const& name) {
        fs::create_directories(root_ / name);
        return (root_ / name).string();
    }

    fs::path root_;
};

TEST_F(OfferedPath, PlainBundleFoldersPass) {
    EXPECT_TRUE(
        LVADHelperIsOfferedPathAcceptable(Folder("KavelPLVirtualAudioDevice.driver").c_str()));
    EXPECT_TRUE(LVADHelperIsOfferedPathAcceptable(Folder("a-b_c+d.1/e").c_str()));
    EXPECT_TRUE(LVADHelperIsOfferedPathAcceptable("/"));
}

TEST_F(OfferedPath, ShellSyntaxIsRefusedEvenWhenTheFolderExists) {
    for (char const* name :
         {"x;touch y", "with blank", "a$(id)", "a`id`", "a|b",  "a&b",  "a>b",
          "a'b",       "a\"b",       "a*",     "a?",    "a~",   "a\\b", "a\tb",
          "a\nb",      "a#b",        "a=b",    "a(b",   "a{b}", "a!b",  "caf\xc3\xa9"}) {
        std::string path = Folder(name);
        EXPECT_FALSE(LVADHelperIsOfferedPathAcceptable(path.c_str())) << path;
    }
}

TEST_F(OfferedPath, RelativeMissingAndNonFoldersAreRefused) {
    EXPECT_FALSE(LVADHelperIsOfferedPathAcceptable(nullptr));
    EXPECT_FALSE(LVADHelperIsOfferedPathAcceptable(""));
    EXPECT_FALSE(LVADHelperIsOfferedPathAcceptable("tmp"));
    EXPECT_FALSE(LVADHelperIsOfferedPathAcceptable((root_ / "missing.driver").c_str()));
    std::ofstream(root_ / "file.driver") << "x";
    EXPECT_FALSE(LVADHelperIsOfferedPathAcceptable((root_ / "file.driver").c_str()));
}
