// Driver bundle versions: reading a bundle's "CFBundleVersion" and ordering two versions.
//
// A bundle's information dictionary is "<bundle>/Contents/Info.plist", in XML or binary
// form. Whatever cannot be read (no file, a damaged list, a missing or non-text version)
// reads as "0", so that an unreadable offer is never installed and an unreadable installed
// bundle is always replaced. Versions are ordered as text in which every run of digits is
// compared by its numeric value, so "1.10" follows "1.9" and "2" follows "1.99".
#pragma once

#include <cstddef>
#include <string_view>

// Size of every path and version buffer of the helper (259 characters and the terminator).
inline constexpr size_t kLVADHelperTextSize = 260;

// Writes the bundle's "CFBundleVersion" into version (kLVADHelperTextSize bytes, cut to 259
// characters), or "0" when it cannot be read. Returns true when a version was found.
bool LVADHelperReadBundleVersion(char const* bundlePath, char* version);

// The same from the bytes of an information dictionary already in memory.
bool LVADHelperVersionFromInfoPlist(std::string_view plistBytes, char* version);

// Orders two versions: negative when a comes before b, zero when they are equal, positive
// when a is the newer. Digit runs compare by value (leading zeros do not count); any other
// byte compares by its value; a version that is a prefix of the other is the older.
int LVADHelperCompareVersions(std::string_view a, std::string_view b);
