// Sandbox bookmarks: the manager's lists, reference counts and the keys in the user defaults.
#include "file/lbookmark.h"

#include <strings.h>
#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "file/lfile.h"
#include "settings/lpreferences.h"

namespace {

// The user defaults: the application's keys in the user's domain, for every host.
constexpr LSettingDomain kDefaultsDomain = kLSettingDomainCurrentUser;
constexpr bool kAnyHost = false;

LSandboxBookmarkManager* gSandboxBookmarkManager = nullptr;

bool StartsWithIgnoringCase(const char* text, const char* prefix) {
    return strncasecmp(text, prefix, strlen(prefix)) == 0;
}

std::string HomeFolder() {
    char home[kLPathSize];
    LFile::GetUserFolder(home);
    return home;
}

bool IsRegularFile(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

bool Exists(const char* path) {
    struct stat st;
    return stat(path, &st) == 0;
}

void CopyPath(char* dst, const std::string& text) {
    size_t n = std::min(text.size(), kLPathSize - 1);
    memcpy(dst, text.data(), n);
    dst[n] = 0;
}

bool WriteKeyList(const std::vector<std::string>& keys) {
    plist_t array = plist_new_array();
    for (const std::string& key : keys) {
        plist_array_append_item(array, plist_new_string(key.c_str()));
    }
    return LPreferencesSetValue(kDefaultsDomain, kAnyHost, kLSecurityBookmarkKeys, array);
}

LSandboxBookmarkItem* FindIn(LSandboxBookmarkItem* list, const char* path) {
    for (; list != nullptr; list = list->pNext) {
        if (strcasecmp(list->path.GetText(), path) == 0) {
            return list;
        }
    }
    return nullptr;
}

}  // namespace

// ---- LFile's sandbox tests ----

bool LFile::IsPathInSandbox(char const* path) {
    std::string home = HomeFolder();
    return !home.empty() && StartsWithIgnoringCase(path, home.c_str());
}

bool LFile::MakeNonSandboxedFilePath(char* dst, char const* path) {
    dst[0] = 0;
    std::string home = HomeFolder();
    char real[PATH_MAX];
    if (Exists(path)) {
        if (realpath(path, real) != nullptr && !StartsWithIgnoringCase(real, home.c_str())) {
            CopyPath(dst, real);
            return true;
        }
        return false;
    }
    if (home.empty() || !StartsWithIgnoringCase(path, home.c_str())) {
        return false;
    }
    std::string rest = path + home.size();
    while (!rest.empty() && (rest.front() == '/' || rest.front() == '\\')) {
        rest.erase(0, 1);
    }
    std::string walked = home;
    while (!rest.empty()) {
        size_t end = rest.find_first_of("/\\");
        std::string component = rest.substr(0, end);
        rest = end == std::string::npos ? std::string() : rest.substr(end + 1);
        walked += '/';
        walked += component;
        struct stat st;
        if (lstat(walked.c_str(), &st) != 0) {
            return false;
        }
        if (S_ISLNK(st.st_mode)) {
            if (realpath(walked.c_str(), real) == nullptr ||
                StartsWithIgnoringCase(real, home.c_str())) {
                return false;
            }
            std::string outside = real;
            if (!rest.empty()) {
                outside += '/';
                outside += rest;
            }
            CopyPath(dst, outside);
            return true;
        }
    }
    return false;
}

bool IsAccessAllowedByEntitlement(const char* path) {
    char outside[kLPathSize];
    return LFile::IsPathInSandbox(path) && !LFile::MakeNonSandboxedFilePath(outside, path);
}

// ---- Items ----

LSandboxBookmarkItem::LSandboxBookmarkItem(const char* itemPath, LSecurityScopedURLRef itemUrl,
                                           bool flag)
    : path(itemPath), url(std::move(itemUrl)), bFlag(flag) {}

LSandboxBookmarkItem::~LSandboxBookmarkItem() {
    StopAccessingSecurityScopedResource();
}

bool LSandboxBookmarkItem::StartAccessingSecurityScopedResource() {
    std::lock_guard guard(lock);
    if (!bStarted && url != nullptr) {
        bStarted = url->StartAccessingSecurityScopedResource();
    }
    return bStarted;
}

void LSandboxBookmarkItem::StopAccessingSecurityScopedResource() {
    std::lock_guard guard(lock);
    if (bStarted && url != nullptr) {
        url->StopAccessingSecurityScopedResource();
    }
    bStarted = false;
}

bool LSandboxBookmarkItem::IsStarted() {
    std::lock_guard guard(lock);
    return bStarted;
}

void LSandboxBookmarkItem::AddKey(const char* key) {
    std::lock_guard guard(lock);
    for (unsigned long i = 0; i < keys.GetCount(); ++i) {
        if (strcmp(keys[i], key) == 0) {
            return;
        }
    }
    keys.AddString(key);
}

std::vector<std::string> LSandboxBookmarkItem::GetKeys() {
    std::lock_guard guard(lock);
    std::vector<std::string> copy;
    for (unsigned long i = 0; i < keys.GetCount(); ++i) {
        copy.emplace_back(keys[i]);
    }
    return copy;
}

// ---- The manager ----

LSandboxBookmarkManager::LSandboxBookmarkManager() = default;

LSandboxBookmarkManager::~LSandboxBookmarkManager() {
    for (LSandboxBookmarkItem* list : {m_pFiles, m_pFolders}) {
        while (list != nullptr) {
            LSandboxBookmarkItem* next = list->pNext;
            delete list;
            list = next;
        }
    }
}

void LSandboxBookmarkManager::Create() {
    if (gSandboxBookmarkManager == nullptr) {
        gSandboxBookmarkManager = new LSandboxBookmarkManager;
    }
}

void LSandboxBookmarkManager::Destroy() {
    delete gSandboxBookmarkManager;
    gSandboxBookmarkManager = nullptr;
}

LSandboxBookmarkManager* LSandboxBookmarkManager::GetInstance() {
    return gSandboxBookmarkManager;
}

LSandboxBookmarkItem*& LSandboxBookmarkManager::ListFor(const char* path) {
    return IsRegularFile(path) || !Exists(path) ? m_pFiles : m_pFolders;
}

int LSandboxBookmarkManager::InstanceAddFilePath(const char* path, LSecurityScopedURLRef url,
                                                 bool store, bool flag, const char* key) {
    LSandboxBookmarkItem*& list = ListFor(path);
    if (IsAccessAllowedByEntitlement(path) || FindIn(list, path) != nullptr) {
        return 1;
    }
    auto* item = new LSandboxBookmarkItem(path, std::move(url), flag);
    if (!item->StartAccessingSecurityScopedResource()) {
        delete item;  // stops access and releases the URL
        return 0;
    }
    item->pNext = list;
    list = item;
    if (store && key != nullptr && key[0] != 0) {
        InstanceSaveBookmarkToFile(*item, key);
        item->AddKey(key);
        InstanceAddKey(key);
    }
    return 1;
}

bool LSandboxBookmarkManager::InstanceAddFilePathToSettings(const char* path, bool,
                                                            const char* key) {
    if (IsAccessAllowedByEntitlement(path)) {
        return false;
    }
    LSandboxBookmarkItem* item = FindIn(ListFor(path), path);
    if (item == nullptr || !InstanceSaveBookmarkToFile(*item, key)) {
        return false;
    }
    item->AddKey(key);
    InstanceAddKey(key);
    return true;
}

bool LSandboxBookmarkManager::InstanceSaveBookmarkToFile(LSandboxBookmarkItem& item,
                                                         const char* key) {
    std::string data;
    if (item.url == nullptr || !_LBookmarkCreateData(*item.url, data)) {
        return false;
    }
    plist_t value = plist_new_data(data.data(), data.size());
    return LPreferencesSetValue(kDefaultsDomain, kAnyHost, key, value);
}

void LSandboxBookmarkManager::InstanceAddKey(const char* key) {
    for (const std::string& known : m_keys) {
        if (known == key) {
            return;
        }
    }
    m_keys.emplace_back(key);
    WriteKeyList(m_keys);
}

void LSandboxBookmarkManager::ForgetKey(const char* key, bool removeData) {
    std::erase(m_keys, std::string(key));
    std::vector<std::string> keys = m_keys;
    LPreferencesUpdate(kDefaultsDomain, kAnyHost, [&](plist_t dictionary) {
        plist_t array = plist_new_array();
        for (const std::string& known : keys) {
            plist_array_append_item(array, plist_new_string(known.c_str()));
        }
        plist_dict_set_item(dictionary, kLSecurityBookmarkKeys, array);
        if (removeData) {
            plist_dict_remove_item(dictionary, key);
        }
        return true;
    });
}

void LSandboxBookmarkManager::InstanceLoadBookmarksFromFile() {
    m_keys.clear();
    plist_t array = LPreferencesCopyValue(kDefaultsDomain, kAnyHost, kLSecurityBookmarkKeys);
    std::vector<std::string> stored;
    if (array != nullptr && plist_get_node_type(array) == PLIST_ARRAY) {
        for (uint32_t i = 0; i < plist_array_get_size(array); ++i) {
            plist_t item = plist_array_get_item(array, i);
            if (plist_get_node_type(item) == PLIST_STRING) {
                stored.emplace_back(plist_get_string_ptr(item, nullptr));
            }
        }
    }
    plist_free(array);
    m_keys = stored;
    bool anyStale = false;
    for (const std::string& key : stored) {
        bool stale = false;
        InstanceLoadBookmark(key.c_str(), stale);
        anyStale = anyStale || stale;
    }
    if (anyStale) {
        InstanceSaveBookmarksToFile();
    }
}

bool LSandboxBookmarkManager::InstanceLoadBookmark(const char* key, bool& stale) {
    stale = false;
    plist_t value = LPreferencesCopyValue(kDefaultsDomain, kAnyHost, key);
    std::string data;
    if (value != nullptr && plist_get_node_type(value) == PLIST_DATA) {
        uint64_t length = 0;
        const char* bytes = plist_get_data_ptr(value, &length);
        data.assign(bytes != nullptr ? bytes : "", bytes != nullptr ? length : 0);
    }
    plist_free(value);
    if (data.empty()) {
        ForgetKey(key, false);
        return false;
    }
    LSecurityScopedURLRef url = _LBookmarkResolveData(data, stale);
    if (url == nullptr || !Exists(url->GetPath())) {
        ForgetKey(key, true);
        return false;
    }
    const char* path = url->GetPath();
    LSandboxBookmarkItem*& list = ListFor(path);
    LSandboxBookmarkItem* item = FindIn(list, path);
    if (item == nullptr) {
        item = new LSandboxBookmarkItem(path, url, false);
        item->pNext = list;
        list = item;
    }
    item->AddKey(key);
    if (stale) {
        InstanceSaveBookmarkToFile(*item, key);
    }
    item->StartAccessingSecurityScopedResource();
    return true;
}

// Files first, then folders, each list in its order, each item under every key it has.
void LSandboxBookmarkManager::InstanceSaveBookmarksToFile() {
    for (LSandboxBookmarkItem* list : {m_pFiles, m_pFolders}) {
        for (; list != nullptr; list = list->pNext) {
            for (const std::string& key : list->GetKeys()) {
                InstanceSaveBookmarkToFile(*list, key.c_str());
            }
        }
    }
}

bool LSandboxBookmarkManager::InstanceStartAccessingSecurityScopedResource(const char* path) {
    LSandboxBookmarkItem* item = InstanceGetBookmark(path);
    return item != nullptr && item->StartAccessingSecurityScopedResource();
}

void LSandboxBookmarkManager::InstanceStopAccessingSecurityScopedResource(const char* path) {
    if (LSandboxBookmarkItem* item = InstanceGetBookmark(path)) {
        item->StopAccessingSecurityScopedResource();
    }
}

bool LSandboxBookmarkManager::InstanceIsAccessStarted(const char* path) const {
    if (IsRegularFile(path)) {
        LSandboxBookmarkItem* item = FindIn(m_pFiles, path);
        if (item != nullptr && item->IsStarted()) {
            return true;
        }
    }
    for (LSandboxBookmarkItem* item = m_pFolders; item != nullptr; item = item->pNext) {
        if (StartsWithIgnoringCase(path, item->path.GetText()) && item->IsStarted()) {
            return true;
        }
    }
    return false;
}

void LSandboxBookmarkManager::InstanceRetain(const char* path) {
    if (LSandboxBookmarkItem* item = FindIn(ListFor(path), path)) {
        ++item->nRetainCount;
    }
}

void LSandboxBookmarkManager::InstanceRelease(const char* path) {
    LSandboxBookmarkItem** link = &ListFor(path);
    while (*link != nullptr && strcasecmp((*link)->path.GetText(), path) != 0) {
        link = &(*link)->pNext;
    }
    LSandboxBookmarkItem* item = *link;
    if (item == nullptr) {
        return;
    }
    if (item->nRetainCount > 1) {
        --item->nRetainCount;
        return;
    }
    *link = item->pNext;
    delete item;  // stops access and releases the URL
}

LSandboxBookmarkItem* LSandboxBookmarkManager::InstanceGetBookmark(const char* path) const {
    LSandboxBookmarkItem* item = FindIn(m_pFiles, path);
    return item != nullptr ? item : FindIn(m_pFolders, path);
}

// '/a/b' counts as a parent of '/a/bc': the comparison ignores separators on purpose.
LSandboxBookmarkItem* LSandboxBookmarkManager::InstanceGetParentBookmark(const char* path) const {
    for (LSandboxBookmarkItem* list : {m_pFiles, m_pFolders}) {
        for (; list != nullptr; list = list->pNext) {
            if (StartsWithIgnoringCase(path, list->path.GetText())) {
                return list;
            }
        }
    }
    return nullptr;
}

// ---- The static forms, on the single instance ----

int LSandboxBookmarkManager::AddFilePath(const char* path, LSecurityScopedURLRef url, bool store,
                                         bool flag, const char* key) {
    return gSandboxBookmarkManager != nullptr ? gSandboxBookmarkManager->InstanceAddFilePath(
                                                    path, std::move(url), store, flag, key)
                                              : 0;
}

bool LSandboxBookmarkManager::AddFilePathToSettings(const char* path, bool store, const char* key) {
    return gSandboxBookmarkManager != nullptr &&
           gSandboxBookmarkManager->InstanceAddFilePathToSettings(path, store, key);
}

bool LSandboxBookmarkManager::StartAccessingSecurityScopedResource(const char* path) {
    return gSandboxBookmarkManager != nullptr &&
           gSandboxBookmarkManager->InstanceStartAccessingSecurityScopedResource(path);
}

void LSandboxBookmarkManager::StopAccessingSecurityScopedResource(const char* path) {
    if (gSandboxBookmarkManager != nullptr) {
        gSandboxBookmarkManager->InstanceStopAccessingSecurityScopedResource(path);
    }
}

bool LSandboxBookmarkManager::IsAccessStarted(const char* path) {
    return gSandboxBookmarkManager != nullptr &&
           gSandboxBookmarkManager->InstanceIsAccessStarted(path);
}

void LSandboxBookmarkManager::Retain(const char* path) {
    if (gSandboxBookmarkManager != nullptr) {
        gSandboxBookmarkManager->InstanceRetain(path);
    }
}

void LSandboxBookmarkManager::Release(const char* path) {
    if (gSandboxBookmarkManager != nullptr) {
        gSandboxBookmarkManager->InstanceRelease(path);
    }
}

void LSandboxBookmarkManager::LoadBookmarksFromFile() {
    if (gSandboxBookmarkManager != nullptr) {
        gSandboxBookmarkManager->InstanceLoadBookmarksFromFile();
    }
}
