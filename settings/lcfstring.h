// LCFString: the library's wrapper from UTF-8 text to a property-list string object. It
// owns the object it made (released when the wrapper goes) unless Detach hands it over.
// Text that is not valid UTF-8 cannot become a string: the wrapper is then empty and
// IsValid answers false. A null text counts as empty text.
#pragma once

#include <plist/plist.h>

class LCFString {
public:
    explicit LCFString(const char* text);
    ~LCFString();
    LCFString(const LCFString&) = delete;
    LCFString& operator=(const LCFString&) = delete;

    bool IsValid() const { return m_ref != nullptr; }
    plist_t GetRef() const { return m_ref; }
    // The UTF-8 text of the object; "" when empty.
    const char* GetText() const;
    // Gives the object to the caller, who releases it (plist_free) or stores it.
    plist_t Detach();

private:
    plist_t m_ref = nullptr;
};

// True when the bytes are well-formed UTF-8 (no overlong forms, surrogates or values above
// U+10FFFF).
bool LIsValidUTF8(const char* text, unsigned long length);
