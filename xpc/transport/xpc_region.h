// The shared region of one socket and one direction: a memory file that the sender creates
// on its first large message, hands over once, and then reuses, so that large data costs a
// copy in and a copy out instead of fresh pages for every message.
//
// The sender places data in a ring inside the region and names it in the packet by its
// position (a byte count that only grows; the ring offset is the position modulo the ring's
// size). The receiver copies the data out while decoding the packet, before the message is
// accepted, and only then publishes in the region's header page how far it has copied: the
// sender never reuses bytes the receiver may still read, and the receiver never keeps a
// reference into memory the sender can still write.
//
// Neither side trusts the other. The receiver maps only a memory file sealed against growing
// and shrinking (its pages cannot vanish under the mapping), copies only ranges inside the
// ring, and at most the ring's size per packet. The sender reads the receiver's progress as a
// claim: one that goes backwards or past what was sent is ignored, and costs the receiver
// only its own data.
//
// Positions must be copied in the order they were placed: the sender places data under the
// lock that orders its packets on the socket.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace lxpc::wire {

// The header page holds the receiver's progress (a little-endian u64 at offset 0).
inline constexpr size_t kRegionHeaderSize = 4096;
// The ring of a new region holds this many times the largest item it was made for,
// between these sizes. Queued packets count the ring bytes they hold against the 16 MiB a
// peer may leave unsent, so that the largest ring fits there whole, with room to spare.
inline constexpr size_t kRegionItemsPerRing = 4;
inline constexpr size_t kMinRegionRing = size_t{1} << 20;
inline constexpr size_t kMaxRegionRing = size_t{8} << 20;
inline constexpr size_t kMaxRegionSize = kRegionHeaderSize + kMaxRegionRing;
// Items from this size on are written past the sender's caches (see Place).
inline constexpr size_t kRegionStreamingMin = size_t{512} << 10;

class SendRegion {
public:
    SendRegion() = default;
    ~SendRegion();
    SendRegion(const SendRegion&) = delete;
    SendRegion& operator=(const SendRegion&) = delete;

    // Makes sure the ring can hold an item of `largest` bytes, creating the region (or a
    // larger one in place of a small one). False when it cannot be.
    bool Reserve(size_t largest);
    // Room for `length` bytes at the returned position, or none while the receiver has not
    // copied enough out. Positions are handed out in increasing order.
    std::optional<uint64_t> Allocate(size_t length);
    // Copies `length` bytes to `position` (which must come from Allocate for that length).
    void Place(uint64_t position, const void* bytes, size_t length);
    // The region's descriptor when it has not been handed over yet (-1 otherwise); the caller
    // owns it and sends it before, or with, the first packet naming the region.
    int TakeAnnouncement();
    size_t RingSize() const { return ring_; }

private:
    void Release();

    uint8_t* map_ = nullptr;
    size_t ring_ = 0;
    int unannounced_ = -1;
    uint64_t head_ = 0;  // next free position
    uint64_t tail_ = 0;  // what the receiver has copied out
};

class ReceiveRegion {
public:
    ReceiveRegion() = default;
    ~ReceiveRegion();
    ReceiveRegion(const ReceiveRegion&) = delete;
    ReceiveRegion& operator=(const ReceiveRegion&) = delete;

    // Adopts `fd` (closed in every case) as the peer's region, in place of the previous one.
    // False, with `why` set, when it is not an acceptable region.
    bool Adopt(int fd, const char** why);
    bool Mapped() const { return map_ != nullptr; }
    size_t RingSize() const { return ring_; }
    // True when `length` bytes at `position` lie inside the ring, without wrapping.
    bool Holds(uint64_t position, size_t length) const;
    // Copies bytes that Holds() accepted.
    void CopyOut(uint64_t position, size_t length, uint8_t* out) const;
    // Tells the sender that everything up to `end` has been copied out.
    void Release(uint64_t end);

private:
    void Unmap();

    uint8_t* map_ = nullptr;
    size_t ring_ = 0;
    uint64_t released_ = 0;
};

}  // namespace lxpc::wire
