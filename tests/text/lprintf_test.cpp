// The formatting engine: its deliberate departures from printf, agreement with printf
// elsewhere, and the cuts of every fixed buffer and of one numeric conversion.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "text/lstring.h"

namespace {

template <typename... Args>
std::string Format(const char* format, Args... args) {
    LStringLongTemplate<char> s;
    sprintf(s, format, args...);
    return std::string(s.GetText(), s.GetLength());
}

}  // namespace

TEST(TplPrintfDepartures, FlagsPercentsStringsFloatingSlotsAndUnfinishedConversions) {
    // %-5d formats "%-" with the next argument (nothing comes of it) and writes 5d as text.
    EXPECT_EQ(Format("%-5d|%d", 1LL, 2LL), "5d|2");
    EXPECT_EQ(Format("[%+d]", 3LL), "[d]");
    EXPECT_EQ(Format("[%#x]", 3LL), "[x]");
    // "*" takes its slot like any other letter and reads no width.
    EXPECT_EQ(Format("%*d|%d", 8LL, 9LL), "d|9");
    // Length modifiers outside ".0-9Llz" end it too: %hd formats "%h" and writes d.
    EXPECT_EQ(Format("%hd|%jd|%d", 1, 2, 3), "d|d|3");
    // A percent after collected characters writes one percent and takes no argument.
    EXPECT_EQ(Format("%.2l%"), "%");
    EXPECT_EQ(Format("%5%%d", 7), "%7");
    // Width and precision are ignored on strings.
    EXPECT_EQ(Format("%10s", "ab"), "ab");
    EXPECT_EQ(Format("%.1s", "abc"), "abc");
    EXPECT_EQ(Format("%-10s|", "ab"), "10s|");  // "-" ended the conversion
    EXPECT_EQ(Format("[%s]", static_cast<const char*>(nullptr)), "[]");
    // A format ending inside a conversion stops there.
    EXPECT_EQ(Format("ab%"), "ab");
    EXPECT_EQ(Format("ab%5l"), "ab");
    LStringLongTemplate<char> s("x");
    EXPECT_EQ(sprintf(s, nullptr), 0u);
    // The slot's bits are read as a double: 5 is five times the smallest subnormal.
    EXPECT_EQ(Format("%E|%d", 5LL, 9), "2.470328E-323|9");
    double one = 1.0;
    long long bits;
    std::memcpy(&bits, &one, sizeof(bits));
    EXPECT_EQ(Format("%.1E %G", bits, bits), "1.0E+00 1");
    // Lower-case letters take doubles.
    EXPECT_EQ(Format("%e|%g|%.2f", 1.5, 0.25, 3.14159), "1.500000e+00|0.25|3.14");
    // A capital L before the letter takes a long double; "ll" is not "L".
    EXPECT_EQ(Format("%Lf %d", 2.25L, 3), "2.250000 3");
    EXPECT_EQ(Format("%.1llf|%d", 1.5, 4), "1.5|4");
}

TEST(TplPrintfMatchesPrintf, IntegerConversionsWithWidthAndZeroFlag) {
    const char* intFormats[] = {"%05d", "%i", "%u", "%X", "%08x", "%o", "%7.4d", "%c"};
    const char* longFormats[] = {"%20ld", "%022lld", "%llu", "%lx", "%zu", "%lo", "%Ld"};
    std::mt19937_64 random(12345);
    const long long specials[] = {0, 1, -1, INT_MIN, INT_MAX, LLONG_MIN, LLONG_MAX, 65, 255};
    for (int round = 0; round < 60; ++round) {
        const long long v =
            round < 9 ? specials[round] : static_cast<long long>(random() >> (random() % 64));
        char expected[128];
        for (const char* f : intFormats) {
            std::snprintf(expected, sizeof(expected), f, static_cast<int>(v));
            if (std::strcmp(f, "%c") == 0 && static_cast<char>(v) == 0) {
                continue;  // a NUL character ends the scratch text
            }
            EXPECT_EQ(Format(f, static_cast<int>(v)), expected) << f << " " << v;
        }
        for (const char* f : longFormats) {
            std::snprintf(expected, sizeof(expected), f, v);
            EXPECT_EQ(Format(f, v), expected) << f << " " << v;
        }
    }
}

TEST(TplPrintfTruncation, TplsnprintfCutsToSizeMinusOneAndTerminates) {
    const std::string full = "n=123456789!";
    for (unsigned long size : {0ul, 1ul, 6ul, 12ul, 13ul, 16ul}) {
        SCOPED_TRACE(size);
        char buffer[17];
        std::memset(buffer, 'X', sizeof(buffer));
        const unsigned long n = size == 0 ? 0 : std::min(size - 1, full.size());
        EXPECT_EQ(tplsnprintf(buffer, size, "n=%d!", 123456789), n);  // 6: cut in a conversion
        EXPECT_EQ(std::string(buffer, n), full.substr(0, n));
        EXPECT_EQ(buffer[n], size == 0 ? 'X' : '\0');  // nothing at all when size is 0
        EXPECT_EQ(buffer[n + 1], 'X');
    }
}

TEST(TplPrintfTruncation, FixedWriterContinuesAtItsLengthAndLeavesTerminatingToCaller) {
    char buffer[8];
    std::memset(buffer, 'X', sizeof(buffer));
    buffer[0] = 'a';
    buffer[1] = 'b';
    LFixedLengthStringWriterTemplate<char> writer(buffer, 2, 5);
    EXPECT_EQ(sprintf(writer, "%d", 12), 4u);
    EXPECT_EQ(std::string(buffer, 4), "ab12");
    EXPECT_EQ(buffer[4], 'X');  // not terminated
    EXPECT_EQ(sprintf(writer, "%s", "xyz"), 5u);
    EXPECT_EQ(buffer[5], 'X');  // nothing stored past the limit
    writer.Terminate();
    EXPECT_STREQ(buffer, "ab12x");
}

TEST(TplPrintfTruncation, ShortStringHolds259Characters) {
    const std::string longText(300, 'q');
    LStringShortTemplate<char> copied(longText.c_str());
    EXPECT_EQ(copied.GetLength(), 259u);
    LStringShortTemplate<char> formatted(LStringPrintFormatTemplate<char>("%s-%d"),
                                         longText.c_str(), 5);
    EXPECT_EQ(std::string(formatted.GetText()), std::string(259, 'q'));
}

TEST(TplPrintfTruncation, OneConversionCollects257CharactersAndIsCutAt271) {
    EXPECT_EQ(Format("%300d|", 7), std::string(271, ' ') + "|");
    EXPECT_EQ(Format("%.300f|", 1.0), "1." + std::string(269, '0') + "|");
    EXPECT_EQ(Format("%0290lld%s", -5LL, "end"), std::string("-").append(270, '0') + "end");
    // Exactly 271 characters pass whole.
    EXPECT_EQ(Format("%271d", 7), std::string(270, ' ') + "7");
    // A conversion collects at most 257 characters: 255 zeros, "5", "1" are kept (width 51);
    // 42 more "1"s are read and dropped.
    const std::string format = std::string("%").append(255, '0') + "51" + std::string(42, '1');
    EXPECT_EQ(Format((format + "d|").c_str(), 42), std::string(49, '0') + "42|");
}

// Every letter goes to the C library's formatter with its slot, except where the library
// would store through the slot, read memory through it or address arguments by position:
// those take their slot and write nothing. Either way the next conversion gets the next slot.
TEST(TplPrintfLetters, OnlyStoringAndReadingThroughASlotIsWithheld) {
    char library[64];
    int target = 17;
    const struct {
        const char* conversion;
        long long slot;
        const char* expected;  // null: what the C library makes of the conversion and slot
    } cases[] = {
        {"%$", 0, nullptr},  {"%.1$", 0, nullptr},
        {"%l$", 0, nullptr}, {"%5*", 5, nullptr},
        {"%S", 0, "(null)"}, {"%5S", 0, "(null)"},
        {"%S", 1, ""},       {"%1$", 0, ""},
        {"%0$", 0, ""},      {"%n", reinterpret_cast<intptr_t>(&target), ""},
        {"%c", 0, ""},  // an empty scratch text: nothing written, formatting goes on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.conversion);
        const char* expected = c.expected;
        if (expected == nullptr) {
            std::snprintf(library, sizeof library, c.conversion, c.slot);
            expected = library;
        }
        const std::string format = std::string("a") + c.conversion + "b|%d";
        EXPECT_EQ(Format(format.c_str(), c.slot, 7), std::string("a") + expected + "b|7");
    }
    EXPECT_EQ(target, 17);
}
