#include "platform/lsmall_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

struct Descriptor {
    explicit Descriptor(int f) : fd(f) {}
    ~Descriptor() {
        if (fd >= 0) {
            close(fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    const int fd;
};

}  // namespace

bool _LReadWholeFile(const char* path, std::string& bytes, size_t maxBytes, bool followLink) {
    bytes.clear();
    // O_NONBLOCK: whoever placed a FIFO at the path would otherwise decide how long we wait.
    const Descriptor file(
        open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | (followLink ? 0 : O_NOFOLLOW)));
    struct stat st;
    if (file.fd < 0 || fstat(file.fd, &st) != 0 || !S_ISREG(st.st_mode) ||
        static_cast<unsigned long long>(st.st_size) > maxBytes) {
        return false;
    }
    // /proc files report a size of 0; read to the end whatever the size said.
    char chunk[4096];
    for (;;) {
        const ssize_t got = read(file.fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got == 0) {
            return true;
        }
        if (got < 0 || bytes.size() + static_cast<size_t>(got) > maxBytes) {
            bytes.clear();
            return false;
        }
        bytes.append(chunk, static_cast<size_t>(got));
    }
}

bool _LWriteAll(int fd, const void* data, size_t size) {
    const char* next = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t put = write(fd, next, size);
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            return false;
        }
        next += put;
        size -= static_cast<size_t>(put);
    }
    return true;
}

bool _LWriteWholeFile(const char* path, const void* data, size_t size) {
    const Descriptor file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    return file.fd >= 0 && _LWriteAll(file.fd, data, size);
}
