// Standard, program and bundle folders and the trash, with HOME and XDG variables pointed
// at temporary trees.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "file/lfile.h"
#include "file/lfile_platform.h"
#include "file/lknown_folders.h"
#include "temp_tree.h"

namespace {

using ltest::EnvOverride;
using ltest::IsolatedHome;
using ltest::TempTree;

namespace fs = std::filesystem;

unsigned int ModeOf(std::string const& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

template <typename Getter>
std::string Get(Getter getter) {
    char dst[kLPathSize];
    getter(dst);
    return dst;
}

TEST(StandardFolders, FallbacksUnderHomeAreCreatedNonSandboxedOnesFromTheUserDatabase) {
    IsolatedHome h;
    EnvOverride relative("XDG_DATA_HOME", "relative/data");  // not usable: ignored
    using Case = std::pair<void (*)(char*), char const*>;
    for (auto [getter, fallback] : {Case{LFile::GetUserLibraryFolder, "Library"},
                                    {LFile::GetTempFolder, "Library/Caches"},
                                    {LFile::GetUserDataFolder, "Library/Application Support"},
                                    {LFile::GetUserApplicationsFolder, "Applications"},
                                    {LFile::GetUserDownloadFolder, "Downloads"}}) {
        std::string expected = h.home() + "/" + fallback;
        EXPECT_EQ(Get(getter), expected);
        EXPECT_TRUE(fs::is_directory(expected)) << expected;
    }
    EXPECT_EQ(Get(LFile::GetUserFolder), h.home());
    struct passwd* pw = getpwuid(getuid());
    ASSERT_NE(pw, nullptr);
    std::string account = pw->pw_dir;
    ASSERT_NE(account, h.home());
    EXPECT_EQ(Get(LFile::GetUserFolderNonSandboxed), account);
    EXPECT_EQ(Get(LFile::GetUserDownloadFolderNonSandboxed), account + "/Downloads");
    // Without HOME the process's home is the account's as well.
    EnvOverride noHome("HOME", nullptr);
    EXPECT_EQ(Get(LFile::GetUserFolder), account);
}

TEST(StandardFolders, XdgUserDirectoriesAndTheirLineForms) {
    IsolatedHome h;
    // Without XDG_CONFIG_HOME the file is looked for under home.
    std::ofstream(h.tree().MakeFolder(".config") + "/user-dirs.dirs")
        << "XDG_MUSIC_DIR=\"${HOME}/Sound\"\n";
    EXPECT_EQ(Get(LFile::GetUserMusicFolder), h.home() + "/Sound");
    std::string config = h.tree().MakeFolder("conf");
    EnvOverride x("XDG_CONFIG_HOME", config);
    std::ofstream(config + "/user-dirs.dirs") << "# written by a user-dirs tool\n"
                                              << "XDG_DESKTOP_DIR=\"$HOME/Desk top\"\n"
                                              << "XDG_MUSIC_DIR=\"$HOME/Old\"\n"
                                              << "XDG_MUSIC_DIR=\"$HOME/Tunes\"\n"
                                              << "  XDG_DOWNLOAD_DIR=\"/srv/incoming\"\n"
                                              << "XDG_VIDEOS_DIR=\"relative/videos\"\n"
                                              << "XDG_PICTURES_DIR=\"$HOME\"\n"
                                              << "XDG_DOCUMENTS_DIR=\"$HOME/Docs\n";
    EXPECT_EQ(Get(LFile::GetUserDesktopFolder), h.home() + "/Desk top");
    EXPECT_EQ(Get(LFile::GetUserMusicFolder), h.home() + "/Tunes");  // the last line wins
    EXPECT_EQ(Get(LFile::GetUserDownloadFolder), "/srv/incoming");
    EXPECT_EQ(Get(LFile::GetUserPicturesFolder), h.home());
    // Found folders are not created.
    EXPECT_FALSE(fs::exists(h.home() + "/Tunes"));
    // Unusable settings fall back (and the fallback is created).
    EXPECT_EQ(Get(LFile::GetUserVideoFolder), h.home() + "/Movies");
    EXPECT_EQ(Get(LFile::GetUserDocumentsFolder), h.home() + "/Documents");
    EXPECT_TRUE(fs::is_directory(h.home() + "/Documents"));
    char dst[kLPathSize];
    EXPECT_TRUE(_LParseUserDirsLine("XDG_MUSIC_DIR=\"$HOME/a\\\"b\"", "XDG_MUSIC_DIR", "/h", dst));
    EXPECT_STREQ(dst, "/h/a\"b");
    EXPECT_TRUE(_LParseUserDirsLine("XDG_MUSIC_DIR=$HOME/x # note", "XDG_MUSIC_DIR", "/h/", dst));
    EXPECT_STREQ(dst, "/h/x");
    for (char const* line :
         {"XDG_MUSIC_DIRS=\"/x\"", "#XDG_MUSIC_DIR=\"/x\"", "XDG_MUSIC_DIR = \"/x\"",
          "XDG_MUSIC_DIR=\"$HOMEx/y\"", "XDG_MUSIC_DIR=\"~/x\""}) {
        EXPECT_FALSE(_LParseUserDirsLine(line, "XDG_MUSIC_DIR", "/h", dst)) << line;
    }
    std::string longLine = "XDG_MUSIC_DIR=\"/" + std::string(400, 'm') + "\"";
    EXPECT_TRUE(_LParseUserDirsLine(longLine, "XDG_MUSIC_DIR", "/h", dst));
    EXPECT_EQ(std::string(dst), "/" + std::string(258, 'm'));
}

TEST(ProgramFolders, DataFoldersAndSharedSubFoldersOpenedToEverybody) {
    IsolatedHome h;
    std::string app = h.home() + "/Library/Application Support/KavelPLVadHelper";
    EXPECT_EQ(Get(static_cast<void (*)(char*)>(LFile::GetUserDataFolderApp)), app);
    EXPECT_TRUE(fs::is_directory(app));
    char dst[kLPathSize];
    const std::string shared = app + "/Shared";
    EXPECT_EQ(Get(LFile::GetSharedDataFolderApp), shared);
    EXPECT_FALSE(fs::exists(shared));
    // Without the shared folder the single-level creation of a subfolder fails, and that is
    // ignored; with it, the subfolder is opened to everybody, once.
    LFile::GetSharedDataFolderAppSubFolder("Presets", dst);
    EXPECT_EQ(std::string(dst), shared + "/Presets");
    EXPECT_FALSE(fs::exists(dst));
    fs::create_directories(shared);
    LFile::GetSharedDataFolderAppSubFolder("Presets", dst);
    EXPECT_TRUE(fs::is_directory(dst));
    EXPECT_EQ(ModeOf(dst), 0777u);
    // An existing folder is left as it is.
    chmod(dst, 0700);
    LFile::GetSharedDataFolderAppSubFolder("Presets", dst);
    EXPECT_EQ(ModeOf(dst), 0700u);
    // The variant that warns nobody creates each level, opened to everybody too.
    std::string data = h.tree().MakeFolder("data");
    EnvOverride d("XDG_DATA_HOME", data);
    LFile::GetSharedDataFolderAppNoWarn(dst);
    EXPECT_EQ(std::string(dst), data + "/Tessaly Software/KavelPLVadHelper");
    EXPECT_EQ(ModeOf(data + "/Tessaly Software"), 0777u);
    EXPECT_EQ(ModeOf(dst), 0777u);
}

TEST(Permissions, WholeTreeButNotThroughLinks) {
    TempTree tree;
    std::string file = tree.MakeFile("top/a/b/file");
    std::string outside = tree.MakeFile("outside");
    chmod(outside.c_str(), 0600);
    chmod(file.c_str(), 0600);
    chmod(tree.Path("top/a").c_str(), 0700);
    ASSERT_EQ(symlink(outside.c_str(), tree.Path("top/link").c_str()), 0);
    LFile::SetFolderSecurityAllAccess(tree.Path("top").c_str());
    EXPECT_EQ(ModeOf(tree.Path("top")), 0777u);
    EXPECT_EQ(ModeOf(file), 0777u);
    EXPECT_EQ(ModeOf(outside), 0600u);
}

TEST(Bundle, ExecutableFolderAndTheBundleAroundACopy) {
    // A copy of this test program inside Name.app/Contents/MacOS answers for the bundle: run
    // there, this test only prints what it finds.
    char folder[kLPathSize];
    LGetBundleFolder(folder, sizeof(folder));
    if (std::getenv("L_TEST_PRINT_BUNDLE") != nullptr) {
        std::printf("bundle=%s\n", folder);
        return;
    }
    char exe[kLPathSize];
    LGetBundleExeFile(exe, sizeof(exe));
    char resolved[PATH_MAX];
    ASSERT_NE(realpath("/proc/self/exe", resolved), nullptr);
    EXPECT_STREQ(exe, resolved);
    std::string program = fs::path(resolved).parent_path().string();
    EXPECT_EQ(Get(LFile::GetProgramFolderApp), program);
    char small[6];
    LGetBundleExeFile(small, sizeof(small));
    EXPECT_EQ(std::string(small), std::string(resolved).substr(0, 5));
    TempTree tree;
    std::string copy = tree.MakeFolder("Name.app/Contents/MacOS") + "/tests_file";
    std::error_code linked;
    fs::create_hard_link(fs::read_symlink("/proc/self/exe"), copy, linked);
    if (linked) {
        fs::copy_file("/proc/self/exe", copy);
    }
    std::string out = tree.Path("out.txt");
    ASSERT_EQ(std::system(("L_TEST_PRINT_BUNDLE=1 '" + copy +
                           "' --gtest_filter=Bundle.ExecutableFolderAndTheBundleAroundACopy >'" +
                           out + "' 2>/dev/null")
                              .c_str()),
              0);
    EXPECT_NE(ltest::Slurp(out).find("bundle=" + tree.Path("Name.app") + "\n"), std::string::npos);
}

TEST(RecycleBin, XdgTrash) {
    IsolatedHome h;
    EXPECT_TRUE(LFile::IsRecycleBinEmpty());  // no trash folder at all
    h.tree().MakeFile(".local/share/Trash/files/.ds_store");
    EXPECT_TRUE(LFile::IsRecycleBinEmpty());
    h.tree().MakeFile(".local/share/Trash/files/old take.wav");
    EXPECT_FALSE(LFile::IsRecycleBinEmpty());
    std::string data = h.tree().MakeFolder("data");
    EnvOverride d("XDG_DATA_HOME", data);
    EXPECT_TRUE(LFile::IsRecycleBinEmpty());
    h.tree().MakeFolder("data/Trash/files/folder");
    EXPECT_FALSE(LFile::IsRecycleBinEmpty());
}

}  // namespace
