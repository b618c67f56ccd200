// Memory figures: the meminfo table read field by field, the figures' relations on this
// machine, and the heap figures under an unlimited and under a tight data-size limit.
#include "debug/lmemory.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "debug/lmemory_platform.h"

namespace {

TEST(Memory, ParsesTheTable) {
    LMemoryCounts c;
    EXPECT_TRUE(
        _LMemoryParseCounts("MemTotal:  1000 kB\nMemFree: 200 kB\nActive: 300 kB\n"
                            "Inactive:  100 kB\nActive(anon): 7 kB\nUnevictable: 1 kB\n"
                            "SUnreclaim: 2 kB\nKernelStack: 3 kB\nPageTables: 4 kB\n"
                            "HugePages_Total: 5\n",
                            c));
    // Wired: what cannot be paged out (unevictable, slab, stacks, page tables).
    EXPECT_EQ(
        (std::vector{c.total, c.free, c.active, c.inactive, c.wired}),
        (std::vector<decltype(c.total)>{1000 << 10, 200 << 10, 300 << 10, 100 << 10, 10 << 10}));
    EXPECT_FALSE(_LMemoryParseCounts("MemTotal: 1 kB\n", c));
}

TEST(Memory, FiguresOfThisMachine) {
    const unsigned long long physical = LMemoryGetPhysicalMemorySize();
    const unsigned long long available = LMemoryGetAvailableVirtualMemorySize();
    EXPECT_GT(physical, 0u);
    EXPECT_GT(available, 0u);
    EXPECT_LE(LMemoryGetLargestFreeRegionSize(), available);
    EXPECT_LE(available, LMemoryGetTotalVirtualMemorySize());
    EXPECT_GT(LMemoryGetApplicationVirtualMemoryUsage(), 0u);
    // No data-size limit: the heap figures are the machine's, never negative.
    EXPECT_GT(LMemoryGetFreeHeapSize(), 0);
    EXPECT_GT(LMemoryGetTotalHeapSize(), 0);
    EXPECT_LE(LMemoryGetTotalHeapSize(), static_cast<long long>(physical) * 2);
    unsigned long used = 1, total = 1;
    EXPECT_EQ(LMemoryGetPageFileUsage(used, total), 0);
    EXPECT_EQ(used + total, 0u);
}

// Kilobytes of a /proc/self/status line.
long long StatusKB(const char* key) {
    std::ifstream in("/proc/self/status");
    std::string name;
    long long value = 0;
    while (in >> name) {
        if (name == key) {
            in >> value;
            return value;
        }
    }
    return 0;
}

TEST(Memory, TightDataLimit) {
    // A limit between what the process holds as data and its whole virtual size.
    const long long data = StatusKB("VmData:") * 1024, size = StatusKB("VmSize:") * 1024;
    const long long limit = data + 64ll * 1024 * 1024;
    if (limit >= size) {
        GTEST_SKIP() << "the process's size leaves no room below it for a limit";
    }
    const pid_t child = fork();
    if (child == 0) {
        rlimit tight{static_cast<rlim_t>(limit), RLIM_INFINITY};
        setrlimit(RLIMIT_DATA, &tight);
        const long long free = LMemoryGetFreeHeapSize();
        const long long left =
            limit - static_cast<long long>(LMemoryGetApplicationVirtualMemoryUsage());
        const bool ok = free < 0 && free - left < (64ll << 20) && left - free < (64ll << 20) &&
                        LMemoryGetTotalHeapSize() > 0 && LMemoryGetTotalHeapSize() <= limit;
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
