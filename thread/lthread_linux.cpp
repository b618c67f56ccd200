// Linux half of the threads: the kernel thread id stands for the Mach thread port, and the
// main thread is the one whose id is the process id. Linux has no time-constraint policy an
// unprivileged process may take, so the audio request reports failure and the caller falls
// back on the ordinary priority call, as it does where the platform refuses.
#include <sys/types.h>
#include <unistd.h>

#include "thread/lthread_platform.h"

int32_t _LThreadCurrentId() {
    return static_cast<int32_t>(gettid());
}

bool _LThreadIsMainThread() {
    return gettid() == getpid();
}

bool _LThreadSetTimeConstraint(pthread_t) {
    return false;
}
