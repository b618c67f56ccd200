// The machine description's text. The display list runs the device names together with no
// separator between entries; reports are read that way, so it stays.
#include "debug/lmachine.h"

#include <unistd.h>

#include "debug/lmemory.h"
#include "file/lfile.h"

void _LMachineDataEncode(char const* text, char* out, size_t size) {
    if (size == 0) {
        return;
    }
    LFixedLengthStringWriterTemplate<char> writer(out, size - 1);
    for (char const* p = text; p != nullptr && *p != 0; ++p) {
        LURIEncodeToWriterDirect(writer, *p);
    }
    writer.Terminate();
}

void LDebugGetMachineDataForBugReport(LFixedLengthStringWriterTemplate<char>& writer) {
    unsigned long const physicalMiB =
        static_cast<unsigned long>(LMemoryGetPhysicalMemorySize() >> 20);

    char brand[kLPathSize];
    LMachineGetCPUDescription(brand);
    char processor[kLPathSize];
    tplsnprintf(processor, sizeof processor, "%s (%d CPUs)", brand,
                static_cast<int>(sysconf(_SC_NPROCESSORS_CONF)));

    LStringList devices;
    LMachineGetGPUDescriptions(devices);
    LStringLong display;
    for (unsigned long i = 0; i < devices.GetCount(); ++i) {
        tsprintfappend(display, "GPU%zu:%s", static_cast<size_t>(i), devices[i]);
    }
    sprintf(writer, "&memphys=%lu&cpu=%s&disp=%s", physicalMiB, processor, display.GetText());
}

void LDebugGetMachineDataForCrashReport(LFixedLengthStringWriterTemplate<char>& writer,
                                        int freeHeapMiB, int largestFreeMiB) {
    sprintf(writer, "memfrhp=%d&memfrlg=%d", freeHeapMiB, largestFreeMiB);
    writer.Write('&');
    LDebugGetMachineDataForBugReport(writer);
}

void LDebugGetMachineDataForBugReport(char* out) {
    char text[kLMachineDataSize];
    LFixedLengthStringWriterTemplate<char> writer(text, sizeof text - 1);
    LDebugGetMachineDataForBugReport(writer);
    writer.Terminate();
    _LMachineDataEncode(text, out, kLMachineDataSize);
}

void LDebugGetMachineDataForCrashReport(char* out, int freeHeapMiB, int largestFreeMiB) {
    char text[kLMachineDataSize];
    LFixedLengthStringWriterTemplate<char> writer(text, sizeof text - 1);
    LDebugGetMachineDataForCrashReport(writer, freeHeapMiB, largestFreeMiB);
    writer.Terminate();
    _LMachineDataEncode(text, out, kLMachineDataSize);
}
