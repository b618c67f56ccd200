// The Blowfish cipher used to keep password settings out of plain sight, and the two calls the
// settings stores make for their password variants.
//
// Layout that stored settings depend on (keep it exact):
//   - an 8-byte block is two 32-bit words in little-endian order: the left half is bytes 0..3,
//     the right half bytes 4..7. This is not the big-endian layout of the published test
//     vectors; the rounds themselves are the standard 16;
//   - Encode/Decode work in electronic-codebook mode from offset 0, and a tail shorter than 8
//     bytes is processed as a whole block, so buffers hold their length rounded up to 8;
//   - an enciphered string is its text, its NUL and zero padding up to the next multiple of 8,
//     enciphered and Base64-encoded. Nothing marks a value as enciphered and nothing verifies a
//     deciphered one: a wrong key or plain text yields whatever bytes come out, up to a NUL.
#pragma once

#include <cstdint>

#include "text/lstring.h"

// The published initial tables: the hexadecimal digits of pi (lblowfish_tables.cpp).
extern const uint32_t bf_P[18];
extern const uint32_t bf_S[4][256];

class LBlowFish {
public:
    // Starts from the initial tables, as if keyed with nothing.
    LBlowFish();

    // Standard key schedule over strlen(key) bytes, cycled; starts again from the initial
    // tables. A null or empty key leaves the current schedule in force.
    void SetKey(const char* key);

    void Blowfish_encipher(unsigned& left, unsigned& right);
    void Blowfish_decipher(unsigned& left, unsigned& right) const;

    // In place, block by block; the buffer must hold `length` rounded up to a multiple of 8.
    void Encode(void* data, unsigned long length);
    void Decode(void* data, unsigned long length) const;

    // Enciphers text (with its NUL, zero-padded to a block) under this object's key and writes
    // the Base64 text without line breaks. The char* form takes at most 263 characters of
    // text and writes at most 259 characters and the terminator.
    void StringEncodeBase64(LStringLongTemplate<char>& out, const char* text);
    void StringEncodeBase64(char* out, const char* text);
    // Decodes the Base64 text, deciphers it under the setting key (whatever key this object
    // holds) and gives the text up to the first NUL; the char* form copies at most 259
    // characters and the terminator.
    void StringDecodeBase64(LStringLongTemplate<char>& out, const char* text) const;
    void StringDecodeBase64(char* out, const char* text) const;

    // The key schedule, exposed for inspection: 18 P words, then the four S-boxes.
    const uint32_t* GetP() const { return m_arP; }
    const uint32_t* GetS(int box) const { return m_arS[box]; }

private:
    uint32_t F(uint32_t x) const {
        return ((m_arS[0][x >> 24] + m_arS[1][(x >> 16) & 0xFF]) ^ m_arS[2][(x >> 8) & 0xFF]) +
               m_arS[3][x & 0xFF];
    }
    void EncipherWords(uint32_t& left, uint32_t& right) const;
    void DecipherWords(uint32_t& left, uint32_t& right) const;
    // Deciphers Base64 text into the plain bytes up to the first NUL.
    void DecodeText(LStringLongTemplate<char>& out, const char* text) const;

    uint32_t m_arP[18];
    uint32_t m_arS[4][256];
};

// The key built into the program for password settings.
inline constexpr char kLSettingKey[] = "settingsphrase987";

// Empties out; for a non-empty text, the text enciphered under the setting key as Base64 with
// padding and CR LF line breaks.
void LSettingEncrypt(LStringLongTemplate<char>& out, const char* text);
// Deciphers LSettingEncrypt's text in place (the result is never longer than the Base64 text);
// null or empty text is left alone.
void LSettingDecrypt(char* text);
void LSettingDecrypt(LStringLongTemplate<char>& text);
