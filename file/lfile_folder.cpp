// Folder walks, wildcard matching and the folder-tree operations of LFile.
//
// Tree operations ignore failures on single entries and report only their last creation or
// removal. Entry paths are built in 260-byte buffers like every other path; an entry whose
// path would not fit is left alone, because the cut path names some other entry (possibly
// the folder being walked, which would never end).
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "file/lfile.h"
#include "file/lfile_folder.h"
#include "file/lfile_platform.h"

namespace {

bool IsDotOrDotDot(char const* name) {
    return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

// folder/name, or false when that does not fit a path buffer.
bool JoinEntry(char* dst, char const* folder, char const* name) {
    size_t const folderLen = strlen(folder);
    bool const needsSep =
        folderLen != 0 && folder[folderLen - 1] != '/' && folder[folderLen - 1] != '\\';
    if (folderLen + (needsSep ? 1 : 0) + strlen(name) > kLPathSize - 1) {
        return false;
    }
    LFile::_MakeFilePath(dst, folder, name, "");
    return true;
}

bool IsDirectoryFollowingLinks(char const* path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

void LowerAscii(char* dst, char const* src) {
    size_t n = _LCopyCut(dst, src, kLPathSize);
    for (size_t i = 0; i < n; ++i) {
        if (dst[i] >= 'A' && dst[i] <= 'Z') {
            dst[i] = static_cast<char>(dst[i] - 'A' + 'a');
        }
    }
}

// Calls visit(path) for every entry of folder but "." and ".." whose path fits; false when
// the folder cannot be walked.
template <typename Visit>
bool ForEachEntry(char const* folder, Visit&& visit) {
    LFile::FolderIteratorAllFiles walk;
    if (!walk.Open(folder, "*")) {
        return false;
    }
    do {
        char const* name = walk.GetFileName();
        char path[kLPathSize];
        if (!IsDotOrDotDot(name) && JoinEntry(path, walk.GetFolder(), name)) {
            visit(static_cast<char const*>(path));
        }
    } while (walk.Next());
    return true;
}

size_t CountEntries(char const* folder) {
    size_t count = 0;
    LFile::FolderIteratorAllFiles walk;
    if (walk.Open(folder, "*")) {
        do {
            count += IsDotOrDotDot(walk.GetFileName()) ? 0 : 1;
        } while (walk.Next());
    }
    return count;
}

bool RemoveFolder(char const* path) {
    return rmdir(path) == 0;
}

// The shared body of the DeleteFolderTree forms: subfolders (by their status following
// links) go through deleteSub, everything else is unlinked, flags cleared first on request.
template <typename DeleteSub>
bool DeleteContents(char const* path, bool clearFlags, DeleteSub&& deleteSub) {
    return ForEachEntry(path, [&](char const* entry) {
        if (IsDirectoryFollowingLinks(entry)) {
            deleteSub(entry);
            return;
        }
        if (clearFlags) {
            _LClearFileFlags(entry);
        }
        unlink(entry);
    });
}

}  // namespace

// ---- Walks ---------------------------------------------------------------------------------

bool LFile::FolderIterator::Open(char const* folder, char const* pattern) {
    Close();
    struct stat st;
    if (folder == nullptr || !LFile::TestFolderExists(folder) || stat(folder, &st) != 0 ||
        !S_ISDIR(st.st_mode)) {
        return false;
    }
    m_pDir = opendir(folder);
    if (m_pDir == nullptr) {
        return false;
    }
    _LCopyCut(m_szFolder, folder, kLPathSize);
    _LCopyCut(m_szPattern, pattern != nullptr ? pattern : "", kLPathSize);
    while (_GetNextFile()) {
        if (_Matches(m_pEntry->d_name)) {
            return true;
        }
    }
    return false;
}

bool LFile::FolderIterator::Open(char const* path) {
    struct stat st;
    if (path != nullptr && stat(path, &st) == 0 && S_ISREG(st.st_mode)) {
        char folder[kLPathSize];
        char name[kLPathSize];
        LFile::_GetFolderFromPath(folder, path);
        LFile::_GetFileFromPath(name, path);
        return Open(folder, name);
    }
    return Open(path, "*");
}

bool LFile::FolderIterator::Next() {
    while (_GetNextFile()) {
        if (_Matches(m_pEntry->d_name)) {
            return true;
        }
    }
    return false;
}

void LFile::FolderIterator::Close() {
    if (m_pDir != nullptr) {
        closedir(m_pDir);
        m_pDir = nullptr;
    }
    m_pEntry = nullptr;
}

bool LFile::FolderIterator::_GetNextFile() {
    if (m_pDir == nullptr) {
        return false;
    }
    // readdir is safe here: each walk reads only its own stream.
    m_pEntry = readdir(m_pDir);
    if (m_pEntry == nullptr) {
        Close();
        return false;
    }
    return true;
}

void LFile::FolderIterator::GetFilePath(char* dst) const {
    LFile::_MakeFilePath(dst, m_szFolder, GetFileName(), "");
}

bool LFile::FolderIterator::IsDotFolderOrMetadata(char const* name) const {
    if (name == nullptr) {
        return false;
    }
    return IsDotOrDotDot(name) || strncmp(name, "__MACOSX", 8) == 0;
}

bool LFile::FolderIterator::_Matches(char const* name) const {
    if (IsDotFolderOrMetadata(name)) {
        return false;
    }
    char lowerPattern[kLPathSize];
    char lowerName[kLPathSize];
    LowerAscii(lowerPattern, m_szPattern);
    LowerAscii(lowerName, name);
    return LFile::IsMatch(lowerPattern, lowerName);
}

bool LFile::FolderIteratorAllFiles::_Matches(char const*) const {
    return true;
}

bool LFile::IsMatch(char const* pattern, char const* name) {
    // Trying the rest of the pattern at each later position after a "*" needs to remember
    // only the latest "*": an earlier one could only absorb what the latest one can.
    char const* star = nullptr;
    char const* resume = nullptr;
    char const* p = pattern;
    char const* n = name;
    while (*n != 0) {
        if (*p == '*') {
            while (*p == '*') {
                ++p;
            }
            if (*p == 0) {
                return true;
            }
            star = p;
            resume = n;
        } else if (*p != 0 && (*p == '?' || *p == *n)) {
            ++p;
            ++n;
        } else if (star != nullptr) {
            p = star;
            n = ++resume;
        } else {
            return false;
        }
    }
    while (*p == '*') {
        ++p;
    }
    return *p == 0;
}

// ---- Creating and copying ------------------------------------------------------------------

bool LFile::CreateFolderTree(char const* path) {
    char parent[kLPathSize];
    _GetFolderFromPath(parent, path);
    if (parent[0] != 0 && strcmp(parent, path) != 0 && !TestFolderExists(parent) &&
        !CreateFolderTree(parent)) {
        return false;
    }
    return mkdir(path, 0777) == 0;
}

bool LFile::CopyFile(char const* source, char const* destination) {
    if (!TestFileExists(destination)) {
        _LCopyItem(source, destination);
        return true;
    }
    // The copy is finished beside the destination under a free hidden name, then renamed
    // over it, so the destination is at all times either the old file or the new one.
    char folder[kLPathSize];
    char name[kLPathSize];
    _GetFolderFromPath(folder, destination);
    _GetFileFromPath(name, destination);
    for (unsigned int attempt = 0; attempt < 100; ++attempt) {
        char temp[kLPathSize];
        MakeFilePathF(temp, folder, ".%s.%u.%u.tmp", name,
                      static_cast<unsigned long long>(getpid()),
                      static_cast<unsigned long long>(attempt));
        int const error = _LCopyItem(source, temp);
        if (error == EEXIST) {
            continue;
        }
        if (error != 0) {
            return false;
        }
        if (rename(temp, destination) == 0) {
            return true;
        }
        if (!DeleteFolderTree(temp)) {
            unlink(temp);
        }
        return false;
    }
    return false;
}

void LFile::CopyFolderFiles(char const* source, char const* destination) {
    struct stat st;
    if (stat(source, &st) != 0 || !S_ISDIR(st.st_mode)) {
        return;
    }
    if ((stat(destination, &st) != 0 || !S_ISDIR(st.st_mode)) && !CreateFolderTree(destination)) {
        return;
    }
    ForEachEntry(source, [&](char const* entry) {
        char name[kLPathSize];
        char target[kLPathSize];
        _GetFileFromPath(name, entry);
        if (!JoinEntry(target, destination, name)) {
            return;
        }
        // Links are copied as links, so a link to a folder is not a folder here.
        struct stat est;
        if (lstat(entry, &est) == 0 && S_ISDIR(est.st_mode)) {
            mkdir(target, 0777);
            CopyFolderFiles(entry, target);
        } else {
            CopyFile(entry, target);
        }
    });
}

// ---- Deleting ------------------------------------------------------------------------------

bool LFile::DeleteFolderTree(char const* path) {
    if (path == nullptr || path[0] == 0) {
        return false;
    }
    DeleteContents(path, false, [](char const* sub) { DeleteFolderTree(sub); });
    return RemoveFolder(path);
}

bool LFile::DeleteFolderTree(char const* path, unsigned int waitMs) {
    if (path == nullptr || path[0] == 0) {
        return false;
    }
    DeleteContents(path, false, [waitMs](char const* sub) { DeleteFolderTree(sub, waitMs); });
    if (RemoveFolder(path)) {
        return true;
    }
    // A busy folder (a mount point, a folder some other program holds) is given up to about
    // waitMs: sleeps of step, 2 x step, ... while they fit in what is left.
    unsigned long long step = (static_cast<unsigned long long>(waitMs) + 127) / 128;
    unsigned long long left = waitMs;
    for (;;) {
        if (left <= step || errno != EBUSY) {
            return false;
        }
        left -= step;
        _gLFilePause(static_cast<unsigned int>(step));
        step *= 2;
        if (RemoveFolder(path)) {
            return true;
        }
    }
}

bool LFile::DeleteFolderTreeAlways(char const* path) {
    if (path == nullptr || path[0] == 0) {
        return false;
    }
    DeleteContents(path, true, [](char const* sub) { DeleteFolderTreeAlways(sub); });
    return RemoveFolder(path);
}

bool LFile::DeleteFolderAndFiles(char const* path) {
    if (path == nullptr) {
        return false;
    }
    ForEachEntry(path, [](char const* entry) {
        struct stat st;
        if (lstat(entry, &st) == 0 && !S_ISDIR(st.st_mode)) {
            unlink(entry);
        }
    });
    return RemoveFolder(path);
}

void LFile::DeleteOldFiles(char const* folder, char const* pattern, int days) {
    if (days < 1) {
        return;
    }
    // The age is formed in 32 bits: beyond 24855 days it wraps, as it always has.
    auto const age = static_cast<int32_t>(static_cast<uint32_t>(days) * 86400u);
    long long const cutoff = static_cast<long long>(time(nullptr)) - age;
    FolderIterator walk;
    if (!walk.Open(folder, pattern)) {
        return;
    }
    do {
        char path[kLPathSize];
        long long born = 0;
        if (JoinEntry(path, walk.GetFolder(), walk.GetFileName()) &&
            (!_LGetBirthTime(path, &born) || born < cutoff)) {
            unlink(path);
        }
    } while (walk.Next());
}

int LFile::DeleteFolderContents(LProcessInterface& process, char const* folder, long ageSeconds) {
    if (folder == nullptr || folder[0] == 0 || !TestFolderExists(folder)) {
        return 2;
    }
    process.SetStatus("Please wait...", 0);
    if (process.IsToStop()) {
        return 1;
    }
    size_t const count = CountEntries(folder);
    long long const cutoff = static_cast<long long>(time(nullptr)) - ageSeconds;
    if (count == 0) {
        return 0;
    }
    double const step = 1.0 / static_cast<double>(count);
    double done = 0;
    int result = 0;
    FolderIteratorAllFiles walk;
    if (!walk.Open(folder, "*")) {
        return 0;
    }
    do {
        char path[kLPathSize];
        if (IsDotOrDotDot(walk.GetFileName()) ||
            !JoinEntry(path, walk.GetFolder(), walk.GetFileName())) {
            continue;
        }
        if (process.IsToStop()) {
            result = 1;
            break;
        }
        struct stat st;
        bool const readable = stat(path, &st) == 0;
        if (readable && S_ISDIR(st.st_mode)) {
            LProcessInterfaceSubProcess sub(&process, done, step);
            if (DeleteFolderTree(sub, path, ageSeconds) == 1) {
                result = 1;
                break;
            }
        } else if ((readable ? static_cast<long long>(st.st_mtime) : 0) <= cutoff) {
            _LClearFileFlags(path);
            unlink(path);
        }
        done += step;
        process.SetProgress(done);
    } while (walk.Next());
    return result;
}

int LFile::DeleteFolderTree(LProcessInterface& process, char const* path, long ageSeconds) {
    int const result = DeleteFolderContents(process, path, ageSeconds);
    if (result != 0) {
        return result;
    }
    return RemoveFolder(path) ? 0 : 2;
}

// ---- Permissions and identity --------------------------------------------------------------

void LFile::SetFolderSecurityAllAccess(char const* path) {
    if (path == nullptr) {
        return;
    }
    chmod(path, 0777);
    if (!IsDirectoryFollowingLinks(path)) {
        return;
    }
    ForEachEntry(path, [](char const* entry) {
        // Links are left alone: changing a link's mode would change whatever it points at,
        // which may lie outside the tree.
        struct stat st;
        if (lstat(entry, &st) == 0 && !S_ISLNK(st.st_mode)) {
            SetFolderSecurityAllAccess(entry);
        }
    });
}

bool LFile::IsSubFolder(char const* folder, char const* candidate) {
    struct stat target;
    if (folder == nullptr || candidate == nullptr || stat(folder, &target) != 0) {
        return false;
    }
    auto same = [](struct stat const& a, struct stat const& b) {
        return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
    };
    char base[kLPathSize];
    _GetBaseFolderFromPath(base, candidate);
    struct stat top;
    bool const haveTop = stat(base, &top) == 0;

    char level[kLPathSize];
    _LCopyCut(level, candidate, kLPathSize);
    while (level[0] != 0) {
        struct stat st;
        if (stat(level, &st) == 0) {
            if (same(st, target)) {
                return true;
            }
            if (haveTop && same(st, top)) {
                return false;
            }
        }
        char parent[kLPathSize];
        _GetFolderFromPath(parent, level);
        if (strcmp(parent, level) == 0) {
            return false;  // "/" is its own parent
        }
        memcpy(level, parent, sizeof(level));
    }
    return false;
}

// ---- The folder copy job -------------------------------------------------------------------

int Process(LProcessInterface& process, LProcessCopyFolder const& job) {
    if (!LFile::TestFolderExists(job.source)) {
        return 2;
    }
    size_t const count = CountEntries(job.source);
    if (count == 0) {
        return 0;
    }
    double const step = 1.0 / static_cast<double>(count);
    LFile::FolderIteratorAllFiles walk;
    if (!walk.Open(job.source, "*")) {
        return 0;
    }
    do {
        char const* entry = walk.GetFileName();
        if (IsDotOrDotDot(entry)) {
            continue;
        }
        char from[kLPathSize];
        char to[kLPathSize];
        if (!JoinEntry(from, job.source, entry) || !JoinEntry(to, job.destination, entry)) {
            continue;
        }
        // Every entry's bar starts at 0: the overall bar restarts with each entry.
        LProcessInterfaceSubProcess sub(&process, 0, step);
        struct stat st;
        int result;
        if (stat(from, &st) == 0 && S_ISDIR(st.st_mode)) {
            LFile::CreateFolderTree(to);
            result = Process(sub, LProcessCopyFolder{from, to});
        } else {
            result = Process(sub, LProcessCopyFile{from, to});
        }
        if (result != 0) {
            return result;
        }
    } while (walk.Next());
    return 0;
}
