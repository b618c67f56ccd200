// The offered-path checks: shell syntax kept out of the installer's command lines, and
// nothing but folders and plain files, within the size bound, copied by root.
#include "helper/offered_path.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

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

// A bundle of `count` names for one sparse file of `mib` MiB (hard links after the first).
void HardLinked(fs::path const& bundle, int mib, int count) {
    fs::create_directories(bundle / "Contents");
    fs::path const first = bundle / "Contents" / "f0";
    std::ofstream(first).close();
    fs::resize_file(first, static_cast<uintmax_t>(mib) << 20);
    for (int i = 1; i < count; ++i)
        fs::create_hard_link(first, bundle / "Contents" / ("f" + std::to_string(i)));
}

TEST_F(OfferedPath, OnlyFoldersAndPlainFilesWithinTheBoundAreOffered) {
    std::string const real = Folder("real/B.driver");
    fs::create_directories(root_ / "real/B.driver/Contents/MacOS");
    std::ofstream(root_ / "real/B.driver/Contents/MacOS/x") << "x";
    EXPECT_TRUE(LVADHelperIsOfferedPathAcceptable(real.c_str()));

    fs::create_directory_symlink(root_ / "real", root_ / "via");
    fs::create_directory_symlink(root_ / "real/B.driver", root_ / "link.driver");
    for (std::string const& path :
         {(root_ / "via/B.driver").string(), (root_ / "link.driver").string(), real + "/",
          real + "/.", (root_ / "real/../real/B.driver").string()})
        EXPECT_FALSE(LVADHelperIsOfferedPathAcceptable(path.c_str())) << path;

    using Maker = std::function<void(fs::path const&)>;
    std::vector<std::pair<char const*, Maker>> const hostile = {
        {"link", [](fs::path const& c) { fs::create_symlink("/etc/passwd", c / "Info.plist"); }},
        {"fifo", [](fs::path const& c) { mkfifo((c / "Info.plist").c_str(), 0644); }},
        {"socket",
         [](fs::path const& c) {
             int s = socket(AF_UNIX, SOCK_STREAM, 0);
             sockaddr_un a{};
             a.sun_family = AF_UNIX;
             std::strcpy(a.sun_path, (c / "s").c_str());
             EXPECT_EQ(bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
             close(s);
         }},
        {"device",
         [](fs::path const& c) {
             if (mknod((c / "d").c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0)
                 mkfifo((c / "d").c_str(), 0600);  // without the right to make a device
         }},
        {"deep link", [](fs::path const& c) { fs::create_directory_symlink("/", c / "a/b/root"); }},
        {"hard links past the bound",
         [](fs::path const& c) { HardLinked(c.parent_path(), 4, 65); }},
    };
    for (auto const& [what, make] : hostile) {
        fs::path const bundle = root_ / "h" / what / "B.driver";
        fs::create_directories(bundle / "Contents/a/b");
        make(bundle / "Contents");
        EXPECT_FALSE(LVADHelperIsOfferedPathAcceptable(bundle.c_str())) << what;
    }
    HardLinked(root_ / "within", 4, 64);  // exactly the bound
    EXPECT_TRUE(LVADHelperIsOfferedPathAcceptable((root_ / "within").c_str()));
}
