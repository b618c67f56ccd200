// Linux counterpart of security-scoped bookmarks. There is no application sandbox: the
// bookmark data records the absolute path, resolving it checks that the path still exists,
// and starting or stopping access always succeeds. A path never goes stale.
#include <sys/stat.h>

#include "file/lbookmark.h"

bool LSecurityScopedURL::StartAccessingSecurityScopedResource() {
    return true;
}

void LSecurityScopedURL::StopAccessingSecurityScopedResource() {}

bool _LBookmarkCreateData(const LSecurityScopedURL& url, std::string& data) {
    data = url.GetPath();
    return !data.empty() && data.front() == '/';
}

LSecurityScopedURLRef _LBookmarkResolveData(const std::string& data, bool& stale) {
    stale = false;
    struct stat st;
    if (data.empty() || data.front() != '/' || data.find('\0') != std::string::npos ||
        stat(data.c_str(), &st) != 0) {
        return nullptr;
    }
    return std::make_shared<LSecurityScopedURL>(data.c_str());
}
