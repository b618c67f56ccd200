// The fuzz input as a file: an anonymous in-memory file holding the bytes, rewound, with a
// path (/proc/self/fd/N) for code that opens files by name. One per input, closed after it.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

class FuzzFile {
public:
    FuzzFile(uint8_t const* data, size_t size) : fd_(memfd_create("fuzz", MFD_CLOEXEC)) {
        if (fd_ == -1) {
            abort();
        }
        for (size_t done = 0; done < size;) {
            ssize_t n = write(fd_, data + done, size - done);
            if (n <= 0) {
                abort();
            }
            done += static_cast<size_t>(n);
        }
        lseek(fd_, 0, SEEK_SET);
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    ~FuzzFile() { close(fd_); }
    FuzzFile(FuzzFile const&) = delete;
    FuzzFile& operator=(FuzzFile const&) = delete;

    int fd() const { return fd_; }
    char const* path() const { return path_.c_str(); }

private:
    int fd_;
    std::string path_;
};
