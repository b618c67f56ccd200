// Fuzzes the packet decoder with the descriptors a hostile peer could attach.
//
// Input: the layout of fuzz/packet_input.h; its flag reads the packet as a connect request.
// Bit 3 of the first byte gives the socket a shared region already (a ring of two pages
// holding a byte pattern), as if an earlier packet had handed it over; otherwise only a
// packet with the region flag brings one.
//
// Oracles: no crash or sanitizer report; every descriptor handed to the decoder is closed
// once the result is released; an accepted packet encodes again (through a shared region of
// its own) and decodes to an equal message.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <utility>
#include <vector>

#include "fuzz/packet_input.h"
#include "xpc/transport/xpc_transport.h"
#include "xpc/transport/xpc_wire.h"

using namespace lxpc;

namespace {

bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    fuzz_packet::Input input = fuzz_packet::Read(data, size);
    std::vector<int>& fds = input.fds;
    const std::vector<int> given = fds;
    const std::span<const uint8_t> packet = input.packet;
    const bool asConnect = input.flag;
    wire::ReceiveRegion region;
    if ((data[0] & 8) != 0) {
        static const std::vector<uint8_t> pattern = [] {
            std::vector<uint8_t> p(2 * 4096);
            for (size_t i = 0; i < p.size(); ++i) {
                p[i] = static_cast<uint8_t>(i * 7);
            }
            return p;
        }();
        const int fd = fuzz_packet::MakeRegion(3);
        if (pwrite(fd, pattern.data(), pattern.size(), 4096) != ssize_t(pattern.size())) {
            std::abort();
        }
        const char* why = nullptr;
        if (!region.Adopt(fd, &why)) {
            std::abort();
        }
    }
    if (asConnect) {
        int end = -1;
        if (wire::DecodeConnect(packet, fds, end)) {
            close(end);
        }
    } else {
        wire::Envelope envelope;
        const char* why = nullptr;
        xpc_object_t message = wire::Decode(packet, fds, envelope, &why, &region);
        if (message != nullptr) {
            wire::Packet again;
            wire::SendRegion sending;
            if (!wire::Encode(envelope, message, again) || !wire::Finish(again, &sending)) {
                std::abort();  // whatever decodes must encode again
            }
            std::vector<int> againFds = std::exchange(again.fds, {});
            wire::Envelope envelope2;
            wire::ReceiveRegion receiving;
            xpc_object_t copy = wire::Decode(again.bytes, againFds, envelope2, &why, &receiving);
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
    for (int fd : input.extra) {
        close(fd);
    }
    return 0;
}
