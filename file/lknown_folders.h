// Where things live: the user's standard folders by kind, the bundle and its executable, and
// the volume resource values behind LFile's volume tests.
//
// Folder kinds keep the numbering of the platform folder search. Here the search is the XDG
// base and user directories: a kind is answered by its XDG setting when one is set (an
// absolute path), else the caller's fallback under the home folder is used and created.
// Every result is a 260-byte path (see kLPathSize in file/lfile.h).
#pragma once

#include <cstddef>

// Folder kinds (values of the platform folder search).
enum : unsigned int {
    kLFolderApplications = 1,
    kLFolderLibrary = 5,
    kLFolderDocuments = 9,
    kLFolderDesktop = 12,
    kLFolderCaches = 13,
    kLFolderApplicationSupport = 14,
    kLFolderDownloads = 15,
    kLFolderMovies = 17,
    kLFolderMusic = 18,
    kLFolderPictures = 19,
};

// dst := the folder the search gives for kind in the user's domain, tilde expanded; when it
// gives none, the home folder joined with fallback, created with mode 0777 if missing.
void GetUserSpecialFolder(char* dst, unsigned int kind, char const* fallback);

// The main bundle's folder (the folder holding the executable, or the bundle around a
// "Contents/MacOS" executable), cut to size bytes.
void LGetBundleFolder(char* dst, size_t size);
// The absolute path of the running executable, cut to size bytes.
void LGetBundleExeFile(char* dst, size_t size);

// Volume resource values of the volume holding a path.
enum class LURLResourceKey {
    VolumeIsLocal,
    VolumeIsInternal,
    VolumeIsRemovable,
};

// True when the value for key could be read for path; *value then holds it.
bool LGetNSURLResourceValue(char const* path, LURLResourceKey key, bool* value);
