// Locks: a recursive mutex, a shared/exclusive lock whose exclusive side waits on an event
// for the last reader to leave, and a system-wide mutex made of a System V semaphore.
//
// LLockObjectShared keeps its reader count under its mutex; the event is signalled when the
// count drops to zero and reset when a reader enters, so an exclusive locker that finds
// readers can sleep on the event instead of spinning. The exclusive lock is the mutex itself.
//
// LSystemLockMutex is shared by every process that opens the same name; its operations use
// SEM_UNDO so that the system gives the lock back when a holder dies.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "thread/lsignal_object.h"

class LLockObject {
public:
    LLockObject();
    ~LLockObject();
    LLockObject(LLockObject const&) = delete;
    LLockObject& operator=(LLockObject const&) = delete;

    void Lock() { pthread_mutex_lock(&mutex); }
    void Unlock() { pthread_mutex_unlock(&mutex); }
    bool TryLock() { return pthread_mutex_trylock(&mutex) == 0; }

    // BasicLockable, so that std::lock_guard and std::unique_lock can hold it.
    void lock() { Lock(); }
    void unlock() { Unlock(); }

private:
    pthread_mutex_t mutex;
};

class LLockObjectShared {
public:
    LLockObjectShared();
    ~LLockObjectShared();
    LLockObjectShared(LLockObjectShared const&) = delete;
    LLockObjectShared& operator=(LLockObjectShared const&) = delete;

    void LockShared();
    void UnlockShared();
    // Returns holding the mutex once no reader is counted.
    void LockExclusive();
    void UnlockExclusive();
    // Turns the caller's read lock into the exclusive lock. The mutex is held while waiting
    // for other readers, and they need it to leave: only the sole reader may upgrade without
    // waiting forever.
    void UpgradeLock();
    // Turns the exclusive lock into a read lock.
    void DowngradeLock();

    int32_t GetReaderCount();

private:
    pthread_mutex_t mutex;
    LSignalObject lastReaderLeft;
    int32_t readers = 0;
};

class LSystemLockMutex {
public:
    // Opens (creating when needed, with value 1) the semaphore set whose key is made from name.
    explicit LSystemLockMutex(char const* name);
    LSystemLockMutex(LSystemLockMutex const&) = delete;
    LSystemLockMutex& operator=(LSystemLockMutex const&) = delete;

    // 11223, then for each byte key = key * 32 + byte, in unsigned 32-bit arithmetic.
    static uint32_t MakeKey(char const* name);

    // Waits until the lock is taken (nothing happens without a valid set).
    void LockForever();
    // Tries every 10 ms; false once the time left is below 11 ms, or on another error.
    bool Lock(unsigned int ms);
    // Releases: does nothing when the value is above 0 and this process made the last
    // operation (the lock is free already), otherwise adds 1. When no increment was made, the
    // semaphore set is removed.
    void Unlock();

    bool IsValid() const { return setId != -1; }
    int32_t GetSetId() const { return setId; }
    uint32_t GetKey() const { return key; }

private:
    uint32_t key;
    int32_t setId = -1;
};
