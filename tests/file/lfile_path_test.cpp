// Composition, splitting, relative/absolute forms and display forms of LFile paths. Every
// destination is an exact 260-byte heap buffer so that a write past it trips ASan.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "file/lfile.h"

namespace {

class PathBuf {
public:
    PathBuf() : data_(new char[kLPathSize]) { memset(data_.get(), '#', kLPathSize); }
    operator char*() { return data_.get(); }
    std::string str() const {
        EXPECT_LT(strnlen(data_.get(), kLPathSize), kLPathSize) << "not terminated";
        return std::string(data_.get(), strnlen(data_.get(), kLPathSize));
    }

private:
    std::unique_ptr<char[]> data_;
};

std::string Repeat(char c, size_t n) {
    return std::string(n, c);
}

std::string Join(char const* folder, char const* name, char const* ext) {
    PathBuf dst;
    LFile::_MakeFilePath(dst, folder, name, ext);
    return dst.str();
}

TEST(MakeFilePath, JoinsWithOneSlash) {
    EXPECT_EQ(Join("/a", "b", ".wav"), "/a/b.wav");
    EXPECT_EQ(Join("/a/", "b", ".wav"), "/a/b.wav");
    EXPECT_EQ(Join("C:\\x\\", "b", ""), "C:\\x\\b");  // a backslash already separates
    EXPECT_EQ(Join("", "b", ".wav"), "b.wav");
    EXPECT_EQ(Join("/a", nullptr, nullptr), "/a/");
    EXPECT_EQ(Join(nullptr, "b", nullptr), "b");
}

TEST(MakeFilePath, CutsFolderAt258AndWholeAt259) {
    std::string folder = Repeat('f', 300);
    std::string joined = Join(folder.c_str(), "name", ".wav");
    EXPECT_EQ(joined, Repeat('f', 258) + "/");
    std::string longName = Repeat('n', 400);
    joined = Join("/a", longName.c_str(), ".wav");
    EXPECT_EQ(joined, "/a/" + Repeat('n', 256));
    joined = Join("/a", Repeat('n', 250).c_str(), ".wav.longer");
    EXPECT_EQ(joined.size(), 259u);
    EXPECT_EQ(joined.substr(253), ".wav.l");
}

TEST(MakeFilePath, FolderMayBeTheDestination) {
    PathBuf dst;
    strcpy(dst, "/srv/data");
    LFile::_MakeFilePath(dst, dst, "x", ".txt");
    EXPECT_EQ(dst.str(), "/srv/data/x.txt");
    // An in-place folder longer than 258 is not copied, only cut.
    memset(dst, 'q', 259);
    static_cast<char*>(dst)[259] = 0;
    LFile::_MakeFilePath(dst, dst, "x", "");
    EXPECT_EQ(dst.str(), Repeat('q', 258) + "/");
}

TEST(MakeFilePath, FormattedName) {
    PathBuf dst;
    LFile::MakeFilePathF(dst, "/rec", "take_%d_%s", 7, "left");
    EXPECT_EQ(dst.str(), "/rec/take_7_left");
    LFile::MakeFilePathF(dst, "", "%s", Repeat('z', 300).c_str());
    EXPECT_EQ(dst.str(), Repeat('z', 259));
}

TEST(MakeFilePathSecure, NeutralisesEveryPiece) {
    PathBuf dst;
    LFile::_MakeFilePathSecure(dst, "/x/../etc", "../../passwd", "/.sh");
    EXPECT_EQ(dst.str(), "etc/passwd.sh");
    LFile::_MakeFilePathSecure(dst, "/srv/data", "sub/take", ".wav");
    EXPECT_EQ(dst.str(), "/srv/data/take.wav");
    // Any period cuts the folder, even one inside a folder name.
    LFile::_MakeFilePathSecure(dst, "/home/my.docs/x", "a", "b\\wav");
    EXPECT_EQ(dst.str(), "docs/x/awav");
    LFile::_MakeFilePathSecure(dst, "/a.", "b", "wav");
    EXPECT_EQ(dst.str(), "bwav");
}

std::string NewExtension(char const* path, char const* ext) {
    PathBuf dst;
    LFile::_ApplyNewFileExtension(dst, path, ext);
    return dst.str();
}

TEST(ApplyNewFileExtension, ReplacesOrAppends) {
    EXPECT_EQ(NewExtension("/a/b.txt", ".wav"), "/a/b.wav");
    EXPECT_EQ(NewExtension("/a.d/b", ".wav"), "/a.d/b.wav");
    EXPECT_EQ(NewExtension(".txt", ".wav"), ".txt.wav");
    EXPECT_EQ(NewExtension("/a/.profile", ".wav"), "/a/.wav");
    EXPECT_EQ(NewExtension("a\\b.c.d", ""), "a\\b.c");
}

TEST(ApplyNewFileExtension, Cuts) {
    std::string full = Repeat('p', 259);
    EXPECT_EQ(NewExtension(full.c_str(), ".wav"), full);  // position 259: nothing applied
    std::string near = Repeat('p', 257);
    EXPECT_EQ(NewExtension(near.c_str(), ".wav"), near + ".w");
    std::string longer = Repeat('p', 300);
    EXPECT_EQ(NewExtension(longer.c_str(), ".wav"), Repeat('p', 259));
    PathBuf dst;
    strcpy(dst, "/x/take.aiff");
    LFile::_ApplyNewFileExtension(dst, dst, ".lck");
    EXPECT_EQ(dst.str(), "/x/take.lck");
}

TEST(SplitPath, Folder) {
    PathBuf dst;
    EXPECT_EQ(LFile::_GetFolderFromPath(dst, "file"), 0u);
    EXPECT_EQ(dst.str(), "");
    EXPECT_EQ(LFile::_GetFolderFromPath(dst, "/file"), 1u);
    EXPECT_EQ(dst.str(), "/");
    EXPECT_EQ(LFile::_GetFolderFromPath(dst, "\\file"), 0u);
    EXPECT_EQ(LFile::_GetFolderFromPath(dst, "/a/b/"), 4u);
    EXPECT_EQ(dst.str(), "/a/b");
    EXPECT_EQ(LFile::_GetFolderFromPath(dst, "C:\\x\\y.txt"), 4u);
    EXPECT_EQ(dst.str(), "C:\\x");
    // Only the first 260 characters are searched for the separator.
    std::string deep = "/" + Repeat('a', 258) + "/" + Repeat('b', 10) + "/c";
    EXPECT_EQ(LFile::_GetFolderFromPath(dst, deep.c_str()), 259u);
    EXPECT_EQ(dst.str(), deep.substr(0, 259));
}

TEST(SplitPath, FileNameAndExtension) {
    PathBuf dst;
    LFile::_GetFileFromPath(dst, "/a\\b/c.tar.gz");
    EXPECT_EQ(dst.str(), "c.tar.gz");
    LFile::_GetFileFromPath(dst, "plain");
    EXPECT_EQ(dst.str(), "plain");
    LFile::_GetFileFromPath(dst, ("/" + Repeat('f', 300)).c_str());
    EXPECT_EQ(dst.str(), Repeat('f', 259));

    LFile::_GetFileExtensionFromPath(dst, "/a/c.tar.gz");
    EXPECT_EQ(dst.str(), ".gz");
    LFile::_GetFileExtensionFromPath(dst, "/a.d/c");
    EXPECT_EQ(dst.str(), "");
    LFile::_GetFileExtensionFromPath(dst, "/home/.profile");
    EXPECT_EQ(dst.str(), ".profile");

    EXPECT_EQ(LFile::_GetFileNameFromPath(dst, "/a/take.01.wav"), 7u);
    EXPECT_EQ(dst.str(), "take.01");
    EXPECT_EQ(LFile::_GetFileNameFromPath(dst, "/a/.profile"), 0u);
    EXPECT_EQ(dst.str(), ".profile");
    EXPECT_EQ(LFile::_GetFileNameFromPath(dst, "x.d\\noext"), 0u);
    EXPECT_EQ(dst.str(), "noext");
}

TEST(SplitPath, BaseFolder) {
    PathBuf dst;
    LFile::_GetBaseFolderFromPath(dst, "/Users/a/b");
    EXPECT_EQ(dst.str(), "/Users");
    LFile::_GetBaseFolderFromPath(dst, "D:\\x");
    EXPECT_EQ(dst.str(), "D:");
    LFile::_GetBaseFolderFromPath(dst, "/Users");
    EXPECT_EQ(dst.str(), "/Users");
    LFile::_GetBaseFolderFromPath(dst, "a/");
    EXPECT_EQ(dst.str(), "a");
    LFile::_GetBaseFolderFromPath(dst, "/");
    EXPECT_EQ(dst.str(), "/");
}

std::string Absolute(char const* base, char const* path, char const* ext = "") {
    PathBuf dst;
    LFile::MakeAbsoluteFilePath(dst, base, path, ext);
    return dst.str();
}

TEST(MakeAbsoluteFilePath, AbsoluteAndPlainPaths) {
    EXPECT_EQ(Absolute("/base", "/x/y", ".wav"), "/x/y.wav");
    EXPECT_EQ(Absolute("/base", "\\x"), "\\x");
    EXPECT_EQ(Absolute("/base", "C:\\x"), "C:\\x");
    EXPECT_EQ(Absolute("/base", "c:x"), "c:x");
    EXPECT_EQ(Absolute("/base", "x/a:b"), "/base/x/a:b");  // the colon is behind a separator
    EXPECT_EQ(Absolute("/base", "x/y", ".txt"), "/base/x/y.txt");
}

TEST(MakeAbsoluteFilePath, ConsumesDotSteps) {
    EXPECT_EQ(Absolute("/a/b", "./x"), "/a/b/x");
    EXPECT_EQ(Absolute("/a/b/", "../x"), "/a/x");
    EXPECT_EQ(Absolute("/a/bb", "../x"), "/a/x");
    EXPECT_EQ(Absolute("/aa/bb/cc/", ".\\..\\../x"), "/aa/x");
    EXPECT_EQ(Absolute("/a/b", ".hidden"), "/a/b/.hidden");
    EXPECT_EQ(Absolute("/a/b/", "../.x"), "/a/.x");
    EXPECT_EQ(Absolute("/a/b/", "...x"), "/a/b/...x");
}

TEST(MakeAbsoluteFilePath, DeliberateQuirks) {
    // The scan starts at the third-to-last character: a one-letter last component without a
    // trailing separator takes the component before it along.
    EXPECT_EQ(Absolute("/a/b", "../x"), "x");
    EXPECT_EQ(Absolute("/abc/d", "../x"), "x");
    // A base of exactly two characters is left uncut; a shorter one stops the consumption.
    EXPECT_EQ(Absolute("ab", "../x"), "ab/x");
    EXPECT_EQ(Absolute("a", "../x"), "a/../x");
    EXPECT_EQ(Absolute("", "./../x"), "../x");
    // Climbing above the top leaves the remaining steps as they are.
    EXPECT_EQ(Absolute("/a/", "../../../x"), "../../x");
    // After one step the base has lost its trailing separator, so the quirk above applies
    // to the next step.
    EXPECT_EQ(Absolute("/a/b/c/", "../../x"), "x");
}

TEST(GetRelativePathFromAbsolutePath, InsideAndOutside) {
    PathBuf dst;
    EXPECT_TRUE(LFile::GetRelativePathFromAbsolutePath(dst, "/a/b", "/a/b/c/d"));
    EXPECT_EQ(dst.str(), "c/d");
    EXPECT_TRUE(LFile::GetRelativePathFromAbsolutePath(dst, "/a/b/", "/a/b/c"));
    EXPECT_EQ(dst.str(), "c");
    EXPECT_TRUE(LFile::GetRelativePathFromAbsolutePath(dst, "/a/b/", "/a/b"));
    EXPECT_EQ(dst.str(), "");
    EXPECT_TRUE(LFile::GetRelativePathFromAbsolutePath(dst, "/a/b", "/a/b"));
    EXPECT_EQ(dst.str(), "");
    EXPECT_TRUE(LFile::GetRelativePathFromAbsolutePath(dst, "\\a\\b", "/a/b/c"));
    EXPECT_EQ(dst.str(), "c");
    EXPECT_FALSE(LFile::GetRelativePathFromAbsolutePath(dst, "/a/b", "/a/bc"));
    EXPECT_EQ(dst.str(), "");
    EXPECT_FALSE(LFile::GetRelativePathFromAbsolutePath(dst, "/A/b", "/a/b/c"));
    EXPECT_FALSE(LFile::GetRelativePathFromAbsolutePath(dst, "/a/b/c", "/a/b"));
    EXPECT_FALSE(LFile::GetRelativePathFromAbsolutePath(dst, "/a/b/", "/a/bx"));
}

TEST(MakeRelative, FilePathSharesWholeComponents) {
    PathBuf dst;
    EXPECT_TRUE(LFile::MakeRelativeFilePath(dst, "/a/b", "/a/c/d.txt"));
    EXPECT_EQ(dst.str(), "../c/d.txt");
    EXPECT_TRUE(LFile::MakeRelativeFilePath(dst, "/a/bc", "/a/bd/x"));
    EXPECT_EQ(dst.str(), "../bd/x");
    EXPECT_TRUE(LFile::MakeRelativeFilePath(dst, "/a/b/", "/a/b/c/d"));
    EXPECT_EQ(dst.str(), "c/d");
    EXPECT_TRUE(LFile::MakeRelativeFilePath(dst, "/x/y/z", "/a"));
    EXPECT_EQ(dst.str(), "../../../a");
}

TEST(MakeRelative, FolderSharesCharacters) {
    PathBuf dst;
    EXPECT_TRUE(LFile::MakeRelativeFolder(dst, "/a/bc", "/a/bd/x"));
    EXPECT_EQ(dst.str(), "../d/x");  // the shared "b" counts as common, deliberately
    EXPECT_TRUE(LFile::MakeRelativeFolder(dst, "/a/b", "/a/c/d.txt"));
    EXPECT_EQ(dst.str(), "../c/d.txt");
    EXPECT_TRUE(LFile::MakeRelativeFolder(dst, "/a/b", "/a/b/c"));
    EXPECT_EQ(dst.str(), "c");
    // Only "/" separates here.
    EXPECT_TRUE(LFile::MakeRelativeFolder(dst, "\\a\\b", "/a/b"));
    EXPECT_EQ(dst.str(), "../a/b");
}

TEST(MakeRelative, CutsAt259) {
    std::string from;
    for (int i = 0; i < 120; ++i) {
        from += "/d";
    }
    PathBuf dst;
    EXPECT_TRUE(LFile::MakeRelativeFolder(dst, from.c_str(), "/target"));
    std::string out = dst.str();
    ASSERT_EQ(out.size(), 259u);
    EXPECT_EQ(out.substr(0, 9), "../../../");
}

std::string Compact(char const* path, size_t size) {
    PathBuf dst;
    LFile::CompactFilePath(dst, path, size);
    return dst.str();
}

TEST(CompactFilePath, MiddleEllipsis) {
    char const* path = "/0123456789abcdefgh";  // 19 characters
    EXPECT_EQ(Compact("/abcdefghijklmnopqrs", 11), "/abc...qrs");
    EXPECT_EQ(Compact(path, 12), "/012...efgh");
    EXPECT_EQ(Compact(path, 20), path);
    EXPECT_EQ(Compact(path, 19), "/0123456...bcdefgh");
    EXPECT_EQ(Compact(path, 5), "/...");
    EXPECT_EQ(Compact(path, 4), "...");
    EXPECT_EQ(Compact(path, 3), "..");
    EXPECT_EQ(Compact(path, 1), "");
}

TEST(EscapeFilePath, EscapesQuotesAndBackquotes) {
    PathBuf dst;
    EXPECT_EQ(LFile::EscapeFilePath("/a \"b\" `c`\\d", dst), 16u);
    EXPECT_EQ(dst.str(), "/a \\\"b\\\" \\`c\\`\\d");
    // At 258 characters an escape no longer fits: the quote is dropped, the 'b' still goes.
    std::string edge = Repeat('a', 258) + "\"b";
    EXPECT_EQ(LFile::EscapeFilePath(edge.c_str(), dst), 259u);
    EXPECT_EQ(dst.str(), Repeat('a', 258) + "b");
    std::string many(200, '`');
    EXPECT_EQ(LFile::EscapeFilePath(many.c_str(), dst), 258u);
}

TEST(PreprocessName, CleansUserText) {
    PathBuf dst;
    EXPECT_TRUE(LFile::PreprocessName("..\x01my:take/\\.v2\t", dst));
    EXPECT_EQ(dst.str(), "mytake.v2");
    EXPECT_FALSE(LFile::PreprocessName("...:/", dst));
    EXPECT_EQ(dst.str(), "");
    EXPECT_TRUE(LFile::PreprocessName(Repeat('n', 300).c_str(), dst));
    EXPECT_EQ(dst.str(), Repeat('n', 259));
    EXPECT_TRUE(LFile::PreprocessName("Gr\xc3\xbc\xc3\x9f", dst));  // UTF-8 passes
    EXPECT_EQ(dst.str(), "Gr\xc3\xbc\xc3\x9f");
}

TEST(LetterOrNumber, AsciiOnly) {
    EXPECT_TRUE(LFileIsLetterOrNumber('0'));
    EXPECT_TRUE(LFileIsLetterOrNumber('Z'));
    EXPECT_TRUE(LFileIsLetterOrNumber('q'));
    EXPECT_FALSE(LFileIsLetterOrNumber('_'));
    EXPECT_FALSE(LFileIsLetterOrNumber('\xe9'));
}

}  // namespace
