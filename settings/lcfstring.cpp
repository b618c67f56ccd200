// UTF-8 text to property-list strings, with the validity check that stands in for the
// platform's refusal to make a string from malformed bytes.
#include "settings/lcfstring.h"

#include <cstdint>
#include <cstring>

bool LIsValidUTF8(const char* text, unsigned long length) {
    const auto* p = reinterpret_cast<const unsigned char*>(text);
    const auto* end = p + length;
    while (p < end) {
        const unsigned char lead = *p++;
        if (lead < 0x80) {
            continue;
        }
        int more = 0;
        uint32_t cp = 0;
        uint32_t least = 0;
        if ((lead & 0xE0) == 0xC0) {
            more = 1;
            cp = lead & 0x1F;
            least = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            more = 2;
            cp = lead & 0x0F;
            least = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            more = 3;
            cp = lead & 0x07;
            least = 0x10000;
        } else {
            return false;
        }
        if (end - p < more) {
            return false;
        }
        for (int i = 0; i < more; ++i) {
            if ((p[i] & 0xC0) != 0x80) {
                return false;
            }
            cp = (cp << 6) | (p[i] & 0x3F);
        }
        p += more;
        if (cp < least || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            return false;
        }
    }
    return true;
}

LCFString::LCFString(const char* text) {
    const char* value = text != nullptr ? text : "";
    if (LIsValidUTF8(value, std::strlen(value))) {
        m_ref = plist_new_string(value);
    }
}

LCFString::~LCFString() {
    if (m_ref != nullptr) {
        plist_free(m_ref);
    }
}

const char* LCFString::GetText() const {
    if (m_ref == nullptr) {
        return "";
    }
    const char* text = plist_get_string_ptr(m_ref, nullptr);
    return text != nullptr ? text : "";
}

plist_t LCFString::Detach() {
    plist_t ref = m_ref;
    m_ref = nullptr;
    return ref;
}
