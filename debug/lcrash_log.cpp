// Finding this program's newest crash report among the system's diagnostic reports.
//
// A report counts only when its header names this program by process, identifier, version
// and path (the path compared from the bundle folder's name on, so that a moved bundle still
// matches itself) and carries a readable date. The newest date wins; of two reports with the
// same date, the one walked last is kept.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "debug/lmachine.h"
#include "file/lfile.h"
#include "file/lfile_folder.h"
#include "file/lfile_stream.h"
#include "file/lknown_folders.h"
#include "text/ldatetime.h"

namespace {

constexpr char kProgramName[] = "KavelPLVadHelper";
constexpr size_t kReportTableSize = 1000;

// The value of a header line: the text after the label and the blanks that follow; null
// when the line does not start with the label.
char const* HeaderValue(char const* line, std::string_view label) {
    if (std::string_view(line).substr(0, label.size()) != label) {
        return nullptr;
    }
    char const* value = line + label.size();
    while (*value == ' ' || *value == '\t') {
        ++value;
    }
    return value;
}

}  // namespace

bool _LReadCrashReport(char const* file, char const* bundleName, char const* ownTail, long& time) {
    int fd = open(file, O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        return false;
    }
    flocktimed(fd, LOCK_SH, 1000);
    LReadFileRef reader(fd);
    bool process = false, path = false, identifier = false, version = false, date = false;
    char line[kLPathSize];
    while (reader.ReadLine(line, sizeof line)) {
        if (char const* v = HeaderValue(line, "Process:")) {
            process = strstr(v, kProgramName) != nullptr;
        } else if (char const* v = HeaderValue(line, "Path:")) {
            char const* tail = strstr(v, bundleName);
            path = tail != nullptr && ownTail != nullptr && strcmp(tail, ownTail) == 0;
        } else if (char const* v = HeaderValue(line, "Identifier:")) {
            identifier = strcmp(v, kProgramName) == 0;
        } else if (char const* v = HeaderValue(line, "Version:")) {
            version = strcmp(v, "1.0") == 0;
        } else if (char const* v = HeaderValue(line, "Date/Time:")) {
            int year, month, day, hour, minute, second;
            date =
                sscanf(v, "%d-%d-%d %d:%d:%d", &year, &month, &day, &hour, &minute, &second) == 6;
            if (date) {
                LDateTime::SetDateTime(time, year, month, day, hour, minute, second);
            }
        }
    }
    close(fd);
    return process && path && identifier && version && date;
}

bool _LFindLatestCrashReport(char const* folder, char const* bundleName, char const* exe,
                             char* path) {
    if (bundleName == nullptr || bundleName[0] == 0) {
        return false;
    }
    char const* ownTail = exe != nullptr ? strstr(exe, bundleName) : nullptr;
    std::array<long, kReportTableSize> times{};
    std::map<long, std::string> reports;
    char pattern[kLPathSize];
    tplsnprintf(pattern, sizeof pattern, "%s*", kProgramName);
    LFile::FolderIterator walk;
    size_t position = 0;
    for (bool more = walk.Open(folder, pattern); more && position < times.size();
         more = walk.Next(), ++position) {
        char file[kLPathSize];
        walk.GetFilePath(file);
        long time = 0;
        if (_LReadCrashReport(file, bundleName, ownTail, time)) {
            times[position] = time;
            reports[time] = file;
        }
    }
    if (reports.empty()) {
        return false;
    }
    std::sort(times.begin(), times.end(), std::greater<>());
    // Files that did not count left 0 in the table; the newest time that is a report's is
    // the first one the map knows.
    for (long time : times) {
        if (auto found = reports.find(time); found != reports.end()) {
            size_t n = std::min<size_t>(found->second.size(), kLPathSize - 1);
            memcpy(path, found->second.data(), n);
            path[n] = 0;
            return true;
        }
    }
    return false;
}

bool LMacGetLatestCrashReport(char* path) {
    char home[kLPathSize];
    LFile::GetUserFolderNonSandboxed(home);
    char folder[kLPathSize];
    LFile::_MakeFilePath(folder, home, "Library/Logs/DiagnosticReports", nullptr);

    char bundle[kLPathSize];
    LGetBundleFolder(bundle, sizeof bundle);
    char const* name = bundle;
    for (char const* p = bundle; *p != 0; ++p) {
        if (*p == '/' || *p == '\\') {
            name = p + 1;
        }
    }
    char bundleName[kLPathSize - 1];
    size_t n = strnlen(name, sizeof bundleName - 1);
    memcpy(bundleName, name, n);
    bundleName[n] = 0;

    char exe[kLPathSize];
    LGetBundleExeFile(exe, sizeof exe);
    return _LFindLatestCrashReport(folder, bundleName, exe, path);
}
