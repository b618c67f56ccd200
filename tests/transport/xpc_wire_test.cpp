// The packet codec: round trips, the exact envelope, large data in the shared region and in
// sealed memfds, and the decoder's refusals of hostile packets without leaking descriptors.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "xpc/transport/xpc_internal.h"
#include "xpc/transport/xpc_transport.h"
#include "xpc/transport/xpc_wire.h"

using namespace lxpc;
using namespace lxpc::wire;

namespace {

bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// Encodes, finishes (data out of the packet in sealed memfds) and decodes `message`.
xpc_object_t RoundTrip(xpc_object_t message, Envelope in = {Kind::message, 1, 0},
                       Envelope* out = nullptr) {
    Packet packet;
    if (!Encode(in, message, packet) || !Finish(packet, nullptr)) {
        return nullptr;
    }
    std::vector<int> fds = std::exchange(packet.fds, {});
    Envelope envelope;
    const char* why = nullptr;
    xpc_object_t decoded = Decode(packet.bytes, fds, out ? *out : envelope, &why);
    EXPECT_NE(decoded, nullptr) << why;
    return decoded;
}

// Appends `value` little-endian in `size` bytes.
void Put(std::vector<uint8_t>& out, uint64_t value, int size) {
    for (int i = 0; i < size; ++i)
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

// A hand-built packet: envelope plus body bytes.
std::vector<uint8_t> Built(std::vector<uint8_t> body, uint32_t descriptors = 0,
                           Kind kind = Kind::message, uint64_t id = 1, uint64_t replyTo = 0) {
    std::vector<uint8_t> p = {'L', 'X', 'P', 'C', kVersion, static_cast<uint8_t>(kind), 0, 0};
    Put(p, id, 8);
    Put(p, replyTo, 8);
    Put(p, descriptors, 4);
    Put(p, body.size(), 4);
    p.insert(p.end(), body.begin(), body.end());
    return p;
}

// A body of one entry, named "k", holding the value bytes given.
std::vector<uint8_t> Entry(std::vector<uint8_t> value) {
    std::vector<uint8_t> b = {kTagDictionary, 1, 0, 0, 0, 1, 0, 0, 0, 'k'};
    b.insert(b.end(), value.begin(), value.end());
    return b;
}

const char* Refusal(const std::vector<uint8_t>& bytes, std::vector<int> fds = {},
                    ReceiveRegion* region = nullptr) {
    Envelope e;
    const char* why = nullptr;
    xpc_object_t o = Decode(bytes, fds, e, &why, region);
    EXPECT_EQ(o, nullptr);
    xpc_release(o);
    return why == nullptr ? "" : why;
}

TEST(XpcWire, EveryValueTypeRoundTrips) {
    int pipeFds[2], pair[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair), 0);
    const unsigned char uuid[16] = {0xde, 0xad, 0xbe, 0xef, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    std::vector<uint8_t> big(200000);
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<uint8_t>(i ^ (i >> 8));

    xpc_object_t m = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_object_t null = xpc_null_create();
    xpc_dictionary_set_value(m, "null", null);
    xpc_release(null);
    xpc_dictionary_set_bool(m, "bool", true);
    xpc_dictionary_set_int64(m, "int64", std::numeric_limits<int64_t>::min());
    xpc_dictionary_set_uint64(m, "uint64", std::numeric_limits<uint64_t>::max());
    xpc_dictionary_set_double(m, "double", -0.125);
    xpc_dictionary_set_date(m, "date", 1700000000123456789);
    xpc_dictionary_set_data(m, "data", "\0\1\2", 3);
    xpc_dictionary_set_data(m, "empty", nullptr, 0);
    xpc_dictionary_set_data(m, "big", big.data(), big.size());
    xpc_dictionary_set_uuid(m, "uuid", uuid);
    xpc_dictionary_set_string(m, "string", "h\xc3\xa9llo");
    xpc_dictionary_set_string(m, "", "empty key");
    xpc_dictionary_set_fd(m, "fd", pipeFds[1]);
    xpc_object_t endpoint = detail::MakeDescriptor(XPC_TYPE_ENDPOINT, dup(pair[0]));
    xpc_dictionary_set_value(m, "endpoint", endpoint);
    xpc_release(endpoint);
    xpc_object_t inner = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_dictionary_set_double(inner, "nan", std::nan(""));
    xpc_object_t items[2] = {inner, xpc_string_create("second")};
    xpc_object_t array = xpc_array_create(items, 2);
    xpc_dictionary_set_value(m, "array", array);
    xpc_release(items[1]);
    xpc_release(array);
    xpc_release(inner);

    Envelope out;
    xpc_object_t r = RoundTrip(m, {Kind::messageWantingReply, 42, 0}, &out);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(out.kind, Kind::messageWantingReply);
    EXPECT_EQ(out.id, 42u);
    // Deep equality (shown to tell values apart in the object tests) takes in every value,
    // the NaN, and descriptors of the same files; the order of keys survives as well.
    EXPECT_TRUE(xpc_equal(r, m));
    std::vector<std::string> sent, got;
    xpc_dictionary_apply(m,
                         [&](const char* k, xpc_object_t) { return sent.emplace_back(k), true; });
    xpc_dictionary_apply(r, [&](const char* k, xpc_object_t) { return got.emplace_back(k), true; });
    EXPECT_EQ(sent, got);
    const int fd = xpc_dictionary_dup_fd(r, "fd");
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "!", 1), 1);
    char c = 0;
    ASSERT_EQ(read(pipeFds[0], &c, 1), 1);
    close(fd);
    xpc_release(r);
    xpc_release(m);
    for (int end : {pipeFds[0], pipeFds[1], pair[0], pair[1]}) {
        close(end);
    }
}

TEST(XpcWire, EnvelopeAndValueLayoutAreExact) {
    xpc_object_t m = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_dictionary_set_int64(m, "a", -2);
    xpc_dictionary_set_string(m, "b", "hi");
    Packet packet;
    ASSERT_TRUE(Encode({Kind::reply, 0x0102030405060708, 9}, m, packet));
    // clang-format off
    const std::vector<uint8_t> expected = {
        'L', 'X', 'P', 'C', 1, 3, 0, 0,  // magic, version, kind, flags
        8, 7, 6, 5, 4, 3, 2, 1, 9, 0, 0, 0, 0, 0, 0, 0,  // id, reply-to
        0, 0, 0, 0, 31, 0, 0, 0,  // descriptors, body length
        kTagDictionary, 2, 0, 0, 0,  // two entries
        1, 0, 0, 0, 'a', kTagInt64, 0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
        1, 0, 0, 0, 'b', kTagString, 2, 0, 0, 0, 'h', 'i'};
    // clang-format on
    EXPECT_EQ(packet.bytes, expected);
    SetPacketId(packet, 77);
    Envelope e;
    std::vector<int> none;
    xpc_object_t r = Decode(packet.bytes, none, e, nullptr);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(e.id, 77u);
    EXPECT_EQ(e.replyTo, 9u);
    xpc_release(r);
    xpc_release(m);
}

// Packets too large for the socket spill data or are refused; nesting is bounded both ways.
TEST(XpcWire, SizeAndNestingAreBounded) {
    std::vector<uint8_t> chunk(60000, 'x');
    xpc_object_t m = xpc_dictionary_create(nullptr, nullptr, 0);
    for (int i = 0; i < 5; ++i) {
        xpc_dictionary_set_data(m, std::to_string(i).c_str(), chunk.data(), chunk.size());
    }
    Packet packet;
    ASSERT_TRUE(Encode({}, m, packet));
    ASSERT_TRUE(Finish(packet, nullptr));
    EXPECT_LE(packet.bytes.size(), kMaxPacketSize);
    EXPECT_EQ(packet.fds.size(), 5u);
    xpc_object_t r = RoundTrip(m);
    EXPECT_TRUE(xpc_equal(r, m));
    xpc_release(r);
    std::string huge(kMaxPacketSize, 's');
    xpc_dictionary_set_string(m, "huge", huge.c_str());
    EXPECT_FALSE(Encode({Kind::message, 1, 0}, m, packet));
    xpc_release(m);

    auto nested = [](size_t depth) {
        xpc_object_t d = xpc_dictionary_create(nullptr, nullptr, 0);
        for (size_t i = 1; i < depth; ++i) {
            xpc_object_t outer = xpc_dictionary_create(nullptr, nullptr, 0);
            xpc_dictionary_set_value(outer, "n", d);
            xpc_release(d);
            d = outer;
        }
        return d;
    };
    xpc_object_t ok = nested(kMaxDepth);
    r = RoundTrip(ok);
    EXPECT_TRUE(xpc_equal(r, ok));
    xpc_release(r);
    xpc_release(ok);
    xpc_object_t deep = nested(kMaxDepth + 1);
    EXPECT_FALSE(Encode({Kind::message, 1, 0}, deep, packet));
    xpc_release(deep);
    // Hand-made packets nesting arrays or dictionaries one level too deep are refused.
    for (const std::vector<uint8_t>& level :
         {std::vector<uint8_t>{kTagArray, 1, 0, 0, 0}, Entry({})}) {
        std::vector<uint8_t> value;
        for (size_t i = 0; i < kMaxDepth; ++i) {
            value.insert(value.end(), level.begin(), level.end());
        }
        value.push_back(kTagNull);
        EXPECT_STREQ(Refusal(Built(Entry(value))), "nesting too deep");
    }
}

TEST(XpcWire, MalformedPacketsAreRefusedWithTheirReason) {
    const std::vector<uint8_t> empty = {kTagDictionary, 0, 0, 0, 0};
    auto patched = [&](size_t at, uint8_t value) {
        std::vector<uint8_t> p = Built(empty);
        p[at] = value;
        return p;
    };
    std::vector<uint8_t> longer = Built(empty);
    longer.push_back(0);
    EXPECT_STREQ(Refusal(Built(Entry({0x7f}))), "unknown tag");
    EXPECT_STREQ(Refusal(Built(Entry({kTagBool, 2}))), "bool other than 0 or 1");
    EXPECT_STREQ(Refusal(Built(Entry({kTagString, 3, 0, 0, 0, 'a', 0, 'b'}))),
                 "string with an embedded NUL");
    EXPECT_STREQ(Refusal(Built(Entry({kTagData, 9, 0, 0, 0, 1}))), "truncated data");
    EXPECT_STREQ(Refusal(Built(Entry({kTagNull, 0}))), "bytes after the body");
    EXPECT_STREQ(Refusal(Built({kTagDictionary, 2, 0, 0, 0, 1, 0, 0, 0, 'k', kTagNull, 1, 0, 0, 0,
                                'k', kTagNull})),
                 "duplicate key");
    EXPECT_STREQ(Refusal(Built({kTagDictionary, 0xff, 0xff, 0xff, 0xff})),
                 "dictionary count larger than the packet");
    EXPECT_STREQ(Refusal(Built(Entry({kTagArray, 0xff, 0xff, 0xff, 0x7f}))),
                 "array count larger than the packet");
    EXPECT_STREQ(Refusal(Built({kTagArray, 0, 0, 0, 0})), "body is not a dictionary");
    EXPECT_STREQ(Refusal(Built(Entry({kTagFd, 0, 0, 0, 0}))), "descriptor index out of range");
    EXPECT_STREQ(Refusal(Built(empty, 0, Kind::message, 0)), "bad message id or reply id");
    EXPECT_STREQ(Refusal(Built(empty, 0, Kind::reply, 5, 0)), "bad message id or reply id");
    EXPECT_STREQ(Refusal(Built(empty, 0, Kind::connect, 5)), "unknown message kind");
    EXPECT_STREQ(Refusal(longer), "body length does not match the packet");
    EXPECT_STREQ(Refusal(patched(6, 2)), "reserved envelope bits set");
    EXPECT_STREQ(Refusal(patched(7, 1)), "reserved envelope bits set");
    EXPECT_STREQ(Refusal(patched(0, 'M')), "bad magic or version");
    // Every truncation of a valid packet is refused.
    xpc_object_t m = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_dictionary_set_string(m, "key", "value");
    xpc_dictionary_set_double(m, "d", 1.5);
    Packet good;
    ASSERT_TRUE(Encode({Kind::message, 3, 0}, m, good));
    for (size_t cut = 0; cut < good.bytes.size(); ++cut) {
        std::vector<uint8_t> shorter(good.bytes.begin(), good.bytes.begin() + cut);
        Refusal(shorter);
    }
    xpc_release(m);
}

TEST(XpcWire, DescriptorRulesAreEnforcedAndRefusedDescriptorsClosed) {
    const auto pipeEnds = [] {
        std::vector<int> p(2);
        EXPECT_EQ(pipe2(p.data(), O_CLOEXEC), 0);
        return p;
    };
    const auto readEnd = [&] {
        std::vector<int> p = pipeEnds();
        close(p[1]);
        return std::vector<int>{p[0]};
    };
    const auto unsealed = [] {
        const int fd = memfd_create("t", MFD_CLOEXEC);
        EXPECT_EQ(ftruncate(fd, 65536), 0);
        return std::vector<int>{fd};
    };
    const std::vector<uint8_t> fd = Entry({kTagFd, 0, 0, 0, 0});
    std::vector<uint8_t> twice = {kTagDictionary, 2, 0, 0, 0, 1, 0, 0, 0, 'a', kTagFd, 0, 0, 0, 0};
    twice.insert(twice.end(), {1, 0, 0, 0, 'b', kTagFd, 0, 0, 0, 0});
    const struct {
        std::vector<uint8_t> body;
        uint32_t count;
        std::function<std::vector<int>()> fds;
        const char* why;
    } cases[] = {
        {fd, 1, pipeEnds, "descriptor count does not match the descriptors received"},
        {fd, 2, pipeEnds, "descriptor received but not used"},
        {twice, 2, pipeEnds, "descriptor used twice"},
        // An endpoint must be a SOCK_SEQPACKET socket.
        {Entry({kTagEndpoint, 0, 0, 0, 0}), 1, readEnd,
         "endpoint descriptor is not a SOCK_SEQPACKET socket"},
        // Sealed data must come in a memfd that really is sealed and of the stated size.
        {Entry({kTagSealedData, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0}),  // 65536 bytes, fd 0
         1, unsealed, "sealed data descriptor is not a sealed memfd of that size"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        const std::vector<int> fds = c.fds();
        EXPECT_STREQ(Refusal(Built(c.body, c.count), fds), c.why);
        for (int sent : fds) {
            EXPECT_FALSE(IsOpen(sent));
        }
    }
    std::vector<uint8_t> bytes(kInlineDataMax, 1);
    xpc_object_t m = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_dictionary_set_data(m, "d", bytes.data(), bytes.size());
    Packet ok;
    ASSERT_TRUE(Encode({Kind::message, 1, 0}, m, ok) && Finish(ok, nullptr));
    EXPECT_TRUE(ok.fds.empty());  // 64 KiB and less stays inline
    xpc_release(m);

    // A connect request carries exactly one socket.
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    Packet request = EncodeConnect(pair[1]);
    std::vector<int> fds = std::exchange(request.fds, {});
    int end = -1;
    ASSERT_TRUE(DecodeConnect(request.bytes, fds, end));
    EXPECT_EQ(end, pair[1]);
    std::vector<int> notSocket = readEnd(), none;
    const int kept = notSocket[0];
    EXPECT_FALSE(DecodeConnect(request.bytes, notSocket, end));
    EXPECT_FALSE(IsOpen(kept));
    EXPECT_FALSE(DecodeConnect(request.bytes, none, end));
    close(pair[0]);
    close(pair[1]);
}

// A packet of region data items (position, length), handing a region over when `flag`.
std::vector<uint8_t> RegionPacket(std::vector<std::pair<uint64_t, uint32_t>> items, bool flag) {
    std::vector<uint8_t> b = {kTagDictionary, static_cast<uint8_t>(items.size()), 0, 0, 0};
    for (size_t i = 0; i < items.size(); ++i) {
        b.insert(b.end(), {1, 0, 0, 0, static_cast<uint8_t>('a' + i), kTagRegionData});
        Put(b, items[i].first, 8);
        Put(b, items[i].second, 4);
    }
    std::vector<uint8_t> p = Built(b, flag ? 1 : 0);
    p[6] = flag ? kFlagRegion : 0;
    return p;
}

int RegionFd(size_t size, int seals = F_SEAL_GROW | F_SEAL_SHRINK) {
    const int fd = memfd_create("t", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    EXPECT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
    EXPECT_EQ(fcntl(fd, F_ADD_SEALS, seals), 0);
    return fd;
}

TEST(XpcWire, RegionsAreCheckedBeforeMappingAndTheirDataMustLieInside) {
    constexpr uint32_t kRing = 8192;
    const auto good = [] { return RegionFd(kRegionHeaderSize + kRing); };
    const char* const notSealed = "region is not a memory file sealed against resizing";
    const char* const outside = "region data outside the region";
    const struct {
        std::function<int()> region;
        std::vector<std::pair<uint64_t, uint32_t>> items;
        const char* why;
    } cases[] = {
        {[] { return dup(0); }, {}, notSealed},
        {[] { return RegionFd(8192, F_SEAL_GROW); }, {}, notSealed},
        {[] { return RegionFd(4096); }, {}, "region size out of range"},
        {[] { return RegionFd(kMaxRegionSize + 4096); }, {}, "region size out of range"},
        {[] { return RegionFd(8192, F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_WRITE); },
         {},
         "region cannot be mapped"},
        {nullptr, {{0, 1}}, "region data without a region"},
        {good, {{0, 0}}, outside},
        {good, {{0, kRing + 1}}, outside},
        {good, {{3 * kRing + 8000, 200}}, outside},  // would wrap
        {good, {{0, kRing}, {0, 1}}, outside},       // more than the ring in one packet
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        ReceiveRegion region;
        const std::vector<int> fds = c.region ? std::vector<int>{c.region()} : std::vector<int>{};
        EXPECT_STREQ(Refusal(RegionPacket(c.items, !fds.empty()), fds, &region), c.why);
        for (int sent : fds) {
            EXPECT_FALSE(IsOpen(sent));
        }
    }
    // A socket that cannot have a region refuses one.
    EXPECT_STREQ(Refusal(RegionPacket({}, true), {good()}),
                 "region flag without a region descriptor");
}

// Encodes `size` bytes of `seed` and finishes the packet through `sending`.
uint8_t PatternByte(uint8_t seed, size_t i) {
    return static_cast<uint8_t>(seed + i * 131 + i / 4099);
}

Packet Large(size_t size, uint8_t seed, SendRegion& sending) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = PatternByte(seed, i);
    xpc_object_t m = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_dictionary_set_data(m, "d", bytes.data(), bytes.size());
    Packet packet;
    EXPECT_TRUE(Encode({Kind::message, 1, 0}, m, packet) && Finish(packet, &sending));
    xpc_release(m);
    return packet;
}

// Decodes `packet` and checks it holds the `size` bytes made from `seed`; returns the
// message (+1).
xpc_object_t Check(Packet& packet, size_t size, uint8_t seed, ReceiveRegion& receiving) {
    std::vector<int> fds = std::exchange(packet.fds, {});
    Envelope e;
    xpc_object_t r = Decode(packet.bytes, fds, e, nullptr, &receiving);
    size_t length = 0;
    const auto* got = static_cast<const uint8_t*>(xpc_dictionary_get_data(r, "d", &length));
    bool same = length == size;
    for (size_t i = 0; same && i < size; ++i)
        same = got[i] == PatternByte(seed, i);
    EXPECT_TRUE(same) << size;
    return r;
}

TEST(XpcWire, TheRegionIsHandedOverOnceReusedAndAFullRingFallsBackToSealedMemfds) {
    SendRegion sending;
    ReceiveRegion receiving;
    // The first large message brings the region; twelve megabytes through a ring of four go
    // round it three times, without another region, and what was received stays as it was.
    std::vector<Packet> held;
    held.push_back(Large(1 << 20, 0, sending));
    EXPECT_EQ(held[0].fds.size(), 1u);
    EXPECT_EQ(held[0].bytes[6], kFlagRegion);
    xpc_object_t first = Check(held[0], 1 << 20, 0, receiving);
    for (uint8_t i = 1; i < 12; ++i) {
        Packet p = Large(1 << 20, i, sending);
        EXPECT_TRUE(p.fds.empty());
        EXPECT_EQ(p.regionBytes, 1u << 20);
        xpc_release(Check(p, 1 << 20, i, receiving));
    }
    EXPECT_EQ(static_cast<const uint8_t*>(
                  xpc_data_get_bytes_ptr(xpc_dictionary_get_value(first, "d")))[0],
              0);
    xpc_release(first);
    // Bytes not copied out yet are not reused: the fifth megabyte goes sealed.
    held.clear();
    for (uint8_t i = 0; i < 5; ++i)
        held.push_back(Large(1 << 20, 100 + i, sending));
    EXPECT_TRUE(held[3].fds.empty());
    EXPECT_EQ(held[4].fds.size(), 1u);
    EXPECT_EQ(held[4].bytes[6], 0);
    for (uint8_t i = 0; i < 5; ++i)
        xpc_release(Check(held[i], 1 << 20, 100 + i, receiving));
    // Once everything is copied out, data as large as the ring fits after any other. Data
    // written with streaming stores, here at a place in the ring that is not 16-byte aligned,
    // arrives byte for byte.
    for (size_t size : {kInlineDataMax + 1, kRegionStreamingMin + 21, size_t{4} << 20}) {
        Packet p = Large(size, 9, sending);
        EXPECT_TRUE(p.fds.empty());
        xpc_release(Check(p, size, 9, receiving));
    }
}

}  // namespace
