// The string types: copy and move rules, growth as text is added to strings and lists, and
// the writers' handling of their limits.
#include "text/lstring.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

TEST(LStringLong, CopyMoveAssignmentAccessorsAndBufferHandOff) {
    LStringLongTemplate<char> s("hello");
    s.GrowToSize(100);
    LStringLongTemplate<char> copy(s);
    EXPECT_EQ(copy, "hello");
    LStringLongTemplate<char> empty, emptyCopy(empty);
    EXPECT_EQ(emptyCopy.GetData(), nullptr);
    LStringLongTemplate<char> moved(std::move(copy));
    EXPECT_EQ(copy.GetData(), nullptr);  // NOLINT: moved-from state is specified
    EXPECT_EQ(copy.GetCapacity(), 0u);
    const char* buffer = s.GetData();
    s = moved;  // reuses the larger buffer
    EXPECT_EQ(s.GetData(), buffer);
    EXPECT_EQ(s, "hello");
    s = LStringLongTemplate<char>();  // moving a null string in frees the buffer
    EXPECT_EQ(s.GetData(), nullptr);
    LStringLongTemplate<char> self("abcdef");
    self.Assign(self.GetText() + 2);  // source inside the string
    self.Append(self.GetText(), self.GetLength());
    EXPECT_STREQ(self.GetText(), "cdefcdef");
    LStringLongTemplate<char> part("abc", 2);
    part += 'c';
    part += "de";
    EXPECT_EQ(part, "abcde");
    EXPECT_LT(LStringLongTemplate<char>("a"), "\xC3");  // compared as unsigned bytes
    part.GrowToSize(32);
    std::strcpy(part.GetBuffer(), "xy");
    part.UpdateLength();
    EXPECT_EQ(part.GetLength(), 2u);
    part.SetLength(1);
    EXPECT_EQ(part, "x");
    const unsigned long capacity = part.GetCapacity();
    char* raw = part.Detach();
    EXPECT_TRUE(part.IsNull());
    LStringLongTemplate<char> other;
    other.Attach(raw, 1, capacity);
    EXPECT_EQ(other, "x");
}

TEST(LStringLong, WritersGrowTheStringForTheWholeText) {
    LStringLongTemplate<char> small("abc");
    LStringLongTemplateAppender<char> appender(small);
    tplstrcpy(appender, "d");
    tplstrcpy(appender, "efghijklmnop");
    EXPECT_STREQ(small.GetText(), "abcdefghijklmnop");
    EXPECT_EQ(sprintf(small, "%s", std::string(259, 'a').c_str()), 259u);
    sprintf(small, "%s", "ab");
    tsprintfappend(small, "%s", std::string(258, 'a').c_str());  // past the first 260
    small.tsprintfappend("%s", "!");
    EXPECT_EQ(std::string(small.GetText(), small.GetLength()), "ab" + std::string(258, 'a') + "!");
}

TEST(LStringList, KeepsItsStringsAsItGrows) {
    LStringListTemplate<char> list;
    std::strcpy(list.Add(10), "123456789");
    EXPECT_EQ(list.GetCapacity(), 7u);  // the first entry makes room for seven
    for (int i = 1; i < 64; ++i) {
        list.AddString(i == 7 ? "eighth" : "x");
    }
    EXPECT_STREQ(list[0], "123456789");
    EXPECT_STREQ(list[7], "eighth");
    EXPECT_EQ(list.GetAt(64), nullptr);
    EXPECT_STREQ(list.Add(0), "");  // still room for a terminator
}
