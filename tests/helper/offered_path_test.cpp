// The installer's guards: offered paths (shell syntax kept out of its command lines, nothing
// but folders and plain files within the size bound copied by root) and the 512-byte
// command line of LRunCommand with the shell's status.
#include "helper/offered_path.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "helper/vadhelper_notify.h"
#include "tests/file/temp_tree.h"

namespace fs = std::filesystem;

namespace {

bool Acceptable(std::string const& path) {
    return LVADHelperIsOfferedPathAcceptable(path.c_str());
}

// A bundle holding `count` names for one sparse file of 4 MiB.
void HardLinked(fs::path const& bundle, int count) {
    fs::create_directories(bundle / "Contents");
    std::ofstream(bundle / "Contents/f0").close();
    fs::resize_file(bundle / "Contents/f0", 4 << 20);
    for (int i = 1; i < count; ++i)
        fs::create_hard_link(bundle / "Contents/f0", bundle / "Contents" / std::to_string(i));
}

}  // namespace

TEST(OfferedPath, ShellSyntaxRelativeMissingAndNonFoldersAreRefused) {
    ltest::TempTree tree;
    EXPECT_TRUE(Acceptable(tree.MakeFolder("KavelPLVirtualAudioDevice.driver")));
    EXPECT_TRUE(Acceptable(tree.MakeFolder("a-b_c+d.1/e")));
    // Refused even though each folder exists.
    for (char const* name :
         {"x;touch y", "with blank", "a$(id)", "a`id`", "a|b",  "a&b",  "a>b",
          "a'b",       "a\"b",       "a*",     "a?",    "a~",   "a\\b", "a\tb",
          "a\nb",      "a#b",        "a=b",    "a(b",   "a{b}", "a!b",  "caf\xc3\xa9"})
        EXPECT_FALSE(Acceptable(tree.MakeFolder(name))) << name;
    EXPECT_FALSE(LVADHelperIsOfferedPathAcceptable(nullptr));
    for (std::string const& path : {std::string(), std::string("tmp"), tree.Path("missing.driver"),
                                    tree.MakeFile("f.driver")})
        EXPECT_FALSE(Acceptable(path)) << path;
}

TEST(OfferedPath, OnlyFoldersAndPlainFilesWithinTheBoundAreOffered) {
    ltest::TempTree tree;
    fs::path const root = tree.root();
    std::string const real = tree.MakeFolder("real/B.driver/Contents/MacOS");
    fs::create_directory_symlink(root / "real", root / "via");
    fs::create_directory_symlink(real, root / "link.driver");
    mkfifo(tree.MakeFolder("fifo/Contents").append("/Info.plist").c_str(), 0644);
    fs::create_symlink("/etc/passwd", tree.MakeFolder("inner/Contents/MacOS") + "/x");
    HardLinked(root / "over", 65);
    for (char const* refused : {"via/B.driver", "link.driver", "real/../real/B.driver",
                                "real/B.driver/", "fifo", "inner", "over"})
        EXPECT_FALSE(Acceptable(tree.Path(refused))) << refused;
    HardLinked(root / "within", 64);  // 256 MiB, every link counted
    for (char const* offered : {"real/B.driver", "within"})
        EXPECT_TRUE(Acceptable(tree.Path(offered))) << offered;
}

TEST(RunCommand, TrueOnlyForANormalExitWithZeroAndCutAt511Characters) {
    for (auto [command, ok] : {std::pair{"true", true},
                               {"false", false},
                               {"exit 3", false},
                               {"kill -TERM $$", false},
                               {"/nonexistent/command/x", false}})
        EXPECT_EQ(LRunCommand("%s", command), ok) << command;
    ltest::TempTree tree;
    std::string const marker = tree.Path("after");
    // Everything from the 512th byte on is dropped: the touch makes "af", not "after".
    std::string const filler(504 - marker.size(), 'x');
    EXPECT_TRUE(LRunCommand(": %s; touch %s", filler.c_str(), marker.c_str()));
    EXPECT_FALSE(fs::exists(marker));
    EXPECT_TRUE(fs::exists(marker.substr(0, marker.size() - 3)));
    // Three bytes shorter, the whole command fills the buffer exactly.
    EXPECT_TRUE(LRunCommand(": %s; touch %s", filler.c_str() + 3, marker.c_str()));
    EXPECT_TRUE(fs::exists(marker));
}
