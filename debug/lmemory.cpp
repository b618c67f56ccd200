// The memory figures, built from the machine's page counts and the process's limits. The
// heap figures compare signed values so that a limit below the process's current size
// reads as a negative free heap, which makes every size test that uses it refuse.
#include "debug/lmemory.h"

#include <algorithm>

#include "debug/lmemory_platform.h"

namespace {

long long AsSigned(unsigned long long value) {
    return value > static_cast<unsigned long long>(INT64_MAX) ? INT64_MAX
                                                              : static_cast<long long>(value);
}

}  // namespace

unsigned long long LMemoryGetPhysicalMemorySize() {
    LMemoryCounts counts;
    return _LMemoryReadCounts(counts) ? counts.total : 0;
}

unsigned long long LMemoryGetAvailableVirtualMemorySize() {
    LMemoryCounts counts;
    return _LMemoryReadCounts(counts) ? counts.free + counts.inactive : 0;
}

unsigned long long LMemoryGetTotalVirtualMemorySize() {
    LMemoryCounts counts;
    return _LMemoryReadCounts(counts) ? counts.free + counts.active + counts.inactive + counts.wired
                                      : 0;
}

unsigned long long LMemoryGetLargestFreeRegionSize() {
    LMemoryCounts counts;
    return _LMemoryReadCounts(counts) ? counts.free : 0;
}

unsigned long long LMemoryGetApplicationVirtualMemoryUsage() {
    return _LMemoryReadVirtualSize();
}

long long LMemoryGetFreeHeapSize() {
    long long limit = 0;
    if (!_LMemoryReadDataLimit(limit)) {
        return -1;
    }
    const long long left = limit - AsSigned(LMemoryGetApplicationVirtualMemoryUsage());
    return std::min(AsSigned(LMemoryGetAvailableVirtualMemorySize()), left);
}

long long LMemoryGetTotalHeapSize() {
    long long limit = 0;
    if (!_LMemoryReadDataLimit(limit)) {
        return -1;
    }
    return std::min(limit, AsSigned(LMemoryGetTotalVirtualMemorySize()));
}

int LMemoryGetPhysicalMemoryLoad() {
    return 0;
}

int LMemoryGetPageFileUsage(unsigned long& used, unsigned long& total) {
    used = 0;
    total = 0;
    return 0;
}

void LMemoryLockLower2GB() {}
