// The text helpers: number conversions, case-insensitive search, the CSV, field, query and
// token readers with their cuts, the command-line splitter and random text.
#include "text/lstring_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

TEST(LStringNumbers, Ttoi64SaturatesAndNeverGivesTheMostNegativeValue) {
    EXPECT_EQ(ttoi64template<char>(" -9223372036854775808"), -9223372036854775807LL);
    EXPECT_EQ(ttoi64template<char>("9223372036854775808"), 9223372036854775807LL);
    EXPECT_EQ(ttoi64template<char>("+12x"), 12);
    EXPECT_EQ(ttoi64template<char>("- 5"), 0);
    EXPECT_EQ(ttoi64template<wchar_t>(L"  -17z"), -17);
}

TEST(LStringNumbers, HexTextWrapsAndStopsAtTheFirstOtherCharacter) {
    EXPECT_EQ(atoh("1fG"), 31u);
    EXPECT_EQ(atoh("0x10"), 0u);
    EXPECT_EQ(atoh("123456789"), 0x23456789u);  // wraps in 32 bits
    EXPECT_EQ(wtoh(L"Ff!"), 255u);

    unsigned long size = 99;
    EXPECT_TRUE(ttosize_t(" 18446744073709551615", size));
    EXPECT_EQ(size, 18446744073709551615ul);
    EXPECT_FALSE(ttosize_t("abc", size));
    EXPECT_EQ(size, 18446744073709551615ul);
}

TEST(LStringNumbers, NumberToTextByRadix) {
    char buffer[32];
    EXPECT_STREQ(ltoa(4294967297L, buffer, 10), "1");  // cut to 32 bits
    EXPECT_STREQ(ltoa(-1L, buffer, 16), "ffffffff");
    EXPECT_STREQ(itoa(-12, buffer, 2), "-12");  // other radixes are decimal
    EXPECT_STREQ(_i64toa(-4294967297LL, buffer, 10), "-4294967297");
    EXPECT_STREQ(_i64toa(-1, buffer, 8), "1777777777777777777777");
    EXPECT_STREQ(_ui64toa(18446744073709551615ull, buffer, 10), "18446744073709551615");
    EXPECT_EQ(_ui64toa(255, buffer, 16), buffer);
    EXPECT_STREQ(buffer, "ff");
}

TEST(LStringSearch, CaseInsensitiveSubstring) {
    const char* text = "Hello World";
    EXPECT_EQ(stristr(text, "WORLD"), text + 6);
    EXPECT_EQ(stristr(text, "worlds"), nullptr);
    EXPECT_EQ(stristr("ab", "abc"), nullptr);  // needle longer than haystack
    EXPECT_EQ(stristr(text, ""), text);
    char mutableText[] = "xxABCxx";
    char* found = tstristr(mutableText, "abc");
    ASSERT_NE(found, nullptr);
    *found = 'z';
    EXPECT_STREQ(mutableText, "xxzBCxx");
    const wchar_t* wide = L"Path/To/FILE.wav";
    EXPECT_EQ(tstristr(wide, L"file.WAV"), wide + 8);

    char mixed[] = "MiXeD 1";
    EXPECT_EQ(strlwr(mixed), mixed);
    EXPECT_STREQ(mixed, "mixed 1");
    EXPECT_STREQ(strupr(mixed), "MIXED 1");
}

TEST(LStringCSV, QuotedItemsBlanksAndLineEnds) {
    char item[32];
    unsigned long position = 0;
    const char* list = "\"a b\", c ,  \" d \" ,,last\nnext";
    EXPECT_TRUE(GetCSVListItem(list, position, item, sizeof(item)));
    EXPECT_STREQ(item, "a b");
    EXPECT_TRUE(GetCSVListItem(list, position, item, sizeof(item)));
    EXPECT_STREQ(item, "c");  // leading and trailing unquoted blanks dropped
    EXPECT_TRUE(GetCSVListItem(list, position, item, sizeof(item)));
    EXPECT_STREQ(item, " d ");  // blanks inside quotes kept
    EXPECT_FALSE(GetCSVListItem(list, position, item, sizeof(item)));
    EXPECT_TRUE(GetCSVListItem(list, position, item, sizeof(item)));
    EXPECT_STREQ(item, "last");
    EXPECT_EQ(list[position], '\n');  // the position stays on the line end
    EXPECT_FALSE(GetCSVListItem(list, position, item, sizeof(item)));
    EXPECT_EQ(list[position], '\n');

    // Characters past outSize - 1 are skipped, and the position still passes the item.
    position = 0;
    char small[4];
    std::memset(small, 'X', sizeof(small));
    EXPECT_TRUE(GetCSVListItem("abcdefg,h", position, small, sizeof(small)));
    EXPECT_STREQ(small, "abc");
    EXPECT_EQ(position, 8u);
}

TEST(LStringFields, TextBetweenMarkersCutToTheBuffer) {
    char out[8];
    EXPECT_TRUE(LStringFindTextField("<a>value</a>", "<a>", "</a>", out, sizeof(out)));
    EXPECT_STREQ(out, "value");
    EXPECT_TRUE(LStringFindTextField("key=rest of text", "key=", ";", out, sizeof(out)));
    EXPECT_STREQ(out, "rest of");
    std::strcpy(out, "junk");
    EXPECT_FALSE(LStringFindTextField("nothing here", "<a>", "</a>", out, sizeof(out)));
    EXPECT_STREQ(out, "");
}

TEST(LStringFields, RemoveHttpItemInPlace) {
    char query[64];
    std::strcpy(query, "a=1&b=2&c=3");
    LRemoveHTTPItem("b", query);
    EXPECT_STREQ(query, "a=1&c=3");
    LRemoveHTTPItem("c", query);
    EXPECT_STREQ(query, "a=1");
    std::strcpy(query, "a=1&b=2");
    LRemoveHTTPItem("a", query);
    EXPECT_STREQ(query, "&b=2");  // the first item's trailing "&" stays
    std::strcpy(query, "xb=1&c=2");
    LRemoveHTTPItem("b", query);
    EXPECT_STREQ(query, "x&c=2");  // plain substring search

    // The searched "key=" is cut to 261 characters: a 300-character key is found by its
    // first 261 characters.
    const std::string longKey(300, 'k');
    std::string longQuery = std::string("p=1&").append(261, 'k').append("rest");
    std::vector<char> buffer(longQuery.begin(), longQuery.end());
    buffer.push_back(0);
    LRemoveHTTPItem(longKey.c_str(), buffer.data());
    EXPECT_STREQ(buffer.data(), "p=1");
}

TEST(LStringParse, TokenReadersAndTheirCuts) {
    char out[260];
    const char* text = "first \t second";
    const unsigned long next = LParseGetToWhiteSpaceAndSkipIt(text, out);
    EXPECT_STREQ(out, "first");
    EXPECT_EQ(next, 8u);
    EXPECT_EQ(LParseGetToWhiteSpaceAndSkipIt(text + next, out), 6u);
    EXPECT_STREQ(out, "second");

    EXPECT_EQ(LParseGetToCharacters("key=value;x", "=;", out), 3u);
    EXPECT_STREQ(out, "key");
    EXPECT_EQ(LParseGetToCharacters("no stop", "=", out), 7u);
    EXPECT_STREQ(out, "no stop");

    const std::string longToken(400, 't');
    EXPECT_EQ(LParseGetToWhiteSpaceAndSkipIt((longToken + " x").c_str(), out), 401u);
    EXPECT_EQ(std::strlen(out), 259u);
    EXPECT_EQ(LParseGetToCharacters(longToken.c_str(), ",", out), 400u);
    EXPECT_EQ(std::strlen(out), 259u);

    LStringLongTemplate<char> line("old");
    EXPECT_EQ(LParseGetToEndOfLine("a line\r\nnext", line), 6u);
    EXPECT_EQ(line, "a line");
    EXPECT_EQ(line.GetCapacity(), 260u);
    EXPECT_EQ(LParseGetToEndOfLine((longToken + "\n").c_str(), line), 400u);
    EXPECT_EQ(line.GetLength(), 400u);
    EXPECT_EQ(line.GetCapacity(), 1040u);
}

TEST(LStringCommandLine, QuotesBackslashesAndCount) {
    LCommandLineArgumentStringExpander expander("  prog \"a b\" c\\ d e\\f x\"q r\"y");
    std::vector<std::string> args;
    while (expander.NextArgument()) {
        args.emplace_back(expander.GetArgument());
    }
    EXPECT_EQ(args, (std::vector<std::string>{"prog", "a b", "c d", "e\\f", "xq r", "y"}));

    EXPECT_EQ(LCommandLineArgumentStringExpander::GetArgumentCount("prog one two"), 2u);
    EXPECT_EQ(LCommandLineArgumentStringExpander::GetArgumentCount(""), 0u);
    // An empty quoted argument ends the enumeration like the end of text.
    EXPECT_EQ(LCommandLineArgumentStringExpander::GetArgumentCount("prog a \"\" b c"), 1u);
}

TEST(LStringRandom, PasswordIsLowerCaseLettersAndTerminated) {
    char password[33];
    std::memset(password, 'X', sizeof(password));
    LStringGenerateRandomPassword(password, 32);
    EXPECT_EQ(std::strlen(password), 32u);
    int distinct[26] = {};
    for (int i = 0; i < 32; ++i) {
        ASSERT_GE(password[i], 'a');
        ASSERT_LE(password[i], 'z');
        distinct[password[i] - 'a'] = 1;
    }
    int letters = 0;
    for (int d : distinct) {
        letters += d;
    }
    EXPECT_GT(letters, 3);  // not one repeated character
}

namespace {

// A blank is the space character alone: tabs are text to the CSV reader and the argument
// splitter (which still skips every character below 33 before an argument).
TEST(LStringBlanks, TabsAreNotBlanks) {
    const struct {
        const char* list;
        const char* item;
    } items[] = {{" \tab\t ,c", "\tab\t"}, {"\t,c", "\t"}, {"  x  ", "x"}};
    for (const auto& c : items) {
        SCOPED_TRACE(c.list);
        char out[32];
        unsigned long position = 0;
        EXPECT_TRUE(GetCSVListItem(c.list, position, out, sizeof out));
        EXPECT_STREQ(out, c.item);
    }
    LCommandLineArgumentStringExpander args("\t prog a\tb  c");
    std::vector<std::string> seen;
    while (args.NextArgument()) {
        seen.emplace_back(args.GetArgument());
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"prog", "a\tb", "c"}));
    EXPECT_EQ(LCommandLineArgumentStringExpander::GetArgumentCount("prog a\tb"), 1u);
}

}  // namespace
