// Events, event groups and named events. Every wait is one poll; the descriptors are created
// non-blocking so that draining and accepting never hang. The platform half
// (lsignal_object_linux.cpp) makes the pipes and fills the socket address.
#include "thread/lsignal_object.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "file/lfile.h"
#include "thread/lsignal_object_platform.h"

#if defined(__SANITIZE_THREAD__)
#define L_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define L_THREAD_SANITIZER 1
#endif
#endif
#if defined(L_THREAD_SANITIZER)
#include <sanitizer/tsan_interface.h>
#endif

int _LSignalPollTimeout(unsigned int ms) {
    // Timeouts above INT_MAX other than the endless one are not meaningful to poll; they are
    // passed on as the platform's int conversion makes them, as the library always has.
    return ms == LSignalInfinite ? -1 : static_cast<int>(ms);
}

namespace {

// A signal is a happens-before edge: whatever the signalling thread did before writing the
// byte is visible to the thread that sees the event readable. Reads carry that edge for the
// thread sanitizer but poll does not, so under it the edge is declared by hand on a sync
// address per read descriptor.
#if defined(L_THREAD_SANITIZER)
char gDescriptorSync[1024];
void SyncRelease(int fd) {
    if (fd >= 0) {
        __tsan_release(&gDescriptorSync[fd % sizeof gDescriptorSync]);
    }
}
void SyncAcquire(int fd) {
    if (fd >= 0) {
        __tsan_acquire(&gDescriptorSync[fd % sizeof gDescriptorSync]);
    }
}
#else
void SyncRelease(int) {}
void SyncAcquire(int) {}
#endif

// Reads single bytes until a read gives less than one byte for a reason other than EINTR.
void DrainDescriptor(int fd) {
    unsigned char byte;
    for (;;) {
        ssize_t n = read(fd, &byte, 1);
        if (n == 1) {
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        return;
    }
}

bool PollReadable(pollfd* fds, nfds_t count, unsigned int ms) {
    for (nfds_t i = 0; i < count; ++i) {
        fds[i].events = POLLIN;
        fds[i].revents = 0;
    }
    if (poll(fds, count, _LSignalPollTimeout(ms)) <= 0) {
        return false;
    }
    for (nfds_t i = 0; i < count; ++i) {
        if (fds[i].revents != 0) {
            SyncAcquire(fds[i].fd);
        }
    }
    return true;
}

}  // namespace

void LSignalObjectRef::Reset() {
    DrainDescriptor(fd);
}

bool LSignalObjectRef::IsSignaled() const {
    return WaitSignal(0);
}

bool LSignalObjectRef::WaitSignal(unsigned int ms) const {
    pollfd p{fd, POLLIN, 0};
    return PollReadable(&p, 1, ms);
}

bool LSignalObjectRef::WaitSignalDual(LSignalObjectRef other, unsigned int ms) const {
    pollfd p[2] = {{fd, POLLIN, 0}, {other.fd, POLLIN, 0}};
    return PollReadable(p, 2, ms);
}

bool LSignalObjectRef::WaitSignalTriple(LSignalObjectRef a, LSignalObjectRef b,
                                        unsigned int ms) const {
    pollfd p[3] = {{fd, POLLIN, 0}, {a.fd, POLLIN, 0}, {b.fd, POLLIN, 0}};
    return PollReadable(p, 3, ms);
}

LSignalObject::LSignalObject() {
    int fds[2];
    if (_LSignalMakePipe(fds)) {
        readFd = fds[0];
        writeFd = fds[1];
    }
}

LSignalObject::~LSignalObject() {
    // Taking the waiting bytes first reads what the last signaller wrote, which orders its
    // write before the close (and tells the thread sanitizer so).
    Reset();
    if (readFd >= 0) {
        close(readFd);
    }
    if (writeFd >= 0) {
        close(writeFd);
    }
}

void LSignalObject::Signal() {
    // Both descriptors are read before the release: once the byte is written the event may
    // be destroyed, so nothing of the object is touched after the write.
    int fd = writeFd;
    SyncRelease(readFd);
    unsigned char one = 1;
    // A full pipe (EAGAIN) means the event is signalled already; nothing else to do.
    while (write(fd, &one, 1) < 0 && errno == EINTR) {
    }
}

void LSignalObjectGroup::Add(LSignalObjectRef ref) {
    if (count >= kMaxEntries) {
        return;
    }
    entries[count++] = pollfd{ref.GetDescriptor(), POLLIN, 0};
}

void LSignalObjectGroup::Add(LSignalObjectGroup& other) {
    for (uint64_t i = 0; i < other.count && count < kMaxEntries; ++i) {
        entries[count++] = pollfd{other.entries[i].fd, POLLIN, 0};
    }
}

bool LSignalObjectGroup::Select(unsigned int ms) {
    if (count == 0) {
        return false;
    }
    return PollReadable(entries, static_cast<nfds_t>(count), ms);
}

bool LSignalObjectGroup::IsEntryReady(uint64_t index) const {
    return index < count && (entries[index].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
}

void LSignalNamedAddress::Make(char const* name) {
    // Named events live in the user's data folder, which the lookup creates when missing.
    char folder[kLPathSize] = {};
    char path[kLPathSize];
    LFile::GetUserDataFolder(folder);
    LFile::_MakeFilePath(path, folder, name, "");
    _LSignalFillAddress(address, path);
}

LSignalObjectNamed::LSignalObjectNamed(char const* name) {
    addr.Make(name);
}

LSignalObjectNamed::~LSignalObjectNamed() {
    if (fd >= 0) {
        close(fd);
        unlink(addr.Path());
    }
}

void LSignalObjectNamed::Signal() {
    _LSignalNamedSignal(addr);
}

void LSignalObjectNamed::Reset() {
    if (fd >= 0) {
        DrainDescriptor(fd);
    }
}

LSignalObjectNamedSignaller::LSignalObjectNamedSignaller(char const* name) {
    addr.Make(name);
}

void LSignalObjectNamedSignaller::Signal() {
    _LSignalNamedSignal(addr);
}

void _LSignalNamedSignal(LSignalNamedAddress const& addr) {
    int s = _LSignalMakeStreamSocket();
    if (s < 0) {
        return;
    }
    if (connect(s, reinterpret_cast<sockaddr const*>(&addr.address),
                LSignalNamedAddress::kAddressSize) != 0) {
        // The socket is left open on this path: the event's long-standing behaviour, which
        // callers signalling an absent waiter in a loop must keep in mind.
        return;
    }
    unsigned char one = 1;
    while (write(s, &one, 1) < 0 && errno == EINTR) {
    }
    close(s);
}

LSignalObjectNamedWaiter::LSignalObjectNamedWaiter(char const* name) {
    addr.Make(name);
    listenFd = _LSignalMakeStreamSocket();
    if (listenFd < 0) {
        return;
    }
    _LSignalSetNonBlocking(listenFd);
    unlink(addr.Path());
    if (bind(listenFd, reinterpret_cast<sockaddr const*>(&addr.address),
             LSignalNamedAddress::kAddressSize) == 0) {
        bound = true;
        listen(listenFd, 5);
    }
}

LSignalObjectNamedWaiter::~LSignalObjectNamedWaiter() {
    if (acceptedFd >= 0) {
        close(acceptedFd);
    }
    if (listenFd >= 0) {
        close(listenFd);
        // The waiter made the socket file; leaving it would only make the next signaller
        // connect to nobody.
        if (bound) {
            unlink(addr.Path());
        }
    }
}

bool LSignalObjectNamedWaiter::WaitSignal(unsigned int ms) {
    if (!bound) {
        // An unbound socket polls as hung up at once, which would turn a caller's wait loop
        // into a busy loop: wait the time out with nothing to watch, as accept would then
        // fail on a socket that does not listen.
        poll(nullptr, 0, _LSignalPollTimeout(ms));
        return false;
    }
    pollfd p{listenFd, POLLIN, 0};
    if (poll(&p, 1, _LSignalPollTimeout(ms)) < 0) {
        return false;
    }
    int fd = accept(listenFd, nullptr, nullptr);
    if (fd >= 0) {
        // Only the newest connection is kept; the one before it has done its job.
        if (acceptedFd >= 0) {
            close(acceptedFd);
        }
        acceptedFd = fd;
        _LSignalSetNonBlocking(acceptedFd);
        return true;
    }
    return errno == EAGAIN || errno == EWOULDBLOCK;
}

void LSignalObjectNamedWaiter::Reset() {
    if (acceptedFd >= 0) {
        DrainDescriptor(acceptedFd);
    }
}
