// Name validation with both message tables, MIME types and the small name predicates.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "file/lfile.h"

namespace {

TEST(NameValidate, CodesInOrder) {
    EXPECT_EQ(LFileOrFolderNameValidate(""), 1);
    EXPECT_EQ(LFileOrFolderNameValidate(std::string(259, 'a').c_str()), 0);
    EXPECT_EQ(LFileOrFolderNameValidate(std::string(260, 'a').c_str()), 2);
    EXPECT_EQ(LFileOrFolderNameValidate(".x"), 4);
    EXPECT_EQ(LFileOrFolderNameValidate(".x\t:"), 4);  // the period is decided first
    EXPECT_EQ(LFileOrFolderNameValidate("a:b"), 6);
    EXPECT_EQ(LFileOrFolderNameValidate("a/b"), 6);
    EXPECT_EQ(LFileOrFolderNameValidate("a\\b"), 6);
    EXPECT_EQ(LFileOrFolderNameValidate("a\tb"), 5);
    EXPECT_EQ(LFileOrFolderNameValidate("a\t:"), 5);
    EXPECT_EQ(LFileOrFolderNameValidate("a:\t"), 6);
    EXPECT_EQ(LFileOrFolderNameValidate("a\x7f"), 0);
    EXPECT_EQ(LFileOrFolderNameValidate("Gr\xc3\xbc\xc3\x9f"), 0);
}

TEST(NameValidate, ReservedCodesNeverProduced) {
    // A trailing space or period (3) and reserved names (7) are accepted on this platform.
    EXPECT_EQ(LFileOrFolderNameValidate("name."), 0);
    EXPECT_EQ(LFileOrFolderNameValidate("name "), 0);
    for (char const* name : {"CON", "nul", "COM1", "LPT9", "aux", "PRN"}) {
        EXPECT_FALSE(LFileNameIsReserved(name)) << name;
        EXPECT_EQ(LFileOrFolderNameValidate(name), 0) << name;
    }
}

std::string FileMessage(char const* name) {
    char message[kLPathSize];
    strcpy(message, "stale");
    bool valid = LFile::IsFileValid(name, message);
    EXPECT_EQ(valid, message[0] == 0);
    return message;
}

TEST(IsFileValid, EveryMessage) {
    EXPECT_EQ(FileMessage("take.wav"), "");
    EXPECT_EQ(FileMessage(""), "File name is blank. Please provide a file name.");
    EXPECT_EQ(FileMessage(std::string(300, 'a').c_str()),
              "File name may not be more than 260 characters long");
    EXPECT_EQ(FileMessage(".hidden"), "File name may not start with a period");
    EXPECT_EQ(FileMessage("a\x1f"), "File name may not contain control characters");
    EXPECT_EQ(FileMessage("a:b"), "File name may not contain characters : / \\");
    // The reserved codes keep their places in the table.
    EXPECT_STREQ(LFile::_GetFileNameMessage(3), "File name may not end with a space or period");
    EXPECT_STREQ(LFile::_GetFileNameMessage(7),
                 "File name is reserved for use by the operating system");
    EXPECT_STREQ(LFile::_GetFileNameMessage(0), "Invalid file name");
    EXPECT_STREQ(LFile::_GetFileNameMessage(8), "Invalid file name");
    EXPECT_STREQ(LFile::_GetFileNameMessage(-1), "Invalid file name");
    EXPECT_TRUE(LFile::IsFileValid("ok", nullptr));
    EXPECT_FALSE(LFile::IsFileValid("a/b", nullptr));
}

std::string FolderMessage(char const* folder) {
    char message[kLPathSize];
    strcpy(message, "stale");
    bool valid = LFile::IsFolderValid(folder, message);
    EXPECT_EQ(valid, message[0] == 0) << folder;
    return message;
}

TEST(IsFolderValid, WholePathRules) {
    EXPECT_EQ(FolderMessage("/"), "");
    EXPECT_EQ(FolderMessage("/Users/me/"), "");
    EXPECT_EQ(FolderMessage("/Users\\me"), "");
    EXPECT_EQ(FolderMessage("/Users/me/take. "), "");
    EXPECT_EQ(FolderMessage(""), "Folder must not be empty");
    std::string longFolder = "/" + std::string(259, 'a');
    EXPECT_EQ(FolderMessage(longFolder.c_str()), "Folder must be less than 260 character long");
    EXPECT_EQ(FolderMessage(longFolder.substr(0, 259).c_str()), "");
    EXPECT_EQ(FolderMessage("Users"), "Folder must begin with /");
    EXPECT_EQ(FolderMessage("\\Users"), "Folder must begin with /");
}

TEST(IsFolderValid, ComponentMessages) {
    EXPECT_EQ(FolderMessage("/Users//me"), "Folder name must not be empty");
    EXPECT_EQ(FolderMessage("/a//"), "Folder name must not be empty");
    EXPECT_EQ(FolderMessage("/a/.b"), "Folder name must not start with a period");
    EXPECT_EQ(FolderMessage("/a/b\x01/c"), "Folder name must not contain control characters");
    EXPECT_EQ(FolderMessage("/a:b"), "Folder component must not contain character :");
    EXPECT_TRUE(LFile::IsFolderValid("/a/b", nullptr));
    EXPECT_FALSE(LFile::IsFolderValid("/a/.b", nullptr));

    // Messages of the codes a component cannot produce here.
    char message[kLPathSize];
    LFile::_GetFolderNameMessage(message, 2, "x");
    EXPECT_STREQ(message, "Invalid folder");
    LFile::_GetFolderNameMessage(message, 3, "x");
    EXPECT_STREQ(message, "Folder name must not end with a space or period");
    LFile::_GetFolderNameMessage(message, 7, "CON");
    EXPECT_STREQ(message, "'CON' is reserved for use by the operating system");
    LFile::_GetFolderNameMessage(message, 7, std::string(300, 'r').c_str());
    EXPECT_EQ(strlen(message), 259u);
    LFile::_GetFolderNameMessage(message, 42, "x");
    EXPECT_STREQ(message, "Invalid folder");
}

TEST(MimeType, TableIgnoringCase) {
    struct Case {
        char const* extension;
        char const* type;
    } const cases[] = {
        {".txt", "text/plain"},
        {".PDF", "application/pdf"},
        {".jpeg", "image/jpeg"},
        {".JPG", "image/jpg"},
        {".bmp", "image/bmp"},
        {".Gif", "image/gif"},
        {".png", "image/png"},
        {".mid", "audio/mid"},
        {".mp3", "audio/mpeg"},
        {".WAV", "audio/vnd.wav"},
        {".mp4", "video/mp4"},
        {".aiff", "application/octet-stream"},
        {"txt", "application/octet-stream"},
        {"", "application/octet-stream"},
    };
    for (Case const& c : cases) {
        EXPECT_STREQ(LFile::GetMimeTypeFromFileExtension(c.extension), c.type) << c.extension;
    }
    EXPECT_STREQ(LFile::GetMimeTypeFromFileExtension(nullptr), "application/octet-stream");
}

TEST(ExtensionList, IgnoresCaseUntilNull) {
    char const* const list[] = {".wav", ".AIFF", ".mp3", nullptr, ".flac"};
    EXPECT_TRUE(LIsFileExtensionInList(list, ".WAV"));
    EXPECT_TRUE(LIsFileExtensionInList(list, ".aiff"));
    EXPECT_FALSE(LIsFileExtensionInList(list, ".flac"));  // behind the terminator
    EXPECT_FALSE(LIsFileExtensionInList(list, "wav"));
    EXPECT_FALSE(LIsFileExtensionInList(nullptr, ".wav"));
}

TEST(CompareEnd, EndsWith) {
    EXPECT_EQ(tstrcmpend("take.wav", ".wav"), 0);
    EXPECT_EQ(tstrcmpend("take.wav", ""), 0);
    EXPECT_EQ(tstrcmpend("wav", ".wav"), -1);
    EXPECT_NE(tstrcmpend("take.WAV", ".wav"), 0);
    EXPECT_LT(tstrcmpend("take.waa", ".wav"), 0);
    EXPECT_GT(tstrcmpend("take.waz", ".wav"), 0);
}

}  // namespace
