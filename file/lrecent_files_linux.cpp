// Linux half of the recent-files walk: the desktop's recent-documents list is the bookmark
// file $XDG_DATA_HOME/recently-used.xbel (~/.local/share when the variable is unset), read
// with the library's XML reader. Each "bookmark" element names a URL in "href" and its last
// use in "modified" (ISO 8601, UTC); the snapshot is ordered by that time, newest first.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "file/lfile.h"
#include "file/lfile_platform.h"
#include "file/lrecent_files_platform.h"
#include "settings/lxml.h"
#include "thread/lprocess_interface.h"

namespace {

// "YYYY-MM-DDTHH:MM:SS[.fraction]Z" to seconds since 1970; 0 when it does not read.
long ParseBookmarkTime(const char* text) {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (std::sscanf(text, "%4d-%2d-%2dT%2d:%2d:%2d", &year, &month, &day, &hour, &minute,
                    &second) != 6) {
        return 0;
    }
    std::tm when{};
    when.tm_year = year - 1900;
    when.tm_mon = month - 1;
    when.tm_mday = day;
    when.tm_hour = hour;
    when.tm_min = minute;
    when.tm_sec = second;
    return static_cast<long>(timegm(&when));
}

bool RecentListPath(char* dst) {
    if (const char* data = std::getenv("XDG_DATA_HOME"); data != nullptr && data[0] == '/') {
        LFile::_MakeFilePath(dst, data, "recently-used.xbel", "");
        return true;
    }
    char home[kLPathSize];
    if (!_LGetHomeFolder(home)) {
        return false;
    }
    LFile::_MakeFilePath(dst, home, ".local/share/recently-used.xbel", "");
    return true;
}

}  // namespace

std::vector<std::string> _LReadRecentDocumentURLs() {
    std::vector<std::string> urls;
    char path[kLPathSize];
    if (!RecentListPath(path) || !LFile::TestFileExists(path)) {
        return urls;
    }
    LXMLDocument document;
    char error[kLPathSize];
    LProcessInterfaceVoid process;
    if (document.LoadFromFile(process, path, error) != 0) {
        return urls;
    }
    const LXMLElement* root = document.GetElement("xbel");
    if (root == nullptr) {
        return urls;
    }
    struct Item {
        long modified;
        std::string url;
    };
    std::vector<Item> items;
    ConstNamedElementIterator it(*root, "bookmark");
    while (const LXMLElement* bookmark = it.Next()) {
        const char* href = bookmark->attributes.GetParm("href", "");
        if (href[0] != 0) {
            items.push_back(
                {ParseBookmarkTime(bookmark->attributes.GetParm("modified", "")), href});
        }
    }
    std::stable_sort(items.begin(), items.end(),
                     [](const Item& a, const Item& b) { return a.modified > b.modified; });
    for (Item& item : items) {
        urls.push_back(std::move(item.url));
    }
    return urls;
}

bool _LRecentURLToPath(const char* url, char* dst) {
    dst[0] = 0;
    static constexpr char kScheme[] = "file://";
    if (std::strncmp(url, kScheme, sizeof(kScheme) - 1) != 0) {
        return false;
    }
    const char* p = url + sizeof(kScheme) - 1;
    // Only this machine's files: an empty host or "localhost".
    if (std::strncmp(p, "localhost/", 10) == 0) {
        p += 9;
    }
    if (*p != '/') {
        return false;
    }
    std::string path;
    for (; *p != 0 && *p != '?' && *p != '#'; ++p) {
        if (*p == '%') {
            const int high = LHexDigitValue(p[1]);
            const int low = high < 0 ? -1 : LHexDigitValue(p[2]);
            if (low < 0) {
                return false;
            }
            path.push_back(static_cast<char>(high * 16 + low));
            p += 2;
        } else {
            path.push_back(*p);
        }
    }
    if (path.find('\0') != std::string::npos) {
        return false;
    }
    _LCopyCut(dst, path, kLPathSize);
    return true;
}

long _LGetFileModificationTime(const char* path) {
    struct stat status {};
    return stat(path, &status) == 0 ? static_cast<long>(status.st_mtime) : 0;
}

bool _LIsFolderPath(const char* path) {
    struct stat status {};
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}
