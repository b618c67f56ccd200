// Fuzzes the path builders and splitters of LFile, and the user-dirs.dirs and mount-table
// line readers, with arbitrary text. Every destination is an exact 260-byte heap block, so
// ASan reports any write past it; after each call the result must be terminated inside it.
//
// Besides termination, a few properties are checked against plain reference forms: the join
// of _MakeFilePath, the lengths the splitters and escapers report, the size of a compacted
// path, and that every name PreprocessName accepts also passes name validation.
//
// Input layout: byte 0 picks the CompactFilePath size; the rest is split at NUL bytes into
// up to three texts (folder, name, extension), each also used as a path.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "file/lfile.h"
#include "file/lfile_platform.h"

namespace {

class Block {
public:
    Block() : data_(new char[kLPathSize]) { memset(data_.get(), 0x5a, kLPathSize); }
    operator char*() { return data_.get(); }
    void CheckTerminated() {
        if (memchr(data_.get(), 0, kLPathSize) == nullptr) {
            abort();
        }
    }

private:
    std::unique_ptr<char[]> data_;
};

template <typename F>
void Check(F&& call) {
    Block dst;
    call(static_cast<char*>(dst));
    dst.CheckTerminated();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    size_t compactSize = data[0] % (kLPathSize + 1);
    std::string text(reinterpret_cast<char const*>(data + 1), size - 1);
    std::string parts[3];
    size_t start = 0;
    for (int i = 0; i < 3 && start <= text.size(); ++i) {
        size_t end = text.find('\0', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        parts[i] = text.substr(start, end - start);
        start = end + 1;
    }
    char const* a = parts[0].c_str();
    char const* b = parts[1].c_str();
    char const* c = parts[2].c_str();

    Check([&](char* d) {
        LFile::_MakeFilePath(d, a, b, c);
        // Reference: the folder cut to 258, one "/" unless it ends with a separator, then
        // name and extension, the whole cut to 259.
        std::string folder = parts[0].substr(0, kLPathSize - 2);
        std::string expected = folder;
        if (!folder.empty() && folder.back() != '/' && folder.back() != '\\') {
            expected += '/';
        }
        expected += parts[1] + parts[2];
        if (std::string_view(d) != std::string_view(expected).substr(0, kLPathSize - 1)) {
            abort();
        }
    });
    Check([&](char* d) { LFile::_MakeFilePathSecure(d, a, b, c); });
    Check([&](char* d) { LFile::MakeFilePathF(d, a, "%s%s", b, c); });
    Check([&](char* d) { LFile::_ApplyNewFileExtension(d, a, c); });
    Check([&](char* d) {
        if (LFile::_GetFolderFromPath(d, a) != strlen(d)) {
            abort();
        }
    });
    Check([&](char* d) { LFile::_GetFileFromPath(d, a); });
    Check([&](char* d) { LFile::_GetFileExtensionFromPath(d, a); });
    Check([&](char* d) { LFile::_GetFileNameFromPath(d, a); });
    Check([&](char* d) { LFile::_GetBaseFolderFromPath(d, a); });
    Check([&](char* d) { LFile::MakeAbsoluteFilePath(d, a, b, c); });
    Check([&](char* d) { LFile::GetRelativePathFromAbsolutePath(d, a, b); });
    Check([&](char* d) { LFile::MakeRelativeFolder(d, a, b); });
    Check([&](char* d) { LFile::MakeRelativeFilePath(d, a, b); });
    Check([&](char* d) {
        if (LFile::EscapeFilePath(a, d) != strlen(d)) {
            abort();
        }
    });
    Check([&](char* d) {
        if (LFile::PreprocessName(a, d) != (LFileOrFolderNameValidate(d) == 0)) {
            abort();
        }
    });
    Check([&](char* d) { LFile::IsFolderValid(a, d); });
    Check([&](char* d) { LFile::IsFileValid(a, d); });
    Check([&](char* d) { _LParseUserDirsLine(a, "XDG_MUSIC_DIR", b, d); });

    // In place: the destination also holds the source (cut to a path buffer first).
    Check([&](char* d) {
        strncpy(d, a, kLPathSize - 1);
        d[kLPathSize - 1] = 0;
        LFile::_MakeFilePath(d, d, b, c);
    });
    Check([&](char* d) {
        strncpy(d, a, kLPathSize - 1);
        d[kLPathSize - 1] = 0;
        LFile::_ApplyNewFileExtension(d, d, c);
    });

    // CompactFilePath writes at most size bytes: give it exactly that many.
    {
        std::unique_ptr<char[]> small(new char[compactSize == 0 ? 1 : compactSize]);
        LFile::CompactFilePath(small.get(), a, compactSize);
        if (compactSize != 0 && memchr(small.get(), 0, compactSize) == nullptr) {
            abort();
        }
        size_t len = parts[0].size();
        size_t expected = len < compactSize ? len : compactSize == 0 ? 0 : compactSize - 1;
        if (compactSize != 0 && strlen(small.get()) != expected) {
            abort();
        }
    }

    LMountInfo mount;
    _LParseMountInfoLine(text, mount);
    return 0;
}
