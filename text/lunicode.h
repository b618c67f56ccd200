// Unicode helpers of the L library: conversion between UTF-8, UTF-16 ("Unicode") and UTF-32,
// byte and character indexes into UTF-8 text, ISO Latin-1 ("Ansi") conversion, byte-swapped
// UTF-16, and the character tests (left-to-right, plain ASCII).
//
// Invariants kept by every buffer form:
// - the input is a terminated text and nothing past its terminator is read;
// - the output size counts units including the terminator; nothing is written at or past
//   out[size], and the output is terminated whenever size is at least 1;
// - results are the reference converters' codes: 0 done, 1 output full, 2 ill-formed input.
// UTF-8 input is checked by the Unicode well-formedness rules (no overlong forms, no encoded
// surrogates, nothing above U+10FFFF). UTF-16 output never holds surrogate pairs: a character
// above U+FFFF is cut to its low 16 bits on purpose, which is what existing callers expect.
#pragma once

#include <cstddef>

#include "text/lstring.h"

enum LUnicodeConversionResult : int {
    kLConversionOK = 0,
    kLConversionTargetExhausted = 1,
    kLConversionSourceIllegal = 2,
};

// Bounded copy that never leaves half a UTF-8 character at the end. When the text is cut it
// also drops a plain ASCII byte at the cut (one byte more than strlcpy would): kept as it is.
// Returns the source length when the text fitted, else the number of bytes kept plus one.
unsigned long utf8strlcpy(char* out, const char* in, unsigned long size);

// Byte length announced by a lead byte (continuation bytes count 1).
int LGetUTF8CharacterByteCount(unsigned char lead);
// Number of characters, stepping by lead-byte lengths (continuation bytes are not checked).
unsigned long utf8strlen(const char* text);
// Byte offset of character number `charIndex`, clamped to the end of the text.
unsigned long LCharsetsUTF8CharIndexToByteIndex(const char* text, unsigned long charIndex);
// Index of the character holding byte `byteIndex` (the character count for offsets at or past
// the end).
unsigned long LCharsetsUTF8ByteIndexToCharIndex(const char* text, unsigned long byteIndex);
// Byte offset at which the last character of the text begins (0 for an empty text).
unsigned long LGetUTF8CharacterByteIndex(const char* text);

// UTF-32 <-> UTF-8. `size` is in output units (bytes for UTF-8, code points for UTF-32).
int LCopyUTF8FromUTF32Native(char* out, const char32_t* in, unsigned long size);
int LCopyUTF32FromUTF8Native(char32_t* out, const char* in, unsigned long size);
int LCopyUTF8FromUTF32(char* out, const wchar_t* in, unsigned long size);
int LCopyUTF32FromUTF8(wchar_t* out, const char* in, unsigned long size);

// UTF-16 conversions. UTF-8 or UTF-32 to UTF-16 cuts characters above U+FFFF to 16 bits;
// UTF-16 to UTF-8 or UTF-32 joins surrogate pairs and writes a lone surrogate as U+FFFD
// (result 2, conversion goes on).
int LCopyUnicodeFromUTF8(char16_t* out, const char* in, unsigned long size);
int LCopyUTF8FromUnicode(char* out, const char16_t* in, unsigned long size);
int LCopyUnicodeFromUTF32(char16_t* out, const wchar_t* in, unsigned long size);
int LCopyUTF32FromUnicode(wchar_t* out, const char16_t* in, unsigned long size);
int LCopyUnicodeFromUTF32(char16_t* out, const char32_t* in, unsigned long size);
int LCopyUTF32FromUnicode(char32_t* out, const char16_t* in, unsigned long size);
// The same two directions under the names used by the file layer.
int LCopyToUnicode(char16_t* out, const char* in, unsigned long size);
int LCopyFromUnicode(char* out, const char16_t* in, unsigned long size);

// "Ansi" is ISO Latin-1. From UTF-8 or UTF-16: a character outside Latin-1 fails the whole
// conversion and leaves `out` empty (false). To UTF-8 or UTF-16 always succeeds; the text is
// cut at whole characters to fit.
bool LCopyAnsiFromUTF8(char* out, const char* in, unsigned long size);
bool LCopyUTF8FromAnsi(char* out, const char* in, unsigned long size);
bool LCopyAnsiFromUnicode(char* out, const char16_t* in, unsigned long size);
bool LCopyUnicodeFromAnsi(char16_t* out, const char* in, unsigned long size);

// Byte-swapped UTF-16: swaps units until the terminator or `count` units, then writes a 0
// unit (terminate; `out` then needs count + 1 units) or pads with big-endian blanks up to
// `count` units. Returns the units written before any terminator (count when padded).
unsigned long LCopyToBigEndianUnicode(char16_t* out, const char16_t* in, unsigned long count,
                                      bool terminate);

// False exactly for the right-to-left letters and marks of Hebrew, Arabic, Syriac and Thaana.
bool LCharsetsIsLeftToRight(wchar_t c);
// True when no byte has its high bit set.
bool LCharsetsIsValidASCII(const char* text);

// Rebuilds the UTF-16 text without the variation selectors U+FE00 to U+FE0F.
void LRemoveVarSelectorFromUnicode(LStringLongTemplate<char16_t>& text);

// String forms: the output is sized for the whole input (UTF-8 from UTF-16 needs at most 3
// bytes per unit, every other direction at most one unit per input unit), so the result is
// never 1. The result code is that of the buffer form.
int LCopyUnicodeFromUTF8(LStringLongTemplate<char16_t>& out, const char* in);
int LCopyUTF8FromUnicode(LStringLongTemplate<char>& out, const char16_t* in);
int LCopyUnicodeFromUTF32(LStringLongTemplate<char16_t>& out, const wchar_t* in);
int LCopyUTF32FromUnicode(LStringLongTemplate<wchar_t>& out, const char16_t* in);
int LCopyUTF8FromUTF32(LStringLongTemplate<char>& out, const wchar_t* in);
int LCopyUTF32FromUTF8(LStringLongTemplate<wchar_t>& out, const char* in);
int LCopyToUnicode(LStringLongTemplate<char16_t>& out, const char* in);
int LCopyToUnicode(LStringLongTemplate<char16_t>& out, const LStringLongTemplate<char>& in);

// A view of a long string's text as UTF-8, for code that counts or indexes characters rather
// than bytes. It refers to the string (which must outlive it) and never copies.
class LUTF8StringLongRef {
public:
    explicit LUTF8StringLongRef(const LStringLongTemplate<char>& string) : m_rString(string) {}

    const char* GetText() const { return m_rString.GetText(); }
    operator const char*() const { return m_rString.GetText(); }  // NOLINT: a text by design
    unsigned long GetByteLength() const { return m_rString.GetLength(); }
    unsigned long GetCharacterCount() const { return utf8strlen(m_rString.GetText()); }
    unsigned long CharIndexToByteIndex(unsigned long charIndex) const {
        return LCharsetsUTF8CharIndexToByteIndex(m_rString.GetText(), charIndex);
    }
    unsigned long ByteIndexToCharIndex(unsigned long byteIndex) const {
        return LCharsetsUTF8ByteIndexToCharIndex(m_rString.GetText(), byteIndex);
    }
    bool IsValidASCII() const { return LCharsetsIsValidASCII(m_rString.GetText()); }

private:
    const LStringLongTemplate<char>& m_rString;
};
