// The portable half of the OS, user and process utilities: the version cache and its
// splitting, the root and administrator tests, the user switch, and the process look-ups
// over the platform's process table.
#include "platform/los_utils.h"

#include <grp.h>
#include <pwd.h>
#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "debug/ldebug.h"
#include "thread/llock.h"

namespace {

// The cached version; a major below 1 means not yet known. The major is stored last, so a
// reader that sees it sees the other two.
std::atomic<int32_t> gnOSVersionMajor{0};
std::atomic<int32_t> gnOSVersionMinor{0};
std::atomic<int32_t> gnOSVersionPatch{0};

// LGetProcessUid's answer; used only when 0 or more.
std::atomic<int32_t> gnProcessUid{-1};

// atoi of the text up to the next dot (cut to 259 characters); moves text behind the dot.
int NextVersionPiece(char const*& text) {
    char piece[260];
    size_t n = 0;
    while (text[n] != 0 && text[n] != '.') {
        if (n < sizeof piece - 1) {
            piece[n] = text[n];
        }
        ++n;
    }
    piece[n < sizeof piece - 1 ? n : sizeof piece - 1] = 0;
    text += text[n] == '.' ? n + 1 : n;
    return atoi(piece);
}

}  // namespace

void _LSplitOSVersion(char const* text, int& major, int& minor, int& patch) {
    major = NextVersionPiece(text);
    minor = NextVersionPiece(text);
    patch = NextVersionPiece(text);
}

bool _LOSReleaseValue(std::string_view content, std::string_view key, char* out) {
    out[0] = 0;
    while (!content.empty()) {
        size_t end = content.find('\n');
        std::string_view line = content.substr(0, end);
        content.remove_prefix(end == std::string_view::npos ? content.size() : end + 1);
        if (line.substr(0, key.size()) != key || line.substr(key.size(), 1) != "=") {
            continue;
        }
        std::string_view value = line.substr(key.size() + 1);
        while (!value.empty() && (value.back() == '\r' || value.back() == ' ')) {
            value.remove_suffix(1);
        }
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
            value.back() == value.front()) {
            value = value.substr(1, value.size() - 2);
        }
        size_t n = value.size() < 259 ? value.size() : 259;
        memcpy(out, value.data(), n);
        out[n] = 0;
        return true;
    }
    return false;
}

void LUnixAppInitCommon() {
    LDebugThreadDataStartThread("MAIN");
}

void LGetOSVersion(unsigned char& major, unsigned char& minor, unsigned char& patch) {
    if (gnOSVersionMajor.load(std::memory_order_acquire) < 1) {
        int a = 0, b = 0, c = 0;
        char text[260];
        if (_LReadSystemVersionText(text)) {
            _LSplitOSVersion(text, a, b, c);
        }
        gnOSVersionMinor.store(b, std::memory_order_relaxed);
        gnOSVersionPatch.store(c, std::memory_order_relaxed);
        gnOSVersionMajor.store(a, std::memory_order_release);
    }
    major = static_cast<unsigned char>(gnOSVersionMajor.load(std::memory_order_acquire));
    minor = static_cast<unsigned char>(gnOSVersionMinor.load(std::memory_order_relaxed));
    patch = static_cast<unsigned char>(gnOSVersionPatch.load(std::memory_order_relaxed));
}

void LGetOSVersion(unsigned char& major, unsigned char& minor) {
    unsigned char patch = 0;
    LGetOSVersion(major, minor, patch);
}

bool LIsUserRoot() {
    char const* user = getenv("USER");
    return getuid() == 0 || strcmp(user != nullptr ? user : "", "root") == 0;
}

bool LIsUserAdministrator() {
    if (LIsUserRoot()) {
        return true;
    }
    long const most = sysconf(_SC_NGROUPS_MAX);
    if (most < 0) {
        return false;
    }
    std::vector<gid_t> groups(static_cast<size_t>(most) + 1);
    int const count = getgroups(static_cast<int>(groups.size()), groups.data());
    for (int i = 0; i < count; ++i) {
        group const* entry = getgrgid(groups[i]);
        if (entry != nullptr && _LIsAdministratorGroupName(entry->gr_name)) {
            return true;
        }
    }
    return false;
}

bool LIsUserRunningAsAdministrator() {
    return LIsUserAdministrator();
}

bool LSwitchToUser() {
    char const* name = getenv("LOGNAME");
    if (name == nullptr || name[0] == 0) {
        name = getenv("USER");
    }
    char user[260];
    size_t n = name != nullptr ? strnlen(name, sizeof user - 1) : 0;
    memcpy(user, name != nullptr ? name : "", n);
    user[n] = 0;
    passwd const* entry = getpwnam(user);
    return entry != nullptr && setuid(entry->pw_uid) == 0;
}

bool LSwitchToRoot() {
    return setuid(0) == 0;
}

pid_t LGetBSDProcessUid(char const* name) {
    std::vector<LBSDProcessInfo> list;
    if (name == nullptr || !LGetBSDProcessList(list)) {
        return -1;
    }
    for (LBSDProcessInfo const& process : list) {
        if (strcasecmp(process.szCommand, name) == 0) {
            return process.pid;
        }
    }
    return -1;
}

pid_t LGetProcessUid(char const* name) {
    int32_t const cached = gnProcessUid.load(std::memory_order_acquire);
    if (cached >= 0) {
        return cached;
    }
    pid_t const found = LGetBSDProcessUid(name);
    LSystemLockMutex lock("UID");
    lock.LockForever();
    gnProcessUid.store(found, std::memory_order_release);
    lock.Unlock();
    return found;
}
