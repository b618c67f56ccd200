#include "debug/lexception.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

void Put32(std::vector<unsigned char>& m, size_t at, uint32_t v) {
    memcpy(m.data() + at, &v, 4);
}

// A crafted request and its answer: `codes` codes and `state` words laid out, the counts as
// claimed, the size skewed by sizeDelta, descriptors as given (complex requests only).
struct Row {
    char const* what;
    mach_msg_id_t id;
    bool complex;
    uint32_t codes, state;
    kern_return_t answer;
    uint32_t descriptors = 2, disposition = 17, type = 0;
    int sizeDelta = 0;
    int claimedCodes = -1, claimedState = -1;
};

std::vector<unsigned char> Build(Row const& r) {
    size_t const fixed = r.complex ? 60 : 32;  // header (+ body and descriptors) + NDR
    bool const state = r.id != 2405;
    size_t const size = fixed + 8 + 8 * r.codes + (state ? 8 + 4 * r.state : 0);
    std::vector<unsigned char> m(4096, 0xA5);
    Put32(m, 0, (r.complex ? MACH_MSGH_BITS_COMPLEX : 0) | 0x1512);
    Put32(m, 4, static_cast<uint32_t>(static_cast<int>(size) + r.sizeDelta));
    Put32(m, 8, 0x77);  // reply port
    Put32(m, 20, static_cast<uint32_t>(r.id));
    Put32(m, 24, r.descriptors);
    for (size_t at : {28, 40}) {
        m[at + 10] = static_cast<unsigned char>(r.disposition);
        m[at + 11] = static_cast<unsigned char>(r.type);
    }
    Put32(m, fixed + 4, r.claimedCodes >= 0 ? static_cast<uint32_t>(r.claimedCodes) : r.codes);
    Put32(m, fixed + 12 + 8 * r.codes,
          r.claimedState >= 0 ? static_cast<uint32_t>(r.claimedState) : r.state);
    return m;
}

constexpr kern_return_t kFail = KERN_FAILURE, kArgs = MIG_BAD_ARGUMENTS, kType = MIG_TYPE_ERROR;

Row const kRows[] = {
    {"raise, no codes", 2405, true, 0, 0, kFail},
    {"raise, two codes", 2405, true, 2, 0, kFail},
    {"raise, simple", 2405, false, 2, 0, kArgs},
    {"raise, 1 descriptor", 2405, true, 2, 0, kArgs, 1},
    {"raise, too short", 2405, true, 0, 0, kArgs, 2, 17, 0, -4},
    {"raise, too long", 2405, true, 2, 0, kArgs, 2, 17, 0, 4},
    {"raise, copy send", 2405, true, 1, 0, kType, 2, 19},
    {"raise, not a port", 2405, true, 1, 0, kType, 2, 17, 1},
    {"raise, 3 codes", 2405, true, 2, 0, kArgs, 2, 17, 0, 0, 3},
    {"raise, count vs size", 2405, true, 2, 0, kArgs, 2, 17, 0, 0, 1},
    {"state, smallest", 2406, false, 0, 0, kFail},
    {"state, largest", 2406, false, 2, 614, kFail},
    {"state, complex", 2406, true, 0, 0, kArgs},
    {"state, 615 words", 2406, false, 0, 615, kArgs},
    {"state, too short", 2406, false, 0, 0, kArgs, 2, 17, 0, -4},
    {"state, 3 codes", 2406, false, 2, 1, kArgs, 2, 17, 0, 0, 3},
    {"state, count vs size", 2406, false, 1, 3, kArgs, 2, 17, 0, 0, -1, 2},
    {"identity, smallest", 2407, true, 0, 0, kFail},
    {"identity, largest", 2407, true, 2, 614, kFail},
    {"identity, simple", 2407, false, 0, 0, kArgs},
    {"identity, 3 descriptors", 2407, true, 0, 0, kArgs, 3},
    {"identity, copy send", 2407, true, 0, 0, kType, 2, 18},
    {"identity, 615 words", 2407, true, 1, 615, kArgs},
    {"identity, size off", 2407, true, 2, 10, kArgs, 2, 17, 0, -4},
    {"identity, 3 codes", 2407, true, 2, 0, kArgs, 2, 17, 0, 0, 3},
    {"unknown id", 2408, true, 0, 0, MIG_BAD_ID},
};

TEST(MachExceptionServer, EveryCheckOfTheUnpackersAndTheDispatcher) {
    for (Row const& row : kRows) {
        SCOPED_TRACE(row.what);
        std::vector<unsigned char> request = Build(row);
        alignas(8) unsigned char reply[kLExceptionReplySize];
        memset(reply, 0xEE, sizeof reply);
        auto* in = reinterpret_cast<mach_msg_header_t*>(request.data());
        auto* out = reinterpret_cast<mach_msg_header_t*>(reply);
        bool const known = row.id >= 2405 && row.id <= 2407;
        EXPECT_EQ(mach_exc_server_routine(in) != nullptr, known);
        EXPECT_EQ(mach_exc_server(in, out), known ? 1 : 0);
        uint32_t const header[6] = {0x12, 36, 0x77, 0, 0, static_cast<uint32_t>(row.id + 100)};
        EXPECT_EQ(memcmp(out, header, sizeof header), 0);
        EXPECT_EQ(memcmp(reply + 24, &NDR_record, 8), 0);
        int32_t code, newStateCount;
        memcpy(&code, reply + 32, 4);
        memcpy(&newStateCount, reply + 40, 4);
        EXPECT_EQ(code, row.answer);
        bool const answersState = row.answer == kFail && row.id != 2405;
        EXPECT_EQ(newStateCount, answersState ? 614 : static_cast<int32_t>(0xEEEEEEEE));
        // Nothing is ever written beyond the reply's 44 bytes.
        EXPECT_TRUE(
            std::all_of(reply + 44, reply + sizeof reply, [](auto b) { return b == 0xEE; }));
    }
}

// A real null write, out of the sanitizers' sight so that the hardware sees it.
__attribute__((no_sanitize("address", "undefined"), noinline)) void WriteThroughNull() {
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
}

// With the handler installed, faults reach the handler thread, which declines, and the
// process dies by the fault's own signal (not a hang, not an exit).
TEST(ExceptionHandlerInstaller, FaultsAreDeclinedAndKillWithTheirSignal) {
    for (int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE}) {
        pid_t pid = fork();
        if (pid == 0) {
            LExceptionHandlerInstallerCreate();
            LExceptionHandlerInstallerCreate();  // once only
            signal == SIGSEGV ? WriteThroughNull() : void(raise(signal));
            _exit(0);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << signal << ' ' << status;
    }
}

}  // namespace
