// The Linux sources of volume facts: the mount table (/proc/self/mountinfo), file-system
// statistics (statfs, statvfs), block-device attributes in sysfs and inode attributes (statx).
//
// A path's volume is the mount table's entry with the path's mount id (statx), so bind
// mounts and overmounts answer for the file system really holding the path, and a chroot
// whose root is no mount point still finds the mount its paths lie on. Anything that cannot
// be read answers "unknown" (false), never a guess.
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "file/lfile.h"
#include "file/lfile_platform.h"
#include "file/lknown_folders.h"
#include "platform/lsmall_file.h"

namespace {

// The mount table escapes blanks, tabs, newlines and backslashes as three octal digits.
std::string DecodeMountField(std::string_view field) {
    std::string out;
    out.reserve(field.size());
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' &&
            field[i + 1] <= '3' && field[i + 2] >= '0' && field[i + 2] <= '7' &&
            field[i + 3] >= '0' && field[i + 3] <= '7') {
            out.push_back(static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                                            (field[i + 3] - '0')));
            i += 3;
        } else {
            out.push_back(field[i]);
        }
    }
    return out;
}

// Splits off the next blank-separated field; empty when none is left.
std::string_view NextField(std::string_view& rest) {
    size_t start = rest.find_first_not_of(' ');
    if (start == std::string_view::npos) {
        rest = {};
        return {};
    }
    rest.remove_prefix(start);
    size_t end = rest.find(' ');
    std::string_view field = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end);
    return field;
}

bool ParseUnsigned(std::string_view text, unsigned int& value) {
    if (text.empty() || text.size() > 9) {
        return false;
    }
    unsigned int v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        v = v * 10 + static_cast<unsigned int>(c - '0');
    }
    value = v;
    return true;
}

// True when folder is path itself or one of its ancestors (both absolute and resolved).
bool IsMountPointAbove(std::string_view folder, std::string_view path) {
    if (folder == "/") {
        return true;
    }
    return path.substr(0, folder.size()) == folder &&
           (path.size() == folder.size() || path[folder.size()] == '/');
}

bool ReadFirstLine(std::string const& file, std::string& line) {
    if (!_LReadWholeFile(file.c_str(), line, 4096) || line.empty()) {
        return false;
    }
    line.resize(std::min(line.find('\n'), line.size()));
    return true;
}

}  // namespace

bool _LParseMountInfoLine(std::string_view line, LMountInfo& out) {
    // id parent major:minor root mount-point options [optional...] - type source super
    std::string_view rest = line;
    std::string_view id = NextField(rest);
    NextField(rest);  // parent id
    std::string_view dev = NextField(rest);
    NextField(rest);  // root inside the file system
    std::string_view mountPoint = NextField(rest);
    NextField(rest);  // per-mount options
    std::string_view field;
    do {
        field = NextField(rest);
    } while (!field.empty() && field != "-");
    if (field != "-") {
        return false;
    }
    std::string_view fsType = NextField(rest);
    std::string_view source = NextField(rest);
    size_t colon = dev.find(':');
    if (colon == std::string_view::npos || mountPoint.empty() || fsType.empty() ||
        !ParseUnsigned(id, out.mountId) || !ParseUnsigned(dev.substr(0, colon), out.major) ||
        !ParseUnsigned(dev.substr(colon + 1), out.minor)) {
        return false;
    }
    out.mountPoint = DecodeMountField(mountPoint);
    out.fsType = DecodeMountField(fsType);
    out.source = DecodeMountField(source);
    return true;
}

namespace {

std::vector<LMountInfo> ReadMountTableFrom(char const* file) {
    std::vector<LMountInfo> mounts;
    std::string text;
    _LReadWholeFile(file, text);
    _LForEachLine(text, [&](std::string_view line) {
        LMountInfo m;
        if (_LParseMountInfoLine(line, m)) {
            mounts.push_back(std::move(m));
        }
    });
    return mounts;
}

}  // namespace

std::vector<LMountInfo> _LReadMountTable() {
    return ReadMountTableFrom("/proc/self/mountinfo");
}

namespace {

// The mount a path lies on: its mount id where the kernel reports one, else its device.
struct MountKey {
    bool haveId = false;
    uint64_t id = 0;
    dev_t device = 0;

    bool Read(char const* path) {
        struct statx st;
        if (statx(AT_FDCWD, path, AT_STATX_SYNC_AS_STAT, STATX_MNT_ID, &st) != 0) {
            return false;
        }
        haveId = (st.stx_mask & STATX_MNT_ID) != 0;
        id = st.stx_mnt_id;
        device = makedev(st.stx_dev_major, st.stx_dev_minor);
        return true;
    }
    bool operator==(MountKey const& other) const {
        return haveId && other.haveId ? id == other.id : device == other.device;
    }
};

// The highest folder above the resolved path that still lies on the path's mount: the mount
// point as this process sees it when the real one is outside its root.
std::string TopOfMount(std::string path, MountKey const& key) {
    while (path != "/") {
        size_t slash = path.rfind('/');
        std::string parent = slash == 0 ? "/" : path.substr(0, slash);
        MountKey above;
        if (!above.Read(parent.c_str()) || !(above == key)) {
            break;
        }
        path = std::move(parent);
    }
    return path;
}

LMountInfo const* FindById(std::vector<LMountInfo> const& table, uint64_t id) {
    for (LMountInfo const& m : table) {
        if (m.mountId == id) {
            return &m;
        }
    }
    return nullptr;
}

LMountInfo const* FindByDevice(std::vector<LMountInfo> const& table, unsigned int major,
                               unsigned int minor) {
    for (LMountInfo const& m : table) {
        if (m.major == major && m.minor == minor) {
            return &m;
        }
    }
    return nullptr;
}

// _LFindMountForPath over a mount table already read; a null table is read here, once the
// path is known to exist.
bool FindMountIn(char const* path, std::vector<LMountInfo> const* table, LMountInfo& out) {
    struct stat st;
    char resolved[PATH_MAX];
    MountKey key;
    if (path == nullptr || stat(path, &st) != 0 || realpath(path, resolved) == nullptr ||
        !key.Read(resolved)) {
        return false;
    }
    std::string_view target(resolved);
    unsigned int major = ::major(st.st_dev);
    unsigned int minor = ::minor(st.st_dev);
    std::vector<LMountInfo> read;
    if (table == nullptr) {
        read = _LReadMountTable();
        table = &read;
    }
    if (key.haveId) {
        if (LMountInfo const* m = FindById(*table, key.id)) {
            out = *m;
            return true;
        }
    } else {
        // Later entries are mounted over earlier ones at the same place, so ties go to the
        // later.
        LMountInfo const* best = nullptr;
        bool bestOwnDevice = false;
        for (LMountInfo const& m : *table) {
            if (!IsMountPointAbove(m.mountPoint, target)) {
                continue;
            }
            bool ownDevice = m.major == major && m.minor == minor;
            if (best == nullptr || (ownDevice && !bestOwnDevice) ||
                (ownDevice == bestOwnDevice && m.mountPoint.size() >= best->mountPoint.size())) {
                best = &m;
                bestOwnDevice = ownDevice;
            }
        }
        if (best != nullptr) {
            out = *best;
            return true;
        }
    }
    // The mount is not in this process's table: its mount point lies outside the process's
    // root. The init process's table shows it (by id in the same mount namespace, by device
    // in another); this one may show another mount of the same device.
    std::vector<LMountInfo> const init = ReadMountTableFrom("/proc/1/mountinfo");
    LMountInfo const* described = key.haveId ? FindById(init, key.id) : nullptr;
    if (described != nullptr && (described->major != major || described->minor != minor)) {
        described = nullptr;  // an id of another namespace
    }
    if (described == nullptr) {
        described = FindByDevice(*table, major, minor);
    }
    if (described == nullptr) {
        described = FindByDevice(init, major, minor);
    }
    out = described != nullptr ? *described : LMountInfo{};
    out.mountId = static_cast<unsigned int>(key.id);
    out.major = major;
    out.minor = minor;
    out.mountPoint = TopOfMount(resolved, key);
    return true;
}

// Whether the volume holding path, whose statistics report magic, keeps its data on another
// machine.
bool IsNetworkVolume(char const* path, unsigned long magic, std::vector<LMountInfo> const* table) {
    if (_LIsNetworkFileSystemMagic(magic)) {
        return true;
    }
    LMountInfo m;
    return FindMountIn(path, table, m) && _LIsNetworkFileSystemType(m.fsType);
}

}  // namespace

bool _LFindMountForPath(char const* path, LMountInfo& out) {
    return FindMountIn(path, nullptr, out);
}

bool _LGetMountPointOfPath(char const* path, char* dst) {
    LMountInfo m;
    if (!_LFindMountForPath(path, m)) {
        return false;
    }
    _LCopyCut(dst, m.mountPoint, kLPathSize);
    return true;
}

char const* _LMapFileSystemTypeName(char const* kernelName) {
    struct Entry {
        char const* kernel;
        char const* name;
    };
    static constexpr Entry kNames[] = {
        {"msdos", "FAT32"}, {"vfat", "FAT32"}, {"exfat", "exFAT"},
        {"ntfs", "NTFS"},   {"ntfs3", "NTFS"},
    };
    for (Entry const& e : kNames) {
        if (strcmp(kernelName, e.kernel) == 0) {
            return e.name;
        }
    }
    return kernelName;
}

bool _LGetFileSystemTypeName(char const* path, char* dst, size_t size) {
    _LCopyCut(dst, "", size);
    struct statfs sfs;
    if (path == nullptr || statfs(path, &sfs) != 0) {
        return false;
    }
    LMountInfo m;
    if (_LFindMountForPath(path, m)) {
        _LCopyCut(dst, _LMapFileSystemTypeName(m.fsType.c_str()), size);
        return true;
    }
    // No mount table (an unusual sandbox): the statistics' magic still names the kinds the
    // size-limit table cares about.
    switch (static_cast<unsigned long>(sfs.f_type)) {
        case 0x4d44:  // MSDOS_SUPER_MAGIC
            _LCopyCut(dst, "FAT32", size);
            return true;
        case 0x2011bab0:  // exFAT
            _LCopyCut(dst, "exFAT", size);
            return true;
        case 0x5346544e:  // NTFS_SB_MAGIC
        case 0x7366746e:  // ntfs3
            _LCopyCut(dst, "NTFS", size);
            return true;
        default:
            return true;  // readable, but nameless: classified as no known limit
    }
}

bool _LIsNetworkFileSystemMagic(unsigned long magic) {
    static constexpr unsigned long kMagics[] = {
        0x6969,      // NFS
        0x517b,      // SMB
        0xff534d42,  // CIFS
        0xfe534d42,  // SMB2
        0x73757245,  // Coda
        0x5346414f,  // AFS (OpenAFS)
        0x6b414653,  // AFS (kernel)
        0x564c,      // NCP
        0x00c36400,  // Ceph
        0x01021997,  // 9P
        0x47504653,  // GPFS
        0x013111a8,  // IBRIX
    };
    for (unsigned long m : kMagics) {
        if (m == magic) {
            return true;
        }
    }
    return false;
}

bool _LIsNetworkFileSystemType(std::string_view fsType) {
    static constexpr std::string_view kTypes[] = {
        "nfs",         "nfs4",       "cifs",        "smb3",      "smbfs",        "ncpfs",
        "coda",        "afs",        "ceph",        "9p",        "glusterfs",    "lustre",
        "davfs",       "fuse.sshfs", "fuse.rclone", "fuse.s3fs", "fuse.gcsfuse", "fuse.glusterfs",
        "fuse.davfs2", "fuse.ceph",
    };
    for (std::string_view t : kTypes) {
        if (t == fsType) {
            return true;
        }
    }
    return false;
}

bool _LReadBlockDeviceFlags(char const* sysRoot, unsigned int major, unsigned int minor,
                            bool* removable, bool* internal) {
    std::string link =
        std::string(sysRoot) + "/dev/block/" + std::to_string(major) + ":" + std::to_string(minor);
    char resolved[PATH_MAX];
    if (realpath(link.c_str(), resolved) == nullptr) {
        return false;
    }
    std::string disk(resolved);
    // A partition's attributes of interest belong to the disk around it.
    struct stat st;
    if (stat((disk + "/partition").c_str(), &st) == 0) {
        size_t slash = disk.rfind('/');
        if (slash == std::string::npos) {
            return false;
        }
        disk.resize(slash);
    }
    std::string flag;
    if (!ReadFirstLine(disk + "/removable", flag)) {
        return false;
    }
    *removable = flag == "1";
    // Disks reached through an external bus are not internal, whatever their removable flag.
    *internal = disk.find("/usb") == std::string::npos &&
                disk.find("/firewire") == std::string::npos &&
                disk.find("/ieee1394") == std::string::npos;
    return true;
}

namespace {

// The block device behind a mount: its own device number, or for file systems that report
// an anonymous one (btrfs subvolumes) the device node named as its source.
bool BlockDeviceOfPath(char const* path, unsigned int& major, unsigned int& minor) {
    LMountInfo m;
    if (!_LFindMountForPath(path, m)) {
        return false;
    }
    major = m.major;
    minor = m.minor;
    if (major != 0) {
        return true;
    }
    struct stat st;
    if (m.source.rfind("/dev/", 0) == 0 && stat(m.source.c_str(), &st) == 0 &&
        S_ISBLK(st.st_mode)) {
        major = ::major(st.st_rdev);
        minor = ::minor(st.st_rdev);
        return true;
    }
    return false;
}

}  // namespace

bool LGetNSURLResourceValue(char const* path, LURLResourceKey key, bool* value) {
    if (path == nullptr || value == nullptr) {
        return false;
    }
    struct statfs sfs;
    if (statfs(path, &sfs) != 0) {
        return false;
    }
    if (key == LURLResourceKey::VolumeIsLocal) {
        *value = !IsNetworkVolume(path, static_cast<unsigned long>(sfs.f_type), nullptr);
        return true;
    }
    unsigned int major = 0;
    unsigned int minor = 0;
    bool removable = false;
    bool internal = false;
    if (!BlockDeviceOfPath(path, major, minor) ||
        !_LReadBlockDeviceFlags("/sys", major, minor, &removable, &internal)) {
        return false;
    }
    *value = key == LURLResourceKey::VolumeIsRemovable ? removable : internal;
    return true;
}

bool LFile::TestFileLocked(char const* path) {
    if (path == nullptr) {
        return false;
    }
    // statx reports the inode's attributes without opening it: no read permission is needed,
    // and a FIFO or a device is never opened just to be asked. One immutable flag covers both
    // the user and the system flag of other platforms.
    struct statx st;
    return statx(AT_FDCWD, path, AT_STATX_SYNC_AS_STAT, STATX_TYPE, &st) == 0 &&
           (st.stx_attributes_mask & STATX_ATTR_IMMUTABLE) != 0 &&
           (st.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
}

int LFile::GetNumberOfWritableDrives() {
    int count = 0;
    // The table is read once: each mount point's own volume is looked up in it rather than
    // in a fresh read per mount.
    std::vector<LMountInfo> const mounts = _LReadMountTable();
    for (LMountInfo const& m : mounts) {
        // Fresh statistics of each mount point; a mount that cannot answer is not counted.
        struct statvfs st;
        if (statvfs(m.mountPoint.c_str(), &st) != 0 || (st.f_flag & ST_RDONLY) != 0) {
            continue;
        }
        // As IsNetworkPath: a mount point without file-system statistics counts as local.
        struct statfs sfs;
        if (statfs(m.mountPoint.c_str(), &sfs) == 0 &&
            IsNetworkVolume(m.mountPoint.c_str(), static_cast<unsigned long>(sfs.f_type),
                            &mounts)) {
            continue;
        }
        ++count;
    }
    return count;
}
