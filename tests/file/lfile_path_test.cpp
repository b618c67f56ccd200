// Composition, splitting, relative/absolute and display forms of LFile paths, name validation
// with both message tables, MIME types and the small name predicates. Every destination is an
// exact 260-byte heap buffer so that a write past it trips ASan.
#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>

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

// Calls fn(dst, args...) on a fresh buffer and returns what it left there, behind
// "<result>:" when fn returns something.
template <typename Fn, typename... Args>
std::string Into(Fn fn, Args... args) {
    PathBuf dst;
    if constexpr (std::is_void_v<decltype(fn(dst, args...))>) {
        fn(dst, args...);
        return dst.str();
    } else {
        auto result = fn(dst, args...);
        return std::to_string(result) + ":" + dst.str();
    }
}

// fn's answer: its result when it gives a string, else what Into() reports.
template <typename Fn, typename... In>
std::string Answer(Fn fn, In... in) {
    if constexpr (std::is_invocable_v<Fn, In...>) {
        return fn(in...);
    } else {
        return Into(fn, in...);
    }
}

template <typename Fn>
void ExpectEach(Fn fn, std::initializer_list<std::pair<std::string, std::string>> cases) {
    for (auto const& [in, out] : cases) {
        EXPECT_EQ(Answer(fn, in.c_str()), out) << "input: " << in;
    }
}
template <typename Fn>
void ExpectEach2(Fn fn,
                 std::initializer_list<std::tuple<std::string, std::string, std::string>> cases) {
    for (auto const& [a, b, out] : cases) {
        EXPECT_EQ(Answer(fn, a.c_str(), b.c_str()), out) << "input: " << a << " | " << b;
    }
}

std::string Repeat(char c, size_t n) {
    return std::string(n, c);
}

std::string JoinWav(char const* folder, char const* name) {
    return Into(LFile::_MakeFilePath, folder, name, ".wav");
}

TEST(MakeFilePath, JoinsWithOneSlashCutsEvenInPlaceSecureFormNeutralisesEveryPiece) {
    ExpectEach2(JoinWav, {{"/a", "b", "/a/b.wav"}, {"/a/", "b", "/a/b.wav"}, {"", "b", "b.wav"}});
    EXPECT_EQ(Into(LFile::_MakeFilePath, "C:\\x\\", "b", ""), "C:\\x\\b");  // "\" separates
    EXPECT_EQ(Into(LFile::_MakeFilePath, "/a", nullptr, nullptr), "/a/");
    EXPECT_EQ(Into(LFile::_MakeFilePath, nullptr, "b", nullptr), "b");
    // The folder is cut at 258 characters, the whole at 259.
    ExpectEach2(JoinWav, {{Repeat('f', 300), "name", Repeat('f', 258) + "/"},
                          {"/a", Repeat('n', 400), "/a/" + Repeat('n', 256)}});
    EXPECT_EQ(Into(LFile::_MakeFilePath, "/a", Repeat('n', 250).c_str(), ".wav.longer"),
              "/a/" + Repeat('n', 250) + ".wav.l");
    // The folder may be the destination.
    PathBuf dst;
    strcpy(dst, "/srv/data");
    LFile::_MakeFilePath(dst, dst, "x", ".txt");
    EXPECT_EQ(dst.str(), "/srv/data/x.txt");
    // An in-place folder longer than 258 is not copied, only cut.
    memset(dst, 'q', 259);
    static_cast<char*>(dst)[259] = 0;
    LFile::_MakeFilePath(dst, dst, "x", "");
    EXPECT_EQ(dst.str(), Repeat('q', 258) + "/");
    EXPECT_EQ(Into(LFile::MakeFilePathF, "", "%s", Repeat('z', 300).c_str()), Repeat('z', 259));
    EXPECT_EQ(Into(LFile::_MakeFilePathSecure, "/x/../etc", "../../passwd", "/.sh"),
              "etc/passwd.sh");
    EXPECT_EQ(Into(LFile::_MakeFilePathSecure, "/srv/data", "sub/take", ".wav"),
              "/srv/data/take.wav");
    // Any period cuts the folder, even one inside a folder name.
    EXPECT_EQ(Into(LFile::_MakeFilePathSecure, "/home/my.docs/x", "a", "b\\wav"), "docs/x/awav");
    EXPECT_EQ(Into(LFile::_MakeFilePathSecure, "/a.", "b", "wav"), "bwav");
}

TEST(ApplyNewFileExtension, ReplacesOrAppends) {
    ExpectEach2(LFile::_ApplyNewFileExtension,
                {{"/a/b.txt", ".wav", "/a/b.wav"},
                 {"/a.d/b", ".wav", "/a.d/b.wav"},
                 {".txt", ".wav", ".txt.wav"},
                 {"/a/.profile", ".wav", "/a/.wav"},
                 {"a\\b.c.d", "", "a\\b.c"},
                 // A period at position 259 leaves no room: nothing is applied.
                 {Repeat('p', 259), ".wav", Repeat('p', 259)},
                 {Repeat('p', 257), ".wav", Repeat('p', 257) + ".w"},
                 {Repeat('p', 300), ".wav", Repeat('p', 259)}});
    PathBuf dst;
    strcpy(dst, "/x/take.aiff");
    LFile::_ApplyNewFileExtension(dst, dst, ".lck");
    EXPECT_EQ(dst.str(), "/x/take.lck");
}

TEST(SplitPath, FolderFileNameExtensionAndBaseFolder) {
    // Only the first 260 characters are searched for the separator.
    std::string deep = "/" + Repeat('a', 258) + "/" + Repeat('b', 10) + "/c";
    ExpectEach(LFile::_GetFolderFromPath, {{"file", "0:"},
                                           {"/file", "1:/"},
                                           {"\\file", "0:"},
                                           {"/a/b/", "4:/a/b"},
                                           {"C:\\x\\y.txt", "4:C:\\x"},
                                           {deep, "259:" + deep.substr(0, 259)}});
    ExpectEach(LFile::_GetFileFromPath, {{"/a\\b/c.tar.gz", "c.tar.gz"},
                                         {"plain", "plain"},
                                         {"/" + Repeat('f', 300), Repeat('f', 259)}});
    ExpectEach(LFile::_GetFileExtensionFromPath,
               {{"/a/c.tar.gz", ".gz"}, {"/a.d/c", ""}, {"/home/.profile", ".profile"}});
    ExpectEach(LFile::_GetFileNameFromPath, {{"/a/take.01.wav", "7:take.01"},
                                             {"/a/.profile", "0:.profile"},
                                             {"x.d\\noext", "0:noext"}});
    ExpectEach(
        LFile::_GetBaseFolderFromPath,
        {{"/Users/a/b", "/Users"}, {"D:\\x", "D:"}, {"/Users", "/Users"}, {"a/", "a"}, {"/", "/"}});
}

std::string Absolute(char const* base, char const* path) {
    return Into(LFile::MakeAbsoluteFilePath, base, path, "");
}

TEST(MakeAbsoluteFilePath, AbsolutePlainAndDotStepPaths) {
    EXPECT_EQ(Into(LFile::MakeAbsoluteFilePath, "/base", "/x/y", ".wav"), "/x/y.wav");
    EXPECT_EQ(Into(LFile::MakeAbsoluteFilePath, "/base", "x/y", ".txt"), "/base/x/y.txt");
    // A colon behind a separator is not a drive. Deliberate quirks from "/a/b", "../x" on:
    // the scan starts at the third-to-last character (a one-letter last component goes with
    // the one before it); a base under two characters stops the climb; climbing above the top
    // keeps the remaining steps.
    ExpectEach2(Absolute, {{"/base", "\\x", "\\x"},
                           {"/base", "C:\\x", "C:\\x"},
                           {"/base", "c:x", "c:x"},
                           {"/base", "x/a:b", "/base/x/a:b"},
                           {"/a/b", "./x", "/a/b/x"},
                           {"/a/b/", "../x", "/a/x"},
                           {"/aa/bb/cc/", ".\\..\\../x", "/aa/x"},
                           {"/a/b/", "...x", "/a/b/...x"},
                           {"/a/b", "../x", "x"},
                           {"ab", "../x", "ab/x"},
                           {"a", "../x", "a/../x"},
                           {"", "./../x", "../x"},
                           {"/a/", "../../../x", "../../x"},
                           {"/a/b/c/", "../../x", "x"}});
}

TEST(RelativePaths, InsideOrOutsideFilePathSharesWholeComponentsFolderSharesCharacters) {
    ExpectEach2(LFile::GetRelativePathFromAbsolutePath, {{"/a/b", "/a/b/c/d", "1:c/d"},
                                                         {"/a/b/", "/a/b/c", "1:c"},
                                                         {"/a/b", "/a/b", "1:"},
                                                         {"\\a\\b", "/a/b/c", "1:c"},
                                                         {"/a/b", "/a/bc", "0:"},
                                                         {"/a/b/c", "/a/b", "0:"},
                                                         {"/a/b/", "/a/bx", "0:"}});
    ExpectEach2(LFile::MakeRelativeFilePath, {{"/a/b", "/a/c/d.txt", "1:../c/d.txt"},
                                              {"/a/bc", "/a/bd/x", "1:../bd/x"},
                                              {"/a/b/", "/a/b/c/d", "1:c/d"},
                                              {"/x/y/z", "/a", "1:../../../a"}});
    ExpectEach2(LFile::MakeRelativeFolder, {// The shared "b" counts as common, deliberately.
                                            {"/a/bc", "/a/bd/x", "1:../d/x"},
                                            {"/a/b", "/a/c/d.txt", "1:../c/d.txt"},
                                            {"/a/b", "/a/b/c", "1:c"},
                                            // Only "/" separates here.
                                            {"\\a\\b", "/a/b", "1:../a/b"}});
    std::string from;
    for (int i = 0; i < 120; ++i) {
        from += "/d";
    }
    std::string out = Into(LFile::MakeRelativeFolder, from.c_str(), "/target");
    EXPECT_EQ(out.size(), 2u + 259u);
    EXPECT_EQ(out.substr(0, 11), "1:../../../");
}

TEST(DisplayForms, MiddleEllipsisAndEscapedQuotesAndBackquotes) {
    auto compact = [](char const* size) {
        return Into(LFile::CompactFilePath, "/0123456789abcdefgh", std::stoul(size));
    };
    ExpectEach(compact, {{"12", "/012...efgh"}, {"5", "/..."}, {"4", "..."}, {"1", ""}});
    EXPECT_EQ(Into(LFile::CompactFilePath, "/abcdefghijklmnopqrs", 11), "/abc...qrs");
    auto escape = [](char const* path) {
        PathBuf dst;
        size_t length = LFile::EscapeFilePath(path, dst);
        return std::to_string(length) + ":" + dst.str();
    };
    ExpectEach(escape, {{"/a \"b\" `c`\\d", "16:/a \\\"b\\\" \\`c\\`\\d"},
                        // At 258 characters an escape no longer fits: the quote is dropped,
                        // the 'b' still goes.
                        {Repeat('a', 258) + "\"b", "259:" + Repeat('a', 258) + "b"}});
    EXPECT_EQ(escape(Repeat('`', 200).c_str()).substr(0, 4), "258:");
}

TEST(PreprocessName, CleansUserText) {
    auto clean = [](char const* name) {
        PathBuf dst;
        bool kept = LFile::PreprocessName(name, dst);
        return std::to_string(kept) + ":" + dst.str();
    };
    ExpectEach(clean, {{"..\x01my:take/\\.v2\t", "1:mytake.v2"},
                       {"...:/", "0:"},
                       {Repeat('n', 300), "1:" + Repeat('n', 259)},
                       {"Gr\xc3\xbc\xc3\x9f", "1:Gr\xc3\xbc\xc3\x9f"}});  // UTF-8 passes
}

// The message a validator leaves, checked against its result (valid exactly when empty).
template <bool (*validate)(char const*, char*)>
std::string Message(char const* name) {
    char message[kLPathSize];
    strcpy(message, "stale");
    bool valid = validate(name, message);
    EXPECT_EQ(valid, message[0] == 0) << name;
    return message;
}

TEST(NameValidation, EveryFileMessageFolderWholePathAndComponentMessages) {
    ExpectEach(Message<LFile::IsFileValid>,
               {{"take.wav", ""},
                {"", "File name is blank. Please provide a file name."},
                {Repeat('a', 300), "File name may not be more than 260 characters long"},
                {".hidden", "File name may not start with a period"},
                {".x\t:", "File name may not start with a period"},  // decided first
                {"a\x1f", "File name may not contain control characters"},
                {"a\t:", "File name may not contain control characters"},
                {"a:b", "File name may not contain characters : / \\"},
                {"a:\t", "File name may not contain characters : / \\"},
                {"a\\b", "File name may not contain characters : / \\"},
                // A trailing space or period and reserved names are accepted here.
                {"name. ", ""},
                {"LPT9", ""},
                {"a\x7f", ""}});
    EXPECT_FALSE(LFileNameIsReserved("CON"));
    EXPECT_EQ(LFileOrFolderNameValidate(std::string(259, 'a').c_str()), 0);
    EXPECT_FALSE(LFile::IsFileValid("a/b", nullptr));
    ExpectEach(Message<LFile::IsFolderValid>,
               {
                   {"/", ""},
                   {"/Users\\me", ""},
                   {"", "Folder must not be empty"},
                   {"/" + Repeat('a', 259), "Folder must be less than 260 character long"},
                   {"/" + Repeat('a', 258), ""},
                   {"Users", "Folder must begin with /"},
                   {"/Users//me", "Folder name must not be empty"},
                   {"/a/.b", "Folder name must not start with a period"},
                   {"/a/b\x01/c", "Folder name must not contain control characters"},
                   {"/a:b", "Folder component must not contain character :"},
               });
    EXPECT_FALSE(LFile::IsFolderValid("/a/.b", nullptr));
    // The message of a code a component cannot produce here.
    auto message = [](int code, char const* component) {
        return Into(LFile::_GetFolderNameMessage, code, component);
    };
    EXPECT_EQ(message(7, "CON"), "'CON' is reserved for use by the operating system");
    EXPECT_EQ(message(7, Repeat('r', 300).c_str()).size(), 259u);
}

TEST(SmallPredicates, MimeTypesLettersExtensionListsAndEndings) {
    auto mime = [](char const* ext) { return LFile::GetMimeTypeFromFileExtension(ext); };
    ExpectEach(mime, {{".PDF", "application/pdf"}, {"txt", "application/octet-stream"}});
    EXPECT_STREQ(mime(nullptr), "application/octet-stream");
    EXPECT_TRUE(LFileIsLetterOrNumber('Z'));
    EXPECT_FALSE(LFileIsLetterOrNumber('\xe9'));
    char const* const list[] = {".wav", ".AIFF", ".mp3", nullptr, ".flac"};
    EXPECT_TRUE(LIsFileExtensionInList(list, ".WAV"));
    EXPECT_FALSE(LIsFileExtensionInList(list, ".flac"));  // behind the terminator
    EXPECT_FALSE(LIsFileExtensionInList(nullptr, ".wav"));
    EXPECT_EQ(tstrcmpend("take.wav", ".wav"), 0);
    EXPECT_EQ(tstrcmpend("wav", ".wav"), -1);
    EXPECT_GT(tstrcmpend("take.waz", ".wav"), 0);
}

}  // namespace
