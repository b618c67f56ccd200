// Base64 encoding and decoding of setting values; the layout rules are in lbase64.h.
#include "settings/lbase64.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned long kGroupsPerLine = 19;

// Character value to 6-bit value; -1 for everything outside the alphabet.
constexpr std::array<signed char, 256> kDecode = [] {
    std::array<signed char, 256> table{};
    for (auto& v : table) {
        v = -1;
    }
    for (int i = 0; i < 64; ++i) {
        table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<signed char>(i);
    }
    return table;
}();

// The size rule in 64 bits, so that the string form can size itself for any input.
unsigned long long RequiredLength(unsigned long long length, unsigned flags) {
    unsigned long long n = length * 4 / 3;
    if ((flags & kLBase64NoPadding) == 0) {
        n += length % 3;
    }
    const unsigned long long lines = n / 76;  // taken before the rounding below
    const unsigned long long r = n % 76;
    if (r % 4 != 0) {
        n += 4 - r % 4;
    }
    if ((flags & kLBase64NoLineBreaks) == 0) {
        n += 2 * (lines + 1);
    }
    return n;
}

// Encodes `count` whole 3-byte groups; returns the position after the written characters.
// Each group's four characters are gathered in a word and stored at once.
char* EncodeGroups(char* dst, const unsigned char* src, unsigned long count) {
    for (unsigned long g = 0; g < count; ++g, src += 3, dst += 4) {
        const uint32_t v =
            (static_cast<uint32_t>(src[0]) << 16) | (static_cast<uint32_t>(src[1]) << 8) | src[2];
        const char out[4] = {kAlphabet[(v >> 18) & 63], kAlphabet[(v >> 12) & 63],
                             kAlphabet[(v >> 6) & 63], kAlphabet[v & 63]};
        std::memcpy(dst, out, 4);
    }
    return dst;
}

// Writes the encoding into dst, which holds at least RequiredLength(length, flags)
// characters; returns the count written (no terminator).
unsigned long EncodeInto(char* dst, const unsigned char* src, unsigned long length,
                         unsigned flags) {
    char* const start = dst;
    const unsigned long groups = length / 3;
    auto encodeGroups = [&](unsigned long count) {
        dst = EncodeGroups(dst, src, count);
        src += 3 * count;
    };
    if ((flags & kLBase64NoLineBreaks) != 0) {
        encodeGroups(groups);
    } else {
        const unsigned long fullLines = groups / kGroupsPerLine;
        for (unsigned long line = 0; line < fullLines; ++line) {
            encodeGroups(kGroupsPerLine);
            // Every full line is followed by another, possibly empty, line: it gets its break.
            *dst++ = '\r';
            *dst++ = '\n';
        }
        encodeGroups(groups % kGroupsPerLine);
    }
    const unsigned long rest = length % 3;
    if (rest > 0) {
        const unsigned long v = (static_cast<unsigned long>(src[0]) << 16) |
                                (rest == 2 ? static_cast<unsigned long>(src[1]) << 8 : 0);
        *dst++ = kAlphabet[(v >> 18) & 63];
        *dst++ = kAlphabet[(v >> 12) & 63];
        if (rest == 2) {
            *dst++ = kAlphabet[(v >> 6) & 63];
        }
        if ((flags & kLBase64NoPadding) == 0) {
            *dst++ = '=';
            if (rest == 1) {
                *dst++ = '=';
            }
        }
    }
    return static_cast<unsigned long>(dst - start);
}

}  // namespace

int Base64EncodeGetRequiredLength(int length, unsigned flags) {
    if (length < 0) {
        return 0;
    }
    return static_cast<int>(RequiredLength(static_cast<unsigned long long>(length), flags));
}

int DecodeBase64Char(unsigned c) {
    return c < 256 ? kDecode[c] : -1;
}

void LBase64Encode(const void* data, unsigned long length, LStringLongTemplate<char>& out,
                   unsigned flags) {
    out.Clear();
    if (data == nullptr) {
        return;
    }
    const unsigned long long need = RequiredLength(length, flags);
    if (out.GetCapacity() < need + 1) {
        out.GrowToSize(need + 1);
    }
    const unsigned long n =
        EncodeInto(out.GetBuffer(), static_cast<const unsigned char*>(data), length, flags);
    out.SetLength(n);
}

void LBase64Encode(const void* data, unsigned long length, char* out, unsigned flags) {
    out[0] = 0;
    if (data == nullptr) {
        return;
    }
    constexpr unsigned long kMax = 259;
    const auto* src = static_cast<const unsigned char*>(data);
    // Only what reaches the first 259 characters matters: 200 bytes give at least 264.
    const unsigned long take = length < 200 ? length : 200;
    char scratch[288];
    const unsigned long n = EncodeInto(scratch, src, take, flags);
    const unsigned long keep = n < kMax ? n : kMax;
    std::memcpy(out, scratch, keep);
    out[keep] = 0;
}

void LBase64Decode(const char* text, unsigned long length, LSizedArray<unsigned char>& out) {
    const unsigned long n = text != nullptr ? strnlen(text, length) : 0;
    if (n == 0) {
        out.Free();
        return;
    }
    const auto* p = reinterpret_cast<const unsigned char*>(text);
    unsigned char* dst = out.Allocate((n + 3) / 4 * 3);
    unsigned char* const start = dst;
    unsigned long quad = 0;
    int have = 0;
    for (unsigned long i = 0; i < n; ++i) {
        // Fast path for the common case: four alphabet characters at a group boundary.
        if (have == 0 && n - i >= 4) {
            const int a = kDecode[p[i]];
            const int b = kDecode[p[i + 1]];
            const int c = kDecode[p[i + 2]];
            const int d = kDecode[p[i + 3]];
            if ((a | b | c | d) >= 0) {
                const unsigned long v =
                    (static_cast<unsigned long>(a) << 18) | (static_cast<unsigned long>(b) << 12) |
                    (static_cast<unsigned long>(c) << 6) | static_cast<unsigned long>(d);
                dst[0] = static_cast<unsigned char>(v >> 16);
                dst[1] = static_cast<unsigned char>(v >> 8);
                dst[2] = static_cast<unsigned char>(v);
                dst += 3;
                i += 3;
                continue;
            }
        }
        const int v = kDecode[p[i]];
        if (v < 0) {
            continue;
        }
        quad = (quad << 6) | static_cast<unsigned long>(v);
        if (++have == 4) {
            dst[0] = static_cast<unsigned char>(quad >> 16);
            dst[1] = static_cast<unsigned char>(quad >> 8);
            dst[2] = static_cast<unsigned char>(quad);
            dst += 3;
            quad = 0;
            have = 0;
        }
    }
    // A final 3 characters carry 18 bits (2 whole bytes), 2 carry 12 (1 byte), 1 carries none.
    if (have == 3) {
        dst[0] = static_cast<unsigned char>(quad >> 10);
        dst[1] = static_cast<unsigned char>(quad >> 2);
        dst += 2;
    } else if (have == 2) {
        dst[0] = static_cast<unsigned char>(quad >> 4);
        dst += 1;
    }
    out.SetSize(static_cast<unsigned long>(dst - start));
}
