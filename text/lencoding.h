// Code-page conversion of the L library: legacy 8-bit and East-Asian encodings through iconv,
// and Windows code pages by number.
//
// The library keeps text as UTF-8. "From" members turn text in the named encoding into UTF-8,
// "To" members turn UTF-8 into it. Each member uses one fixed iconv name; a few members name
// a different encoding than their own name says (the string forms of LCopyFromGB18030,
// LCopyFromKOI8R and LCopyToKOI8R, the IBM437 pair) or a name iconv does not know (the buffer
// form of LCopyToKOI8R, which therefore always yields an empty text). Stored texts depend on
// these exact conversions, so they are kept as they are.
//
// No conversion reports an error: an unknown encoding gives an empty text, an invalid or
// unconvertible sequence ends the text at the point reached, and a full output ends it there.
#pragma once

#include <string>

#include "text/lstring.h"
#include "text/lunicode.h"

// One iconv conversion of a terminated text, terminator included. The output starts empty;
// with a size, a terminator (one unit of unitBytes) is written at the point reached whenever
// room is left. Without a size the room is the input length + 1 units and no terminator is
// added (a conversion cut short then leaves the output unterminated: callers of that form
// pass ample, zeroed buffers). Nothing is written when the room is 0. True when the
// conversion stopped because the room was full, so a caller able to grow may try again.
bool _LIconvConvert(void* out, unsigned long outBytes, unsigned long unitBytes, bool terminate,
                    const void* in, unsigned long inBytes, const char* toName,
                    const char* fromName);

template <class TO, class FROM>
void LCopyIconvFixedLength(TO* out, const FROM* in, unsigned long size, const char* toName,
                           const char* fromName) {
    const unsigned long length = std::char_traits<FROM>::length(in);
    _LIconvConvert(out, size * sizeof(TO), sizeof(TO), true, in, (length + 1) * sizeof(FROM),
                   toName, fromName);
}

template <class TO, class FROM>
void LCopyIconvFixedLength(TO* out, const FROM* in, const char* toName, const char* fromName) {
    const unsigned long length = std::char_traits<FROM>::length(in);
    _LIconvConvert(out, (length + 1) * sizeof(TO), sizeof(TO), false, in,
                   (length + 1) * sizeof(FROM), toName, fromName);
}

// ISO-8859-1
void LCopyFromISO88591(char* out, const char* in, unsigned long size);
void LCopyFromISO88591(LStringLongTemplate<char>& out, const char* in);
void LCopyFromISO88591(char* out, const char* in);
void LCopyToISO88591(char* out, const char* in, unsigned long size);
void LCopyToISO88591(LStringLongTemplate<char>& out, const char* in);
void LCopyToISO88591(char* out, const char* in);

// WINDOWS-1251 (buffer forms only)
void LCopyFromWIN1251(char* out, const char* in, unsigned long size);
void LCopyToWIN1251(char* out, const char* in, unsigned long size);

// WINDOWS-1252
void LCopyFromWIN1252(char* out, const char* in, unsigned long size);
void LCopyFromWIN1252(LStringLongTemplate<char>& out, const char* in);
void LCopyToWIN1252(char* out, const char* in, unsigned long size);
void LCopyToWIN1252(LStringLongTemplate<char>& out, const char* in);

// The "ANSI code page": WINDOWS-1252 (buffer forms only)
void LCharsetsCopyFromACP(char* out, const char* in, unsigned long size);
void LCharsetsCopyToACP(char* out, const char* in, unsigned long size);

// SHIFT-JIS
void LCopyFromSHIFTJIS932(char* out, const char* in, unsigned long size);
void LCopyFromSHIFTJIS932(LStringLongTemplate<char>& out, const char* in);
void LCopyToSHIFTJIS932(char* out, const char* in, unsigned long size);
void LCopyToSHIFTJIS932(LStringLongTemplate<char>& out, const char* in);

// ISO-2022-JP
void LCopyFromISO2022JP(char* out, const char* in, unsigned long size);
void LCopyFromISO2022JP(LStringLongTemplate<char>& out, const char* in);
void LCopyToISO2022JP(char* out, const char* in, unsigned long size);
void LCopyToISO2022JP(LStringLongTemplate<char>& out, const char* in);

// EUC-KR
void LCopyFromEUCKR(char* out, const char* in, unsigned long size);
void LCopyFromEUCKR(LStringLongTemplate<char>& out, const char* in);
void LCopyToEUCKR(char* out, const char* in, unsigned long size);
void LCopyToEUCKR(LStringLongTemplate<char>& out, const char* in);

// ISO-8859-5
void LCopyFromISO88595(char* out, const char* in, unsigned long size);
void LCopyFromISO88595(LStringLongTemplate<char>& out, const char* in);
void LCopyToISO88595(char* out, const char* in, unsigned long size);
void LCopyToISO88595(LStringLongTemplate<char>& out, const char* in);

// GB18030; the string form of LCopyFromGB18030 reads ISO-8859-5.
void LCopyFromGB18030(char* out, const char* in, unsigned long size);
void LCopyFromGB18030(LStringLongTemplate<char>& out, const char* in);
void LCopyToGB18030(char* out, const char* in, unsigned long size);
void LCopyToGB18030(LStringLongTemplate<char>& out, const char* in);

// KOI8-R; the buffer form of LCopyToKOI8R names "KOI8-R0" (always empty), the string form of
// LCopyFromKOI8R reads ISO-8859-5 and the string form of LCopyToKOI8R writes GB18030.
void LCopyFromKOI8R(char* out, const char* in, unsigned long size);
void LCopyFromKOI8R(LStringLongTemplate<char>& out, const char* in);
void LCopyToKOI8R(char* out, const char* in, unsigned long size);
void LCopyToKOI8R(LStringLongTemplate<char>& out, const char* in);

// BIG5 and GBK (buffer forms only)
void LCopyFromBIG5(char* out, const char* in, unsigned long size);
void LCopyToBIG5(char* out, const char* in, unsigned long size);
void LCopyFromGBK(char* out, const char* in, unsigned long size);
void LCopyToGBK(char* out, const char* in, unsigned long size);

// WINDOWS-1256
void LCopyFromWIN1256(char* out, const char* in, unsigned long size);
void LCopyFromWIN1256(LStringLongTemplate<char>& out, const char* in);
void LCopyToWIN1256(char* out, const char* in, unsigned long size);
void LCopyToWIN1256(LStringLongTemplate<char>& out, const char* in);

// ISO-8859-2
void LCopyFromISO88592(char* out, const char* in, unsigned long size);
void LCopyFromISO88592(LStringLongTemplate<char>& out, const char* in);
void LCopyToISO88592(char* out, const char* in, unsigned long size);
void LCopyToISO88592(LStringLongTemplate<char>& out, const char* in);

// Mac OS Roman ("macintosh")
void LCopyFromMacRoman(char* out, const char* in, unsigned long size);
void LCopyFromMacRoman(LStringLongTemplate<char>& out, const char* in);
void LCopyToMacRoman(char* out, const char* in, unsigned long size);
void LCopyToMacRoman(LStringLongTemplate<char>& out, const char* in);

// IBM437 (string forms only), converted as ISO-8859-1.
void LCopyFromIBM437(LStringLongTemplate<char>& out, const char* in);
void LCopyToIBM437(LStringLongTemplate<char>& out, const char* in);

// Windows code pages by number. An unknown code page gives an empty output and false. From:
// bytes that are not valid in the code page give an empty output and false; the UTF-8 result
// is cut with utf8strlcpy. To: the whole text must be representable and fit in `size` bytes
// with its terminator, else the output is empty and the result false.
bool LCopyFromSpecificCodePage(unsigned int codePage, char* out, const char* in,
                               unsigned long size);
bool LCopyFromSpecificCodePage(unsigned int codePage, LStringLongTemplate<char>& out,
                               const char* in);
bool LCopyFromSpecificCodePage(unsigned int codePage, LStringLongTemplate<char>& out,
                               const LStringLongTemplate<char>& in);
bool LCopyToSpecificCodePage(unsigned int codePage, char* out, const char* in, unsigned long size);

// The platform half of the code-page conversions (lcodepage_linux.cpp): the iconv name of a
// Windows code page, or null when the code page is unknown.
const char* _LCodePageEncodingName(unsigned int codePage);
