// Linux half of the threads: the kernel thread id stands for the Mach thread port, and the
// main thread is the one whose id is the process id. The audio threads' time-constraint
// policy becomes the real-time FIFO class at priority 20, the usual ceiling granted to audio
// threads; where that is refused (no privilege, no real-time budget) the caller falls back on
// the ordinary priority call, as it does where the platform refuses.
#include <pthread.h>
#include <sched.h>
#include <sys/types.h>
#include <unistd.h>

#include "thread/lthread_platform.h"

int32_t _LThreadCurrentId() {
    return static_cast<int32_t>(gettid());
}

bool _LThreadIsMainThread() {
    return gettid() == getpid();
}

bool _LThreadSetTimeConstraint(pthread_t thread) {
    sched_param param{};
    param.sched_priority = 20;
    return pthread_setschedparam(thread, SCHED_FIFO, &param) == 0;
}
