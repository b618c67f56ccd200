// UTF-8 / UTF-16 / UTF-32 conversion and UTF-8 index helpers.
//
// The decoder applies the Unicode well-formedness table for UTF-8 (continuation bytes 0x80 to
// 0xBF, narrowed second-byte ranges after E0, ED, F0 and F4, no lead bytes C0, C1 or F5 and
// above), so it accepts exactly what a strict system converter accepts. Every loop works on a
// span whose end is the input's terminator: nothing past it is read, and the ASCII fast path
// only reads whole 8-byte blocks that lie inside the text.
#include "text/lunicode.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kMaxLegal = 0x10FFFF;

// Lead-byte marks of the reference converters, indexed by the encoded length.
constexpr std::array<unsigned char, 7> firstByteMark = {0x00, 0x00, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
// Subtracted after accumulating a sequence of n + 1 bytes by shifting 6 bits per byte.
constexpr std::array<char32_t, 6> offsetsFromUTF8 = {0x00000000UL, 0x00003080UL, 0x000E2080UL,
                                                     0x03C82080UL, 0xFA082080UL, 0x82082080UL};

bool IsSurrogate(char32_t c) {
    return c >= 0xD800 && c <= 0xDFFF;
}

inline bool IsContinuation(unsigned char b) {
    return (b & 0xC0) == 0x80;
}

// Decodes one well-formed multi-byte sequence at p (*p >= 0x80). Returns its length, or 0 when
// the bytes at p do not start a well-formed sequence. The text's terminator is the sentinel:
// it fails every continuation test, and the tests run in order, so nothing past it is read.
inline int DecodeMultiByte(const unsigned char* p, char32_t& cp) {
    const unsigned char lead = p[0];
    if (lead < 0xC2)
        return 0;  // a continuation byte, or the overlong leads C0 and C1
    if (lead < 0xE0) {
        if (!IsContinuation(p[1]))
            return 0;
        cp = (static_cast<char32_t>(lead) << 6) + p[1] - offsetsFromUTF8[1];
        return 2;
    }
    if (lead < 0xF0) {
        // E0 must not start an overlong form, ED must not encode a surrogate.
        const unsigned char lo = lead == 0xE0 ? 0xA0 : 0x80;
        const unsigned char hi = lead == 0xED ? 0x9F : 0xBF;
        if (p[1] < lo || p[1] > hi || !IsContinuation(p[2]))
            return 0;
        cp = (((static_cast<char32_t>(lead) << 6) + p[1]) << 6) + p[2] - offsetsFromUTF8[2];
        return 3;
    }
    if (lead <= 0xF4) {
        // F0 must not start an overlong form, F4 must stay at or below U+10FFFF.
        const unsigned char lo = lead == 0xF0 ? 0x90 : 0x80;
        const unsigned char hi = lead == 0xF4 ? 0x8F : 0xBF;
        if (p[1] < lo || p[1] > hi || !IsContinuation(p[2]) || !IsContinuation(p[3]))
            return 0;
        cp = (((((static_cast<char32_t>(lead) << 6) + p[1]) << 6) + p[2]) << 6) + p[3] -
             offsetsFromUTF8[3];
        return 4;
    }
    return 0;  // F5 and above start nothing in UTF-8
}

// Number of ASCII bytes at the start of the 8 bytes at p (8 when all are). The caller only
// asks for blocks before the end, so none of them is the terminator.
inline int AsciiPrefix(const unsigned char* p) {
    std::uint64_t v;
    std::memcpy(&v, p, sizeof v);
    const std::uint64_t high = v & 0x8080808080808080ULL;
    if (high == 0)
        return 8;
    if constexpr (std::endian::native == std::endian::little) {
        return std::countr_zero(high) / 8;
    } else {
        return std::countl_zero(high) / 8;
    }
}

// Decodes from p until the terminator or until `limit` units are stored; returns the units
// stored, leaves p at the first byte not consumed and sets `illegal` when it stopped at an
// ill-formed sequence. Unit keeps the code point (UTF-32) or its low 16 bits (UTF-16).
template <class Unit>
inline unsigned long DecodeRun(Unit* out, const unsigned char*& p, const unsigned char* end,
                               unsigned long limit, int& result, bool& illegal) {
    unsigned long n = 0;
    while (n < limit && p < end) {
        if (*p < 0x80) {
            // ASCII 8 bytes at a time while they fit in the output; a block that holds other
            // bytes gives up its ASCII start in one step.
            while (end - p >= 8 && limit - n >= 8) {
                const int k = AsciiPrefix(p);
                for (int i = 0; i < k; ++i)
                    out[n + i] = static_cast<Unit>(p[i]);
                p += k;
                n += static_cast<unsigned long>(k);
                if (k < 8)
                    break;
            }
            if (n < limit && p < end && *p < 0x80)
                out[n++] = static_cast<Unit>(*p++);
            continue;
        }
        char32_t cp;
        const int len = DecodeMultiByte(p, cp);
        if (len == 0) {
            illegal = true;
            break;
        }
        p += len;
        // Neither case can come out of a well-formed sequence; kept as the reference
        // converters handle them.
        if (cp > kMaxLegal) {
            cp = kReplacement;
            result = kLConversionSourceIllegal;
        } else if (IsSurrogate(cp)) {
            cp = kReplacement;
        }
        out[n++] = static_cast<Unit>(cp);
    }
    return n;
}

// UTF-8 to UTF-32 or UTF-16 (cut to 16 bits). `size` counts output units with the terminator.
template <class Unit>
int DecodeUTF8(Unit* out, const char* in, unsigned long size) {
    if (size == 0)
        return kLConversionTargetExhausted;
    const auto* p = reinterpret_cast<const unsigned char*>(in);
    const unsigned char* end = p + std::strlen(in);
    int result = kLConversionOK;
    bool illegal = false;
    const unsigned long n = DecodeRun(out, p, end, size - 1, result, illegal);
    out[n] = 0;
    if (illegal)
        return kLConversionSourceIllegal;
    if (p < end)
        return kLConversionTargetExhausted;
    return result;
}

// Appends the UTF-8 form of cp if it fits before the terminator slot.
inline bool EncodeUTF8(char32_t cp, char* out, unsigned long& n, unsigned long room) {
    int bytes;
    if (cp < 0x80) {
        bytes = 1;
    } else if (cp < 0x800) {
        bytes = 2;
    } else if (cp < 0x10000) {
        bytes = 3;
    } else {
        bytes = 4;
    }
    if (room - n < static_cast<unsigned long>(bytes))
        return false;
    char* target = out + n + bytes;
    switch (bytes) {
        case 4:
            *--target = static_cast<char>((cp | 0x80) & 0xBF);
            cp >>= 6;
            [[fallthrough]];
        case 3:
            *--target = static_cast<char>((cp | 0x80) & 0xBF);
            cp >>= 6;
            [[fallthrough]];
        case 2:
            *--target = static_cast<char>((cp | 0x80) & 0xBF);
            cp >>= 6;
            [[fallthrough]];
        case 1:
            *--target = static_cast<char>(cp | firstByteMark[bytes]);
    }
    n += bytes;
    return true;
}

template <class Unit>
int EncodeUTF8FromUTF32(char* out, const Unit* in, unsigned long size) {
    if (size == 0)
        return kLConversionTargetExhausted;
    const unsigned long room = size - 1;
    unsigned long n = 0;
    int result = kLConversionOK;
    for (; *in != 0; ++in) {
        auto cp = static_cast<char32_t>(*in);
        int illegal = kLConversionOK;
        // Surrogate values are encoded as they are, like any other value below 0x10000.
        if (cp > kMaxLegal) {
            cp = kReplacement;
            illegal = kLConversionSourceIllegal;
        }
        if (!EncodeUTF8(cp, out, n, room)) {
            out[n] = 0;
            return kLConversionTargetExhausted;
        }
        if (illegal != kLConversionOK)
            result = illegal;
    }
    out[n] = 0;
    return result;
}

// Reads one character from terminated UTF-16: a pair is joined, a lone surrogate becomes
// U+FFFD and marks the input ill-formed.
inline char32_t NextUTF16(const char16_t*& in, int& result) {
    char32_t c = *in++;
    if (c >= 0xD800 && c <= 0xDBFF) {
        const char32_t low = *in;
        if (low >= 0xDC00 && low <= 0xDFFF) {
            ++in;
            return ((c - 0xD800) << 10) + (low - 0xDC00) + 0x10000;
        }
        result = kLConversionSourceIllegal;
        return kReplacement;
    }
    if (c >= 0xDC00 && c <= 0xDFFF) {
        result = kLConversionSourceIllegal;
        return kReplacement;
    }
    return c;
}

template <class Unit>
int UTF32FromUTF16(Unit* out, const char16_t* in, unsigned long size) {
    if (size == 0)
        return kLConversionTargetExhausted;
    unsigned long n = 0;
    int result = kLConversionOK;
    while (*in != 0) {
        if (n == size - 1) {
            out[n] = 0;
            return kLConversionTargetExhausted;
        }
        out[n++] = static_cast<Unit>(NextUTF16(in, result));
    }
    out[n] = 0;
    return result;
}

template <class Unit>
int UTF16FromUTF32(char16_t* out, const Unit* in, unsigned long size) {
    if (size == 0)
        return kLConversionTargetExhausted;
    unsigned long n = 0;
    int result = kLConversionOK;
    for (; *in != 0; ++in) {
        if (n == size - 1) {
            out[n] = 0;
            return kLConversionTargetExhausted;
        }
        auto cp = static_cast<char32_t>(*in);
        if (cp > kMaxLegal) {
            cp = kReplacement;
            result = kLConversionSourceIllegal;
        }
        out[n++] = static_cast<char16_t>(cp);
    }
    out[n] = 0;
    return result;
}

// One right-to-left range, inclusive; single characters are ranges of one.
struct RtlRange {
    char32_t first;
    char32_t last;
};

// Sorted and disjoint, so a binary search finds the only candidate.
constexpr RtlRange kRightToLeft[] = {
    {0x05BE, 0x05BE}, {0x05C0, 0x05C0}, {0x05C3, 0x05C3}, {0x05D0, 0x05EA}, {0x05F0, 0x05F4},
    {0x061B, 0x061B}, {0x061F, 0x061F}, {0x0621, 0x063A}, {0x0640, 0x064A}, {0x066D, 0x066F},
    {0x0671, 0x06D5}, {0x06DD, 0x06DD}, {0x06E5, 0x06E6}, {0x06FA, 0x06FE}, {0x0700, 0x070D},
    {0x0710, 0x0710}, {0x0712, 0x072C}, {0x0780, 0x07A5}, {0x07B1, 0x07B1}, {0x200F, 0x200F},
    {0xFB1D, 0xFB1D}, {0xFB1F, 0xFB28}, {0xFB2A, 0xFB36}, {0xFB38, 0xFB3C}, {0xFB3E, 0xFB3E},
    {0xFB40, 0xFB41}, {0xFB43, 0xFB44}, {0xFB46, 0xFBB1}, {0xFBD3, 0xFD3D}, {0xFD50, 0xFD8F},
    {0xFD92, 0xFDC7}, {0xFDF0, 0xFDFC}, {0xFE70, 0xFE74}, {0xFE76, 0xFEFC},
};

}  // namespace

unsigned long utf8strlcpy(char* out, const char* in, unsigned long size) {
    const unsigned long length = std::strlen(in);
    if (size == 0)
        return 0;
    if (length < size) {
        std::memcpy(out, in, length + 1);
        return length;
    }
    std::memcpy(out, in, size - 1);
    out[size - 1] = 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(out);
    // Step back from the last copied byte over continuation bytes to the byte that starts
    // the character holding the cut (or an ASCII byte).
    long pos = static_cast<long>(size) - 2;
    while (pos >= 0 && bytes[pos] >= 0x80 && bytes[pos] <= 0xBF)
        --pos;
    if (pos < 0) {
        out[0] = 0;
        return 0;
    }
    const unsigned char b = bytes[pos];
    if (b >= 0xC0 && pos + LGetUTF8CharacterByteCount(b) - 1 == static_cast<long>(size) - 2) {
        return size;  // the last character ends exactly at the limit: all size - 1 bytes stay
    }
    out[pos] = 0;
    return static_cast<unsigned long>(pos) + 1;
}

int LGetUTF8CharacterByteCount(unsigned char lead) {
    if (lead < 0xC0)
        return 1;
    if (lead < 0xE0)
        return 2;
    if (lead < 0xF0)
        return 3;
    if (lead < 0xF8)
        return 4;
    if (lead < 0xFC)
        return 5;
    return 6;
}

namespace {

// Length of the character at p as announced by its lead byte, cut short at the terminator so
// that a truncated last character never carries a walk past the end.
inline unsigned long StepLength(const unsigned char* p) {
    const int announced = LGetUTF8CharacterByteCount(*p);
    int i = 1;
    while (i < announced && p[i] != 0)
        ++i;
    return static_cast<unsigned long>(i);
}

}  // namespace

unsigned long utf8strlen(const char* text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text);
    unsigned long count = 0;
    while (*p != 0) {
        p += StepLength(p);
        ++count;
    }
    return count;
}

unsigned long LCharsetsUTF8CharIndexToByteIndex(const char* text, unsigned long charIndex) {
    const auto* p = reinterpret_cast<const unsigned char*>(text);
    unsigned long byte = 0;
    for (unsigned long i = 0; i < charIndex && p[byte] != 0; ++i)
        byte += StepLength(p + byte);
    return byte;
}

unsigned long LCharsetsUTF8ByteIndexToCharIndex(const char* text, unsigned long byteIndex) {
    const auto* p = reinterpret_cast<const unsigned char*>(text);
    unsigned long byte = 0;
    unsigned long chars = 0;
    while (p[byte] != 0) {
        const unsigned long step = StepLength(p + byte);
        if (byte + step > byteIndex)
            break;
        byte += step;
        ++chars;
    }
    return chars;
}

unsigned long LGetUTF8CharacterByteIndex(const char* text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text);
    unsigned long byte = 0;
    unsigned long last = 0;
    while (p[byte] != 0) {
        last = byte;
        byte += StepLength(p + byte);
    }
    return last;
}

int LCopyUTF8FromUTF32Native(char* out, const char32_t* in, unsigned long size) {
    return EncodeUTF8FromUTF32(out, in, size);
}

int LCopyUTF32FromUTF8Native(char32_t* out, const char* in, unsigned long size) {
    return DecodeUTF8(out, in, size);
}

int LCopyUTF8FromUTF32(char* out, const wchar_t* in, unsigned long size) {
    return EncodeUTF8FromUTF32(out, in, size);
}

int LCopyUTF32FromUTF8(wchar_t* out, const char* in, unsigned long size) {
    return DecodeUTF8(out, in, size);
}

int LCopyUnicodeFromUTF8(char16_t* out, const char* in, unsigned long size) {
    return DecodeUTF8(out, in, size);
}

int LCopyUTF8FromUnicode(char* out, const char16_t* in, unsigned long size) {
    if (size == 0)
        return kLConversionTargetExhausted;
    const unsigned long room = size - 1;
    unsigned long n = 0;
    int result = kLConversionOK;
    while (*in != 0) {
        int charResult = kLConversionOK;
        const char32_t cp = NextUTF16(in, charResult);
        if (!EncodeUTF8(cp, out, n, room)) {
            out[n] = 0;
            return kLConversionTargetExhausted;
        }
        if (charResult != kLConversionOK)
            result = charResult;
    }
    out[n] = 0;
    return result;
}

int LCopyUnicodeFromUTF32(char16_t* out, const wchar_t* in, unsigned long size) {
    return UTF16FromUTF32(out, in, size);
}

int LCopyUTF32FromUnicode(wchar_t* out, const char16_t* in, unsigned long size) {
    return UTF32FromUTF16(out, in, size);
}

int LCopyUnicodeFromUTF32(char16_t* out, const char32_t* in, unsigned long size) {
    return UTF16FromUTF32(out, in, size);
}

int LCopyUTF32FromUnicode(char32_t* out, const char16_t* in, unsigned long size) {
    return UTF32FromUTF16(out, in, size);
}

int LCopyToUnicode(char16_t* out, const char* in, unsigned long size) {
    return LCopyUnicodeFromUTF8(out, in, size);
}

int LCopyFromUnicode(char* out, const char16_t* in, unsigned long size) {
    return LCopyUTF8FromUnicode(out, in, size);
}

namespace {

// Staging for the UTF-16 step of the Latin-1 conversions: on the stack up to 4096 units,
// on the heap above.
class Utf16Staging {
public:
    explicit Utf16Staging(unsigned long size) {
        if (size > kStackUnits) {
            heap_ = std::make_unique<char16_t[]>(size);
            data_ = heap_.get();
        }
    }
    char16_t* data() { return data_; }

private:
    static constexpr unsigned long kStackUnits = 4096;
    char16_t stack_[kStackUnits];
    std::unique_ptr<char16_t[]> heap_;
    char16_t* data_ = stack_;
};

}  // namespace

bool LCopyAnsiFromUTF8(char* out, const char* in, unsigned long size) {
    if (size == 0)
        return false;
    Utf16Staging staging(size);
    LCopyUnicodeFromUTF8(staging.data(), in, size);
    return LCopyAnsiFromUnicode(out, staging.data(), size);
}

bool LCopyUTF8FromAnsi(char* out, const char* in, unsigned long size) {
    if (size == 0)
        return false;
    Utf16Staging staging(size);
    LCopyUnicodeFromAnsi(staging.data(), in, size);
    LCopyUTF8FromUnicode(out, staging.data(), size);
    return true;
}

bool LCopyAnsiFromUnicode(char* out, const char16_t* in, unsigned long size) {
    if (size == 0)
        return false;
    unsigned long n = 0;
    for (; in[n] != 0 && n < size - 1; ++n) {
        if (in[n] > 0xFF) {
            out[0] = 0;
            return false;
        }
        out[n] = static_cast<char>(in[n]);
    }
    out[n] = 0;
    return true;
}

bool LCopyUnicodeFromAnsi(char16_t* out, const char* in, unsigned long size) {
    if (size == 0)
        return false;
    unsigned long n = 0;
    for (; in[n] != 0 && n < size - 1; ++n)
        out[n] = static_cast<unsigned char>(in[n]);
    out[n] = 0;
    return true;
}

unsigned long LCopyToBigEndianUnicode(char16_t* out, const char16_t* in, unsigned long count,
                                      bool terminate) {
    unsigned long n = 0;
    for (; n < count && in[n] != 0; ++n) {
        out[n] = static_cast<char16_t>((in[n] >> 8) | (in[n] << 8));
    }
    if (terminate) {
        out[n] = 0;
        return n;
    }
    // A blank (U+0020) in big-endian order is the bytes 00 20.
    constexpr char16_t kBigEndianBlank = 0x2000;
    for (; n < count; ++n)
        out[n] = kBigEndianBlank;
    return n;
}

bool LCharsetsIsLeftToRight(wchar_t c) {
    const auto cp = static_cast<char32_t>(c);
    const auto* it = std::upper_bound(std::begin(kRightToLeft), std::end(kRightToLeft), cp,
                                      [](char32_t v, const RtlRange& r) { return v < r.first; });
    if (it == std::begin(kRightToLeft))
        return true;
    --it;
    return !(cp >= it->first && cp <= it->last);
}

bool LCharsetsIsValidASCII(const char* text) {
    for (const auto* p = reinterpret_cast<const unsigned char*>(text); *p != 0; ++p) {
        if (*p & 0x80)
            return false;
    }
    return true;
}

void LRemoveVarSelectorFromUnicode(LStringLongTemplate<char16_t>& text) {
    if (text.IsNull())
        return;
    char16_t* data = text.GetBuffer();
    const unsigned long length = text.GetLength();
    unsigned long kept = 0;
    for (unsigned long i = 0; i < length; ++i) {
        if (data[i] < 0xFE00 || data[i] > 0xFE0F)
            data[kept++] = data[i];
    }
    text.SetLength(kept);
}

namespace {

// Sizes `out` for `units` units plus the terminator, converts into it and takes the length
// from the terminated result.
template <class Unit, class Convert>
int ToString(LStringLongTemplate<Unit>& out, unsigned long units, Convert convert) {
    out.GrowToSize(units + 1);
    const int result = convert(out.GetBuffer(), units + 1);
    out.UpdateLength();
    return result;
}

template <class Unit>
unsigned long UnitCount(const Unit* in) {
    return tstrlen(in);
}

}  // namespace

int LCopyUnicodeFromUTF8(LStringLongTemplate<char16_t>& out, const char* in) {
    return ToString(out, UnitCount(in), [in](char16_t* buf, unsigned long size) {
        return LCopyUnicodeFromUTF8(buf, in, size);
    });
}

int LCopyUTF8FromUnicode(LStringLongTemplate<char>& out, const char16_t* in) {
    return ToString(out, 3 * UnitCount(in), [in](char* buf, unsigned long size) {
        return LCopyUTF8FromUnicode(buf, in, size);
    });
}

int LCopyUnicodeFromUTF32(LStringLongTemplate<char16_t>& out, const wchar_t* in) {
    return ToString(out, UnitCount(in), [in](char16_t* buf, unsigned long size) {
        return LCopyUnicodeFromUTF32(buf, in, size);
    });
}

int LCopyUTF32FromUnicode(LStringLongTemplate<wchar_t>& out, const char16_t* in) {
    return ToString(out, UnitCount(in), [in](wchar_t* buf, unsigned long size) {
        return LCopyUTF32FromUnicode(buf, in, size);
    });
}

int LCopyUTF8FromUTF32(LStringLongTemplate<char>& out, const wchar_t* in) {
    return ToString(out, 4 * UnitCount(in), [in](char* buf, unsigned long size) {
        return LCopyUTF8FromUTF32(buf, in, size);
    });
}

int LCopyUTF32FromUTF8(LStringLongTemplate<wchar_t>& out, const char* in) {
    return ToString(out, UnitCount(in), [in](wchar_t* buf, unsigned long size) {
        return LCopyUTF32FromUTF8(buf, in, size);
    });
}

int LCopyToUnicode(LStringLongTemplate<char16_t>& out, const char* in) {
    return LCopyUnicodeFromUTF8(out, in);
}

int LCopyToUnicode(LStringLongTemplate<char16_t>& out, const LStringLongTemplate<char>& in) {
    return LCopyUnicodeFromUTF8(out, in.GetText());
}
