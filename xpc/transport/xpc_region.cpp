// The ring of a shared region (see xpc_region.h). The progress word in the header page is
// shared between processes: both sides use lock-free atomics on it, and neither believes
// what the other wrote beyond what it can check.
#include "xpc/transport/xpc_region.h"

#include <unistd.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <utility>

#include "xpc/transport/xpc_os.h"

namespace lxpc::wire {

// The progress word is a little-endian u64 on the wire; it is read and written as a native
// atomic, which is the same thing on the hosts this runs on.
static_assert(std::endian::native == std::endian::little);
static_assert(std::atomic_ref<uint64_t>::is_always_lock_free);

namespace {

std::atomic_ref<uint64_t> Progress(uint8_t* map) {
    return std::atomic_ref<uint64_t>(*reinterpret_cast<uint64_t*>(map));
}

}  // namespace

SendRegion::~SendRegion() {
    Release();
}

void SendRegion::Release() {
    os::Unmap(map_, kRegionHeaderSize + ring_);
    os::Close(unannounced_);
    map_ = nullptr;
    unannounced_ = -1;
    ring_ = 0;
    head_ = tail_ = 0;
}

bool SendRegion::Reserve(size_t largest) {
    if (largest > kMaxRegionRing) {
        return false;
    }
    if (map_ != nullptr && largest <= ring_) {
        return true;
    }
    // A new region, or a larger one for an item the current ring cannot hold at all. Data
    // still in flight in the old one stays readable: the receiver keeps its own mapping
    // until it meets the new region, after every packet that names the old.
    const size_t ring =
        std::clamp(std::bit_ceil(largest * kRegionItemsPerRing), kMinRegionRing, kMaxRegionRing);
    const int fd = os::CreateRegion(kRegionHeaderSize + ring);
    uint8_t* map =
        fd < 0 ? nullptr : os::MapShared(fd, kRegionHeaderSize + ring, kRegionHeaderSize + ring);
    if (map == nullptr) {
        os::Close(fd);
        return false;
    }
    Release();
    map_ = map;
    ring_ = ring;
    unannounced_ = fd;
    return true;
}

std::optional<uint64_t> SendRegion::Allocate(size_t length) {
    if (map_ == nullptr || length == 0 || length > ring_) {
        return std::nullopt;
    }
    // The receiver's claim counts only when it lies between what it claimed before and what
    // was handed out.
    const uint64_t claimed = Progress(map_).load(std::memory_order_acquire);
    if (claimed >= tail_ && claimed <= head_) {
        tail_ = claimed;
    }
    uint64_t start = head_;
    const uint64_t offset = start % ring_;
    if (offset + length > ring_) {
        start += ring_ - offset;  // items do not wrap: the rest of this lap is skipped
    }
    // The bytes still in use are those from tail_ to head_, and none when the receiver has
    // copied everything out: then any item up to the ring's size fits, wherever it starts.
    if (tail_ != head_ && start + length - tail_ > ring_) {
        return std::nullopt;
    }
    head_ = start + length;
    return start;
}

void SendRegion::Place(uint64_t position, const void* bytes, size_t length) {
    auto* out = map_ + kRegionHeaderSize + position % ring_;
#if defined(__SSE2__)
    // The ring's lines were last read by the receiver on its own core: plain stores would
    // first fetch each line back from there only to overwrite it, and a large item would
    // also push the sender's own working set out of its cache. Streaming stores skip both;
    // the receiver then reads the item from memory rather than from the sender's cache.
    if (length >= kRegionStreamingMin) {
        const auto* in = static_cast<const uint8_t*>(bytes);
        const size_t head = (16 - reinterpret_cast<uintptr_t>(out) % 16) % 16;
        std::memcpy(out, in, head);
        size_t at = head;
        for (; length - at >= 16; at += 16) {
            _mm_stream_si128(reinterpret_cast<__m128i*>(out + at),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + at)));
        }
        std::memcpy(out + at, in + at, length - at);
        _mm_sfence();  // streaming stores are weakly ordered: all done before the packet goes
        return;
    }
#endif
    std::memcpy(out, bytes, length);
}

int SendRegion::TakeAnnouncement() {
    return std::exchange(unannounced_, -1);
}

ReceiveRegion::~ReceiveRegion() {
    Unmap();
}

void ReceiveRegion::Unmap() {
    os::Unmap(map_, kRegionHeaderSize + ring_);
    map_ = nullptr;
    ring_ = 0;
    released_ = 0;
}

bool ReceiveRegion::Adopt(int fd, const char** why) {
    const long page = ::sysconf(_SC_PAGESIZE);
    uint64_t size = 0;
    if (!os::IsRegionMemfd(fd, size)) {
        *why = "region is not a memory file sealed against resizing";
    } else if (size <= kRegionHeaderSize || size > kMaxRegionSize ||
               (page > 0 && size % static_cast<uint64_t>(page) != 0)) {
        *why = "region size out of range";
    } else if (uint8_t* map = os::MapShared(fd, size, kRegionHeaderSize)) {
        os::Close(fd);
        Unmap();
        map_ = map;
        ring_ = static_cast<size_t>(size) - kRegionHeaderSize;
        return true;
    } else {
        *why = "region cannot be mapped";
    }
    os::Close(fd);
    return false;
}

bool ReceiveRegion::Holds(uint64_t position, size_t length) const {
    if (map_ == nullptr || length == 0 || length > ring_) {
        return false;
    }
    return position % ring_ <= ring_ - length;
}

void ReceiveRegion::CopyOut(uint64_t position, size_t length, uint8_t* out) const {
    // The sender may write these bytes at any time: they are read once, into memory it
    // cannot reach, and never looked at in the region again.
    std::memcpy(out, map_ + kRegionHeaderSize + position % ring_, length);
}

void ReceiveRegion::Release(uint64_t end) {
    if (map_ != nullptr && end > released_) {
        released_ = end;
        Progress(map_).store(end, std::memory_order_release);
    }
}

}  // namespace lxpc::wire
