// The recursive mutex, the shared/exclusive lock and the portable half of the system lock
// (its key). The semaphore calls are in lsystem_lock_linux.cpp.
#include "thread/llock.h"

LLockObject::LLockObject() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

LLockObject::~LLockObject() {
    pthread_mutex_destroy(&mutex);
}

LLockObjectShared::LLockObjectShared() {
    pthread_mutex_init(&mutex, nullptr);
}

LLockObjectShared::~LLockObjectShared() {
    pthread_mutex_destroy(&mutex);
}

void LLockObjectShared::LockShared() {
    pthread_mutex_lock(&mutex);
    lastReaderLeft.Reset();
    ++readers;
    pthread_mutex_unlock(&mutex);
}

void LLockObjectShared::UnlockShared() {
    pthread_mutex_lock(&mutex);
    if (readers-- == 1) {
        lastReaderLeft.Signal();
    }
    pthread_mutex_unlock(&mutex);
}

void LLockObjectShared::LockExclusive() {
    pthread_mutex_lock(&mutex);
    while (readers != 0) {
        pthread_mutex_unlock(&mutex);
        lastReaderLeft.WaitSignal(LSignalInfinite);
        pthread_mutex_lock(&mutex);
    }
}

void LLockObjectShared::UnlockExclusive() {
    pthread_mutex_unlock(&mutex);
}

void LLockObjectShared::UpgradeLock() {
    pthread_mutex_lock(&mutex);
    if (readers-- < 2) {
        return;
    }
    // Other readers are still counted. The mutex stays held while waiting, as this lock has
    // always done; see the header for what that asks of callers.
    while (readers != 0) {
        lastReaderLeft.WaitSignal(LSignalInfinite);
    }
}

void LLockObjectShared::DowngradeLock() {
    lastReaderLeft.Reset();
    ++readers;
    pthread_mutex_unlock(&mutex);
}

int32_t LLockObjectShared::GetReaderCount() {
    pthread_mutex_lock(&mutex);
    int32_t n = readers;
    pthread_mutex_unlock(&mutex);
    return n;
}

uint32_t LSystemLockMutex::MakeKey(char const* name) {
    uint32_t key = 11223;
    for (char const* p = name; p != nullptr && *p != '\0'; ++p) {
        // Bytes are taken as signed characters, as the platform's char is: a byte above 127
        // adds its sign-extended value, so keys stay the same everywhere.
        key = key * 32 + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*p)));
    }
    return key;
}
