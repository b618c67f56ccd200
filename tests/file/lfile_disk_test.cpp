// Queries that touch the disk, on real temporary trees and a sysfs-shaped one.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <string>
#include <tuple>

#include "file/lfile.h"
#include "file/lfile_platform.h"
#include "file/lknown_folders.h"
#include "temp_tree.h"
#include "tests/thread/child_process.h"

namespace {

using ltest::TempTree;
namespace fs = std::filesystem;

TEST(FileTests, ExistsForAnyKindOfEntryShareBlockedOnlyByAnotherHolder) {
    TempTree tree;
    std::string link = tree.Path("dangling");
    ASSERT_EQ(symlink(tree.Path("nowhere").c_str(), link.c_str()), 0);
    // Neither test checks the kind of the entry, and a link leading nowhere is an entry.
    for (std::string const& path : {tree.MakeFile("a/take.wav"), tree.Path("a/"), link}) {
        EXPECT_TRUE(LFile::TestFileExists(path.c_str())) << path;
        EXPECT_TRUE(LFile::TestFolderExists(path.c_str())) << path;
    }
    EXPECT_FALSE(LFile::TestFileExists(tree.Path("a/missing").c_str()));
    EXPECT_FALSE(LFile::TestFolderExists(tree.Path("missing/x").c_str()));
    EXPECT_FALSE(LFile::TestFileExists(nullptr));
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
    // The probes themselves leave no lock behind.
    EXPECT_EQ(flock(holder, LOCK_EX | LOCK_NB), 0);
    close(holder);
    EXPECT_FALSE(LFile::TestFileShareWriteBlocked(tree.Path("missing").c_str()));
}

TEST(UniqueOrderedFilePath, CountsFromZero) {
    TempTree tree;
    char dst[kLPathSize];
    auto unique = [&] {
        EXPECT_EQ(LFile::MakeUniqueOrderedFilePath(dst, tree.root().c_str(), "take", ".wav"), dst);
        return std::string(dst);
    };
    EXPECT_EQ(unique(), tree.Path("take.wav"));
    tree.MakeFile("take.wav");
    EXPECT_EQ(unique(), tree.Path("take_0.wav"));
    for (char const* taken : {"take_0.wav", "take_1.wav", "take_3.wav"}) {
        tree.MakeFile(taken);
    }
    EXPECT_EQ(unique(), tree.Path("take_2.wav"));
}

TEST(ErrorPredicates, ClassifyErrno) {
    // Not found, exists, denied, sharing violation.
    for (auto [error, expected] :
         {std::pair{EACCES, "0011"}, {EWOULDBLOCK, "0001"}, {EPERM, "0000"}}) {
        errno = error;
        EXPECT_EQ(std::string({char('0' + LFile::IsErrorFileNotFound()),
                               char('0' + LFile::IsErrorAlreadyExists()),
                               char('0' + LFile::IsErrorPermissionDenied()),
                               char('0' + LFile::IsErrorSharingViolation())}),
                  expected)
            << error;
    }
}

// A working directory deeper than a path buffer cannot be read into one.
TEST(CurrentDirectory, DeeperThanAPathBuffer) {
    char original[kLPathSize];
    ASSERT_EQ(LFile::GetCurrentDirectory(original), original);
    TempTree tree;
    std::string deep = tree.root();
    while (deep.size() < 300) {
        deep += "/" + std::string(40, 'd');
    }
    fs::create_directories(deep);
    ASSERT_EQ(chdir(deep.c_str()), 0);
    char now[kLPathSize];
    EXPECT_EQ(LFile::GetCurrentDirectory(now), nullptr);
    ASSERT_EQ(LFile::SetCurrentDirectory(original), 0);
}

std::string Drive(char const* path) {
    char drive[kLPathSize];
    LFile::GetHumanReadableDriveFromPath(drive, path);
    return drive;
}

TEST(HumanReadableDrive, MountPointOrTextForm) {
    TempTree tree;
    std::string file = tree.MakeFile("d/x");
    // The answer is a folder above the file.
    std::string mount = Drive(file.c_str());
    char resolved[PATH_MAX];
    ASSERT_NE(realpath(file.c_str(), resolved), nullptr);
    ASSERT_FALSE(mount.empty());
    EXPECT_EQ(std::string(resolved).rfind(mount == "/" ? "/" : mount + "/", 0), 0u) << mount;
    EXPECT_EQ(Drive("C:\\Music\\x.wav"), "C:\\");
    EXPECT_EQ(Drive("/no/such/volume"), "/");
    EXPECT_EQ(Drive("C:/x"), "");
}

TEST(SizeFormattedBytes, LargestUnitTruncated) {
    for (auto [bytes, text] : {std::pair{1023ULL, "1023 Bytes"},
                               {(1ULL << 20) - 1, "1023 KB"},
                               {~0ULL, "16777215 TB"}}) {
        char dst[kLPathSize];
        LFile::GetSizeFormattedBytes(bytes, dst);
        EXPECT_STREQ(dst, text) << bytes;
    }
}

TEST(Volumes, SizeLimitsLocalAndNetworkTypesDeviceValuesAndWritableDrives) {
    // "msdos" is unlimited by name alone; only the mapping below makes it FAT32.
    std::pair<char const*, int> const limits[] = {{"fat16b", 1}, {"FAT16", 0}, {"msdos", 2},
                                                  {"FAT32X", 2}, {"", 2},      {nullptr, 2}};
    for (auto [name, limit] : limits) {
        EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName(name), limit)
            << (name ? name : "null");
    }
    for (auto [kernel, name] : {std::pair{"vfat", "FAT32"}, {"ntfs3", "NTFS"}, {"ext4", "ext4"}}) {
        EXPECT_STREQ(_LMapFileSystemTypeName(kernel), name);
    }
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName(_LMapFileSystemTypeName("msdos")), 1);
    TempTree tree;
    LMountInfo mount;
    ASSERT_TRUE(_LFindMountForPath(tree.root().c_str(), mount));
    int expected =
        LFile::_GetVolumeFileSizeLimitFromTypeName(_LMapFileSystemTypeName(mount.fsType.c_str()));
    EXPECT_EQ(LFile::GetVolumeFileSizeLimit(tree.root().c_str()), expected);
    char name[kLPathSize];
    EXPECT_TRUE(_LGetFileSystemTypeName("/proc", name, sizeof(name)));
    EXPECT_STREQ(name, "proc");
    EXPECT_FALSE(_LGetFileSystemTypeName(tree.Path("missing").c_str(), name, sizeof(name)));
    EXPECT_STREQ(name, "");
    EXPECT_EQ(LFile::GetVolumeFileSizeLimit(nullptr), 2);
    char const* root = tree.root().c_str();
    bool local = false;
    ASSERT_TRUE(LGetNSURLResourceValue(root, LURLResourceKey::VolumeIsLocal, &local));
    EXPECT_EQ(LFile::IsNetworkPath(root), !local);
    EXPECT_EQ(LFile::IsOnLocalDrive(root), local);
    // /proc has no block device: the device values cannot be read and the tests say no.
    bool value = false;
    EXPECT_FALSE(LGetNSURLResourceValue("/proc", LURLResourceKey::VolumeIsInternal, &value));
    EXPECT_FALSE(LFile::IsOnExternalDrive("/proc"));
    EXPECT_FALSE(LFile::IsOnRemovableMedia("/proc"));
    std::string missing = tree.Path("missing");
    EXPECT_FALSE(LFile::IsNetworkPath(missing.c_str()));
    EXPECT_TRUE(LFile::IsOnLocalDrive(missing.c_str()));
    EXPECT_TRUE(_LIsNetworkFileSystemType("nfs4"));
    EXPECT_TRUE(_LIsNetworkFileSystemType("fuse.sshfs"));
    EXPECT_FALSE(_LIsNetworkFileSystemType("fuse"));
    // The folder the tests write into is on one.
    EXPECT_GE(LFile::GetNumberOfWritableDrives(), 1);
}

TEST(MountTable, ParsedAndSearchedForTheDeepestMountAboveAPathEvenInAChroot) {
    LMountInfo m;
    ASSERT_TRUE(_LParseMountInfoLine(
        "36 35 98:0 /mnt1 /media/my\\040disk rw,noatime master:1 shared:2 - vfat /dev/sdb1 rw", m));
    EXPECT_EQ(std::to_string(m.major) + ":" + std::to_string(m.minor) + " " + m.mountPoint + " " +
                  m.fsType + " " + m.source,
              "98:0 /media/my disk vfat /dev/sdb1");
    EXPECT_FALSE(_LParseMountInfoLine("21 26 0:20 / /proc rw,relatime proc proc rw", m));
    EXPECT_FALSE(_LParseMountInfoLine("21 26 020 / /proc rw - proc proc rw", m));
    // The deepest mount above a path answers for it.
    ASSERT_TRUE(_LFindMountForPath("/proc/self/status", m));
    EXPECT_EQ(m.mountPoint, "/proc");
    EXPECT_FALSE(_LFindMountForPath("/no/such/path", m));
    // Where "/" is not a mount point (a chroot into a plain folder) the mount table lists no
    // mount above most paths; the lookup still finds the mount holding them. Run in a child with
    // a private mount namespace, so nothing mounted here reaches the machine.
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to chroot and mount";
    }
    TempTree tree;
    LMountInfo outside;
    ASSERT_TRUE(_LFindMountForPath(tree.root().c_str(), outside));
    tree.MakeFolder("proc");
    tree.MakeFolder("sub/deeper");
    pid_t child = ltest::ForkChild([&] {
        if (!ltest::UnshareMountsPrivately() ||
            mount("proc", tree.Path("proc").c_str(), "proc", 0, nullptr) != 0 ||
            chroot(tree.root().c_str()) != 0 || chdir("/") != 0) {
            return 2;
        }
        using Case = std::tuple<char const*, char const*, std::string>;
        for (auto const& [path, mountPoint, fsType] : {Case{"/", "/", outside.fsType},
                                                       {"/sub/deeper", "/", outside.fsType},
                                                       {"/proc/self", "/proc", "proc"}}) {
            LMountInfo found;
            if (!_LFindMountForPath(path, found) || found.mountPoint != mountPoint ||
                found.fsType != fsType) {
                return 1;
            }
        }
        return 0;
    });
    EXPECT_EQ(ltest::WaitChild(child), 0);
}

TEST(BlockDeviceFlags, FromSysfsTree) {
    // A sysfs-shaped tree: dev/block/M:m links into devices/..., as the kernel lays it out;
    // a partition is a folder with a "partition" file inside its disk's folder.
    TempTree sys;
    auto add = [&](std::string const& device, char const* dev, char const* removable) {
        if (removable != nullptr) {
            sys.MakeFile(device + "/removable", std::string(removable) + "\n");
        } else {
            sys.MakeFile(device + "/partition", "1\n");
        }
        fs::create_directories(sys.Path("dev/block"));
        fs::create_symlink("../../" + device, sys.Path(std::string("dev/block/") + dev));
    };
    std::string pci = "devices/pci0000:00/";
    std::string usbStick = pci + "0000:00:14.0/usb2/2-1/2-1:1.0/host6/block/sdb";
    std::string nvme = pci + "0000:00:1d.0/nvme/nvme0/nvme0n1";
    add(usbStick, "8:16", "1");
    add(usbStick + "/sdb1", "8:17", nullptr);
    add(nvme, "259:0", "0");
    add(nvme + "/nvme0n1p2", "259:2", nullptr);
    add(pci + "0000:00:1c.0/mmc_host/mmc0/block/mmcblk0", "179:0", "1");
    for (auto [major, minor, isRemovable, isInternal] :
         {std::tuple{8u, 17u, true, false},  // a partition answers for its USB disk
          {259u, 2u, false, true},
          {179u, 0u, true, true}}) {
        SCOPED_TRACE(std::to_string(major) + ":" + std::to_string(minor));
        bool removable = !isRemovable;
        bool internal = !isInternal;
        ASSERT_TRUE(
            _LReadBlockDeviceFlags(sys.root().c_str(), major, minor, &removable, &internal));
        EXPECT_EQ(removable, isRemovable);
        EXPECT_EQ(internal, isInternal);
    }
    bool removable, internal;
    EXPECT_FALSE(_LReadBlockDeviceFlags(sys.root().c_str(), 8, 48, &removable, &internal));
}

// The immutable flag is read without opening the file: a caller who may look the path up but
// not read the file still gets the answer.
TEST(FileLocked, ImmutableFlagReadWithoutOpeningTheFile) {
    TempTree tree;
    std::string file = tree.MakeFile("take.wav");
    ASSERT_EQ(chmod(tree.root().c_str(), 0711), 0);
    ASSERT_EQ(chmod(file.c_str(), 0), 0);
    EXPECT_FALSE(LFile::TestFileLocked(file.c_str()));
    EXPECT_FALSE(LFile::TestFileLocked(tree.Path("missing").c_str()));
    if (!ltest::SetImmutable(file, true)) {
        GTEST_SKIP() << "no inode flags here, or no right to set the immutable one";
    }
    EXPECT_TRUE(LFile::TestFileLocked(file.c_str()));
    if (geteuid() == 0) {  // as another user too
        EXPECT_EQ(ltest::WaitChild(ltest::ForkChild([&] {
                      return setuid(65534) == 0 && LFile::TestFileLocked(file.c_str()) ? 0 : 1;
                  })),
                  0);
    }
    ASSERT_TRUE(ltest::SetImmutable(file, false));  // so that the tree can be removed
    EXPECT_FALSE(LFile::TestFileLocked(file.c_str()));
}

}  // namespace
