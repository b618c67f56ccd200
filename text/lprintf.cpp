// The formatting engine tplprintf and the printf family built on it.
//
// Ordinary text and "%s" arguments are copied by the engine itself; every other conversion is
// one call of the C library's snprintf on the rebuilt conversion "%" + collected + letter,
// into a 272-character scratch area, so its output is cut at 271 characters. The deliberate
// departures from printf (see text/lstring.h) come from that design and must stay.
//
// What the engine adds for safety, without changing any output the C library would produce
// for a well-formed call:
//   - the argument is handed to snprintf with the type snprintf will read for that
//     conversion (int for %d, long double for %llf, ...), converted from the slot the
//     engine took, so no call reads an argument of the wrong class; a floating conversion that
//     takes an integer slot (E, G, F, a, A) reads the slot's 64 bits as a double, as a
//     platform that passes every variadic argument in memory would;
//   - a conversion that would store through the slot or read memory through it ("n", "S"
//     with a slot other than null), or address an argument by position ("%1$"), takes its
//     slot and writes nothing; every other letter, "$" and "*" included, goes to snprintf;
//   - a conversion cut off by the end of the format writes nothing and ends formatting;
//   - one that ends in a flag or length modifier ("%-", "%h") is not handed to snprintf, which
//     would fail on it and write nothing anyway (and whose sanitizer interceptors reject it).
// Plain %d, %i, %u, %x and %X with an optional width and "0" flag (the common case) are
// formatted here directly, giving the same text as snprintf without its per-call cost.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string_view>

#include "text/lstring.h"

namespace {

constexpr unsigned long kMaxConversionChars = 257;  // collected characters kept per conversion
constexpr unsigned long kScratchSize = 272;         // one numeric conversion, terminator included

// ".", "0" to "9", "L", "l" and "z": the only characters a conversion collects.
constexpr bool IsConversionChar(unsigned char c) {
    return c == '.' || (c >= '0' && c <= '9') || c == 'L' || c == 'l' || c == 'z';
}

enum class Length { kNone, kLong, kLongLong, kLongDouble, kSize };

// The collected characters read as the C library reads them: "0" flags, width, optional
// precision, one length modifier. `valid` is false when anything is left over, in which case
// the C library does not take an argument for the conversion (it prints it as text).
struct ParsedConversion {
    bool valid = false;
    bool zeroPad = false;
    unsigned long width = 0;
    bool hasPrecision = false;
    Length length = Length::kNone;
};

ParsedConversion ParseConversion(std::string_view s) {
    ParsedConversion p;
    size_t i = 0;
    while (i < s.size() && s[i] == '0') {
        p.zeroPad = true;
        ++i;
    }
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
        if (p.width < 1000000) {
            p.width = p.width * 10 + static_cast<unsigned long>(s[i] - '0');
        }
        ++i;
    }
    if (i < s.size() && s[i] == '.') {
        p.hasPrecision = true;
        ++i;
        while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
            ++i;
        }
    }
    if (i < s.size()) {
        if (s[i] == 'l') {
            if (i + 1 < s.size() && s[i + 1] == 'l') {
                p.length = Length::kLongLong;
                ++i;
            } else {
                p.length = Length::kLong;
            }
            ++i;
        } else if (s[i] == 'L') {
            p.length = Length::kLongDouble;
            ++i;
        } else if (s[i] == 'z') {
            p.length = Length::kSize;
            ++i;
        }
    }
    p.valid = i == s.size();
    return p;
}

// Writes the digits of `magnitude` right-aligned in a field of `width`, as printf does for
// %d / %u / %x without precision: blanks before the sign, or zeros after it with "0".
template <typename W>
void WriteInteger(W& writer, uint64_t magnitude, bool negative, unsigned base, bool upper,
                  unsigned long width, bool zeroPad) {
    static constexpr char kLower[] = "0123456789abcdef";
    static constexpr char kUpper[] = "0123456789ABCDEF";
    const char* digits = upper ? kUpper : kLower;
    char text[96];
    char* end = text + sizeof(text);
    char* p = end;
    do {
        *--p = digits[magnitude % base];
        magnitude /= base;
    } while (magnitude != 0);
    unsigned long used = static_cast<unsigned long>(end - p) + (negative ? 1 : 0);
    if (zeroPad) {
        while (used < width) {
            *--p = '0';
            ++used;
        }
        if (negative) {
            *--p = '-';
        }
    } else {
        if (negative) {
            *--p = '-';
        }
        while (used < width) {
            *--p = ' ';
            ++used;
        }
    }
    writer.Write(p, static_cast<unsigned long>(end - p));
}

// Runs snprintf on the rebuilt conversion with one argument and copies the text it made
// (up to its terminator, at most 271 characters) to the writer.
template <typename W, typename A>
void WriteConverted(W& writer, const char* conversion, A argument) {
    char scratch[kScratchSize];
    scratch[0] = 0;
    std::snprintf(scratch, sizeof(scratch), conversion, argument);
    scratch[kScratchSize - 1] = 0;
    writer.Write(scratch, static_cast<unsigned long>(std::strlen(scratch)));
}

// Hands a floating value to snprintf in the type the conversion makes it read.
template <typename W>
void WriteFloating(W& writer, const char* conversion, const ParsedConversion& parsed,
                   long double value) {
    if (parsed.length == Length::kLongDouble || parsed.length == Length::kLongLong) {
        WriteConverted(writer, conversion, value);
    } else {
        WriteConverted(writer, conversion, static_cast<double>(value));
    }
}

double BitsAsDouble(uint64_t bits) {
    double d;
    std::memcpy(&d, &bits, sizeof(d));
    return d;
}

// One conversion other than "%" and "s". `conversion` holds "%" + collected + letter.
template <typename W>
void FormatOne(W& writer, char* conversion, unsigned long collected, char letter, va_list* args) {
    const std::string_view chars(conversion + 1, collected);
    const ParsedConversion parsed = ParseConversion(chars);

    if (letter == 'e' || letter == 'f' || letter == 'g') {
        const bool longDouble = collected > 0 && chars.back() == 'L';
        const long double value = longDouble ? va_arg(*args, long double)
                                             : static_cast<long double>(va_arg(*args, double));
        if (!parsed.valid) {
            WriteConverted(writer, conversion, 0);  // printed as text; the argument is not read
        } else if (longDouble || parsed.length == Length::kLongLong) {
            WriteConverted(writer, conversion, value);
        } else {
            WriteConverted(writer, conversion, static_cast<double>(value));
        }
        return;
    }

    // Every other letter takes a 64-bit integer slot.
    const uint64_t slot = static_cast<uint64_t>(va_arg(*args, long long));
    switch (letter) {
        case 'n':
            return;  // would store through the slot
        case 'S':
            // Reads a wide text through the slot: only a null one, which the C library prints
            // without reading memory, is handed over.
            if (slot == 0) {
                WriteConverted(writer, conversion, static_cast<const wchar_t*>(nullptr));
            }
            return;
        case '$':
            // Digits before "$" address an argument by position, which the C library reads
            // from its own walk of the argument list rather than from the slot passed (and
            // which sanitizer interceptors misread): withheld. Without them ("%$", "%.1$")
            // the C library prints the conversion as text.
            if (!chars.empty() && chars.find_first_not_of("0123456789") == std::string_view::npos) {
                return;
            }
            WriteConverted(writer, conversion, slot);
            return;
        case '*':
            // Right after "%", "0" flags or ".", the C library reads "*" as a width or
            // precision and then finds no conversion: it fails and writes nothing, so it is
            // not called (a sanitizer's interceptor even rejects "%*"). Elsewhere "*" is a
            // letter it prints as text.
            if (chars.find_first_not_of('0') != std::string_view::npos && chars.back() != '.') {
                WriteConverted(writer, conversion, static_cast<int>(slot));
            }
            return;
        // A flag or length modifier as the last character leaves the conversion without a
        // conversion: the C library fails the call and writes nothing, so it is not called.
        case '-':
        case '+':
        case ' ':
        case '#':
        case '\'':
        case 'h':
        case 'j':
        case 't':
        case 'q':
        case 'Z':
        case 'I':
            return;
        default:
            break;
    }
    if (!parsed.valid) {
        WriteConverted(writer, conversion, slot);  // printed as text; the argument is not read
        return;
    }
    const bool wide = parsed.length == Length::kLong || parsed.length == Length::kSize;
    const bool wider = parsed.length == Length::kLongLong || parsed.length == Length::kLongDouble;
    switch (letter) {
        case 'd':
        case 'i': {
            const int64_t value =
                wide || wider ? static_cast<int64_t>(slot) : static_cast<int32_t>(slot);
            if (!parsed.hasPrecision && parsed.width <= 64) {
                const bool negative = value < 0;
                const uint64_t magnitude =
                    negative ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
                WriteInteger(writer, magnitude, negative, 10, false, parsed.width, parsed.zeroPad);
            } else if (wider) {
                WriteConverted(writer, conversion, static_cast<long long>(value));
            } else if (wide) {
                WriteConverted(writer, conversion, static_cast<long>(value));
            } else {
                WriteConverted(writer, conversion, static_cast<int>(value));
            }
            return;
        }
        case 'u':
        case 'x':
        case 'X':
        case 'o': {
            const uint64_t value = wide || wider ? slot : static_cast<uint32_t>(slot);
            if (letter != 'o' && !parsed.hasPrecision && parsed.width <= 64) {
                WriteInteger(writer, value, false, letter == 'u' ? 10 : 16, letter == 'X',
                             parsed.width, parsed.zeroPad);
            } else if (wider) {
                WriteConverted(writer, conversion, static_cast<unsigned long long>(value));
            } else if (wide) {
                WriteConverted(writer, conversion, static_cast<unsigned long>(value));
            } else {
                WriteConverted(writer, conversion, static_cast<unsigned int>(value));
            }
            return;
        }
        case 'c':
            if (parsed.length == Length::kNone) {
                WriteConverted(writer, conversion, static_cast<int>(slot));
            } else {
                WriteConverted(writer, conversion, static_cast<wint_t>(slot));
            }
            return;
        case 'C':
            WriteConverted(writer, conversion, static_cast<wint_t>(slot));
            return;
        case 'p':
            WriteConverted(writer, conversion,
                           reinterpret_cast<void*>(static_cast<uintptr_t>(slot)));
            return;
        case 'E':
        case 'G':
        case 'F':
        case 'a':
        case 'A':
            WriteFloating(writer, conversion, parsed, BitsAsDouble(slot));
            return;
        default:
            // Not a conversion the C library knows (or one cut off by the end of the
            // conversion): it prints text or nothing and reads no argument.
            WriteConverted(writer, conversion, slot);
            return;
    }
}

}  // namespace

template <typename W>
unsigned long tplprintf(W& writer, const char* format, va_list args) {
    if (format == nullptr) {
        return 0;
    }
    va_list ap;
    va_copy(ap, args);
    const char* p = format;
    // "%" + up to 257 collected characters + the letter + terminator.
    char conversion[1 + kMaxConversionChars + 2];
    conversion[0] = '%';
    for (;;) {
        const char* percent = std::strchr(p, '%');
        if (percent == nullptr) {
            writer.Write(p, static_cast<unsigned long>(std::strlen(p)));
            break;
        }
        if (percent != p) {
            writer.Write(p, static_cast<unsigned long>(percent - p));
        }
        p = percent + 1;
        unsigned long collected = 0;
        while (IsConversionChar(static_cast<unsigned char>(*p))) {
            if (collected < kMaxConversionChars) {
                conversion[1 + collected++] = *p;
            }
            ++p;
        }
        const char letter = *p;
        if (letter == 0) {
            break;  // the format ended inside a conversion
        }
        ++p;
        if (letter == '%') {
            writer.Write('%');
        } else if (letter == 's') {
            const char* text = va_arg(ap, const char*);
            if (text != nullptr) {
                writer.Write(text, static_cast<unsigned long>(std::strlen(text)));
            }
        } else {
            conversion[1 + collected] = letter;
            conversion[2 + collected] = 0;
            FormatOne(writer, conversion, collected, letter, &ap);
        }
    }
    va_end(ap);
    return writer.GetLength();
}

template unsigned long tplprintf(LFixedLengthStringWriterTemplate<char>&, const char*, va_list);
template unsigned long tplprintf(LStringLongTemplateWriter<char>&, const char*, va_list);
template unsigned long tplprintf(LStringLongTemplateAppender<char>&, const char*, va_list);

unsigned long vsprintf(LStringLongTemplate<char>& string, const char* format, va_list args) {
    string.GrowToSize(260);
    LStringLongTemplateWriter<char> writer(string);  // length := 0
    return tplprintf(writer, format, args);          // the writer keeps the string terminated
}

unsigned long sprintf(LStringLongTemplate<char>& string, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const unsigned long n = vsprintf(string, format, args);
    va_end(args);
    return n;
}

unsigned long sprintf(LFixedLengthStringWriterTemplate<char>& writer, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const unsigned long n = tplprintf(writer, format, args);
    va_end(args);
    return n;
}

unsigned long tvsprintfappend(LStringLongTemplate<char>& string, const char* format, va_list args) {
    string.GrowToSize(260);
    LStringLongTemplateAppender<char> appender(string);
    return tplprintf(appender, format, args);
}

unsigned long tsprintfappend(LStringLongTemplate<char>& string, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const unsigned long n = tvsprintfappend(string, format, args);
    va_end(args);
    return n;
}

unsigned long tplvsnprintf(char* buffer, unsigned long size, const char* format, va_list args) {
    if (buffer == nullptr || size == 0) {
        return 0;
    }
    LFixedLengthStringWriterTemplate<char> writer(buffer, size - 1);
    tplprintf(writer, format, args);
    writer.Terminate();
    return writer.GetLength();
}

unsigned long tplsnprintf(char* buffer, unsigned long size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const unsigned long n = tplvsnprintf(buffer, size, format, args);
    va_end(args);
    return n;
}

int tprintf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int n = std::vprintf(format, args);
    va_end(args);
    return n;
}

void tplstrcpy(LStringLongTemplateAppender<char>& appender, const char* text) {
    if (text == nullptr) {
        return;
    }
    for (; *text != 0; ++text) {
        appender.Write(*text);
    }
}

void _LStringShortFormat(char* buffer, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LFixedLengthStringWriterTemplate<char> writer(buffer, 259);
    tplprintf(writer, format, args);
    writer.Terminate();
    va_end(args);
}
