// Linux half of the exception port. The port is a sequenced-packet socket pair: the handler
// thread receives on one end, and the faults reach the other through a signal handler. The
// handler watches SIGSEGV, SIGBUS, SIGILL and SIGFPE on an alternate stack (so that a stack
// overflow still reaches it), turns the fault into an exception request, hands it to the
// thread and waits for the answer. The answer declines, as every answer does: the handler
// restores the default action and re-raises the signal, so the process dies with the fault's
// own signal and the system's crash handling sees it.
//
// Everything the signal handler does is async-signal-safe: a stack buffer, send/recv,
// sigaction, raise. Only the first fault of the process talks to the thread; a fault that
// finds the thread gone, another fault in progress, or a forked copy of the process (whose
// socket still leads to the parent's thread) declines at once.
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "debug/lexception.h"

namespace {

constexpr int kWatchedSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};
// Exception kinds of the request: bad access, bad instruction, arithmetic.
constexpr exception_type_t kExcBadAccess = 1, kExcBadInstruction = 2, kExcArithmetic = 3;
constexpr mach_msg_bits_t kMakeSendOnce = 21;
constexpr size_t kAltStackSize = 64 * 1024;

alignas(16) unsigned char gAltStack[kAltStackSize];
int gSendEnd = -1;
pid_t gInstalledPid = 0;
mach_port_t gPort = 0;
std::atomic<bool> gFaultTaken{false};

void Put32(unsigned char* at, uint32_t value) {
    memcpy(at, &value, sizeof value);
}

// A raise request for the fault: the two codes are the signal and the fault address.
size_t BuildRequest(unsigned char* out, int signal, siginfo_t const* info) {
    exception_type_t kind = signal == SIGILL   ? kExcBadInstruction
                            : signal == SIGFPE ? kExcArithmetic
                                               : kExcBadAccess;
    size_t const size = 84;
    memset(out, 0, size);
    Put32(out, MACH_MSGH_BITS_COMPLEX | kMakeSendOnce);
    Put32(out + 4, size);
    Put32(out + 12, gPort);
    Put32(out + 20, static_cast<uint32_t>(kLMachExcFirstId));
    Put32(out + 24, 2);
    uint32_t const ports[2] = {static_cast<uint32_t>(syscall(SYS_gettid)),
                               static_cast<uint32_t>(getpid())};
    for (size_t i = 0; i < 2; ++i) {
        unsigned char* descriptor = out + 28 + 12 * i;
        Put32(descriptor, ports[i]);
        descriptor[10] = MACH_MSG_TYPE_MOVE_SEND;
        descriptor[11] = MACH_MSG_PORT_DESCRIPTOR;
    }
    memcpy(out + 52, &NDR_record, sizeof NDR_record);
    Put32(out + 60, static_cast<uint32_t>(kind));
    Put32(out + 64, 2);
    int64_t const codes[2] = {signal,
                              static_cast<int64_t>(reinterpret_cast<uintptr_t>(info->si_addr))};
    memcpy(out + 68, codes, sizeof codes);
    return size;
}

// True only when the thread answered and the answer was KERN_SUCCESS (the fault handled).
bool AskHandlerThread(int signal, siginfo_t const* info) {
    if (getpid() != gInstalledPid || gFaultTaken.exchange(true)) {
        return false;
    }
    alignas(8) unsigned char request[84];
    size_t size = BuildRequest(request, signal, info);
    if (send(gSendEnd, request, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size)) {
        return false;
    }
    alignas(8) unsigned char reply[kLExceptionReplySize];
    ssize_t got = recv(gSendEnd, reply, sizeof reply, 0);
    if (got < 36) {
        return false;
    }
    int32_t code;
    memcpy(&code, reply + 32, sizeof code);
    return code == KERN_SUCCESS;
}

void FaultHandler(int signal, siginfo_t* info, void*) {
    int const saved = errno;
    if (AskHandlerThread(signal, info)) {
        errno = saved;
        return;
    }
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    sigaction(signal, &fallback, nullptr);
    // A real fault comes back when the instruction runs again; a sent signal would not, so
    // it is raised here (held until the handler returns).
    raise(signal);
    errno = saved;
}

void EnsureAlternateStack() {
    stack_t current{};
    if (sigaltstack(nullptr, &current) == 0 && !(current.ss_flags & SS_DISABLE)) {
        return;  // someone set one up already (a sanitizer runtime, say): share it
    }
    stack_t stack{};
    stack.ss_sp = gAltStack;
    stack.ss_size = sizeof gAltStack;
    sigaltstack(&stack, nullptr);
}

}  // namespace

bool _LExceptionPortInstall(LExceptionHandlerInstaller& installer) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return false;
    }
    installer.exceptionPort = static_cast<mach_port_t>(ends[0]);
    gPort = installer.exceptionPort;
    gSendEnd = ends[1];
    gInstalledPid = getpid();
    EnsureAlternateStack();
    struct sigaction action {};
    action.sa_sigaction = FaultHandler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (int signal : kWatchedSignals) {
        sigaction(signal, &action, nullptr);
    }
    return true;
}

bool _LExceptionPortReceive(LExceptionHandlerInstaller& installer) {
    int const port = static_cast<int>(installer.exceptionPort);
    ssize_t got;
    do {
        got = recv(port, installer.requestBuffer, sizeof installer.requestBuffer, 0);
    } while (got < 0 && errno == EINTR);
    // One message only: whatever happens next, later faults find no receiver.
    if (got < static_cast<ssize_t>(sizeof(mach_msg_header_t))) {
        shutdown(port, SHUT_RDWR);
        return false;
    }
    reinterpret_cast<mach_msg_header_t*>(installer.requestBuffer)->msgh_size =
        static_cast<mach_msg_size_t>(got);
    return true;
}

void _LExceptionPortSend(LExceptionHandlerInstaller& installer) {
    int const port = static_cast<int>(installer.exceptionPort);
    auto const* reply = reinterpret_cast<mach_msg_header_t const*>(installer.replyBuffer);
    size_t size = reply->msgh_size;
    if (size > sizeof installer.replyBuffer) {
        size = sizeof installer.replyBuffer;
    }
    send(port, installer.replyBuffer, size, MSG_NOSIGNAL);
    shutdown(port, SHUT_RDWR);
}

bool _LExceptionPortDeallocate(LExceptionHandlerInstaller& installer) {
    if (installer.exceptionPort == 0) {
        return false;
    }
    int const port = static_cast<int>(installer.exceptionPort);
    // A forked copy holds the descriptor but not the thread, which stayed with the parent.
    if (getpid() != gInstalledPid) {
        close(port);
        return false;
    }
    // Shutting the port down is what takes the right away: the waiting receive returns empty
    // and the thread ends. The number itself stays taken until the process ends, so that no
    // receive still under way can find another file behind it.
    return shutdown(port, SHUT_RDWR) == 0;
}
