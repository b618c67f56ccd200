#include "debug/lexception.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <vector>

namespace {

void Put32(std::vector<unsigned char>& m, size_t at, uint32_t v) {
    memcpy(m.data() + at, &v, 4);
}

// A request of the given id with codes and state as laid out by the interface; complex
// requests carry the two port descriptors (thread 7, task 9).
struct Request {
    mach_msg_id_t id;
    bool complex;
    uint32_t codes, state;
    uint32_t descriptors = 2;
    uint8_t disposition = MACH_MSG_TYPE_MOVE_SEND, type = MACH_MSG_PORT_DESCRIPTOR;
    int sizeDelta = 0;
    // The code count written into the message (default: codes).
    int64_t claimedCodes = -1;
};

std::vector<unsigned char> Build(Request const& r) {
    size_t const fixed = r.complex ? 60 : 32;  // header (+ body and descriptors) + NDR
    bool const state = r.id != kLMachExcFirstId;
    size_t const size = fixed + 8 + 8 * r.codes + (state ? 8 + 4 * r.state : 0);
    std::vector<unsigned char> m(4096, 0xA5);
    Put32(m, 0, (r.complex ? MACH_MSGH_BITS_COMPLEX : 0) | 0x1512);
    Put32(m, 4, static_cast<uint32_t>(static_cast<int>(size) + r.sizeDelta));
    Put32(m, 8, 0x77);   // reply port
    Put32(m, 12, 0x55);  // exception port
    Put32(m, 20, static_cast<uint32_t>(r.id));
    if (r.complex) {
        Put32(m, 24, r.descriptors);
        for (size_t i = 0; i < 2; ++i) {
            Put32(m, 28 + 12 * i, i == 0 ? 7 : 9);
            m[28 + 12 * i + 10] = r.disposition;
            m[28 + 12 * i + 11] = r.type;
        }
    }
    Put32(m, fixed, 1);  // exception
    Put32(m, fixed + 4, r.claimedCodes >= 0 ? static_cast<uint32_t>(r.claimedCodes) : r.codes);
    if (state) {
        Put32(m, fixed + 8 + 8 * r.codes, 4);  // flavor
        Put32(m, fixed + 12 + 8 * r.codes, r.state);
    }
    return m;
}

struct Row {
    char const* what;
    Request request;
    kern_return_t code;
    bool newStateCount;  // the answer names 614 new-state words
};

constexpr mach_msg_id_t kRaise = 2405, kState = 2406, kIdentity = 2407;

Row const kRows[] = {
    {"raise, no codes", {kRaise, true, 0, 0}, KERN_FAILURE, false},
    {"raise, two codes", {kRaise, true, 2, 0}, KERN_FAILURE, false},
    {"raise, simple", {kRaise, false, 2, 0}, MIG_BAD_ARGUMENTS, false},
    {"raise, 1 descriptor", {kRaise, true, 2, 0, 1}, MIG_BAD_ARGUMENTS, false},
    {"raise, too short", {kRaise, true, 0, 0, 2, 17, 0, -4}, MIG_BAD_ARGUMENTS, false},
    {"raise, too long", {kRaise, true, 2, 0, 2, 17, 0, 4}, MIG_BAD_ARGUMENTS, false},
    {"raise, copy send", {kRaise, true, 1, 0, 2, 19}, MIG_TYPE_ERROR, false},
    {"raise, not a port", {kRaise, true, 1, 0, 2, 17, 1}, MIG_TYPE_ERROR, false},
    {"raise, 3 codes", {kRaise, true, 2, 0, 2, 17, 0, 0, 3}, MIG_BAD_ARGUMENTS, false},
    {"raise, count vs size", {kRaise, true, 2, 0, 2, 17, 0, 0, 1}, MIG_BAD_ARGUMENTS, false},
    {"state, smallest", {kState, false, 0, 0}, KERN_FAILURE, true},
    {"state, largest", {kState, false, 2, 614}, KERN_FAILURE, true},
    {"state, complex", {kState, true, 0, 0}, MIG_BAD_ARGUMENTS, false},
    {"state, 615 words", {kState, false, 0, 615, 2, 17, 0, 0}, MIG_BAD_ARGUMENTS, false},
    {"state, too short", {kState, false, 0, 0, 2, 17, 0, -4}, MIG_BAD_ARGUMENTS, false},
    {"state, 3 codes", {kState, false, 2, 1, 2, 17, 0, 0, 3}, MIG_BAD_ARGUMENTS, false},
    {"state, size off", {kState, false, 1, 3, 2, 17, 0, 4}, MIG_BAD_ARGUMENTS, false},
    {"identity, smallest", {kIdentity, true, 0, 0}, KERN_FAILURE, true},
    {"identity, largest", {kIdentity, true, 2, 614}, KERN_FAILURE, true},
    {"identity, simple", {kIdentity, false, 0, 0}, MIG_BAD_ARGUMENTS, false},
    {"identity, 3 descriptors", {kIdentity, true, 0, 0, 3}, MIG_BAD_ARGUMENTS, false},
    {"identity, copy send", {kIdentity, true, 0, 0, 2, 18}, MIG_TYPE_ERROR, false},
    {"identity, 615 words", {kIdentity, true, 1, 615}, MIG_BAD_ARGUMENTS, false},
    {"identity, size off", {kIdentity, true, 2, 10, 2, 17, 0, -4}, MIG_BAD_ARGUMENTS, false},
    {"identity, 3 codes", {kIdentity, true, 2, 0, 2, 17, 0, 0, 3}, MIG_BAD_ARGUMENTS, false},
    {"unknown id", {2408, true, 0, 0}, MIG_BAD_ID, false},
    {"id below", {2404, false, 0, 0}, MIG_BAD_ID, false},
};

TEST(MachExceptionServer, EveryCheckOfTheUnpackersAndTheDispatcher) {
    for (Row const& row : kRows) {
        SCOPED_TRACE(row.what);
        std::vector<unsigned char> request = Build(row.request);
        alignas(8) unsigned char reply[kLExceptionReplySize];
        memset(reply, 0xEE, sizeof reply);
        auto* in = reinterpret_cast<mach_msg_header_t*>(request.data());
        auto* out = reinterpret_cast<mach_msg_header_t*>(reply);
        bool const known = row.request.id >= 2405 && row.request.id <= 2407;
        EXPECT_EQ(mach_exc_server_routine(in) != nullptr, known);
        EXPECT_EQ(mach_exc_server(in, out), known ? 1 : 0);
        EXPECT_EQ(out->msgh_bits, 0x12u);
        EXPECT_EQ(out->msgh_size, 36u);
        EXPECT_EQ(out->msgh_remote_port, 0x77u);
        EXPECT_EQ(out->msgh_local_port, 0u);
        EXPECT_EQ(out->msgh_voucher_port, 0u);
        EXPECT_EQ(out->msgh_id, row.request.id + 100);
        EXPECT_EQ(memcmp(reply + 24, &NDR_record, 8), 0);
        int32_t code, newStateCount;
        memcpy(&code, reply + 32, 4);
        memcpy(&newStateCount, reply + 40, 4);
        EXPECT_EQ(code, row.code);
        EXPECT_EQ(newStateCount, row.newStateCount ? 614 : static_cast<int32_t>(0xEEEEEEEE));
        // Nothing is ever written beyond the reply's 44 bytes.
        for (size_t i = 44; i < sizeof reply; ++i) {
            ASSERT_EQ(reply[i], 0xEE) << i;
        }
    }
}

// Runs body in a child and answers how the child ended: the signal that killed it, or
// 1000 + its exit status.
template <typename Body>
int ChildEnd(Body body) {
    pid_t pid = fork();
    if (pid == 0) {
        body();
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFSIGNALED(status) ? WTERMSIG(status) : 1000 + WEXITSTATUS(status);
}

// A real null write, out of the sanitizers' sight so that the hardware sees it.
__attribute__((no_sanitize("address", "undefined"), noinline)) void WriteThroughNull() {
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
}

// With the handler installed, faults reach the handler thread, which declines, and the
// process dies by the fault's own signal (not a hang, not an exit).
TEST(ExceptionHandlerInstaller, FaultsAreDeclinedAndKillWithTheirSignal) {
    EXPECT_EQ(ChildEnd([] {
                  LExceptionHandlerInstallerCreate();
                  LExceptionHandlerInstallerCreate();  // once only
                  if (gLExceptionHandlerInstaller.exceptionPort == 0) {
                      _exit(3);
                  }
                  WriteThroughNull();
              }),
              SIGSEGV);
    for (int signal : {SIGBUS, SIGILL, SIGFPE}) {
        EXPECT_EQ(ChildEnd([signal] {
                      LExceptionHandlerInstallerCreate();
                      raise(signal);
                  }),
                  signal);
    }
    // Destruction gives the port up.
    EXPECT_EQ(ChildEnd([] {
                  LExceptionHandlerInstallerCreate();
                  int const port = static_cast<int>(gLExceptionHandlerInstaller.exceptionPort);
                  gLExceptionHandlerInstaller.~LExceptionHandlerInstaller();
                  _exit(port != 0 && close(port) == -1 ? 0 : 1);
              }),
              1000);
}

}  // namespace
