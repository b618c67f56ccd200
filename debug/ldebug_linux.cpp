// Linux half of the hang marker: the platform opens a file and takes its advisory lock in one
// call; here the lock is taken with flock right after the open, without waiting. A lock
// refused after an exclusive create leaves the new file behind for its other opener, which
// sees it as stale, exactly as if the create had lost the race.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "debug/ldebug.h"

int _LHangDetectorOpenLocked(char const* path, bool create) {
    int const flags =
        create ? O_RDWR | O_NONBLOCK | O_CREAT | O_TRUNC | O_EXCL : O_RDONLY | O_NONBLOCK;
    int fd = open(path, flags, 0666);
    if (fd == -1) {
        return -1;
    }
    if (flock(fd, (create ? LOCK_EX : LOCK_SH) | LOCK_NB) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}
