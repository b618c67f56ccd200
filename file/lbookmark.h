// Sandbox bookmarks: files and folders picked outside the sandbox stay reachable across runs
// through bookmarks kept in the user defaults, each under a key listed in the array
// "SECURITY_BOOKMARK_KEYS". The manager keeps the bookmarks of this run, starts and stops
// access with reference counts, and forgets (key and data) every bookmark whose target can
// no longer be resolved.
//
// Threads: each item's lock guards its started flag and its key list; the manager's lists
// are used only from the thread that owns the manager.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "text/lstring.h"
#include "thread/llock.h"

inline constexpr char kLSecurityBookmarkKeys[] = "SECURITY_BOOKMARK_KEYS";

// The URL of a bookmarked file or folder, with its security-scoped access.
class LSecurityScopedURL {
public:
    explicit LSecurityScopedURL(const char* path) : m_path(path) {}
    const char* GetPath() const { return m_path.c_str(); }
    bool StartAccessingSecurityScopedResource();
    void StopAccessingSecurityScopedResource();

private:
    std::string m_path;
};
using LSecurityScopedURLRef = std::shared_ptr<LSecurityScopedURL>;  // "retained" = held

// Bookmark data of a URL, and its resolution (null when it cannot be resolved).
bool _LBookmarkCreateData(const LSecurityScopedURL& url, std::string& data);
LSecurityScopedURLRef _LBookmarkResolveData(const std::string& data, bool& stale);

// True only for a path inside the home folder that no symbolic link leads out of: such a
// path needs no bookmark.
bool IsAccessAllowedByEntitlement(const char* path);

class LSandboxBookmarkItem {
public:
    LSandboxBookmarkItem(const char* path, LSecurityScopedURLRef url, bool flag);
    ~LSandboxBookmarkItem();
    LSandboxBookmarkItem(const LSandboxBookmarkItem&) = delete;
    LSandboxBookmarkItem& operator=(const LSandboxBookmarkItem&) = delete;

    bool StartAccessingSecurityScopedResource();
    void StopAccessingSecurityScopedResource();
    bool IsStarted();
    void AddKey(const char* key);
    std::vector<std::string> GetKeys();

    LSandboxBookmarkItem* pNext = nullptr;
    LStringLongTemplate<char> path;
    LSecurityScopedURLRef url;
    bool bStarted = false;
    bool bFlag;
    LStringListTemplate<char> keys;
    LLockObject lock;
    size_t nRetainCount = 0;
};

class LSandboxBookmarkManager {
public:
    static void Create();
    static void Destroy();
    static LSandboxBookmarkManager* GetInstance();

    static int AddFilePath(const char* path, LSecurityScopedURLRef url, bool store, bool flag,
                           const char* key);
    static bool AddFilePathToSettings(const char* path, bool store, const char* key);
    static bool StartAccessingSecurityScopedResource(const char* path);
    static void StopAccessingSecurityScopedResource(const char* path);
    static bool IsAccessStarted(const char* path);
    static void Retain(const char* path);
    static void Release(const char* path);
    static void LoadBookmarksFromFile();

    int InstanceAddFilePath(const char* path, LSecurityScopedURLRef url, bool store, bool flag,
                            const char* key);
    bool InstanceAddFilePathToSettings(const char* path, bool store, const char* key);
    bool InstanceSaveBookmarkToFile(LSandboxBookmarkItem& item, const char* key);
    void InstanceAddKey(const char* key);
    void InstanceLoadBookmarksFromFile();
    bool InstanceLoadBookmark(const char* key, bool& stale);
    void InstanceSaveBookmarksToFile();
    bool InstanceStartAccessingSecurityScopedResource(const char* path);
    void InstanceStopAccessingSecurityScopedResource(const char* path);
    bool InstanceIsAccessStarted(const char* path) const;
    void InstanceRetain(const char* path);
    void InstanceRelease(const char* path);
    LSandboxBookmarkItem* InstanceGetBookmark(const char* path) const;
    LSandboxBookmarkItem* InstanceGetParentBookmark(const char* path) const;
    const std::vector<std::string>& InstanceGetKeys() const { return m_keys; }

private:
    LSandboxBookmarkManager();
    ~LSandboxBookmarkManager();
    LSandboxBookmarkItem*& ListFor(const char* path);
    void ForgetKey(const char* key, bool removeData);

    LSandboxBookmarkItem* m_pFiles = nullptr;
    LSandboxBookmarkItem* m_pFolders = nullptr;
    std::vector<std::string> m_keys;
};
