// The hang marker and the debug thread registry.
//
// The hang marker is a lock file in the temporary folder that a running instance creates and
// holds exclusively locked; a later start that finds the file without a holder knows that an
// earlier run ended without cleaning up (it crashed, or was killed while hanging). It is a
// marker only: no timer, no heartbeat, no time-out. The system drops the lock when the holder
// dies, which is what tells a stale file from a live one.
//
// The thread registry gives each registered thread a 4-character name and a last-dialog text
// for failure reports. Slots are allocated and released under loDebugThreads; a record is
// filled in outside the lock behind the "claimed" mark and published by writing its thread
// field last. Only the owning thread writes its own texts, so look-ups by the calling thread
// take no lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "file/lfile.h"
#include "thread/llock.h"

class LHangDetector {
public:
    // Builds the lock-file path ("_kavelplvadhelper_rl_" and the user name, in the temporary
    // folder); opens nothing.
    LHangDetector();
    // Releases the marker: closes the file if open and deletes it.
    ~LHangDetector();
    LHangDetector(LHangDetector const&) = delete;
    LHangDetector& operator=(LHangDetector const&) = delete;

    // Creates and exclusively locks the lock file for the life of the process, or, when a
    // file is there without a live holder, deletes it without making a new one (the next
    // call does). A file held by a live instance is left alone.
    void InitAndTest();
    // What the destructor does; the object may be used again afterwards.
    void _Release();

    char const* GetLockFilePath() const { return m_szPath; }
    int GetFileDescriptor() const { return m_hFile; }

private:
    char m_szPath[kLPathSize];
    int32_t m_hFile;
};

// The 16-byte record written into the lock file: seconds since 1970 as a signed 64-bit
// number, then the milliseconds since 1970 taken modulo 2^32 (a wrapping tick, not a date),
// zero-extended to 64 bits; both in host byte order.
struct LHangDetectorRecord {
    int64_t seconds;
    uint64_t ticks;
};
static_assert(sizeof(LHangDetectorRecord) == 16);
LHangDetectorRecord _LHangDetectorMakeRecord(int64_t seconds, int64_t microseconds);

// The process's hang detector, valid once LDebugHangDetectorCreate has run.
extern LHangDetector& gLHangDetector;
// Constructs gLHangDetector once and registers its destruction at exit; later calls do
// nothing.
void LDebugHangDetectorCreate();

// InitAndTest on gLHangDetector.
void LDebugHangDetectorInit();
// Releases gLHangDetector as its destructor would.
void LDebugHangDetectorDestroy();

// ---- Thread registry ----------------------------------------------------------------------

inline constexpr uint32_t kLDebugThreadFree = 0xFFFFFFFF;
inline constexpr uint32_t kLDebugThreadClaimed = 0xFFFFFFFE;
inline constexpr size_t kLDebugThreadCount = 64;

struct LDebugThreadData {
    // The owner's thread number, or kLDebugThreadFree / kLDebugThreadClaimed. Written last
    // when a record is filled in, so a reader that sees a thread number sees its texts.
    std::atomic<uint32_t> dwThread{kLDebugThreadFree};
    char szLastDialog[32] = {};
    char szName[8] = {};  // at most 4 characters are used
};

extern LDebugThreadData gDebugThreadData[kLDebugThreadCount];
// The high-water mark of records in use: records below it may be free.
extern std::atomic<uint64_t> gnDebugThreads;
// Valid once LDebugThreadsLockCreate has run.
extern LLockObject& loDebugThreads;
// Constructs loDebugThreads once and registers its destruction at exit; later calls do
// nothing.
void LDebugThreadsLockCreate();
// Kept for the library's interface; nothing sets or reads it.
extern uint32_t gdwMainThreadId;

// Registers the calling thread under name (cut to 4 characters), or under its thread number
// modulo 10000 as four digits when name is null. A full registry ignores the call.
void LDebugThreadDataStartThread(char const* name);
void LDebugThreadDataStopThread();
// The calling thread's record, or null.
LDebugThreadData* LDebugThreadFindData();
void LDebugThreadSetName(char const* name);
// Copies the name out (8 bytes are enough); empty for an unregistered thread, nothing for a
// null buffer.
void LDebugThreadGetName(char* out);
// The text followed by the thread number's units, tens and hundreds digits, in that order,
// cut to 31 characters.
void LDebugThreadSetLastDialog(char const* text);
bool LIsMainThread();

// The same registry operations for a given thread number (the public forms pass the calling
// thread's). The look-up takes no lock; callers that need a stable answer hold loDebugThreads.
void _LDebugThreadDataStartThread(uint32_t thread, char const* name);
void _LDebugThreadDataStopThread(uint32_t thread);
LDebugThreadData* _LDebugThreadFindData(uint32_t thread);
// The calling thread's number: the kernel thread id.
uint32_t _LDebugThreadCurrentNumber();

// ---- Platform half of the hang marker -----------------------------------------------------

// Opens path with an advisory lock taken without waiting: created exclusively (the flags
// read-write, non-blocking, create, truncate, exclusive; mode 0666) under an exclusive lock,
// or opened read-only and non-blocking under a shared lock. -1 when either step fails.
int _LHangDetectorOpenLocked(char const* path, bool create);
