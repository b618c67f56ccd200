// Sound positions and levels of the L library and their text forms: LSoundTime, a signed
// duration in milliseconds written as hours, minutes, seconds and fractions, and LdB, a level
// in whole decibels.
//
// Text forms write into the caller's 260-byte buffers. A negative time is written as "-"
// followed by the form of its magnitude; fractions are cut, never rounded; the minute-second
// forms drop whole hours. The readers never fail: characters they do not know are skipped.
#pragma once

#include <cstdint>

class LSoundTime {
public:
    LSoundTime() = default;
    LSoundTime(std::int64_t milliseconds) : m_nTime(milliseconds) {}  // NOLINT: a count by design

    std::int64_t GetTime() const { return m_nTime; }
    void SetTime(std::int64_t milliseconds) { m_nTime = milliseconds; }
    operator std::int64_t() const { return m_nTime; }  // NOLINT: used as a number

    // "H:MM:SS" with 64-bit hours, then with tenths, hundredths, milliseconds.
    void _GetText0(char* text) const;
    void _GetText1(char* text) const;
    void _GetText2(char* text) const;
    void _GetText(char* text) const;
    // The same with the hours as a 32-bit number.
    void _GetTextHMMSS(char* text) const;
    void _GetTextHMMSSF(char* text) const;
    void _GetTextHMMSSFF(char* text) const;
    void _GetTextHMMSSFFF(char* text) const;
    // "MM:SS" with the minutes modulo 60, then with tenths, hundredths.
    void _GetTextMMSS(char* text) const;
    void _GetTextMMSSF(char* text) const;
    void _GetTextMMSSFF(char* text) const;

    // Reads any of the forms above (and looser texts) character by character: digits build
    // the current field, ":" starts the next field (the third one acts as a point), "." starts
    // the fractions, "-" anywhere makes the value negative, anything else is skipped.
    void SetText(const char* text);
    // True when the text is non-empty and made only of digits, at most one ".", at most three
    // ":" (none after the point) and, when allowed, one leading "-".
    static bool IsValid(const char* text, bool negativesAllowed);

private:
    std::int64_t m_nTime = 0;
};

// A level in decibels. The data-file layer writes -128 ("silence") as "--dB"; reading that
// text back gives -127.
template <class T>
class LdB {
public:
    LdB() = default;
    LdB(T value) : m_nValue(value) {}  // NOLINT: a level by design

    T GetValue() const { return m_nValue; }
    void SetValue(T value) { m_nValue = value; }
    operator T() const { return m_nValue; }  // NOLINT: used as a number

    // Digits anywhere make the number; the first "-" makes it negative, any later "-" makes
    // the number 127. The result is clamped to -127 .. 127.
    void SetText(const char* text);

private:
    T m_nValue = 0;
};

template <>
void LdB<signed char>::SetText(const char* text);
