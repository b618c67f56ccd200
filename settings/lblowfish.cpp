// Blowfish over little-endian blocks, and the enciphered-string forms built on it and on
// Base64 (see lblowfish.h for the layout that stored settings rely on).
#include "settings/lblowfish.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>

#include "settings/lbase64.h"

namespace {

static_assert(sizeof(unsigned) == sizeof(uint32_t), "a block half is an unsigned");

uint32_t LoadLE(const unsigned char* p) {
    if constexpr (std::endian::native == std::endian::little) {
        uint32_t v;
        std::memcpy(&v, p, 4);
        return v;
    } else {
        return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
               (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
    }
}

void StoreLE(unsigned char* p, uint32_t v) {
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(p, &v, 4);
    } else {
        p[0] = static_cast<unsigned char>(v);
        p[1] = static_cast<unsigned char>(v >> 8);
        p[2] = static_cast<unsigned char>(v >> 16);
        p[3] = static_cast<unsigned char>(v >> 24);
    }
}

// Runs `cipher` over each 8-byte block in place, halves read and written little-endian. A
// length that is not a whole number of blocks still takes its last block whole, as callers
// have always sized their buffers for.
template <typename Cipher>
void CipherBlocks(void* data, unsigned long length, Cipher cipher) {
    auto* p = static_cast<unsigned char*>(data);
    for (unsigned long offset = 0; offset < length; offset += 8) {
        uint32_t l = LoadLE(p + offset);
        uint32_t r = LoadLE(p + offset + 4);
        cipher(l, r);
        StoreLE(p + offset, l);
        StoreLE(p + offset + 4, r);
    }
}

unsigned long RoundUpToBlock(unsigned long n) {
    return (n + 7) & ~7UL;
}

// Text, NUL and zero padding to the next block: the plain form of an enciphered string.
std::unique_ptr<unsigned char[]> PlainBlocks(const char* text, unsigned long length,
                                             unsigned long& size) {
    // No text in memory is this long; the bound keeps the size arithmetic from wrapping.
    length = std::min<unsigned long>(length, PTRDIFF_MAX - 16);
    size = RoundUpToBlock(length + 1);
    auto buffer = std::make_unique<unsigned char[]>(size);  // zeroed: NUL and padding
    if (length > 0) {
        std::memcpy(buffer.get(), text, length);
    }
    return buffer;
}

}  // namespace

LBlowFish::LBlowFish() {
    std::memcpy(m_arP, bf_P, sizeof(m_arP));
    std::memcpy(m_arS, bf_S, sizeof(m_arS));
}

void LBlowFish::SetKey(const char* key) {
    const unsigned long length = tstrlen(key);
    if (length == 0) {
        return;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(key);
    std::memcpy(m_arP, bf_P, sizeof(m_arP));
    std::memcpy(m_arS, bf_S, sizeof(m_arS));
    unsigned long j = 0;
    for (uint32_t& p : m_arP) {
        uint32_t word = 0;
        for (int k = 0; k < 4; ++k) {
            word = (word << 8) | bytes[j];
            j = j + 1 == length ? 0 : j + 1;
        }
        p ^= word;
    }
    uint32_t left = 0;
    uint32_t right = 0;
    for (int i = 0; i < 18; i += 2) {
        EncipherWords(left, right);
        m_arP[i] = left;
        m_arP[i + 1] = right;
    }
    for (auto& box : m_arS) {
        for (int i = 0; i < 256; i += 2) {
            EncipherWords(left, right);
            box[i] = left;
            box[i + 1] = right;
        }
    }
}

void LBlowFish::EncipherWords(uint32_t& left, uint32_t& right) const {
    uint32_t l = left;
    uint32_t r = right;
    // Two rounds per step, so the halves never need swapping.
    for (int i = 0; i < 16; i += 2) {
        l ^= m_arP[i];
        r ^= F(l);
        r ^= m_arP[i + 1];
        l ^= F(r);
    }
    l ^= m_arP[16];
    r ^= m_arP[17];
    left = r;
    right = l;
}

void LBlowFish::DecipherWords(uint32_t& left, uint32_t& right) const {
    uint32_t l = left;
    uint32_t r = right;
    for (int i = 17; i > 1; i -= 2) {
        l ^= m_arP[i];
        r ^= F(l);
        r ^= m_arP[i - 1];
        l ^= F(r);
    }
    l ^= m_arP[1];
    r ^= m_arP[0];
    left = r;
    right = l;
}

void LBlowFish::Blowfish_encipher(unsigned& left, unsigned& right) {
    uint32_t l = left;
    uint32_t r = right;
    EncipherWords(l, r);
    left = l;
    right = r;
}

void LBlowFish::Blowfish_decipher(unsigned& left, unsigned& right) const {
    uint32_t l = left;
    uint32_t r = right;
    DecipherWords(l, r);
    left = l;
    right = r;
}

void LBlowFish::Encode(void* data, unsigned long length) {
    CipherBlocks(data, length, [this](uint32_t& l, uint32_t& r) { EncipherWords(l, r); });
}

void LBlowFish::Decode(void* data, unsigned long length) const {
    CipherBlocks(data, length, [this](uint32_t& l, uint32_t& r) { DecipherWords(l, r); });
}

void LBlowFish::StringEncodeBase64(LStringLongTemplate<char>& out, const char* text) {
    unsigned long size = 0;
    auto buffer = PlainBlocks(text, tstrlen(text), size);
    Encode(buffer.get(), size);
    LBase64Encode(buffer.get(), size, out, kLBase64NoLineBreaks);
}

void LBlowFish::StringEncodeBase64(char* out, const char* text) {
    unsigned long length = tstrlen(text);
    if (length > 263) {
        length = 263;
    }
    unsigned long size = 0;
    auto buffer = PlainBlocks(text, length, size);
    Encode(buffer.get(), size);
    LBase64Encode(buffer.get(), size, out, kLBase64NoLineBreaks);
}

void LBlowFish::DecodeText(LStringLongTemplate<char>& out, const char* text) const {
    LSizedArray<unsigned char> decoded;
    LBase64Decode(text, tstrlen(text), decoded);
    const unsigned long n = decoded.GetSize();
    const unsigned long rounded = RoundUpToBlock(n);
    // Zeroed, so a NUL follows the decoded bytes and one more sits after the rounded length.
    auto buffer = std::make_unique<unsigned char[]>(rounded + 1);
    if (n > 0) {
        std::memcpy(buffer.get(), decoded.GetData(), n);
    }
    Decode(buffer.get(), rounded);
    const char* plain = reinterpret_cast<const char*>(buffer.get());
    out.Assign(plain, std::strlen(plain));
}

namespace {

// Every deciphering runs under the setting key, whichever key the object was given: a
// schedule made once and only read afterwards, so any thread may share it.
const LBlowFish& SettingCipher() {
    static const LBlowFish cipher = [] {
        LBlowFish keyed;
        keyed.SetKey(kLSettingKey);
        return keyed;
    }();
    return cipher;
}

}  // namespace

void LBlowFish::StringDecodeBase64(LStringLongTemplate<char>& out, const char* text) const {
    SettingCipher().DecodeText(out, text);
}

void LBlowFish::StringDecodeBase64(char* out, const char* text) const {
    LStringLongTemplate<char> plain;
    SettingCipher().DecodeText(plain, text);
    const unsigned long n = plain.GetLength() < 259 ? plain.GetLength() : 259;
    std::memcpy(out, plain.GetText(), n);
    out[n] = 0;
}

void LSettingEncrypt(LStringLongTemplate<char>& out, const char* text) {
    out.Clear();
    if (text == nullptr || text[0] == 0) {
        return;
    }
    LBlowFish cipher = SettingCipher();
    unsigned long size = 0;
    auto buffer = PlainBlocks(text, std::strlen(text), size);
    cipher.Encode(buffer.get(), size);
    LBase64Encode(buffer.get(), size, out, 0);
}

void LSettingDecrypt(char* text) {
    if (text == nullptr || text[0] == 0) {
        return;
    }
    LStringLongTemplate<char> plain;
    SettingCipher().StringDecodeBase64(plain, text);
    // Base64 carries 3 bytes in 4 characters, so the text of a real enciphered value fits
    // over its source. Garbage can decipher to more (a short tail still yields a whole block),
    // so the copy is cut to the source's length rather than written past it.
    const unsigned long room = std::strlen(text);
    const unsigned long n = plain.GetLength() < room ? plain.GetLength() : room;
    std::memcpy(text, plain.GetText(), n);
    text[n] = 0;
}

void LSettingDecrypt(LStringLongTemplate<char>& text) {
    if (text.IsEmpty()) {
        return;
    }
    LStringLongTemplate<char> plain;
    SettingCipher().StringDecodeBase64(plain, text.GetText());
    text = std::move(plain);
}
