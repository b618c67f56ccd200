// The iconv family and the code-page conversions: each member's encoding pair checked
// against iconv directly, the deliberate mismatches, cuts and termination, and code pages by
// number.
#include "text/lencoding.h"

#include <gtest/gtest.h>
#include <iconv.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

// iconv of the whole text, or "" when any part fails.
std::string Iconv(const char* to, const char* from, const std::string& in) {
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1))
        return "";
    std::string out(8 * in.size() + 16, '\0');
    char* inPos = const_cast<char*>(in.data());
    size_t inLeft = in.size();
    char* outPos = out.data();
    size_t outLeft = out.size();
    size_t rc = iconv(cd, &inPos, &inLeft, &outPos, &outLeft);
    if (rc != static_cast<size_t>(-1))
        rc = iconv(cd, nullptr, nullptr, &outPos, &outLeft);
    iconv_close(cd);
    if (rc == static_cast<size_t>(-1))
        return "";
    out.resize(out.size() - outLeft);
    return out;
}

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
    {"MacRoman", LCopyFromMacRoman, LCopyToMacRoman, "MACINTOSH", "\xE2\x84\xA2 \xC3\xA9"},
};

TEST(IconvFamily, BufferFormsUseTheirEncoding) {
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
}

TEST(IconvFamily, KoiBufferFormsAndTheUnknownName) {
    const std::string koi = Iconv("KOI8-R", "UTF-8", kCyrillic);
    char out[64];
    LCopyFromKOI8R(out, koi.c_str(), sizeof out);
    EXPECT_STREQ(out, kCyrillic);
    std::memset(out, 'x', sizeof out);
    LCopyToKOI8R(out, kCyrillic, sizeof out);  // names "KOI8-R0", which iconv does not know
    EXPECT_STREQ(out, "");
    LCopyToKOI8R(out, "plain", sizeof out);
    EXPECT_STREQ(out, "");
}

TEST(IconvFamily, StringFormsAndTheirNames) {
    struct StringMember {
        const char* name;
        StringFn fn;
        const char* to;
        const char* from;
        std::string input;
    };
    const std::string cyr5 = Iconv("ISO-8859-5", "UTF-8", kCyrillic);
    const std::string latin1 = Iconv("ISO-8859-1", "UTF-8", kLatin);
    const StringMember members[] = {
        {"FromISO88591", LCopyFromISO88591, "UTF-8", "ISO-8859-1", latin1},
        {"ToISO88591", LCopyToISO88591, "ISO-8859-1", "UTF-8", kLatin},
        {"FromWIN1252", LCopyFromWIN1252, "UTF-8", "WINDOWS-1252", "\x80\x93"},
        {"ToWIN1252", LCopyToWIN1252, "WINDOWS-1252", "UTF-8", "\xE2\x82\xAC"},
        {"FromSHIFTJIS", LCopyFromSHIFTJIS932, "UTF-8", "SHIFT-JIS",
         Iconv("SHIFT-JIS", "UTF-8", kJapanese)},
        {"ToSHIFTJIS", LCopyToSHIFTJIS932, "SHIFT-JIS", "UTF-8", kJapanese},
        {"FromISO2022JP", LCopyFromISO2022JP, "UTF-8", "ISO-2022-JP",
         Iconv("ISO-2022-JP", "UTF-8", "abc")},
        {"ToISO2022JP", LCopyToISO2022JP, "ISO-2022-JP", "UTF-8", "abc"},
        {"FromEUCKR", LCopyFromEUCKR, "UTF-8", "EUC-KR", Iconv("EUC-KR", "UTF-8", kKorean)},
        {"ToEUCKR", LCopyToEUCKR, "EUC-KR", "UTF-8", kKorean},
        {"FromISO88595", LCopyFromISO88595, "UTF-8", "ISO-8859-5", cyr5},
        {"ToISO88595", LCopyToISO88595, "ISO-8859-5", "UTF-8", kCyrillic},
        // Reads ISO-8859-5, not GB18030.
        {"FromGB18030", LCopyFromGB18030, "UTF-8", "ISO-8859-5", cyr5},
        {"ToGB18030", LCopyToGB18030, "GB18030", "UTF-8", kChinese},
        // The string forms of the KOI8-R pair read ISO-8859-5 and write GB18030.
        {"FromKOI8R", LCopyFromKOI8R, "UTF-8", "ISO-8859-5", cyr5},
        {"ToKOI8R", LCopyToKOI8R, "GB18030", "UTF-8", kChinese},
        {"FromWIN1256", LCopyFromWIN1256, "UTF-8", "WINDOWS-1256", "\xD3\xE1"},
        {"ToWIN1256", LCopyToWIN1256, "WINDOWS-1256", "UTF-8", "\xD8\xB3"},
        {"FromISO88592", LCopyFromISO88592, "UTF-8", "ISO-8859-2", "\xA3\xF3"},
        {"ToISO88592", LCopyToISO88592, "ISO-8859-2", "UTF-8", "\xC5\x81"},
        {"FromMacRoman", LCopyFromMacRoman, "UTF-8", "MACINTOSH", "\xAA\x8E"},
        {"ToMacRoman", LCopyToMacRoman, "MACINTOSH", "UTF-8", "\xE2\x84\xA2"},
        // IBM437 is converted as ISO-8859-1.
        {"FromIBM437", LCopyFromIBM437, "UTF-8", "ISO-8859-1", latin1},
        {"ToIBM437", LCopyToIBM437, "ISO-8859-1", "UTF-8", kLatin},
    };
    for (const StringMember& m : members) {
        SCOPED_TRACE(m.name);
        const std::string expected = Iconv(m.to, m.from, m.input);
        ASSERT_FALSE(expected.empty());
        LStringLongTemplate<char> out("previous content");
        m.fn(out, m.input.c_str());
        EXPECT_EQ(std::string(out.GetText()), expected);
        EXPECT_EQ(out.GetLength(), expected.size());
    }
    // The GB18030 reading really is ISO-8859-5: GB18030 bytes come out as Cyrillic letters.
    const std::string gb = Iconv("GB18030", "UTF-8", kChinese);
    LStringLongTemplate<char> out;
    LCopyFromGB18030(out, gb.c_str());
    EXPECT_NE(std::string(out.GetText()), kChinese);
    EXPECT_EQ(std::string(out.GetText()), Iconv("UTF-8", "ISO-8859-5", gb));
}

TEST(IconvFamily, StringFormsAreSizedByInputLength) {
    // "To" forms get input length + 1 bytes: an encoding that grows the text is cut.
    LStringLongTemplate<char> out;
    LCopyToISO2022JP(out, "\xE6\x97\xA5");  // 3 bytes in, 8 bytes of escapes and JIS out
    EXPECT_LE(out.GetLength(), 3u);
    EXPECT_EQ(out.GetLength(), std::strlen(out.GetText()));
    // "From" forms get 6 x length + 1: every UTF-8 growth fits.
    const std::string high(50, '\xE9');
    LCopyFromISO88591(out, high.c_str());
    EXPECT_EQ(out.GetLength(), 100u);
    LCopyFromISO88591(out, "");
    EXPECT_STREQ(out.GetText(), "");
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
    LCopyToISO88591(out,
                    "ab\xE2\x82\xAC"
                    "cd",
                    sizeof out);  // no Latin-1 euro sign
    EXPECT_STREQ(out, "ab");
    LCopyToWIN1252(out, "a\xC3", sizeof out);  // cut UTF-8 sequence
    EXPECT_STREQ(out, "a");
    LCopyToWIN1252(out,
                   "a\xFF"
                   "b",
                   sizeof out);
    EXPECT_STREQ(out, "a");
    out[0] = 'x';
    LCopyToWIN1252(out, "abc", 0);
    EXPECT_EQ(out[0], 'x');
}

TEST(IconvFamily, UnsizedLatinOneForms) {
    char out[16] = {};
    LCopyToISO88591(out, "caf\xC3\xA9");  // shrinks: fits in length + 1
    EXPECT_STREQ(out, "caf\xE9");
    std::memset(out, 0, sizeof out);
    LCopyFromISO88591(out, "ab");
    EXPECT_STREQ(out, "ab");
    // Growing past length + 1 bytes is cut at a whole character.
    std::memset(out, 0, sizeof out);
    LCopyFromISO88591(out, "a\xE9\xE9");
    EXPECT_STREQ(out, "a\xC3\xA9");
}

TEST(IconvFamily, FixedLengthTemplate) {
    char out[32];
    LCopyIconvFixedLength<char, char>(out, "\xC3\xA9t\xC3\xA9", sizeof out, "ISO-8859-1", "UTF-8");
    EXPECT_STREQ(out, "\xE9t\xE9");
    out[0] = 'x';
    LCopyIconvFixedLength<char, char>(out, "abc", sizeof out, "NO-SUCH-CODE", "UTF-8");
    EXPECT_STREQ(out, "");
    char16_t wide[8];
    LCopyIconvFixedLength<char16_t, char>(wide, "h\xC3\xA9", 8, "UTF-16LE", "UTF-8");
    EXPECT_EQ(std::u16string(wide), u"h\u00E9");
}

TEST(CodePages, ByNumber) {
    char out[64];
    EXPECT_TRUE(LCopyFromSpecificCodePage(1252, out, "\x80 \xE9", sizeof out));
    EXPECT_STREQ(out, "\xE2\x82\xAC \xC3\xA9");
    EXPECT_TRUE(LCopyFromSpecificCodePage(1251, out, "\xCF\xF0", sizeof out));
    EXPECT_STREQ(out, "\xD0\x9F\xD1\x80");
    EXPECT_TRUE(LCopyFromSpecificCodePage(932, out, "\x93\xFA", sizeof out));
    EXPECT_STREQ(out, "\xE6\x97\xA5");
    EXPECT_TRUE(LCopyFromSpecificCodePage(437, out, "\x82", sizeof out));
    EXPECT_STREQ(out, "\xC3\xA9");
    EXPECT_TRUE(LCopyFromSpecificCodePage(65001, out, "ok", sizeof out));
    EXPECT_STREQ(out, "ok");
    // The UTF-8 result is cut with utf8strlcpy (whole characters, one more byte after ASCII).
    EXPECT_TRUE(LCopyFromSpecificCodePage(1252, out, "\xE9\xE9\xE9", 6));
    EXPECT_STREQ(out, "\xC3\xA9\xC3\xA9");
    EXPECT_TRUE(LCopyFromSpecificCodePage(1252, out, "abcdef", 4));
    EXPECT_STREQ(out, "ab");

    std::strcpy(out, "stale");
    EXPECT_FALSE(LCopyFromSpecificCodePage(12345, out, "abc", sizeof out));
    EXPECT_STREQ(out, "");
    std::strcpy(out, "stale");
    EXPECT_FALSE(LCopyFromSpecificCodePage(932, out, "\x93", sizeof out));  // cut DBCS
    EXPECT_STREQ(out, "");

    LStringLongTemplate<char> s;
    EXPECT_TRUE(LCopyFromSpecificCodePage(1253, s, "\xE1\xE2"));
    EXPECT_STREQ(s.GetText(), "\xCE\xB1\xCE\xB2");
    EXPECT_EQ(s.GetLength(), 4u);
    EXPECT_FALSE(LCopyFromSpecificCodePage(7, s, LStringLongTemplate<char>("abc")));
    EXPECT_TRUE(s.IsEmpty());

    EXPECT_TRUE(LCopyToSpecificCodePage(1252, out, "\xE2\x82\xAC 5", sizeof out));
    EXPECT_STREQ(out, "\x80 5");
    EXPECT_TRUE(LCopyToSpecificCodePage(949, out, kKorean, sizeof out));
    EXPECT_EQ(std::string(out), Iconv("CP949", "UTF-8", kKorean));
    EXPECT_TRUE(LCopyToSpecificCodePage(50220, out, "\xE6\x97\xA5", sizeof out));
    EXPECT_EQ(std::string(out), "\x1B$BF|\x1B(B");  // shift state closed at the end
    EXPECT_FALSE(LCopyToSpecificCodePage(1252, out, "\xD0\x9F", sizeof out));  // no Cyrillic
    EXPECT_STREQ(out, "");
    EXPECT_FALSE(LCopyToSpecificCodePage(1252, out, "abcd", 4));  // terminator does not fit
    EXPECT_STREQ(out, "");
    EXPECT_TRUE(LCopyToSpecificCodePage(1252, out, "abc", 4));
    EXPECT_STREQ(out, "abc");
    EXPECT_FALSE(LCopyToSpecificCodePage(0, out, "abc", sizeof out));
    EXPECT_STREQ(out, "");
}

TEST(CodePages, TableNamesAreKnownToIconv) {
    for (unsigned int cp = 0; cp < 70000; ++cp) {
        const char* name = _LCodePageEncodingName(cp);
        if (name == nullptr)
            continue;
        iconv_t cd = iconv_open("UTF-8", name);
        EXPECT_NE(cd, reinterpret_cast<iconv_t>(-1)) << cp << " " << name;
        if (cd != reinterpret_cast<iconv_t>(-1))
            iconv_close(cd);
    }
    EXPECT_STREQ(_LCodePageEncodingName(1252), "WINDOWS-1252");
    EXPECT_STREQ(_LCodePageEncodingName(37), "IBM037");
    EXPECT_EQ(_LCodePageEncodingName(1200), nullptr);  // UTF-16 is not a byte text
}

}  // namespace
