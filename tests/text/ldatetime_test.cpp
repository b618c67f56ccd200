// LDateTime, LDayTime and LWeekDay under a pinned time zone and locale. The fixture sets TZ
// to a POSIX rule for Central Europe (daylight saving included, no zone files needed) and
// LC_ALL to en_US.UTF-8, and puts back whatever was there before.
#include "text/ldatetime.h"

#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace {

constexpr const char* kCentralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";
// 2021-03-05 14:07:09 CET (13:07:09 UTC), a Friday.
constexpr long kMarch5 = 1614949629;
// 2021-07-01 12:00:00 CEST (10:00:00 UTC).
constexpr long kJuly1Noon = 1625133600;

class DateTimeTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (const char* tz = std::getenv("TZ"))
            savedTZ_ = tz;
        ::setenv("TZ", kCentralEurope, 1);
        ::tzset();
        savedLocale_ = std::setlocale(LC_ALL, nullptr);
        UseLocale("en_US.UTF-8");
    }
    void TearDown() override {
        if (savedTZ_) {
            ::setenv("TZ", savedTZ_->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
        std::setlocale(LC_ALL, savedLocale_.c_str());
        _LResetLocaleDateFormatOrder();
    }
    static void UseLocale(const char* name) {
        ASSERT_NE(std::setlocale(LC_ALL, name), nullptr) << name << " (made by scripts/bootstrap)";
        _LResetLocaleDateFormatOrder();
    }
    static long Make(int y, int mo, int d, int h, int mi, int s) {
        long v = 0;
        LDateTime::SetDateTime(v, y, mo, d, h, mi, s);
        return v;
    }
    static std::string Text(const LDateTime& t) {
        char buf[260];
        t.GetDateTime(buf);
        return buf;
    }

private:
    std::optional<std::string> savedTZ_;
    std::string savedLocale_;
};

TEST_F(DateTimeTest, TextForms) {
    char date[260], time[260], text[260];
    LDateTime::GetDateTime(kMarch5, date, time);
    EXPECT_STREQ(date, "2021-03-05");
    EXPECT_STREQ(time, "14:07:09");
    const LDateTime t(kMarch5);
    t.GetDateTime(text);
    EXPECT_STREQ(text, "2021-03-05 14:07:09");
    t.GetDateTimeInLocalFormat(text);
    EXPECT_STREQ(text, "2021-03-05 14:07:09");
    LDateTime::GetDateYYYYHMMHDD(kMarch5, text);
    EXPECT_STREQ(text, "2021-03-05");
    t.GetDateInLocalFormat(text);
    EXPECT_STREQ(text, "2021-03-05");
    LDateTime::GetDateYYYYHMMHDDTimeHHCMM(kMarch5, date, time);
    EXPECT_STREQ(date, "2021-03-05");
    EXPECT_STREQ(time, "14:07");
    LDateTime::GetDateYYYYHMMHDDTimeHHCMM(kMarch5, text);
    EXPECT_STREQ(text, "2021-03-05 14:07");
    t.GetTimeInLocalFormat(text);
    EXPECT_STREQ(text, "14:07:09");
    t._GetTextTime(text);
    EXPECT_STREQ(text, "14:07:09");
    LDateTime::GetTimeHHCMM(kMarch5, text);
    EXPECT_STREQ(text, "14:07");
    LDateTime::GetTimeHHHMMHSS(kMarch5, text);
    EXPECT_STREQ(text, "14-07-09");
    t.GetDateLocalFormat(text);
    EXPECT_STREQ(text, "03/05/21");
    // Daylight saving comes from the zone rule.
    EXPECT_EQ(Text(LDateTime(kJuly1Noon)), "2021-07-01 12:00:00");
}

TEST_F(DateTimeTest, NoDateIsTheEmptyText) {
    char date[260] = "x", time[260] = "x", text[260] = "x";
    const LDateTime none;
    LDateTime::GetDateTime(0, date, time);
    EXPECT_STREQ(date, "");
    EXPECT_STREQ(time, "");
    for (auto form : {&LDateTime::GetDateTime, &LDateTime::GetDateTimeInLocalFormat,
                      &LDateTime::GetDateInLocalFormat, &LDateTime::GetTimeInLocalFormat,
                      &LDateTime::_GetTextTime, &LDateTime::GetDateLocalFormat}) {
        text[0] = 'x';
        (none.*form)(text);
        EXPECT_STREQ(text, "");
    }
    for (auto form : {static_cast<void (*)(long, char*)>(&LDateTime::GetDateYYYYHMMHDD),
                      static_cast<void (*)(long, char*)>(&LDateTime::GetDateYYYYHMMHDDTimeHHCMM),
                      static_cast<void (*)(long, char*)>(&LDateTime::GetTimeHHCMM),
                      static_cast<void (*)(long, char*)>(&LDateTime::GetTimeHHHMMHSS)}) {
        text[0] = 'x';
        form(0, text);
        EXPECT_STREQ(text, "");
    }
    date[0] = time[0] = 'x';
    LDateTime::GetDateYYYYHMMHDDTimeHHCMM(0, date, time);
    EXPECT_STREQ(date, "");
    EXPECT_STREQ(time, "");
}

TEST_F(DateTimeTest, ReadingDatesAndTheYearRule) {
    long v = 5;
    LDateTime::SetDateTime(v, "2021-03-05", "14:07:09");
    EXPECT_EQ(v, kMarch5);
    LDateTime::SetDateTime(v, "", "14:07:09");
    EXPECT_EQ(v, 0);
    v = 5;
    LDateTime::SetDateTime(v, nullptr, nullptr);
    EXPECT_EQ(v, 0);
    LDateTime::SetDateTime(v, "2021-7-1", nullptr);
    EXPECT_EQ(Text(v), "2021-07-01 00:00:00");
    LDateTime::SetDateTime(v, "69-1-2", "3:4:5");
    EXPECT_EQ(Text(v), "2069-01-02 03:04:05");
    LDateTime::SetDateTime(v, "70-1-2", "");
    EXPECT_EQ(Text(v), "1970-01-02 00:00:00");
    LDateTime::SetDateTime(v, "121-1-2", "");
    EXPECT_EQ(Text(v), "2021-01-02 00:00:00");
    LDateTime::SetDateTime(v, "1999-12-31", "23:59:59");
    EXPECT_EQ(Text(v), "1999-12-31 23:59:59");
    LDateTime::SetDateTime(v, 21, 3, 5, 14, 7, 9);
    EXPECT_EQ(v, kMarch5);

    LDateTime::SetDateYYYYHMMHDDTimeHHCMMCSS(v, "2021-03-05 14:07:09");
    EXPECT_EQ(v, kMarch5);
    LDateTime::SetDateYYYYHMMHDDTimeHHCMMCSS(v, "2021-03-05");
    EXPECT_EQ(Text(v), "2021-03-05 00:00:00");
    LDateTime::SetDateYYYYHMMHDDTimeHHCMMCSS(v, "");
    EXPECT_EQ(v, 0);
    LDateTime::SetDateTimeNoon(v, "2021-07-01");
    EXPECT_EQ(v, kJuly1Noon);
    LDateTime::SetDateTimeNoon(v, "");
    EXPECT_EQ(v, 0);

    // A time mktime cannot represent leaves the value as it was.
    v = kMarch5;
    LDateTime::SetDateTime(v, INT_MAX, INT_MAX, 1, 0, 0, 0);
    EXPECT_EQ(v, kMarch5);
}

TEST_F(DateTimeTest, RoundTripsEveryHourOfAYear) {
    long v = Make(2021, 1, 1, 0, 30, 15);
    char date[260], time[260];
    for (int i = 0; i < 365 * 24; ++i, v += 3600) {
        LDateTime::GetDateTime(v, date, time);
        long back = 0;
        LDateTime::SetDateTime(back, date, time);
        // The hour that repeats when clocks go back reads as one of its two instants.
        if (back != v) {
            EXPECT_EQ(std::labs(back - v), 3600) << date << " " << time;
        }
    }
}

TEST_F(DateTimeTest, Validation) {
    EXPECT_TRUE(LDateTime::ValidateDateYYYYHMMHDD(""));
    EXPECT_TRUE(LDateTime::ValidateDateYYYYHMMHDD(nullptr));
    EXPECT_TRUE(LDateTime::ValidateDateYYYYHMMHDD("2021-03-05"));
    EXPECT_TRUE(LDateTime::ValidateDateYYYYHMMHDD("1970-01-01"));
    EXPECT_TRUE(LDateTime::ValidateDateYYYYHMMHDD("2038-12-31"));
    EXPECT_TRUE(LDateTime::ValidateDateYYYYHMMHDD("2024-02-29"));
    EXPECT_FALSE(LDateTime::ValidateDateYYYYHMMHDD("2039-01-01"));
    EXPECT_FALSE(LDateTime::ValidateDateYYYYHMMHDD("1969-12-31"));
    EXPECT_FALSE(LDateTime::ValidateDateYYYYHMMHDD("2021-02-29"));
    EXPECT_FALSE(LDateTime::ValidateDateYYYYHMMHDD("2021-13-01"));
    EXPECT_FALSE(LDateTime::ValidateDateYYYYHMMHDD("2021-00-01"));
    EXPECT_FALSE(LDateTime::ValidateDateYYYYHMMHDD("2021-04-31"));
    EXPECT_FALSE(LDateTime::ValidateDateYYYYHMMHDD("2021-04-0"));
    EXPECT_FALSE(LDateTime::ValidateDateYYYYHMMHDD("2021-04"));
    EXPECT_FALSE(LDateTime::ValidateDateYYYYHMMHDD("date"));

    EXPECT_TRUE(LDateTime::ValidateDateTimeYYYYHMMHDDHHCMMCSS("2021-03-05 23:59:59"));
    EXPECT_TRUE(LDateTime::ValidateDateTimeYYYYHMMHDDHHCMMCSS("2021-03-05 0:0:0"));
    EXPECT_FALSE(LDateTime::ValidateDateTimeYYYYHMMHDDHHCMMCSS(nullptr));
    EXPECT_FALSE(LDateTime::ValidateDateTimeYYYYHMMHDDHHCMMCSS(""));
    EXPECT_FALSE(LDateTime::ValidateDateTimeYYYYHMMHDDHHCMMCSS("2021-03-05"));
    EXPECT_FALSE(LDateTime::ValidateDateTimeYYYYHMMHDDHHCMMCSS("2021-03-05 12:00"));
    EXPECT_FALSE(LDateTime::ValidateDateTimeYYYYHMMHDDHHCMMCSS("2021-03-05 24:00:00"));
    EXPECT_FALSE(LDateTime::ValidateDateTimeYYYYHMMHDDHHCMMCSS("2021-03-05 12:60:00"));
    EXPECT_FALSE(LDateTime::ValidateDateTimeYYYYHMMHDDHHCMMCSS("2021-03-05 12:00:60"));
    EXPECT_FALSE(LDateTime::ValidateDateTimeYYYYHMMHDDHHCMMCSS("2021-03-05 -1:00:00"));
    EXPECT_FALSE(LDateTime::ValidateDateTimeYYYYHMMHDDHHCMMCSS("2039-03-05 12:00:00"));

    EXPECT_EQ(LDateTime::GetNumberOfDaysInMonth(2021, 2), 28);
    EXPECT_EQ(LDateTime::GetNumberOfDaysInMonth(2024, 2), 29);
    EXPECT_EQ(LDateTime::GetNumberOfDaysInMonth(1900, 2), 28);
    EXPECT_EQ(LDateTime::GetNumberOfDaysInMonth(2000, 2), 29);
    EXPECT_EQ(LDateTime::GetNumberOfDaysInMonth(2021, 12), 31);
    EXPECT_EQ(LDateTime::GetNumberOfDaysInMonth(2021, 11), 30);
    EXPECT_EQ(LDateTime::GetNumberOfDaysInMonth(2021, 0), 0);
    EXPECT_EQ(LDateTime::GetNumberOfDaysInMonth(2021, 13), 0);
    EXPECT_FALSE(LDateTime::IsLeapYear(2100));
    EXPECT_TRUE(LDateTime::IsLeapYear(2400));
    EXPECT_FALSE(LDateTime::IsLeapYear(2023));
}

TEST_F(DateTimeTest, DayTimeAndWeekDay) {
    LDateTime t(kMarch5);
    EXPECT_EQ(t.GetDayTime().GetSeconds(), 14 * 3600 + 7 * 60 + 9);
    EXPECT_EQ(t.GetDayTime().GetHour(), 14);
    EXPECT_EQ(t.GetDayTime().GetMinute(), 7);
    EXPECT_EQ(t.GetDayTime().GetSecond(), 9);
    EXPECT_EQ(t.GetWeekDay().GetMask(), LWeekDay::kFriday);
    EXPECT_EQ(LDateTime(kMarch5 + 86400).GetWeekDay().GetMask(), LWeekDay::kSaturday);
    EXPECT_EQ(LDateTime(kMarch5 + 2 * 86400).GetWeekDay().GetMask(), LWeekDay::kSunday);

    t.SetDayTime(LDayTime(8, 30, 0));
    EXPECT_EQ(Text(t), "2021-03-05 08:30:00");
    t.SetDayTime(LDayTime(0));
    EXPECT_EQ(Text(t), "2021-03-05 00:00:00");

    // No date: the day becomes today.
    LDateTime none;
    const long before = std::time(nullptr);
    none.SetDayTime(LDayTime(23, 59, 59));
    char date[260], today[260];
    LDateTime::GetDateYYYYHMMHDD(none, date);
    LDateTime::GetDateYYYYHMMHDD(before, today);
    if (std::string(date) != today) {  // midnight passed between the two reads
        LDateTime::GetDateYYYYHMMHDD(std::time(nullptr), today);
    }
    EXPECT_STREQ(date, today);
    EXPECT_EQ(none.GetDayTime().GetSeconds(), 86399);
}

TEST_F(DateTimeTest, LocaleDateOrder) {
    EXPECT_EQ(_LDateFormatOrderOf("%m/%d/%y"), 0);
    EXPECT_EQ(_LDateFormatOrderOf("%d.%m.%Y"), 1);
    EXPECT_EQ(_LDateFormatOrderOf("%Y-%m-%d"), 2);
    EXPECT_EQ(_LDateFormatOrderOf("%D"), 0);
    EXPECT_EQ(_LDateFormatOrderOf("%e %b %Y"), 1);
    EXPECT_EQ(_LDateFormatOrderOf("%B %e, %Y"), 0);
    EXPECT_EQ(_LDateFormatOrderOf("%y/%h/%d"), 2);
    EXPECT_EQ(_LDateFormatOrderOf("%d %h %y"), 1);
    EXPECT_EQ(_LDateFormatOrderOf("%y %d %B"), 2);
    // Absent fields count as first.
    EXPECT_EQ(_LDateFormatOrderOf("%d"), 0);
    EXPECT_EQ(_LDateFormatOrderOf("%m"), 1);
    EXPECT_EQ(_LDateFormatOrderOf(""), 1);

    EXPECT_EQ(LGetLocaleDateFormatOrder(), 0);
    EXPECT_EQ(LDateTime::DateFormatOrder(), 0);
    UseLocale("de_DE.UTF-8");
    EXPECT_EQ(LGetLocaleDateFormatOrder(), 1);
    char text[260];
    LDateTime(Make(2021, 3, 5, 10, 0, 0)).GetDateLocalFormat(text);
    EXPECT_STREQ(text, "05/03/21");
    // Cached until reset.
    std::setlocale(LC_ALL, "en_US.UTF-8");
    EXPECT_EQ(LGetLocaleDateFormatOrder(), 1);
    UseLocale("C");
    EXPECT_EQ(LGetLocaleDateFormatOrder(), 0);
    LDateTime(Make(2009, 11, 2, 10, 0, 0)).GetDateLocalFormat(text);
    EXPECT_STREQ(text, "11/02/09");
}

TEST_F(DateTimeTest, LocalTextsReadBack) {
    LDateTime t(kMarch5);
    t._SetTextDate("2021/7/1");  // year first: read as year, month, day
    EXPECT_EQ(Text(t), "2021-07-01 14:07:09");
    t._SetTextDate("12.25.20");  // en_US: month, day, year
    EXPECT_EQ(Text(t), "2020-12-25 14:07:09");
    UseLocale("de_DE.UTF-8");
    t._SetTextDate("05.03.21");
    EXPECT_EQ(Text(t), "2021-03-05 14:07:09");
    char text[260];
    t.GetDateLocalFormat(text);
    LDateTime back;
    back._SetTextDate(text);
    EXPECT_EQ(Text(back), "2021-03-05 00:00:00");
    back._SetTextDate("5 3");  // not a whole date: kept
    EXPECT_EQ(Text(back), "2021-03-05 00:00:00");
    back._SetTextTime("14:07:09");
    EXPECT_EQ(back.GetValue(), kMarch5);
    back._SetTextTime("9:5");
    EXPECT_EQ(Text(back), "2021-03-05 09:05:00");
    back._SetTextDate("");
    EXPECT_TRUE(back.IsEmpty());
}

TEST_F(DateTimeTest, Schedules) {
    const LDateTime now(kMarch5);  // a Friday
    const LWeekDay friday(LWeekDay::kFriday);
    const LDayTime night(22, 0, 0), morning(6, 0, 0);
    auto active = [&](LDayTime at, LDateTime start = 0, LDateTime end = 0,
                      LWeekDay days = LWeekDay::kEveryDay) {
        return LDateTime::TestScheduleDetails(now, at, friday, start, end, night, morning, days);
    };
    EXPECT_TRUE(active(LDayTime(23, 0, 0)));
    EXPECT_TRUE(active(LDayTime(5, 0, 0)));
    EXPECT_TRUE(active(LDayTime(22, 0, 0)));
    EXPECT_FALSE(active(LDayTime(12, 0, 0)));
    EXPECT_FALSE(active(LDayTime(6, 0, 0)));
    EXPECT_FALSE(active(LDayTime(23, 0, 0), kMarch5 + 1));
    EXPECT_TRUE(active(LDayTime(23, 0, 0), kMarch5));
    EXPECT_FALSE(active(LDayTime(23, 0, 0), 0, kMarch5));
    EXPECT_TRUE(active(LDayTime(23, 0, 0), 0, kMarch5 + 1));
    EXPECT_TRUE(active(LDayTime(23, 0, 0), 0, -5));
    EXPECT_FALSE(active(LDayTime(23, 0, 0), 0, 0, LWeekDay::kSaturday | LWeekDay::kSunday));
    EXPECT_TRUE(active(LDayTime(23, 0, 0), 0, 0, LWeekDay::kFriday));
    // A daytime period: from inclusive, to exclusive.
    const LDayTime nine(9, 0, 0), five(17, 0, 0);
    auto office = [&](LDayTime at) {
        return LDateTime::TestScheduleDetails(now, at, friday, 0, 0, nine, five,
                                              LWeekDay::kEveryDay);
    };
    EXPECT_TRUE(office(nine));
    EXPECT_TRUE(office(LDayTime(16, 59, 59)));
    EXPECT_FALSE(office(five));
    EXPECT_FALSE(office(LDayTime(8, 59, 59)));
}

TEST_F(DateTimeTest, AdjustByMonths) {
    const LDateTime jan31(Make(2021, 1, 31, 10, 20, 30));
    EXPECT_EQ(Text(jan31.AdjustByMonths(1)), "2021-02-28 10:20:30");
    EXPECT_EQ(Text(jan31), "2021-01-31 10:20:30");  // unchanged
    EXPECT_EQ(Text(LDateTime(Make(2024, 1, 31, 0, 0, 0)).AdjustByMonths(1)), "2024-02-29 00:00:00");
    EXPECT_EQ(Text(jan31.AdjustByMonths(-13)), "2019-12-31 10:20:30");
    EXPECT_EQ(Text(jan31.AdjustByMonths(-1)), "2020-12-31 10:20:30");
    EXPECT_EQ(Text(jan31.AdjustByMonths(12)), "2022-01-31 10:20:30");
    EXPECT_EQ(Text(jan31.AdjustByMonths(3)), "2021-04-30 10:20:30");
    EXPECT_EQ(Text(jan31.AdjustByMonths(-24)), "2019-01-31 10:20:30");
    EXPECT_EQ(Text(jan31.AdjustByMonths(0)), "2021-01-31 10:20:30");
    // Across a daylight-saving change the local time of day stays.
    EXPECT_EQ(Text(jan31.AdjustByMonths(6)), "2021-07-31 10:20:30");
    EXPECT_EQ(LDateTime().AdjustByMonths(5).GetValue(), 0);
}

TEST_F(DateTimeTest, BuildDate) {
    EXPECT_EQ(Text(_LDateFromBuildText("Nov 27 2021")), "2021-11-27 00:00:00");
    EXPECT_EQ(Text(_LDateFromBuildText("Mar  7 2021")), "2021-03-07 00:00:00");
    EXPECT_EQ(Text(_LDateFromBuildText("Jan  1 2022")), "2022-01-01 00:00:00");
    // An unknown month is month 0: December of the year before.
    EXPECT_EQ(Text(_LDateFromBuildText("Foo 27 2021")), "2020-12-27 00:00:00");

    const LDateTime built = LDateTime::GetBuildDate();
    EXPECT_EQ(built.GetDayTime().GetSeconds(), 0);
    EXPECT_LE(built.GetValue(), std::time(nullptr));
    EXPECT_GT(built.GetValue(), std::time(nullptr) - 400L * 86400);
    EXPECT_EQ(LDateTime::szMonths[10], std::string("Nov"));
    EXPECT_EQ(LDateTime::szWeekDays[6], std::string("Sat"));
    EXPECT_EQ(LDateTime::szWeekDays[7], nullptr);
    EXPECT_EQ(LDateTime::szWeekDaysAbbreviated[0], std::string("Sun"));
    EXPECT_EQ(LDateTime::szWeekDaysAbbreviated[7], nullptr);
}

TEST_F(DateTimeTest, OtherZoneShiftsTheText) {
    ::setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1);
    ::tzset();
    EXPECT_EQ(Text(LDateTime(kMarch5)), "2021-03-05 08:07:09");
    EXPECT_EQ(Text(LDateTime(kJuly1Noon)), "2021-07-01 06:00:00");
}

}  // namespace
