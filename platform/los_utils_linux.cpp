// Linux half of the OS and process utilities: the version comes from os-release's
// VERSION_ID (else the kernel release), the process table from /proc/<pid>/comm, and the
// administrator groups are the ones Linux distributions use for it. Web pages go to the
// desktop's opener, xdg-open.
#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/los_utils.h"
#include "platform/lsmall_file.h"

namespace {

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

}  // namespace

bool _LIsAdministratorGroupName(char const* name) {
    return name != nullptr &&
           (strcmp(name, "admin") == 0 || strcmp(name, "sudo") == 0 || strcmp(name, "wheel") == 0);
}

bool _LReadSystemVersionText(char* out) {
    std::string content;
    for (char const* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        if (_LReadWholeFile(path, content)) {
            if (_LOSReleaseValue(content, "VERSION_ID", out) && out[0] != 0) {
                return true;
            }
            break;  // the first file found is the one that counts
        }
    }
    utsname system{};
    if (uname(&system) != 0) {
        out[0] = 0;
        return false;
    }
    size_t n = strnlen(system.release, 259);
    memcpy(out, system.release, n);
    out[n] = 0;
    return true;
}

bool LGetBSDProcessList(std::vector<LBSDProcessInfo>& list) {
    list.clear();
    std::unique_ptr<DIR, DirCloser> proc(opendir("/proc"));
    if (!proc) {
        return false;
    }
    while (dirent const* entry = readdir(proc.get())) {
        char* end = nullptr;
        long const pid = strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != 0 || pid <= 0) {
            continue;
        }
        char path[64];
        snprintf(path, sizeof path, "/proc/%ld/comm", pid);
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd == -1) {
            continue;  // the process ended meanwhile
        }
        LBSDProcessInfo info{static_cast<pid_t>(pid), {}};
        ssize_t got = read(fd, info.szCommand, sizeof info.szCommand - 1);
        close(fd);
        if (got <= 0) {
            continue;
        }
        size_t n = static_cast<size_t>(got);
        if (info.szCommand[n - 1] == '\n') {
            --n;
        }
        info.szCommand[n] = 0;
        list.push_back(info);
    }
    return true;
}

bool LOpenWebPage(char const* address) {
    if (address == nullptr) {
        return false;
    }
    // The desktop's opener picks the browser; it returns once the browser has the address.
    char program[] = "xdg-open";
    char* const argv[] = {program, const_cast<char*>(address), nullptr};
    pid_t pid = -1;
    if (posix_spawnp(&pid, program, nullptr, nullptr, argv, environ) != 0) {
        return false;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) == -1) {
        if (errno != EINTR) {
            return false;
        }
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
