// The platform half of the threads: thread ids, the main-thread test and the real-time
// scheduling request. Only the thread layer calls these.
#pragma once

#include <pthread.h>

#include <cstdint>

// The calling thread's id as the system's tools show it.
int32_t _LThreadCurrentId();
// True on the process's main thread.
bool _LThreadIsMainThread();
// Gives the thread the platform's time-constraint (audio) scheduling with half the default
// computation and constraint; false where the platform has no such policy or refuses.
bool _LThreadSetTimeConstraint(pthread_t thread);
