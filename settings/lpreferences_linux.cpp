// Linux counterpart of the system preferences service: property-list files under the XDG
// configuration folders (see lpreferences.h for the invariants).
#include "platform/lsmall_file.h"
#include "settings/lplist.h"
#include "settings/lpreferences.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string_view>
#include <thread>

namespace {

// How long a writer waits for another process's lock before it goes on without it: file
// locks are best effort, and a stuck peer must not hang every settings call.
constexpr auto kLockTimeLimit = std::chrono::seconds(10);

struct FileIdentity {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};

    bool operator==(const FileIdentity& o) const {
        return exists == o.exists && device == o.device && inode == o.inode && size == o.size &&
               modified.tv_sec == o.modified.tv_sec && modified.tv_nsec == o.modified.tv_nsec;
    }
};

FileIdentity IdentityOf(const struct stat& st) {
    return FileIdentity{true, st.st_dev, st.st_ino, st.st_size, st.st_mtim};
}

FileIdentity StatIdentity(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        return FileIdentity{};
    }
    return IdentityOf(st);
}

struct CachedFile {
    FileIdentity identity;
    bool valid = false;
    plist_t dictionary = nullptr;  // always a dictionary once valid
};

std::mutex gCacheMutex;
std::map<std::string, CachedFile>& Cache() {
    static auto* cache = new std::map<std::string, CachedFile>;  // outlives static destructors
    return *cache;
}

std::string MachineId() {
    static const std::string id = [] {
        std::string text;
        int fd = open("/etc/machine-id", O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            char buffer[128];
            ssize_t n = read(fd, buffer, sizeof buffer);
            close(fd);
            for (ssize_t i = 0; i < n && buffer[i] != '\n' && buffer[i] != 0; ++i) {
                text += buffer[i];
            }
        }
        if (text.empty()) {
            char host[256] = {};
            gethostname(host, sizeof host - 1);
            text = host;
        }
        return text;
    }();
    return id;
}

std::string FolderOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

void MakeFolders(const std::string& folder) {
    for (size_t i = 1; i <= folder.size(); ++i) {
        if (i == folder.size() || folder[i] == '/') {
            mkdir(folder.substr(0, i).c_str(), 0700);
        }
    }
}

// Parses the file; an unreadable or foreign file reads as an empty domain.
plist_t ReadDictionary(const std::string& path, FileIdentity& identity) {
    plist_t result = nullptr;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    identity = FileIdentity{};
    if (fd >= 0) {
        struct stat st;
        if (fstat(fd, &st) == 0) {
            identity = IdentityOf(st);
            std::string data(static_cast<size_t>(st.st_size), '\0');
            size_t done = 0;
            while (done < data.size()) {
                ssize_t n = read(fd, data.data() + done, data.size() - done);
                if (n <= 0) {
                    break;
                }
                done += static_cast<size_t>(n);
            }
            if (done > 0) {
                plist_from_memory(data.data(), static_cast<uint32_t>(done), &result);
            }
        }
        close(fd);
    }
    if (result != nullptr && plist_get_node_type(result) != PLIST_DICT) {
        plist_free(result);
        result = nullptr;
    }
    return result != nullptr ? result : plist_new_dict();
}

// The cached dictionary of `path`, revalidated. Call with gCacheMutex held.
plist_t CurrentDictionary(const std::string& path) {
    CachedFile& entry = Cache()[path];
    FileIdentity now = StatIdentity(path);
    if (!entry.valid || !(now == entry.identity)) {
        if (entry.dictionary != nullptr) {
            plist_free(entry.dictionary);
        }
        entry.dictionary = ReadDictionary(path, entry.identity);
        entry.valid = true;
    }
    return entry.dictionary;
}

// Writes `dictionary` to a temporary file in the same folder and renames it over `path`.
bool ReplaceFile(const std::string& path, plist_t dictionary, FileIdentity& identity) {
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(dictionary, &xml, &length);
    if (xml == nullptr) {
        return false;
    }
    std::string temp = path + ".XXXXXX";
    int fd = mkostemp(temp.data(), O_CLOEXEC);
    bool ok = fd >= 0;
    if (ok) {
        fchmod(fd, 0600);
        ok = _LWriteAll(fd, xml, length) && fdatasync(fd) == 0;
        struct stat st;
        if (ok && fstat(fd, &st) == 0) {
            identity = IdentityOf(st);
        }
        ok = close(fd) == 0 && ok;
        ok = ok && rename(temp.c_str(), path.c_str()) == 0;
        if (!ok) {
            unlink(temp.c_str());
        }
    }
    plist_to_xml_free(xml);
    return ok;
}

class FolderLock {
public:
    explicit FolderLock(const std::string& folder)
        : m_fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        if (m_fd < 0) {
            return;
        }
        auto limit = std::chrono::steady_clock::now() + kLockTimeLimit;
        while (flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
            if ((errno != EWOULDBLOCK && errno != EINTR) ||
                std::chrono::steady_clock::now() > limit) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        m_bHeld = true;
    }
    ~FolderLock() {
        if (m_fd >= 0) {
            close(m_fd);  // closing the last descriptor releases the lock
        }
    }
    bool IsHeld() const { return m_bHeld; }
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

private:
    int m_fd;
    bool m_bHeld = false;
};

// A writer killed between creating its temporary file and renaming it leaves the temporary
// behind. Only the lock holder may remove them: no other writer can be filling one then.
void RemoveAbandonedTemporaries(const std::string& path) {
    std::string folder = FolderOf(path);
    std::string stem = path.substr(folder.size() + 1) + ".";
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr) {
        return;
    }
    while (dirent* entry = readdir(dir)) {
        std::string_view name = entry->d_name;
        if (name.size() == stem.size() + 6 && name.starts_with(stem)) {
            unlinkat(dirfd(dir), entry->d_name, 0);
        }
    }
    closedir(dir);
}

}  // namespace

std::string LPreferencesGetPath(LSettingDomain domain, bool currentHost) {
    std::string folder;
    if (domain == kLSettingDomainAnyUser) {
        const char* dirs = getenv("XDG_CONFIG_DIRS");
        folder = dirs != nullptr && dirs[0] == '/' ? std::string(dirs, strcspn(dirs, ":"))
                                                   : std::string("/etc/xdg");
    } else {
        const char* config = getenv("XDG_CONFIG_HOME");
        if (config != nullptr && config[0] == '/') {
            folder = config;
        } else {
            const char* home = getenv("HOME");
            folder = std::string(home != nullptr ? home : "") + "/.config";
        }
    }
    while (folder.size() > 1 && folder.back() == '/') {
        folder.pop_back();
    }
    if (currentHost) {
        return folder + "/ByHost/" + kLApplicationIdentifier + "." + MachineId() + ".plist";
    }
    return folder + "/" + kLApplicationIdentifier + ".plist";
}

plist_t LPreferencesCopyValue(LSettingDomain domain, bool currentHost, const char* key) {
    std::string path = LPreferencesGetPath(domain, currentHost);
    std::lock_guard guard(gCacheMutex);
    plist_t item = plist_dict_get_item(CurrentDictionary(path), key);
    return item != nullptr ? plist_copy(item) : nullptr;
}

bool LPreferencesGetString(LSettingDomain domain, bool currentHost, const char* key,
                           std::string& out) {
    std::string path = LPreferencesGetPath(domain, currentHost);
    std::lock_guard guard(gCacheMutex);
    plist_t item = plist_dict_get_item(CurrentDictionary(path), key);
    if (item == nullptr || plist_get_node_type(item) != PLIST_STRING) {
        return false;
    }
    uint64_t length = 0;
    const char* text = plist_get_string_ptr(item, &length);
    out.assign(text != nullptr ? text : "", text != nullptr ? length : 0);
    return true;
}

bool LPreferencesTestKey(LSettingDomain domain, bool currentHost, const char* key) {
    std::string path = LPreferencesGetPath(domain, currentHost);
    std::lock_guard guard(gCacheMutex);
    return plist_dict_get_item(CurrentDictionary(path), key) != nullptr;
}

std::vector<std::string> LPreferencesCopyKeyList(LSettingDomain domain, bool currentHost) {
    std::string path = LPreferencesGetPath(domain, currentHost);
    std::lock_guard guard(gCacheMutex);
    return _LPlistDictionaryKeys(CurrentDictionary(path));
}

bool LPreferencesUpdate(LSettingDomain domain, bool currentHost,
                        const std::function<bool(plist_t dictionary)>& change) {
    std::string path = LPreferencesGetPath(domain, currentHost);
    std::lock_guard guard(gCacheMutex);
    MakeFolders(FolderOf(path));
    FolderLock lock(FolderOf(path));
    if (lock.IsHeld()) {
        RemoveAbandonedTemporaries(path);
    }
    // Under the lock the file on disk is the truth: another process may have written since
    // our last read, and its keys must survive this write.
    plist_t working = plist_copy(CurrentDictionary(path));
    bool ok = change(working);
    FileIdentity identity;
    if (ok) {
        ok = ReplaceFile(path, working, identity);
    }
    if (ok) {
        CachedFile& entry = Cache()[path];
        plist_free(entry.dictionary);
        entry.dictionary = working;
        entry.identity = identity;
        entry.valid = true;
    } else {
        plist_free(working);
    }
    return ok;
}

bool LPreferencesSetValue(LSettingDomain domain, bool currentHost, const char* key, plist_t value) {
    return LPreferencesUpdate(domain, currentHost, [&](plist_t dictionary) {
        if (value != nullptr) {
            plist_dict_set_item(dictionary, key, value);
            value = nullptr;
        } else {
            plist_dict_remove_item(dictionary, key);
        }
        return true;
    });
}

void LPreferencesFlushCache() {
    std::lock_guard guard(gCacheMutex);
    for (auto& [path, entry] : Cache()) {
        plist_free(entry.dictionary);
    }
    Cache().clear();
}
