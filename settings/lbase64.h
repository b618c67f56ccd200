// Base64 text for binary setting values (the alphabet "A-Z a-z 0-9 + /").
//
// Encoding writes full 3-byte groups in lines of 19 groups (76 characters). Unless
// kLBase64NoLineBreaks is given, CR LF follows every line that has another line after it; the
// line after the last full one may be empty, so an input that is a non-zero multiple of 57
// bytes ends in CR LF. A remaining 1 or 2 bytes give 2 or 3 characters and, unless
// kLBase64NoPadding is given, "=" up to 4. Stored values depend on this exact layout.
//
// Decoding skips every character outside the alphabet (line breaks, blanks and "=" included)
// and so never fails: it yields whatever whole bytes the alphabet characters carry.
#pragma once

#include "settings/lsizedarray.h"
#include "text/lstring.h"

inline constexpr unsigned kLBase64NoPadding = 1;
inline constexpr unsigned kLBase64NoLineBreaks = 2;

// Output size for `length` input bytes: room for the characters, the padding unless flag 1,
// and the line breaks unless flag 2. Never less than what LBase64Encode writes; 0 means
// nothing is written.
int Base64EncodeGetRequiredLength(int length, unsigned flags);

// Value 0..63 of an alphabet character, -1 for any other value.
int DecodeBase64Char(unsigned c);

// Empties `out`, then writes the encoding of `length` bytes; null data writes nothing.
void LBase64Encode(const void* data, unsigned long length, LStringLongTemplate<char>& out,
                   unsigned flags);
// The same into a 260-character buffer: at most 259 characters and the terminator.
void LBase64Encode(const void* data, unsigned long length, char* out, unsigned flags);

// Decodes at most `length` characters of text, stopping early at a NUL. `out` receives the
// bytes and their count (an empty array when there are none).
void LBase64Decode(const char* text, unsigned long length, LSizedArray<unsigned char>& out);
