// The operating-system half of LFile's path operations: existence and share-lock tests,
// the last-error predicates and the working directory.
//
// The existence tests answer for any kind of entry (a folder test on a file is true): the
// access test decides first, and an entry the access test refuses is looked up once more
// without following a final link, the counterpart of asking whether a file URL's resource
// is reachable. The share tests only probe: a lock they obtain is released at once.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "file/lfile.h"

namespace {

bool IsReachable(char const* path) {
    struct stat st;
    return lstat(path, &st) == 0;
}

// Opens without blocking and asks for an exclusive advisory lock in the same step; true only
// when that request would block because someone else holds a lock.
bool ExclusiveLockWouldBlock(char const* path) {
    if (path == nullptr) {
        return false;
    }
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    bool blocked = flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(fd);  // closing drops the lock if it was granted
    return blocked;
}

}  // namespace

bool LFile::TestFileExists(char const* path) {
    if (path == nullptr) {
        return false;
    }
    if (access(path, F_OK) == 0) {
        return true;
    }
    if (errno == ENOENT && path[0] == 0) {
        return false;
    }
    return IsReachable(path);
}

bool LFile::TestFolderExists(char const* path) {
    if (path == nullptr) {
        return false;
    }
    if (access(path, F_OK) == 0) {
        return true;
    }
    return IsReachable(path);
}

// Both share tests make the same exclusive request: a reader is blocked by the same locks
// as a writer here, as it always was.
bool LFile::TestFileShareWriteBlocked(char const* path) {
    return ExclusiveLockWouldBlock(path);
}

bool LFile::TestFileShareReadBlocked(char const* path) {
    return ExclusiveLockWouldBlock(path);
}

bool LFile::IsErrorFileNotFound() {
    return errno == ENOENT;
}

bool LFile::IsErrorAlreadyExists() {
    return errno == EEXIST;
}

bool LFile::IsErrorPermissionDenied() {
    return errno == EACCES;
}

bool LFile::IsErrorSharingViolation() {
    int e = errno;
    return e == EACCES || e == EWOULDBLOCK || e == EAGAIN;
}

char* LFile::GetCurrentDirectory(char* dst) {
    return getcwd(dst, kLPathSize);
}

int LFile::SetCurrentDirectory(char const* path) {
    return chdir(path);
}
