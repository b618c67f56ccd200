// The iconv family and code pages by number, each member checked against iconv directly.
#include "text/lencoding.h"

#include <gtest/gtest.h>

#include <cstring>
#include <span>
#include <string>
#include <tuple>

#include "iconv_reference.h"

namespace {

using BufferFn = void (*)(char*, const char*, unsigned long);
using StringFn = void (*)(LStringLongTemplate<char>&, const char*);

struct Member {
    const char* name;
    BufferFn from;
    BufferFn to;
    const char* encoding;  // iconv name used by the buffer forms
    const char* sample;    // UTF-8 text representable in the encoding
};

const char* const kCyrillic = "\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82 1";  // Привет 1
const char* const kJapanese = "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E abc";  // 日本語 abc
const char* const kKorean = "\xED\x95\x9C\xEA\xB5\xAD\xEC\x96\xB4";        // 한국어
const char* const kChinese = "\xE4\xB8\xAD\xE6\x96\x87 x";                 // 中文 x
const char* const kLatin = "Caf\xC3\xA9 \xC3\xBC\xC3\x9F";                 // Café üß

const Member kMembers[] = {
    {"ISO88591", LCopyFromISO88591, LCopyToISO88591, "ISO-8859-1", kLatin},
    {"WIN1251", LCopyFromWIN1251, LCopyToWIN1251, "WINDOWS-1251", kCyrillic},
    {"WIN1252", LCopyFromWIN1252, LCopyToWIN1252, "WINDOWS-1252", "\xE2\x82\xAC 5 \xC3\xA9"},
    {"ACP", LCharsetsCopyFromACP, LCharsetsCopyToACP, "WINDOWS-1252", "\xE2\x80\x9Cq\xE2\x80\x9D"},
    {"SHIFTJIS", LCopyFromSHIFTJIS932, LCopyToSHIFTJIS932, "SHIFT-JIS", kJapanese},
    {"ISO2022JP", LCopyFromISO2022JP, LCopyToISO2022JP, "ISO-2022-JP", kJapanese},
    {"EUCKR", LCopyFromEUCKR, LCopyToEUCKR, "EUC-KR", kKorean},
    {"ISO88595", LCopyFromISO88595, LCopyToISO88595, "ISO-8859-5", kCyrillic},
    {"GB18030", LCopyFromGB18030, LCopyToGB18030, "GB18030", kChinese},
    {"BIG5", LCopyFromBIG5, LCopyToBIG5, "BIG5", kChinese},
    {"GBK", LCopyFromGBK, LCopyToGBK, "GBK", kChinese},
    {"WIN1256", LCopyFromWIN1256, LCopyToWIN1256, "WINDOWS-1256",
     "\xD8\xB3\xD9\x84\xD8\xA7\xD9\x85"},
    {"ISO88592", LCopyFromISO88592, LCopyToISO88592, "ISO-8859-2", "\xC5\x81\xC3\xB3\xC4\x8F"},
    {"MacRoman", LCopyFromMacRoman, LCopyToMacRoman, "MACINTOSH", "\xE2\x84\xA2 \xC3\xA9"}};

TEST(IconvFamily, BufferFormsUseTheirEncodingBarKoiToItsUnknownName) {
    for (const Member& m : kMembers) {
        SCOPED_TRACE(m.name);
        const std::string encoded = Iconv(m.encoding, "UTF-8", m.sample);
        ASSERT_FALSE(encoded.empty());
        ASSERT_NE(encoded, m.sample);
        char out[128];
        m.to(out, m.sample, sizeof out);
        EXPECT_EQ(std::string(out), encoded);
        char back[128];
        m.from(back, encoded.c_str(), sizeof back);
        EXPECT_STREQ(back, m.sample);
    }
    char out[64];
    LCopyFromKOI8R(out, Iconv("KOI8-R", "UTF-8", kCyrillic).c_str(), sizeof out);
    EXPECT_STREQ(out, kCyrillic);
    std::memset(out, 'x', sizeof out);
    LCopyToKOI8R(out, kCyrillic, sizeof out);  // names "KOI8-R0", which iconv does not know
    EXPECT_STREQ(out, "");
}

TEST(IconvFamily, StringFormsTheirNamesAndGrowth) {
    // Where a string form's encoding differs from its name, that is deliberate.
    const struct {
        const char* name;
        StringFn from, to;
        const char* reads;
        const char* writes;
        const char* sample;  // UTF-8 text both encodings hold
    } members[] = {
        {"ISO88591", LCopyFromISO88591, LCopyToISO88591, "ISO-8859-1", "ISO-8859-1", kLatin},
        {"WIN1252", LCopyFromWIN1252, LCopyToWIN1252, "WINDOWS-1252", "WINDOWS-1252",
         "\u20AC\u2013"},
        {"SHIFTJIS", LCopyFromSHIFTJIS932, LCopyToSHIFTJIS932, "SHIFT-JIS", "SHIFT-JIS", kJapanese},
        {"ISO2022JP", LCopyFromISO2022JP, LCopyToISO2022JP, "ISO-2022-JP", "ISO-2022-JP", "abc"},
        {"EUCKR", LCopyFromEUCKR, LCopyToEUCKR, "EUC-KR", "EUC-KR", kKorean},
        {"ISO88595", LCopyFromISO88595, LCopyToISO88595, "ISO-8859-5", "ISO-8859-5", kCyrillic},
        {"GB18030", LCopyFromGB18030, LCopyToGB18030, "ISO-8859-5", "GB18030", kCyrillic},
        {"KOI8R", LCopyFromKOI8R, LCopyToKOI8R, "ISO-8859-5", "GB18030", kCyrillic},
        {"WIN1256", LCopyFromWIN1256, LCopyToWIN1256, "WINDOWS-1256", "WINDOWS-1256",
         "\u0633\u0644"},
        {"ISO88592", LCopyFromISO88592, LCopyToISO88592, "ISO-8859-2", "ISO-8859-2",
         "\u0141\u00F3"},
        {"MacRoman", LCopyFromMacRoman, LCopyToMacRoman, "MACINTOSH", "MACINTOSH", "\u2122\u00E9"},
        {"IBM437", LCopyFromIBM437, LCopyToIBM437, "ISO-8859-1", "ISO-8859-1", kLatin}};
    for (const auto& m : members) {
        SCOPED_TRACE(m.name);
        const std::string input = Iconv(m.reads, "UTF-8", m.sample);
        const std::string written = Iconv(m.writes, "UTF-8", m.sample);
        ASSERT_FALSE(input.empty() || written.empty());
        LStringLongTemplate<char> out("previous content");
        m.from(out, input.c_str());
        EXPECT_EQ(std::string(out.GetText()), m.sample);
        EXPECT_EQ(out.GetLength(), std::strlen(m.sample));
        m.to(out, m.sample);
        EXPECT_EQ(std::string(out.GetText()), written);
        EXPECT_EQ(out.GetLength(), written.size());
    }
    // "To" forms whose encoding is longer than the UTF-8 text start again in more room: the
    // string holds the whole text whether it overflows the first room once or twice or fills it
    // exactly, and whether or not the string held something longer before.
    const std::tuple<StringFn, const char*, const char*> cases[] = {
        {LCopyToGB18030, "GB18030", "\xC3\xA9"},              // é: 2 bytes, 4 in GB18030
        {LCopyToGB18030, "GB18030", "\xC3\xA9\xE4\xB8\xAD"},  // é中: fills 6 bytes exactly
        {LCopyToISO2022JP, "ISO-2022-JP", "\xE6\x97\xA5"},    // 日: 3 bytes, 8 in JIS
        {LCopyToISO2022JP, "ISO-2022-JP",
         "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE6\x97\xA5\xE6\x9C\xAC"}};
    for (auto [to, encoding, input] : cases) {
        const std::string expected = Iconv(encoding, "UTF-8", input);
        LStringLongTemplate<char> fresh, reused("an earlier, longer content of the string");
        for (LStringLongTemplate<char>* out : {&fresh, &reused}) {
            to(*out, input);
            EXPECT_EQ(std::string(out->GetText(), out->GetLength()), expected) << encoding;
        }
    }
}

TEST(IconvFamily, CutsAndInvalidInputEndTheText) {
    char out[8];
    std::memset(out, 'x', sizeof out);
    LCopyFromISO88591(out, "\xE9\xE9\xE9\xE9\xE9", 5);  // two characters and room to terminate
    EXPECT_STREQ(out, "\xC3\xA9\xC3\xA9");
    std::memset(out, 'x', sizeof out);
    LCopyFromISO88591(out, "abcdefghij", 4);  // output full: stays unterminated inside size
    EXPECT_EQ(std::string(out, 4), "abcd");
    EXPECT_EQ(out[4], 'x');
    LCopyToISO88591(out, "ab\u20ACcd", sizeof out);  // no Latin-1 euro sign
    EXPECT_STREQ(out, "ab");
    LCopyToWIN1252(out, "a\xFF\x62", sizeof out);  // "a", a byte UTF-8 never uses, "b"
    EXPECT_STREQ(out, "a");
    out[0] = 'x';
    LCopyToWIN1252(out, "abc", 0);
    EXPECT_EQ(out[0], 'x');
    // The unsized forms have length + 1 bytes: shrinking fits, growing is cut at a whole
    // character.
    LCopyToISO88591(out, "caf\xC3\xA9");
    EXPECT_STREQ(out, "caf\xE9");
    std::memset(out, 0, sizeof out);
    LCopyFromISO88591(out, "a\xE9\xE9");
    EXPECT_STREQ(out, "a\xC3\xA9");
}

TEST(CodePages, ByNumber) {
    struct Case {
        unsigned cp;
        const char* in;
        unsigned long size;
        bool ok;
        std::string out;
    };
    const Case from[] = {
        {1252, "\x80 \xE9", 64, true, "\u20AC \u00E9"},
        {1251, "\xCF\xF0", 64, true, "\u041F\u0440"},
        {932, "\x93\xFA", 64, true, "\u65E5"},
        {65001, "ok", 64, true, "ok"},
        // The UTF-8 result is cut with utf8strlcpy (whole characters, one more byte after ASCII).
        {1252, "\xE9\xE9\xE9", 6, true, "\u00E9\u00E9"},
        {1252, "abcdef", 4, true, "ab"},
        {12345, "abc", 64, false, ""},
        {932, "\x93", 64, false, ""},  // a cut double-byte character
    };
    const Case to[] = {
        {1252, "\u20AC 5", 64, true, "\x80 5"},
        {949, kKorean, 64, true, Iconv("CP949", "UTF-8", kKorean)},
        {50220, "\u65E5", 64, true, "\x1B$BF|\x1B(B"},  // shift state closed at the end
        {1252, "\u041F", 64, false, ""},                // no Cyrillic
        {1252, "abcd", 4, false, ""},                   // terminator does not fit
        {0, "abc", 64, false, ""}};
    using Copy = bool (*)(unsigned, char*, const char*, unsigned long);
    for (auto [copy, cases] :
         {std::pair<Copy, std::span<const Case>>{LCopyFromSpecificCodePage, from},
          {LCopyToSpecificCodePage, to}}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(testing::Message() << c.cp << " " << testing::PrintToString(c.in));
            char out[64] = "stale";
            EXPECT_EQ(copy(c.cp, out, c.in, c.size), c.ok);
            EXPECT_EQ(std::string(out), c.out);
        }
    }
    LStringLongTemplate<char> s;
    EXPECT_TRUE(LCopyFromSpecificCodePage(1253, s, "\xE1\xE2"));
    EXPECT_STREQ(s.GetText(), "\u03B1\u03B2");
    EXPECT_EQ(s.GetLength(), 4u);
    EXPECT_FALSE(LCopyFromSpecificCodePage(7, s, LStringLongTemplate<char>("abc")));
    EXPECT_TRUE(s.IsEmpty());
    EXPECT_EQ(_LCodePageEncodingName(1200), nullptr);  // UTF-16 is not a byte text
}

}  // namespace
