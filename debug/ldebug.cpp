// The hang marker's decisions and the thread registry's slot bookkeeping, and the two
// start-up objects: the hang detector and the registry's lock.
#include "debug/ldebug.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "text/lstring.h"
#include "thread/lthread_platform.h"

namespace {

// Static storage of a start-up object: nothing in it is built before its Create function,
// which the program's static initialiser calls at its fixed place (and every user calls
// first, for programs that have no such initialiser).
template <class T>
union StartupStorage {
    constexpr StartupStorage() : unbuilt(0) {}
    ~StartupStorage() {}
    char unbuilt;
    T value;
};

constinit StartupStorage<LHangDetector> gHangDetectorStorage;
constinit std::once_flag gHangDetectorCreated;
constinit StartupStorage<LLockObject> gThreadsLockStorage;
constinit std::once_flag gThreadsLockCreated;

}  // namespace

constinit LHangDetector& gLHangDetector = gHangDetectorStorage.value;
constinit LLockObject& loDebugThreads = gThreadsLockStorage.value;

void LDebugHangDetectorCreate() {
    std::call_once(gHangDetectorCreated, [] {
        new (&gHangDetectorStorage.value) LHangDetector();
        std::atexit([] { gHangDetectorStorage.value.~LHangDetector(); });
    });
}

void LDebugThreadsLockCreate() {
    std::call_once(gThreadsLockCreated, [] {
        new (&gThreadsLockStorage.value) LLockObject();
        std::atexit([] { gThreadsLockStorage.value.~LLockObject(); });
    });
}

LDebugThreadData gDebugThreadData[kLDebugThreadCount];
std::atomic<uint64_t> gnDebugThreads{0};
uint32_t gdwMainThreadId = 0;

namespace {

char const* NonEmptyVariable(char const* name) {
    char const* value = getenv(name);
    return value != nullptr && value[0] != 0 ? value : nullptr;
}

void SetCloseOnExec(int fd) {
    int flags = fcntl(fd, F_GETFD);
    if (flags != -1) {
        fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
    }
}

// Copies at most max characters of text (null counts as empty) and terminates.
void CopyCut(char* dst, char const* text, size_t max) {
    size_t n = text != nullptr ? strnlen(text, max) : 0;
    memcpy(dst, text != nullptr ? text : "", n);
    dst[n] = 0;
}

}  // namespace

// ---- Hang marker ---------------------------------------------------------------------------

LHangDetectorRecord _LHangDetectorMakeRecord(int64_t seconds, int64_t microseconds) {
    // The wrap is intended: the second field is a tick count, computed in 32 bits.
    uint32_t ticks =
        static_cast<uint32_t>(seconds) * 1000u + static_cast<uint32_t>(microseconds / 1000);
    return LHangDetectorRecord{seconds, ticks};
}

LHangDetector::LHangDetector() : m_hFile(-1) {
    char user[kLPathSize];
    char const* name = NonEmptyVariable("LOGNAME");
    if (name == nullptr) {
        name = NonEmptyVariable("USER");
    }
    CopyCut(user, name, kLPathSize - 1);
    char fileName[kLPathSize];
    tplsnprintf(fileName, sizeof fileName, "_kavelplvadhelper_rl_%s", user);
    char folder[kLPathSize];
    LFile::GetTempFolder(folder);
    LFile::_MakeFilePath(m_szPath, folder, fileName, nullptr);
}

LHangDetector::~LHangDetector() {
    _Release();
}

void LHangDetector::_Release() {
    if (m_hFile != -1) {
        close(m_hFile);
    }
    m_hFile = -1;
    unlink(m_szPath);
}

void LHangDetector::InitAndTest() {
    timeval now{};
    gettimeofday(&now, nullptr);
    LHangDetectorRecord const record = _LHangDetectorMakeRecord(now.tv_sec, now.tv_usec);

    if (m_hFile != -1) {
        close(m_hFile);
        m_hFile = -1;
    }
    int fd = _LHangDetectorOpenLocked(m_szPath, true);
    if (fd != -1) {
        SetCloseOnExec(fd);
        m_hFile = fd;
        [[maybe_unused]] ssize_t written = write(fd, &record, sizeof record);
        return;
    }

    // The file is there already. A live instance holds its exclusive lock and refuses the
    // shared one; without a holder the file is stale: read its record (unused), delete it,
    // and leave the new marker to the next call.
    fd = _LHangDetectorOpenLocked(m_szPath, false);
    if (fd == -1) {
        return;
    }
    SetCloseOnExec(fd);
    LHangDetectorRecord old{};
    [[maybe_unused]] ssize_t got = read(fd, &old, sizeof old);
    close(fd);
    unlink(m_szPath);
}

void LDebugHangDetectorInit() {
    LDebugHangDetectorCreate();
    gLHangDetector.InitAndTest();
}

void LDebugHangDetectorDestroy() {
    LDebugHangDetectorCreate();
    gLHangDetector._Release();
}

// ---- Thread registry -----------------------------------------------------------------------

uint32_t _LDebugThreadCurrentNumber() {
    return static_cast<uint32_t>(_LThreadCurrentId());
}

bool LIsMainThread() {
    return _LThreadIsMainThread();
}

void _LDebugThreadDataStartThread(uint32_t thread, char const* name) {
    LDebugThreadData* record = nullptr;
    {
        LDebugThreadsLockCreate();
        std::lock_guard<LLockObject> hold(loDebugThreads);
        uint64_t count = gnDebugThreads.load(std::memory_order_relaxed);
        uint64_t slot = count;
        for (uint64_t i = 0; i < count; ++i) {
            if (gDebugThreadData[i].dwThread.load(std::memory_order_relaxed) == kLDebugThreadFree) {
                slot = i;
                break;
            }
        }
        if (slot == count) {
            if (count == kLDebugThreadCount) {
                return;
            }
            gnDebugThreads.store(count + 1, std::memory_order_relaxed);
        }
        record = &gDebugThreadData[slot];
        record->dwThread.store(kLDebugThreadClaimed, std::memory_order_relaxed);
    }
    if (name != nullptr) {
        CopyCut(record->szName, name, 4);
    } else {
        tplsnprintf(record->szName, sizeof record->szName, "%.4d",
                    static_cast<int>(thread % 10000));
    }
    record->szLastDialog[0] = 0;
    record->dwThread.store(thread, std::memory_order_release);
}

void _LDebugThreadDataStopThread(uint32_t thread) {
    LDebugThreadsLockCreate();
    std::lock_guard<LLockObject> hold(loDebugThreads);
    LDebugThreadData* record = _LDebugThreadFindData(thread);
    if (record == nullptr) {
        return;
    }
    record->dwThread.store(kLDebugThreadFree, std::memory_order_relaxed);
    // Trim the high-water mark past trailing free slots; a claimed slot stops the trim.
    uint64_t count = gnDebugThreads.load(std::memory_order_relaxed);
    while (count > 0 && gDebugThreadData[count - 1].dwThread.load(std::memory_order_relaxed) ==
                            kLDebugThreadFree) {
        --count;
    }
    gnDebugThreads.store(count, std::memory_order_relaxed);
}

LDebugThreadData* _LDebugThreadFindData(uint32_t thread) {
    uint64_t count = gnDebugThreads.load(std::memory_order_acquire);
    if (count > kLDebugThreadCount) {
        count = kLDebugThreadCount;
    }
    for (uint64_t i = 0; i < count; ++i) {
        if (gDebugThreadData[i].dwThread.load(std::memory_order_acquire) == thread) {
            return &gDebugThreadData[i];
        }
    }
    return nullptr;
}

void LDebugThreadDataStartThread(char const* name) {
    _LDebugThreadDataStartThread(_LDebugThreadCurrentNumber(), name);
}

void LDebugThreadDataStopThread() {
    _LDebugThreadDataStopThread(_LDebugThreadCurrentNumber());
}

LDebugThreadData* LDebugThreadFindData() {
    return _LDebugThreadFindData(_LDebugThreadCurrentNumber());
}

void LDebugThreadSetName(char const* name) {
    if (LDebugThreadData* record = LDebugThreadFindData()) {
        CopyCut(record->szName, name, 4);
    }
}

void LDebugThreadGetName(char* out) {
    if (out == nullptr) {
        return;
    }
    LDebugThreadData const* record = LDebugThreadFindData();
    CopyCut(out, record != nullptr ? record->szName : "", sizeof record->szName - 1);
}

void LDebugThreadSetLastDialog(char const* text) {
    uint32_t const thread = _LDebugThreadCurrentNumber();
    if (LDebugThreadData* record = _LDebugThreadFindData(thread)) {
        // The digits run backwards on purpose: units, tens, hundreds.
        tplsnprintf(record->szLastDialog, sizeof record->szLastDialog, "%s%d%d%d", text,
                    static_cast<int>(thread % 10), static_cast<int>(thread / 10 % 10),
                    static_cast<int>(thread / 100 % 10));
    }
}
