// The platform seam under LFile's folder and volume queries: only operating-system lookups
// live behind it (home folders, the folder search, the mount table, block-device flags); the
// decisions built on them stay in the portable files. Not for use outside file/.
//
// Every char* destination here is a 260-byte path buffer unless a size is given; results are
// always terminated, and a false result leaves dst empty.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

// Closes the descriptor it holds when the scope ends (-1: nothing to close).
class _LScopedDescriptor {
public:
    explicit _LScopedDescriptor(int fd) : fd_(fd) {}
    ~_LScopedDescriptor() {
        if (fd_ != -1) {
            close(fd_);
        }
    }
    _LScopedDescriptor(_LScopedDescriptor const&) = delete;
    _LScopedDescriptor& operator=(_LScopedDescriptor const&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// Copies src into dst, cut to size - 1 characters and terminated; nothing is written when size
// is 0. Returns the number of characters copied.
inline size_t _LCopyCut(char* dst, std::string_view src, size_t size) {
    if (size == 0) {
        return 0;
    }
    size_t n = src.size() < size - 1 ? src.size() : size - 1;
    memmove(dst, src.data(), n);
    dst[n] = 0;
    return n;
}

// The process's home folder: $HOME when set and not empty, else the user database's.
bool _LGetHomeFolder(char* dst);
// The home folder of the current user id in the user database; false without a record.
bool _LGetAccountHomeFolder(char* dst);

// The folder search: the XDG setting answering a folder kind, when there is one.
bool _LSearchUserFolder(unsigned int kind, char* dst);
// One line of user-dirs.dirs: true when it sets key (e.g. "XDG_MUSIC_DIR") to a usable
// folder ("$HOME/..." with home put in, or an absolute path); dst then holds it.
bool _LParseUserDirsLine(std::string_view line, std::string_view key, char const* home, char* dst);

// The folder holding the user's discarded files.
bool _LGetTrashFolder(char* dst);

// One mounted file system, as the mount table describes it.
struct LMountInfo {
    unsigned int mountId = 0;
    unsigned int major = 0;
    unsigned int minor = 0;
    std::string mountPoint;
    std::string fsType;
    std::string source;
};

// Parses one line of /proc/self/mountinfo (octal escapes such as \040 decoded).
bool _LParseMountInfoLine(std::string_view line, LMountInfo& out);
// The mount table of this process.
std::vector<LMountInfo> _LReadMountTable();
// The mount holding path (which must exist): the table's entry with the path's mount id
// (without mount ids: the deepest mount point above it, preferring the path's own device).
// A mount the table cannot show, its mount point lying outside this process's root (a chroot
// into a plain folder), is described by the highest folder above the path on the same mount,
// and by the first entry for its id or device in the init process's table or this one.
bool _LFindMountForPath(char const* path, LMountInfo& out);

// The mount point of the volume holding path, from the mount table.
bool _LGetMountPointOfPath(char const* path, char* dst);
// The file-system type name of the volume holding path, with the kernel's FAT, exFAT and
// NTFS names given as "FAT32", "exFAT" and "NTFS"; false when unreadable.
bool _LGetFileSystemTypeName(char const* path, char* dst, size_t size);
// The kernel's type name turned into the name the size-limit table knows.
char const* _LMapFileSystemTypeName(char const* kernelName);
// True for file systems whose data lives on another machine.
bool _LIsNetworkFileSystemType(std::string_view fsType);
bool _LIsNetworkFileSystemMagic(unsigned long magic);

// Reads the removable flag and whether the disk sits on an internal bus, for the block
// device major:minor under the sysfs tree at sysRoot ("/sys" normally). False when the
// device is unknown there.
bool _LReadBlockDeviceFlags(char const* sysRoot, unsigned int major, unsigned int minor,
                            bool* removable, bool* internal);

// The pause between the attempts of the timed waits (advisory locks, busy folders). Tests
// replace it to record the schedule; it must sleep at least ms milliseconds, resuming a sleep
// that a signal cut short.
extern void (*_gLFilePause)(unsigned int ms);

// Opens (creating, truncating, mode) path for reading and writing with an exclusive advisory
// lock requested in the same step, without waiting. -1 with errno EWOULDBLOCK when another
// holder has the lock; -1 with another errno when the file cannot be opened.
int _LOpenExclusiveNonBlocking(char const* path, unsigned int mode);

// Creates destination (which must not exist: EEXIST otherwise) as a copy of source: a file
// with its data (holes kept where the file system allows), extended attributes, mode and
// times; a symbolic link as a link to the same target; a folder as an empty folder with the
// same metadata. Links are never followed. 0 on success, else the errno value, with nothing
// left at destination.
int _LCopyItem(char const* source, char const* destination);
// The entry's birth time in seconds, or its change time where the file system keeps none;
// false when its status cannot be read. Links are not followed.
bool _LGetBirthTime(char const* path, long long* seconds);
// Clears the immutable, append-only and no-dump flags of a file so that it can be removed.
void _LClearFileFlags(char const* path);
