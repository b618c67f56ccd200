// The operating-system calls the transport needs, and nothing else: sealed memory files,
// SOCK_SEQPACKET sockets with descriptor passing, peer credentials, the service socket's
// path and systemd socket activation. The Linux half is xpc_os_linux.cpp; every decision
// (what to send, when a connection ends) stays in the portable files.
//
// Descriptors returned here are close-on-exec. Functions returning a descriptor return -1 on
// failure with errno set.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace lxpc::os {

// A memfd holding exactly `length` bytes, sealed against writing, growing and shrinking.
int CreateSealedMemfd(const void* bytes, size_t length);
// True when `fd` is a memory file sealed against writing, growing and shrinking that holds
// exactly `length` (> 0) bytes: its mapping can then neither change nor fault.
bool IsSealedMemfd(int fd, uint64_t length);
// Maps `length` bytes of `fd` read-only; null on failure. Unmap with Unmap.
const void* MapReadOnly(int fd, size_t length);
void Unmap(const void* mapping, size_t length);

// A memfd of `length` bytes for a shared region, sealed against growing and shrinking (and
// against further seals) but writable, so that it can be reused for message after message.
int CreateRegion(size_t length);
// True when `fd` is a memory file sealed against growing and shrinking; `length` is then its
// size, which nobody can change: a mapping of it never faults for want of a page.
bool IsRegionMemfd(int fd, uint64_t& length);
// Maps all `length` bytes of `fd` shared, the first `writable` bytes readable and writable,
// the rest read-only; null on failure. Unmap with Unmap.
uint8_t* MapShared(int fd, size_t length, size_t writable);

bool IsSeqpacketSocket(int fd);
bool SameFile(int a, int b);
int Dup(int fd);
void Close(int fd);

// "<dir>/<name>.sock", <dir> being $LXPC_SERVICE_DIR when set, else /run.
std::string ServiceSocketPath(const char* name);
// Connects a SOCK_SEQPACKET socket to `path`.
int ConnectPath(const std::string& path);
// The listening socket for `path`: the one systemd passed (sd_listen_fds) when it is bound to
// that path, else a new one made by this process (mode 0666; a stale socket that nobody
// listens on is removed first), which appears at `path` only once it is listening. `bound`
// tells whether this process created the path.
int ListenPath(const std::string& path, bool& bound);
// Removes `path` when this process still accepts on it, or nobody does.
void UnlinkIfOurs(const std::string& path);
bool SocketPair(int fds[2]);
// Accepts one client; -1 with errno set when none can be (EAGAIN: nobody waiting; EMFILE,
// ENFILE, ENOBUFS, ENOMEM: out of resources, which waiting may cure).
int Accept(int listener);
pid_t PeerPid(int fd);
// The peer's user id (SO_PEERCRED); false when it cannot be read.
bool PeerUid(int fd, uid_t& uid);
// Tells the service manager that started this process that it is ready (nothing when no
// manager asked to be told).
void NotifyReady();
int MakeWakeup();   // an eventfd
void Wake(int fd);  // writes one wake-up (eventfd, or the write end of a wake-up pipe)
// A wake-up pipe: fds[0] blocking read end, fds[1] non-blocking write end.
bool MakePipe(int fds[2]);
// Blocks until wake-up bytes are read from a wake-up pipe; false when it cannot.
bool WaitWake(int readEnd);
// Waits until `a` (or `b`, if >= 0) is readable, or `wakeup` is; false when woken.
bool WaitReadable(int wakeup, int a, int b, int& readable);
// Waits up to timeoutMs, or until `wakeup` is readable; false when woken.
bool Pause(int wakeup, int timeoutMs);
// Waits up to timeoutMs for room to send on `fd`.
void WaitWritable(int fd, int timeoutMs);
// A wait set over a socket (edge-triggered: one wake-up per arriving packet or end) and a
// wake-up eventfd. Several sets may watch one socket; each is woken on its own.
int MakeWaitSet(int socket, int wakeup);
// Stops (or resumes) a set's watch of its socket; resuming wakes the set when the socket
// is readable already.
bool WatchSocket(int waitSet, int socket, bool watch);
// Blocks until the wait set signals, or for `timeoutMs` at most (-1: no limit); `readable`
// and `woken` tell whether the socket and `wakeup` did (neither: the time ran out). False
// when it cannot wait.
bool WaitOn(int waitSet, int wakeup, bool& readable, bool& woken, int timeoutMs = -1);

enum class IoStatus { ok, wouldBlock, closed, failed };
// Sends one packet with its descriptors; without `block` a full socket gives wouldBlock.
IoStatus SendPacket(int fd, std::span<const uint8_t> bytes, std::span<const int> fds, bool block);
// Receives one packet into `buffer` (its size is the largest packet accepted); `length` is
// the packet's size and `fds` the descriptors that came with it (owned by the caller).
// A packet or descriptor list that did not fit gives failed (descriptors closed). Without
// `block` an empty socket gives wouldBlock.
IoStatus ReceivePacket(int fd, std::span<uint8_t> buffer, size_t& length, std::vector<int>& fds,
                       bool block = true);
void Shutdown(int fd);

}  // namespace lxpc::os
