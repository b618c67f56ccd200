// Signal handlers for fatal and terminating signals, the "xi" string that names where a
// failure happened, the bug-report address, and the scope that names a block in the thread
// registry.
//
// The signal handlers touch only a one-byte flag, a stack buffer and exit: a program that
// wants them installs them itself with the three-argument handler form.
#pragma once

#include <signal.h>

#include <cstddef>
#include <cstdint>

// Set by the first entry into LDebugSignalHandler and never cleared.
extern volatile uint8_t bLLibExceptionAlreadyTrapped;
// The command the main thread is carrying out, and the one it carried out last. A program
// sets them as it dispatches commands; 0 when nobody does.
extern uint32_t gwDebugCurrentCommand;
extern uint32_t gwDebugLastCommand;

// The first fatal signal ends the process with status 666 (SIGABRT, SIGFPE, SIGKILL, SIGBUS,
// SIGSEGV); any other signal returns. Every signal after the first is ignored.
void LDebugSignalHandler(int signal, siginfo_t* info, void* context);
// SIGTERM and SIGINT end the process with status 0; any other signal returns.
void LIntTermSignalHandler(int signal, siginfo_t* info, void* context);

// "prefix-platform-detail-thread" into out (260 bytes), e.g.
// AbTerm-MacIntel1015-SIGNAL11-MAINUkn0(LstCmd0).
void LDebugGenerateXIString(char* out, char const* prefix, char const* detail);

// Opens the bug-report page of the maker's site in the user's browser, with the installation
// identifier, the system version and the machine description. The flag is ignored.
void LDebugHangDetectorBugReport(bool);

// Marks a block in the calling thread's registry name (cut to 4 characters) for as long as
// the scope lives; the previous name comes back exactly at its end.
class LBugReportBlockScope {
public:
    explicit LBugReportBlockScope(char const* blockName);
    ~LBugReportBlockScope();
    LBugReportBlockScope(LBugReportBlockScope const&) = delete;
    LBugReportBlockScope& operator=(LBugReportBlockScope const&) = delete;

private:
    char m_szSavedName[8];
    int64_t m_nRecordIndex;
};

// ---- Parts shared with the bug report, exposed for their tests -----------------------------

// The platform word: "Mac" + "Intel" + major + two-digit minor.
void _LDebugPlatformWord(char* out, size_t size, int major, int minor);
// The command word for the main thread's current command (empty off the main thread).
void _LDebugCommandWord(char* out, size_t size, bool mainThread, uint32_t current, uint32_t last);
// The maker's bug-report host, reached over https.
inline constexpr char kLBugReportHost[] = "www.tessalysoftware.com";
inline constexpr size_t kLBugReportAddressSize = 8194;
// The bug-report address into out (kLBugReportAddressSize bytes, longer results cut): the
// identifier as given, the machine data already encoded.
void _LDebugBugReportAddress(char* out, char const* iid, char const* machineData, int major,
                             int minor);
