// The library's settings stores, all addressed by a section and a key and holding text:
// - the preferences store (the application's preferences domain for the current host):
//   full key names "section/key" form a path hierarchy that doubles as a store of records,
//   each level of a record path existing as its own key "level/" whose value is the level's
//   last component (its primary key);
// - shared settings, the XML file "SharedSettings.xml" in the user data folder's "Shared"
//   subfolder, and any XML setting file of the same layout (section elements holding key
//   elements whose attribute "value" is the text); hidden settings are one such file.
// Password variants keep the value of key K enciphered under "__K". Failures show only as
// boolean results or defaults handed back.
#pragma once

#include <cstddef>

#include "settings/lblowfish.h"
#include "settings/lpreferences.h"
#include "text/lstring.h"

class LXMLDocument;

inline constexpr size_t kLSettingFullKeySize = 520;  // 519 characters and the terminator
inline constexpr size_t kLSettingTextSize = 260;     // values, names, primary keys, paths

// Passwords in every store: kept under "__" and the key (cut to a setting text), as the
// Base64 of their cipher. Deciphering leaves an empty text empty and hands found back.
void _LSettingPasswordName(char* out, const char* key);
bool _LSettingDecipherPassword(bool found, char* out);
// Every store's password pair, around its own string setter and getter: set(name, cipher)
// stores, get(name, out) reads into the caller's 260-byte buffer.
template <typename Set>
bool _LSettingSetPasswordThrough(const char* key, const char* text, Set set) {
    LStringLongTemplate<char> cipher;
    LSettingEncrypt(cipher, text);
    char name[kLSettingTextSize];
    _LSettingPasswordName(name, key);
    return set(name, cipher.GetText());
}
template <typename Get>
bool _LSettingGetPasswordThrough(const char* key, char* out, Get get) {
    char name[kLSettingTextSize];
    _LSettingPasswordName(name, key);
    return _LSettingDecipherPassword(get(name, out), out);
}

// Preferences store, domain given by the caller.
void _LSettingGetFullKeyName(char* out, const char* section, const char* key);
bool _LSettingSetString(LSettingDomain domain, const char* section, const char* key,
                        const char* value);
bool _LSettingGetString(LSettingDomain domain, const char* section, const char* key,
                        const char* defaultValue, char* out);
bool _LSettingGetString(LSettingDomain domain, const char* section, const char* key,
                        const char* defaultValue, LStringLongTemplate<char>& out);
bool _LSettingGetUnicodeString(LSettingDomain domain, const char* section, const char* key,
                               const wchar_t* defaultValue, wchar_t* out);
bool _LSettingSetUnicodeString(LSettingDomain domain, const char* section, const char* key,
                               const wchar_t* value);
bool _LSettingDeleteItem(LSettingDomain domain, const char* section, const char* key);
bool _LSettingDeleteSection(LSettingDomain domain, const char* section);
bool _LSettingTestKeyExists(LSettingDomain domain, const char* key);
bool _LSettingTestKeyHasValue(LSettingDomain domain, const char* key);
void _LSettingMakePrimaryKeyFromPath(char* out, const char* path);
void _LSettingMakeParentKeyPath(LSettingDomain domain, const char* path);
bool _LSettingFindRecord(LSettingDomain domain, char* name, size_t& index, const char* path,
                         const char* subpath);
bool _LSettingPlistGetNextKey(LSettingDomain domain, const char* prefix, const char* after,
                              char* out);
bool _LSettingChangePrimaryKey(LSettingDomain domain, const char* path, const char* newKey,
                               char* outNewPath);

// The same in the current user's domain.
bool LUserSettingSetString(const char* section, const char* key, const char* value);
bool _LUserSettingGetString(const char* section, const char* key, const char* defaultValue,
                            char* out);
bool _LUserSettingGetString(const char* section, const char* key, const char* defaultValue,
                            LStringLongTemplate<char>& out);
bool LUserSettingDeleteItem(const char* section, const char* key);
bool LUserSettingDeleteSection(const char* section);
// Whether the full key of section and key exists.
bool LUserSettingTestExists(const char* section, const char* key);
// Whether any key lies below the section ("section/..."), compared ignoring case.
bool LUserSettingTestKeyExists(const char* section);
bool LUserSettingTestKeyFullPathExists(const char* fullKey);
wchar_t* LSettingGetUnicodeString(const char* section, const char* key, const wchar_t* defaultValue,
                                  wchar_t* out);
bool LSettingSetUnicodeString(const char* section, const char* key, const wchar_t* value);
bool LUserSettingSetPassword(const char* section, const char* key, const char* text);
bool LUserSettingSetPassword(const char* section, const char* key,
                             const LStringLongTemplate<char>& text);
// A missing password reads as "": `defaultValue` is deliberately not used.
bool LUserSettingGetPassword(const char* section, const char* key, const char* defaultValue,
                             char* out);

// A record of the preferences store (not of SharedSettings.xml, despite the name).
class LSharedSettingsRecord {
public:
    explicit LSharedSettingsRecord(const char* recordPath = "",
                                   LSettingDomain domain = kLSettingDomainCurrentUser);

    void SetRecordPath(const char* path);
    const char* GetRecordPath() const { return m_szRecordPath; }
    const char* GetPrimaryKey() const { return m_szPrimaryKey; }
    LSettingDomain GetDomain() const { return m_eDomain; }

    bool SetString(const char* key, const char* value);
    bool GetString(const char* key, const char* defaultValue, char* out) const;
    bool GetString(const char* key, const char* defaultValue, LStringLongTemplate<char>& out) const;
    bool GetString(const char* key, char* out) const { return GetString(key, "", out); }
    bool SetPassword(const char* key, const char* text);
    bool GetPassword(const char* key, char* out) const;
    bool SetPrimaryKey(const char* key);
    bool TestFieldExists(const char* key) const;
    bool DeleteField(const char* key);
    bool TestSubRecordExists(const char* name) const;
    bool DeleteRecord();
    bool DeleteSubRecord(const char* name);

private:
    LSettingDomain m_eDomain;
    char m_szPrimaryKey[kLSettingTextSize] = {};
    char m_szRecordPath[kLSettingTextSize] = {};
};

// Shared settings: the file is loaded anew for every call, nothing is cached.
bool LSharedSettingsLoad(LXMLDocument& document);
bool LSharedSettingsSave(const LXMLDocument& document);
bool LSharedSettingSetString(const char* section, const char* key, const char* value);
bool _LSharedSettingGetString(const char* section, const char* key, const char* defaultValue,
                              char* out);
bool _LSharedSettingGetString(const char* section, const char* key, const char* defaultValue,
                              LStringLongTemplate<char>& out);
bool LSharedSettingSetPassword(const char* section, const char* key, const char* text);
bool LSharedSettingGetPassword(const char* section, const char* key, const char* defaultValue,
                               char* out);
bool LSharedSettingDeleteItem(const char* section, const char* key);
bool LSharedSettingDeleteSection(const char* section);
bool LSharedSettingTestKeyExists(const char* section);
bool LSharedSettingTestExists(const char* section, const char* key);

// XML setting files of the same layout; a missing file reads as an empty document.
bool LXMLSettingSetString(const char* file, const char* section, const char* key,
                          const char* value);
bool LXMLSettingGetString(const char* file, const char* section, const char* key,
                          const char* defaultValue, char* out);
// Writes the top-level elements of `document` to `file` in one write, under an exclusive
// lock taken without waiting; when the file cannot be opened or locked it stays as it was.
bool _LXMLSettingSaveDocument(const char* file, const LXMLDocument& document);
void _LUserHiddenSettingGetPath(char* out);
bool LUserHiddenSettingSetString(const char* section, const char* key, const char* value);
bool _LUserHiddenSettingGetString(const char* section, const char* key, const char* defaultValue,
                                  char* out);
bool LUserHiddenSettingSetPassword(const char* section, const char* key, const char* text);
bool LUserHiddenSettingGetPassword(const char* section, const char* key, const char* defaultValue,
                                   char* out);
