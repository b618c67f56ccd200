// Fuzzes the UTF-8 readers: the UTF-32 and UTF-16 converters, the Latin-1 conversion, the
// cut-safe copy, the index helpers and a few iconv-family members. The first input byte picks
// the output size; outputs are heap arrays of exactly that size so any overrun is caught.
// With ample room the decoder must agree with iconv on what is well-formed, and a well-formed
// text must survive the round trip through UTF-32 unchanged.
#include <iconv.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "text/lencoding.h"
#include "text/lunicode.h"

namespace {

bool IconvAccepts(const std::string& text) {
    static iconv_t cd = iconv_open("UTF-32LE", "UTF-8");
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    std::vector<char> out(4 * text.size() + 8);
    char* in = const_cast<char*>(text.data());
    size_t inLeft = text.size();
    char* outPos = out.data();
    size_t outLeft = out.size();
    return iconv(cd, &in, &inLeft, &outPos, &outLeft) != static_cast<size_t>(-1) && inLeft == 0;
}

void Check(bool ok) {
    if (!ok)
        std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    const unsigned long outSize = data[0];
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    const char* t = text.c_str();
    const unsigned long length = std::strlen(t);
    const std::string whole(t, length);

    // Sized outputs: terminated inside the size, never longer.
    std::vector<char32_t> out32(outSize > 0 ? outSize : 1);
    const int r32 = LCopyUTF32FromUTF8Native(out32.data(), t, outSize);
    Check(r32 >= 0 && r32 <= 2);
    std::vector<char16_t> out16(outSize > 0 ? outSize : 1);
    Check(LCopyUnicodeFromUTF8(out16.data(), t, outSize) == r32);
    std::vector<char> out8(outSize > 0 ? outSize : 1);
    const unsigned long kept = utf8strlcpy(out8.data(), t, outSize);
    if (outSize > 0) {
        Check(std::strlen(out8.data()) < outSize);
        // Whole text, bytes kept + 1, or 0 when no character start was found before the cut.
        const unsigned long outLength = std::strlen(out8.data());
        Check(kept == length || kept == outLength + 1 || (kept == 0 && outLength == 0));
    }
    LCopyAnsiFromUTF8(out8.data(), t, outSize);
    if (outSize > 0)
        Check(std::strlen(out8.data()) < outSize);
    LCopyToWIN1252(out8.data(), t, outSize);
    LCopyToSHIFTJIS932(out8.data(), t, outSize);
    LCopyToISO2022JP(out8.data(), t, outSize);

    // Ample room: agreement with iconv and the round trip.
    std::vector<char32_t> all(length + 1);
    const int full = LCopyUTF32FromUTF8Native(all.data(), t, all.size());
    Check(full == (IconvAccepts(whole) ? 0 : 2));
    if (full == 0) {
        std::vector<char> back(4 * length + 1);
        Check(LCopyUTF8FromUTF32Native(back.data(), all.data(), back.size()) == 0);
        Check(whole == back.data());
        const unsigned long chars = utf8strlen(t);
        Check(std::char_traits<char32_t>::length(all.data()) == chars);
        for (unsigned long i = 0; i <= chars; ++i) {
            Check(LCharsetsUTF8ByteIndexToCharIndex(t, LCharsetsUTF8CharIndexToByteIndex(t, i)) ==
                  i);
        }
        LStringLongTemplate<char16_t> s16;
        Check(LCopyToUnicode(s16, t) == 0);
        LStringLongTemplate<char> s8;
        LCopyUTF8FromUnicode(s8, s16.GetText());
    }
    Check(LGetUTF8CharacterByteIndex(t) <= length);
    Check(LCharsetsUTF8CharIndexToByteIndex(t, length + 1) == length);
    return 0;
}
