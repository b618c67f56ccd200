// The operating-system half of the folder operations: the metadata-keeping copy of one item,
// birth times and inode flags.
//
// The copy never follows a symbolic link: the source is examined without following, the
// destination is created exclusively (O_EXCL also refuses a link in its place), and a link
// is recreated as a link. File data moves with copy_file_range, which lets the kernel share
// or copy blocks without a trip through user memory; only the data extents are copied
// (SEEK_DATA / SEEK_HOLE), so holes stay holes. Where the kernel refuses the call (across
// some file systems) plain reads and writes take over.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "file/lfile_platform.h"

namespace {

using Descriptor = _LScopedDescriptor;

// The extended-attribute calls on a descriptor or, for links, on the path itself.
struct AttributeAccess {
    int fd = -1;
    char const* path = nullptr;

    ssize_t List(char* names, size_t size) const {
        return fd != -1 ? flistxattr(fd, names, size) : llistxattr(path, names, size);
    }
    ssize_t Get(char const* name, void* value, size_t size) const {
        return fd != -1 ? fgetxattr(fd, name, value, size) : lgetxattr(path, name, value, size);
    }
    void Set(char const* name, void const* value, size_t size) const {
        if (fd != -1) {
            fsetxattr(fd, name, value, size, 0);
        } else {
            lsetxattr(path, name, value, size, 0);
        }
    }
};

// Copies every attribute the destination accepts; the others (system namespaces the caller
// may not write) are skipped.
void CopyAttributes(AttributeAccess const& from, AttributeAccess const& to) {
    ssize_t size = from.List(nullptr, 0);
    if (size <= 0) {
        return;
    }
    std::vector<char> names(static_cast<size_t>(size));
    size = from.List(names.data(), names.size());
    if (size <= 0) {
        return;
    }
    std::vector<char> value;
    for (char const* name = names.data(); name < names.data() + size; name += strlen(name) + 1) {
        ssize_t length = from.Get(name, nullptr, 0);
        if (length < 0) {
            continue;
        }
        value.resize(static_cast<size_t>(length));
        length = from.Get(name, value.data(), value.size());
        if (length >= 0) {
            to.Set(name, value.data(), static_cast<size_t>(length));
        }
    }
}

bool CopyRangeByReading(int in, int out, off_t offset, off_t length) {
    constexpr size_t kChunk = 1 << 20;
    std::unique_ptr<char[]> buffer(new char[kChunk]);
    while (length > 0) {
        size_t const want =
            length < static_cast<off_t>(kChunk) ? static_cast<size_t>(length) : kChunk;
        ssize_t n = pread(in, buffer.get(), want, offset);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return n == 0;  // the file became shorter: what is there has been copied
        }
        for (ssize_t put = 0; put < n;) {
            ssize_t w = pwrite(out, buffer.get() + put, static_cast<size_t>(n - put), offset + put);
            if (w < 0 && errno == EINTR) {
                continue;
            }
            if (w <= 0) {
                return false;
            }
            put += w;
        }
        offset += n;
        length -= n;
    }
    return true;
}

bool CopyRange(int in, int out, off_t offset, off_t length) {
    loff_t inOffset = offset;
    loff_t outOffset = offset;
    while (length > 0) {
        ssize_t n = copy_file_range(in, &inOffset, out, &outOffset, static_cast<size_t>(length), 0);
        if (n > 0) {
            length -= n;
            continue;
        }
        if (n == 0) {
            return true;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP ||
            errno == EPERM || errno == ETXTBSY) {
            return CopyRangeByReading(in, out, inOffset, length);
        }
        return false;
    }
    return true;
}

// Copies the data extents of a size-byte file; the length is set at the end so that a
// trailing hole is kept too.
bool CopyData(int in, int out, off_t size) {
    off_t position = 0;
    while (position < size) {
        off_t data = lseek(in, position, SEEK_DATA);
        if (data < 0) {
            if (errno == ENXIO) {
                break;  // only a hole remains
            }
            return CopyRange(in, out, position, size - position) && ftruncate(out, size) == 0;
        }
        off_t hole = lseek(in, data, SEEK_HOLE);
        if (hole < 0 || hole > size) {
            hole = size;
        }
        if (!CopyRange(in, out, data, hole - data)) {
            return false;
        }
        position = hole;
    }
    return ftruncate(out, size) == 0;
}

int CopyRegularFile(char const* source, char const* destination, struct stat const& st) {
    Descriptor in(open(source, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (in.get() == -1) {
        return errno;
    }
    Descriptor out(open(destination, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (out.get() == -1) {
        return errno;
    }
    if (!CopyData(in.get(), out.get(), st.st_size)) {
        int const error = errno != 0 ? errno : EIO;
        unlink(destination);
        return error;
    }
    CopyAttributes({in.get(), nullptr}, {out.get(), nullptr});
    fchmod(out.get(), st.st_mode & 07777);
    timespec const times[2] = {st.st_atim, st.st_mtim};
    futimens(out.get(), times);
    return 0;
}

int CopyLink(char const* source, char const* destination, struct stat const& st) {
    std::vector<char> target(static_cast<size_t>(st.st_size) + 1);
    ssize_t n = readlink(source, target.data(), target.size());
    if (n < 0 || static_cast<size_t>(n) >= target.size()) {
        return n < 0 ? errno : EIO;
    }
    target[static_cast<size_t>(n)] = 0;
    if (symlink(target.data(), destination) != 0) {
        return errno;
    }
    CopyAttributes({-1, source}, {-1, destination});
    timespec const times[2] = {st.st_atim, st.st_mtim};
    utimensat(AT_FDCWD, destination, times, AT_SYMLINK_NOFOLLOW);
    return 0;
}

int CopyFolderItself(char const* source, char const* destination, struct stat const& st) {
    if (mkdir(destination, 0700) != 0) {
        return errno;
    }
    Descriptor in(open(source, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    Descriptor out(open(destination, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (in.get() != -1 && out.get() != -1) {
        CopyAttributes({in.get(), nullptr}, {out.get(), nullptr});
        fchmod(out.get(), st.st_mode & 07777);
        timespec const times[2] = {st.st_atim, st.st_mtim};
        futimens(out.get(), times);
    }
    return 0;
}

}  // namespace

int _LCopyItem(char const* source, char const* destination) {
    struct stat st;
    if (source == nullptr || destination == nullptr) {
        return EINVAL;
    }
    if (lstat(source, &st) != 0) {
        return errno;
    }
    errno = 0;
    if (S_ISREG(st.st_mode)) {
        return CopyRegularFile(source, destination, st);
    }
    if (S_ISLNK(st.st_mode)) {
        return CopyLink(source, destination, st);
    }
    if (S_ISDIR(st.st_mode)) {
        return CopyFolderItself(source, destination, st);
    }
    return ENOTSUP;  // devices, pipes and sockets are not copied
}

bool _LGetBirthTime(char const* path, long long* seconds) {
    struct statx st;
    if (statx(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_CTIME, &st) != 0) {
        return false;
    }
    *seconds = (st.stx_mask & STATX_BTIME) != 0 ? st.stx_btime.tv_sec : st.stx_ctime.tv_sec;
    return true;
}

void _LClearFileFlags(char const* path) {
    Descriptor fd(open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (fd.get() == -1) {
        return;
    }
    // Only the flags that stop a removal (or that a copy would not expect) are cleared; the
    // file system's own flags, such as the extent layout, must stay as they are.
    constexpr int kUserFlags = FS_IMMUTABLE_FL | FS_APPEND_FL | FS_NODUMP_FL;
    int flags = 0;
    if (ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) == 0 && (flags & kUserFlags) != 0) {
        flags &= ~kUserFlags;
        ioctl(fd.get(), FS_IOC_SETFLAGS, &flags);
    }
}
