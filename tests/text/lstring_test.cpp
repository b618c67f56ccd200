// The string types: copy and move rules, the exact growth rules of strings and lists, and the
// writers' handling of their limits.
#include "text/lstring.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

TEST(LStringLong, CopyMoveAssignmentAccessorsAndBufferHandOff) {
    LStringLongTemplate<char> s("hello");
    s.GrowToSize(100);
    LStringLongTemplate<char> copy(s);  // exactly length + 1
    EXPECT_EQ(copy, "hello");
    EXPECT_EQ(copy.GetCapacity(), 6u);
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
    EXPECT_EQ(self.GetCapacity(), 28u);  // appending grows by four times
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

TEST(LStringLong, WritersGrowByFourAndFormattingStartsAt260) {
    // tplstrcpy on a string of capacity 4 walks 4 -> 16 -> 64.
    LStringLongTemplate<char> small("abc");
    LStringLongTemplateAppender<char> appender(small);
    tplstrcpy(appender, "d");
    EXPECT_EQ(small.GetCapacity(), 16u);
    tplstrcpy(appender, "efghijklmnop");
    EXPECT_EQ(small.GetCapacity(), 64u);
    EXPECT_STREQ(small.GetText(), "abcdefghijklmnop");
    EXPECT_EQ(sprintf(small, "%s", std::string(259, 'a').c_str()), 259u);
    EXPECT_EQ(small.GetCapacity(), 260u);
    sprintf(small, "%s", "ab");
    tsprintfappend(small, "%s", std::string(258, 'a').c_str());
    EXPECT_EQ(small.GetCapacity(), 1040u);
    small.tsprintfappend("%s", "!");
    EXPECT_EQ(small.GetCapacity(), 1040u);
    EXPECT_EQ(small.GetLength(), 261u);
}

TEST(LStringList, GrowsToEightTimesCountPlusSeven) {
    LStringListTemplate<char> list;
    std::strcpy(list.Add(10), "123456789");
    EXPECT_EQ(list.GetCapacity(), 7u);
    for (int i = 1; i < 7; ++i) {
        list.AddString("x");
    }
    EXPECT_EQ(list.GetCapacity(), 7u);
    list.AddString("eighth");
    EXPECT_EQ(list.GetCapacity(), 63u);
    for (int i = 8; i < 64; ++i) {
        list.Add(1);
    }
    EXPECT_EQ(list.GetCapacity(), 511u);
    EXPECT_STREQ(list[0], "123456789");
    EXPECT_STREQ(list[7], "eighth");
    EXPECT_EQ(list.GetAt(64), nullptr);
    EXPECT_STREQ(list.Add(0), "");  // still room for a terminator
}
