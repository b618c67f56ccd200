// The platform seam under the memory figures: page counts of the machine, the process's
// virtual size and its data-size limit. Only the operating-system reads live behind it.
// Not for use outside debug/.
#pragma once

#include <string_view>

// The machine's memory, in bytes, split the way the figures need it.
struct LMemoryCounts {
    unsigned long long total = 0;     // installed memory
    unsigned long long free = 0;      // unused pages
    unsigned long long active = 0;    // recently used pages
    unsigned long long inactive = 0;  // reclaimable pages not recently used
    unsigned long long wired = 0;     // pages that can never be paged out
};

// Reads the machine's counts; false when they cannot be read.
bool _LMemoryReadCounts(LMemoryCounts& counts);
// Parses the text of a meminfo table ("Name:   123 kB" lines); false when the free figure
// is missing.
bool _LMemoryParseCounts(std::string_view text, LMemoryCounts& counts);
// The process's virtual size in bytes; 0 when unknown.
unsigned long long _LMemoryReadVirtualSize();
// The data-size limit's current value, with "no limit" as the largest signed value; false
// when the limit cannot be read.
bool _LMemoryReadDataLimit(long long& limit);
