// Linux half of the transport: memfd sealing, AF_UNIX SOCK_SEQPACKET sockets with
// SCM_RIGHTS, SO_PEERCRED, eventfd wake-ups and systemd socket activation.
//
// Every descriptor created or received here is close-on-exec, so that commands the service
// runs never inherit a connection. Sends use MSG_NOSIGNAL: a vanished peer is an error
// return, never a SIGPIPE.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/lsmall_file.h"
#include "xpc/transport/xpc_os.h"
#include "xpc/transport/xpc_wire.h"

namespace lxpc::os {

namespace {

constexpr int kRequiredSeals = F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK;

bool FillAddress(const std::string& path, sockaddr_un& address, socklen_t& length) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
    return true;
}

}  // namespace

int CreateSealedMemfd(const void* bytes, size_t length) {
    const int fd = ::memfd_create("lxpc-data", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) {
        return -1;
    }
    // write() fills the file without mapping it writable, so F_SEAL_WRITE can be added.
    if (::ftruncate(fd, static_cast<off_t>(length)) != 0 || !_LWriteAll(fd, bytes, length) ||
        ::fcntl(fd, F_ADD_SEALS, kRequiredSeals | F_SEAL_SEAL) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool IsSealedMemfd(int fd, uint64_t length) {
    const int seals = ::fcntl(fd, F_GET_SEALS);
    if (seals < 0 || (seals & kRequiredSeals) != kRequiredSeals) {
        return false;
    }
    struct stat st;
    return ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0 &&
           static_cast<uint64_t>(st.st_size) == length;
}

const void* MapReadOnly(int fd, size_t length) {
    void* mapping = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, 0);
    return mapping == MAP_FAILED ? nullptr : mapping;
}

void Unmap(const void* mapping, size_t length) {
    if (mapping != nullptr && length != 0) {
        ::munmap(const_cast<void*>(mapping), length);
    }
}

int CreateRegion(size_t length) {
    const int fd = ::memfd_create("lxpc-region", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) {
        return -1;
    }
    if (::ftruncate(fd, static_cast<off_t>(length)) != 0 ||
        ::fcntl(fd, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool IsRegionMemfd(int fd, uint64_t& length) {
    constexpr int kFixedSize = F_SEAL_GROW | F_SEAL_SHRINK;
    const int seals = ::fcntl(fd, F_GET_SEALS);
    struct stat st;
    if (seals < 0 || (seals & kFixedSize) != kFixedSize || ::fstat(fd, &st) != 0 ||
        !S_ISREG(st.st_mode) || st.st_size <= 0) {
        return false;
    }
    length = static_cast<uint64_t>(st.st_size);
    return true;
}

uint8_t* MapShared(int fd, size_t length, size_t writable) {
    void* mapping = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, 0);
    if (mapping == MAP_FAILED) {
        return nullptr;
    }
    if (writable != 0 && ::mprotect(mapping, writable, PROT_READ | PROT_WRITE) != 0) {
        ::munmap(mapping, length);
        return nullptr;
    }
    return static_cast<uint8_t*>(mapping);
}

bool IsSeqpacketSocket(int fd) {
    int type = 0;
    socklen_t length = sizeof type;
    sockaddr_storage address;
    socklen_t addressLength = sizeof address;
    return ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_SEQPACKET &&
           ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &addressLength) == 0 &&
           address.ss_family == AF_UNIX;
}

bool SameFile(int a, int b) {
    struct stat x, y;
    return ::fstat(a, &x) == 0 && ::fstat(b, &y) == 0 && x.st_dev == y.st_dev &&
           x.st_ino == y.st_ino;
}

int Dup(int fd) {
    return fd < 0 ? -1 : ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
}

void Close(int fd) {
    if (fd >= 0) {
        ::close(fd);
    }
}

std::string ServiceSocketPath(const char* name) {
    const char* dir = std::getenv("LXPC_SERVICE_DIR");
    std::string path = dir != nullptr && dir[0] != '\0' ? dir : "/run";
    path += '/';
    path += name;
    path += ".sock";
    return path;
}

int ConnectPath(const std::string& path) {
    sockaddr_un address;
    socklen_t length;
    if (!FillAddress(path, address, length)) {
        return -1;
    }
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    int rc;
    do {
        rc = ::connect(fd, reinterpret_cast<sockaddr*>(&address), length);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        const int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

int ListenPath(const std::string& path, bool& bound) {
    bound = false;
    const int passed = ::sd_listen_fds(0);
    for (int i = 0; i < passed; ++i) {
        const int fd = SD_LISTEN_FDS_START + i;
        if (::sd_is_socket_unix(fd, SOCK_SEQPACKET, 1, path.c_str(), 0) > 0) {
            ::fcntl(fd, F_SETFD, FD_CLOEXEC);
            ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
            return fd;
        }
    }
    sockaddr_un address;
    socklen_t length;
    if (!FillAddress(path, address, length)) {
        return -1;
    }
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            errno = EEXIST;
            return -1;
        }
        // A socket nobody accepts on is left over from an earlier run; a live one belongs
        // to another instance, which keeps it.
        const int probe = ConnectPath(path);
        if (probe >= 0) {
            ::close(probe);
            errno = EADDRINUSE;
            return -1;
        }
        ::unlink(path.c_str());
    }
    // The socket is bound and listening under a private name first and only then linked to
    // `path`: a client that sees the path can connect at once (bind() alone would show it a
    // moment before listen()), and link() fails when another instance got there first.
    const std::string staging = path + "." + std::to_string(::getpid());
    sockaddr_un stagingAddress;
    socklen_t stagingLength;
    if (!FillAddress(staging, stagingAddress, stagingLength)) {
        return -1;
    }
    ::unlink(staging.c_str());  // left by an earlier process that had this pid
    // Non-blocking: the listener polls, and a client that vanished between the poll and the
    // accept must not stall it.
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return -1;
    }
    const bool staged =
        ::bind(fd, reinterpret_cast<sockaddr*>(&stagingAddress), stagingLength) == 0;
    const bool listening = staged && ::chmod(staging.c_str(), 0666) == 0 &&
                           ::listen(fd, SOMAXCONN) == 0 &&
                           ::link(staging.c_str(), path.c_str()) == 0;
    const int saved = errno;
    if (staged) {
        ::unlink(staging.c_str());
    }
    if (!listening) {
        ::close(fd);
        errno = saved == EEXIST ? EADDRINUSE : saved;
        return -1;
    }
    bound = true;
    return fd;
}

void UnlinkIfOurs(const std::string& path) {
    // The path is ours while whoever accepts on it is this process: a later instance may
    // have replaced it, and a path nobody accepts on is stale. Called before our listening
    // socket is closed.
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) {
        return;
    }
    const int probe = ConnectPath(path);
    if (probe < 0 || PeerPid(probe) == ::getpid()) {
        ::unlink(path.c_str());
    }
    if (probe >= 0) {
        ::close(probe);
    }
}

bool SocketPair(int fds[2]) {
    return ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) == 0;
}

int Accept(int listener) {
    for (;;) {
        // Accepted sockets are used blocking (they do not inherit the listener's
        // O_NONBLOCK), so none is asked for.
        const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            return fd;
        }
        if (errno != EINTR && errno != ECONNABORTED) {
            return -1;
        }
    }
}

pid_t PeerPid(int fd) {
    ucred credentials;
    socklen_t length = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
        return 0;
    }
    return credentials.pid;
}

bool PeerUid(int fd, uid_t& uid) {
    ucred credentials;
    socklen_t length = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
        return false;
    }
    uid = credentials.uid;
    return true;
}

void NotifyReady() {
    // The variable goes with the notification: the commands the service runs are not the
    // service and must not speak for it.
    ::sd_notify(1, "READY=1");
}

int MakeWakeup() {
    return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

void Wake(int fd) {
    // Eight bytes suit an eventfd; a wake-up pipe takes them as eight wake-ups at most,
    // which its reader treats as spurious. A full pipe already holds a wake-up.
    const uint64_t one = 1;
    ssize_t rc;
    do {
        rc = ::write(fd, &one, sizeof one);
    } while (rc < 0 && errno == EINTR);
}

bool MakePipe(int fds[2]) {
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        fds[0] = fds[1] = -1;
        return false;
    }
    ::fcntl(fds[1], F_SETFL, ::fcntl(fds[1], F_GETFL) | O_NONBLOCK);
    return true;
}

bool WaitWake(int readEnd) {
    if (readEnd < 0) {
        return false;
    }
    char bytes[64];
    for (;;) {
        const ssize_t n = ::read(readEnd, bytes, sizeof bytes);
        if (n > 0) {
            return true;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        return false;
    }
}

bool WaitReadable(int wakeup, int a, int b, int& readable) {
    pollfd fds[3] = {{wakeup, POLLIN, 0}, {a, POLLIN, 0}, {b, POLLIN, 0}};
    const nfds_t count = b >= 0 ? 3 : 2;
    for (;;) {
        const int rc = ::poll(fds, count, -1);
        if (rc < 0 && errno == EINTR) {
            continue;
        }
        if (rc < 0 || fds[0].revents != 0) {
            return false;
        }
        readable = fds[1].revents != 0 ? a : b;
        return true;
    }
}

bool Pause(int wakeup, int timeoutMs) {
    pollfd p{wakeup, POLLIN, 0};
    int rc;
    do {
        rc = ::poll(&p, 1, timeoutMs);
    } while (rc < 0 && errno == EINTR);
    return p.revents == 0;
}

void WaitWritable(int fd, int timeoutMs) {
    pollfd p{fd, POLLOUT, 0};
    ::poll(&p, 1, timeoutMs);
}

int MakeWaitSet(int socket, int wakeup) {
    const int set = ::epoll_create1(EPOLL_CLOEXEC);
    if (set < 0) {
        return -1;
    }
    epoll_event socketEvent{};
    socketEvent.events = EPOLLIN | EPOLLET;
    socketEvent.data.fd = socket;
    epoll_event wakeupEvent{};
    wakeupEvent.events = EPOLLIN | EPOLLET;
    wakeupEvent.data.fd = wakeup;
    if (::epoll_ctl(set, EPOLL_CTL_ADD, socket, &socketEvent) != 0 ||
        ::epoll_ctl(set, EPOLL_CTL_ADD, wakeup, &wakeupEvent) != 0) {
        ::close(set);
        return -1;
    }
    return set;
}

bool WatchSocket(int waitSet, int socket, bool watch) {
    epoll_event event{};
    event.events = watch ? EPOLLIN | EPOLLET : EPOLLET;
    event.data.fd = socket;
    return ::epoll_ctl(waitSet, EPOLL_CTL_MOD, socket, &event) == 0;
}

bool WaitOn(int waitSet, int wakeup, bool& readable, bool& woken, int timeoutMs) {
    epoll_event events[2];
    for (;;) {
        const int rc = ::epoll_wait(waitSet, events, 2, timeoutMs);
        if (rc >= 0) {
            readable = woken = false;
            for (int i = 0; i < rc; ++i) {
                (events[i].data.fd == wakeup ? woken : readable) = true;
            }
            return true;
        }
        if (rc < 0 && errno != EINTR) {
            return false;
        }
    }
}

IoStatus SendPacket(int fd, std::span<const uint8_t> bytes, std::span<const int> fds, bool block) {
    iovec iov{const_cast<uint8_t*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &iov;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * wire::kMaxDescriptors)];
    if (!fds.empty()) {
        if (fds.size() > wire::kMaxDescriptors) {
            return IoStatus::failed;
        }
        const size_t space = CMSG_SPACE(sizeof(int) * fds.size());
        std::memset(control, 0, space);
        message.msg_control = control;
        message.msg_controllen = space;
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        std::memcpy(CMSG_DATA(header), fds.data(), sizeof(int) * fds.size());
    }
    const int flags = MSG_NOSIGNAL | (block ? 0 : MSG_DONTWAIT);
    for (;;) {
        const ssize_t sent = ::sendmsg(fd, &message, flags);
        if (sent >= 0) {
            return IoStatus::ok;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return IoStatus::wouldBlock;
        }
        return errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN ? IoStatus::closed
                                                                          : IoStatus::failed;
    }
}

IoStatus ReceivePacket(int fd, std::span<uint8_t> buffer, size_t& length, std::vector<int>& fds,
                       bool block) {
    fds.clear();
    iovec iov{buffer.data(), buffer.size()};
    msghdr message{};
    message.msg_iov = &iov;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * wire::kMaxDescriptors)];
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t received;
    do {
        received = ::recvmsg(fd, &message, MSG_CMSG_CLOEXEC | (block ? 0 : MSG_DONTWAIT));
    } while (received < 0 && errno == EINTR);
    if (received < 0 && !block && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        return IoStatus::wouldBlock;
    }
    if (received < 0) {
        return errno == ECONNRESET || errno == ENOTCONN ? IoStatus::closed : IoStatus::failed;
    }
    // Collect whatever descriptors arrived first, so that none leaks on any path below.
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
            const size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t i = 0; i < count; ++i) {
                int received_fd;
                std::memcpy(&received_fd, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
                fds.push_back(received_fd);
            }
        }
    }
    if (received == 0 && fds.empty()) {
        return IoStatus::closed;  // SOCK_SEQPACKET: a zero-length read is the peer's end
    }
    if ((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
        for (int f : fds) {
            ::close(f);
        }
        fds.clear();
        return IoStatus::failed;
    }
    length = static_cast<size_t>(received);
    return IoStatus::ok;
}

void Shutdown(int fd) {
    if (fd >= 0) {
        ::shutdown(fd, SHUT_RDWR);
    }
}

}  // namespace lxpc::os
