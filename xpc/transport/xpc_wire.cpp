// Encoder and hostile-input-safe decoder of the packet format (docs/PROTOCOL.md).
//
// All integers are little-endian and written byte by byte, so the format does not depend on
// the host. The decoder reads through a cursor that refuses any read past the packet, and
// checks every count against the bytes left before reserving memory for it; a value is
// adopted into the result only once it is complete, so a failure anywhere releases
// everything decoded so far and closes every received descriptor.
#include "xpc/transport/xpc_wire.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "xpc/transport/xpc_internal.h"
#include "xpc/transport/xpc_os.h"

namespace lxpc::wire {

using namespace lxpc::detail;

Packet::Packet(Packet&& other) noexcept
    : bytes(std::move(other.bytes)),
      fds(std::exchange(other.fds, {})),
      spills(std::move(other.spills)),
      regionBytes(other.regionBytes) {}

Packet& Packet::operator=(Packet&& other) noexcept {
    if (this != &other) {
        for (int fd : fds) {
            os::Close(fd);
        }
        bytes = std::move(other.bytes);
        fds = std::exchange(other.fds, {});
        spills = std::move(other.spills);
        regionBytes = other.regionBytes;
    }
    return *this;
}

Packet::~Packet() {
    for (int fd : fds) {
        os::Close(fd);
    }
}

namespace {

// ---- encoding ----

void Put8(std::vector<uint8_t>& out, uint8_t v) {
    out.push_back(v);
}

void Put32(std::vector<uint8_t>& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }
}

void Put64(std::vector<uint8_t>& out, uint64_t v) {
    for (int i = 0; i < 8; ++i) {
        out.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }
}

void Patch64(std::vector<uint8_t>& out, size_t at, uint64_t v) {
    for (int i = 0; i < 8; ++i) {
        out[at + i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

void Patch32(std::vector<uint8_t>& out, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        out[at + i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

// Offsets of the envelope fields rewritten after the body is known.
constexpr size_t kFlagsAt = 6;
constexpr size_t kIdAt = 8;
constexpr size_t kDescriptorCountAt = 24;
constexpr size_t kBodyLengthAt = 28;

void PutHeader(std::vector<uint8_t>& out, Kind kind, uint64_t id, uint64_t replyTo,
               uint32_t descriptors, uint32_t bodyLength) {
    Put32(out, kMagic);
    Put8(out, kVersion);
    Put8(out, static_cast<uint8_t>(kind));
    Put8(out, 0);
    Put8(out, 0);
    Put64(out, id);
    Put64(out, replyTo);
    Put32(out, descriptors);
    Put32(out, bodyLength);
}

class Encoder {
public:
    Encoder(Packet& packet, size_t inlineMax) : out_(packet), inlineMax_(inlineMax) {}

    bool Value(xpc_object_t object, size_t depth) {
        std::vector<uint8_t>& b = out_.bytes;
        if (b.size() > kMaxPacketSize) {
            return false;
        }
        switch (object->type) {
            case XPC_TYPE_NULL:
                Put8(b, kTagNull);
                return true;
            case XPC_TYPE_BOOL:
                Put8(b, kTagBool);
                Put8(b, xpc_bool_get_value(object) ? 1 : 0);
                return true;
            case XPC_TYPE_INT64:
                Put8(b, kTagInt64);
                Put64(b, static_cast<uint64_t>(xpc_int64_get_value(object)));
                return true;
            case XPC_TYPE_UINT64:
                Put8(b, kTagUint64);
                Put64(b, xpc_uint64_get_value(object));
                return true;
            case XPC_TYPE_DOUBLE: {
                const double d = xpc_double_get_value(object);
                uint64_t bits;
                std::memcpy(&bits, &d, sizeof bits);
                Put8(b, kTagDouble);
                Put64(b, bits);
                return true;
            }
            case XPC_TYPE_DATE:
                Put8(b, kTagDate);
                Put64(b, static_cast<uint64_t>(xpc_date_get_value(object)));
                return true;
            case XPC_TYPE_DATA:
                return Data(static_cast<const DataObject*>(object));
            case XPC_TYPE_UUID:
                Put8(b, kTagUuid);
                b.insert(b.end(), xpc_uuid_get_bytes(object), xpc_uuid_get_bytes(object) + 16);
                return true;
            case XPC_TYPE_STRING: {
                const std::string& s = static_cast<const StringObject*>(object)->value;
                // A string is a C string: what follows an embedded NUL was never part of it.
                const size_t length = std::strlen(s.c_str());
                if (length > kMaxPacketSize) {
                    return false;
                }
                Put8(b, kTagString);
                Put32(b, static_cast<uint32_t>(length));
                b.insert(b.end(), s.data(), s.data() + length);
                return true;
            }
            case XPC_TYPE_FD:
            case XPC_TYPE_ENDPOINT: {
                const int fd = static_cast<const DescriptorObject*>(object)->fd;
                Put8(b, object->type == XPC_TYPE_FD ? kTagFd : kTagEndpoint);
                return Descriptor(os::Dup(fd));
            }
            case XPC_TYPE_ARRAY: {
                const auto& values = static_cast<const ArrayObject*>(object)->values;
                if (depth + 1 > kMaxDepth || values.size() > kMaxPacketSize) {
                    return false;
                }
                Put8(b, kTagArray);
                Put32(b, static_cast<uint32_t>(values.size()));
                for (xpc_object_t value : values) {
                    if (!Value(value, depth + 1)) {
                        return false;
                    }
                }
                return true;
            }
            case XPC_TYPE_DICTIONARY:
                return depth + 1 <= kMaxDepth &&
                       Dictionary(static_cast<const DictionaryObject*>(object), depth + 1);
            case XPC_TYPE_CONNECTION:
            case XPC_TYPE_ERROR:
                return false;
        }
        return false;
    }

    bool Dictionary(const DictionaryObject* d, size_t depth) {
        std::vector<uint8_t>& b = out_.bytes;
        if (d->entries.size() > kMaxPacketSize) {
            return false;
        }
        Put8(b, kTagDictionary);
        Put32(b, static_cast<uint32_t>(d->entries.size()));
        for (const auto& [key, value] : d->entries) {
            // Keys are C strings on the wire and in every getter; an embedded NUL cannot
            // come from the public API, which only takes C strings.
            Put32(b, static_cast<uint32_t>(key.size()));
            b.insert(b.end(), key.begin(), key.end());
            if (!Value(value, depth)) {
                return false;
            }
        }
        return true;
    }

private:
    // Every spill may need a descriptor of its own, should the region have no room for it.
    size_t DescriptorsClaimed() const { return out_.fds.size() + out_.spills.size(); }

    bool Descriptor(int fd) {
        if (fd < 0 || DescriptorsClaimed() >= kMaxDescriptors) {
            os::Close(fd);
            return false;
        }
        Put32(out_.bytes, static_cast<uint32_t>(out_.fds.size()));
        out_.fds.push_back(fd);
        return true;
    }

    bool Data(const DataObject* data) {
        std::vector<uint8_t>& b = out_.bytes;
        if (data->memfd >= 0) {
            // Already sealed (received so, typically): passed on without a copy.
            Put8(b, kTagSealedData);
            Put64(b, data->length);
            return Descriptor(os::Dup(data->memfd));
        }
        if (data->length > inlineMax_) {
            if (data->length > kMaxSealedDataSize || DescriptorsClaimed() >= kMaxDescriptors) {
                return false;
            }
            // A placeholder of the size of either out-of-packet form, filled in by Finish.
            out_.spills.push_back({b.size(), data->heap.get(), data->length});
            Put8(b, kTagRegionData);
            Put64(b, 0);
            Put32(b, 0);
            return true;
        }
        Put8(b, kTagData);
        Put32(b, static_cast<uint32_t>(data->length));
        b.insert(b.end(), data->heap.get(), data->heap.get() + data->length);
        return true;
    }

    Packet& out_;
    const size_t inlineMax_;
};

bool EncodeWith(const Envelope& envelope, const DictionaryObject* d, Packet& out,
                size_t inlineMax) {
    out = Packet();
    out.bytes.reserve(256);
    PutHeader(out.bytes, envelope.kind, envelope.id, envelope.replyTo, 0, 0);
    Encoder encoder(out, inlineMax);
    if (!encoder.Dictionary(d, 1) || out.bytes.size() > kMaxPacketSize) {
        return false;
    }
    Patch32(out.bytes, kDescriptorCountAt, static_cast<uint32_t>(out.fds.size()));
    Patch32(out.bytes, kBodyLengthAt, static_cast<uint32_t>(out.bytes.size() - kHeaderSize));
    return true;
}

// Rewrites a spill's placeholder as data in a sealed memfd.
bool PlaceSealed(Packet& packet, const Packet::Spill& spill) {
    const int fd = os::CreateSealedMemfd(spill.data, spill.length);
    if (fd < 0) {
        return false;
    }
    packet.bytes[spill.at] = kTagSealedData;
    Patch64(packet.bytes, spill.at + 1, spill.length);
    Patch32(packet.bytes, spill.at + 9, static_cast<uint32_t>(packet.fds.size()));
    packet.fds.push_back(fd);
    return true;
}

// ---- decoding ----

class Reader {
public:
    explicit Reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    size_t Left() const { return bytes_.size() - at_; }
    bool U8(uint8_t& v) {
        if (Left() < 1) {
            return false;
        }
        v = bytes_[at_++];
        return true;
    }
    bool U32(uint32_t& v) {
        if (Left() < 4) {
            return false;
        }
        v = 0;
        for (int i = 0; i < 4; ++i) {
            v |= static_cast<uint32_t>(bytes_[at_ + i]) << (8 * i);
        }
        at_ += 4;
        return true;
    }
    bool U64(uint64_t& v) {
        if (Left() < 8) {
            return false;
        }
        v = 0;
        for (int i = 0; i < 8; ++i) {
            v |= static_cast<uint64_t>(bytes_[at_ + i]) << (8 * i);
        }
        at_ += 8;
        return true;
    }
    bool Bytes(size_t n, const uint8_t*& p) {
        if (Left() < n) {
            return false;
        }
        p = bytes_.data() + at_;
        at_ += n;
        return true;
    }

private:
    std::span<const uint8_t> bytes_;
    size_t at_ = 0;
};

struct Header {
    uint8_t kind = 0;
    uint16_t flags = 0;
    uint64_t id = 0;
    uint64_t replyTo = 0;
    uint32_t descriptors = 0;
    uint32_t bodyLength = 0;
};

bool ReadHeader(Reader& r, size_t total, Header& h, const char** why) {
    uint32_t magic = 0;
    uint8_t version = 0, flags0 = 0, flags1 = 0;
    if (!r.U32(magic) || !r.U8(version) || !r.U8(h.kind) || !r.U8(flags0) || !r.U8(flags1) ||
        !r.U64(h.id) || !r.U64(h.replyTo) || !r.U32(h.descriptors) || !r.U32(h.bodyLength)) {
        *why = "packet shorter than the envelope";
        return false;
    }
    if (magic != kMagic || version != kVersion) {
        *why = "bad magic or version";
        return false;
    }
    h.flags = static_cast<uint16_t>(flags0 | (flags1 << 8));
    if ((h.flags & ~kFlagRegion) != 0) {
        *why = "reserved envelope bits set";
        return false;
    }
    if (h.bodyLength != total - kHeaderSize) {
        *why = "body length does not match the packet";
        return false;
    }
    if (h.descriptors > kMaxDescriptors) {
        *why = "too many descriptors";
        return false;
    }
    return true;
}

bool ValidKey(const uint8_t* p, size_t n) {
    return std::memchr(p, 0, n) == nullptr;
}

class Decoder {
public:
    Decoder(Reader& r, std::vector<int>& fds, ReceiveRegion* region)
        : r_(r), fds_(fds), used_(fds.size(), false), region_(region) {}

    // Marks the last descriptor as the packet's region and hands it over.
    int TakeRegionDescriptor() {
        used_.back() = true;
        return std::exchange(fds_.back(), -1);
    }
    // The end of the furthest region data copied out.
    uint64_t RegionEnd() const { return regionEnd_; }
    // The data held outside the packet: sealed, and copied out of the region.
    uint64_t OutsideBytes() const { return sealedBytes_ + regionCopied_; }

    bool AllDescriptorsUsed() const {
        for (bool u : used_) {
            if (!u) {
                return false;
            }
        }
        return true;
    }

    // Decodes one value (+1) or returns null with why_ set.
    xpc_object_t Value(size_t depth) {
        uint8_t tag = 0;
        if (!r_.U8(tag)) {
            return Fail("truncated value");
        }
        switch (tag) {
            case kTagNull:
                return xpc_null_create();
            case kTagBool: {
                uint8_t v = 0;
                if (!r_.U8(v)) {
                    return Fail("truncated bool");
                }
                if (v > 1) {
                    return Fail("bool other than 0 or 1");
                }
                return xpc_bool_create(v == 1);
            }
            case kTagInt64:
            case kTagUint64:
            case kTagDouble:
            case kTagDate: {
                uint64_t v = 0;
                if (!r_.U64(v)) {
                    return Fail("truncated number");
                }
                if (tag == kTagUint64) {
                    return xpc_uint64_create(v);
                }
                if (tag == kTagDouble) {
                    double d;
                    std::memcpy(&d, &v, sizeof d);
                    return xpc_double_create(d);
                }
                return tag == kTagInt64 ? xpc_int64_create(static_cast<int64_t>(v))
                                        : xpc_date_create(static_cast<int64_t>(v));
            }
            case kTagData: {
                uint32_t n = 0;
                const uint8_t* p = nullptr;
                if (!r_.U32(n) || !r_.Bytes(n, p)) {
                    return Fail("truncated data");
                }
                auto* data = new DataObject;
                data->heap = std::make_unique_for_overwrite<uint8_t[]>(n == 0 ? 1 : n);
                if (n != 0) {
                    std::memcpy(data->heap.get(), p, n);
                }
                data->length = n;
                return data;
            }
            case kTagSealedData: {
                uint64_t n = 0;
                int fd = -1;
                if (!r_.U64(n)) {
                    return Fail("truncated sealed data");
                }
                if (n == 0 || n > kMaxSealedDataSize) {
                    return Fail("sealed data length out of range");
                }
                if (!TakeDescriptor(fd)) {
                    return nullptr;
                }
                if (!os::IsSealedMemfd(fd, n)) {
                    os::Close(fd);
                    return Fail("sealed data descriptor is not a sealed memfd of that size");
                }
                sealedBytes_ += n;
                return MakeSealedData(fd, static_cast<size_t>(n));
            }
            case kTagRegionData: {
                uint64_t position = 0;
                uint32_t n = 0;
                if (!r_.U64(position) || !r_.U32(n)) {
                    return Fail("truncated region data");
                }
                if (region_ == nullptr || !region_->Mapped()) {
                    return Fail("region data without a region");
                }
                // Each copy is bounded by the ring, and so is their sum: a packet naming the
                // same bytes over and over cannot make the receiver allocate without end.
                if (!region_->Holds(position, n) || n > region_->RingSize() - regionCopied_) {
                    return Fail("region data outside the region");
                }
                regionCopied_ += n;
                auto* data = new DataObject;
                data->heap = std::make_unique_for_overwrite<uint8_t[]>(n);
                region_->CopyOut(position, n, data->heap.get());
                data->length = n;
                regionEnd_ = std::max(regionEnd_, position + n);
                return data;
            }
            case kTagUuid: {
                const uint8_t* p = nullptr;
                if (!r_.Bytes(16, p)) {
                    return Fail("truncated uuid");
                }
                return xpc_uuid_create(p);
            }
            case kTagString: {
                uint32_t n = 0;
                const uint8_t* p = nullptr;
                if (!r_.U32(n) || !r_.Bytes(n, p)) {
                    return Fail("truncated string");
                }
                if (!ValidKey(p, n)) {
                    return Fail("string with an embedded NUL");
                }
                return new StringObject(std::string(reinterpret_cast<const char*>(p), n));
            }
            case kTagFd:
            case kTagEndpoint: {
                int fd = -1;
                if (!TakeDescriptor(fd)) {
                    return nullptr;
                }
                if (tag == kTagEndpoint && !os::IsSeqpacketSocket(fd)) {
                    os::Close(fd);
                    return Fail("endpoint descriptor is not a SOCK_SEQPACKET socket");
                }
                return MakeDescriptor(tag == kTagFd ? XPC_TYPE_FD : XPC_TYPE_ENDPOINT, fd);
            }
            case kTagArray:
                return Array(depth + 1);
            case kTagDictionary:
                return Dictionary(depth + 1);
            default:
                return Fail("unknown tag");
        }
    }

    xpc_object_t Dictionary(size_t depth) {
        if (depth > kMaxDepth) {
            return Fail("nesting too deep");
        }
        uint32_t count = 0;
        if (!r_.U32(count)) {
            return Fail("truncated dictionary");
        }
        // Each entry takes five bytes at least (key length and a tag).
        if (count > r_.Left() / 5) {
            return Fail("dictionary count larger than the packet");
        }
        auto* d = new DictionaryObject;
        d->entries.reserve(count);
        for (uint32_t i = 0; i < count; ++i) {
            uint32_t n = 0;
            const uint8_t* p = nullptr;
            if (!r_.U32(n) || !r_.Bytes(n, p)) {
                xpc_release(d);
                return Fail("truncated key");
            }
            const std::string_view key(reinterpret_cast<const char*>(p), n);
            if (!ValidKey(p, n)) {
                xpc_release(d);
                return Fail("key with an embedded NUL");
            }
            if (d->Contains(key)) {
                xpc_release(d);
                return Fail("duplicate key");
            }
            xpc_object_t value = Value(depth);
            if (value == nullptr) {
                xpc_release(d);
                return nullptr;
            }
            d->Put(key, value);
        }
        return d;
    }

    const char* why = nullptr;

private:
    xpc_object_t Array(size_t depth) {
        if (depth > kMaxDepth) {
            return Fail("nesting too deep");
        }
        uint32_t count = 0;
        if (!r_.U32(count)) {
            return Fail("truncated array");
        }
        if (count > r_.Left()) {
            return Fail("array count larger than the packet");
        }
        auto* a = new ArrayObject;
        a->values.reserve(count);
        for (uint32_t i = 0; i < count; ++i) {
            xpc_object_t value = Value(depth);
            if (value == nullptr) {
                xpc_release(a);
                return nullptr;
            }
            a->values.push_back(value);
        }
        return a;
    }

    bool TakeDescriptor(int& fd) {
        uint32_t index = 0;
        if (!r_.U32(index)) {
            Fail("truncated descriptor index");
            return false;
        }
        if (index >= fds_.size()) {
            Fail("descriptor index out of range");
            return false;
        }
        if (used_[index]) {
            Fail("descriptor used twice");
            return false;
        }
        used_[index] = true;
        fd = std::exchange(fds_[index], -1);
        return true;
    }

    std::nullptr_t Fail(const char* reason) {
        if (why == nullptr) {
            why = reason;
        }
        return nullptr;
    }

    Reader& r_;
    std::vector<int>& fds_;
    std::vector<bool> used_;
    ReceiveRegion* const region_;
    size_t regionCopied_ = 0;
    uint64_t regionEnd_ = 0;
    uint64_t sealedBytes_ = 0;
};

void CloseAll(std::vector<int>& fds) {
    for (int& fd : fds) {
        if (fd >= 0) {
            os::Close(fd);
            fd = -1;
        }
    }
    fds.clear();
}

}  // namespace

bool Encode(const Envelope& envelope, xpc_object_t dictionary, Packet& out) {
    const DictionaryObject* d = dictionary != nullptr && dictionary->type == XPC_TYPE_DICTIONARY
                                    ? static_cast<const DictionaryObject*>(dictionary)
                                    : nullptr;
    if (d == nullptr) {
        return false;
    }
    if (EncodeWith(envelope, d, out, kInlineDataMax)) {
        return true;
    }
    // Too large with the usual threshold: move the smaller data out of the packet as well.
    if (out.bytes.size() > kMaxPacketSize && EncodeWith(envelope, d, out, kSpillDataMin)) {
        return true;
    }
    out = Packet();
    return false;
}

bool Finish(Packet& packet, SendRegion* region) {
    if (packet.spills.empty()) {
        return true;
    }
    size_t largest = 0;
    for (const Packet::Spill& spill : packet.spills) {
        largest = std::max(largest, spill.length);
    }
    // Encode left a descriptor for every spill; the region's own needs one more.
    const bool useRegion = region != nullptr &&
                           packet.fds.size() + packet.spills.size() < kMaxDescriptors &&
                           region->Reserve(largest);
    for (const Packet::Spill& spill : packet.spills) {
        const std::optional<uint64_t> position =
            useRegion ? region->Allocate(spill.length) : std::nullopt;
        if (!position) {
            // No region, or its ring is full of data the receiver has not copied out yet.
            if (!PlaceSealed(packet, spill)) {
                return false;
            }
            continue;
        }
        region->Place(*position, spill.data, spill.length);
        Patch64(packet.bytes, spill.at + 1, *position);
        Patch32(packet.bytes, spill.at + 9, static_cast<uint32_t>(spill.length));
        packet.regionBytes += spill.length;
    }
    packet.spills.clear();
    if (useRegion) {
        if (const int fd = region->TakeAnnouncement(); fd >= 0) {
            packet.fds.push_back(fd);
            packet.bytes[kFlagsAt] |= static_cast<uint8_t>(kFlagRegion);
        }
    }
    Patch32(packet.bytes, kDescriptorCountAt, static_cast<uint32_t>(packet.fds.size()));
    return true;
}

void SetPacketId(Packet& packet, uint64_t id) {
    if (packet.bytes.size() >= kHeaderSize) {
        Patch64(packet.bytes, kIdAt, id);
    }
}

xpc_object_t Decode(std::span<const uint8_t> bytes, std::vector<int>& fds, Envelope& envelope,
                    const char** why, ReceiveRegion* region) {
    const char* unused = nullptr;
    if (why == nullptr) {
        why = &unused;
    }
    *why = nullptr;
    Reader r(bytes);
    Header h;
    if (bytes.size() > kMaxPacketSize) {
        *why = "packet larger than the limit";
        CloseAll(fds);
        return nullptr;
    }
    if (!ReadHeader(r, bytes.size(), h, why)) {
        CloseAll(fds);
        return nullptr;
    }
    if (h.descriptors != fds.size()) {
        *why = "descriptor count does not match the descriptors received";
        CloseAll(fds);
        return nullptr;
    }
    const bool isReply = h.kind == static_cast<uint8_t>(Kind::reply);
    if (h.kind < static_cast<uint8_t>(Kind::message) ||
        h.kind > static_cast<uint8_t>(Kind::reply)) {
        *why = "unknown message kind";
        CloseAll(fds);
        return nullptr;
    }
    if (h.id == 0 || (isReply != (h.replyTo != 0))) {
        *why = "bad message id or reply id";
        CloseAll(fds);
        return nullptr;
    }
    Decoder decoder(r, fds, region);
    if ((h.flags & kFlagRegion) != 0) {
        if (region == nullptr || fds.empty()) {
            *why = "region flag without a region descriptor";
            CloseAll(fds);
            return nullptr;
        }
        if (!region->Adopt(decoder.TakeRegionDescriptor(), why)) {
            CloseAll(fds);
            return nullptr;
        }
    }
    uint8_t tag = 0;
    xpc_object_t body = nullptr;
    if (!r.U8(tag) || tag != kTagDictionary) {
        *why = "body is not a dictionary";
    } else {
        body = decoder.Dictionary(1);
        if (body == nullptr) {
            *why = decoder.why;
        } else if (r.Left() != 0) {
            *why = "bytes after the body";
        } else if (!decoder.AllDescriptorsUsed()) {
            *why = "descriptor received but not used";
        }
    }
    if (*why != nullptr) {
        xpc_release(body);
        CloseAll(fds);
        return nullptr;
    }
    fds.clear();  // every one adopted
    // Only now, with every byte copied out, may the sender reuse them.
    if (region != nullptr) {
        region->Release(decoder.RegionEnd());
    }
    envelope.kind = static_cast<Kind>(h.kind);
    envelope.id = h.id;
    envelope.replyTo = h.replyTo;
    envelope.outsideBytes = decoder.OutsideBytes();
    return body;
}

Packet EncodeConnect(int socketEnd) {
    Packet packet;
    PutHeader(packet.bytes, Kind::connect, 0, 0, 1, 0);
    packet.fds.push_back(socketEnd);
    return packet;
}

bool DecodeConnect(std::span<const uint8_t> bytes, std::vector<int>& fds, int& socketEnd) {
    Reader r(bytes);
    Header h;
    const char* why = nullptr;
    socketEnd = -1;
    if (bytes.size() > kMaxPacketSize || !ReadHeader(r, bytes.size(), h, &why) ||
        h.kind != static_cast<uint8_t>(Kind::connect) || h.flags != 0 || h.id != 0 ||
        h.replyTo != 0 || h.descriptors != 1 || fds.size() != 1 || h.bodyLength != 0 ||
        !os::IsSeqpacketSocket(fds[0])) {
        CloseAll(fds);
        return false;
    }
    socketEnd = fds[0];
    fds.clear();
    return true;
}

}  // namespace lxpc::wire
