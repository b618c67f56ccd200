// The preferences files beneath the settings stores and the user defaults: one property list
// per domain, "<application id>.plist" in the preferences folder for the keys of every host,
// "ByHost/<application id>.<machine id>.plist" for the keys of this host.
//
// Invariants: every change is written through at once, under an exclusive advisory lock on
// the folder, by writing a temporary file beside the old one and renaming it over it, so a
// reader (in any process) sees either the old or the new file, never a half-written one, and
// two writers never lose each other's keys. Reads are served from a per-file cache that is
// revalidated by one `stat` (inode, size, modification time); an unchanged file is never
// parsed again.
#pragma once

#include <plist/plist.h>

#include <functional>
#include <string>
#include <vector>

inline constexpr char kLApplicationIdentifier[] = "com.tessalysoftware.kavelplvadhelper";

// The preferences domains of the settings functions.
enum LSettingDomain {
    kLSettingDomainCurrentUser = 0,  // $XDG_CONFIG_HOME, else ~/.config
    kLSettingDomainAnyUser = 1,      // the first of $XDG_CONFIG_DIRS, else /etc/xdg
};

// The file of the application's keys in `domain`, for this host or for every host.
std::string LPreferencesGetPath(LSettingDomain domain, bool currentHost);

// A copy of the value under `key` (caller frees with plist_free), or null.
plist_t LPreferencesCopyValue(LSettingDomain domain, bool currentHost, const char* key);
// The string under `key`; false when it is missing or not a string.
bool LPreferencesGetString(LSettingDomain domain, bool currentHost, const char* key,
                           std::string& out);
bool LPreferencesTestKey(LSettingDomain domain, bool currentHost, const char* key);
// The names of all keys, in the file's order.
std::vector<std::string> LPreferencesCopyKeyList(LSettingDomain domain, bool currentHost);

// Applies `change` to the current contents (a dictionary it may edit) under the lock and
// writes the result through when `change` returns true. False when the change declined or
// the file could not be written; the file is then as it was.
bool LPreferencesUpdate(LSettingDomain domain, bool currentHost,
                        const std::function<bool(plist_t dictionary)>& change);
// Sets `key` to `value` (taken over; null removes the key) and writes through.
bool LPreferencesSetValue(LSettingDomain domain, bool currentHost, const char* key, plist_t value);
// Forgets every cached file (the next read stats and parses again).
void LPreferencesFlushCache();
