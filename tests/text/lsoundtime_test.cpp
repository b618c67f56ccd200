// LSoundTime text forms and reader, LdB reader.
#include "text/lsoundtime.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>

namespace {

using Form = void (LSoundTime::*)(char*) const;

std::string Write(std::int64_t ms, Form form) {
    char text[260];
    (LSoundTime(ms).*form)(text);
    return text;
}

std::int64_t Read(const char* text) {
    LSoundTime t(12345);
    t.SetText(text);
    return t.GetTime();
}

// 1 h 2 min 3.456 s
constexpr std::int64_t kSample = 3723456;

TEST(SoundTimeText, EveryFormReadCharacterByCharacterAndValidity) {
    using S = LSoundTime;
    const std::pair<Form, const char*> forms[] = {
        {&S::_GetText0, "1:02:03"},          {&S::_GetText1, "1:02:03.4"},
        {&S::_GetText2, "1:02:03.45"},       {&S::_GetText, "1:02:03.456"},
        {&S::_GetTextHMMSS, "1:02:03"},      {&S::_GetTextHMMSSF, "1:02:03.4"},
        {&S::_GetTextHMMSSFF, "1:02:03.45"}, {&S::_GetTextHMMSSFFF, "1:02:03.456"},
        {&S::_GetTextMMSS, "02:03"},         {&S::_GetTextMMSSF, "02:03.4"},
        {&S::_GetTextMMSSFF, "02:03.45"}};
    for (auto [form, text] : forms) {
        EXPECT_EQ(Write(kSample, form), text);
    }
    // Fractions are cut, not rounded.
    EXPECT_EQ(Write(999, &LSoundTime::_GetText1), "0:00:00.9");
    EXPECT_EQ(Write(7, &LSoundTime::_GetText), "0:00:00.007");
    // Minute-second forms drop whole hours.
    EXPECT_EQ(Write(3900000, &LSoundTime::_GetTextMMSS), "05:00");
    EXPECT_EQ(Write(3900000, &LSoundTime::_GetText0), "1:05:00");
    // Hours above 32 bits: the 64-bit forms keep them, the 32-bit forms wrap.
    const std::int64_t big = 5000000000LL * 3600000LL;
    EXPECT_EQ(Write(big, &LSoundTime::_GetText0), "5000000000:00:00");
    EXPECT_EQ(Write(big, &LSoundTime::_GetTextHMMSS),
              std::to_string(static_cast<int>(5000000000LL)) + ":00:00");
    EXPECT_EQ(Write(INT64_MIN, &LSoundTime::_GetText), "-2562047788015:12:55.808");
    EXPECT_EQ(Write(-kSample, &LSoundTime::_GetTextMMSSF), "-02:03.4");
    EXPECT_EQ(Read("90"), 90000);
    EXPECT_EQ(Read("1:02:03.4567"), kSample);  // digits past milliseconds add nothing
    EXPECT_EQ(Read(".5"), 500);
    EXPECT_EQ(Read("1.2.3"), 1230);  // a second point changes nothing
    EXPECT_EQ(Read("-1:00"), -60000);
    EXPECT_EQ(Read("1:00-"), -60000);       // "-" anywhere
    EXPECT_EQ(Read("1:02:03:4"), 3723400);  // the third colon acts as a point
    EXPECT_EQ(Read("1:2:3:4:5"), 3723450);  // colons past the third are skipped
    EXPECT_EQ(Read("1h 30m"), 130000);      // letters and blanks are skipped
    EXPECT_EQ(Read(nullptr), 0);
    // A written time reads back, hours beyond a day and sign included.
    EXPECT_EQ(Read(Write(-kSample * 1000, &LSoundTime::_GetText).c_str()), -kSample * 1000);
    // Validity (text, negative allowed, valid): "-" only first and only when allowed, at most three
    // colons, one point with no colon after it, nothing but digits otherwise.
    using Case = std::tuple<const char*, bool, bool>;
    for (auto [text, negative, valid] :
         {Case{"1:2:3:4", false, true}, Case{".", false, true}, Case{"-1:00", true, true},
          Case{"-1:00", false, false}, Case{"1:-00", true, false}, Case{"", true, false},
          Case{nullptr, true, false}, Case{"1:2:3:4:5", true, false}, Case{"1.2.3", true, false},
          Case{"1.2:3", true, false}, Case{"1:00s", true, false}}) {
        EXPECT_EQ(LSoundTime::IsValid(text, negative), valid) << (text ? text : "null");
    }
}

signed char ReadDB(const char* text) {
    LdB<signed char> db(42);
    db.SetText(text);
    return db.GetValue();
}

TEST(Decibels, Reader) {
    EXPECT_EQ(ReadDB("200"), 127);
    EXPECT_EQ(ReadDB("-128"), -127);
    EXPECT_EQ(ReadDB("-99999999999999999999"), -127);
    EXPECT_EQ(ReadDB("--dB"), -127);  // the silence text reads back as -127, not -128
    EXPECT_EQ(ReadDB("-5-"), -127);
    EXPECT_EQ(ReadDB("1-2"), -12);
    EXPECT_EQ(ReadDB("1 2 dB"), 12);
    EXPECT_EQ(ReadDB(nullptr), 0);
}

}  // namespace
