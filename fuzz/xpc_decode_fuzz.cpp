// Fuzzes the packet decoder with the descriptors a hostile peer could attach.
//
// Input: byte 0 holds the number of descriptors (bits 0-1) and whether the packet is read
// as a connect request (bit 2); then three bytes per descriptor (kind, then a 16-bit size
// for memory files); the rest is the packet. Kinds: 0 sealed memfd, 1 unsealed memfd,
// 2 pipe end, 3 SOCK_SEQPACKET socket.
//
// Oracles: no crash or sanitizer report; every descriptor handed to the decoder is closed
// once the result is released; an accepted packet encodes again and decodes to an equal
// message.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <utility>
#include <vector>

#include "xpc/transport/xpc_transport.h"
#include "xpc/transport/xpc_wire.h"

using namespace lxpc;

namespace {

int MakeDescriptor(uint8_t kind, uint16_t size, std::vector<int>& extra) {
    switch (kind % 4) {
        case 0:
        case 1: {
            const int fd = memfd_create("fuzz", MFD_CLOEXEC | MFD_ALLOW_SEALING);
            if (fd < 0 || ftruncate(fd, size) != 0) {
                std::abort();
            }
            if (kind % 4 == 0 &&
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

bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    const size_t count = data[0] & 3;
    const bool asConnect = (data[0] & 4) != 0;
    size_t at = 1;
    std::vector<int> fds, extra;
    for (size_t i = 0; i < count && at + 3 <= size; ++i, at += 3) {
        fds.push_back(MakeDescriptor(
            data[at], static_cast<uint16_t>(data[at + 1] | (data[at + 2] << 8)), extra));
    }
    const std::vector<int> given = fds;
    const std::span<const uint8_t> packet(data + at, size - at);
    if (asConnect) {
        int end = -1;
        if (wire::DecodeConnect(packet, fds, end)) {
            close(end);
        }
    } else {
        wire::Envelope envelope;
        const char* why = nullptr;
        xpc_object_t message = wire::Decode(packet, fds, envelope, &why);
        if (message != nullptr) {
            wire::Packet again;
            if (!wire::Encode(envelope, message, again)) {
                std::abort();  // whatever decodes must encode again
            }
            std::vector<int> againFds = std::exchange(again.fds, {});
            wire::Envelope envelope2;
            xpc_object_t copy = wire::Decode(again.bytes, againFds, envelope2, &why);
            if (copy == nullptr || !xpc_equal(message, copy) || envelope2.id != envelope.id ||
                envelope2.kind != envelope.kind || envelope2.replyTo != envelope.replyTo) {
                std::abort();
            }
            xpc_release(copy);
            xpc_release(message);
        } else if (why == nullptr) {
            std::abort();  // a refusal always names its reason
        }
    }
    for (int fd : given) {
        if (IsOpen(fd)) {
            std::abort();  // leaked a received descriptor
        }
    }
    for (int fd : extra) {
        close(fd);
    }
    return 0;
}
