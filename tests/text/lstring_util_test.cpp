// The text helpers: number conversions, case-insensitive search, the CSV, field, query and
// token readers with their cuts, the command-line splitter and random text.
#include "text/lstring_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace {

// Every item the CSV reader gives from position 0 on, "-" for an empty item, until the end.
std::string CsvItems(const char* list, unsigned long size = 32) {
    std::string items;
    char item[32];
    unsigned long position = 0;
    for (int i = 0; i < 8 && list[position] != 0 && !std::strchr("\r\n", list[position]); ++i) {
        items += GetCSVListItem(list, position, item, size) ? std::string(item) + "|" : "-|";
    }
    return items + std::to_string(position);
}

std::vector<std::string> Arguments(const char* line) {
    LCommandLineArgumentStringExpander expander(line);
    std::vector<std::string> args;
    while (expander.NextArgument()) {
        args.emplace_back(expander.GetArgument());
    }
    return args;
}

}  // namespace

TEST(LStringNumbers, ParsingSaturatesWrapsAndStopsWritingByRadix) {
    EXPECT_EQ(ttoi64template<char>(" -9223372036854775808"), -9223372036854775807LL);
    EXPECT_EQ(ttoi64template<char>("9223372036854775808"), 9223372036854775807LL);
    EXPECT_EQ(ttoi64template<char>("+12x"), 12);
    EXPECT_EQ(ttoi64template<char>("- 5"), 0);
    EXPECT_EQ(ttoi64template<wchar_t>(L"  -17z"), -17);
    EXPECT_EQ(atoh("1fG"), 31u);
    EXPECT_EQ(atoh("0x10"), 0u);
    EXPECT_EQ(atoh("123456789"), 0x23456789u);  // wraps in 32 bits
    EXPECT_EQ(wtoh(L"Ff!"), 255u);
    unsigned long size = 99;
    EXPECT_TRUE(ttosize_t(" 18446744073709551615", size));
    EXPECT_FALSE(ttosize_t("abc", size));
    EXPECT_EQ(size, 18446744073709551615ul);
    char buffer[32];
    EXPECT_STREQ(ltoa(4294967297L, buffer, 10), "1");  // cut to 32 bits
    EXPECT_STREQ(ltoa(-1L, buffer, 16), "ffffffff");
    EXPECT_STREQ(itoa(-12, buffer, 2), "-12");  // other radixes are decimal
    EXPECT_STREQ(_i64toa(-4294967297LL, buffer, 10), "-4294967297");
    EXPECT_STREQ(_i64toa(-1, buffer, 8), "1777777777777777777777");
    EXPECT_STREQ(_ui64toa(18446744073709551615ull, buffer, 10), "18446744073709551615");
    EXPECT_STREQ(_ui64toa(255, buffer, 16), "ff");
}

TEST(LStringSearch, CaseInsensitiveSubstring) {
    const char* text = "Hello World";
    EXPECT_EQ(stristr(text, "WORLD"), text + 6);
    EXPECT_EQ(stristr("ab", "abc"), nullptr);  // needle longer than haystack
    EXPECT_EQ(stristr(text, ""), text);
    char mutableText[] = "xxABCxx";
    EXPECT_EQ(tstristr(mutableText, "abc"), mutableText + 2);
    const wchar_t* wide = L"Path/To/FILE.wav";
    EXPECT_EQ(tstristr(wide, L"file.WAV"), wide + 8);
    char mixed[] = "MiXeD 1";
    EXPECT_STREQ(strlwr(mixed), "mixed 1");
    EXPECT_STREQ(strupr(mixed), "MIXED 1");
}

// Only the space character is a blank: tabs are text to the CSV reader and the argument
// splitter (which still skips every character below 33 before an argument). Items longer than
// the buffer are cut, and the position still passes them; it stays on a line end (LF or CR).
TEST(LStringCSV, QuotedItemsBlanksCutsAndLineEnds) {
    const std::pair<const char*, std::string> cases[] = {
        {"\"a b\", c ,  \" d \" ,,last\nnext", "a b|c| d |-|last|24"},
        {" \tab\t ,c", "\tab\t|c|8"},
        {"\t,c", "\t|c|3"},
        {"  x  ", "x|5"},
        {"a,b\rnext", "a|b|3"}};
    for (const auto& [list, items] : cases) {
        EXPECT_EQ(CsvItems(list), items) << list;
    }
    EXPECT_EQ(CsvItems("abcdefg,h", 4), "abc|h|9");
    unsigned long position = 24;
    char item[8];
    EXPECT_FALSE(GetCSVListItem("\"a b\", c ,  \" d \" ,,last\nnext", position, item, 8));
    EXPECT_EQ(position, 24u);
}

TEST(LStringFields, TextBetweenMarkersAndHttpItemRemovalInPlace) {
    char out[8];
    EXPECT_TRUE(LStringFindTextField("<a>value</a>", "<a>", "</a>", out, sizeof(out)));
    EXPECT_STREQ(out, "value");
    EXPECT_TRUE(LStringFindTextField("key=rest of text", "key=", ";", out, sizeof(out)));
    EXPECT_STREQ(out, "rest of");
    std::strcpy(out, "junk");
    EXPECT_FALSE(LStringFindTextField("nothing here", "<a>", "</a>", out, sizeof(out)));
    EXPECT_STREQ(out, "");
    // The first item's trailing "&" stays; the search is a plain substring search; the
    // searched "key=" is cut to 261 characters, so a 300-character key is found by them.
    const std::string longKey(300, 'k');
    const std::string longQuery = std::string("p=1&").append(261, 'k').append("rest");
    const struct {
        std::string key, query, left;
    } cases[] = {{"b", "a=1&b=2&c=3", "a=1&c=3"},
                 {"c", "a=1&c=3", "a=1"},
                 {"a", "a=1&b=2", "&b=2"},
                 {"b", "xb=1&c=2", "x&c=2"},
                 {longKey, longQuery, "p=1"}};
    for (const auto& c : cases) {
        std::vector<char> buffer(c.query.begin(), c.query.end());
        buffer.push_back(0);
        LRemoveHTTPItem(c.key.c_str(), buffer.data());
        EXPECT_STREQ(buffer.data(), c.left.c_str()) << c.query;
    }
}

TEST(LStringParse, TokenReadersAndTheirCuts) {
    char out[260];
    const char* text = "first \t second";
    EXPECT_EQ(LParseGetToWhiteSpaceAndSkipIt(text, out), 8u);
    EXPECT_STREQ(out, "first");
    EXPECT_EQ(LParseGetToWhiteSpaceAndSkipIt(text + 8, out), 6u);
    EXPECT_EQ(LParseGetToCharacters("key=value;x", "=;", out), 3u);
    EXPECT_STREQ(out, "key");
    EXPECT_EQ(LParseGetToCharacters("no stop", "=", out), 7u);
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
    EXPECT_EQ(line.GetCapacity(), 1040u);
}

TEST(LStringCommandLine, QuotesBackslashesTabsAndCount) {
    EXPECT_EQ(Arguments("  prog \"a b\" c\\ d e\\f x\"q r\"y"),
              (std::vector<std::string>{"prog", "a b", "c d", "e\\f", "xq r", "y"}));
    EXPECT_EQ(Arguments("\t prog a\tb  c"), (std::vector<std::string>{"prog", "a\tb", "c"}));
    // An empty quoted argument ends the enumeration like the end of text.
    const std::pair<const char*, unsigned long> counts[] = {
        {"prog one two", 2}, {"", 0}, {"prog a \"\" b c", 1}, {"prog a\tb", 1}};
    for (auto [line, count] : counts) {
        EXPECT_EQ(LCommandLineArgumentStringExpander::GetArgumentCount(line), count) << line;
    }
}

TEST(LStringRandom, PasswordIsLowerCaseLettersAndTerminated) {
    char password[33];
    std::memset(password, 'X', sizeof(password));
    LStringGenerateRandomPassword(password, 32);
    ASSERT_EQ(std::strlen(password), 32u);
    std::set<char> letters(password, password + 32);
    EXPECT_TRUE(*letters.begin() >= 'a' && *letters.rbegin() <= 'z');
    EXPECT_GT(letters.size(), 3u);  // not one repeated character
}
