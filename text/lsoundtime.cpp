// LSoundTime and LdB text forms and readers.
//
// The sound-time reader accumulates in unsigned 64-bit arithmetic: long digit runs wrap
// instead of overflowing, so any input gives a defined (if meaningless) value. Formatting
// works on the magnitude as an unsigned number, so even the most negative value prints.
#include "text/lsoundtime.h"

#include <cstdio>

namespace {

constexpr size_t kTextSize = 260;

struct Fields {
    const char* sign;
    unsigned long long hours;
    int minutes;
    int seconds;
    int milliseconds;
};

Fields Split(std::int64_t time) {
    const bool negative = time < 0;
    const unsigned long long magnitude = negative ? 0ULL - static_cast<unsigned long long>(time)
                                                  : static_cast<unsigned long long>(time);
    return {negative ? "-" : "", magnitude / 3600000ULL,
            static_cast<int>((magnitude / 60000ULL) % 60),
            static_cast<int>((magnitude / 1000ULL) % 60), static_cast<int>(magnitude % 1000ULL)};
}

}  // namespace

void LSoundTime::_GetText0(char* text) const {
    const Fields f = Split(m_nTime);
    std::snprintf(text, kTextSize, "%s%lld:%.2d:%.2d", f.sign, static_cast<long long>(f.hours),
                  f.minutes, f.seconds);
}

void LSoundTime::_GetText1(char* text) const {
    const Fields f = Split(m_nTime);
    std::snprintf(text, kTextSize, "%s%lld:%.2d:%.2d.%.1d", f.sign, static_cast<long long>(f.hours),
                  f.minutes, f.seconds, f.milliseconds / 100);
}

void LSoundTime::_GetText2(char* text) const {
    const Fields f = Split(m_nTime);
    std::snprintf(text, kTextSize, "%s%lld:%.2d:%.2d.%.2d", f.sign, static_cast<long long>(f.hours),
                  f.minutes, f.seconds, f.milliseconds / 10);
}

void LSoundTime::_GetText(char* text) const {
    const Fields f = Split(m_nTime);
    std::snprintf(text, kTextSize, "%s%lld:%.2d:%.2d.%.3d", f.sign, static_cast<long long>(f.hours),
                  f.minutes, f.seconds, f.milliseconds);
}

void LSoundTime::_GetTextHMMSS(char* text) const {
    const Fields f = Split(m_nTime);
    std::snprintf(text, kTextSize, "%s%d:%.2d:%.2d", f.sign, static_cast<int>(f.hours), f.minutes,
                  f.seconds);
}

void LSoundTime::_GetTextHMMSSF(char* text) const {
    const Fields f = Split(m_nTime);
    std::snprintf(text, kTextSize, "%s%d:%.2d:%.2d.%.1d", f.sign, static_cast<int>(f.hours),
                  f.minutes, f.seconds, f.milliseconds / 100);
}

void LSoundTime::_GetTextHMMSSFF(char* text) const {
    const Fields f = Split(m_nTime);
    std::snprintf(text, kTextSize, "%s%d:%.2d:%.2d.%.2d", f.sign, static_cast<int>(f.hours),
                  f.minutes, f.seconds, f.milliseconds / 10);
}

void LSoundTime::_GetTextHMMSSFFF(char* text) const {
    const Fields f = Split(m_nTime);
    std::snprintf(text, kTextSize, "%s%d:%.2d:%.2d.%.3d", f.sign, static_cast<int>(f.hours),
                  f.minutes, f.seconds, f.milliseconds);
}

void LSoundTime::_GetTextMMSS(char* text) const {
    const Fields f = Split(m_nTime);
    std::snprintf(text, kTextSize, "%s%.2d:%.2d", f.sign, f.minutes, f.seconds);
}

void LSoundTime::_GetTextMMSSF(char* text) const {
    const Fields f = Split(m_nTime);
    std::snprintf(text, kTextSize, "%s%.2d:%.2d.%.1d", f.sign, f.minutes, f.seconds,
                  f.milliseconds / 100);
}

void LSoundTime::_GetTextMMSSFF(char* text) const {
    const Fields f = Split(m_nTime);
    std::snprintf(text, kTextSize, "%s%.2d:%.2d.%.2d", f.sign, f.minutes, f.seconds,
                  f.milliseconds / 10);
}

void LSoundTime::SetText(const char* text) {
    std::uint64_t value = 0;
    std::uint64_t field = 0;
    std::uint64_t scale = 1000;  // 1000 while reading whole seconds, then 100, 10, 1, 0
    int colons = 0;
    bool negative = false;
    for (const char* p = text != nullptr ? text : ""; *p != 0; ++p) {
        const char c = *p;
        if (c >= '0' && c <= '9') {
            const std::uint64_t d = static_cast<std::uint64_t>(c - '0');
            if (scale == 1000) {
                // The field is re-read as a longer number: the value follows its growth.
                const std::uint64_t grown = field * 10 + d * 1000;
                value += grown - field;
                field = grown;
            } else {
                value += d * scale;
                scale /= 10;
            }
        } else if (c == '.') {
            if (scale == 1000)
                scale = 100;
        } else if (c == ':') {
            ++colons;
            if (colons <= 2) {
                value *= 60;
                field = 0;
            } else if (colons == 3) {
                scale = 100;
                field = 0;
            }
        } else if (c == '-') {
            negative = true;
        }
    }
    m_nTime = static_cast<std::int64_t>(negative ? 0 - value : value);
}

bool LSoundTime::IsValid(const char* text, bool negativesAllowed) {
    if (text == nullptr || text[0] == 0)
        return false;
    bool point = false;
    int colons = 0;
    for (const char* p = text; *p != 0; ++p) {
        const char c = *p;
        if (c >= '0' && c <= '9')
            continue;
        if (c == '-') {
            if (p != text || !negativesAllowed)
                return false;
        } else if (c == '.') {
            if (point)
                return false;
            point = true;
        } else if (c == ':') {
            if (point || ++colons > 3)
                return false;
        } else {
            return false;
        }
    }
    return true;
}

template <>
void LdB<signed char>::SetText(const char* text) {
    int number = 0;
    int minuses = 0;
    for (const char* p = text != nullptr ? text : ""; *p != 0; ++p) {
        if (*p >= '0' && *p <= '9') {
            // Anything above 127 ends as 127: stop growing there instead of overflowing.
            if (number <= 1000)
                number = number * 10 + (*p - '0');
        } else if (*p == '-') {
            if (++minuses > 1)
                number = 127;
        }
    }
    if (number > 127)
        number = 127;
    if (minuses > 0)
        number = -number;
    if (number <= -127)
        number = -127;
    m_nValue = static_cast<signed char>(number);
}
