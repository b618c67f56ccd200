// The platform seam under the recent-files walk: the snapshot of the desktop's list and the
// two file facts the walk needs. Not for use outside file/.
#pragma once

#include <string>
#include <vector>

// The recent documents' URLs, newest first.
std::vector<std::string> _LReadRecentDocumentURLs();
// The file path (260 bytes) of a local file URL, escapes decoded; false for anything else.
bool _LRecentURLToPath(const char* url, char* dst);
// Seconds since 1970 of the last change of the file's data; 0 when unreadable.
long _LGetFileModificationTime(const char* path);
// True when path is a folder (symbolic links followed).
bool _LIsFolderPath(const char* path);
