// Helpers for the tests that need a second process: the child runs a body and leaves with its
// result, so a failed check inside the child shows up as the parent's exit-code check.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ltest {

// Forks; the child runs body() and exits with its result at once (no gtest teardown there).
template <typename Body>
pid_t ForkChild(Body body) {
    pid_t pid = fork();
    if (pid == 0) {
        _exit(body());
    }
    return pid;
}

// The child's exit code, or -1 when it did not exit normally.
inline int WaitChild(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

// For a child: a mount namespace of its own in which every mount is private, so that nothing
// mounted in it reaches the machine's namespace; false when none can be made (mount nothing
// then). In a chroot "/" is not a mount point and cannot be made private as such: the child
// steps to the namespace's own root (setns into the namespace it is in), makes every mount
// private there and enters the chroot again. A bind of "/" onto itself would not do: made on
// a shared mount, it would appear in the machine's namespace.
inline bool UnshareMountsPrivately() {
    if (unshare(CLONE_NEWNS) != 0) {
        return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
        return true;
    }
    int const chrootRoot = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int const self = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
    bool const made = chrootRoot >= 0 && self >= 0 && setns(self, CLONE_NEWNS) == 0 &&
                      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                      fchdir(chrootRoot) == 0 && chroot(".") == 0;
    close(chrootRoot);
    close(self);
    return made;
}

}  // namespace ltest
