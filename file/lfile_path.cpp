// Path composition, splitting, relative and absolute forms, display forms and name
// validation: pure string work on 260-byte path buffers.
//
// Every writer here keeps one rule: at most 259 characters and a terminator land in the
// destination, whatever the input length. Sources may be longer than a path buffer (they are
// read only up to the documented caps), and several operations accept dst aliasing their
// source, so copies go through memmove. Several behaviours below look odd and are kept on
// purpose because callers and stored data depend on them; each is marked where it happens.
#include <cstdarg>
#include <cstring>
#include <string_view>

#include "file/lfile.h"
#include "file/lfile_platform.h"
#include "text/lstring.h"

namespace {

constexpr size_t kMaxChars = kLPathSize - 1;   // 259
constexpr size_t kFolderCap = kLPathSize - 2;  // 258: leaves room for the joining "/"

bool IsSep(char c) {
    return c == '/' || c == '\\';
}

char const* OrEmpty(char const* s) {
    return s ? s : "";
}

// Copies at most cap characters of src into dst and terminates; src and dst may overlap.
size_t CopyCut(char* dst, char const* src, size_t cap) {
    size_t n = strnlen(src, cap);
    if (dst != src) {
        memmove(dst, src, n);
    }
    dst[n] = 0;
    return n;
}

// Index of the last separator among the first len characters, or npos.
size_t LastSep(char const* s, size_t len) {
    for (size_t i = len; i > 0; --i) {
        if (IsSep(s[i - 1])) {
            return i - 1;
        }
    }
    return std::string_view::npos;
}

}  // namespace

// ---- Composition ---------------------------------------------------------------------------

void LFile::_MakeFilePath(char* dst, char const* folder, char const* name, char const* extension) {
    folder = OrEmpty(folder);
    size_t n = strnlen(folder, kFolderCap);
    if (dst != folder) {
        memmove(dst, folder, n);
    }
    if (n != 0 && !IsSep(dst[n - 1])) {
        dst[n++] = '/';
    }
    tplsnprintf(dst + n, kLPathSize - n, "%s%s", OrEmpty(name), OrEmpty(extension));
}

void LFile::MakeFilePathF(char* dst, char const* folder, char const* format, ...) {
    char name[kLPathSize];
    va_list args;
    va_start(args, format);
    tplvsnprintf(name, sizeof(name), format, args);
    va_end(args);
    _MakeFilePath(dst, folder, name, "");
}

void LFile::_MakeFilePathSecure(char* dst, char const* folder, char const* name,
                                char const* extension) {
    // Folder: whatever follows its last period, so "../" runs (and, deliberately, any
    // folder name holding a period) cannot survive; one separator behind the period goes.
    char safeFolder[kLPathSize];
    size_t folderLen = CopyCut(safeFolder, OrEmpty(folder), kFolderCap);
    char const* folderStart = safeFolder;
    for (size_t i = folderLen; i > 0; --i) {
        if (safeFolder[i - 1] == '.') {
            folderStart = safeFolder + i;
            if (IsSep(*folderStart)) {
                ++folderStart;
            }
            break;
        }
    }

    // Name: its last component only.
    char safeName[kLPathSize];
    size_t nameLen = CopyCut(safeName, OrEmpty(name), kFolderCap);
    size_t nameSep = LastSep(safeName, nameLen);
    char const* nameStart = nameSep == std::string_view::npos ? safeName : safeName + nameSep + 1;

    // Extension: from its last period, or behind a separator met first from the end.
    char safeExt[kLPathSize];
    size_t extLen = CopyCut(safeExt, OrEmpty(extension), kFolderCap);
    char const* extStart = safeExt;
    for (size_t i = extLen; i > 0; --i) {
        if (safeExt[i - 1] == '.') {
            extStart = safeExt + i - 1;
            break;
        }
        if (IsSep(safeExt[i - 1])) {
            extStart = safeExt + i;
            break;
        }
    }

    _MakeFilePath(dst, folderStart, nameStart, extStart);
}

void LFile::_ApplyNewFileExtension(char* dst, char const* path, char const* extension) {
    size_t len = CopyCut(dst, OrEmpty(path), kMaxChars);
    // The last period behind the last separator; a period opening the whole path is a
    // hidden name's first character, not an extension.
    size_t pos = len;
    for (size_t i = len; i > 0; --i) {
        char c = dst[i - 1];
        if (IsSep(c)) {
            break;
        }
        if (c == '.' && i - 1 != 0) {
            pos = i - 1;
            break;
        }
    }
    if (pos > kFolderCap) {
        return;
    }
    std::string_view ext(OrEmpty(extension));
    size_t room = kMaxChars - pos;
    size_t n = ext.size() < room ? ext.size() : room;
    memmove(dst + pos, ext.data(), n);
    dst[pos + n] = 0;
}

// ---- Splitting -----------------------------------------------------------------------------

size_t LFile::_GetFolderFromPath(char* dst, char const* path) {
    path = OrEmpty(path);
    size_t len = strnlen(path, kLPathSize);
    size_t sep = LastSep(path, len);
    if (sep == std::string_view::npos || sep == 0) {
        bool rooted = path[0] == '/';
        dst[0] = rooted ? '/' : 0;
        dst[rooted ? 1 : 0] = 0;
        return rooted ? 1 : 0;
    }
    // sep is at most 259, so the prefix fits.
    if (dst != path) {
        memmove(dst, path, sep);
    }
    dst[sep] = 0;
    return sep;
}

void LFile::_GetFileFromPath(char* dst, char const* path) {
    std::string_view p(OrEmpty(path));
    size_t sep = p.find_last_of("/\\");
    char const* file = sep == std::string_view::npos ? p.data() : p.data() + sep + 1;
    CopyCut(dst, file, kMaxChars);
}

void LFile::_GetFileExtensionFromPath(char* dst, char const* path) {
    std::string_view p(OrEmpty(path));
    size_t sep = p.find_last_of("/\\");
    std::string_view file = sep == std::string_view::npos ? p : p.substr(sep + 1);
    size_t dot = file.rfind('.');
    if (dot == std::string_view::npos) {
        dst[0] = 0;
        return;
    }
    CopyCut(dst, file.data() + dot, kMaxChars);
}

size_t LFile::_GetFileNameFromPath(char* dst, char const* path) {
    _GetFileFromPath(dst, path);
    char* dot = strrchr(dst, '.');
    if (dot == nullptr || dot == dst) {
        return 0;
    }
    *dot = 0;
    return static_cast<size_t>(dot - dst);
}

void LFile::_GetBaseFolderFromPath(char* dst, char const* path) {
    path = OrEmpty(path);
    size_t len = strnlen(path, kMaxChars);
    for (size_t i = 2; i < len; ++i) {
        if (IsSep(path[i])) {
            CopyCut(dst, path, i);
            return;
        }
    }
    len = CopyCut(dst, path, kMaxChars);
    if (len > 1 && IsSep(dst[len - 1])) {
        dst[len - 1] = 0;
    }
}

// ---- Relative and absolute forms -----------------------------------------------------------

void LFile::MakeAbsoluteFilePath(char* dst, char const* baseFolder, char const* path,
                                 char const* extension) {
    path = OrEmpty(path);
    std::string_view p(path);
    size_t firstSep = p.find_first_of("/\\");
    if (firstSep == 0 || p.substr(0, firstSep).find(':') != std::string_view::npos) {
        _MakeFilePath(dst, "", path, extension);
        return;
    }
    if (path[0] != '.') {
        _MakeFilePath(dst, baseFolder, path, extension);
        return;
    }

    char base[kLPathSize];
    CopyCut(base, OrEmpty(baseFolder), kMaxChars);
    char const* rest = path;
    while (rest[0] == '.') {
        if (IsSep(rest[1])) {
            rest += 2;
            continue;
        }
        if (rest[1] != '.' || !IsSep(rest[2])) {
            break;
        }
        size_t len = strlen(base);
        if (len < 2) {
            break;  // nothing left to climb: the remaining steps are joined as they are
        }
        // The scan starts at the third-to-last character, so that a base ending with a
        // separator ("/a/b/") loses exactly its last component. A base without one whose
        // last component is a single character loses that one and the one before: kept.
        for (size_t i = len - 2; i > 0; --i) {
            if (IsSep(base[i - 1])) {
                base[i - 1] = 0;
                break;
            }
        }
        rest += 3;
    }
    _MakeFilePath(dst, base, rest, extension);
}

bool LFile::GetRelativePathFromAbsolutePath(char* dst, char const* baseFolder, char const* path) {
    dst[0] = 0;
    char const* b = OrEmpty(baseFolder);
    char const* p = OrEmpty(path);
    size_t i = 0;
    for (; b[i] != 0; ++i) {
        if (IsSep(b[i])) {
            if (p[i] == 0) {
                // "/a/b/" against "/a/b": the path is the base itself.
                return b[i + 1] == 0;
            }
            if (!IsSep(p[i])) {
                return false;
            }
        } else if (b[i] != p[i]) {
            return false;
        }
    }
    if (p[i] == 0) {
        return true;
    }
    if (IsSep(p[i])) {
        CopyCut(dst, p + i + 1, kMaxChars);
        return true;
    }
    if (i > 0 && IsSep(b[i - 1])) {
        CopyCut(dst, p + i, kMaxChars);
        return true;
    }
    return false;
}

namespace {

// Shared by the two relative builders, which see only "/" as a separator. wholeComponents
// makes the common part end after the last "/" both strings agreed on; otherwise it is the
// plain run of equal characters (a shared prefix of two different names counts as common:
// kept that way on purpose).
void MakeRelative(char* dst, char const* fromFolder, char const* toPath, bool wholeComponents) {
    char from[kLPathSize];
    size_t fromLen = CopyCut(from, OrEmpty(fromFolder), kMaxChars);
    if ((fromLen == 0 || from[fromLen - 1] != '/') && fromLen < kMaxChars) {
        from[fromLen++] = '/';
        from[fromLen] = 0;
    }
    char const* to = OrEmpty(toPath);

    size_t common = 0;
    size_t boundary = 0;
    while (from[common] != 0 && from[common] == to[common]) {
        if (from[common] == '/') {
            boundary = common + 1;
        }
        ++common;
    }
    if (wholeComponents) {
        common = boundary;
    }

    size_t n = 0;
    auto put = [&](char c) {
        if (n < kMaxChars) {
            dst[n++] = c;
        }
    };
    for (char const* f = from + common; *f != 0; ++f) {
        if (*f == '/') {
            put('.');
            put('.');
            put('/');
            if (f[1] == 0) {
                break;
            }
        }
    }
    char const* rest = to + common;
    if (*rest == '/') {
        ++rest;
    }
    for (; *rest != 0; ++rest) {
        put(*rest);
    }
    dst[n] = 0;
}

}  // namespace

bool LFile::MakeRelativeFolder(char* dst, char const* fromFolder, char const* toPath) {
    MakeRelative(dst, fromFolder, toPath, false);
    return true;
}

bool LFile::MakeRelativeFilePath(char* dst, char const* fromFolder, char const* toPath) {
    MakeRelative(dst, fromFolder, toPath, true);
    return true;
}

// ---- Display and cleaning ------------------------------------------------------------------

void LFile::CompactFilePath(char* dst, char const* path, size_t size) {
    path = OrEmpty(path);
    size_t len = strlen(path);
    if (len < size) {
        memmove(dst, path, len + 1);
        return;
    }
    if (size < 5) {
        if (size == 0) {
            return;
        }
        size_t n = size - 1 < 3 ? size - 1 : 3;
        memcpy(dst, "...", n);
        dst[n] = 0;
        return;
    }
    size_t tail = (size - 4) / 2;
    size_t head = tail + size % 2;
    memmove(dst, path, head);
    memcpy(dst + head, "...", 3);
    memmove(dst + head + 3, path + len - tail, tail);
    dst[head + 3 + tail] = 0;
}

size_t LFile::EscapeFilePath(char const* path, char* dst) {
    size_t n = 0;
    for (char const* p = OrEmpty(path); *p != 0 && n < kMaxChars; ++p) {
        if (*p == '`' || *p == '"') {
            // An escape that no longer fits drops the character; later plain characters
            // may still be copied into the last free place.
            if (n + 2 <= kMaxChars) {
                dst[n++] = '\\';
                dst[n++] = *p;
            }
        } else {
            dst[n++] = *p;
        }
    }
    dst[n] = 0;
    return n;
}

bool LFile::PreprocessName(char const* name, char* dst) {
    size_t n = 0;
    for (char const* p = OrEmpty(name); *p != 0 && n < kMaxChars; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (c < 0x20 || c == ':' || c == '\\' || c == '/' || (c == '.' && n == 0)) {
            continue;
        }
        dst[n++] = *p;
    }
    dst[n] = 0;
    return n != 0;
}

bool LFileIsLetterOrNumber(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// ---- Validation ----------------------------------------------------------------------------

namespace {

// Indexed by code - 1. Codes 3 and 7 are never produced on this platform but keep their
// messages and places, for platforms with those rules.
constexpr char const* kFileMessages[7] = {
    "File name is blank. Please provide a file name.",
    "File name may not be more than 260 characters long",
    "File name may not end with a space or period",
    "File name may not start with a period",
    "File name may not contain control characters",
    "File name may not contain characters : / \\",
    "File name is reserved for use by the operating system",
};

void SetMessage(char* message, char const* text) {
    if (message != nullptr) {
        CopyCut(message, text, kMaxChars);
    }
}

}  // namespace

int LFileOrFolderNameValidate(char const* name) {
    name = OrEmpty(name);
    if (name[0] == 0) {
        return 1;
    }
    if (strnlen(name, kLPathSize) > kMaxChars) {
        return 2;
    }
    if (name[0] == '.') {
        return 4;
    }
    for (char const* p = name; *p != 0; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (c < 0x20) {
            return 5;
        }
        if (c == ':' || c == '\\' || c == '/') {
            return 6;
        }
    }
    if (LFileNameIsReserved(name)) {
        return 7;
    }
    return 0;
}

bool LFileNameIsReserved(char const*) {
    return false;
}

char const* LFile::_GetFileNameMessage(int code) {
    if (code >= 1 && code <= 7) {
        return kFileMessages[code - 1];
    }
    return "Invalid file name";
}

void LFile::_GetFolderNameMessage(char* dst, int code, char const* component) {
    switch (code) {
        case 1:
            CopyCut(dst, "Folder name must not be empty", kMaxChars);
            break;
        case 3:
            CopyCut(dst, "Folder name must not end with a space or period", kMaxChars);
            break;
        case 4:
            CopyCut(dst, "Folder name must not start with a period", kMaxChars);
            break;
        case 5:
            CopyCut(dst, "Folder name must not contain control characters", kMaxChars);
            break;
        case 6:
            CopyCut(dst, "Folder component must not contain character :", kMaxChars);
            break;
        case 7:
            tplsnprintf(dst, kLPathSize, "'%s' is reserved for use by the operating system",
                        OrEmpty(component));
            break;
        default:
            CopyCut(dst, "Invalid folder", kMaxChars);
            break;
    }
}

bool LFile::IsFileValid(char const* name, char* message) {
    SetMessage(message, "");
    int code = LFileOrFolderNameValidate(name);
    if (code == 0) {
        return true;
    }
    SetMessage(message, _GetFileNameMessage(code));
    return false;
}

bool LFile::IsFolderValid(char const* folder, char* message) {
    SetMessage(message, "");
    folder = OrEmpty(folder);
    if (folder[0] == 0) {
        SetMessage(message, "Folder must not be empty");
        return false;
    }
    if (strnlen(folder, kLPathSize) >= kLPathSize) {
        SetMessage(message, "Folder must be less than 260 character long");
        return false;
    }
    if (folder[0] != '/') {
        SetMessage(message, "Folder must begin with /");
        return false;
    }
    // Each component between separators must be a valid name; an empty one ("//") fails
    // as an empty name, while the end of the text right after a separator ends the walk.
    char const* p = folder + 1;
    while (*p != 0) {
        size_t len = 0;
        while (p[len] != 0 && !IsSep(p[len])) {
            ++len;
        }
        char component[kLPathSize];
        memcpy(component, p, len);
        component[len] = 0;
        int code = LFileOrFolderNameValidate(component);
        if (code != 0) {
            if (message != nullptr) {
                _GetFolderNameMessage(message, code, component);
            }
            return false;
        }
        p += len;
        if (*p != 0) {
            ++p;
        }
    }
    return true;
}

// ---- Names and types -----------------------------------------------------------------------

char const* LFile::GetMimeTypeFromFileExtension(char const* extension) {
    struct Entry {
        char const* extension;
        char const* type;
    };
    // ".jpg" and ".jpeg" deliberately give different types.
    static constexpr Entry kTypes[] = {
        {".txt", "text/plain"},    {".pdf", "application/pdf"}, {".jpeg", "image/jpeg"},
        {".jpg", "image/jpg"},     {".bmp", "image/bmp"},       {".gif", "image/gif"},
        {".png", "image/png"},     {".mid", "audio/mid"},       {".mp3", "audio/mpeg"},
        {".wav", "audio/vnd.wav"}, {".mp4", "video/mp4"},
    };
    if (extension != nullptr) {
        for (Entry const& e : kTypes) {
            if (strcasecmp(extension, e.extension) == 0) {
                return e.type;
            }
        }
    }
    return "application/octet-stream";
}

bool LIsFileExtensionInList(char const* const* list, char const* extension) {
    if (list == nullptr || extension == nullptr) {
        return false;
    }
    for (; *list != nullptr; ++list) {
        if (strcasecmp(*list, extension) == 0) {
            return true;
        }
    }
    return false;
}

int tstrcmpend(char const* text, char const* ending) {
    size_t textLen = strlen(text);
    size_t endLen = strlen(ending);
    if (endLen > textLen) {
        return -1;
    }
    return strcmp(text + textLen - endLen, ending);
}

char* LFile::MakeUniqueOrderedFilePath(char* dst, char const* folder, char const* name,
                                       char const* extension) {
    _MakeFilePath(dst, folder, name, extension);
    for (unsigned int counter = 0; TestFileExists(dst); ++counter) {
        char numbered[kLPathSize];
        tplsnprintf(numbered, sizeof(numbered), "%s_%u", OrEmpty(name),
                    static_cast<unsigned long long>(counter));
        _MakeFilePath(dst, folder, numbered, extension);
    }
    return dst;
}

void LFile::GetHumanReadableDriveFromPath(char* dst, char const* path) {
    path = OrEmpty(path);
    if (_LGetMountPointOfPath(path, dst)) {
        return;
    }
    // No mount answers for the path (it does not exist yet, or names another
    // system's drive): answer from the text itself.
    size_t run = 0;
    while (LFileIsLetterOrNumber(path[run])) {
        ++run;
    }
    if (run != 0 && path[run] == ':' && path[run + 1] == '\\' && run + 2 <= kMaxChars) {
        memcpy(dst, path, run + 2);
        dst[run + 2] = 0;
    } else if (path[0] == '/') {
        CopyCut(dst, "/", kMaxChars);
    } else {
        dst[0] = 0;
    }
}
