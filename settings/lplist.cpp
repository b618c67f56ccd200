// Property lists on libplist. Files are read whole and parsed as XML or binary by their
// content; only XML is written. Keys go through LCFString like every other text, so a key
// that is not valid UTF-8 finds nothing and stores nothing.
#include "settings/lplist.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/lsmall_file.h"
#include "settings/lcfstring.h"

namespace {

// The number-type codes of the two number reads: 32-bit integer and 32-bit float.
constexpr int kNumberTypeInt32 = 9;
constexpr int kNumberTypeFloat32 = 12;

plist_t Node(const void* value) {
    return const_cast<plist_t>(value);
}

bool SameValue(plist_t a, plist_t b);

bool SameContainer(plist_t a, plist_t b) {
    if (plist_get_node_type(a) == PLIST_ARRAY) {
        const uint32_t n = plist_array_get_size(a);
        if (n != plist_array_get_size(b)) {
            return false;
        }
        for (uint32_t i = 0; i < n; ++i) {
            if (!SameValue(plist_array_get_item(a, i), plist_array_get_item(b, i))) {
                return false;
            }
        }
        return true;
    }
    if (plist_dict_get_size(a) != plist_dict_get_size(b)) {
        return false;
    }
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(a, &it);
    bool same = true;
    for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(a, it, &key, &item);
        if (item == nullptr) {
            std::free(key);
            break;
        }
        same = SameValue(item, plist_dict_get_item(b, key));
        std::free(key);
        if (!same) {
            break;
        }
    }
    std::free(it);
    return same;
}

bool SameValue(plist_t a, plist_t b) {
    if (a == nullptr || b == nullptr || plist_get_node_type(a) != plist_get_node_type(b)) {
        return false;
    }
    const plist_type type = plist_get_node_type(a);
    if (type == PLIST_ARRAY || type == PLIST_DICT) {
        return SameContainer(a, b);
    }
    return plist_compare_node_value(a, b) != 0;
}

// True when every dictionary in the tree is keyed by key objects. The binary parser can build
// dictionaries keyed by other kinds from crafted input, and the library's dictionary walks
// assume keys; such input is refused as a whole. The walk keeps its own stack.
bool IsWellKeyed(plist_t root) {
    std::vector<plist_t> pending{root};
    while (!pending.empty()) {
        plist_t node = pending.back();
        pending.pop_back();
        const plist_type type = plist_get_node_type(node);
        if (type == PLIST_ARRAY) {
            const uint32_t n = plist_array_get_size(node);
            for (uint32_t i = 0; i < n; ++i) {
                pending.push_back(plist_array_get_item(node, i));
            }
        } else if (type == PLIST_DICT) {
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(node, &it);
            for (;;) {
                plist_t value = nullptr;
                plist_dict_next_item(node, it, nullptr, &value);
                if (value == nullptr) {
                    break;
                }
                if (plist_get_node_type(plist_dict_item_get_key(value)) != PLIST_KEY) {
                    std::free(it);
                    return false;
                }
                pending.push_back(value);
            }
            std::free(it);
        }
    }
    return true;
}

// True when no key or string holds a NUL byte. The binary parser can decode one from UTF-16
// input, which leaves a text whose recorded length runs past its terminator; copies and
// key reads of such a text go wrong. The XML form writes every text at its recorded length,
// so a NUL shows up there.
bool HasTerminatedTexts(plist_t root) {
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(root, &xml, &length);
    if (xml == nullptr) {
        return false;
    }
    const bool clean = std::memchr(xml, 0, length) == nullptr;
    plist_to_xml_free(xml);
    return clean;
}

}  // namespace

// ---- Loading ----

bool _LFileURLToPath(const char* url, LStringLongTemplate<char>& path) {
    static constexpr char kPrefix[] = "file://localhost";
    constexpr unsigned long kPrefixLength = sizeof(kPrefix) - 1;
    if (std::strncmp(url, kPrefix, kPrefixLength) != 0 || url[kPrefixLength] != '/') {
        return false;
    }
    std::string decoded;
    for (const char* p = url + kPrefixLength; *p != 0; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        // Characters a URL may not hold as they are: blanks, controls and the unsafe set.
        if (c <= 0x20 || c == 0x7F || std::strchr("\"<>\\^`{|}", c) != nullptr) {
            return false;
        }
        if (c == '%') {
            const int high = LHexDigitValue(p[1]);
            const int low = high < 0 ? -1 : LHexDigitValue(p[2]);
            if (low < 0) {
                return false;
            }
            decoded.push_back(static_cast<char>(high * 16 + low));
            p += 2;
            continue;
        }
        decoded.push_back(static_cast<char>(c));
    }
    path.Assign(decoded.c_str(), decoded.size());
    return true;
}

std::vector<std::string> _LPlistDictionaryKeys(plist_t dictionary) {
    std::vector<std::string> keys;
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(dictionary, &iter);
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(dictionary, iter, &key, &value);
        if (key == nullptr) {
            break;
        }
        keys.emplace_back(key);
        free(key);
    }
    free(iter);
    return keys;
}

plist_t _LPlistParse(const char* data, unsigned long length) {
    if (data == nullptr || length == 0 || length > UINT32_MAX) {
        return nullptr;
    }
    plist_t result = nullptr;
    plist_from_memory(data, static_cast<uint32_t>(length), &result);
    if (result != nullptr && (!IsWellKeyed(result) || !HasTerminatedTexts(result))) {
        plist_free(result);
        result = nullptr;
    }
    return result;
}

void LCFDictionary::Release() {
    if (m_ref != nullptr) {
        plist_free(m_ref);
        m_ref = nullptr;
    }
}

bool LCFDictionary::CreateFromFullPath(const char* path) {
    Release();
    char url[260];
    tplsnprintf(url, sizeof(url), "file://localhost%s", path);
    LStringLongTemplate<char> filePath;
    if (!_LFileURLToPath(url, filePath)) {
        return false;
    }
    std::string data;
    if (!_LReadWholeFile(filePath.GetText(), data)) {
        return false;
    }
    m_ref = _LPlistParse(data.data(), data.size());
    return m_ref != nullptr;
}

// ---- The dictionary ----

LPlist::~LPlist() {
    Replace(nullptr);
}

LPlist::LPlist(const LPlist& other) {
    CreateFromDictionary(other.m_dictionary);
}

LPlist& LPlist::operator=(const LPlist& other) {
    if (this != &other) {
        CreateFromDictionary(other.m_dictionary);
    }
    return *this;
}

void LPlist::Replace(plist_t dictionary) {
    if (m_dictionary != nullptr) {
        plist_free(m_dictionary);
    }
    m_dictionary = dictionary;
}

bool LPlist::CreateFromFile(const char* path) {
    LCFDictionary loaded;
    if (!loaded.CreateFromFullPath(path) || plist_get_node_type(loaded.GetRef()) != PLIST_DICT) {
        return false;
    }
    Replace(plist_copy(loaded.GetRef()));
    return true;
}

void LPlist::CreateFromDictionary(plist_t dictionary) {
    Replace(dictionary != nullptr ? plist_copy(dictionary) : nullptr);
}

bool LPlist::WriteToFile(const char* path) const {
    if (m_dictionary == nullptr) {
        return false;
    }
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(m_dictionary, &xml, &length);
    if (xml == nullptr) {
        return false;
    }
    const bool written = _LWriteWholeFile(path, xml, length);
    plist_to_xml_free(xml);
    return written;
}

bool LPlist::TestKeyExists(const char* key) const {
    const void* value = nullptr;
    return GetValue(key, value);
}

bool LPlist::TestValueExists(const void* value) const {
    if (m_dictionary == nullptr || value == nullptr) {
        return false;
    }
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(m_dictionary, &it);
    bool found = false;
    while (!found) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(m_dictionary, it, &key, &item);
        std::free(key);
        if (item == nullptr) {
            break;
        }
        found = SameValue(item, Node(value));
    }
    std::free(it);
    return found;
}

void LPlist::RemoveValue(const char* key) {
    LCFString name(key);
    if (m_dictionary != nullptr && name.IsValid()) {
        plist_dict_remove_item(m_dictionary, name.GetText());
    }
}

void LPlist::RemoveAllValues() {
    if (m_dictionary != nullptr) {
        Replace(plist_new_dict());
    }
}

unsigned long LPlist::GetSize() const {
    return m_dictionary != nullptr ? plist_dict_get_size(m_dictionary) : 0;
}

bool LPlist::GetValue(const char* key, const void*& value) const {
    LCFString name(key);
    if (m_dictionary == nullptr || !name.IsValid()) {
        return false;
    }
    plist_t item = plist_dict_get_item(m_dictionary, name.GetText());
    if (item == nullptr) {
        return false;
    }
    value = item;
    return true;
}

bool LPlist::GetValueArraySize(const char* key, unsigned long& count) const {
    const void* value = nullptr;
    if (!GetValue(key, value) || plist_get_node_type(Node(value)) != PLIST_ARRAY) {
        return false;
    }
    count = plist_array_get_size(Node(value));
    return true;
}

bool LPlist::SetValue(const char* key, const void* value) {
    LCFString name(key);
    if (!name.IsValid() || value == nullptr) {
        if (value != nullptr) {
            plist_free(Node(value));
        }
        return false;
    }
    if (m_dictionary == nullptr) {
        m_dictionary = plist_new_dict();
    }
    plist_dict_set_item(m_dictionary, name.GetText(), Node(value));
    return true;
}

// ---- Conversions ----

bool LPlist::ConvertToValue(bool value, const void*& out) {
    out = plist_new_bool(value ? 1 : 0);
    return true;
}

bool LPlist::ConvertToValue(int value, const void*& out) {
    out = plist_new_uint(static_cast<uint64_t>(static_cast<int64_t>(value)));
    return true;
}

bool LPlist::ConvertToValue(float value, const void*& out) {
    out = plist_new_real(value);
    return true;
}

bool LPlist::ConvertToValue(const char* text, const void*& out) {
    LCFString string(text);
    if (!string.IsValid()) {
        return false;
    }
    out = string.Detach();
    return true;
}

bool LPlist::ConvertToValue(const LStringLongTemplate<char>& text, const void*& out) {
    return ConvertToValue(text.GetText(), out);
}

bool LPlist::ConvertToValue(const LPlist& plist, const void*& out) {
    out = plist.m_dictionary != nullptr ? plist_copy(plist.m_dictionary) : plist_new_dict();
    return true;
}

bool LPlist::ConvertFromValue(const void* value, bool& out) {
    if (value == nullptr || plist_get_node_type(Node(value)) != PLIST_BOOLEAN) {
        return false;
    }
    uint8_t flag = 0;
    plist_get_bool_val(Node(value), &flag);
    out = flag != 0;
    return true;
}

// The two number reads compare the value's type identifier with a number-type code, not
// with the identifier of numbers. The comparison is kept exactly as it has always been:
// it agrees only by coincidence, and callers rely on the default they passed in otherwise.
bool LPlist::ConvertFromValue(const void* value, int& out) {
    if (value == nullptr ||
        static_cast<int>(plist_get_node_type(Node(value))) != kNumberTypeInt32) {
        return false;
    }
    uint64_t number = 0;
    plist_get_uid_val(Node(value), &number);
    out = static_cast<int>(static_cast<uint32_t>(number));
    return true;
}

bool LPlist::ConvertFromValue(const void* value, float& out) {
    if (value == nullptr ||
        static_cast<int>(plist_get_node_type(Node(value))) != kNumberTypeFloat32) {
        return false;
    }
    double number = 0;
    plist_get_real_val(Node(value), &number);
    out = static_cast<float>(number);
    return true;
}

bool LPlist::ConvertFromValue(const void* value, char* out) {
    LStringLongTemplate<char> text;
    const bool ok = ConvertFromValue(value, text);
    std::memcpy(out, text.GetText(), text.GetLength() + 1);
    return ok;
}

bool LPlist::ConvertFromValue(const void* value, LStringLongTemplate<char>& out) {
    if (value == nullptr || plist_get_node_type(Node(value)) != PLIST_STRING) {
        out.Clear();
        return false;
    }
    uint64_t length = 0;
    const char* text = plist_get_string_ptr(Node(value), &length);
    out.Assign(text != nullptr ? text : "", text != nullptr ? length : 0);
    return true;
}

bool LPlist::ConvertFromValue(const void* value, LPlist& out) {
    if (value == nullptr || plist_get_node_type(Node(value)) != PLIST_DICT) {
        return false;
    }
    out.CreateFromDictionary(Node(value));
    return true;
}
