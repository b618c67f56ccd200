// What the service's static initialiser leaves behind by the time main runs: every start-up
// piece built, in the order that makes each one usable by the next.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "debug/ldebug.h"
#include "debug/lexception.h"
#include "helper/vadhelper_startup.h"

namespace {

struct Snapshot {
    std::string lockFilePath;
    int lockFileDescriptor = 0;
    bool lockIsRecursive = false;
    bool installerCreated = false;
    mach_port_t port = 0;
    struct sigaction segv {};
    uint64_t registeredThreads = 0;
    std::string firstThreadName;
    bool firstThreadIsMain = false;
    std::string firstTxKey, firstRxKey;
} gAtMain;

// Taken before any test runs, as main begins.
class TakeSnapshot : public testing::Environment {
    void SetUp() override {
        gAtMain.lockFilePath = gLHangDetector.GetLockFilePath();
        gAtMain.lockFileDescriptor = gLHangDetector.GetFileDescriptor();
        // Only a built (recursive) lock can be taken twice by one thread.
        if (loDebugThreads.TryLock()) {
            gAtMain.lockIsRecursive = loDebugThreads.TryLock();
            if (gAtMain.lockIsRecursive) {
                loDebugThreads.Unlock();
            }
            loDebugThreads.Unlock();
        }
        gAtMain.installerCreated = LExceptionHandlerInstallerCreated();
        gAtMain.port = gLExceptionHandlerInstaller.exceptionPort;
        sigaction(SIGSEGV, nullptr, &gAtMain.segv);
        gAtMain.registeredThreads = gnDebugThreads.load();
        gAtMain.firstThreadName = gDebugThreadData[0].szName;
        gAtMain.firstThreadIsMain =
            gDebugThreadData[0].dwThread.load() == static_cast<uint32_t>(getpid());
        gAtMain.firstTxKey = arVADHelperTxKeys[0].szName;
        gAtMain.firstRxKey = arVADHelperRxKeys[0].szName;
    }
};

testing::Environment* const gSnapshot = testing::AddGlobalTestEnvironment(new TakeSnapshot);

TEST(ServiceStartup, EveryPieceIsBuiltBeforeMain) {
    // The hang detector: its lock file named, never created by the service.
    EXPECT_NE(gAtMain.lockFilePath.find("_kavelplvadhelper_rl_"), std::string::npos);
    EXPECT_EQ(gAtMain.lockFileDescriptor, -1);
    EXPECT_FALSE(std::filesystem::exists(gAtMain.lockFilePath));
    EXPECT_TRUE(gAtMain.lockIsRecursive);
    // The exception handler: port open, faults watched on the alternate stack.
    EXPECT_TRUE(gAtMain.installerCreated);
    EXPECT_NE(gAtMain.port, 0u);
    EXPECT_NE(fcntl(static_cast<int>(gAtMain.port), F_GETFD), -1);
    EXPECT_TRUE(gAtMain.segv.sa_flags & SA_SIGINFO);
    EXPECT_TRUE(gAtMain.segv.sa_flags & SA_ONSTACK);
    EXPECT_NE(reinterpret_cast<void*>(gAtMain.segv.sa_sigaction), reinterpret_cast<void*>(SIG_DFL));
    // The key tables, then the main thread as the registry's first and only record: nothing
    // registered a thread before the lock existed.
    EXPECT_EQ(gAtMain.firstTxKey, "NEW_ENDPOINT");
    EXPECT_EQ(gAtMain.firstRxKey, "NEW_ENDPOINT_REPLY");
    EXPECT_EQ(gAtMain.registeredThreads, 1u);
    EXPECT_EQ(gAtMain.firstThreadName, "MAIN");
    EXPECT_TRUE(gAtMain.firstThreadIsMain);
}

}  // namespace
