// Encoding and decoding of message values by key lists. The key's type, never the value's,
// chooses the transport setter or getter, so a peer that sends an entry of another type is
// read with the transport's mismatch fallbacks (false, 0, 0.0, null) and still delivered.
#include "xpc/lxpc_data.h"

#include <cstring>
#include <string_view>

using namespace lxpc;

void LXPCCopyName(char (&destination)[kLXPCNameSize], const char* source) {
    const std::string_view name = source != nullptr ? std::string_view(source) : "";
    const size_t length = name.size() < kLXPCNameSize - 1 ? name.size() : kLXPCNameSize - 1;
    std::memcpy(destination, name.data(), length);
    destination[length] = '\0';
}

void LXPCAddKeyTable(LList<LXPCDictionaryKeyListable>& keys, LXPCDictionaryKey const* table) {
    if (table == nullptr) {
        return;
    }
    for (; table->szName[0] != '\0'; ++table) {
        auto* node = new LXPCDictionaryKeyListable;
        LXPCCopyName(node->szName, table->szName);
        node->type = table->type;
        keys.PushFront(node);
    }
}

LXPCDataListable* CreateXPCData(LXPCDictionaryKeyListable const& key, long value,
                                unsigned long length) {
    auto* node = new LXPCDataListable;
    LXPCCopyName(node->szName, key.szName);
    node->type = key.type;
    node->nValue = value;
    node->nLength = length;
    return node;
}

LXPCDataListable* CreateXPCDataDouble(LXPCDictionaryKeyListable const& key, double value) {
    auto* node = new LXPCDataListable;
    LXPCCopyName(node->szName, key.szName);
    node->type = key.type;
    node->fValue = value;
    return node;
}

namespace {

// A pointer-carrying value that points nowhere: never initialised (-1) or null.
bool IsNoPointer(int64_t value) {
    return value == 0 || value == -1;
}

void SetEntry(xpc_object_t dictionary, const LXPCDictionaryKeyListable& key, const LXPCData& data) {
    const char* name = key.szName;
    switch (key.type) {
        case LXPCDataTypeBool:
            xpc_dictionary_set_bool(dictionary, name, data.nValue != 0);
            break;
        case LXPCDataTypeInt64:
            xpc_dictionary_set_int64(dictionary, name, data.nValue);
            break;
        case LXPCDataTypeUInt64:
            xpc_dictionary_set_uint64(dictionary, name, static_cast<uint64_t>(data.nValue));
            break;
        case LXPCDataTypeDouble:
            xpc_dictionary_set_double(dictionary, name, data.fValue);
            break;
        case LXPCDataTypeDate:
            xpc_dictionary_set_date(dictionary, name, data.nValue);
            break;
        case LXPCDataTypeData:
            // Empty data may come without bytes; bytes promised at no address are not read.
            if (!IsNoPointer(data.nValue)) {
                xpc_dictionary_set_data(dictionary, name,
                                        LXPCValueAsPointer<const void>(data.nValue), data.nLength);
            } else if (data.nLength == 0) {
                static const unsigned char kNoBytes = 0;
                xpc_dictionary_set_data(dictionary, name, &kNoBytes, 0);
            }
            break;
        case LXPCDataTypeUUID:
            if (!IsNoPointer(data.nValue)) {
                xpc_dictionary_set_uuid(dictionary, name,
                                        LXPCValueAsPointer<const unsigned char>(data.nValue));
            }
            break;
        case LXPCDataTypeString:
            if (!IsNoPointer(data.nValue)) {
                xpc_dictionary_set_string(dictionary, name,
                                          LXPCValueAsPointer<const char>(data.nValue));
            }
            break;
        case LXPCDataTypeFD:
            xpc_dictionary_set_fd(dictionary, name,
                                  static_cast<int>(static_cast<uint32_t>(data.nValue)));
            break;
        case LXPCDataTypeObject:
            if (!IsNoPointer(data.nValue)) {
                xpc_dictionary_set_value(dictionary, name, LXPCValueAsPointer(data.nValue));
            }
            break;
        default:
            break;
    }
}

LXPCDataListable* GetEntry(xpc_object_t dictionary, const LXPCDictionaryKeyListable& key) {
    const char* name = key.szName;
    switch (key.type) {
        case LXPCDataTypeBool:
            return CreateXPCData(key, xpc_dictionary_get_bool(dictionary, name) ? 1 : 0, 0);
        case LXPCDataTypeInt64:
            return CreateXPCData(key, xpc_dictionary_get_int64(dictionary, name), 0);
        case LXPCDataTypeUInt64:
            return CreateXPCData(key,
                                 static_cast<long>(xpc_dictionary_get_uint64(dictionary, name)), 0);
        case LXPCDataTypeDouble:
            return CreateXPCDataDouble(key, xpc_dictionary_get_double(dictionary, name));
        case LXPCDataTypeDate:
            return CreateXPCData(key, xpc_dictionary_get_date(dictionary, name), 0);
        case LXPCDataTypeData: {
            size_t length = 0;
            const void* bytes = xpc_dictionary_get_data(dictionary, name, &length);
            return CreateXPCData(key, LXPCPointerAsValue(bytes), bytes != nullptr ? length : 0);
        }
        case LXPCDataTypeUUID:
            return CreateXPCData(key, LXPCPointerAsValue(xpc_dictionary_get_uuid(dictionary, name)),
                                 0);
        case LXPCDataTypeString:
            return CreateXPCData(
                key, LXPCPointerAsValue(xpc_dictionary_get_string(dictionary, name)), 0);
        case LXPCDataTypeFD:
            return CreateXPCData(key, xpc_dictionary_dup_fd(dictionary, name), 0);
        case LXPCDataTypeObject:
            return CreateXPCData(key,
                                 LXPCPointerAsValue(xpc_dictionary_get_value(dictionary, name)), 0);
        default:
            return nullptr;
    }
}

}  // namespace

void SetXPCDictionary(xpc_object_t dictionary, LList<LXPCDictionaryKeyListable>& sendKeys,
                      LList<LXPCDataListable> const& values) {
    if (dictionary == nullptr) {
        return;
    }
    for (const LXPCDataListable& value : values) {
        const LXPCDictionaryKeyListable* key =
            sendKeys.FindFirst([&value](const LXPCDictionaryKeyListable& candidate) {
                return std::strcmp(candidate.szName, value.szName) == 0;
            });
        if (key != nullptr) {
            SetEntry(dictionary, *key, value);
        }
    }
}

void GetXPCDictionary(xpc_object_t dictionary, LList<LXPCDictionaryKeyListable>& receiveKeys,
                      LList<LXPCDataListable>& out) {
    if (dictionary == nullptr) {
        return;
    }
    for (const LXPCDictionaryKeyListable& key : receiveKeys) {
        if (xpc_dictionary_get_value(dictionary, key.szName) == nullptr) {
            continue;
        }
        if (key.type < LXPCDataTypeBool || key.type > LXPCDataTypeObject) {
            continue;
        }
        if (LXPCDataListable* value = GetEntry(dictionary, key)) {
            out.PushFront(value);
        }
    }
}
