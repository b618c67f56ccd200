// The library's string types, the writers that feed the formatting engine, and the printf
// family built on that engine. This is the one header the rest of the library includes for
// text; the small parsing and conversion helpers live in text/lstring_util.h, included below.
//
// Invariants kept by every public operation of LStringLongTemplate<T>:
//   - data is either null (a string that never held anything: length 0, capacity 0) or an
//     array of `capacity` characters allocated with new[] and owned by the string;
//   - length < capacity and data[length] == 0 whenever data is not null.
// Strings grow to 4 x their capacity and lists to 8 x count + 7 usable slots; both rules are
// relied upon by callers that append character by character and must stay exact.
// Fixed buffers (LStringShortTemplate, the fixed writer, tplsnprintf) cut text to their size
// instead of failing, and never write past their end.
#pragma once

#include <compare>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <type_traits>
#include <utility>

static_assert(sizeof(unsigned long) == 8, "the string types count in unsigned 64-bit");

// Length in characters of a terminated text of any character type; a null text has length 0.
template <typename T>
inline unsigned long tstrlen(const T* text) {
    if (text == nullptr) {
        return 0;
    }
    const T* p = text;
    while (*p != 0) {
        ++p;
    }
    return static_cast<unsigned long>(p - text);
}
unsigned long tstrlen(const char* text);  // strlen, tolerant of null

template <typename T>
class LStringLongTemplate;
template <typename T>
class LStringLongTemplateWriter;
template <typename T>
class LStringLongTemplateAppender;
namespace ldetail {
template <typename T>
struct LStringWriteRule;
}

unsigned long tsprintfappend(LStringLongTemplate<char>& string, const char* format, ...);
unsigned long tvsprintfappend(LStringLongTemplate<char>& string, const char* format, va_list args);

// A growable, terminated string of T (char, char16_t or wchar_t).
template <typename T>
class LStringLongTemplate {
public:
    using CharType = T;

    LStringLongTemplate() = default;
    // Copies the text into an array of exactly length + 1 characters; a null text gives the
    // empty string with null data.
    LStringLongTemplate(const T* text) { Assign(text); }  // NOLINT: implicit by design
    LStringLongTemplate(const T* text, unsigned long length) { Assign(text, length); }
    // Allocates exactly length + 1 characters; copying a string with null data gives null
    // data, length 0, capacity 0.
    LStringLongTemplate(const LStringLongTemplate& other) {
        if (other.m_pData != nullptr) {
            Assign(other.m_pData, other.m_nLength);
        }
    }
    // Takes the buffer; the source is left with null data, length 0, capacity 0.
    LStringLongTemplate(LStringLongTemplate&& other) noexcept
        : m_pData(std::exchange(other.m_pData, nullptr)),
          m_nLength(std::exchange(other.m_nLength, 0)),
          m_nCapacity(std::exchange(other.m_nCapacity, 0)) {}
    ~LStringLongTemplate() { delete[] m_pData; }

    // Reuses the buffer when it is large enough, else allocates exactly length + 1. Assigning
    // a string with null data empties this one.
    LStringLongTemplate& operator=(const LStringLongTemplate& other) {
        if (this != &other) {
            if (other.m_pData == nullptr) {
                Clear();
            } else {
                Assign(other.m_pData, other.m_nLength);
            }
        }
        return *this;
    }
    LStringLongTemplate& operator=(LStringLongTemplate&& other) noexcept {
        if (this != &other) {
            delete[] m_pData;
            m_pData = std::exchange(other.m_pData, nullptr);
            m_nLength = std::exchange(other.m_nLength, 0);
            m_nCapacity = std::exchange(other.m_nCapacity, 0);
        }
        return *this;
    }
    LStringLongTemplate& operator=(const T* text) {
        Assign(text);
        return *this;
    }

    // If capacity < size: allocate size characters, copy length characters, terminate, free the
    // old array, capacity := size. Never shrinks.
    void GrowToSize(unsigned long size);

    // Replaces the text. The buffer is kept when it holds length + 1 characters, otherwise it
    // is replaced by one of exactly length + 1. The source may lie inside this string.
    void Assign(const T* text, unsigned long length);
    void Assign(const T* text) { Assign(text, tstrlen(text)); }

    // Appends text, growing to 4 x capacity (or to what the text needs, when more).
    void Append(const T* text, unsigned long length);
    void Append(const T* text) { Append(text, tstrlen(text)); }
    void Append(const LStringLongTemplate& other) { Append(other.GetText(), other.m_nLength); }
    // Appends one character with the writers' rule: store, then grow to 4 x capacity once the
    // length has reached the capacity.
    void AppendChar(T c) {
        if (m_nCapacity == 0) {
            GrowToSize(kInitialSize);
        }
        m_pData[m_nLength++] = c;
        if (m_nLength >= m_nCapacity) {
            GrowToSize(4 * m_nCapacity);
        }
        m_pData[m_nLength] = 0;
    }
    LStringLongTemplate& operator+=(const T* text) {
        Append(text);
        return *this;
    }
    LStringLongTemplate& operator+=(const LStringLongTemplate& other) {
        Append(other);
        return *this;
    }
    LStringLongTemplate& operator+=(T c) {
        AppendChar(c);
        return *this;
    }

    // Length 0, buffer kept.
    void Clear() {
        m_nLength = 0;
        if (m_pData != nullptr) {
            m_pData[0] = 0;
        }
    }
    // Frees the buffer: null data, length 0, capacity 0.
    void Free() {
        delete[] m_pData;
        m_pData = nullptr;
        m_nLength = 0;
        m_nCapacity = 0;
    }

    // Sets the length after the caller wrote into GetBuffer(); grows to length + 1 when the
    // buffer is too small and terminates at the new length.
    void SetLength(unsigned long length);
    // Recomputes the length from the terminator after the caller wrote a terminated text into
    // GetBuffer(), never beyond capacity - 1.
    void UpdateLength();

    // Hands the buffer to the caller (who frees it with delete[]); the string becomes null.
    T* Detach() {
        m_nLength = 0;
        m_nCapacity = 0;
        return std::exchange(m_pData, nullptr);
    }
    // Takes ownership of a new[] array of `capacity` characters holding `length` characters.
    void Attach(T* data, unsigned long length, unsigned long capacity);
    void Swap(LStringLongTemplate& other) noexcept {
        std::swap(m_pData, other.m_pData);
        std::swap(m_nLength, other.m_nLength);
        std::swap(m_nCapacity, other.m_nCapacity);
    }

    // Never null: an unallocated string reads as "".
    const T* GetText() const { return m_pData != nullptr ? m_pData : kEmpty; }
    const T* c_str() const { return GetText(); }
    // The owned array itself; null for a string that never held anything.
    T* GetBuffer() { return m_pData; }
    const T* GetData() const { return m_pData; }
    unsigned long GetLength() const { return m_nLength; }
    unsigned long GetCapacity() const { return m_nCapacity; }
    bool IsEmpty() const { return m_nLength == 0; }
    bool IsNull() const { return m_pData == nullptr; }
    T operator[](unsigned long index) const { return GetText()[index]; }
    T& operator[](unsigned long index) { return m_pData[index]; }

    // Code-unit-wise comparison (characters compared as unsigned); null equals "".
    int Compare(const T* text, unsigned long length) const;
    int Compare(const T* text) const { return Compare(text ? text : kEmpty, tstrlen(text)); }
    int Compare(const LStringLongTemplate& other) const {
        return Compare(other.GetText(), other.m_nLength);
    }
    bool operator==(const LStringLongTemplate& other) const { return Compare(other) == 0; }
    bool operator==(const T* text) const { return Compare(text) == 0; }
    std::strong_ordering operator<=>(const LStringLongTemplate& other) const {
        return Compare(other) <=> 0;
    }
    std::strong_ordering operator<=>(const T* text) const { return Compare(text) <=> 0; }

    // Formats after the current length (char strings only); see tsprintfappend below. A member
    // template, so that the explicit instantiations for other character types leave it out.
    template <typename U = T>
    requires std::is_same_v<U, char>
    unsigned long tsprintfappend(const char* format, ...) {
        va_list args;
        va_start(args, format);
        const unsigned long n = tvsprintfappend(*this, format, args);
        va_end(args);
        return n;
    }

    static constexpr unsigned long kInitialSize = 260;

private:
    friend struct ldetail::LStringWriteRule<T>;

    static constexpr T kEmpty[1] = {0};

    static void CopyChars(T* to, const T* from, unsigned long n);
    static void MoveChars(T* to, const T* from, unsigned long n);
    // Grows by the 4x rule until `needed` characters fit.
    void GrowFor(unsigned long needed);

    T* m_pData = nullptr;
    unsigned long m_nLength = 0;
    unsigned long m_nCapacity = 0;
};

extern template class LStringLongTemplate<char>;
extern template class LStringLongTemplate<char16_t>;
extern template class LStringLongTemplate<wchar_t>;

// ---- Writers: where tplprintf puts its characters, one at a time or in runs. ----

// Stores characters into a caller's buffer while length < limit and drops the rest silently.
// It never terminates: the caller writes the terminator at GetLength().
template <typename T>
class LFixedLengthStringWriterTemplate {
public:
    LFixedLengthStringWriterTemplate(T* buffer, unsigned long limit)
        : m_pBuffer(buffer), m_nLength(0), m_nLimit(limit) {}
    LFixedLengthStringWriterTemplate(T* buffer, unsigned long length, unsigned long limit)
        : m_pBuffer(buffer), m_nLength(length), m_nLimit(limit) {}

    void Write(T c) {
        if (m_nLength < m_nLimit) {
            m_pBuffer[m_nLength++] = c;
        }
    }
    void Write(const T* text, unsigned long count) {
        const unsigned long room = m_nLength < m_nLimit ? m_nLimit - m_nLength : 0;
        const unsigned long n = count < room ? count : room;
        for (unsigned long i = 0; i < n; ++i) {
            m_pBuffer[m_nLength + i] = text[i];
        }
        m_nLength += n;
    }
    // Writes the terminator at the current length (the buffer must hold limit + 1).
    void Terminate() { m_pBuffer[m_nLength] = 0; }

    T* GetBuffer() const { return m_pBuffer; }
    unsigned long GetLength() const { return m_nLength; }
    unsigned long GetLimit() const { return m_nLimit; }

    T* m_pBuffer;
    unsigned long m_nLength;
    unsigned long m_nLimit;
};

namespace ldetail {
// The string writers' rule: store at data[length], increase the length, and once the length
// has reached the capacity grow to 4 x capacity. A run is stored in pieces so that the
// resulting capacity is exactly the one character-by-character writing would give. The
// string stays terminated after every write.
template <typename T>
struct LStringWriteRule {
    // A string without a buffer is first given LStringLongTemplate<T>::kInitialSize characters.
    static void Open(LStringLongTemplate<T>& s) {
        if (s.m_nCapacity == 0) {
            s.GrowToSize(LStringLongTemplate<T>::kInitialSize);
        }
    }
    static void Clear(LStringLongTemplate<T>& s) {
        s.m_nLength = 0;
        s.m_pData[0] = 0;
    }
    static void Put(LStringLongTemplate<T>& s, T c) {
        s.m_pData[s.m_nLength++] = c;
        if (s.m_nLength >= s.m_nCapacity) {
            s.GrowToSize(4 * s.m_nCapacity);
        }
        s.m_pData[s.m_nLength] = 0;
    }
    static void PutRun(LStringLongTemplate<T>& s, const T* text, unsigned long count) {
        while (count > 0) {
            unsigned long room = s.m_nCapacity - s.m_nLength;  // >= 1 by the invariant
            const unsigned long n = count < room ? count : room;
            for (unsigned long i = 0; i < n; ++i) {
                s.m_pData[s.m_nLength + i] = text[i];
            }
            s.m_nLength += n;
            text += n;
            count -= n;
            if (s.m_nLength >= s.m_nCapacity) {
                s.GrowToSize(4 * s.m_nCapacity);
            }
        }
        s.m_pData[s.m_nLength] = 0;
    }
};

// What the two long-string writers share: every write goes through the rule above, after the
// string has been given a buffer.
template <typename T>
class LStringLongSink {
public:
    void Write(T c) { Rule::Put(m_rString, c); }
    void Write(const T* text, unsigned long count) { Rule::PutRun(m_rString, text, count); }
    unsigned long GetLength() const { return m_rString.GetLength(); }
    LStringLongTemplate<T>& GetString() const { return m_rString; }

protected:
    using Rule = LStringWriteRule<T>;
    explicit LStringLongSink(LStringLongTemplate<T>& string) : m_rString(string) {
        Rule::Open(m_rString);
    }

private:
    LStringLongTemplate<T>& m_rString;
};
}  // namespace ldetail

// Writes into a string from position 0 (the constructor empties it). A string without a buffer
// is first given LStringLongTemplate<T>::kInitialSize characters.
template <typename T>
class LStringLongTemplateWriter : public ldetail::LStringLongSink<T> {
public:
    explicit LStringLongTemplateWriter(LStringLongTemplate<T>& string)
        : ldetail::LStringLongSink<T>(string) {
        ldetail::LStringWriteRule<T>::Clear(string);
    }
};

// Writes after the string's current length.
template <typename T>
class LStringLongTemplateAppender : public ldetail::LStringLongSink<T> {
public:
    explicit LStringLongTemplateAppender(LStringLongTemplate<T>& string)
        : ldetail::LStringLongSink<T>(string) {}
};

// ---- The formatting engine ----

// Formats `format` into `writer` and returns the writer's length at the end (0, with nothing
// written, for a null format). Departures from printf, kept on purpose:
//   - a conversion collects only ".", digits, "L", "l" and "z" (at most 257 of them; more
//     are read and dropped); any other character, flags "-+ #*" included, is the conversion;
//   - "%" after the collected characters (%5%) writes one "%";
//   - "s" copies the whole string whatever width or precision was given; null writes nothing;
//   - "e", "f", "g" take a double (a long double when "L" precedes the letter); every other
//     conversion, "E" and "G" included, takes a 64-bit integer slot;
//   - each other conversion goes through the C library's formatter into a 272-character
//     scratch area and is cut at 271 characters; what the formatter would do by storing
//     through the slot or reading memory through it ("n", "S" with a slot other than null,
//     an argument addressed by position as in "%1$") is withheld: the slot is taken and
//     nothing is written.
// Instantiated for the three writers declared above.
template <typename W>
unsigned long tplprintf(W& writer, const char* format, va_list args);

extern template unsigned long tplprintf(LFixedLengthStringWriterTemplate<char>&, const char*,
                                        va_list);
extern template unsigned long tplprintf(LStringLongTemplateWriter<char>&, const char*, va_list);
extern template unsigned long tplprintf(LStringLongTemplateAppender<char>&, const char*, va_list);

// GrowToSize(260), length := 0, format from position 0, terminate. Returns the length.
unsigned long sprintf(LStringLongTemplate<char>& string, const char* format, ...);
unsigned long vsprintf(LStringLongTemplate<char>& string, const char* format, va_list args);
// Formats into the writer as it stands: its length is not reset and the buffer is not
// terminated (the caller terminates at the writer's length). Returns the writer's length.
unsigned long sprintf(LFixedLengthStringWriterTemplate<char>& writer, const char* format, ...);
// GrowToSize(260) (no effect on a larger string), format after the current length, terminate.
// (Declared above, before the class, for the member form.)
// Fixed writer over buffer with limit size - 1; terminates at the length reached. A size of 0
// writes nothing at all. Returns the length written.
unsigned long tplsnprintf(char* buffer, unsigned long size, const char* format, ...);
unsigned long tplvsnprintf(char* buffer, unsigned long size, const char* format, va_list args);
// Prints to standard output with the C library's vprintf (not through the engine).
int tprintf(const char* format, ...);

// Appends text character by character through the appender, with its growth rule.
void tplstrcpy(LStringLongTemplateAppender<char>& appender, const char* text);

// ---- Fixed-capacity string ----

// Marks a constructor argument as a format rather than a text to copy.
template <typename T>
struct LStringPrintFormatTemplate {
    explicit LStringPrintFormatTemplate(const T* format) : m_pFormat(format) {}
    const T* m_pFormat;
};

void _LStringShortFormat(char* buffer, const char* format, ...);

// A terminated string in a fixed array of 260 characters (259 and the terminator). Longer
// text is cut, never refused.
template <typename T>
class LStringShortTemplate {
public:
    static constexpr unsigned long kSize = 260;

    LStringShortTemplate() { m_arText[0] = 0; }
    // Copies at most 259 characters.
    LStringShortTemplate(const T* text) { Assign(text); }  // NOLINT: implicit by design
    // Formats through a fixed writer with limit 259 and terminates, also when formatting stops
    // half-way.
    template <typename... Args>
    explicit LStringShortTemplate(LStringPrintFormatTemplate<T> format,
                                  Args... args) requires std::is_same_v<T, char> {
        _LStringShortFormat(m_arText, format.m_pFormat, args...);
    }

    LStringShortTemplate& operator=(const T* text) {
        Assign(text);
        return *this;
    }
    void Assign(const T* text) {
        unsigned long n = 0;
        if (text != nullptr) {
            while (n < kSize - 1 && text[n] != 0) {
                m_arText[n] = text[n];
                ++n;
            }
        }
        m_arText[n] = 0;
    }

    const T* GetText() const { return m_arText; }
    const T* c_str() const { return m_arText; }
    T* GetBuffer() { return m_arText; }
    unsigned long GetLength() const { return tstrlen(m_arText); }
    operator const T*() const { return m_arText; }  // NOLINT: used where a text is expected

private:
    T m_arText[kSize];
};

// ---- List of owned strings ----

// A list of owned character arrays; the pointer array always ends with a null pointer. Grows
// to 8 x count + 7 usable slots (7, 63, 511, ...).
template <typename T>
class LStringListTemplate {
public:
    LStringListTemplate() = default;
    LStringListTemplate(const LStringListTemplate&) = delete;
    LStringListTemplate& operator=(const LStringListTemplate&) = delete;
    LStringListTemplate(LStringListTemplate&& other) noexcept
        : m_ppItems(std::exchange(other.m_ppItems, nullptr)),
          m_nCount(std::exchange(other.m_nCount, 0)),
          m_nCapacity(std::exchange(other.m_nCapacity, 0)) {}
    LStringListTemplate& operator=(LStringListTemplate&& other) noexcept {
        if (this != &other) {
            RemoveAll();
            m_ppItems = std::exchange(other.m_ppItems, nullptr);
            m_nCount = std::exchange(other.m_nCount, 0);
            m_nCapacity = std::exchange(other.m_nCapacity, 0);
        }
        return *this;
    }
    ~LStringListTemplate() { RemoveAll(); }

    // Appends a new empty string of `size` characters (at least 1, for its terminator) and
    // returns it for filling.
    T* Add(unsigned long size) {
        T* item = new T[size > 0 ? size : 1];
        item[0] = 0;
        if (m_nCount == m_nCapacity) {
            T** items = new T*[8 * m_nCount + 8];
            for (unsigned long i = 0; i < m_nCount; ++i) {
                items[i] = m_ppItems[i];
            }
            delete[] m_ppItems;
            m_ppItems = items;
            m_nCapacity = 8 * m_nCount + 7;
        }
        m_ppItems[m_nCount++] = item;
        m_ppItems[m_nCount] = nullptr;
        return item;
    }
    // Appends a copy of the text.
    T* AddString(const T* text) {
        const unsigned long n = tstrlen(text);
        T* item = Add(n + 1);
        for (unsigned long i = 0; i < n; ++i) {
            item[i] = text[i];
        }
        item[n] = 0;
        return item;
    }
    // Frees every string and the array.
    void RemoveAll() {
        for (unsigned long i = 0; i < m_nCount; ++i) {
            delete[] m_ppItems[i];
        }
        delete[] m_ppItems;
        m_ppItems = nullptr;
        m_nCount = 0;
        m_nCapacity = 0;
    }

    unsigned long GetCount() const { return m_nCount; }
    unsigned long GetCapacity() const { return m_nCapacity; }
    T* GetAt(unsigned long index) const { return index < m_nCount ? m_ppItems[index] : nullptr; }
    T* operator[](unsigned long index) const { return GetAt(index); }
    // The null-terminated pointer array (null for a list that never held anything).
    T* const* GetItems() const { return m_ppItems; }

private:
    T** m_ppItems = nullptr;
    unsigned long m_nCount = 0;
    unsigned long m_nCapacity = 0;
};

using LStringLong = LStringLongTemplate<char>;
using LStringShort = LStringShortTemplate<char>;
using LStringList = LStringListTemplate<char>;

#include "text/lstring_util.h"
