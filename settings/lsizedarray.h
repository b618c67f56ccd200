// An owned array together with its element count: what a decoder hands back when the number
// of bytes it produced is only known afterwards. The array is allocated with new[] and freed
// by the holder; a fresh or freed array has null data and size 0. Copying is not offered, so
// ownership is never shared; moving hands the array over and leaves the source empty.
#pragma once

#include <utility>

template <typename T>
class LSizedArray {
public:
    LSizedArray() = default;
    LSizedArray(const LSizedArray&) = delete;
    LSizedArray& operator=(const LSizedArray&) = delete;
    LSizedArray(LSizedArray&& other) noexcept
        : m_pData(std::exchange(other.m_pData, nullptr)),
          m_nSize(std::exchange(other.m_nSize, 0)),
          m_nAllocated(std::exchange(other.m_nAllocated, 0)) {}
    LSizedArray& operator=(LSizedArray&& other) noexcept {
        if (this != &other) {
            delete[] m_pData;
            m_pData = std::exchange(other.m_pData, nullptr);
            m_nSize = std::exchange(other.m_nSize, 0);
            m_nAllocated = std::exchange(other.m_nAllocated, 0);
        }
        return *this;
    }
    ~LSizedArray() { delete[] m_pData; }

    // Replaces the contents with an array of `size` elements of unspecified value (null for a
    // size of 0) and returns it. An array already large enough is reused, so a holder that is
    // filled again and again allocates only when it must grow.
    T* Allocate(unsigned long size) {
        if (size > 0 && size <= m_nAllocated) {
            m_nSize = size;
            return m_pData;
        }
        Free();
        if (size > 0) {
            m_pData = new T[size];
            m_nSize = size;
            m_nAllocated = size;
        }
        return m_pData;
    }
    // Takes ownership of a new[] array of `size` elements.
    void Attach(T* data, unsigned long size) {
        if (data != m_pData) {
            delete[] m_pData;
        }
        m_pData = data;
        m_nSize = data != nullptr ? size : 0;
        m_nAllocated = m_nSize;
    }
    // Sets the count of meaningful elements; never beyond what was allocated. The array itself
    // is not reallocated, so a decoder may allocate its worst case and trim the count after.
    void SetSize(unsigned long size) { m_nSize = size < m_nAllocated ? size : m_nAllocated; }
    void Free() {
        delete[] m_pData;
        m_pData = nullptr;
        m_nSize = 0;
        m_nAllocated = 0;
    }

    T* GetData() { return m_pData; }
    const T* GetData() const { return m_pData; }
    unsigned long GetSize() const { return m_nSize; }
    bool IsEmpty() const { return m_nSize == 0; }
    T& operator[](unsigned long index) { return m_pData[index]; }
    const T& operator[](unsigned long index) const { return m_pData[index]; }

private:
    T* m_pData = nullptr;
    unsigned long m_nSize = 0;
    unsigned long m_nAllocated = 0;
};
