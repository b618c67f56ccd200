// The user's standard folders, the program's data folders, the bundle and the trash test.
//
// Each standard folder has a kind (answered by the platform folder search) and a fallback
// under the home folder that is used, and created, when the search has no answer. Program
// folders hang below the application-support folder under fixed names: the data folder
// name does not depend on any caller's argument. Failed creations are ignored throughout;
// the path is answered either way.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>
#include <string_view>

#include "file/lfile.h"
#include "file/lfile_platform.h"
#include "file/lknown_folders.h"
#include "text/lstring.h"

namespace {

constexpr char const* kProgramDataFolder = "KavelPLVadHelper";
constexpr char const* kSharedFolder = "Shared";
constexpr char const* kCompanyFolder = "Tessaly Software";

// Creates path and any missing folders above it, each with mode 0777. A fallback such as
// "Library/Caches" must come into being under a home that has never held "Library".
void CreateFolderWithParents(char const* path) {
    if (LFile::TestFolderExists(path)) {
        return;
    }
    char parent[kLPathSize];
    if (LFile::_GetFolderFromPath(parent, path) != 0 && strcmp(parent, path) != 0) {
        CreateFolderWithParents(parent);
    }
    mkdir(path, 0777);
}

void CreateOpenFolder(char const* path) {
    if (!LFile::TestFolderExists(path)) {
        mkdir(path, 0777);
        LFile::SetFolderSecurityAllAccess(path);
    }
}

}  // namespace

void GetUserSpecialFolder(char* dst, unsigned int kind, char const* fallback) {
    // The search answers with absolute paths only ("$HOME" already put in), so there is no
    // tilde left to expand.
    if (_LSearchUserFolder(kind, dst)) {
        return;
    }
    // Without a home folder no fallback applies: the answer stays empty rather than a
    // relative path that would be created in the working directory.
    char home[kLPathSize];
    if (!_LGetHomeFolder(home)) {
        return;
    }
    LFile::_MakeFilePath(dst, home, fallback, "");
    CreateFolderWithParents(dst);
}

// ---- Standard folders ----------------------------------------------------------------------

void LFile::GetUserFolder(char* dst) {
    _LGetHomeFolder(dst);
}

void LFile::GetUserLibraryFolder(char* dst) {
    GetUserSpecialFolder(dst, kLFolderLibrary, "Library");
}

void LFile::GetTempFolder(char* dst) {
    GetUserSpecialFolder(dst, kLFolderCaches, "Library/Caches");
    if (dst[0] != 0) {
        CreateFolderWithParents(dst);
    }
}

void LFile::GetUserDataFolder(char* dst) {
    GetUserSpecialFolder(dst, kLFolderApplicationSupport, "Library/Application Support");
}

// There is no machine-wide data folder apart from the user's here.
void LFile::GetSharedDataFolder(char* dst) {
    GetUserDataFolder(dst);
}

void LFile::GetUserMusicFolder(char* dst) {
    GetUserSpecialFolder(dst, kLFolderMusic, "Music");
}

void LFile::GetUserVideoFolder(char* dst) {
    GetUserSpecialFolder(dst, kLFolderMovies, "Movies");
}

void LFile::GetUserPicturesFolder(char* dst) {
    GetUserSpecialFolder(dst, kLFolderPictures, "Pictures");
}

void LFile::GetUserApplicationsFolder(char* dst) {
    GetUserSpecialFolder(dst, kLFolderApplications, "Applications");
}

void LFile::GetUserDocumentsFolder(char* dst) {
    GetUserSpecialFolder(dst, kLFolderDocuments, "Documents");
}

void LFile::GetUserDesktopFolder(char* dst) {
    GetUserSpecialFolder(dst, kLFolderDesktop, "Desktop");
}

void LFile::GetUserDownloadFolder(char* dst) {
    GetUserSpecialFolder(dst, kLFolderDownloads, "Downloads");
}

// The local domain has no applications folder of its own here, so the search finds none and
// the fixed answer stands.
void LFile::GetApplicationsFolder(char* dst) {
    strcpy(dst, "/Applications");
}

// The fixed place the system's own data names for mounted volumes; kept as it is on every
// platform so that stored paths stay comparable.
void LFile::GetMountedDrivesFolder(char* dst) {
    strcpy(dst, "/Volumes");
}

void LFile::GetHelpFolder(char* dst) {
    char bundle[kLPathSize];
    LGetBundleFolder(bundle, sizeof(bundle));
    tplsnprintf(dst, kLPathSize, "%s/Contents/Resources/help", bundle);
}

// ---- Outside any sandbox: the account's own home -------------------------------------------

void LFile::GetUserFolderNonSandboxed(char* dst) {
    _LGetAccountHomeFolder(dst);
}

namespace {

void AccountHomeSubFolder(char* dst, char const* name) {
    char home[kLPathSize];
    _LGetAccountHomeFolder(home);
    LFile::_MakeFilePath(dst, home, name, "");
}

}  // namespace

void LFile::GetUserDownloadFolderNonSandboxed(char* dst) {
    AccountHomeSubFolder(dst, "Downloads");
}

void LFile::GetUserVideoFolderNonSandboxed(char* dst) {
    AccountHomeSubFolder(dst, "Movies");
}

void LFile::GetUserMusicFolderNonSandboxed(char* dst) {
    AccountHomeSubFolder(dst, "Music");
}

void LFile::GetUserPicturesFolderNonSandboxed(char* dst) {
    AccountHomeSubFolder(dst, "Pictures");
}

// ---- Program folders -----------------------------------------------------------------------

namespace {

// dst := folder joined with name; "" when the folder is unknown, so that nothing is ever
// created relative to the working directory.
bool JoinUnder(char* dst, char const* folder, char const* name) {
    if (folder[0] == 0) {
        dst[0] = 0;
        return false;
    }
    LFile::_MakeFilePath(dst, folder, name, "");
    return true;
}

}  // namespace

void LFile::GetUserDataFolderApp(char* dst) {
    char support[kLPathSize];
    GetUserDataFolder(support);
    if (JoinUnder(dst, support, kProgramDataFolder)) {
        mkdir(dst, 0777);
    }
}

void LFile::GetUserDataFolderApp(char* dst, char const*) {
    GetUserDataFolderApp(dst);
}

void LFile::GetUserDataFolderAppSubFolder(char const* name, char* dst) {
    char app[kLPathSize];
    GetUserDataFolderApp(app);
    if (JoinUnder(dst, app, name)) {
        mkdir(dst, 0777);
    }
}

void LFile::GetSharedDataFolderApp(char* dst) {
    char app[kLPathSize];
    GetUserDataFolderApp(app);
    JoinUnder(dst, app, kSharedFolder);
}

void LFile::GetSharedDataFolderAppSubFolder(char const* name, char* dst) {
    char shared[kLPathSize];
    GetSharedDataFolderApp(shared);
    if (JoinUnder(dst, shared, name)) {
        CreateOpenFolder(dst);
    }
}

void LFile::GetSharedDataFolderAppNoWarn(char* dst) {
    char support[kLPathSize];
    GetSharedDataFolder(support);
    char company[kLPathSize];
    if (!JoinUnder(company, support, kCompanyFolder)) {
        dst[0] = 0;
        return;
    }
    CreateOpenFolder(company);
    _MakeFilePath(dst, company, kProgramDataFolder, "");
    CreateOpenFolder(dst);
}

void LGetBundleFolder(char* dst, size_t size) {
    if (size == 0) {
        return;
    }
    char exe[PATH_MAX];
    LGetBundleExeFile(exe, sizeof(exe));
    std::string_view folder(exe);
    size_t slash = folder.rfind('/');
    folder = slash == std::string_view::npos ? std::string_view() : folder.substr(0, slash);
    // An executable inside a bundle's Contents/MacOS answers for the bundle around it.
    constexpr std::string_view kBundleExeFolder = "/Contents/MacOS";
    if (folder.size() > kBundleExeFolder.size() &&
        folder.substr(folder.size() - kBundleExeFolder.size()) == kBundleExeFolder) {
        folder.remove_suffix(kBundleExeFolder.size());
    }
    _LCopyCut(dst, folder, size);
}

void LFile::GetProgramFolderApp(char* dst) {
    LGetBundleFolder(dst, kLPathSize);
}

void LFile::GetProgramExecutablePath(char* dst) {
    LGetBundleExeFile(dst, kLPathSize);
}

// ---- Trash and permissions -----------------------------------------------------------------

bool LFile::IsRecycleBinEmpty() {
    char trash[kLPathSize];
    if (!_LGetTrashFolder(trash)) {
        return true;
    }
    DIR* dir = opendir(trash);
    if (dir == nullptr) {
        return true;
    }
    bool empty = true;
    while (dirent* entry = readdir(dir)) {
        char const* name = entry->d_name;
        // Folder metadata left by other systems does not make the bin full.
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0 ||
            strcasecmp(name, ".DS_Store") == 0) {
            continue;
        }
        empty = false;
        break;
    }
    closedir(dir);
    return empty;
}
