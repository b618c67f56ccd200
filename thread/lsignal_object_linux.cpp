// Linux half of the events: pipe2 and SOCK_CLOEXEC make the descriptors in one call, and the
// Unix-domain address has no length byte here (the family comes first), so only the path is
// filled behind it. The 106-byte address size of the platform is kept for bind and connect,
// which bounds a named event's path to 103 characters.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

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

void _LSignalNamedFolder(char* dst) {
    // The user's application-support folder: $XDG_DATA_HOME, else ~/.local/share.
    char const* data = getenv("XDG_DATA_HOME");
    if (data != nullptr && data[0] == '/') {
        snprintf(dst, 260, "%s", data);
        return;
    }
    char const* home = getenv("HOME");
    snprintf(dst, 260, "%s/.local/share", home != nullptr ? home : "");
}

void LSignalNamedAddress::Make(char const* name) {
    char folder[260];
    char path[260];
    _LSignalNamedFolder(folder);
    std::string joined = std::string(folder) + "/" + (name != nullptr ? name : "");
    joined.resize(std::min<size_t>(joined.size(), sizeof path - 1));
    memcpy(path, joined.c_str(), joined.size() + 1);

    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    constexpr size_t room = LSignalNamedAddress::kAddressSize - offsetof(sockaddr_un, sun_path);
    size_t n = strnlen(path, room - 1);
    memcpy(address.sun_path, path, n);
    address.sun_path[n] = '\0';
}
