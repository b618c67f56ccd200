#include "file/lbookmark.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "file/lfile.h"
#include "settings/lpreferences.h"
#include "tests/file/temp_tree.h"
#include "tests/thread/child_process.h"

namespace {

namespace fs = std::filesystem;

// HOME is <tree>/home; <tree>/outside lies beyond it, reachable through home/link.
class SandboxBookmarks : public ::testing::Test {
protected:
    void SetUp() override {
        home_ = root_.MakeFolder("home");
        outside_ = root_.MakeFolder("outside");
        root_.MakeFolder("home/docs");
        root_.MakeFile("outside/file.txt");
        root_.MakeFolder("outside/folder/sub");
        fs::create_directory_symlink(outside_, home_ + "/link");
        fs::create_directory_symlink(home_ + "/docs", home_ + "/inlink");
        LPreferencesFlushCache();
    }
    void TearDown() override {
        LSandboxBookmarkManager::Destroy();
        LPreferencesFlushCache();
    }
    static LSecurityScopedURLRef Url(const std::string& path) {
        return std::make_shared<LSecurityScopedURL>(path.c_str());
    }
    ltest::TempTree root_;
    ltest::EnvOverride config_{"XDG_CONFIG_HOME", root_.MakeFolder("config")};
    std::string home_ = root_.Path("home");
    ltest::EnvOverride homeVar_{"HOME", home_};
    std::string outside_;
};

TEST_F(SandboxBookmarks, PathsLeaveTheHomeFolderOnlyThroughLinks) {
    using Case = std::tuple<std::string, bool, std::string, bool>;
    for (const auto& [path, out, outPath, allowed] :
         {Case{home_ + "/docs", false, "", true},
          {home_ + "/docs/missing/deeper", false, "", true},
          {home_ + "/link/file.txt", true, outside_ + "/file.txt", false},
          {home_ + "/link/new/name.txt", true, outside_ + "/new/name.txt", false},
          {home_ + "/inlink/missing", false, "", true},
          {outside_ + "/file.txt", true, outside_ + "/file.txt", false},
          {root_.Path("elsewhere/none"), false, "", false}}) {
        char dst[kLPathSize] = "junk";
        EXPECT_EQ(LFile::MakeNonSandboxedFilePath(dst, path.c_str()), out) << path;
        EXPECT_EQ(dst, outPath) << path;
        EXPECT_EQ(IsAccessAllowedByEntitlement(path.c_str()), allowed) << path;
    }
    std::string upper = home_;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    EXPECT_TRUE(LFile::IsPathInSandbox((upper + "/x").c_str()));
    EXPECT_FALSE(LFile::IsPathInSandbox(outside_.c_str()));
}

TEST_F(SandboxBookmarks, BookmarksComeBackInANewProcessAndVanishedTargetsAreForgotten) {
    std::string file = outside_ + "/file.txt";
    std::string folder = outside_ + "/folder";
    LSandboxBookmarkManager::Create();
    EXPECT_EQ(LSandboxBookmarkManager::AddFilePath(file.c_str(), Url(file), true, false, "kf"), 1);
    EXPECT_EQ(LSandboxBookmarkManager::AddFilePath(folder.c_str(), Url(folder), true, false, "kd"),
              1);
    LSandboxBookmarkManager::Destroy();
    auto inChild = [](auto body) {
        return ltest::WaitChild(ltest::ForkChild([&] {
            LPreferencesFlushCache();
            LSandboxBookmarkManager::Create();
            LSandboxBookmarkManager::LoadBookmarksFromFile();
            int result = body(*LSandboxBookmarkManager::GetInstance());
            LSandboxBookmarkManager::Destroy();
            return result;
        }));
    };
    EXPECT_EQ(inChild([&](LSandboxBookmarkManager& manager) {
                  int failures = 0;
                  failures += manager.InstanceGetKeys() != std::vector<std::string>{"kf", "kd"};
                  failures += !LSandboxBookmarkManager::IsAccessStarted(file.c_str());
                  failures += !LSandboxBookmarkManager::IsAccessStarted(
                      (folder + "/sub/inner.txt").c_str());
                  failures += LSandboxBookmarkManager::IsAccessStarted((outside_ + "/x").c_str());
                  return failures;
              }),
              0);
    fs::remove(file);
    EXPECT_EQ(inChild([&](LSandboxBookmarkManager& manager) {
                  int failures = manager.InstanceGetKeys() != std::vector<std::string>{"kd"};
                  failures += manager.InstanceGetBookmark(file.c_str()) != nullptr;
                  return failures;
              }),
              0);
    LPreferencesFlushCache();
    EXPECT_FALSE(LPreferencesTestKey(kLSettingDomainCurrentUser, false, "kf"));
    EXPECT_TRUE(LPreferencesTestKey(kLSettingDomainCurrentUser, false, "kd"));
}

TEST_F(SandboxBookmarks, ItemsAreCountedAndParentsMatchIgnoringSeparators) {
    LSandboxBookmarkManager::Create();
    LSandboxBookmarkManager& manager = *LSandboxBookmarkManager::GetInstance();
    std::string docs = home_ + "/docs";
    EXPECT_EQ(manager.InstanceAddFilePath(docs.c_str(), Url(docs), true, false, "kh"), 1);
    EXPECT_EQ(manager.InstanceGetBookmark(docs.c_str()), nullptr);
    EXPECT_TRUE(manager.InstanceGetKeys().empty());
    std::string folder = outside_ + "/folder";
    ASSERT_EQ(manager.InstanceAddFilePath(folder.c_str(), Url(folder), false, true, nullptr), 1);
    LSandboxBookmarkItem* item = manager.InstanceGetBookmark(folder.c_str());
    ASSERT_NE(item, nullptr);
    EXPECT_TRUE(item->bFlag);
    EXPECT_EQ(manager.InstanceAddFilePath(folder.c_str(), Url(folder), false, false, nullptr), 1);
    EXPECT_EQ(item->pNext, nullptr);
    EXPECT_EQ(manager.InstanceGetParentBookmark((folder + "er/x").c_str()), item);
    EXPECT_EQ(manager.InstanceGetParentBookmark((outside_ + "/fold").c_str()), nullptr);
    EXPECT_TRUE(manager.InstanceAddFilePathToSettings(folder.c_str(), true, "late"));
    EXPECT_EQ(manager.InstanceGetKeys(), std::vector<std::string>{"late"});
    manager.InstanceStopAccessingSecurityScopedResource(folder.c_str());
    EXPECT_FALSE(manager.InstanceIsAccessStarted(folder.c_str()));
    EXPECT_TRUE(manager.InstanceStartAccessingSecurityScopedResource(folder.c_str()));
    manager.InstanceRetain(folder.c_str());
    manager.InstanceRetain(folder.c_str());
    manager.InstanceRelease(folder.c_str());
    EXPECT_NE(manager.InstanceGetBookmark(folder.c_str()), nullptr);
    manager.InstanceRelease(folder.c_str());
    EXPECT_EQ(manager.InstanceGetBookmark(folder.c_str()), nullptr);
    EXPECT_FALSE(manager.InstanceIsAccessStarted(folder.c_str()));
}

}  // namespace
