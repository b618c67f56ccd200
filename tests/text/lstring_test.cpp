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
    EXPECT_EQ(emptyCopy.GetLength(), 0u);
    EXPECT_EQ(emptyCopy.GetCapacity(), 0u);
    EXPECT_STREQ(emptyCopy.GetText(), "");
}

TEST(LStringLong, SprintfFormatsFromStartAndAppendKeepsText) {
    LStringLongTemplate<char> s("previous text");
    EXPECT_EQ(sprintf(s, "%d-%s", 42, "x"), 4u);
    EXPECT_STREQ(s.GetText(), "42-x");
    EXPECT_EQ(s.GetCapacity(), 260u);
    s.tsprintfappend("+%u", 7u);
    EXPECT_STREQ(s.GetText(), "42-x+7");
}
