// Small text helpers beside the string types: case-insensitive search, number conversions,
// case changes, lengths, random text, and the readers that pull items, fields and tokens
// out of texts (CSV items, query strings, command lines).
//
// Every helper that writes into a caller's buffer is told its size (or works on the library's
// 260-character buffers) and cuts its output to fit; none reports an error. Characters are
// compared as unsigned bytes, so UTF-8 bytes above 0x7F count as text, never as blanks. A
// blank is the space character (0x20) alone: a tab is text to the CSV and argument readers.
// Included by text/lstring.h; include that header rather than this one.
#pragma once

#include <cstdint>
#include <cwchar>
#include <type_traits>

#include "text/lstring.h"

// ---- Case-insensitive substring search ----
// First position where the needle matches (toupper on both sides), or null; a needle longer
// than the haystack never matches. An empty needle matches at the start.
const char* tstristr(const char* haystack, const char* needle);
char* tstristr(char* haystack, const char* needle);
const wchar_t* tstristr(const wchar_t* haystack, const wchar_t* needle);
wchar_t* tstristr(wchar_t* haystack, const wchar_t* needle);
const char* stristr(const char* haystack, const char* needle);
char* stristr(char* haystack, const char* needle);

// ---- Numbers ----
// The value of one hexadecimal digit (either case), or -1 for any other character.
constexpr int LHexDigitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// Hexadecimal digits from the start, value * 16 + digit in wrapping 32-bit arithmetic, up to
// the first other character. No "0x" prefix.
uint32_t atoh(const char* text);
uint32_t wtoh(const wchar_t* text);
// Reads a size with sscanf "%zu"; true when one value was read.
bool ttosize_t(const char* text, unsigned long& value);
// Decimal text to signed 64-bit, saturating at +-9223372036854775807 (the most negative
// value is never produced). Leading characters below 33 are skipped; an optional sign must be
// followed by a digit, else 0.
template <typename T>
int64_t ttoi64template(const T* text) {
    if (text == nullptr) {
        return 0;
    }
    using U = std::make_unsigned_t<T>;
    while (*text != 0 && static_cast<U>(*text) < 33) {
        ++text;
    }
    bool negative = false;
    if (*text == '+' || *text == '-') {
        negative = *text == '-';
        ++text;
    }
    if (*text < '0' || *text > '9') {
        return 0;
    }
    constexpr int64_t kLimit = 922337203685477580;  // INT64_MAX / 10
    int64_t value = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        const int digit = static_cast<int>(*text - '0');
        if (value > kLimit || (value == kLimit && digit > 7)) {
            value = INT64_MAX;
            break;
        }
        value = value * 10 + digit;
    }
    return negative ? -value : value;
}
// Number to text: radix 8 octal, 16 lower-case hexadecimal, anything else decimal. ltoa and
// itoa work on the value cut to 32 bits. The buffer must hold the text (23 characters cover
// every case). All return the buffer.
char* ltoa(long value, char* buffer, int radix);
char* itoa(int value, char* buffer, int radix);
char* _i64toa(int64_t value, char* buffer, int radix);
char* _ui64toa(uint64_t value, char* buffer, int radix);

// ---- Case and length ----
// In place with tolower / toupper; return the argument.
char* strlwr(char* text);
char* strupr(char* text);
unsigned long lstrlen(const char16_t* text);
unsigned long tplstrlen(const char16_t* text);

// ---- Random text ----
// Seeds srand with the time in milliseconds, then reseeds with rand() ^ seconds.
void randomize();
// Calls randomize() and writes n random lower-case letters and a terminator at buffer[n] (the
// buffer holds n + 1).
void LStringGenerateRandomPassword(char* buffer, unsigned long n);

// ---- Items and fields ----
// Reads the next comma-separated item from list + position into out (outSize includes the
// terminator) and advances position: after the comma, or onto the NUL / line end that ended
// the item. Quotes toggle quoting and are not copied; leading and trailing unquoted blanks are
// dropped. True when the item is not empty.
bool GetCSVListItem(const char* list, unsigned long& position, char* out, unsigned long outSize);
// Copies the text between the start marker and the next end marker (or the end of text) into
// out, cut to outSize - 1. False, with out empty, when the start marker is absent.
bool LStringFindTextField(const char* text, const char* start, const char* end, char* out,
                          unsigned long outSize);
// Removes "key=value" from a query string in place, with the "&" before it; removing the first
// item keeps its trailing "&". The key is searched as a plain substring.
void LRemoveHTTPItem(const char* key, char* query);

// ---- Token readers (out buffers hold 260 characters) ----
// Copies the run of characters above 32 (at most 259), then skips the characters below 33;
// returns the index after them.
unsigned long LParseGetToWhiteSpaceAndSkipIt(const char* text, char* out);
// Copies up to the first character found in `stops` (the terminator always stops), at most
// 259; returns the index of the stopping character.
unsigned long LParseGetToCharacters(const char* text, const char* stops, char* out);
// Replaces out with the text up to NUL, line feed or carriage return; returns the count read.
unsigned long LParseGetToEndOfLine(const char* text, LStringLongTemplate<char>& out);

// Splits a command line into arguments: characters below 33 are skipped before an argument,
// blanks end it, a first quote starts quoting and a second ends the argument at once, "\ " is
// a blank, any other backslash is kept.
class LCommandLineArgumentStringExpander {
public:
    explicit LCommandLineArgumentStringExpander(const char* text)
        : m_pPosition(text != nullptr ? text : "") {}
    LCommandLineArgumentStringExpander(const LCommandLineArgumentStringExpander&) = delete;
    LCommandLineArgumentStringExpander& operator=(const LCommandLineArgumentStringExpander&) =
        delete;

    // Reads the next argument into GetArgument(); false when it is empty (end of text, or an
    // empty quoted argument, which ends the enumeration too).
    bool NextArgument();
    const char* GetArgument() const { return m_sArgument.GetText(); }
    const LStringLongTemplate<char>& GetArgumentString() const { return m_sArgument; }
    // Number of arguments after the first (the program's own name is not counted).
    static unsigned long GetArgumentCount(const char* text);

private:
    const char* m_pPosition;
    LStringLongTemplate<char> m_sArgument;
};

// Percent-encodes one byte into the writer: A-Z a-z 0-9 and "!-._~" as they are, every other
// byte as "%" and two upper-case hexadecimal digits.
template <typename W>
void LURIEncodeToWriterDirect(W& writer, char c) {
    const unsigned char u = static_cast<unsigned char>(c);
    if ((u >= 'A' && u <= 'Z') || (u >= 'a' && u <= 'z') || (u >= '0' && u <= '9') || u == '!' ||
        u == '-' || u == '.' || u == '_' || u == '~') {
        writer.Write(c);
        return;
    }
    static constexpr char kHex[] = "0123456789ABCDEF";
    writer.Write('%');
    writer.Write(kHex[u >> 4]);
    writer.Write(kHex[u & 0x0F]);
}
