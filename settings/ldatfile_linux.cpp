// The data-file cache's operating-system calls: stat, open with flock, write, ftruncate and
// the wall clock.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "file/lfile_stream.h"
#include "settings/ldatfile_platform.h"

bool _LDatFileStat(char const* path, LDatFileStamp& stamp) {
    struct stat st {};
    if (stat(path, &st) != 0) {
        return false;
    }
    stamp.modified = static_cast<int64_t>(st.st_mtime);
    stamp.size = static_cast<int64_t>(st.st_size);
    return true;
}

int _LDatFileOpenShared(char const* path, unsigned int timeoutMs) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        flocktimed(fd, LOCK_SH, timeoutMs);
    }
    return fd;
}

int _LDatFileOpenExclusive(char const* path, unsigned int timeoutMs) {
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0) {
        flocktimed(fd, LOCK_EX, timeoutMs);
        // A failed cut is made good by the cut behind the last line written.
        [[maybe_unused]] int cut = ftruncate(fd, 0);
    }
    return fd;
}

void _LDatFileWrite(int fd, char const* data, size_t size) {
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
}

void _LDatFileTruncateHere(int fd) {
    off_t here = lseek(fd, 0, SEEK_CUR);
    if (here >= 0) {
        [[maybe_unused]] int cut = ftruncate(fd, here);
    }
}

void _LDatFileClose(int fd) {
    close(fd);
}

uint32_t _LDatFileWallClock() {
    struct timeval now {};
    gettimeofday(&now, nullptr);
    return static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000u +
                                 static_cast<uint64_t>(now.tv_usec) / 1000u);
}
