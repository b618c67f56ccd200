// Helpers for the tests that need a second process: the child runs a body and leaves with its
// result, so a failed check inside the child shows up as the parent's exit-code check.
#pragma once

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

}  // namespace ltest
