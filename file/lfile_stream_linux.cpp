// The operating-system half of the stream and text-file layer: the lock file's locked open
// and the text-encoding tag.
//
// The lock is requested right after the open rather than in it (there is no open flag for
// it here); the file is truncated only once the lock is held, so a refused request never
// touches another holder's file.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>

#include "file/lfile.h"
#include "file/lfile_platform.h"

int _LOpenExclusiveNonBlocking(char const* path, unsigned int mode) {
    int fd = open(path, O_RDWR | O_CREAT | O_NONBLOCK | O_CLOEXEC, static_cast<mode_t>(mode));
    if (fd == -1) {
        return -1;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        int const error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    if (ftruncate(fd, 0) != 0) {
        // An untruncated lock file still locks.
    }
    return fd;
}

int LFile::SetFileAttributeTextEncodingUTF8(char const* path) {
    static constexpr char kValue[] = "utf-8;134217984";
    return setxattr(path, "user.com.apple.TextEncoding", kValue, sizeof(kValue) - 1, 0);
}
