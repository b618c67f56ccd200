// Linux half of the events: pipe2 and SOCK_CLOEXEC make the descriptors in one call, and the
// Unix-domain address has no length byte here (the family comes first), so only the path is
// filled behind it. The 106-byte address size of the platform is kept for bind and connect,
// which bounds a named event's path to 103 characters (a longer one is cut).
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "thread/lsignal_object_platform.h"

static_assert(sizeof(sockaddr_un) >= LSignalNamedAddress::kAddressSize);

bool _LSignalMakePipe(int fds[2]) {
    return pipe2(fds, O_NONBLOCK | O_CLOEXEC) == 0;
}

int _LSignalMakeStreamSocket() {
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

void _LSignalSetNonBlocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) {
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    }
}

void _LSignalFillAddress(sockaddr_un& address, char const* path) {
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    constexpr size_t room = LSignalNamedAddress::kAddressSize - offsetof(sockaddr_un, sun_path);
    size_t n = strnlen(path, room - 1);
    memcpy(address.sun_path, path, n);
    address.sun_path[n] = '\0';
}
