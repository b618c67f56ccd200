// The small text helpers of text/lstring_util.h. Every output buffer is written within the
// size the caller gave (or the library's 260-character buffer size), cutting longer text.
#include "text/lstring_util.h"

#include <sys/time.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwctype>

namespace {

constexpr unsigned long kBufferChars = 259;  // characters of a 260-character buffer

inline bool IsBlankOrControl(char c) {
    return static_cast<unsigned char>(c) < 33;
}

inline int Upper(char c) {
    return std::toupper(static_cast<unsigned char>(c));
}
inline wint_t Upper(wchar_t c) {
    return std::towupper(static_cast<wint_t>(c));
}

template <typename T>
const T* FindNoCase(const T* haystack, const T* needle) {
    if (haystack == nullptr || needle == nullptr) {
        return nullptr;
    }
    const unsigned long hayLength = tstrlen(haystack);
    const unsigned long needleLength = tstrlen(needle);
    if (needleLength > hayLength) {
        return nullptr;
    }
    for (unsigned long start = 0; start <= hayLength - needleLength; ++start) {
        unsigned long i = 0;
        while (i < needleLength && Upper(haystack[start + i]) == Upper(needle[i])) {
            ++i;
        }
        if (i == needleLength) {
            return haystack + start;
        }
    }
    return nullptr;
}

template <typename T>
uint32_t HexToUInt32(const T* text) {
    uint32_t value = 0;
    if (text == nullptr) {
        return 0;
    }
    for (;; ++text) {
        const T c = *text;
        uint32_t digit;
        if (c >= '0' && c <= '9') {
            digit = static_cast<uint32_t>(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            digit = static_cast<uint32_t>(c - 'a' + 10);
        } else if (c >= 'A' && c <= 'F') {
            digit = static_cast<uint32_t>(c - 'A' + 10);
        } else {
            return value;
        }
        value = value * 16 + digit;  // wraps on overflow, as the format defines
    }
}

// Number texts are at most 22 characters (64-bit octal) and the terminator.
constexpr size_t kNumberTextSize = 24;

}  // namespace

const char* tstristr(const char* haystack, const char* needle) {
    return FindNoCase(haystack, needle);
}
char* tstristr(char* haystack, const char* needle) {
    return const_cast<char*>(FindNoCase<char>(haystack, needle));
}
const wchar_t* tstristr(const wchar_t* haystack, const wchar_t* needle) {
    return FindNoCase(haystack, needle);
}
wchar_t* tstristr(wchar_t* haystack, const wchar_t* needle) {
    return const_cast<wchar_t*>(FindNoCase<wchar_t>(haystack, needle));
}
const char* stristr(const char* haystack, const char* needle) {
    return FindNoCase(haystack, needle);
}
char* stristr(char* haystack, const char* needle) {
    return const_cast<char*>(FindNoCase<char>(haystack, needle));
}

uint32_t atoh(const char* text) {
    return HexToUInt32(text);
}
uint32_t wtoh(const wchar_t* text) {
    return HexToUInt32(text);
}

bool ttosize_t(const char* text, unsigned long& value) {
    if (text == nullptr) {
        return false;
    }
    size_t read = 0;
    if (std::sscanf(text, "%zu", &read) != 1) {
        return false;
    }
    value = read;
    return true;
}

char* ltoa(long value, char* buffer, int radix) {
    return itoa(static_cast<int>(value), buffer, radix);  // deliberately a 32-bit conversion
}

char* itoa(int value, char* buffer, int radix) {
    if (radix == 8) {
        std::snprintf(buffer, kNumberTextSize, "%o", static_cast<unsigned int>(value));
    } else if (radix == 16) {
        std::snprintf(buffer, kNumberTextSize, "%x", static_cast<unsigned int>(value));
    } else {
        std::snprintf(buffer, kNumberTextSize, "%d", value);
    }
    return buffer;
}

char* _i64toa(int64_t value, char* buffer, int radix) {
    const long long v = value;
    if (radix == 8) {
        std::snprintf(buffer, kNumberTextSize, "%llo", static_cast<unsigned long long>(v));
    } else if (radix == 16) {
        std::snprintf(buffer, kNumberTextSize, "%llx", static_cast<unsigned long long>(v));
    } else {
        std::snprintf(buffer, kNumberTextSize, "%lld", v);
    }
    return buffer;
}

char* _ui64toa(uint64_t value, char* buffer, int radix) {
    const unsigned long long v = value;
    if (radix == 8) {
        std::snprintf(buffer, kNumberTextSize, "%llo", v);
    } else if (radix == 16) {
        std::snprintf(buffer, kNumberTextSize, "%llx", v);
    } else {
        std::snprintf(buffer, kNumberTextSize, "%llu", v);
    }
    return buffer;
}

char* strlwr(char* text) {
    if (text != nullptr) {
        for (char* p = text; *p != 0; ++p) {
            *p = static_cast<char>(std::tolower(static_cast<unsigned char>(*p)));
        }
    }
    return text;
}

char* strupr(char* text) {
    if (text != nullptr) {
        for (char* p = text; *p != 0; ++p) {
            *p = static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));
        }
    }
    return text;
}

unsigned long lstrlen(const char16_t* text) {
    return tstrlen(text);
}
unsigned long tplstrlen(const char16_t* text) {
    return tstrlen(text);
}

void randomize() {
    timeval now{};
    gettimeofday(&now, nullptr);
    const auto millis = static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000 +
                                              static_cast<uint64_t>(now.tv_usec) / 1000);
    std::srand(millis);
    std::srand(static_cast<unsigned>(std::rand()) ^ static_cast<unsigned>(std::time(nullptr)));
}

void LStringGenerateRandomPassword(char* buffer, unsigned long n) {
    randomize();
    for (unsigned long i = 0; i < n; ++i) {
        buffer[i] = static_cast<char>('a' + std::rand() % 26);
    }
    buffer[n] = 0;
}

bool GetCSVListItem(const char* list, unsigned long& position, char* out, unsigned long outSize) {
    if (list == nullptr) {
        if (out != nullptr && outSize > 0) {
            out[0] = 0;
        }
        return false;
    }
    const unsigned long limit = outSize > 0 ? outSize - 1 : 0;
    const char* p = list + position;
    bool quoted = false;
    unsigned long copied = 0;
    unsigned long kept = 0;  // end of the item once trailing unquoted blanks are dropped
    for (;; ++p) {
        const char c = *p;
        if (c == 0 || c == '\n' || c == '\r') {
            break;  // the position stays on the line end
        }
        if (c == '"') {
            quoted = !quoted;
            continue;
        }
        if (!quoted && c == ',') {
            ++p;
            break;
        }
        const bool blank = c == ' ';  // a tab is text here
        if (blank && !quoted && copied == 0) {
            continue;
        }
        if (copied < limit) {
            out[copied++] = c;
            if (!blank || quoted) {
                kept = copied;
            }
        }
    }
    if (outSize > 0) {
        out[kept] = 0;
    }
    position = static_cast<unsigned long>(p - list);
    return kept > 0;
}

bool LStringFindTextField(const char* text, const char* start, const char* end, char* out,
                          unsigned long outSize) {
    const char* found = text != nullptr && start != nullptr ? std::strstr(text, start) : nullptr;
    if (found == nullptr) {
        if (outSize > 0) {
            out[0] = 0;
        }
        return false;
    }
    const char* from = found + std::strlen(start);
    const char* to = end != nullptr ? std::strstr(from, end) : nullptr;
    unsigned long n = to != nullptr ? static_cast<unsigned long>(to - from)
                                    : static_cast<unsigned long>(std::strlen(from));
    if (outSize == 0) {
        return true;
    }
    if (n > outSize - 1) {
        n = outSize - 1;
    }
    std::memcpy(out, from, n);
    out[n] = 0;
    return true;
}

void LRemoveHTTPItem(const char* key, char* query) {
    if (key == nullptr || query == nullptr) {
        return;
    }
    char pattern[262];  // "key=" cut to 261 characters
    tplsnprintf(pattern, sizeof(pattern), "%s=", key);
    char* found = std::strstr(query, pattern);
    if (found == nullptr) {
        return;
    }
    char* removeFrom = found > query && found[-1] == '&' ? found - 1 : found;
    char* valueEnd = found + std::strlen(pattern);
    while (*valueEnd != 0 && *valueEnd != '&') {
        ++valueEnd;
    }
    std::memmove(removeFrom, valueEnd, std::strlen(valueEnd) + 1);
}

unsigned long LParseGetToWhiteSpaceAndSkipIt(const char* text, char* out) {
    unsigned long i = 0;
    unsigned long n = 0;
    for (; text[i] != 0 && !IsBlankOrControl(text[i]); ++i) {
        if (n < kBufferChars) {
            out[n++] = text[i];
        }
    }
    out[n] = 0;
    while (text[i] != 0 && IsBlankOrControl(text[i])) {
        ++i;
    }
    return i;
}

unsigned long LParseGetToCharacters(const char* text, const char* stops, char* out) {
    if (stops == nullptr) {
        stops = "";
    }
    unsigned long i = 0;
    unsigned long n = 0;
    // strchr finds the terminator too, so the end of text always stops the copy.
    for (; std::strchr(stops, text[i]) == nullptr; ++i) {
        if (n < kBufferChars) {
            out[n++] = text[i];
        }
    }
    out[n] = 0;
    return i;
}

unsigned long LParseGetToEndOfLine(const char* text, LStringLongTemplate<char>& out) {
    out.GrowToSize(260);
    out.Clear();
    LStringLongTemplateAppender<char> appender(out);
    unsigned long i = 0;
    for (; text[i] != 0 && text[i] != '\n' && text[i] != '\r'; ++i) {
        appender.Write(text[i]);
    }
    return i;
}

bool LCommandLineArgumentStringExpander::NextArgument() {
    m_sArgument.Clear();
    while (*m_pPosition != 0 && IsBlankOrControl(*m_pPosition)) {
        ++m_pPosition;
    }
    LStringLongTemplateAppender<char> appender(m_sArgument);
    bool quoting = false;
    bool quoteSeen = false;
    while (*m_pPosition != 0) {
        const char c = *m_pPosition;
        if (c == '"') {
            ++m_pPosition;
            if (quoteSeen) {
                break;  // the closing quote ends the argument at once
            }
            quoteSeen = true;
            quoting = true;
            continue;
        }
        if (!quoting && c == ' ') {
            break;  // only the space separates; a tab inside an argument is kept
        }
        if (c == '\\' && m_pPosition[1] == ' ') {
            appender.Write(' ');
            m_pPosition += 2;
            continue;
        }
        appender.Write(c);
        ++m_pPosition;
    }
    return !m_sArgument.IsEmpty();
}

unsigned long LCommandLineArgumentStringExpander::GetArgumentCount(const char* text) {
    LCommandLineArgumentStringExpander expander(text);
    unsigned long count = 0;
    while (expander.NextArgument()) {
        ++count;
    }
    return count > 0 ? count - 1 : 0;  // the program's own name is not an argument
}
