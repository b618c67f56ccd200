// LDateTime, LDayTime and LWeekDay under a pinned zone (a POSIX rule for Central Europe, no
// zone files needed) and locale (en_US.UTF-8); the fixture puts back what was there.
#include "text/ldatetime.h"

#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <tuple>

namespace {

constexpr const char* kCentralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";
// 2021-03-05 14:07:09 CET (13:07:09 UTC), a Friday.
constexpr long kMarch5 = 1614949629;

// Writes a form with separate date and time outputs as "date|time".
void Join(void (*form)(long, char*, char*), long value, char* text) {
    char time[260] = "stale";
    form(value, text, time);
    std::strcat(text, "|");
    std::strcat(text, time);
}

class DateTimeTest : public ::testing::Test {
protected:
    void SetUp() override {
        SetZone(kCentralEurope);
        UseLocale("en_US.UTF-8");
    }
    void TearDown() override {
        SetZone(savedTZ_ ? savedTZ_->c_str() : nullptr);
        UseLocale(savedLocale_.c_str());
    }
    static void SetZone(const char* zone) {
        zone ? ::setenv("TZ", zone, 1) : ::unsetenv("TZ");
        ::tzset();
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
    std::optional<std::string> savedTZ_ =
        std::getenv("TZ") ? std::optional<std::string>(std::getenv("TZ")) : std::nullopt;
    std::string savedLocale_ = std::setlocale(LC_ALL, nullptr);
};

// Every text form of 2021-03-05 14:07:09, and of no date ("" in every form).
TEST_F(DateTimeTest, TextForms) {
    using Form = void (*)(long value, char* text);
    const std::pair<Form, const char*> forms[] = {
        {[](long v, char* t) { Join(LDateTime::GetDateTime, v, t); }, "2021-03-05|14:07:09"},
        {[](long v, char* t) { LDateTime(v).GetDateTime(t); }, "2021-03-05 14:07:09"},
        {[](long v, char* t) { LDateTime(v).GetDateTimeInLocalFormat(t); }, "2021-03-05 14:07:09"},
        {[](long v, char* t) { LDateTime::GetDateYYYYHMMHDD(v, t); }, "2021-03-05"},
        {[](long v, char* t) { LDateTime(v).GetDateInLocalFormat(t); }, "2021-03-05"},
        {[](long v, char* t) { Join(LDateTime::GetDateYYYYHMMHDDTimeHHCMM, v, t); },
         "2021-03-05|14:07"},
        {[](long v, char* t) { LDateTime::GetDateYYYYHMMHDDTimeHHCMM(v, t); }, "2021-03-05 14:07"},
        {[](long v, char* t) { LDateTime(v).GetTimeInLocalFormat(t); }, "14:07:09"},
        {[](long v, char* t) { LDateTime(v)._GetTextTime(t); }, "14:07:09"},
        {[](long v, char* t) { LDateTime::GetTimeHHCMM(v, t); }, "14:07"},
        {[](long v, char* t) { LDateTime::GetTimeHHHMMHSS(v, t); }, "14-07-09"},
        {[](long v, char* t) { LDateTime(v).GetDateLocalFormat(t); }, "03/05/21"}};
    for (const auto& [form, expected] : forms) {
        char text[520] = "stale";
        form(kMarch5, text);
        EXPECT_STREQ(text, expected);
        std::strcpy(text, "stale");
        form(0, text);
        EXPECT_STREQ(text, std::strchr(expected, '|') ? "|" : "") << expected;
    }
}

TEST_F(DateTimeTest, ReadingDatesAndTheYearRule) {
    // Two- and three-digit years: below 70 is 20xx, otherwise 1900 + the number. No date
    // gives 0 ("0" below).
    auto shown = [](long v) { return v == 0 ? std::string("0") : Text(v); };
    const struct {
        const char *date, *time, *text;
    } pairs[] = {{"2021-03-05", "14:07:09", "2021-03-05 14:07:09"},
                 {"69-1-2", "3:4:5", "2069-01-02 03:04:05"},
                 {"70-1-2", "", "1970-01-02 00:00:00"},
                 {"121-1-2", "", "2021-01-02 00:00:00"},
                 {"", "14:07:09", "0"},
                 {nullptr, "14:07:09", "0"}};
    for (const auto& c : pairs) {
        long v = 5;
        LDateTime::SetDateTime(v, c.date, c.time);
        EXPECT_EQ(shown(v), c.text) << (c.date ? c.date : "null");
    }
    using Set = void (*)(long&, const char*);
    const std::tuple<Set, const char*, const char*> singles[] = {
        {LDateTime::SetDateYYYYHMMHDDTimeHHCMMCSS, "2021-03-05 14:07:09", "2021-03-05 14:07:09"},
        {LDateTime::SetDateYYYYHMMHDDTimeHHCMMCSS, "2021-03-05", "2021-03-05 00:00:00"},
        {LDateTime::SetDateYYYYHMMHDDTimeHHCMMCSS, "", "0"},
        {LDateTime::SetDateTimeNoon, "2021-07-01", "2021-07-01 12:00:00"},
        {LDateTime::SetDateTimeNoon, "", "0"}};
    for (const auto& [set, text, expected] : singles) {
        long v = 5;
        set(v, text);
        EXPECT_EQ(shown(v), expected) << text;
    }
    long v = 5;
    LDateTime::SetDateTime(v, 21, 3, 5, 14, 7, 9);
    EXPECT_EQ(v, kMarch5);
    // A time mktime cannot represent leaves the value as it was.
    LDateTime::SetDateTime(v, INT_MAX, INT_MAX, 1, 0, 0, 0);
    EXPECT_EQ(v, kMarch5);
}

TEST_F(DateTimeTest, Validation) {
    using Case = std::pair<const char*, bool>;
    for (auto [text, valid] :
         {Case{"", true}, Case{"1970-01-01", true}, Case{"2038-12-31", true},
          Case{"2024-02-29", true}, Case{"2039-01-01", false}, Case{"1969-12-31", false},
          Case{"2021-02-29", false}, Case{"2021-13-01", false}, Case{"2021-00-01", false},
          Case{"2021-04-31", false}, Case{"2021-04-0", false}, Case{"2021-04", false}}) {
        EXPECT_EQ(LDateTime::ValidateDateYYYYHMMHDD(text), valid) << (text ? text : "null");
    }
    for (auto [text, valid] :
         {Case{"2021-03-05 23:59:59", true}, Case{"2021-03-05 0:0:0", true}, Case{nullptr, false},
          Case{"2021-03-05", false}, Case{"2021-03-05 12:00", false},
          Case{"2021-03-05 24:00:00", false}, Case{"2021-03-05 12:60:00", false},
          Case{"2021-03-05 12:00:60", false}, Case{"2039-03-05 12:00:00", false}}) {
        EXPECT_EQ(LDateTime::ValidateDateTimeYYYYHMMHDDHHCMMCSS(text), valid)
            << (text ? text : "null");
    }
    const int days[][3] = {{2021, 2, 28},  {2024, 2, 29},  {1900, 2, 28}, {2000, 2, 29},
                           {2021, 12, 31}, {2021, 11, 30}, {2021, 0, 0},  {2021, 13, 0}};
    for (auto [year, month, count] : days) {
        EXPECT_EQ(LDateTime::GetNumberOfDaysInMonth(year, month), count) << year << "-" << month;
    }
    EXPECT_TRUE(LDateTime::IsLeapYear(2400));
}

TEST_F(DateTimeTest, DayTimeWeekDayAndSchedules) {
    LDateTime t(kMarch5);
    EXPECT_EQ(t.GetDayTime().GetHour(), 14);
    EXPECT_EQ(t.GetDayTime().GetMinute(), 7);
    EXPECT_EQ(t.GetDayTime().GetSecond(), 9);
    EXPECT_EQ(t.GetWeekDay().GetMask(), LWeekDay::kFriday);
    EXPECT_EQ(LDateTime(kMarch5 + 86400).GetWeekDay().GetMask(), LWeekDay::kSaturday);
    t.SetDayTime(LDayTime(8, 30, 0));
    EXPECT_EQ(Text(t), "2021-03-05 08:30:00");
    // No date: the day becomes today (its last second is at most a day ahead).
    LDateTime none;
    const long now = std::time(nullptr);
    none.SetDayTime(LDayTime(23, 59, 59));
    EXPECT_GE(none.GetValue() + 1, now);
    EXPECT_LT(none.GetValue(), now + 86400);
    EXPECT_EQ(none.GetDayTime().GetSeconds(), 86399);
    const LDayTime night(22, 0, 0), morning(6, 0, 0), nine(9, 0, 0), five(17, 0, 0);
    const LWeekDay weekend(LWeekDay::kSaturday | LWeekDay::kSunday);
    // A period over midnight, then a daytime one: from inclusive, to exclusive.
    const struct {
        LDayTime at, from, to;
        long start, end;
        LWeekDay days;
        bool active;
    } cases[] = {{LDayTime(23, 0, 0), night, morning, 0, 0, LWeekDay::kEveryDay, true},
                 {LDayTime(5, 0, 0), night, morning, 0, 0, LWeekDay::kEveryDay, true},
                 {LDayTime(12, 0, 0), night, morning, 0, 0, LWeekDay::kEveryDay, false},
                 {morning, night, morning, 0, 0, LWeekDay::kEveryDay, false},
                 {LDayTime(23, 0, 0), night, morning, kMarch5 + 1, 0, LWeekDay::kEveryDay, false},
                 {LDayTime(23, 0, 0), night, morning, kMarch5, 0, LWeekDay::kEveryDay, true},
                 {LDayTime(23, 0, 0), night, morning, 0, kMarch5, LWeekDay::kEveryDay, false},
                 {LDayTime(23, 0, 0), night, morning, 0, kMarch5 + 1, LWeekDay::kEveryDay, true},
                 {LDayTime(23, 0, 0), night, morning, 0, 0, weekend, false},
                 {nine, nine, five, 0, 0, LWeekDay::kEveryDay, true},
                 {five, nine, five, 0, 0, LWeekDay::kEveryDay, false},
                 {LDayTime(8, 59, 59), nine, five, 0, 0, LWeekDay::kEveryDay, false}};
    for (const auto& c : cases) {
        EXPECT_EQ(
            LDateTime::TestScheduleDetails(LDateTime(kMarch5), c.at, LWeekDay(LWeekDay::kFriday),
                                           c.start, c.end, c.from, c.to, c.days),
            c.active)
            << &c - cases;
    }
}

TEST_F(DateTimeTest, LocaleDateOrderWritesAndReadsLocalTexts) {
    // 0: month first, 1: day first, 2: year first; absent fields count as first.
    const std::pair<const char*, int> orders[] = {
        {"%m/%d/%y", 0}, {"%d.%m.%Y", 1},  {"%Y-%m-%d", 2}, {"%D", 0},
        {"%e %b %Y", 1}, {"%B %e, %Y", 0}, {"%y/%h/%d", 2}, {"%d %h %y", 1},
        {"%y %d %B", 2}, {"%d", 0},        {"%m", 1},       {"", 1}};
    for (auto [format, order] : orders) {
        EXPECT_EQ(_LDateFormatOrderOf(format), order) << format;
    }
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
    // Local texts read back in the locale's order.
    LDateTime t(kMarch5);
    t._SetTextDate("2021/7/1");  // year first: read as year, month, day
    EXPECT_EQ(Text(t), "2021-07-01 14:07:09");
    t._SetTextDate("12.25.20");  // C: month, day, year
    EXPECT_EQ(Text(t), "2020-12-25 14:07:09");
    UseLocale("de_DE.UTF-8");
    t._SetTextDate("05.03.21");
    EXPECT_EQ(Text(t), "2021-03-05 14:07:09");
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

TEST_F(DateTimeTest, AdjustByMonths) {
    // The day is cut to the month's length; across a daylight-saving change (+6) the local
    // time of day stays.
    const LDateTime jan31(Make(2021, 1, 31, 10, 20, 30));
    const std::pair<int, const char*> cases[] = {{1, "2021-02-28 10:20:30"},
                                                 {-13, "2019-12-31 10:20:30"},
                                                 {12, "2022-01-31 10:20:30"},
                                                 {6, "2021-07-31 10:20:30"}};
    for (auto [months, text] : cases) {
        EXPECT_EQ(Text(jan31.AdjustByMonths(months)), text) << months;
    }
    EXPECT_EQ(Text(jan31), "2021-01-31 10:20:30");  // unchanged
    EXPECT_EQ(Text(LDateTime(Make(2024, 1, 31, 0, 0, 0)).AdjustByMonths(1)), "2024-02-29 00:00:00");
    EXPECT_EQ(LDateTime().AdjustByMonths(5).GetValue(), 0);
}

TEST_F(DateTimeTest, BuildDate) {
    EXPECT_EQ(Text(_LDateFromBuildText("Nov 27 2021")), "2021-11-27 00:00:00");
    EXPECT_EQ(Text(_LDateFromBuildText("Mar  7 2021")), "2021-03-07 00:00:00");
    // An unknown month is month 0: December of the year before.
    EXPECT_EQ(Text(_LDateFromBuildText("Foo 27 2021")), "2020-12-27 00:00:00");
}

}  // namespace
