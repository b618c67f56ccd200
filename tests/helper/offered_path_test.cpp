// The offered-path checks: shell syntax kept out of the installer's command lines, and
// nothing but folders and plain files, within the size bound, copied by root.
#include "helper/offered_path.h"

#include <sys/stat.h>

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

// A bundle holding `count` names for one sparse file of 4 MiB.
void HardLinked(fs::path const& bundle, int count) {
    fs::create_directories(bundle / "Contents");
    std::ofstream(bundle / "Contents/f0").close();
    fs::resize_file(bundle / "Contents/f0", 4 << 20);
    for (int i = 1; i < count; ++i)
        fs::create_hard_link(bundle / "Contents/f0", bundle / "Contents" / std::to_string(i));
}

TEST_F(OfferedPath, OnlyFoldersAndPlainFilesWithinTheBoundAreOffered) {
    std::string const real = Folder("real/B.driver/Contents/MacOS");
    fs::create_directory_symlink(root_ / "real", root_ / "via");
    fs::create_directory_symlink(real, root_ / "link.driver");
    mkfifo(Folder("fifo/Contents").append("/Info.plist").c_str(), 0644);
    fs::create_symlink("/etc/passwd", Folder("inner/Contents/MacOS") + "/x");
    HardLinked(root_ / "over", 65);
    for (char const* refused : {"via/B.driver", "link.driver", "real/../real/B.driver",
                                "real/B.driver/", "fifo", "inner", "over"})
        EXPECT_FALSE(LVADHelperIsOfferedPathAcceptable((root_ / refused).c_str())) << refused;
    HardLinked(root_ / "within", 64);  // 256 MiB, every link counted
    for (char const* offered : {"real/B.driver", "within"})
        EXPECT_TRUE(LVADHelperIsOfferedPathAcceptable((root_ / offered).c_str())) << offered;
}
