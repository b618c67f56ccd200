// What the service's static initialiser leaves behind by the time main runs: every start-up
// piece built, each usable by the ones after it, and both message key tables filled in order.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>

#include "debug/ldebug.h"
#include "debug/lexception.h"
#include "helper/vadhelper_startup.h"

namespace {

struct Snapshot {
    bool lockIsRecursive = false;
    struct sigaction segv {};
    uint64_t registeredThreads = 0;
    std::string firstThreadName;
    bool firstThreadIsMain = false;
} gAtMain;

// Taken before any test runs, as main begins.
class TakeSnapshot : public testing::Environment {
    void SetUp() override {
        // Only a built (recursive) lock can be taken twice by one thread.
        if (loDebugThreads.TryLock()) {
            if ((gAtMain.lockIsRecursive = loDebugThreads.TryLock())) {
                loDebugThreads.Unlock();
            }
            loDebugThreads.Unlock();
        }
        sigaction(SIGSEGV, nullptr, &gAtMain.segv);
        gAtMain.registeredThreads = gnDebugThreads.load();
        gAtMain.firstThreadName = gDebugThreadData[0].szName;
        gAtMain.firstThreadIsMain =
            gDebugThreadData[0].dwThread.load() == static_cast<uint32_t>(getpid());
    }
};

testing::Environment* const gSnapshot = testing::AddGlobalTestEnvironment(new TakeSnapshot);

TEST(ServiceStartup, EveryPieceIsBuiltBeforeMain) {
    // The hang detector's lock file is never created by the service.
    EXPECT_EQ(gLHangDetector.GetFileDescriptor(), -1);
    EXPECT_TRUE(gAtMain.lockIsRecursive);
    // The exception handler: its port open, faults watched on the alternate stack.
    EXPECT_TRUE(LExceptionHandlerInstallerCreated());
    EXPECT_NE(fcntl(static_cast<int>(gLExceptionHandlerInstaller.exceptionPort), F_GETFD), -1);
    EXPECT_EQ(gAtMain.segv.sa_flags & (SA_SIGINFO | SA_ONSTACK), SA_SIGINFO | SA_ONSTACK);
    // The main thread as the registry's first and only record.
    EXPECT_EQ(gAtMain.registeredThreads, 1u);
    EXPECT_EQ(gAtMain.firstThreadName, "MAIN");
    EXPECT_TRUE(gAtMain.firstThreadIsMain);
}

// Each table ends with an empty name of type 0 in its ninth entry.
std::string Table(LXPCDictionaryKey const* table) {
    std::string entries;
    for (int i = 0; i < 9; ++i)
        entries += std::string(table[i].szName) + ":" + std::to_string(table[i].type) + " ";
    return entries;
}

TEST(ServiceStartup, KeyTablesAreFilledInOrder) {
    EXPECT_EQ(Table(arVADHelperTxKeys),
              "NEW_ENDPOINT:10 CLOSE_ENDPOINT:1 REQUEST_ENDPOINT:1 AUDIO_DATA:6 LOAD_DRIVER:8 "
              "START_RECORDING:1 STOP_RECORDING:1 VOLUME_CHANGED:4 :0 ");
    EXPECT_EQ(Table(arVADHelperRxKeys),
              "NEW_ENDPOINT_REPLY:1 CLOSE_ENDPOINT_REPLY:1 SEND_ENDPOINT:10 AUDIO_DATA:6 "
              "LOAD_DRIVER_REPLY:1 START_RECORDING:1 STOP_RECORDING:1 VOLUME_CHANGED:4 :0 ");
}

}  // namespace
