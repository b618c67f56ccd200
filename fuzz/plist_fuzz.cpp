// Fuzzes the property-list loader with arbitrary bytes (XML or binary), then every value
// conversion over what loaded, the XML writer and the loader again on its output; and the
// file-URL reader with the same bytes as text.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "settings/lplist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    LStringLongTemplate<char> path;
    _LFileURLToPath(bytes.c_str(), path);

    plist_t loaded = _LPlistParse(bytes.data(), bytes.size());
    if (loaded == nullptr) {
        return 0;
    }
    if (plist_get_node_type(loaded) == PLIST_DICT) {
        LPlist plist;
        plist.CreateFromDictionary(loaded);
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(loaded, &it);
        for (;;) {
            char* key = nullptr;
            plist_t item = nullptr;
            plist_dict_next_item(loaded, it, &key, &item);
            if (item == nullptr) {
                std::free(key);
                break;
            }
            bool flag = false;
            int number = 0;
            float real = 0;
            LStringLongTemplate<char> text;
            LPlist nested;
            LPlist::ConvertFromValue(item, flag);
            LPlist::ConvertFromValue(item, number);
            LPlist::ConvertFromValue(item, real);
            LPlist::ConvertFromValue(item, text);
            LPlist::ConvertFromValue(item, nested);
            unsigned long count = 0;
            plist.GetValueArraySize(key, count);
            plist.TestValueExists(item);
            std::free(key);
        }
        std::free(it);
    }
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(loaded, &xml, &length);
    if (xml != nullptr) {
        plist_t again = _LPlistParse(xml, length);
        if (again != nullptr) {
            plist_free(again);
        }
        plist_to_xml_free(xml);
    }
    plist_free(loaded);
    return 0;
}
