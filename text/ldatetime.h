// Calendar values of the L library and their text forms: LDateTime (seconds since 1970),
// LDayTime (seconds since local midnight) and LWeekDay (a mask of week days).
//
// Everything is in the local time zone: texts are built with localtime_r and read back with
// mktime, daylight saving left to the system. The value 0 means "no date": every text form of
// 0 is the empty text and reading an empty date gives 0. Text buffers passed in hold at least
// 260 bytes; no form writes more than that. Nothing reports errors: a text that cannot be
// read leaves 0 or a partial value, and when mktime fails the value keeps what it held.
#pragma once

#include <cstdint>

// Seconds since local midnight (hour x 3600 + minute x 60 + second).
class LDayTime {
public:
    LDayTime() = default;
    LDayTime(long seconds) : m_nSeconds(seconds) {}  // NOLINT: a number of seconds by design
    LDayTime(int hour, int minute, int second) : m_nSeconds(hour * 3600L + minute * 60L + second) {}

    long GetSeconds() const { return m_nSeconds; }
    operator long() const { return m_nSeconds; }  // NOLINT: compared and stored as a number
    int GetHour() const { return static_cast<int>(m_nSeconds / 3600); }
    int GetMinute() const { return static_cast<int>((m_nSeconds / 60) % 60); }
    int GetSecond() const { return static_cast<int>(m_nSeconds % 60); }

private:
    long m_nSeconds = 0;
};

// Week days as an 8-bit mask: bit 0 is Sunday up to bit 6 Saturday.
class LWeekDay {
public:
    enum : unsigned char {
        kSunday = 1 << 0,
        kMonday = 1 << 1,
        kTuesday = 1 << 2,
        kWednesday = 1 << 3,
        kThursday = 1 << 4,
        kFriday = 1 << 5,
        kSaturday = 1 << 6,
        kEveryDay = 0x7F,
    };

    LWeekDay() = default;
    LWeekDay(unsigned char mask) : m_nMask(mask) {}  // NOLINT: a mask by design
    static LWeekDay FromDay(int weekDay) {
        return LWeekDay(static_cast<unsigned char>(1u << weekDay));
    }

    unsigned char GetMask() const { return m_nMask; }
    operator unsigned char() const { return m_nMask; }  // NOLINT: used as a mask
    bool HasDay(int weekDay) const { return (m_nMask >> weekDay) & 1; }
    bool Shares(LWeekDay other) const { return (m_nMask & other.m_nMask) != 0; }

private:
    unsigned char m_nMask = 0;
};

class LDateTime {
public:
    static const char* const szWeekDays[8];
    static const char* const szWeekDaysAbbreviated[8];
    static const char* const szMonths[12];

    LDateTime() = default;
    LDateTime(long value) : m_nDateTime(value) {}  // NOLINT: a time value by design

    long GetValue() const { return m_nDateTime; }
    void SetValue(long value) { m_nDateTime = value; }
    operator long() const { return m_nDateTime; }  // NOLINT: compared and stored as a number
    bool IsEmpty() const { return m_nDateTime == 0; }
    static LDateTime GetCurrentDateTime();

    // Text forms. Date "YYYY-MM-DD", time "HH:MM:SS", joined by one blank.
    static void GetDateTime(long value, char* date, char* time);
    void GetDateTime(char* text) const;
    void GetDateTimeInLocalFormat(char* text) const;
    static void GetDateYYYYHMMHDD(long value, char* date);
    void GetDateInLocalFormat(char* date) const;
    // Date "YYYY-MM-DD" and time "HH:MM", separately or joined by one blank.
    static void GetDateYYYYHMMHDDTimeHHCMM(long value, char* date, char* time);
    static void GetDateYYYYHMMHDDTimeHHCMM(long value, char* text);
    void GetTimeInLocalFormat(char* time) const;
    void _GetTextTime(char* time) const;
    static void GetTimeHHCMM(long value, char* time);
    // "HH-MM-SS": hyphens, usable in file names.
    static void GetTimeHHHMMHSS(long value, char* time);
    // Two-digit fields separated by "/" in the locale's order (DateFormatOrder).
    void GetDateLocalFormat(char* date) const;

    // Reading. Dates are "%d-%d-%d" (year, month, day), times "%d:%d:%d". A year below 70
    // means 2000 + year, a year of 1900 or more is taken as written, 70 to 1899 counts from
    // 1900.
    static void SetDateTime(long& value, const char* date, const char* time);
    // "YYYY-MM-DD HH:MM:SS": the time is read from the 12th character on.
    static void SetDateYYYYHMMHDDTimeHHCMMCSS(long& value, const char* text);
    static void SetDateTimeNoon(long& value, const char* date);
    static void SetDateTime(long& value, int year, int month, int day, int hour, int minute,
                            int second);

    // Year 1970 to 2038, month 1 to 12, day within the month; with a time, hour <= 23,
    // minute <= 59, second < 60. A missing or negative field fails.
    static bool ValidateDateYYYYHMMHDD(const char* date);  // also true for an empty text
    static bool ValidateDateTimeYYYYHMMHDDHHCMMCSS(const char* text);

    static int GetNumberOfDaysInMonth(int year, int month);  // 0 outside months 1 to 12
    static bool IsLeapYear(int year);

    LDayTime GetDayTime() const;
    // Replaces the time of day (the current time first when the value is 0).
    void SetDayTime(LDayTime dayTime);
    LWeekDay GetWeekDay() const;

    // 0 month-day-year, 1 day-month-year, 2 year-month-day.
    static int DateFormatOrder();

    // True when a schedule (start and end dates, a daily period, week days) is active now.
    // A period with from > to runs across midnight; an end of 0 or less means no end.
    static bool TestScheduleDetails(LDateTime now, LDayTime nowDayTime, LWeekDay nowWeekDay,
                                    LDateTime start, LDateTime end, LDayTime from, LDayTime to,
                                    LWeekDay weekDays);

    // The value moved by whole months, the day clamped to the target month, the time of day
    // kept; the object is not changed. No date stays no date.
    LDateTime AdjustByMonths(int months) const;

    // The build date of the program at 00:00:00 local time.
    static LDateTime GetBuildDate();

    // Local-format texts: a date of three numbers with any separators in the locale's order
    // (or year first when the first number has more than two digits), and a time of hours,
    // minutes and seconds separated by colons put into the value's date (today's when none).
    void _SetTextDate(const char* date);
    void _SetTextTime(const char* time);

private:
    long m_nDateTime = 0;
};

// The locale's date order (as DateFormatOrder), computed from nl_langinfo(D_FMT) once and
// cached.
int LGetLocaleDateFormatOrder();
// Forgets the cached order, for programs (and tests) that change LC_TIME after the first use.
void _LResetLocaleDateFormatOrder();
// The order a strftime-style date format implies (the rule behind LGetLocaleDateFormatOrder).
int _LDateFormatOrderOf(const char* format);
// The date of a build-date text such as "Nov 27 2021" at 00:00:00 (GetBuildDate's reading).
LDateTime _LDateFromBuildText(const char* text);
