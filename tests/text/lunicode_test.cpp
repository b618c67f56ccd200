// UTF converters against glibc iconv on generated texts, plus cuts, result codes, index
// helpers, Latin-1, byte-swapped forms and the right-to-left table.
#include "text/lunicode.h"

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "iconv_reference.h"

namespace {

template <class Unit>
std::basic_string<Unit> AsUnits(const std::string& bytes) {
    std::basic_string<Unit> units(bytes.size() / sizeof(Unit), 0);
    std::memcpy(units.data(), bytes.data(), units.size() * sizeof(Unit));
    return units;
}

std::string Utf8Of(const std::u32string& text) {
    IconvResult r = IconvRun("UTF-8", "UTF-32LE", text.data(), text.size() * 4);
    EXPECT_TRUE(r.complete);
    return r.bytes;
}

// Random code points (never 0, never surrogates) with the encoding-length boundaries often.
class TextGenerator {
public:
    explicit TextGenerator(unsigned seed) : rng_(seed) {}
    char32_t CodePoint() {
        // U+FEFF is here so that a byte-order mark is shown to decode as a plain character.
        static constexpr char32_t kEdges[] = {0x01,   0x7F,    0x80,     0x7FF,    0x800,
                                              0xD7FF, 0xE000,  0xFFFD,   0xFFFF,   0x10000,
                                              0xFEFF, 0xFFFFF, 0x100000, 0x10FFFF, 0xFE0F};
        // Else one-byte (twice as often), two-, three- and four-byte forms; the three-byte
        // range skips the surrogate block.
        static constexpr char32_t kFirst[] = {0, 1, 1, 0x80, 0x800, 0x10000};
        static constexpr char32_t kCount[] = {0, 0x7F, 0x7F, 0x800 - 0x80, 0xF000, 0x100000};
        const size_t kind = Pick(6);
        if (kind == 0) {
            return kEdges[Pick(std::size(kEdges))];
        }
        const char32_t c = kFirst[kind] + Pick(kCount[kind]);
        return kind == 4 && c >= 0xD800 ? c + 0x800 : c;
    }
    std::u32string Valid(size_t maxLength) {
        std::u32string text;
        for (size_t n = Pick(maxLength + 1); n > 0; --n)
            text += CodePoint();
        return text;
    }
    // A well-formed text with one or more faults put in: stray continuation bytes, cut
    // sequences, overlong forms, encoded surrogates, values above U+10FFFF, bytes F5 to FF.
    std::string IllFormed(size_t maxLength) {
        static const std::vector<std::string> kFaults = [] {
            std::istringstream in(
                "\x80 \xBF \xC0\x80 \xC1\xBF \xC2 \xE0\x80\x80 \xE0\x9F\xBF \xED\xA0\x80 "
                "\xED\xBF\xBF \xE1\x80 \xF0\x80\x80\x80 \xF0\x8F\xBF\xBF \xF4\x90\x80\x80 "
                "\xF5\x80\x80\x80 \xF8\x88\x80\x80\x80 \xFE \xFF \xF1\x80\x80 \xE2\x82 \xC3\x28");
            return std::vector<std::string>(std::istream_iterator<std::string>(in), {});
        }();
        std::string text = Utf8Of(Valid(maxLength));
        for (size_t faults = 1 + Pick(3); faults > 0; --faults) {
            const std::string fault = Pick(4) == 0 ? std::string(1, char(0x80 + Pick(0x80)))
                                                   : kFaults[Pick(kFaults.size())];
            text.insert(Pick(text.size() + 1), fault);
        }
        return text;
    }
    size_t Pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng_); }

private:
    std::mt19937 rng_;
};

// fn(out, in, size) into a fresh buffer of `size` units, its result checked; the text made.
template <class Out, class R = int, class In>
std::basic_string<Out> Convert(R (*fn)(Out*, const In*, unsigned long), const In* in,
                               unsigned long size, int result = 0) {
    std::vector<Out> out(size + 1, Out(0x5A));
    EXPECT_EQ(static_cast<int>(fn(out.data(), in, size)), result);
    EXPECT_EQ(out[size], Out(0x5A)) << "written past the end";
    return out.data();
}

// Both UTF-8 decoders give what iconv gives up to its first error and say whether they
// stopped there; whether iconv took the whole text.
bool ExpectDecodesAsIconv(const std::string& utf8) {
    SCOPED_TRACE(testing::PrintToString(utf8));
    const IconvResult ref = IconvRun("UTF-32LE", "UTF-8", utf8.data(), utf8.size());
    const std::u32string prefix = AsUnits<char32_t>(ref.bytes);
    std::vector<char32_t> out32(utf8.size() + 1, 0xAAAA);
    const int r32 = LCopyUTF32FromUTF8Native(out32.data(), utf8.c_str(), out32.size());
    EXPECT_EQ(r32, ref.complete ? 0 : 2);
    EXPECT_EQ(std::u32string(out32.data()), prefix);
    std::vector<char16_t> out16(utf8.size() + 1);
    EXPECT_EQ(LCopyUnicodeFromUTF8(out16.data(), utf8.c_str(), out16.size()), r32);
    // Astral characters cut to 16 bits may be 0 (U+10000), so compare by length.
    EXPECT_EQ(std::u16string(out16.data(), prefix.size()),
              std::u16string(prefix.begin(), prefix.end()));
    EXPECT_EQ(out16[prefix.size()], 0);
    return ref.complete;
}

constexpr int kTexts = 400;

TEST(UnicodeAgainstIconv, WellFormedTextsConvertEveryWayAndIllFormedOnesStopAsIconvDoes) {
    TextGenerator gen(1);
    for (int i = 0; i < kTexts; ++i) {
        const std::u32string text = gen.Valid(64);
        const std::string utf8 = Utf8Of(text);
        const std::u16string utf16 =
            AsUnits<char16_t>(IconvRun("UTF-16LE", "UTF-32LE", text.data(), 4 * text.size()).bytes);
        const std::wstring wide(text.begin(), text.end());
        ASSERT_TRUE(ExpectDecodesAsIconv(utf8));
        const unsigned long size8 = 4 * text.size() + 1;
        EXPECT_EQ(Convert<wchar_t>(LCopyUTF32FromUTF8, utf8.c_str(), utf8.size() + 1), wide);
        EXPECT_EQ(Convert<char>(LCopyUTF8FromUTF32Native, text.c_str(), size8), utf8);
        EXPECT_EQ(Convert<char>(LCopyUTF8FromUTF32, wide.c_str(), size8), utf8);
        // UTF-16 with surrogate pairs (from iconv) joins back into the same UTF-8 and UTF-32.
        EXPECT_EQ(Convert<char>(LCopyUTF8FromUnicode, utf16.c_str(), size8), utf8);
        EXPECT_EQ(Convert<char32_t>(LCopyUTF32FromUnicode, utf16.c_str(), utf16.size() + 1), text);
        std::vector<char16_t> to16(text.size() + 1);
        ASSERT_EQ(LCopyUnicodeFromUTF32(to16.data(), text.c_str(), to16.size()), 0);
        EXPECT_EQ(std::u16string(to16.data(), text.size()),
                  std::u16string(text.begin(), text.end()));
        EXPECT_EQ(to16[text.size()], 0);
    }
    // Ill-formed UTF-8 stops where iconv stops.
    int stoppedEarly = 0;
    for (int i = 0; i < kTexts; ++i) {
        stoppedEarly += !ExpectDecodesAsIconv(gen.IllFormed(40));
    }
    // The generator puts at least one fault in each text; nearly all must be seen as such.
    EXPECT_GT(stoppedEarly, kTexts * 9 / 10);
}

// Every size from 1 up: nothing at or past out[size] is touched, the output is terminated,
// it is a prefix of the full conversion, and the result says whether it was cut.
TEST(UnicodeBounds, EveryOutputSizeStaysInsideTheBuffer) {
    const std::string utf8 = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";  // a é € 😀 z
    const std::u32string full = U"a\u00E9\u20AC\U0001F600z";
    for (unsigned long size = 1; size <= full.size() + 1; ++size) {
        const int r = size == full.size() + 1 ? 0 : 1;
        EXPECT_EQ(Convert<char32_t>(LCopyUTF32FromUTF8Native, utf8.c_str(), size, r),
                  full.substr(0, size - 1));
        EXPECT_EQ(Convert<char16_t>(LCopyUnicodeFromUTF8, utf8.c_str(), size, r).size(), size - 1);
    }
    for (unsigned long size = 1; size <= utf8.size() + 1; ++size) {
        const std::string got = Convert<char>(LCopyUTF8FromUTF32Native, full.c_str(), size,
                                              size == utf8.size() + 1 ? 0 : 1);
        EXPECT_EQ(utf8.compare(0, got.size(), got), 0);
        EXPECT_EQ(utf8strlen(got.c_str()),
                  LCharsetsUTF8ByteIndexToCharIndex(utf8.c_str(), got.size()))
            << "a character was split at size " << size;
    }
    // A long ASCII run exercises the 8-byte path against small outputs.
    const std::string ascii(100, 'q');
    for (unsigned long size = 1; size < 30; ++size) {
        EXPECT_EQ(Convert<char16_t>(LCopyUnicodeFromUTF8, ascii.c_str(), size, 1).size(), size - 1);
    }
    char32_t untouched = 7;
    EXPECT_EQ(LCopyUTF32FromUTF8Native(&untouched, "abc", 0), 1);
    EXPECT_EQ(untouched, 7u);
}

TEST(UnicodeEdges, ValuesAboveTheLastCodePointAndLoneSurrogates) {
    const char32_t tooBig[] = {0x110000, 0};
    EXPECT_EQ(Convert<char>(LCopyUTF8FromUTF32Native, tooBig, 8, 2), "\xEF\xBF\xBD");
    // A bad value first, then a full output: the later result wins.
    const char32_t both[] = {0x110000, 0x41, 0x42, 0};
    EXPECT_EQ(Convert<char>(LCopyUTF8FromUTF32Native, both, 5, 1), "\uFFFDA");
    EXPECT_EQ(Convert<char16_t>(LCopyUnicodeFromUTF32, tooBig, 4, 2), u"\uFFFD");
    // A lone surrogate in UTF-16 becomes U+FFFD, both ways out.
    EXPECT_EQ(Convert<char>(LCopyUTF8FromUnicode, u"a\xDC00x", 8, 2), "a\xEF\xBF\xBDx");
    EXPECT_EQ(Convert<char32_t>(LCopyUTF32FromUnicode, u"\xD800x", 4, 2), U"\uFFFDx");
}

TEST(UnicodeStrings, StringFormsSizeForTheWholeInput) {
    LStringLongTemplate<wchar_t> sw;
    EXPECT_EQ(LCopyUTF32FromUTF8(sw, "a\xF0\x9F\x98\x80"), 0);
    EXPECT_EQ(std::wstring(sw.GetText(), sw.GetLength()), L"a\U0001F600");
    LStringLongTemplate<char> s8;  // three bytes for each unit
    EXPECT_EQ(LCopyUTF8FromUnicode(s8, u"\u20AC\u20AC\u20AC\U0001F600"), 0);
    EXPECT_EQ(std::string(s8.GetText(), s8.GetLength()),
              "\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC\xF0\x9F\x98\x80");
    LStringLongTemplate<char16_t> s16;
    EXPECT_EQ(LCopyToUnicode(s16, LStringLongTemplate<char>("x\xFFy")), 2);
    EXPECT_EQ(std::u16string(s16.GetText(), s16.GetLength()), u"x");
}

TEST(Utf8Copy, CutsNeverSplitACharacterAndIndexesFollowLeadBytes) {
    const struct {
        const char* in;
        unsigned long size, result;
        const char* out;
    } cases[] = {{"abc", 16, 3, "abc"},
                 {"abc", 4, 3, "abc"},
                 {"abcdef", 4, 3, "ab"},      // the deliberate extra cut after plain ASCII
                 {"ab\u20ACcd", 5, 3, "ab"},  // a character straddling the limit goes whole
                 {"ab\u20ACcd", 4, 3, "ab"},
                 {"ab\u00E9cd", 5, 5, "ab\xC3\xA9"},  // ending exactly at the limit keeps it
                 {"ab\u20ACcd", 6, 6, "ab\xE2\x82\xAC"},
                 {"\xF0\x9F\x98\x80!", 5, 5, "\xF0\x9F\x98\x80"},
                 {"\x80\x80\x80\x80", 3, 0, ""},  // only continuation bytes before the cut
                 {"abc", 1, 0, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << testing::PrintToString(c.in) << " size " << c.size);
        char out[16];
        EXPECT_EQ(utf8strlcpy(out, c.in, c.size), c.result);
        EXPECT_STREQ(out, c.out);
    }
    char untouched = 'u';
    EXPECT_EQ(utf8strlcpy(&untouched, "abc", 0), 0u);
    EXPECT_EQ(untouched, 'u');
    const std::pair<unsigned char, int> leads[] = {{0x41, 1}, {0xBF, 1}, {0xC0, 2}, {0xDF, 2},
                                                   {0xE0, 3}, {0xEF, 3}, {0xF0, 4}, {0xF7, 4},
                                                   {0xF8, 5}, {0xFB, 5}, {0xFC, 6}, {0xFF, 6}};
    for (auto [lead, count] : leads) {
        EXPECT_EQ(LGetUTF8CharacterByteCount(lead), count) << std::hex << int(lead);
    }
    const char* text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";  // byte offsets 0 1 3 6 10
    EXPECT_EQ(utf8strlen(text), 5u);
    EXPECT_EQ(utf8strlen(""), 0u);
    const unsigned long starts[] = {0, 1, 3, 6, 10, 11};
    for (unsigned long i = 0; i < 6; ++i) {
        EXPECT_EQ(LCharsetsUTF8CharIndexToByteIndex(text, i), starts[i]);
        EXPECT_EQ(LCharsetsUTF8ByteIndexToCharIndex(text, starts[i]), i);
    }
    EXPECT_EQ(LCharsetsUTF8CharIndexToByteIndex(text, 99), 11u);
    EXPECT_EQ(LCharsetsUTF8ByteIndexToCharIndex(text, 4), 2u);  // inside the euro sign
    EXPECT_EQ(LGetUTF8CharacterByteIndex(text), 10u);
    EXPECT_EQ(LGetUTF8CharacterByteIndex("\xF0\x9F\x98\x80"), 0u);
    EXPECT_EQ(LGetUTF8CharacterByteIndex(""), 0u);
    // Continuation bytes are not checked, but a lead byte cut by the terminator never carries
    // the walk past the end.
    EXPECT_EQ(utf8strlen("x\xF0"), 2u);
    EXPECT_EQ(LCharsetsUTF8CharIndexToByteIndex("x\xF0", 5), 2u);
    LStringLongTemplate<char> s(text);
    LUTF8StringLongRef ref(s);
    EXPECT_EQ(ref.GetCharacterCount(), 5u);
    EXPECT_EQ(ref.GetByteLength(), 11u);
    EXPECT_EQ(ref.CharIndexToByteIndex(3), 6u);
    EXPECT_EQ(static_cast<const char*>(ref), s.GetText());
    EXPECT_FALSE(ref.IsValidASCII());
}

TEST(Ansi, LatinOneConversions) {
    EXPECT_EQ(Convert<char>(LCopyAnsiFromUTF8, "caf\xC3\xA9 \xC3\xBF", 16, 1), "caf\xE9 \xFF");
    EXPECT_EQ(Convert<char>(LCopyAnsiFromUTF8, "price \xE2\x82\xAC", 16, 0), "");
    EXPECT_EQ(Convert<char>(LCopyUTF8FromAnsi, "caf\xE9", 16, 1), "caf\xC3\xA9");
    EXPECT_EQ(Convert<char>(LCopyUTF8FromAnsi, "\xE9\xE9\xE9", 5, 1), "\xC3\xA9\xC3\xA9");  // whole
    EXPECT_EQ(Convert<char16_t>(LCopyUnicodeFromAnsi, "\xE9z", 8, 1), u"\u00E9z");
    Convert<char>(LCopyAnsiFromUnicode, u"\u0100", 16, 0);
    // A large size goes through the heap staging area.
    const std::string big = std::string(10000, 'x') + "\xC3\xA9";
    EXPECT_EQ(Convert<char>(LCopyAnsiFromUTF8, big.c_str(), big.size() + 1, 1),
              std::string(10000, 'x') + "\xE9");
}

TEST(CharacterTests, AsciiVariationSelectorsAndBigEndianCopies) {
    EXPECT_TRUE(LCharsetsIsValidASCII("plain text\x7F"));
    EXPECT_FALSE(LCharsetsIsValidASCII("\x80"));
    LStringLongTemplate<char16_t> text(u"\uFE00a\uFE0F\u263A\uFE0Fb\uFDFF\uFE10");
    LRemoveVarSelectorFromUnicode(text);
    EXPECT_EQ(std::u16string(text.GetText()), u"a\u263Ab\uFDFF\uFE10");
    EXPECT_EQ(text.GetLength(), 5u);
    // Big-endian copies pad with blanks up to count, or stop at the terminator.
    char16_t out[6];
    std::memset(out, 0x77, sizeof out);
    EXPECT_EQ(LCopyToBigEndianUnicode(out, u"AB", 4, false), 4u);
    const unsigned char expected[] = {0x00, 0x41, 0x00, 0x42, 0x00, 0x20, 0x00, 0x20};
    EXPECT_EQ(std::memcmp(out, expected, sizeof expected), 0);
    EXPECT_EQ(out[4], 0x7777);  // nothing past count
    EXPECT_EQ(LCopyToBigEndianUnicode(out, u"AB", 4, true), 2u);
    EXPECT_EQ(std::memcmp(out, expected, 4), 0);
    EXPECT_EQ(out[2], 0);
    EXPECT_EQ(LCopyToBigEndianUnicode(out, u"ABCDEF", 3, true), 3u);
    EXPECT_EQ(out[3], 0);
    EXPECT_EQ(out[2], 0x4300);
}

// Both sides of edges of the right-to-left table: its first and last entries, ranges and single
// code points in between, and the ends of the code space.
TEST(LeftToRight, RangeEdges) {
    for (char32_t c : {0x05BE, 0x05D0, 0x05EA, 0x06DD, 0x200F, 0xFB40, 0xFB41, 0xFEFC}) {
        EXPECT_FALSE(LCharsetsIsLeftToRight(static_cast<wchar_t>(c))) << std::hex << unsigned(c);
    }
    for (char32_t c :
         {0x0, 0x05BD, 0x05BF, 0x05CF, 0x05EB, 0x06DC, 0x200E, 0x2010, 0xFB42, 0xFEFD, 0x10FFFF}) {
        EXPECT_TRUE(LCharsetsIsLeftToRight(static_cast<wchar_t>(c))) << std::hex << unsigned(c);
    }
    EXPECT_TRUE(LCharsetsIsLeftToRight(-1));
}

}  // namespace
