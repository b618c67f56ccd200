// Events built on descriptors, so that any mix of them can be waited on with one poll.
//
// An LSignalObject is a non-blocking pipe: it is signalled while at least one byte waits in
// it, Signal writes one byte, Reset drains every byte. LSignalObjectRef is a copy of the read
// end handed to waits by value; it never owns the descriptor. LSignalObjectGroup polls up to
// 256 events at once and silently ignores further entries. The named events carry a signal
// between processes of the same user through a Unix-domain stream socket whose path lies in
// the user's application-support folder: the waiter listens, a signaller connects and writes
// one byte.
//
// Timeouts are milliseconds; LSignalInfinite (all bits set) waits without end.
#pragma once

#include <poll.h>
#include <sys/un.h>

#include <cstdint>

inline constexpr unsigned int LSignalInfinite = ~0u;

// Converts a timeout in milliseconds to poll's argument: all bits set is -1 (no limit).
int _LSignalPollTimeout(unsigned int ms);

class LSignalObjectRef {
public:
    LSignalObjectRef() = default;
    explicit LSignalObjectRef(int descriptor) : fd(descriptor) {}

    // Reads single bytes until none is left (reads interrupted by a signal are retried).
    void Reset();
    bool IsSignaled() const;
    bool WaitSignal(unsigned int ms) const;
    // One poll over two or three events; true if any is readable (which one is not told).
    bool WaitSignalDual(LSignalObjectRef other, unsigned int ms) const;
    bool WaitSignalTriple(LSignalObjectRef a, LSignalObjectRef b, unsigned int ms) const;

    int GetDescriptor() const { return fd; }

private:
    int fd = -1;
};

class LSignalObject {
public:
    // Creates the pipe, both ends non-blocking and close-on-exec. When the system refuses a
    // pipe both descriptors stay -1 and the event is never signalled.
    LSignalObject();
    ~LSignalObject();
    LSignalObject(LSignalObject const&) = delete;
    LSignalObject& operator=(LSignalObject const&) = delete;

    // Writes one byte of value 1; safe from any thread without a lock.
    void Signal();
    void Reset() { GetRef().Reset(); }
    bool IsSignaled() const { return GetRef().IsSignaled(); }
    bool WaitSignal(unsigned int ms) const { return GetRef().WaitSignal(ms); }

    LSignalObjectRef GetRef() const { return LSignalObjectRef(readFd); }
    operator LSignalObjectRef() const { return GetRef(); }

private:
    int readFd = -1;
    int writeFd = -1;
};

class LSignalObjectGroup {
public:
    static constexpr uint64_t kMaxEntries = 256;

    // Appends the event with readable requested; a full group ignores it.
    void Add(LSignalObjectRef ref);
    // Appends as many of the other group's entries as still fit.
    void Add(LSignalObjectGroup& other);
    // False for an empty group; otherwise true if any entry is readable within ms.
    bool Select(unsigned int ms);
    bool IsSignaled() { return Select(0); }

    uint64_t GetCount() const { return count; }
    // Whether the entry was readable in the last Select (false for an index out of range).
    bool IsEntryReady(uint64_t index) const;

private:
    pollfd entries[kMaxEntries] = {};
    uint64_t count = 0;
};

// The socket address of a named event. The platform's sockaddr_un starts with a length byte
// (kept 0) and is 106 bytes long; that full size is what bind and connect are given, so a
// path is cut to what fits in it.
struct LSignalNamedAddress {
    static constexpr unsigned int kAddressSize = 106;
    sockaddr_un address;

    // Builds the address for `name` in the user's application-support folder.
    void Make(char const* name);
    char const* Path() const { return address.sun_path; }
};

class LSignalObjectNamed {
public:
    explicit LSignalObjectNamed(char const* name);
    // Closes the descriptor and removes the path if a descriptor is held.
    ~LSignalObjectNamed();
    LSignalObjectNamed(LSignalObjectNamed const&) = delete;
    LSignalObjectNamed& operator=(LSignalObjectNamed const&) = delete;

    void Signal();
    void Reset();

    char const* GetPath() const { return addr.Path(); }

private:
    LSignalNamedAddress addr;
    int fd = -1;
};

class LSignalObjectNamedWaiter {
public:
    // Binds and listens (backlog 5) at the name's path, replacing any file there. A failed
    // bind leaves a waiter that never sees a signal.
    explicit LSignalObjectNamedWaiter(char const* name);
    ~LSignalObjectNamedWaiter();
    LSignalObjectNamedWaiter(LSignalObjectNamedWaiter const&) = delete;
    LSignalObjectNamedWaiter& operator=(LSignalObjectNamedWaiter const&) = delete;

    // Polls the listening socket, then accepts without blocking. True when a connection was
    // accepted and also when there was none to accept (the timeout passed): callers take the
    // result as the end of the wait. False only for a poll error or another accept error,
    // and after the full time for a waiter whose bind failed.
    bool WaitSignal(unsigned int ms);
    // Drains the accepted connection, if any.
    void Reset();

    char const* GetPath() const { return addr.Path(); }
    // The connection of the last signaller accepted, -1 when none was.
    int GetAcceptedDescriptor() const { return acceptedFd; }

private:
    LSignalNamedAddress addr;
    int listenFd = -1;
    int acceptedFd = -1;
    bool bound = false;
};

class LSignalObjectNamedSignaller {
public:
    explicit LSignalObjectNamedSignaller(char const* name);

    // Connects to the waiter's path and writes one byte of value 1. When nobody listens it
    // returns at once, leaving the socket open (kept as it has always behaved).
    void Signal();

    char const* GetPath() const { return addr.Path(); }

private:
    LSignalNamedAddress addr;
};
