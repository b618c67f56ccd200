// Volume queries: the mount table, block-device flags read from a sysfs-shaped tree built
// in a temporary folder, the size-limit classes, immutable files and byte counts.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "file/lfile.h"
#include "file/lfile_platform.h"
#include "file/lspecial_folders.h"
#include "temp_tree.h"

namespace {

using ltest::TempTree;
namespace fs = std::filesystem;

std::string Size(unsigned long long bytes) {
    char dst[kLPathSize];
    LFile::GetSizeFormattedBytes(bytes, dst);
    return dst;
}

TEST(SizeFormattedBytes, LargestUnitTruncated) {
    EXPECT_EQ(Size(0), "0 Bytes");
    EXPECT_EQ(Size(1023), "1023 Bytes");
    EXPECT_EQ(Size(1024), "1 KB");
    EXPECT_EQ(Size(1536), "1 KB");
    EXPECT_EQ(Size((1ULL << 20) - 1), "1023 KB");
    EXPECT_EQ(Size(5ULL << 20), "5 MB");
    EXPECT_EQ(Size((3ULL << 30) + (1ULL << 29)), "3 GB");
    EXPECT_EQ(Size(1ULL << 40), "1 TB");
    EXPECT_EQ(Size(~0ULL), "16777215 TB");
}

TEST(VolumeFileSizeLimit, TypeNameClasses) {
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName("fat32"), 1);
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName("FAT32"), 1);
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName("fat16b"), 1);
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName("FAT16"), 0);
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName("fat12"), 0);
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName("Fat"), 0);
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName("NTFS"), 2);
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName("exfat"), 2);
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName("msdos"), 2);  // by name alone
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName("FAT32X"), 2);
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName("ext4"), 2);
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName(""), 2);
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName(nullptr), 2);
}

TEST(VolumeFileSizeLimit, KernelNamesMapped) {
    EXPECT_STREQ(_LMapFileSystemTypeName("vfat"), "FAT32");
    EXPECT_STREQ(_LMapFileSystemTypeName("msdos"), "FAT32");
    EXPECT_STREQ(_LMapFileSystemTypeName("exfat"), "exFAT");
    EXPECT_STREQ(_LMapFileSystemTypeName("ntfs3"), "NTFS");
    EXPECT_STREQ(_LMapFileSystemTypeName("ntfs"), "NTFS");
    EXPECT_STREQ(_LMapFileSystemTypeName("ext4"), "ext4");
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName(_LMapFileSystemTypeName("msdos")), 1);
    EXPECT_EQ(LFile::_GetVolumeFileSizeLimitFromTypeName(_LMapFileSystemTypeName("vfat")), 1);
}

TEST(VolumeFileSizeLimit, RealPaths) {
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
    EXPECT_EQ(LFile::GetVolumeFileSizeLimit(tree.Path("missing").c_str()), 2);
    EXPECT_EQ(LFile::GetVolumeFileSizeLimit(nullptr), 2);
}

TEST(MountTable, ParsesLines) {
    LMountInfo m;
    ASSERT_TRUE(_LParseMountInfoLine(
        "36 35 98:0 /mnt1 /media/my\\040disk rw,noatime master:1 shared:2 - vfat /dev/sdb1 rw", m));
    EXPECT_EQ(m.major, 98u);
    EXPECT_EQ(m.minor, 0u);
    EXPECT_EQ(m.mountPoint, "/media/my disk");
    EXPECT_EQ(m.fsType, "vfat");
    EXPECT_EQ(m.source, "/dev/sdb1");
    ASSERT_TRUE(_LParseMountInfoLine("21 26 0:20 / /proc rw,relatime - proc proc rw", m));
    EXPECT_EQ(m.mountPoint, "/proc");
    EXPECT_EQ(m.fsType, "proc");
    EXPECT_FALSE(_LParseMountInfoLine("21 26 0:20 / /proc rw,relatime proc proc rw", m));
    EXPECT_FALSE(_LParseMountInfoLine("21 26 020 / /proc rw - proc proc rw", m));
    EXPECT_FALSE(_LParseMountInfoLine("", m));
    EXPECT_FALSE(_LReadMountTable().empty());
}

TEST(MountTable, DeepestMountAbovePath) {
    LMountInfo m;
    ASSERT_TRUE(_LFindMountForPath("/proc/self/status", m));
    EXPECT_EQ(m.mountPoint, "/proc");
    ASSERT_TRUE(_LFindMountForPath("/", m));
    EXPECT_EQ(m.mountPoint, "/");
    EXPECT_FALSE(_LFindMountForPath("/no/such/path", m));
}

// A sysfs-shaped tree: dev/block/M:m links into devices/..., as the kernel lays it out.
class FakeSysfs {
public:
    void AddDisk(std::string const& devicePath, char const* dev, char const* removable) {
        fs::create_directories(tree_.Path(devicePath));
        tree_.MakeFile(devicePath + "/removable", std::string(removable) + "\n");
        Link(devicePath, dev);
    }
    void AddPartition(std::string const& diskPath, char const* name, char const* dev) {
        std::string part = diskPath + "/" + name;
        tree_.MakeFile(part + "/partition", "1\n");
        Link(part, dev);
    }
    char const* root() const { return tree_.root().c_str(); }

private:
    void Link(std::string const& devicePath, char const* dev) {
        fs::create_directories(tree_.Path("dev/block"));
        fs::create_symlink("../../" + devicePath, tree_.Path(std::string("dev/block/") + dev));
    }
    TempTree tree_;
};

TEST(BlockDeviceFlags, FromSysfsTree) {
    FakeSysfs sys;
    std::string usbStick = "devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host6/block/sdb";
    std::string usbDisk = "devices/pci0000:00/0000:00:14.0/usb2/2-2/2-2:1.0/host7/block/sdc";
    std::string nvme = "devices/pci0000:00/0000:00:1d.0/nvme/nvme0/nvme0n1";
    std::string cardReader = "devices/pci0000:00/0000:00:1c.0/mmc_host/mmc0/block/mmcblk0";
    sys.AddDisk(usbStick, "8:16", "1");
    sys.AddPartition(usbStick, "sdb1", "8:17");
    sys.AddDisk(usbDisk, "8:32", "0");
    sys.AddDisk(nvme, "259:0", "0");
    sys.AddPartition(nvme, "nvme0n1p2", "259:2");
    sys.AddDisk(cardReader, "179:0", "1");

    bool removable = false;
    bool internal = false;
    ASSERT_TRUE(_LReadBlockDeviceFlags(sys.root(), 8, 17, &removable, &internal));
    EXPECT_TRUE(removable);
    EXPECT_FALSE(internal);
    ASSERT_TRUE(_LReadBlockDeviceFlags(sys.root(), 8, 32, &removable, &internal));
    EXPECT_FALSE(removable);
    EXPECT_FALSE(internal);
    ASSERT_TRUE(_LReadBlockDeviceFlags(sys.root(), 259, 2, &removable, &internal));
    EXPECT_FALSE(removable);
    EXPECT_TRUE(internal);
    ASSERT_TRUE(_LReadBlockDeviceFlags(sys.root(), 179, 0, &removable, &internal));
    EXPECT_TRUE(removable);
    EXPECT_TRUE(internal);
    EXPECT_FALSE(_LReadBlockDeviceFlags(sys.root(), 8, 48, &removable, &internal));
}

TEST(VolumeTests, LocalTreeAndUnreadablePaths) {
    TempTree tree;
    char const* root = tree.root().c_str();
    bool local = false;
    ASSERT_TRUE(LGetNSURLResourceValue(root, LURLResourceKey::VolumeIsLocal, &local));
    EXPECT_EQ(LFile::IsNetworkPath(root), !local);
    EXPECT_EQ(LFile::IsOnLocalDrive(root), local);

    // /proc has no block device: the device values cannot be read and the tests say no.
    bool value = false;
    EXPECT_TRUE(LGetNSURLResourceValue("/proc", LURLResourceKey::VolumeIsLocal, &value));
    EXPECT_TRUE(value);
    EXPECT_FALSE(LGetNSURLResourceValue("/proc", LURLResourceKey::VolumeIsInternal, &value));
    EXPECT_FALSE(LGetNSURLResourceValue("/proc", LURLResourceKey::VolumeIsRemovable, &value));
    EXPECT_FALSE(LFile::IsOnExternalDrive("/proc"));
    EXPECT_FALSE(LFile::IsOnRemovableMedia("/proc"));

    std::string missing = tree.Path("missing");
    EXPECT_FALSE(LGetNSURLResourceValue(missing.c_str(), LURLResourceKey::VolumeIsLocal, &value));
    EXPECT_FALSE(LFile::IsNetworkPath(missing.c_str()));
    EXPECT_TRUE(LFile::IsOnLocalDrive(missing.c_str()));
    EXPECT_FALSE(LFile::IsOnExternalDrive(missing.c_str()));
    EXPECT_FALSE(LFile::IsOnRemovableMedia(missing.c_str()));
    EXPECT_FALSE(LFile::IsNetworkPath(nullptr));
}

TEST(VolumeTests, NetworkTypes) {
    EXPECT_TRUE(_LIsNetworkFileSystemType("nfs4"));
    EXPECT_TRUE(_LIsNetworkFileSystemType("cifs"));
    EXPECT_TRUE(_LIsNetworkFileSystemType("fuse.sshfs"));
    EXPECT_FALSE(_LIsNetworkFileSystemType("ext4"));
    EXPECT_FALSE(_LIsNetworkFileSystemType("fuse"));
    EXPECT_TRUE(_LIsNetworkFileSystemMagic(0x6969));
    EXPECT_TRUE(_LIsNetworkFileSystemMagic(0xff534d42));
    EXPECT_FALSE(_LIsNetworkFileSystemMagic(0xef53));  // ext4
}

TEST(VolumeTests, WritableDrives) {
    int count = LFile::GetNumberOfWritableDrives();
    EXPECT_GE(count, 1);  // the folder the tests write into is on one
    EXPECT_LE(static_cast<size_t>(count), _LReadMountTable().size());
}

TEST(FileLocked, ImmutableFlag) {
    TempTree tree;
    std::string file = tree.MakeFile("take.wav");
    EXPECT_FALSE(LFile::TestFileLocked(file.c_str()));
    EXPECT_FALSE(LFile::TestFileLocked(tree.Path("missing").c_str()));

    int fd = open(file.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    int flags = 0;
    if (ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) {
        close(fd);
        GTEST_SKIP() << "the file system has no inode flags";
    }
    int locked = flags | FS_IMMUTABLE_FL;
    if (ioctl(fd, FS_IOC_SETFLAGS, &locked) != 0) {
        close(fd);
        GTEST_SKIP() << "no right to set the immutable flag here";
    }
    EXPECT_TRUE(LFile::TestFileLocked(file.c_str()));
    ioctl(fd, FS_IOC_SETFLAGS, &flags);  // so that the tree can be removed
    close(fd);
    EXPECT_FALSE(LFile::TestFileLocked(file.c_str()));
}

}  // namespace
