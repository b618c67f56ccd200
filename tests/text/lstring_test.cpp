// The string types: construction and copy rules, the exact growth rules of strings and lists,
// and the writers' handling of their limits.
#include "text/lstring.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

TEST(LStringLong, CopyAllocatesExactlyLengthPlusOneAndNullStaysNull) {
    LStringLongTemplate<char> s("hello");
    s.GrowToSize(100);
    LStringLongTemplate<char> copy(s);
    EXPECT_STREQ(copy.GetText(), "hello");
    EXPECT_EQ(copy.GetLength(), 5u);
    EXPECT_EQ(copy.GetCapacity(), 6u);
    LStringLongTemplate<char> empty;
    LStringLongTemplate<char> emptyCopy(empty);
    EXPECT_EQ(emptyCopy.GetData(), nullptr);
    EXPECT_STREQ(emptyCopy.GetText(), "");
}

TEST(LStringLong, WritersGrowToFourTimesCapacityWhenLengthReachesIt) {
    LStringLongTemplate<char> s;
    sprintf(s, "%s", std::string(259, 'a').c_str());
    EXPECT_EQ(s.GetCapacity(), 260u);  // 259 characters and the terminator fit
    sprintf(s, "%s", std::string(260, 'a').c_str());
    EXPECT_EQ(s.GetCapacity(), 1040u);
    // tplstrcpy on a string of capacity 4 walks 4 -> 16 -> 64.
    LStringLongTemplate<char> small("abc");
    ASSERT_EQ(small.GetCapacity(), 4u);
    LStringLongTemplateAppender<char> appender(small);
    tplstrcpy(appender, "d");
    EXPECT_EQ(small.GetCapacity(), 16u);
    tplstrcpy(appender, "efghijklmnop");
    EXPECT_EQ(small.GetCapacity(), 64u);
    EXPECT_STREQ(small.GetText(), "abcdefghijklmnop");
}

TEST(LStringLong, SprintfStartsOverAndAppendFormatGrowsTo260OnlyWhenSmaller) {
    LStringLongTemplate<char> s("previous text");
    EXPECT_EQ(sprintf(s, "%s", "ab"), 2u);
    tsprintfappend(s, "%d", 5);
    EXPECT_STREQ(s.GetText(), "ab5");
    EXPECT_EQ(s.GetCapacity(), 260u);
    s.GrowToSize(2000);
    s.tsprintfappend("%s", "!");
    EXPECT_EQ(s.GetCapacity(), 2000u);
    EXPECT_STREQ(s.GetText(), "ab5!");
}

TEST(LStringLong, MoveLeavesSourceNullAndAssignmentReusesBuffer) {
    LStringLongTemplate<char> s("text");
    LStringLongTemplate<char> moved(std::move(s));
    EXPECT_EQ(s.GetData(), nullptr);  // NOLINT: moved-from state is specified
    EXPECT_EQ(s.GetCapacity(), 0u);
    EXPECT_STREQ(moved.GetText(), "text");
    LStringLongTemplate<char> big;
    big.GrowToSize(100);
    const char* buffer = big.GetData();
    big = moved;
    EXPECT_EQ(big.GetData(), buffer);
    EXPECT_EQ(big, "text");
    big = LStringLongTemplate<char>();  // moving a null string in frees the buffer
    EXPECT_EQ(big.GetData(), nullptr);
    LStringLongTemplate<char> self("abcdef");
    self.Assign(self.GetText() + 2);  // source inside the string
    EXPECT_STREQ(self.GetText(), "cdef");
    self.Append(self.GetText(), self.GetLength());
    EXPECT_STREQ(self.GetText(), "cdefcdef");
    EXPECT_EQ(self.GetCapacity(), 28u);  // appending grows by four times as well
}

TEST(LStringLong, AccessorsComparisonAndBufferHandOff) {
    LStringLongTemplate<char> s("abc", 2);
    EXPECT_STREQ(s.GetText(), "ab");
    s += 'c';
    s += "de";
    EXPECT_EQ(s, "abcde");
    EXPECT_LT(LStringLongTemplate<char>("a"), "\xC3");  // compared as unsigned bytes
    s.GrowToSize(32);
    std::strcpy(s.GetBuffer(), "xy");
    s.UpdateLength();
    EXPECT_EQ(s.GetLength(), 2u);
    s.SetLength(1);
    EXPECT_EQ(s, "x");
    LStringLongTemplate<char> owner("keep");
    const unsigned long capacity = owner.GetCapacity();
    char* raw = owner.Detach();
    EXPECT_TRUE(owner.IsNull());
    LStringLongTemplate<char> other;
    other.Attach(raw, 4, capacity);
    EXPECT_EQ(other, "keep");
}

TEST(LStringList, GrowsToEightTimesCountPlusSeven) {
    LStringListTemplate<char> list;
    char* first = list.Add(10);
    EXPECT_EQ(list.GetCapacity(), 7u);
    EXPECT_STREQ(first, "");
    std::strcpy(first, "123456789");
    for (int i = 1; i < 7; ++i) {
        list.AddString("x");
    }
    EXPECT_EQ(list.GetCapacity(), 7u);
    list.AddString("eighth");
    EXPECT_EQ(list.GetCapacity(), 63u);
    for (int i = 8; i < 64; ++i) {
        list.Add(1);
    }
    EXPECT_EQ(list.GetCount(), 64u);
    EXPECT_EQ(list.GetCapacity(), 511u);
    EXPECT_STREQ(list[0], "123456789");
    EXPECT_STREQ(list[7], "eighth");
    EXPECT_EQ(list.GetAt(64), nullptr);
    list.Add(0);  // still room for a terminator
    EXPECT_STREQ(list[64], "");
}
