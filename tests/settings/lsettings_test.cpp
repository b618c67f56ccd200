#include "settings/lsettings.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "file/lfile.h"
#include "settings/lxml.h"
#include "tests/file/temp_tree.h"
#include "tests/thread/child_process.h"

namespace {

class SettingsStore : public ::testing::Test {
protected:
    void SetUp() override { LPreferencesFlushCache(); }
    void TearDown() override { LPreferencesFlushCache(); }
    static std::string Read(const std::string& path) { return ltest::Slurp(path); }
    static std::string HostFile() { return LPreferencesGetPath(kLSettingDomainCurrentUser, true); }
    static std::string Get(const char* section, const char* key) {
        char out[kLSettingTextSize];
        return _LUserSettingGetString(section, key, "<none>", out) ? out : "<none>";
    }
    ltest::IsolatedHome home_;
};

TEST_F(SettingsStore, FullKeyNamesValuesAndPasswordsRoundTripThroughAFileOtherToolsRead) {
    for (auto [section, full] : {std::pair<std::string, std::string>{"A", "A/b"},
                                 {"A/", "A/b"},
                                 {"", "/b"},
                                 {std::string(600, 's'), std::string(519, 's')}}) {
        char out[kLSettingFullKeySize];
        _LSettingGetFullKeyName(out, section.c_str(), "b");
        EXPECT_EQ(out, full) << section;
    }
    // "A/" and "A" address the same value.
    ASSERT_TRUE(LUserSettingSetString("A/", "b", "one"));
    EXPECT_EQ(Get("A", "b"), "one");
    EXPECT_TRUE(LUserSettingTestKeyFullPathExists("A/b"));
    std::string longValue(300, 'v');
    ASSERT_TRUE(LUserSettingSetString("General", "Name", "caf\xc3\xa9"));
    ASSERT_TRUE(LUserSettingSetString("General", "Long", longValue.c_str()));
    EXPECT_EQ(Get("General", "Name"), "caf\xc3\xa9");
    EXPECT_EQ(Get("General", "Long"), longValue.substr(0, 259));
    wchar_t wide[kLSettingTextSize];
    ASSERT_TRUE(LSettingSetUnicodeString("Wide", "W", L"\u00e9\U0001F600"));
    EXPECT_EQ(std::wstring(LSettingGetUnicodeString("Wide", "W", L"d", wide)), L"\u00e9\U0001F600");
    EXPECT_EQ(std::wstring(LSettingGetUnicodeString("Wide", "X", L"d", wide)), L"d");
    // The host's file is an ordinary property list.
    std::string dump = home_.tree().Path("dump.xml");
    std::string command = "plistutil -i '" + HostFile() + "' -o '" + dump + "' -f xml";
    ASSERT_EQ(system(command.c_str()), 0);
    std::string text = Read(dump);
    EXPECT_NE(text.find("<key>General/Name</key>"), std::string::npos);
    EXPECT_NE(text.find("<string>caf\xc3\xa9</string>"), std::string::npos);
    ASSERT_TRUE(LUserSettingDeleteItem("General", "Name"));
    EXPECT_FALSE(LUserSettingTestExists("General", "Name"));
    EXPECT_TRUE(LUserSettingTestKeyExists("general"));
    ASSERT_TRUE(LUserSettingDeleteSection("GENERAL/"));
    EXPECT_FALSE(LUserSettingTestKeyExists("General"));
    EXPECT_TRUE(LUserSettingTestExists("Wide", "W"));
    ASSERT_TRUE(LUserSettingSetPassword("Account", "name", "s3cret"));
    EXPECT_NE(Get("Account", "__name"), "s3cret");  // stored enciphered
    EXPECT_EQ(Get("Account", "name"), "<none>");
    char out[kLSettingTextSize];
    EXPECT_TRUE(LUserSettingGetPassword("Account", "name", "dflt", out));
    EXPECT_STREQ(out, "s3cret");
    EXPECT_FALSE(LUserSettingGetPassword("Account", "other", "dflt", out));
    EXPECT_STREQ(out, "");
}

TEST_F(SettingsStore, RecordsKeepPrimaryKeysAndEnumerateInOrder) {
    const LSettingDomain user = kLSettingDomainCurrentUser;
    LSharedSettingsRecord bob("Users/Bob");
    ASSERT_TRUE(bob.SetString("Age", "42"));
    // A record's own key ("Users/") holds its primary key.
    auto stored = [&](const char* key) {
        std::string text;
        return LPreferencesGetString(user, true, key, text) ? text : "<none>";
    };
    EXPECT_EQ(Get("Users", ""), "Users");
    EXPECT_EQ(stored("Users/Bob/"), "Bob");
    for (const char* name : {"carol", "Alice", "dave"}) {
        LSharedSettingsRecord(("Users/" + std::string(name)).c_str()).SetString("Age", "1");
    }
    LSharedSettingsRecord("Users/Alice/Pets/Rex").SetString("Kind", "dog");
    // Sub-records of "Users", each found once, deeper levels ignored; the record's own key
    // "Users/" comes back as the empty name.
    std::vector<std::string> found;
    char name[kLSettingTextSize];
    for (size_t index = 0; _LSettingFindRecord(user, name, index, "Users", ""); ++index) {
        found.push_back(name);
    }
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, (std::vector<std::string>{"", "Alice", "Bob", "carol", "dave"}));
    EXPECT_TRUE(LSharedSettingsRecord("Users").TestSubRecordExists("alice"));
    EXPECT_FALSE(LSharedSettingsRecord("Users").TestSubRecordExists("Eve"));
    std::vector<std::string> walked;
    char next[kLSettingTextSize] = "";
    std::string after;
    while (_LSettingPlistGetNextKey(user, "Users/", after.c_str(), next)) {
        walked.push_back(next);
        after = next;
    }
    EXPECT_EQ(walked, (std::vector<std::string>{"Alice", "Bob", "carol", "dave"}));
    // Renaming moves every key below the record and refuses to overwrite another record.
    char newPath[kLSettingTextSize];
    EXPECT_FALSE(_LSettingChangePrimaryKey(user, "Users/Bob", "dave", newPath));
    ASSERT_TRUE(_LSettingChangePrimaryKey(user, "Users/Alice", "Ann", newPath));
    EXPECT_STREQ(newPath, "Users/Ann");
    EXPECT_EQ(Get("Users/Ann/Pets/Rex", "Kind"), "dog");
    EXPECT_EQ(Get("Users/Alice/Pets/Rex", "Kind"), "<none>");
    EXPECT_EQ(stored("Users/Ann/"), "Ann");
    EXPECT_FALSE(_LSettingTestKeyExists(user, "Users/Alice/"));
    ASSERT_TRUE(bob.SetPrimaryKey("Robert"));
    EXPECT_STREQ(bob.GetRecordPath(), "Users/Robert");
    char value[kLSettingTextSize];
    EXPECT_TRUE(bob.GetString("Age", value));
    EXPECT_STREQ(value, "42");
    ASSERT_TRUE(LSharedSettingsRecord("Users").DeleteSubRecord("Robert"));
    EXPECT_FALSE(_LSettingTestKeyExists(user, "Users/Robert/Age"));
    EXPECT_TRUE(_LSettingTestKeyExists(user, "Users/carol/Age"));
}

TEST_F(SettingsStore, WritersInTwoProcessesLoseNoKeysAndAKilledOneLeavesAReadableFile) {
    ASSERT_TRUE(LUserSettingSetString("Init", "k", "v"));
    auto writer = [](const char* section) {
        return [section] {
            LPreferencesFlushCache();
            for (int i = 0; i < 100; ++i) {
                std::string key = "k" + std::to_string(i);
                if (!LUserSettingSetString(section, key.c_str(), "x")) {
                    return 1;
                }
            }
            return 0;
        };
    };
    pid_t first = ltest::ForkChild(writer("First"));
    ASSERT_EQ(ltest::WaitChild(ltest::ForkChild(writer("Second"))), 0);
    ASSERT_EQ(ltest::WaitChild(first), 0);
    // The cache must notice the file changed under it.
    for (int i = 0; i < 100; ++i) {
        std::string key = "k" + std::to_string(i);
        EXPECT_EQ(Get("First", key.c_str()), "x") << key;
        EXPECT_EQ(Get("Second", key.c_str()), "x") << key;
    }
    EXPECT_EQ(LPreferencesCopyKeyList(kLSettingDomainCurrentUser, true).size(), 201u);
    ASSERT_TRUE(LUserSettingSetString("Loop", "first", "v"));
    for (int round = 0; round < 10; ++round) {
        pid_t pid = fork();
        if (pid == 0) {
            for (int i = 0;; ++i) {
                LUserSettingSetString("Loop", std::to_string(i % 50).c_str(),
                                      std::string(static_cast<size_t>(i % 97), 'z').c_str());
            }
        }
        usleep(static_cast<useconds_t>(2000 + round * 3000));
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        LPreferencesFlushCache();
        std::string text = Read(HostFile());
        plist_t parsed = nullptr;
        plist_from_memory(text.data(), static_cast<uint32_t>(text.size()), &parsed);
        ASSERT_NE(parsed, nullptr) << "round " << round;
        EXPECT_EQ(plist_get_node_type(parsed), PLIST_DICT);
        plist_free(parsed);
    }
    // The next write clears what the killed writers left behind.
    ASSERT_TRUE(LUserSettingSetString("Loop", "last", "v"));
    std::string folder = HostFile().substr(0, HostFile().rfind('/'));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder),
                            std::filesystem::directory_iterator()),
              1);
}

TEST_F(SettingsStore, XmlStoresAppendInOrderAndRespectTheLock) {
    ASSERT_TRUE(LSharedSettingSetString("Zeta", "k", "1"));
    ASSERT_TRUE(LSharedSettingSetString("Alpha", "k", "2"));
    ASSERT_TRUE(LSharedSettingSetString("Zeta", "j", "3"));
    char out[kLSettingTextSize];
    EXPECT_TRUE(_LSharedSettingGetString("Zeta", "j", "d", out));
    EXPECT_STREQ(out, "3");
    EXPECT_FALSE(_LSharedSettingGetString("Zeta", "x", "d", out));
    EXPECT_STREQ(out, "d");
    char folder[kLPathSize];
    LFile::GetUserDataFolderAppSubFolder("Shared", folder);
    std::string path = std::string(folder) + "/SharedSettings.xml";
    std::string text = Read(path);
    EXPECT_LT(text.find("<Zeta>"), text.find("<Alpha>"));
    EXPECT_LT(text.find("<k value=\"1\""), text.find("<j value=\"3\""));
    ASSERT_TRUE(LSharedSettingSetPassword("Zeta", "pw", "hidden"));
    EXPECT_TRUE(LSharedSettingTestExists("Zeta", "__pw"));
    EXPECT_TRUE(LSharedSettingGetPassword("Zeta", "pw", "d", out));
    EXPECT_STREQ(out, "hidden");
    ASSERT_TRUE(LSharedSettingDeleteItem("Zeta", "k"));
    EXPECT_FALSE(LSharedSettingTestExists("Zeta", "k"));
    ASSERT_TRUE(LSharedSettingDeleteSection("Alpha"));
    EXPECT_FALSE(LSharedSettingTestKeyExists("Alpha"));
    // Another holder of the lock keeps the file exactly as it was.
    std::string before = Read(path);
    int fd = open(path.c_str(), O_RDONLY);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    EXPECT_EQ(ltest::WaitChild(ltest::ForkChild([] {
                  LXMLDocument document;
                  document.AddElement("New")->AddElement("k");
                  return LSharedSettingsSave(document) ? 1 : 0;
              })),
              0);
    close(fd);
    EXPECT_EQ(Read(path), before);
    ASSERT_TRUE(LUserHiddenSettingSetString("S", "k", "v"));
    char hidden[kLPathSize];
    _LUserHiddenSettingGetPath(hidden);
    EXPECT_TRUE(_LUserHiddenSettingGetString("S", "k", "d", out));
    EXPECT_STREQ(out, "v");
    EXPECT_TRUE(LXMLSettingGetString(hidden, "S", "k", "d", out));
}

}  // namespace
