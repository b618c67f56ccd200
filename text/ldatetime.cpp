// LDateTime, LDayTime and LWeekDay: local-time conversions and text forms.
//
// Every conversion goes through localtime_r and mktime with tm_isdst = -1 so the system
// decides daylight saving. Texts are written with snprintf into the caller's 260-byte
// buffers. The year rule of all readers lives in TmYear; mktime's result -1 is taken as a
// failure that leaves the value untouched.
#include "text/ldatetime.h"

#include "text/lstring.h"

#include <langinfo.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <string_view>

namespace {

constexpr size_t kTextSize = 260;

std::tm Local(long value) {
    std::tm tm{};
    const std::time_t t = value;
    localtime_r(&t, &tm);
    return tm;
}

// tm_year for a year as read from a text: below 70 is 20xx, 1900 and above as written, 70 to
// 1899 is already an offset from 1900.
int TmYear(int year) {
    if (year < 70)
        return year + 100;
    if (year >= 1900)
        return year - 1900;
    return year;
}

// Rebuilds the value from broken-down local time; keeps it when mktime fails.
void Store(long& value, std::tm tm) {
    tm.tm_isdst = -1;
    const std::time_t t = std::mktime(&tm);
    if (t != static_cast<std::time_t>(-1))
        value = static_cast<long>(t);
}

void Empty(char* text) {
    if (text != nullptr)
        text[0] = 0;
}

void WriteDate(const std::tm& tm, char* date) {
    std::snprintf(date, kTextSize, "%.4d-%.2d-%.2d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
}

void WriteTime(const std::tm& tm, char* time) {
    std::snprintf(time, kTextSize, "%.2d:%.2d:%.2d", tm.tm_hour, tm.tm_min, tm.tm_sec);
}

void Join(char* text, const char* date, const char* time) {
    tplsnprintf(text, kTextSize, "%s %s", date, time);
}

// The date and time texts of one value, the time with or without seconds; 0 empties both.
void WriteDateAndTime(long value, char* date, char* time, bool seconds) {
    if (value == 0) {
        Empty(date);
        Empty(time);
        return;
    }
    const std::tm tm = Local(value);
    WriteDate(tm, date);
    if (seconds) {
        WriteTime(tm, time);
    } else {
        std::snprintf(time, kTextSize, "%.2d:%.2d", tm.tm_hour, tm.tm_min);
    }
}

// The same two texts joined by a space into one buffer; 0 gives the empty text.
void WriteDateAndTime(long value, char* text, bool seconds) {
    if (value == 0)
        return Empty(text);
    char date[kTextSize];
    char time[kTextSize];
    WriteDateAndTime(value, date, time, seconds);
    Join(text, date, time);
}

bool IsEmptyText(const char* text) {
    return text == nullptr || text[0] == 0;
}

std::atomic<int> gDateFormatOrder{-1};

}  // namespace

const char* const LDateTime::szWeekDays[8] = {"Sun", "Mon", "Tue", "Wed",
                                              "Thu", "Fri", "Sat", nullptr};
const char* const LDateTime::szWeekDaysAbbreviated[8] = {"Sun", "Mon", "Tue", "Wed",
                                                         "Thu", "Fri", "Sat", nullptr};
const char* const LDateTime::szMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

LDateTime LDateTime::GetCurrentDateTime() {
    return LDateTime(static_cast<long>(std::time(nullptr)));
}

void LDateTime::GetDateTime(long value, char* date, char* time) {
    WriteDateAndTime(value, date, time, true);
}

void LDateTime::GetDateTime(char* text) const {
    WriteDateAndTime(m_nDateTime, text, true);
}

void LDateTime::GetDateTimeInLocalFormat(char* text) const {
    GetDateTime(text);
}

void LDateTime::GetDateYYYYHMMHDD(long value, char* date) {
    if (value == 0)
        return Empty(date);
    WriteDate(Local(value), date);
}

void LDateTime::GetDateInLocalFormat(char* date) const {
    GetDateYYYYHMMHDD(m_nDateTime, date);
}

void LDateTime::GetDateYYYYHMMHDDTimeHHCMM(long value, char* date, char* time) {
    WriteDateAndTime(value, date, time, false);
}

void LDateTime::GetDateYYYYHMMHDDTimeHHCMM(long value, char* text) {
    WriteDateAndTime(value, text, false);
}

void LDateTime::GetTimeInLocalFormat(char* time) const {
    _GetTextTime(time);
}

void LDateTime::_GetTextTime(char* time) const {
    if (m_nDateTime == 0)
        return Empty(time);
    WriteTime(Local(m_nDateTime), time);
}

void LDateTime::GetTimeHHCMM(long value, char* time) {
    if (value == 0)
        return Empty(time);
    const std::tm tm = Local(value);
    std::snprintf(time, kTextSize, "%.2d:%.2d", tm.tm_hour, tm.tm_min);
}

void LDateTime::GetTimeHHHMMHSS(long value, char* time) {
    if (value == 0)
        return Empty(time);
    const std::tm tm = Local(value);
    std::snprintf(time, kTextSize, "%.2d-%.2d-%.2d", tm.tm_hour, tm.tm_min, tm.tm_sec);
}

void LDateTime::GetDateLocalFormat(char* date) const {
    if (m_nDateTime == 0)
        return Empty(date);
    const std::tm tm = Local(m_nDateTime);
    const int year = (tm.tm_year + 1900) % 100;
    const int month = tm.tm_mon + 1;
    const int day = tm.tm_mday;
    switch (DateFormatOrder()) {
        case 1:
            std::snprintf(date, kTextSize, "%.2d/%.2d/%.2d", day, month, year);
            break;
        case 2:
            std::snprintf(date, kTextSize, "%.2d/%.2d/%.2d", year, month, day);
            break;
        default:
            std::snprintf(date, kTextSize, "%.2d/%.2d/%.2d", month, day, year);
            break;
    }
}

void LDateTime::SetDateTime(long& value, const char* date, const char* time) {
    if (IsEmptyText(date)) {
        value = 0;
        return;
    }
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    std::sscanf(date, "%d-%d-%d", &year, &month, &day);
    if (time != nullptr)
        std::sscanf(time, "%d:%d:%d", &hour, &minute, &second);
    SetDateTime(value, year, month, day, hour, minute, second);
}

void LDateTime::SetDateYYYYHMMHDDTimeHHCMMCSS(long& value, const char* text) {
    const bool hasTime = text != nullptr && std::strlen(text) > 11;
    SetDateTime(value, text, hasTime ? text + 11 : nullptr);
}

void LDateTime::SetDateTimeNoon(long& value, const char* date) {
    if (IsEmptyText(date)) {
        value = 0;
        return;
    }
    int year = 0, month = 0, day = 0;
    std::sscanf(date, "%d-%d-%d", &year, &month, &day);
    SetDateTime(value, year, month, day, 12, 0, 0);
}

void LDateTime::SetDateTime(long& value, int year, int month, int day, int hour, int minute,
                            int second) {
    std::tm tm{};
    tm.tm_year = TmYear(year);
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    Store(value, tm);
}

namespace {

// Unsigned comparisons make a missing (-1) or negative field fail.
bool ValidDate(int year, int month, int day) {
    if (year < 1970 || year > 2038)
        return false;
    if (static_cast<unsigned>(month) - 1 >= 12)
        return false;
    return static_cast<unsigned>(day) - 1 <
           static_cast<unsigned>(LDateTime::GetNumberOfDaysInMonth(year, month));
}

}  // namespace

bool LDateTime::ValidateDateYYYYHMMHDD(const char* date) {
    if (IsEmptyText(date))
        return true;
    int year = -1, month = -1, day = -1;
    std::sscanf(date, "%d-%d-%d", &year, &month, &day);
    return ValidDate(year, month, day);
}

bool LDateTime::ValidateDateTimeYYYYHMMHDDHHCMMCSS(const char* text) {
    if (IsEmptyText(text))
        return false;
    int year = -1, month = -1, day = -1, hour = -1, minute = -1, second = -1;
    std::sscanf(text, "%d-%d-%d %d:%d:%d", &year, &month, &day, &hour, &minute, &second);
    return ValidDate(year, month, day) && static_cast<unsigned>(hour) <= 23 &&
           static_cast<unsigned>(minute) <= 59 && static_cast<unsigned>(second) < 60;
}

int LDateTime::GetNumberOfDaysInMonth(int year, int month) {
    static constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12)
        return 0;
    if (month == 2 && IsLeapYear(year))
        return 29;
    return kDays[month - 1];
}

bool LDateTime::IsLeapYear(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

LDayTime LDateTime::GetDayTime() const {
    const std::tm tm = Local(m_nDateTime);
    return LDayTime(tm.tm_hour, tm.tm_min, tm.tm_sec);
}

void LDateTime::SetDayTime(LDayTime dayTime) {
    if (m_nDateTime == 0)
        m_nDateTime = GetCurrentDateTime();
    std::tm tm = Local(m_nDateTime);
    const long seconds = dayTime.GetSeconds();
    tm.tm_hour = static_cast<int>(seconds / 3600);
    tm.tm_min = static_cast<int>((seconds / 60) % 60);
    tm.tm_sec = static_cast<int>(seconds % 60);
    Store(m_nDateTime, tm);
}

LWeekDay LDateTime::GetWeekDay() const {
    return LWeekDay::FromDay(Local(m_nDateTime).tm_wday);
}

int LDateTime::DateFormatOrder() {
    return LGetLocaleDateFormatOrder();
}

bool LDateTime::TestScheduleDetails(LDateTime now, LDayTime nowDayTime, LWeekDay nowWeekDay,
                                    LDateTime start, LDateTime end, LDayTime from, LDayTime to,
                                    LWeekDay weekDays) {
    if (start.GetValue() > now.GetValue())
        return false;
    if (end.GetValue() > 0 && end.GetValue() <= now.GetValue())
        return false;
    const long at = nowDayTime.GetSeconds();
    if (from.GetSeconds() <= to.GetSeconds()) {
        if (!(from.GetSeconds() <= at && at < to.GetSeconds()))
            return false;
    } else if (from.GetSeconds() > at && to.GetSeconds() <= at) {
        return false;  // across midnight: outside is the stretch between to and from
    }
    return nowWeekDay.Shares(weekDays);
}

LDateTime LDateTime::AdjustByMonths(int months) const {
    if (m_nDateTime == 0)
        return LDateTime();
    std::tm tm = Local(m_nDateTime);
    // Month index counted from year 0 so that negative moves carry whole years down.
    const long total = (tm.tm_year + 1900L) * 12 + tm.tm_mon + months;
    long year = total / 12;
    long month = total % 12;
    if (month < 0) {
        month += 12;
        --year;
    }
    tm.tm_year = static_cast<int>(year - 1900);
    tm.tm_mon = static_cast<int>(month);
    const int last = GetNumberOfDaysInMonth(static_cast<int>(year), static_cast<int>(month) + 1);
    if (tm.tm_mday > last)
        tm.tm_mday = last;
    long value = m_nDateTime;
    Store(value, tm);
    return LDateTime(value);
}

LDateTime LDateTime::GetBuildDate() {
    return _LDateFromBuildText(__DATE__);
}

LDateTime _LDateFromBuildText(const char* text) {
    int month = 0;
    for (int i = 0; i < 12; ++i) {
        if (std::strncmp(text, LDateTime::szMonths[i], 3) == 0) {
            month = i + 1;
            break;
        }
    }
    int day = 0, year = 0;
    if (std::strlen(text) > 3)
        std::sscanf(text + 3, "%d %d", &day, &year);
    // Month 0 is carried by mktime into December of the year before.
    long value = 0;
    LDateTime::SetDateTime(value, year, month, day, 0, 0, 0);
    return LDateTime(value);
}

namespace {

// Reads up to `count` unsigned numbers separated by anything else; returns how many were
// found and, for each, how many digits it had.
int ReadNumbers(const char* text, int* numbers, int* digits, int count) {
    int found = 0;
    const char* p = text;
    while (*p != 0 && found < count) {
        if (*p < '0' || *p > '9') {
            ++p;
            continue;
        }
        long n = 0;
        int d = 0;
        while (*p >= '0' && *p <= '9') {
            if (n < 100000)
                n = n * 10 + (*p - '0');  // saturates: no date field is that long
            ++d;
            ++p;
        }
        numbers[found] = static_cast<int>(n);
        digits[found] = d;
        ++found;
    }
    return found;
}

}  // namespace

void LDateTime::_SetTextDate(const char* date) {
    if (IsEmptyText(date)) {
        m_nDateTime = 0;
        return;
    }
    int n[3] = {0, 0, 0};
    int digits[3] = {0, 0, 0};
    if (ReadNumbers(date, n, digits, 3) < 3)
        return;  // not a date: the value stays
    int year, month, day;
    const int order = digits[0] > 2 ? 2 : DateFormatOrder();
    switch (order) {
        case 1:
            day = n[0], month = n[1], year = n[2];
            break;
        case 2:
            year = n[0], month = n[1], day = n[2];
            break;
        default:
            month = n[0], day = n[1], year = n[2];
            break;
    }
    std::tm tm{};
    if (m_nDateTime != 0)
        tm = Local(m_nDateTime);  // the time of day stays
    tm.tm_year = TmYear(year);
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    Store(m_nDateTime, tm);
}

void LDateTime::_SetTextTime(const char* time) {
    if (IsEmptyText(time))
        return;
    int hour = 0, minute = 0, second = 0;
    std::sscanf(time, "%d:%d:%d", &hour, &minute, &second);
    SetDayTime(LDayTime(hour, minute, second));
}

int _LDateFormatOrderOf(const char* format) {
    const std::string_view f(format != nullptr ? format : "");
    if (f.find("%D") != std::string_view::npos)
        return 0;
    // Position of the first of the given specifiers, or -1 when none is present (an absent
    // field counts as coming first).
    auto find = [&f](std::initializer_list<const char*> items) -> long {
        for (const char* item : items) {
            const size_t at = f.find(item);
            if (at != std::string_view::npos)
                return static_cast<long>(at);
        }
        return -1;
    };
    long month = find({"%m"});
    if (month < 0) {
        const long b = find({"%b"});
        const long B = find({"%B"});
        month = (b < 0) ? B : (B < 0 ? b : std::min(b, B));
    }
    if (month < 0)
        month = find({"%h"});
    const long day = find({"%d", "%e"});
    long year = find({"%y"});
    const long Y = find({"%Y"});
    year = (year < 0) ? Y : (Y < 0 ? year : std::min(year, Y));
    if (year < month && year < day)
        return 2;
    if (month < day)
        return 0;
    return 1;
}

int LGetLocaleDateFormatOrder() {
    int order = gDateFormatOrder.load(std::memory_order_relaxed);
    if (order < 0) {
        order = _LDateFormatOrderOf(nl_langinfo(D_FMT));
        gDateFormatOrder.store(order, std::memory_order_relaxed);
    }
    return order;
}

void _LResetLocaleDateFormatOrder() {
    gDateFormatOrder.store(-1, std::memory_order_relaxed);
}
