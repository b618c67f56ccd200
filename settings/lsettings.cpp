// The preferences store of the settings functions: full key names, records with primary keys
// and their enumeration, over the application's domain file for the current host.
#include "settings/lsettings.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "settings/lblowfish.h"
#include "settings/lplist.h"
#include "text/lunicode.h"

namespace {

constexpr bool kCurrentHost = true;

// Copies at most size - 1 bytes and terminates: fixed buffers cut, they never fail.
void CopyCut(char* out, const char* text, size_t size) {
    size_t n = strnlen(text, size - 1);
    memcpy(out, text, n);
    out[n] = 0;
}

bool StartsWithIgnoringCase(const std::string& text, const char* prefix, size_t length) {
    return text.size() >= length && strncasecmp(text.c_str(), prefix, length) == 0;
}

std::string FullKey(const char* section, const char* key) {
    char full[kLSettingFullKeySize];
    _LSettingGetFullKeyName(full, section, key);
    return full;
}

bool SetKeyString(LSettingDomain domain, const std::string& key, const char* value) {
    return LPreferencesSetValue(domain, kCurrentHost, key.c_str(), plist_new_string(value));
}

}  // namespace

void _LSettingGetFullKeyName(char* out, const char* section, const char* key) {
    size_t length = strlen(section);
    std::string full = section;
    if (length == 0 || section[length - 1] != '/') {
        full += '/';
    }
    full += key;
    CopyCut(out, full.c_str(), kLSettingFullKeySize);
}

bool _LSettingSetString(LSettingDomain domain, const char* section, const char* key,
                        const char* value) {
    return SetKeyString(domain, FullKey(section, key), value != nullptr ? value : "");
}

bool _LSettingGetString(LSettingDomain domain, const char* section, const char* key,
                        const char* defaultValue, char* out) {
    std::string value;
    bool found = LPreferencesGetString(domain, kCurrentHost, FullKey(section, key).c_str(), value);
    CopyCut(out, found ? value.c_str() : (defaultValue != nullptr ? defaultValue : ""),
            kLSettingTextSize);
    return found;
}

bool _LSettingGetString(LSettingDomain domain, const char* section, const char* key,
                        const char* defaultValue, LStringLongTemplate<char>& out) {
    char buffer[kLSettingTextSize];
    bool found = _LSettingGetString(domain, section, key, defaultValue, buffer);
    out = buffer;
    return found;
}

bool _LSettingGetUnicodeString(LSettingDomain domain, const char* section, const char* key,
                               const wchar_t* defaultValue, wchar_t* out) {
    std::string value;
    if (LPreferencesGetString(domain, kCurrentHost, FullKey(section, key).c_str(), value)) {
        LCopyUTF32FromUTF8(out, value.c_str(), kLSettingTextSize);
        return true;
    }
    size_t n = defaultValue != nullptr ? wcsnlen(defaultValue, kLSettingTextSize - 1) : 0;
    wmemcpy(out, defaultValue != nullptr ? defaultValue : L"", n);
    out[n] = 0;
    return false;
}

bool _LSettingSetUnicodeString(LSettingDomain domain, const char* section, const char* key,
                               const wchar_t* value) {
    LStringLongTemplate<char> text;
    LCopyUTF8FromUTF32(text, value != nullptr ? value : L"");
    return SetKeyString(domain, FullKey(section, key), text.GetText());
}

bool _LSettingDeleteItem(LSettingDomain domain, const char* section, const char* key) {
    return LPreferencesSetValue(domain, kCurrentHost, FullKey(section, key).c_str(), nullptr);
}

bool _LSettingDeleteSection(LSettingDomain domain, const char* section) {
    size_t length = strlen(section);
    return LPreferencesUpdate(domain, kCurrentHost, [&](plist_t dictionary) {
        for (const std::string& key : _LPlistDictionaryKeys(dictionary)) {
            if (StartsWithIgnoringCase(key, section, length)) {
                plist_dict_remove_item(dictionary, key.c_str());
            }
        }
        return true;
    });
}

bool _LSettingTestKeyExists(LSettingDomain domain, const char* key) {
    return LPreferencesTestKey(domain, kCurrentHost, key);
}

bool _LSettingTestKeyHasValue(LSettingDomain domain, const char* key) {
    std::string value;
    return LPreferencesGetString(domain, kCurrentHost, key, value) && !value.empty();
}

void _LSettingMakePrimaryKeyFromPath(char* out, const char* path) {
    std::string_view text = path;
    if (!text.empty() && text.back() == '/') {
        text.remove_suffix(1);
    }
    size_t slash = text.rfind('/');
    if (slash != std::string_view::npos) {
        text.remove_prefix(slash + 1);
    }
    CopyCut(out, std::string(text).c_str(), kLSettingTextSize);
}

void _LSettingMakeParentKeyPath(LSettingDomain domain, const char* path) {
    std::string_view text = path;
    while (!text.empty() && text.front() == '/') {
        text.remove_prefix(1);
    }
    std::vector<std::string> missing;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '/') {
            continue;
        }
        std::string key = std::string(text.substr(0, i)) + '/';
        if (!LPreferencesTestKey(domain, kCurrentHost, key.c_str())) {
            missing.push_back(std::move(key));
        }
        while (i + 1 < text.size() && text[i + 1] == '/') {
            ++i;
        }
    }
    if (missing.empty()) {
        return;
    }
    // One write for every missing level.
    LPreferencesUpdate(domain, kCurrentHost, [&](plist_t dictionary) {
        for (const std::string& key : missing) {
            char primary[kLSettingTextSize];
            _LSettingMakePrimaryKeyFromPath(primary, key.c_str());
            plist_dict_set_item(dictionary, key.c_str(), plist_new_string(primary));
        }
        return true;
    });
}

bool _LSettingFindRecord(LSettingDomain domain, char* name, size_t& index, const char* path,
                         const char* subpath) {
    std::string search = path;
    if (subpath != nullptr && subpath[0] != 0) {
        if (search.empty() || search.back() != '/') {
            search += '/';
        }
        search += subpath;
    }
    if (search.empty()) {
        return false;
    }
    std::vector<std::string> keys = LPreferencesCopyKeyList(domain, kCurrentHost);
    for (; index < keys.size(); ++index) {
        const std::string& key = keys[index];
        if (!StartsWithIgnoringCase(key, search.c_str(), search.size()) ||
            key.size() == search.size() || key[search.size()] != '/') {
            continue;
        }
        std::string rest = key.substr(search.size() + 1);
        size_t slash = rest.find('/');
        if (slash != std::string::npos && slash != rest.size() - 1) {
            continue;
        }
        if (slash != std::string::npos) {
            rest.pop_back();
        }
        CopyCut(name, rest.c_str(), kLSettingTextSize);
        return true;
    }
    return false;
}

bool _LSettingPlistGetNextKey(LSettingDomain domain, const char* prefix, const char* after,
                              char* out) {
    out[0] = 0;
    std::vector<std::string> keys = LPreferencesCopyKeyList(domain, kCurrentHost);
    size_t length = strlen(prefix);
    std::string best;
    bool found = false;
    for (const std::string& key : keys) {
        if (!StartsWithIgnoringCase(key, prefix, length)) {
            continue;
        }
        std::string name = key.substr(length, key.find('/', length) - length);
        if (name.empty() || strcasecmp(name.c_str(), after) == 0) {
            continue;
        }
        if (after[0] != 0 && strcasecmp(name.c_str(), after) < 0) {
            continue;
        }
        if (!found || strcasecmp(name.c_str(), best.c_str()) < 0) {
            best = std::move(name);
            found = true;
        }
    }
    if (found) {
        CopyCut(out, best.c_str(), kLSettingTextSize);
    }
    return found;
}

// The record moves only when it exists, the new key is a plain non-empty name, and nothing
// lives at the new path yet (merging two records would silently mix their fields).
bool _LSettingChangePrimaryKey(LSettingDomain domain, const char* path, const char* newKey,
                               char* outNewPath) {
    std::string oldPath = path;
    while (!oldPath.empty() && oldPath.back() == '/') {
        oldPath.pop_back();
    }
    if (oldPath.empty() || newKey[0] == 0 || strchr(newKey, '/') != nullptr) {
        return false;
    }
    size_t slash = oldPath.rfind('/');
    std::string newPath =
        (slash == std::string::npos ? std::string() : oldPath.substr(0, slash + 1)) + newKey;
    if (newPath.size() >= kLSettingTextSize || strcasecmp(newPath.c_str(), oldPath.c_str()) == 0) {
        return false;
    }
    std::string oldPrefix = oldPath + '/';
    std::string newPrefix = newPath + '/';
    bool moved = LPreferencesUpdate(domain, kCurrentHost, [&](plist_t dictionary) {
        std::vector<std::string> keys = _LPlistDictionaryKeys(dictionary);
        bool exists = false;
        for (const std::string& key : keys) {
            if (StartsWithIgnoringCase(key, newPrefix.c_str(), newPrefix.size())) {
                return false;
            }
            exists = exists || strcasecmp(key.c_str(), oldPrefix.c_str()) == 0;
        }
        if (!exists) {
            return false;
        }
        for (const std::string& key : keys) {
            if (!StartsWithIgnoringCase(key, oldPrefix.c_str(), oldPrefix.size())) {
                continue;
            }
            std::string moved = newPrefix + key.substr(oldPrefix.size());
            plist_t value = key.size() == oldPrefix.size()
                                ? plist_new_string(newKey)
                                : plist_copy(plist_dict_get_item(dictionary, key.c_str()));
            plist_dict_remove_item(dictionary, key.c_str());
            plist_dict_set_item(dictionary, moved.c_str(), value);
        }
        return true;
    });
    if (moved) {
        CopyCut(outNewPath, newPath.c_str(), kLSettingTextSize);
    }
    return moved;
}

bool LUserSettingSetString(const char* section, const char* key, const char* value) {
    return _LSettingSetString(kLSettingDomainCurrentUser, section, key, value);
}

bool _LUserSettingGetString(const char* section, const char* key, const char* defaultValue,
                            char* out) {
    return _LSettingGetString(kLSettingDomainCurrentUser, section, key, defaultValue, out);
}

bool _LUserSettingGetString(const char* section, const char* key, const char* defaultValue,
                            LStringLongTemplate<char>& out) {
    return _LSettingGetString(kLSettingDomainCurrentUser, section, key, defaultValue, out);
}

bool LUserSettingDeleteItem(const char* section, const char* key) {
    return _LSettingDeleteItem(kLSettingDomainCurrentUser, section, key);
}

bool LUserSettingDeleteSection(const char* section) {
    return _LSettingDeleteSection(kLSettingDomainCurrentUser, section);
}

bool LUserSettingTestExists(const char* section, const char* key) {
    return _LSettingTestKeyExists(kLSettingDomainCurrentUser, FullKey(section, key).c_str());
}

bool LUserSettingTestKeyExists(const char* section) {
    std::string prefix = FullKey(section, "");
    for (const std::string& key : LPreferencesCopyKeyList(kLSettingDomainCurrentUser, true)) {
        if (StartsWithIgnoringCase(key, prefix.c_str(), prefix.size())) {
            return true;
        }
    }
    return false;
}

bool LUserSettingTestKeyFullPathExists(const char* fullKey) {
    return _LSettingTestKeyExists(kLSettingDomainCurrentUser, fullKey);
}

wchar_t* LSettingGetUnicodeString(const char* section, const char* key, const wchar_t* defaultValue,
                                  wchar_t* out) {
    _LSettingGetUnicodeString(kLSettingDomainCurrentUser, section, key, defaultValue, out);
    return out;
}

bool LSettingSetUnicodeString(const char* section, const char* key, const wchar_t* value) {
    return _LSettingSetUnicodeString(kLSettingDomainCurrentUser, section, key, value);
}

bool LUserSettingSetPassword(const char* section, const char* key, const char* text) {
    return _LSettingSetPasswordThrough(key, text, [&](const char* name, const char* cipher) {
        return LUserSettingSetString(section, name, cipher);
    });
}

bool LUserSettingSetPassword(const char* section, const char* key,
                             const LStringLongTemplate<char>& text) {
    return LUserSettingSetPassword(section, key, text.GetText());
}

bool LUserSettingGetPassword(const char* section, const char* key, const char*, char* out) {
    return _LSettingGetPasswordThrough(key, out, [&](const char* name, char* value) {
        return _LUserSettingGetString(section, name, "", value);
    });
}

LSharedSettingsRecord::LSharedSettingsRecord(const char* recordPath, LSettingDomain domain)
    : m_eDomain(domain) {
    SetRecordPath(recordPath);
}

void LSharedSettingsRecord::SetRecordPath(const char* path) {
    CopyCut(m_szRecordPath, path, sizeof m_szRecordPath);
    _LSettingMakePrimaryKeyFromPath(m_szPrimaryKey, m_szRecordPath);
}

bool LSharedSettingsRecord::SetString(const char* key, const char* value) {
    _LSettingMakeParentKeyPath(m_eDomain, FullKey(m_szRecordPath, key).c_str());
    return _LSettingSetString(m_eDomain, m_szRecordPath, key, value);
}

bool LSharedSettingsRecord::GetString(const char* key, const char* defaultValue, char* out) const {
    return _LSettingGetString(m_eDomain, m_szRecordPath, key, defaultValue, out);
}

bool LSharedSettingsRecord::GetString(const char* key, const char* defaultValue,
                                      LStringLongTemplate<char>& out) const {
    return _LSettingGetString(m_eDomain, m_szRecordPath, key, defaultValue, out);
}

bool LSharedSettingsRecord::SetPassword(const char* key, const char* text) {
    return _LSettingSetPasswordThrough(
        key, text, [&](const char* name, const char* cipher) { return SetString(name, cipher); });
}

bool LSharedSettingsRecord::GetPassword(const char* key, char* out) const {
    return _LSettingGetPasswordThrough(
        key, out, [&](const char* name, char* value) { return GetString(name, "", value); });
}

bool LSharedSettingsRecord::SetPrimaryKey(const char* key) {
    if (!_LSettingTestKeyExists(m_eDomain, FullKey(m_szRecordPath, "").c_str())) {
        CopyCut(m_szPrimaryKey, key, sizeof m_szPrimaryKey);
        return true;
    }
    char newPath[kLSettingTextSize];
    if (!_LSettingChangePrimaryKey(m_eDomain, m_szRecordPath, key, newPath)) {
        return false;
    }
    CopyCut(m_szPrimaryKey, key, sizeof m_szPrimaryKey);
    CopyCut(m_szRecordPath, newPath, sizeof m_szRecordPath);
    return true;
}

bool LSharedSettingsRecord::TestFieldExists(const char* key) const {
    return _LSettingTestKeyExists(m_eDomain, FullKey(m_szRecordPath, key).c_str());
}

bool LSharedSettingsRecord::DeleteField(const char* key) {
    return _LSettingDeleteItem(m_eDomain, m_szRecordPath, key);
}

bool LSharedSettingsRecord::TestSubRecordExists(const char* name) const {
    char found[kLSettingTextSize];
    size_t index = 0;
    return _LSettingFindRecord(m_eDomain, found, index, m_szRecordPath, name);
}

bool LSharedSettingsRecord::DeleteRecord() {
    return _LSettingDeleteSection(m_eDomain, m_szRecordPath);
}

bool LSharedSettingsRecord::DeleteSubRecord(const char* name) {
    return _LSettingDeleteSection(m_eDomain, FullKey(m_szRecordPath, name).c_str());
}

void _LSettingPasswordName(char* out, const char* key) {
    std::string name = std::string("__") + key;
    CopyCut(out, name.c_str(), kLSettingTextSize);
}

bool _LSettingDecipherPassword(bool found, char* out) {
    if (out[0] != 0) {
        LSettingDecrypt(out);
    }
    return found;
}
