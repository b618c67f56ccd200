// The main queue (order, stop, bounded drain) and the dispatch group; posts from other threads
// and their order are checked by the queued notifications' tests.
#include "thread/main_queue.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>
#include <vector>

namespace {

TEST(MainQueue, RunsItemsInOrderStopsAfterTheRunningItemAndRunsGroupNotifications) {
    std::vector<int> order;
    for (int i = 0; i < 5; ++i) {
        LMainQueueAsync([&order, i] {
            order.push_back(i);
            if (i == 2) {
                LMainQueueStop();
            }
        });
    }
    LMainQueueRun();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
    // The rest stays queued for the next run, as does what items queue; a stop made before a
    // run is kept for it.
    LMainQueueAsync([] { LMainQueueAsync(LMainQueueStop); });
    LMainQueueRun();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
    std::thread(LMainQueueStop).join();
    LMainQueueRun();
    // A stop from another thread ends a waiting run.
    std::thread stopper([] {
        usleep(20000);
        LMainQueueStop();
    });
    LMainQueueRun();
    stopper.join();
    // A dispatch group's notification goes to the main queue once its count reaches zero.
    LDispatchGroup group;
    int calls = 0;
    group.Notify([&] { ++calls; });  // idle: queued at once
    EXPECT_EQ(LMainQueueDrain(0), 1u);
    group.Enter();
    group.Enter();
    group.Notify([&] { ++calls; });
    group.Leave();
    EXPECT_FALSE(group.Wait(5));
    EXPECT_EQ(LMainQueueDrain(0), 0u);
    std::thread worker([&] { group.Leave(); });
    EXPECT_TRUE(group.Wait(~0u));
    worker.join();
    EXPECT_EQ(LMainQueueDrain(1000), 1u);
    EXPECT_EQ(calls, 2);
    group.Leave();  // unbalanced: ignored
    EXPECT_TRUE(group.Wait(0));
}

}  // namespace
