// The Linux folder search: home folders from the environment and the user database, the
// XDG base directories and the XDG user directories (user-dirs.dirs), the XDG trash, and
// the running executable from /proc/self/exe.
//
// XDG settings count only when they hold an absolute path (relative ones are invalid by the
// XDG rules and ignored). user-dirs.dirs is read the way the shell would source it: the
// last line that sets a key wins, and values are "$HOME/..." or absolute paths.
#include <limits.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "file/lfile.h"
#include "file/lfile_platform.h"
#include "file/lknown_folders.h"
#include "platform/lsmall_file.h"

namespace {

bool CopyPath(char* dst, std::string_view src) {
    return _LCopyCut(dst, src, kLPathSize) != 0;
}

// An XDG variable that is set to an absolute path.
char const* XdgVariable(char const* name) {
    char const* value = getenv(name);
    return value != nullptr && value[0] == '/' ? value : nullptr;
}

std::string ConfigFolder(char const* home) {
    if (char const* config = XdgVariable("XDG_CONFIG_HOME")) {
        return config;
    }
    return std::string(home) + "/.config";
}

char const* UserDirsKey(unsigned int kind) {
    switch (kind) {
        case kLFolderDesktop:
            return "XDG_DESKTOP_DIR";
        case kLFolderDocuments:
            return "XDG_DOCUMENTS_DIR";
        case kLFolderDownloads:
            return "XDG_DOWNLOAD_DIR";
        case kLFolderMusic:
            return "XDG_MUSIC_DIR";
        case kLFolderPictures:
            return "XDG_PICTURES_DIR";
        case kLFolderMovies:
            return "XDG_VIDEOS_DIR";
        default:
            return nullptr;
    }
}

}  // namespace

bool _LGetAccountHomeFolder(char* dst) {
    dst[0] = 0;
    long bufferSize = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(bufferSize > 0 ? static_cast<size_t>(bufferSize) : 16384);
    struct passwd entry;
    struct passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
        found == nullptr || found->pw_dir == nullptr) {
        return false;
    }
    return CopyPath(dst, found->pw_dir);
}

bool _LGetHomeFolder(char* dst) {
    char const* home = getenv("HOME");
    if (home != nullptr && home[0] != 0) {
        return CopyPath(dst, home);
    }
    return _LGetAccountHomeFolder(dst);
}

bool _LParseUserDirsLine(std::string_view line, std::string_view key, char const* home, char* dst) {
    dst[0] = 0;
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string_view::npos) {
        return false;
    }
    line.remove_prefix(start);
    if (line.substr(0, key.size()) != key || line.substr(key.size(), 1) != "=") {
        return false;
    }
    std::string_view raw = line.substr(key.size() + 1);
    std::string value;
    if (!raw.empty() && raw[0] == '"') {
        size_t i = 1;
        for (; i < raw.size() && raw[i] != '"'; ++i) {
            if (raw[i] == '\\' && i + 1 < raw.size()) {
                ++i;
            }
            value.push_back(raw[i]);
        }
        if (i >= raw.size()) {
            return false;  // no closing quote
        }
    } else {
        value = std::string(raw.substr(0, raw.find_first_of(" \t\r\n#")));
    }

    std::string folder;
    std::string_view v(value);
    for (std::string_view prefix : {std::string_view("$HOME"), std::string_view("${HOME}")}) {
        if (v.substr(0, prefix.size()) == prefix &&
            (v.size() == prefix.size() || v[prefix.size()] == '/')) {
            std::string_view rest = v.substr(prefix.size());
            folder = home;
            if (rest.size() > 1) {
                if (!folder.empty() && folder.back() == '/') {
                    folder.pop_back();
                }
                folder += rest;
            }
            return CopyPath(dst, folder);
        }
    }
    if (!v.empty() && v[0] == '/') {
        return CopyPath(dst, v);
    }
    return false;
}

bool _LSearchUserFolder(unsigned int kind, char* dst) {
    dst[0] = 0;
    if (kind == kLFolderCaches || kind == kLFolderApplicationSupport) {
        char const* value =
            XdgVariable(kind == kLFolderCaches ? "XDG_CACHE_HOME" : "XDG_DATA_HOME");
        return value != nullptr && CopyPath(dst, value);
    }
    char const* key = UserDirsKey(kind);
    char home[kLPathSize];
    if (key == nullptr || !_LGetHomeFolder(home)) {
        return false;
    }
    std::string text;
    _LReadWholeFile((ConfigFolder(home) + "/user-dirs.dirs").c_str(), text);
    char candidate[kLPathSize];
    bool found = false;
    _LForEachLine(text, [&](std::string_view line) {
        if (_LParseUserDirsLine(line, key, home, candidate)) {
            memcpy(dst, candidate, kLPathSize);
            found = true;
        }
    });
    return found;
}

bool _LGetTrashFolder(char* dst) {
    if (char const* data = XdgVariable("XDG_DATA_HOME")) {
        LFile::_MakeFilePath(dst, data, "Trash/files", "");
        return true;
    }
    char home[kLPathSize];
    if (!_LGetHomeFolder(home)) {
        dst[0] = 0;
        return false;
    }
    LFile::_MakeFilePath(dst, home, ".local/share/Trash/files", "");
    return true;
}

void LGetBundleExeFile(char* dst, size_t size) {
    if (size == 0) {
        return;
    }
    char exe[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    _LCopyCut(dst, std::string_view(exe, n < 0 ? 0 : static_cast<size_t>(n)), size);
}
