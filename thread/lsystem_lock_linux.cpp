// The system-wide lock over a System V semaphore set of one semaphore. Every operation
// carries SEM_UNDO, so the kernel undoes the holder's decrement when the holder dies and the
// lock cannot stay taken by a dead process.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "thread/llock.h"
#include "thread/lsystem_lock_platform.h"

namespace {

// Sleeps ms milliseconds, resuming an interrupted sleep for the time left.
void PauseMs(unsigned int ms) {
    timespec left{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

bool SemOp(int setId, short delta, short flags) {
    sembuf op{0, delta, flags};
    return semop(setId, &op, 1) == 0;
}

}  // namespace

void (*_gLSystemLockPause)(unsigned int ms) = PauseMs;

LSystemLockMutex::LSystemLockMutex(char const* name) : key(MakeKey(name)) {
    int id = semget(static_cast<key_t>(key), 1, IPC_CREAT | IPC_EXCL | 0666);
    if (id != -1) {
        semctl(id, 0, SETVAL, 1);
    } else if (errno == EEXIST) {
        id = semget(static_cast<key_t>(key), 0, 0);
    }
    setId = id;
}

void LSystemLockMutex::LockForever() {
    if (setId == -1) {
        return;
    }
    // EINTR is retried as well: a signal landing in the wait must not pass for the lock.
    while (!SemOp(setId, -1, SEM_UNDO) && (errno == EAGAIN || errno == EINTR)) {
    }
}

bool LSystemLockMutex::Lock(unsigned int ms) {
    for (;;) {
        if (SemOp(setId, -1, IPC_NOWAIT | SEM_UNDO)) {
            return true;
        }
        if (errno != EAGAIN) {
            return false;
        }
        // The time left is checked before pausing, so a lock held throughout costs the
        // caller whole 10 ms pauses and never more than the timeout (25 ms: two pauses).
        if (ms < 11) {
            return false;
        }
        ms -= 10;
        _gLSystemLockPause(10);
    }
}

void LSystemLockMutex::Unlock() {
    bool incremented = false;
    int value = semctl(setId, 0, GETVAL);
    int lastPid = semctl(setId, 0, GETPID);
    if (!(value > 0 && lastPid == getpid())) {
        incremented = SemOp(setId, 1, SEM_UNDO);
    }
    if (!incremented) {
        semctl(setId, 0, IPC_RMID);
    }
}
