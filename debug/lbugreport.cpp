// The signal handlers, the xi string, the bug report and the block scope.
#include "debug/lbugreport.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "debug/ldebug.h"
#include "debug/lmachine.h"
#include "debug/lmemory.h"
#include "platform/los_utils.h"
#include "settings/lsettings.h"
#include "text/lstring.h"

volatile uint8_t bLLibExceptionAlreadyTrapped = 0;
uint32_t gwDebugCurrentCommand = 0;
uint32_t gwDebugLastCommand = 0;

namespace {

void CopyCut(char* dst, char const* text, size_t max) {
    size_t n = text != nullptr ? strnlen(text, max) : 0;
    memcpy(dst, text != nullptr ? text : "", n);
    dst[n] = 0;
}

}  // namespace

void LDebugSignalHandler(int signal, siginfo_t*, void*) {
    if (bLLibExceptionAlreadyTrapped) {
        return;
    }
    bLLibExceptionAlreadyTrapped = 1;
    // The failure tag is formed and deliberately not passed on: the handler reports nothing.
    char tag[260];
    tplsnprintf(tag, sizeof tag, "SIGNAL%d", signal);
    switch (signal) {
        case SIGABRT:
        case SIGFPE:
        case SIGKILL:
        case SIGBUS:
        case SIGSEGV:
            exit(666);
        default:
            return;
    }
}

void LIntTermSignalHandler(int signal, siginfo_t*, void*) {
    if (signal == SIGTERM || signal == SIGINT) {
        exit(0);
    }
}

void _LDebugPlatformWord(char* out, size_t size, int major, int minor) {
    tplsnprintf(out, size, "Mac%s%d%02d", "Intel", major, minor);
}

void _LDebugCommandWord(char* out, size_t size, bool mainThread, uint32_t current, uint32_t last) {
    out[0] = 0;
    if (!mainThread) {
        return;
    }
    static char const* const kWords[] = {nullptr, "GloIni1", "GuiIni2", "GuiDes3", "GloDes4"};
    if (current == 0) {
        tplsnprintf(out, size, "Ukn0(LstCmd%d)", static_cast<int>(last));
    } else if (current < 5) {
        tplsnprintf(out, size, "%s", kWords[current]);
    } else {
        tplsnprintf(out, size, "(Cmd%d)", static_cast<int>(current));
    }
}

void LDebugGenerateXIString(char* out, char const* prefix, char const* detail) {
    out[0] = 0;
    unsigned char major = 0, minor = 0, patch = 0;
    LGetOSVersion(major, minor, patch);
    char platform[260];
    _LDebugPlatformWord(platform, sizeof platform, major, minor);

    char name[260] = "Unknown";
    char lastDialog[260] = "";
    {
        LDebugThreadsLockCreate();
        std::lock_guard<LLockObject> hold(loDebugThreads);
        if (LDebugThreadData const* record = LDebugThreadFindData()) {
            // A name made from the thread number says nothing: leave it out.
            bool const numbered = record->szName[0] >= '0' && record->szName[0] <= '9';
            CopyCut(name, numbered ? "" : record->szName, sizeof record->szName - 1);
            CopyCut(lastDialog, record->szLastDialog, sizeof record->szLastDialog - 1);
        }
    }
    char command[260];
    _LDebugCommandWord(command, sizeof command, LIsMainThread(), gwDebugCurrentCommand,
                       gwDebugLastCommand);
    char thread[260];
    tplsnprintf(thread, sizeof thread, "%s%s%s", name, lastDialog, command);
    tplsnprintf(out, 260, "%s-%s-%s-%s", prefix, platform, detail, thread);
}

void _LDebugBugReportAddress(char* out, char const* iid, char const* machineData, int major,
                             int minor) {
    tplsnprintf(out, kLBugReportAddressSize,
                "https://%s/software/bug.html?software=KavelPLVadHelper&version=1.0&"
                "xi=AbTermOrHang-Mac%d%02d&iid=%s&data=%s",
                kLBugReportHost, major, minor, iid, machineData);
}

void LDebugHangDetectorBugReport(bool) {
    char iid[260];
    _LSettingGetString(kLSettingDomainCurrentUser, "Software", "IID", "", iid);
    int const freeHeap = static_cast<int>(LMemoryGetFreeHeapSize() >> 20);
    int const largestFree = static_cast<int>(LMemoryGetLargestFreeRegionSize() >> 20);
    auto data = std::make_unique<char[]>(kLMachineDataSize);
    LDebugGetMachineDataForCrashReport(data.get(), freeHeap, largestFree);
    unsigned char major = 0, minor = 0;
    LGetOSVersion(major, minor);
    auto address = std::make_unique<char[]>(kLBugReportAddressSize);
    _LDebugBugReportAddress(address.get(), iid, data.get(), major, minor);
    LOpenWebPage(address.get());
}

LBugReportBlockScope::LBugReportBlockScope(char const* blockName)
    : m_szSavedName{}, m_nRecordIndex(-1) {
    // Only the owning thread writes its own record, so no lock is needed.
    if (LDebugThreadData* record = LDebugThreadFindData()) {
        m_nRecordIndex = record - gDebugThreadData;
        memcpy(m_szSavedName, record->szName, sizeof m_szSavedName);
        CopyCut(record->szName, blockName, 4);
    }
}

LBugReportBlockScope::~LBugReportBlockScope() {
    if (m_nRecordIndex != -1) {
        memcpy(gDebugThreadData[m_nRecordIndex].szName, m_szSavedName, sizeof m_szSavedName);
    }
}
