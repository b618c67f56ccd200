// Memory figures: the meminfo table read field by field, the figures' relations on this
// machine, and the heap figures under an unlimited and under a tight data-size limit.
#include "debug/lmemory.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

#include "debug/lmemory_platform.h"

namespace {

TEST(Memory, ParsesTheTableAndFiguresOfThisMachine) {
    LMemoryCounts c;
    EXPECT_TRUE(
        _LMemoryParseCounts("MemTotal:  1000 kB\nMemFree: 200 kB\nActive: 300 kB\n"
                            "Inactive:  100 kB\nActive(anon): 7 kB\n",
                            c));
    EXPECT_EQ((std::vector{c.total, c.free, c.active, c.inactive}),
              (std::vector<decltype(c.total)>{1000 << 10, 200 << 10, 300 << 10, 100 << 10}));
    EXPECT_FALSE(_LMemoryParseCounts("MemTotal: 1 kB\n", c));
    const unsigned long long physical = LMemoryGetPhysicalMemorySize();
    const unsigned long long available = LMemoryGetAvailableVirtualMemorySize();
    EXPECT_GT(physical, 0u);
    EXPECT_LE(LMemoryGetLargestFreeRegionSize(), available);
    EXPECT_LE(available, LMemoryGetTotalVirtualMemorySize());
    // No data-size limit: the heap figures are the machine's, never negative.
    EXPECT_GT(LMemoryGetFreeHeapSize(), 0);
    EXPECT_LE(LMemoryGetTotalHeapSize(), static_cast<long long>(physical) * 2);
    EXPECT_GT(LMemoryGetTotalHeapSize(), 0);
    unsigned long used = 1, total = 1;
    EXPECT_EQ(LMemoryGetPageFileUsage(used, total) + used + total, 0u);

    // A limit below what the process already uses reads as a negative free heap.
    const long long usage = LMemoryGetApplicationVirtualMemoryUsage(), limit = usage / 2;
    const pid_t child = fork();
    if (child == 0) {
        rlimit tight{static_cast<rlim_t>(limit), RLIM_INFINITY};
        setrlimit(RLIMIT_DATA, &tight);
        const long long free = LMemoryGetFreeHeapSize(), total = LMemoryGetTotalHeapSize();
        _exit(free < 0 && free > -usage && total > 0 && total <= limit ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
