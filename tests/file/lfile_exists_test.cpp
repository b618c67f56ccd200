// Existence and share-lock tests, unique names, error predicates, the working directory and
// the drive of a path, on real temporary trees.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

#include "file/lfile.h"
#include "temp_tree.h"

namespace {

using ltest::TempTree;

TEST(Exists, AnyKindOfEntry) {
    TempTree tree;
    std::string file = tree.MakeFile("a/take.wav");
    std::string folder = tree.Path("a");
    EXPECT_TRUE(LFile::TestFileExists(file.c_str()));
    EXPECT_TRUE(LFile::TestFolderExists(folder.c_str()));
    // Neither test checks the kind of the entry.
    EXPECT_TRUE(LFile::TestFolderExists(file.c_str()));
    EXPECT_TRUE(LFile::TestFileExists(folder.c_str()));
    EXPECT_TRUE(LFile::TestFileExists((folder + "/").c_str()));

    EXPECT_FALSE(LFile::TestFileExists(tree.Path("a/missing").c_str()));
    EXPECT_FALSE(LFile::TestFolderExists(tree.Path("missing/x").c_str()));
    EXPECT_FALSE(LFile::TestFileExists(""));
    EXPECT_FALSE(LFile::TestFolderExists(""));
    EXPECT_FALSE(LFile::TestFileExists(nullptr));
    // A path through a file is refused by both the access test and the lookup.
    EXPECT_FALSE(LFile::TestFileExists((file + "/x").c_str()));
}

TEST(Exists, LinkThatLeadsNowhereIsStillAnEntry) {
    TempTree tree;
    std::string link = tree.Path("dangling");
    ASSERT_EQ(symlink(tree.Path("nowhere").c_str(), link.c_str()), 0);
    EXPECT_TRUE(LFile::TestFileExists(link.c_str()));
    EXPECT_TRUE(LFile::TestFolderExists(link.c_str()));
}

TEST(ShareBlocked, OnlyWhenAnotherHolderHasALock) {
    TempTree tree;
    std::string file = tree.MakeFile("locked.dat");
    EXPECT_FALSE(LFile::TestFileShareWriteBlocked(file.c_str()));
    EXPECT_FALSE(LFile::TestFileShareReadBlocked(file.c_str()));

    int holder = open(file.c_str(), O_RDONLY);
    ASSERT_GE(holder, 0);
    ASSERT_EQ(flock(holder, LOCK_SH), 0);
    // A shared lock blocks the exclusive request of both tests.
    EXPECT_TRUE(LFile::TestFileShareWriteBlocked(file.c_str()));
    EXPECT_TRUE(LFile::TestFileShareReadBlocked(file.c_str()));
    ASSERT_EQ(flock(holder, LOCK_UN), 0);
    EXPECT_FALSE(LFile::TestFileShareWriteBlocked(file.c_str()));
    close(holder);

    // The probes themselves leave no lock behind.
    int again = open(file.c_str(), O_RDONLY);
    ASSERT_GE(again, 0);
    EXPECT_EQ(flock(again, LOCK_EX | LOCK_NB), 0);
    close(again);

    EXPECT_FALSE(LFile::TestFileShareWriteBlocked(tree.Path("missing").c_str()));
}

TEST(UniqueOrderedFilePath, CountsFromZero) {
    TempTree tree;
    char dst[kLPathSize];
    std::string expected = tree.Path("take.wav");
    EXPECT_EQ(LFile::MakeUniqueOrderedFilePath(dst, tree.root().c_str(), "take", ".wav"), dst);
    EXPECT_EQ(std::string(dst), expected);

    tree.MakeFile("take.wav");
    LFile::MakeUniqueOrderedFilePath(dst, tree.root().c_str(), "take", ".wav");
    EXPECT_EQ(std::string(dst), tree.Path("take_0.wav"));

    tree.MakeFile("take_0.wav");
    tree.MakeFile("take_1.wav");
    tree.MakeFile("take_3.wav");
    LFile::MakeUniqueOrderedFilePath(dst, tree.root().c_str(), "take", ".wav");
    EXPECT_EQ(std::string(dst), tree.Path("take_2.wav"));
}

TEST(ErrorPredicates, ClassifyErrno) {
    errno = ENOENT;
    EXPECT_TRUE(LFile::IsErrorFileNotFound());
    EXPECT_FALSE(LFile::IsErrorAlreadyExists());
    errno = EEXIST;
    EXPECT_TRUE(LFile::IsErrorAlreadyExists());
    errno = EACCES;
    EXPECT_TRUE(LFile::IsErrorPermissionDenied());
    EXPECT_TRUE(LFile::IsErrorSharingViolation());
    errno = EWOULDBLOCK;
    EXPECT_TRUE(LFile::IsErrorSharingViolation());
    EXPECT_FALSE(LFile::IsErrorPermissionDenied());
    errno = EPERM;
    EXPECT_FALSE(LFile::IsErrorSharingViolation());
    EXPECT_FALSE(LFile::IsErrorPermissionDenied());

    // The predicates read what a failed call really left behind.
    TempTree tree;
    std::string file = tree.MakeFile("x");
    EXPECT_NE(mkdir(file.c_str(), 0777), 0);
    EXPECT_TRUE(LFile::IsErrorAlreadyExists());
    EXPECT_LT(open(tree.Path("none").c_str(), O_RDONLY), 0);
    EXPECT_TRUE(LFile::IsErrorFileNotFound());
}

TEST(CurrentDirectory, RoundTrip) {
    char original[kLPathSize];
    ASSERT_NE(LFile::GetCurrentDirectory(original), nullptr);
    TempTree tree;
    char resolved[PATH_MAX];
    ASSERT_NE(realpath(tree.root().c_str(), resolved), nullptr);
    EXPECT_EQ(LFile::SetCurrentDirectory(tree.root().c_str()), 0);
    char now[kLPathSize];
    EXPECT_EQ(LFile::GetCurrentDirectory(now), now);
    EXPECT_STREQ(now, resolved);
    EXPECT_NE(LFile::SetCurrentDirectory(tree.Path("missing").c_str()), 0);
    EXPECT_EQ(LFile::SetCurrentDirectory(original), 0);

    // A working directory deeper than a path buffer cannot be read into one.
    std::string deep = tree.root();
    while (deep.size() < 300) {
        deep += "/" + std::string(40, 'd');
    }
    std::filesystem::create_directories(deep);
    ASSERT_EQ(chdir(deep.c_str()), 0);
    EXPECT_EQ(LFile::GetCurrentDirectory(now), nullptr);
    ASSERT_EQ(LFile::SetCurrentDirectory(original), 0);
}

TEST(HumanReadableDrive, MountPointOrTextForm) {
    TempTree tree;
    std::string file = tree.MakeFile("d/x");
    char drive[kLPathSize];
    LFile::GetHumanReadableDriveFromPath(drive, file.c_str());
    // The answer is a folder above the file on the same device.
    char resolved[PATH_MAX];
    ASSERT_NE(realpath(file.c_str(), resolved), nullptr);
    std::string mount(drive);
    ASSERT_FALSE(mount.empty());
    EXPECT_EQ(std::string(resolved).rfind(mount == "/" ? "/" : mount + "/", 0), 0u) << mount;
    struct stat a, b;
    ASSERT_EQ(stat(drive, &a), 0);
    ASSERT_EQ(stat(file.c_str(), &b), 0);
    EXPECT_EQ(a.st_dev, b.st_dev);

    LFile::GetHumanReadableDriveFromPath(drive, "/proc/self/status");
    EXPECT_STREQ(drive, "/proc");

    LFile::GetHumanReadableDriveFromPath(drive, "C:\\Music\\x.wav");
    EXPECT_STREQ(drive, "C:\\");
    LFile::GetHumanReadableDriveFromPath(drive, "Disk2:\\x");
    EXPECT_STREQ(drive, "Disk2:\\");
    LFile::GetHumanReadableDriveFromPath(drive, "/no/such/volume");
    EXPECT_STREQ(drive, "/");
    LFile::GetHumanReadableDriveFromPath(drive, "C:/x");
    EXPECT_STREQ(drive, "");
    LFile::GetHumanReadableDriveFromPath(drive, "relative/x");
    EXPECT_STREQ(drive, "");
}

}  // namespace
