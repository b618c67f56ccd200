// The two calls of the socket-activation protocol that the transport makes when it listens,
// supplied by the service executable itself. The service is started once per boot or per
// first client, and on the machines it serves every shared library it maps costs page
// faults before the first reply; the systemd client library would bring six more libraries
// for these two small functions. Defined here, they take precedence over the library's, so
// the linker (with --as-needed) leaves it out of the service.
//
// The protocol, as systemd documents it: a started process owns LISTEN_FDS descriptors from
// descriptor 3 on when LISTEN_PID names it. The answers, errors included, are those of the
// library's functions of the same names:
// - sd_listen_fds: the number of passed descriptors (0 when none are meant for this process,
//   a negative errno for a malformed environment); the passed descriptors become
//   close-on-exec; with unset_environment the variables are removed.
// - sd_is_socket_unix: 1 when the descriptor is an AF_UNIX socket of the given type, in the
//   given listening state (negative: either) and, when a path is given, bound to it; 0 when
//   not; a negative errno when the descriptor cannot be examined.
#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kFirstPassedDescriptor = 3;

// LISTEN_PID as a process id: the id, or a negative errno (-EINVAL for text that is not a
// number, -ERANGE for a sign, zero or a value out of range).
long ParsePid(char const* text) {
    if (!text || !*text)
        return -EINVAL;
    if (*text == '-')
        return -ERANGE;
    char* end = nullptr;
    errno = 0;
    long const value = std::strtol(text, &end, 10);
    if (*end != '\0' || end == text)
        return -EINVAL;
    if (errno == ERANGE || value <= 0 || value > INT_MAX)
        return -ERANGE;
    return value;
}

// LISTEN_FDS as a count: 1 or more, or -1 for anything else.
long ParseCount(char const* text) {
    if (!text || !*text)
        return -1;
    char* end = nullptr;
    errno = 0;
    long const value = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || value <= 0 || value > INT_MAX - kFirstPassedDescriptor)
        return -1;
    return value;
}

}  // namespace

extern "C" int sd_listen_fds(int unset_environment) {
    int result = 0;
    if (char const* pidText = std::getenv("LISTEN_PID")) {
        long const pid = ParsePid(pidText);
        char const* fdsText = std::getenv("LISTEN_FDS");
        if (pid < 0) {
            result = static_cast<int>(pid);
        } else if (pid != static_cast<long>(getpid()) || !fdsText) {
            result = 0;  // meant for another process (the one that started this one)
        } else if (long const count = ParseCount(fdsText); count < 0) {
            result = -EINVAL;
        } else {
            result = static_cast<int>(count);
            for (int fd = kFirstPassedDescriptor; fd < kFirstPassedDescriptor + count; ++fd) {
                int const flags = fcntl(fd, F_GETFD);
                if (flags < 0 || fcntl(fd, F_SETFD, flags | FD_CLOEXEC) < 0) {
                    result = -errno;
                    break;
                }
            }
        }
    }
    if (unset_environment) {
        unsetenv("LISTEN_PID");
        unsetenv("LISTEN_FDS");
        unsetenv("LISTEN_FDNAMES");
    }
    return result;
}

extern "C" int sd_is_socket_unix(int fd, int type, int listening, char const* path, size_t length) {
    if (fd < 0)
        return -EBADF;
    if (type < 0 || listening < -1)
        return -EINVAL;
    struct stat st;
    if (fstat(fd, &st) < 0)
        return -errno;
    if (!S_ISSOCK(st.st_mode))
        return 0;

    int value = 0;
    socklen_t size = sizeof value;
    if (type != 0) {
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &value, &size) < 0)
            return -errno;
        if (size != sizeof value || value != type)
            return 0;
    }
    if (listening >= 0) {
        size = sizeof value;
        if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &value, &size) < 0)
            return -errno;
        if (size != sizeof value || (value != 0) != (listening != 0))
            return 0;
    }

    sockaddr_un address{};
    socklen_t addressLength = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &addressLength) < 0)
        return -errno;
    if (addressLength < offsetof(sockaddr_un, sun_path) || address.sun_family != AF_UNIX)
        return 0;
    if (!path)
        return 1;
    size_t const nameLength = addressLength - offsetof(sockaddr_un, sun_path);
    if (length == 0)
        length = std::strlen(path);
    if (length == 0)  // an unnamed socket
        return nameLength == 0;
    if (length >= sizeof address.sun_path)
        return 0;
    if (path[0] != '\0') {
        // A path name: it must be stored with its terminator.
        return nameLength >= length + 1 && std::memcmp(address.sun_path, path, length + 1) == 0;
    }
    // An abstract name: every byte counts, and nothing follows.
    return nameLength == length && std::memcmp(address.sun_path, path, length) == 0;
}
