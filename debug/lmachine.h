// The machine description a bug report carries (memory, processor, PCI devices and, for a
// crash, the memory left to the process) as a query-string fragment, and the system's latest
// crash report for this program.
//
// The writer forms append to the caller's writer and never reset it; the buffer forms hand
// back the text percent-encoded into at most kLMachineDataSize bytes, terminator included.
#pragma once

#include <cstddef>
#include <string_view>

#include "text/lstring.h"

inline constexpr size_t kLMachineDataSize = 8193;

// Appends "&memphys=%lu&cpu=%s&disp=%s": installed memory in MiB, the processor's name with
// its processor count, and every PCI device's name as "GPU<index>:<name>", run together.
void LDebugGetMachineDataForBugReport(LFixedLengthStringWriterTemplate<char>& writer);
// The same text, percent-encoded into out (kLMachineDataSize bytes).
void LDebugGetMachineDataForBugReport(char* out);
// "memfrhp=%d&memfrlg=%d" with the two figures, one "&" when there is room, then the
// machine description: two ampersands stand in a row before "memphys".
void LDebugGetMachineDataForCrashReport(LFixedLengthStringWriterTemplate<char>& writer,
                                        int freeHeapMiB, int largestFreeMiB);
void LDebugGetMachineDataForCrashReport(char* out, int freeHeapMiB, int largestFreeMiB);

// The processor's name (at most 259 characters into a 260-byte out); empty on failure.
void LMachineGetCPUDescription(char* out);
// Empties the list, then adds the model name of every PCI device, in bus order.
void LMachineGetGPUDescriptions(LStringListTemplate<char>& list);

// The newest crash report of this program in the home folder's
// "Library/Logs/DiagnosticReports": true with its path in path (260 bytes), or false with
// path left as it was.
bool LMacGetLatestCrashReport(char* path);

// ---- Pieces exposed for their tests -------------------------------------------------------

// Percent-encodes text into out (size bytes): letters, digits and "!-._~" kept, every other
// byte as "%XX"; cut silently when out is full, always terminated.
void _LMachineDataEncode(char const* text, char* out, size_t size);
// The "model name" value of a cpuinfo text, cut to 259 characters; false when absent.
bool _LMachineCPUInfoModelName(std::string_view cpuinfo, char* out);
// One report's header: true with its time when it names this program (the path compared
// from bundleName on with ownTail, the executable's path from bundleName on) and is dated.
bool _LReadCrashReport(char const* file, char const* bundleName, char const* ownTail, long& time);
// The crash-report search over one folder, for a program whose bundle folder is named
// bundleName and whose executable is exe.
bool _LFindLatestCrashReport(char const* folder, char const* bundleName, char const* exe,
                             char* path);
