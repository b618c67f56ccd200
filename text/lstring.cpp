// Out-of-line parts of the string types and their explicit instantiations for the three
// character types the library uses (char for UTF-8, char16_t for UTF-16, wchar_t for UTF-32).
// The members that allocate or copy live here rather than in the header so that every user
// shares one copy of them and the optimiser sees them in a single context.
#include "text/lstring.h"

#include <cstring>

template <typename T>
void LStringLongTemplate<T>::CopyChars(T* to, const T* from, unsigned long n) {
    if (n > 0) {
        std::memcpy(to, from, n * sizeof(T));
    }
}

template <typename T>
void LStringLongTemplate<T>::MoveChars(T* to, const T* from, unsigned long n) {
    if (n > 0) {
        std::memmove(to, from, n * sizeof(T));
    }
}

template <typename T>
void LStringLongTemplate<T>::GrowToSize(unsigned long size) {
    if (m_nCapacity >= size) {
        return;
    }
    T* data = new T[size];
    // size > capacity > length by the invariant; the bound also tells the optimiser so.
    const unsigned long keep = m_nLength < size ? m_nLength : size - 1;
    CopyChars(data, m_pData, keep);
    data[keep] = 0;
    delete[] m_pData;
    m_pData = data;
    m_nCapacity = size;
}

template <typename T>
void LStringLongTemplate<T>::GrowFor(unsigned long needed) {
    unsigned long size = m_nCapacity == 0 ? needed : 4 * m_nCapacity;
    while (size < needed) {
        size *= 4;
    }
    GrowToSize(size);
}

template <typename T>
void LStringLongTemplate<T>::Assign(const T* text, unsigned long length) {
    if (text == nullptr) {
        Clear();
        return;
    }
    if (length >= m_nCapacity) {
        T* data = new T[length + 1];
        CopyChars(data, text, length);
        data[length] = 0;
        delete[] m_pData;
        m_pData = data;
        m_nCapacity = length + 1;
    } else {
        MoveChars(m_pData, text, length);  // the text may lie inside this string
        m_pData[length] = 0;
    }
    m_nLength = length;
}

template <typename T>
void LStringLongTemplate<T>::Append(const T* text, unsigned long length) {
    if (text == nullptr || length == 0) {
        if (m_pData == nullptr && text != nullptr) {
            GrowToSize(1);  // appending "" to a null string gives an allocated ""
        }
        return;
    }
    if (m_nLength + length + 1 > m_nCapacity) {
        // Appending from inside this string: keep hold of the source across the regrowth.
        if (m_pData != nullptr && text >= m_pData && text < m_pData + m_nCapacity) {
            const unsigned long offset = static_cast<unsigned long>(text - m_pData);
            GrowFor(m_nLength + length + 1);
            text = m_pData + offset;
        } else {
            GrowFor(m_nLength + length + 1);
        }
    }
    MoveChars(m_pData + m_nLength, text, length);
    m_nLength += length;
    m_pData[m_nLength] = 0;
}

template <typename T>
void LStringLongTemplate<T>::SetLength(unsigned long length) {
    GrowToSize(length + 1);
    if (length < m_nCapacity) {
        m_nLength = length;
        m_pData[length] = 0;
    }
}

template <typename T>
void LStringLongTemplate<T>::UpdateLength() {
    if (m_pData == nullptr) {
        m_nLength = 0;
        return;
    }
    unsigned long n = 0;
    while (n + 1 < m_nCapacity && m_pData[n] != 0) {
        ++n;
    }
    m_nLength = n;
    m_pData[n] = 0;
}

template <typename T>
void LStringLongTemplate<T>::Attach(T* data, unsigned long length, unsigned long capacity) {
    if (data != m_pData) {
        delete[] m_pData;
        m_pData = data;
    }
    if (m_pData == nullptr || capacity == 0) {
        m_nLength = 0;
        m_nCapacity = m_pData == nullptr ? 0 : capacity;
        return;
    }
    m_nCapacity = capacity;
    m_nLength = length < capacity ? length : capacity - 1;
    m_pData[m_nLength] = 0;
}

template <typename T>
int LStringLongTemplate<T>::Compare(const T* text, unsigned long length) const {
    using U = std::make_unsigned_t<T>;
    const unsigned long n = m_nLength < length ? m_nLength : length;
    const T* a = GetText();
    for (unsigned long i = 0; i < n; ++i) {
        const U ca = static_cast<U>(a[i]);
        const U cb = static_cast<U>(text[i]);
        if (ca != cb) {
            return ca < cb ? -1 : 1;
        }
    }
    return m_nLength == length ? 0 : (m_nLength < length ? -1 : 1);
}

template class LStringLongTemplate<char>;
template class LStringLongTemplate<char16_t>;
template class LStringLongTemplate<wchar_t>;

unsigned long tstrlen(const char* text) {
    return text != nullptr ? static_cast<unsigned long>(std::strlen(text)) : 0;
}
