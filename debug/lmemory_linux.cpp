// Linux half of the memory figures: /proc/meminfo for the machine, /proc/self/statm for the
// process, getrlimit for the data-size limit.
//
// Wired memory is what the kernel can never page out: unevictable pages, the kernel's own
// unreclaimable slab, its stacks and the page tables.
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "debug/lmemory_platform.h"
#include "platform/lsmall_file.h"

bool _LMemoryParseCounts(std::string_view text, LMemoryCounts& counts) {
    counts = {};
    bool haveFree = false;
    while (!text.empty()) {
        const size_t eol = text.find('\n');
        std::string_view line = text.substr(0, eol);
        text = eol == std::string_view::npos ? std::string_view() : text.substr(eol + 1);
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos) {
            continue;
        }
        const std::string_view key = line.substr(0, colon);
        const std::string number(line.substr(colon + 1));
        char* end = nullptr;
        unsigned long long value = std::strtoull(number.c_str(), &end, 10);
        if (end == number.c_str()) {
            continue;
        }
        if (std::string_view(end).find("kB") != std::string_view::npos) {
            value *= 1024;
        }
        if (key == "MemTotal") {
            counts.total = value;
        } else if (key == "MemFree") {
            counts.free = value;
            haveFree = true;
        } else if (key == "Active") {
            counts.active = value;
        } else if (key == "Inactive") {
            counts.inactive = value;
        } else if (key == "Unevictable" || key == "SUnreclaim" || key == "KernelStack" ||
                   key == "PageTables") {
            counts.wired += value;
        }
    }
    return haveFree;
}

bool _LMemoryReadCounts(LMemoryCounts& counts) {
    std::string text;
    _LReadWholeFile("/proc/meminfo", text);
    return _LMemoryParseCounts(text, counts);
}

unsigned long long _LMemoryReadVirtualSize() {
    std::string text;
    if (!_LReadWholeFile("/proc/self/statm", text)) {
        return 0;
    }
    const unsigned long long pages = strtoull(text.c_str(), nullptr, 10);
    const long pageSize = sysconf(_SC_PAGESIZE);
    return pageSize > 0 ? pages * static_cast<unsigned long long>(pageSize) : 0;
}

bool _LMemoryReadDataLimit(long long& limit) {
    rlimit value{};
    if (getrlimit(RLIMIT_DATA, &value) != 0) {
        return false;
    }
    // "No limit" is all bits set here; as a signed size it must read as the largest one.
    limit = value.rlim_cur == RLIM_INFINITY || value.rlim_cur > static_cast<rlim_t>(INT64_MAX)
                ? INT64_MAX
                : static_cast<long long>(value.rlim_cur);
    return true;
}
