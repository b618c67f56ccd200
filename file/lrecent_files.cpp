// The recent-files walk and its collector. The walk trusts the list's order (newest first):
// the collector ends it at the first file older than the window.
#include "file/lrecent_files.h"

#include "file/lfile.h"
#include "file/lrecent_files_platform.h"

bool LFileGetUserRecentFilesData::IsExtValid(const char* extension) {
    return extension != nullptr && extension[0] != 0;
}

bool LFileGetUserRecentFilesData::AddFilePath(const char* path) {
    const long modified = _LGetFileModificationTime(path);
    if (modified < 1) {
        return true;
    }
    if (m_nStartTime >= 1 && modified < m_nStartTime) {
        return false;
    }
    if (m_nEndTime >= 1 && modified > m_nEndTime) {
        return true;
    }
    m_paths.AddString(path);
    return m_nMaxCount == 0 || m_paths.GetCount() < m_nMaxCount;
}

void GetUserRecentFiles(LFileGetUserRecentFilesData& data) {
    for (const std::string& url : _LReadRecentDocumentURLs()) {
        char path[kLPathSize];
        if (!_LRecentURLToPath(url.c_str(), path)) {
            continue;
        }
        char extension[kLPathSize];
        LFile::_GetFileExtensionFromPath(extension, path);
        if (!data.IsExtValid(extension) || _LIsFolderPath(path) || !LFile::TestFileExists(path)) {
            continue;
        }
        if (!data.AddFilePath(path)) {
            break;
        }
    }
}
