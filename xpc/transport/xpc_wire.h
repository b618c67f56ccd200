// The wire format: one SOCK_SEQPACKET packet per message, a fixed 32-byte envelope followed
// by one encoded dictionary; descriptors and endpoints travel as SCM_RIGHTS descriptors named
// by index, large data in the socket's shared region (xpc_region.h) or in sealed memfds.
// docs/PROTOCOL.md is the normative description; this header holds its constants and the encoder
// and decoder.
//
// The decoder treats every packet as hostile: every length and count is checked against the
// bytes that remain before anything is read or allocated, nesting is bounded, unknown tags
// and non-canonical forms are rejected, and every descriptor received must be used exactly
// once. On failure nothing leaks: descriptors not yet adopted by an object are closed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "xpc/transport/xpc_region.h"
#include "xpc/transport/xpc_transport.h"

namespace lxpc::wire {

// Limits. A packet above kMaxPacketSize, nesting deeper than kMaxDepth or more than
// kMaxDescriptors descriptors end the connection that sent them.
inline constexpr uint32_t kMagic = 0x4350584cu;  // "LXPC" in little-endian byte order
inline constexpr uint8_t kVersion = 1;
inline constexpr size_t kHeaderSize = 32;
inline constexpr size_t kMaxPacketSize = 192 * 1024;
inline constexpr size_t kInlineDataMax = 64 * 1024;  // larger data travels out of the packet
inline constexpr size_t kSpillDataMin = 1024;        // data kept inline when a packet spills
inline constexpr uint64_t kMaxSealedDataSize = uint64_t{1} << 30;
inline constexpr size_t kMaxDepth = 32;  // the message dictionary is depth 1
inline constexpr size_t kMaxDescriptors = 64;
inline constexpr size_t kMaxConnections = 256;  // live peer connections a process accepts
// ... of which one user (by peer user id) may hold at most this many: room for a busy user,
// whose closed connections the service may not have seen close yet, and still for others.
inline constexpr size_t kMaxConnectionsPerUser = 192;
// What one connection may leave queued unsent (its peer not reading) before it is dropped,
// and what it may hold received but not yet handled before its reader stops receiving.
inline constexpr size_t kMaxQueuedPackets = 1024;
inline constexpr size_t kMaxQueuedBytes = 16 * 1024 * 1024;
inline constexpr size_t kMaxQueuedDescriptors = 256;

enum class Kind : uint8_t {
    message = 1,
    messageWantingReply = 2,
    reply = 3,
    connect = 4,  // only on an endpoint's connector socket: carries the new connection's end
};

enum Tag : uint8_t {
    kTagNull = 0x00,
    kTagBool = 0x01,
    kTagInt64 = 0x02,
    kTagUint64 = 0x03,
    kTagDouble = 0x04,
    kTagDate = 0x05,
    kTagData = 0x06,
    kTagSealedData = 0x07,
    kTagUuid = 0x08,
    kTagString = 0x09,
    kTagFd = 0x0a,
    kTagEndpoint = 0x0b,
    kTagArray = 0x0c,
    kTagDictionary = 0x0d,
    kTagRegionData = 0x0e,
};

// Envelope flags.
inline constexpr uint16_t kFlagRegion = 0x0001;  // the last descriptor is the sender's new region

struct Envelope {
    Kind kind = Kind::message;
    uint64_t id = 0;
    uint64_t replyTo = 0;
    // Set by Decode: the bytes of data the message holds outside the packet (sealed data and
    // data copied out of the shared region), which the receiver holds as long as the message.
    uint64_t outsideBytes = 0;
};

// An encoded packet and the descriptors it carries (owned: closed on destruction).
struct Packet {
    Packet() = default;
    Packet(Packet&& other) noexcept;
    Packet& operator=(Packet&& other) noexcept;
    ~Packet();
    std::vector<uint8_t> bytes;
    std::vector<int> fds;
    // Data still to be placed out of the packet by Finish: where its 13-byte value is in
    // `bytes`, and the bytes (owned by the message being sent, which outlives Finish).
    struct Spill {
        size_t at;
        const uint8_t* data;
        size_t length;
    };
    std::vector<Spill> spills;
    size_t regionBytes = 0;  // what the packet holds of its region's ring
};

// Encodes `dictionary` under `envelope`. Data above kInlineDataMax is left out of the packet;
// when the packet would still exceed kMaxPacketSize, data above kSpillDataMin is too. False
// when the message cannot be sent (not a dictionary, too deep, too many descriptors, too
// large, a connection inside, a descriptor that cannot be duplicated). The packet is
// complete only once Finish has placed the data left out.
bool Encode(const Envelope& envelope, xpc_object_t dictionary, Packet& out);
// Places the data Encode left out: in `region` (when not null) while its ring has room, else
// in sealed memfds. Packets must be finished in the order they go out on the socket. False
// when the data cannot be placed (the packet must not be sent).
bool Finish(Packet& packet, SendRegion* region);
// Rewrites the id of an encoded packet (ids are assigned when the packet is queued).
void SetPacketId(Packet& packet, uint64_t id);

// Decodes one received packet. Takes ownership of `fds`: those not adopted by the result are
// closed. Returns the dictionary (+1) or null when the packet is malformed; `why` then names
// the first rule broken. `region` is the peer's shared region on this socket (null where
// there can be none); data in it is copied out before the packet is accepted.
xpc_object_t Decode(std::span<const uint8_t> bytes, std::vector<int>& fds, Envelope& envelope,
                    const char** why, ReceiveRegion* region = nullptr);

// The connect request sent through an endpoint's connector socket.
Packet EncodeConnect(int socketEnd);
// True for a well-formed connect request; `socketEnd` then owns its one descriptor, and
// otherwise every descriptor in `fds` is closed.
bool DecodeConnect(std::span<const uint8_t> bytes, std::vector<int>& fds, int& socketEnd);

}  // namespace lxpc::wire
