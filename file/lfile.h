// LFile: the library's static file utilities, and the free functions beside them.
//
// Every path that passes through here is a caller-owned, NUL-terminated byte string in a
// buffer of kLPathSize (260) bytes: an operation that writes a path writes at most 259
// characters and the terminator, and cuts longer input instead of failing. Both "/" and "\"
// are separators when a path is split (paths may arrive in either form); "/" is the one
// inserted when a path is built. Extensions carry their leading period (".wav").
//
// This header holds the path operations (composition, splitting, relative and absolute
// forms, display forms, name validation, MIME types, existence tests, error predicates, the
// current directory), the folder-tree operations, and the special-folder and volume queries.
// The folder walks are defined in lfile_folder.h, streams and text files in lfile_stream.h and
// lfile_text.h; bookmarks join the class in their own files.
#pragma once

#include <cstddef>

class LProcessInterface;

// Size of every path, name and message buffer handed to LFile: 259 characters and the NUL.
inline constexpr size_t kLPathSize = 260;

class LFile {
public:
    LFile() = delete;

    // ---- Composition -------------------------------------------------------------------

    // dst := folder (first 258 characters; not copied when dst is folder), a "/" when the
    // folder is not empty and does not end with a separator, then name and extension, cut
    // to the 260-byte buffer. An empty folder gives name plus extension alone. Null pieces
    // count as empty.
    static void _MakeFilePath(char* dst, char const* folder, char const* name,
                              char const* extension);
    // Formats the name with the library's printf conventions (260 bytes), then joins it to
    // the folder with no extension.
    static void MakeFilePathF(char* dst, char const* folder, char const* format, ...);
    // Composes like _MakeFilePath after neutralising each piece so that none can climb out
    // of the folder or redirect it: the folder keeps only what follows its last period, the
    // name only what follows its last separator, the extension starts at its last period
    // (or behind its last separator).
    static void _MakeFilePathSecure(char* dst, char const* folder, char const* name,
                                    char const* extension);
    // dst := path with its extension (the last period of the last component, not a period
    // at position 0 of the path) replaced by extension, or extension appended.
    static void _ApplyNewFileExtension(char* dst, char const* path, char const* extension);

    // ---- Splitting ---------------------------------------------------------------------

    // Everything before the last separator; "/" or "" when there is none before position 1.
    // Returns the length written.
    static size_t _GetFolderFromPath(char* dst, char const* path);
    // Everything after the last separator.
    static void _GetFileFromPath(char* dst, char const* path);
    // The last component's extension from its last period, period included; "" if none.
    static void _GetFileExtensionFromPath(char* dst, char const* path);
    // The last component without its extension; returns the period's position in the
    // component, 0 when nothing was cut.
    static size_t _GetFileNameFromPath(char* dst, char const* path);
    // The top-level folder: up to the first separator at position 2 or later.
    static void _GetBaseFolderFromPath(char* dst, char const* path);

    // ---- Relative and absolute forms ---------------------------------------------------

    // Resolves path against baseFolder, consuming leading "./" and "../" steps.
    static void MakeAbsoluteFilePath(char* dst, char const* baseFolder, char const* path,
                                     char const* extension);
    // True when path lies inside baseFolder; dst then holds the rest behind the base.
    static bool GetRelativePathFromAbsolutePath(char* dst, char const* baseFolder,
                                                char const* path);
    // "../" steps from fromFolder to toPath; the common part is a run of equal characters.
    static bool MakeRelativeFolder(char* dst, char const* fromFolder, char const* toPath);
    // As MakeRelativeFolder, but the common part ends at a shared component boundary.
    static bool MakeRelativeFilePath(char* dst, char const* fromFolder, char const* toPath);

    // ---- Display and cleaning ----------------------------------------------------------

    // Shortens path to size - 1 characters with "..." in the middle (dst holds size bytes).
    static void CompactFilePath(char* dst, char const* path, size_t size);
    // Copies path with "\" before every "`" and every '"'; returns the length written.
    static size_t EscapeFilePath(char const* path, char* dst);
    // Turns user text into a file name; true when the result is not empty.
    static bool PreprocessName(char const* name, char* dst);
    // The mount point of the volume holding path, or a drive form of the path itself.
    static void GetHumanReadableDriveFromPath(char* dst, char const* path);

    // ---- Validation --------------------------------------------------------------------

    // True when name is a valid file name; otherwise message (260 bytes, may be null) gets
    // the reason.
    static bool IsFileValid(char const* name, char* message);
    // True when folder is a valid absolute folder path; otherwise message (260 bytes, may
    // be null) gets the reason.
    static bool IsFolderValid(char const* folder, char* message);
    // The file message of a validation code (never null; "Invalid file name" for unknown).
    static char const* _GetFileNameMessage(int code);
    // The folder message of a validation code for one component, into dst (260 bytes).
    static void _GetFolderNameMessage(char* dst, int code, char const* component);

    // ---- Names and types ---------------------------------------------------------------

    // The MIME type of an extension (case ignored); "application/octet-stream" if unknown.
    static char const* GetMimeTypeFromFileExtension(char const* extension);
    // dst := folder/name+extension, or the first of name_0, name_1, ... that does not exist.
    static char* MakeUniqueOrderedFilePath(char* dst, char const* folder, char const* name,
                                           char const* extension);

    // ---- Sandbox -----------------------------------------------------------------------

    // True when the path starts with the home folder (ignoring case).
    static bool IsPathInSandbox(char const* path);
    // The real path outside the home folder that the path leads to through a symbolic link
    // (or directly, when it exists); "" and false when it stays inside.
    static bool MakeNonSandboxedFilePath(char* dst, char const* path);

    // ---- Existence, sharing and errors -------------------------------------------------

    // True when the entry exists (of any kind) and can be reached.
    static bool TestFileExists(char const* path);
    // The same test; it does not check that the entry is a folder.
    static bool TestFolderExists(char const* path);
    // True only when an exclusive advisory lock on the file would block.
    static bool TestFileShareWriteBlocked(char const* path);
    static bool TestFileShareReadBlocked(char const* path);
    // Predicates on the calling thread's last system error (errno).
    static bool IsErrorFileNotFound();
    static bool IsErrorAlreadyExists();
    static bool IsErrorPermissionDenied();
    static bool IsErrorSharingViolation();

    // ---- Current directory -------------------------------------------------------------

    // Reads the working directory into dst (260 bytes); null on failure.
    static char* GetCurrentDirectory(char* dst);
    // Changes the working directory; the system result (0 on success).
    static int SetCurrentDirectory(char const* path);

    // ---- Standard folders (all write 260-byte paths) -----------------------------------

    static void GetUserFolder(char* dst);
    static void GetUserLibraryFolder(char* dst);
    // The caches folder; created when missing.
    static void GetTempFolder(char* dst);
    static void GetUserDataFolder(char* dst);
    static void GetSharedDataFolder(char* dst);
    static void GetUserMusicFolder(char* dst);
    static void GetUserVideoFolder(char* dst);
    static void GetUserPicturesFolder(char* dst);
    static void GetUserApplicationsFolder(char* dst);
    static void GetUserDocumentsFolder(char* dst);
    static void GetUserDesktopFolder(char* dst);
    static void GetUserDownloadFolder(char* dst);
    static void GetApplicationsFolder(char* dst);
    static void GetMountedDrivesFolder(char* dst);
    static void GetHelpFolder(char* dst);

    // The account's home folder from the user database, and folders under it.
    static void GetUserFolderNonSandboxed(char* dst);
    static void GetUserDownloadFolderNonSandboxed(char* dst);
    static void GetUserVideoFolderNonSandboxed(char* dst);
    static void GetUserMusicFolderNonSandboxed(char* dst);
    static void GetUserPicturesFolderNonSandboxed(char* dst);

    // ---- Program folders ---------------------------------------------------------------

    // The application-support folder joined with "KavelPLVadHelper", created when missing.
    static void GetUserDataFolderApp(char* dst);
    // The same folder: the data folder name is fixed and name is ignored.
    static void GetUserDataFolderApp(char* dst, char const* name);
    static void GetUserDataFolderAppSubFolder(char const* name, char* dst);
    // The "Shared" subfolder of the program's data folder.
    static void GetSharedDataFolderApp(char* dst);
    static void GetSharedDataFolderAppSubFolder(char const* name, char* dst);
    // Application support / "Tessaly Software" / "KavelPLVadHelper", each level created and
    // opened to everybody when missing.
    static void GetSharedDataFolderAppNoWarn(char* dst);
    static void GetProgramFolderApp(char* dst);
    static void GetProgramExecutablePath(char* dst);

    // ---- Volumes -----------------------------------------------------------------------

    static bool IsNetworkPath(char const* path);
    static bool IsOnLocalDrive(char const* path);
    static bool IsOnExternalDrive(char const* path);
    static bool IsOnRemovableMedia(char const* path);
    // True when the entry carries the immutable flag.
    static bool TestFileLocked(char const* path);
    static int GetNumberOfWritableDrives();
    static bool IsRecycleBinEmpty();
    // 0 smallest limit (FAT16 and older), 1 middle (FAT32, FAT16B), 2 none known.
    static int GetVolumeFileSizeLimit(char const* path);
    // The classification of GetVolumeFileSizeLimit for one file-system type name.
    static int _GetVolumeFileSizeLimitFromTypeName(char const* typeName);
    // "%llu TB", "%llu GB", "%llu MB", "%llu KB" or "%llu Bytes" into dst (260 bytes).
    static void GetSizeFormattedBytes(unsigned long long bytes, char* dst);

    // ---- Text files --------------------------------------------------------------------

    // Tags the file as UTF-8 text (the text-encoding extended attribute); the system call's
    // result, 0 or -1.
    static int SetFileAttributeTextEncodingUTF8(char const* path);

    // ---- Folder walks and trees (lfile_folder.h) -----------------------------------------

    class FolderIterator;
    class FolderIteratorAllFiles;

    // Wildcard match, case-sensitive: "?" is any one character, "*" any run, even empty.
    static bool IsMatch(char const* pattern, char const* name);

    // Creates the missing folders above path, then path itself (mode 0777). The result is
    // that of the last creation: an existing path gives false.
    static bool CreateFolderTree(char const* path);
    // Copies data (holes kept), extended attributes, mode and times; a symbolic link is copied
    // as a link, never followed on either side. A missing destination is created (the result
    // is then true whatever happened); an existing one is replaced by renaming a finished
    // copy over it, and the result says whether that succeeded.
    static bool CopyFile(char const* source, char const* destination);
    // Copies the folder's files and subfolders into destination (created when missing).
    static void CopyFolderFiles(char const* source, char const* destination);

    // Removes the folder and everything in it; the result is the removal of the folder itself.
    // Entries are told apart by their status following symbolic links.
    static bool DeleteFolderTree(char const* path);
    // The same, retrying the final removal while the folder is busy, for about waitMs ms.
    static bool DeleteFolderTree(char const* path, unsigned int waitMs);
    // As DeleteFolderTree, clearing each file's immutable and append-only flags first.
    static bool DeleteFolderTreeAlways(char const* path);
    // Removes the files directly inside the folder, then the folder (which stays, with false,
    // when it holds subfolders).
    static bool DeleteFolderAndFiles(char const* path);
    // Removes the entries matching pattern whose birth time is more than days days ago.
    static void DeleteOldFiles(char const* folder, char const* pattern, int days);
    // Removes the folder's files last modified at least ageSeconds ago, and whole subtrees the
    // same way, reporting through process: 0 done, 1 stopped, 2 no such folder.
    static int DeleteFolderContents(LProcessInterface& process, char const* folder,
                                    long ageSeconds);
    // DeleteFolderContents, then the folder itself: 2 when it could not be removed.
    static int DeleteFolderTree(LProcessInterface& process, char const* path, long ageSeconds);

    // Sets mode 0777 on path and, for a folder, on everything beneath it. Errors ignored.
    static void SetFolderSecurityAllAccess(char const* path);
    // True when candidate is folder or lies beneath it, by (device, inode) of each level.
    static bool IsSubFolder(char const* folder, char const* candidate);
};

// ASCII "0"-"9", "A"-"Z", "a"-"z".
bool LFileIsLetterOrNumber(char c);

// Name-validation codes: 0 valid, 1 empty, 2 longer than 259, 3 ends with a space or period
// (reserved: never produced here), 4 starts with a period, 5 control character, 6 ":", "/"
// or "\", 7 reserved name (reserved: never produced here).
int LFileOrFolderNameValidate(char const* name);
// No name is reserved on this platform.
bool LFileNameIsReserved(char const* name);

// True when an entry of the null-terminated list equals extension, ignoring case.
bool LIsFileExtensionInList(char const* const* list, char const* extension);

// -1 when ending is longer than text, else the comparison of text's tail with ending.
int tstrcmpend(char const* text, char const* ending);
