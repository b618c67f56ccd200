// The input layout shared by the fuzz targets that feed packets to the transport's decoder,
// so that one corpus serves them all: byte 0 holds the number of descriptors (bits 0-1) and
// a flag for the target's own use (bit 2); then three bytes per descriptor (kind, then a
// 16-bit little-endian size for memory files); the rest is the packet. Kinds: 0 sealed memfd,
// 1 unsealed memfd, 2 pipe end, 3 SOCK_SEQPACKET socket, 4 shared region (a memfd sealed
// against resizing only, of 2 to 17 pages: the size modulo 16, plus 2).
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

namespace fuzz_packet {

struct Input {
    bool flag = false;
    std::vector<int> fds;    // handed to the decoder, which takes them over
    std::vector<int> extra;  // the other ends of pipes and socket pairs, closed by the target
    std::span<const uint8_t> packet;
};

// A descriptor of `kind`; the far end of a pipe or pair goes to `extra`. Resource failures
// abort: they are the harness's, not the decoder's.
inline int MakeRegion(size_t pages) {
    const int fd = memfd_create("fuzz-region", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(pages * 4096)) != 0 ||
        fcntl(fd, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK) != 0) {
        std::abort();
    }
    return fd;
}

inline int MakeDescriptor(uint8_t kind, uint16_t size, std::vector<int>& extra) {
    switch (kind % 5) {
        case 0:
        case 1: {
            const int fd = memfd_create("fuzz", MFD_CLOEXEC | MFD_ALLOW_SEALING);
            if (fd < 0 || ftruncate(fd, size) != 0) {
                std::abort();
            }
            if (kind % 5 == 0 &&
                fcntl(fd, F_ADD_SEALS, F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK) != 0) {
                std::abort();
            }
            return fd;
        }
        case 2: {
            int p[2];
            if (pipe2(p, O_CLOEXEC) != 0) {
                std::abort();
            }
            extra.push_back(p[1]);
            return p[0];
        }
        case 4:
            return MakeRegion(size % 16 + 2);
        default: {
            int s[2];
            if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, s) != 0) {
                std::abort();
            }
            extra.push_back(s[1]);
            return s[0];
        }
    }
}

// Splits a non-empty input into its descriptors and packet.
inline Input Read(const uint8_t* data, size_t size) {
    Input input;
    const size_t count = data[0] & 3;
    input.flag = (data[0] & 4) != 0;
    size_t at = 1;
    for (size_t i = 0; i < count && at + 3 <= size; ++i, at += 3) {
        input.fds.push_back(MakeDescriptor(
            data[at], static_cast<uint16_t>(data[at + 1] | (data[at + 2] << 8)), input.extra));
    }
    input.packet = std::span<const uint8_t>(data + at, size - at);
    return input;
}

}  // namespace fuzz_packet
