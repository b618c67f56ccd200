// Offered-path checks: spelling first (pure), then the path itself, then the bundle's tree,
// walked without following any link.
#include "helper/offered_path.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

// Deeper than any bundle: the walk holds one descriptor per level.
constexpr int kMaxDepth = 32;

bool IsShellInertCharacter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '/' ||
           c == '.' || c == '_' || c == '+' || c == '-';
}

bool IsOwnRealPath(char const* path) {
    std::unique_ptr<char, decltype(&std::free)> real(realpath(path, nullptr), &std::free);
    return real && std::strcmp(real.get(), path) == 0;
}

struct Tally {
    uint64_t bytes = 0;
    size_t entries = 0;
};

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

// Walks the folder open at `fd` (taken over).
bool IsFolderSafe(int fd, int depth, Tally& tally) {
    std::unique_ptr<DIR, DirCloser> dir(fdopendir(fd));
    if (!dir) {
        close(fd);
        return false;
    }
    if (depth > kMaxDepth)
        return false;
    while (dirent* entry = readdir(dir.get())) {
        char const* name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
            continue;
        if (++tally.entries > kLVADHelperMaxBundleEntries)
            return false;
        struct stat st;
        if (fstatat(dirfd(dir.get()), name, &st, AT_SYMLINK_NOFOLLOW) != 0)
            return false;
        if (S_ISREG(st.st_mode)) {
            tally.bytes += static_cast<uint64_t>(st.st_size);
            if (tally.bytes > kLVADHelperMaxBundleBytes)
                return false;
        } else if (S_ISDIR(st.st_mode)) {
            int const sub =
                openat(dirfd(dir.get()), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (sub < 0 || !IsFolderSafe(sub, depth + 1, tally))
                return false;
        } else {
            return false;  // a link, FIFO, socket or device
        }
    }
    return true;
}

}  // namespace

bool LVADHelperIsBundleTreeSafe(char const* path) {
    int const fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    Tally tally;
    return fd >= 0 && IsFolderSafe(fd, 0, tally);
}

bool LVADHelperIsOfferedPathAcceptable(char const* path) {
    if (!path || path[0] != '/')
        return false;
    for (char const* p = path; *p; ++p) {
        if (!IsShellInertCharacter(*p))
            return false;
    }
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode) && IsOwnRealPath(path) &&
           LVADHelperIsBundleTreeSafe(path);
}
