// Recent files: a bookmark list written by GLib's bookmark file, walked newest first, with
// the collector's limit, time window and extension filter, and the items the walk skips.
#include "file/lrecent_files.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <utime.h>

#include <ctime>
#include <string>
#include <tuple>
#include <vector>

#include "tests/file/temp_tree.h"

namespace {

class OnlyWav : public LFileGetUserRecentFilesData {
public:
    using LFileGetUserRecentFilesData::LFileGetUserRecentFilesData;
    bool IsExtValid(const char* extension) override { return std::string(extension) == ".wav"; }
};

std::vector<std::string> Names(const LFileGetUserRecentFilesData& data, const std::string& root) {
    std::vector<std::string> names;
    for (unsigned long i = 0; i < data.GetPaths().GetCount(); ++i) {
        names.push_back(std::string(data.GetPaths()[i]).substr(root.size() + 1));
    }
    return names;
}

TEST(RecentFiles, WalkNewestFirstWithLimitsAndFilters) {
    ltest::TempTree tree;
    ltest::EnvOverride data("XDG_DATA_HOME", tree.Path("data"));
    tree.MakeFolder("data");
    tree.MakeFolder("docs/folder.dir");
    const long now = static_cast<long>(std::time(nullptr));
    GBookmarkFile* bookmarks = g_bookmark_file_new();
    // name, file age in seconds (-1: no file), bookmark age (the list's order)
    for (auto [name, fileAge, bookmarkAge] : {std::tuple{"new one.wav", 10L, 1L},
                                              {"noext", 10, 2},
                                              {"folder.dir", -1, 3},
                                              {"gone.txt", -1, 4},
                                              {"mid.txt", 500, 5},
                                              {"old.wav", 5000, 6},
                                              {"older.txt", 900, 7}}) {
        const std::string path = tree.Path(std::string("docs/") + name);
        if (fileAge >= 0) {
            tree.MakeFile(std::string("docs/") + name);
            utimbuf times{now - fileAge, now - fileAge};
            utime(path.c_str(), &times);
        }
        gchar* uri = g_filename_to_uri(path.c_str(), nullptr, nullptr);
        g_bookmark_file_add_application(bookmarks, uri, "test", "test %u");
        GDateTime* when = g_date_time_new_from_unix_utc(now - bookmarkAge);
        g_bookmark_file_set_modified_date_time(bookmarks, uri, when);
        g_date_time_unref(when);
        g_free(uri);
    }
    g_bookmark_file_add_application(bookmarks, "https://example.org/x.txt", "test", "test %u");
    ASSERT_TRUE(
        g_bookmark_file_to_file(bookmarks, tree.Path("data/recently-used.xbel").c_str(), nullptr));
    g_bookmark_file_free(bookmarks);
    const std::string docs = tree.Path("docs");
    using List = std::vector<std::string>;
    for (const auto& [maxCount, start, end, expected] :
         {std::tuple<size_t, long, long, List>{
              0, 0, 0, {"new one.wav", "mid.txt", "old.wav", "older.txt"}},
          {1, 0, 0, {"new one.wav"}},
          // The walk ends at the first file older than the window, newer ones behind it or not.
          {0, now - 1000, 0, {"new one.wav", "mid.txt"}},
          {0, 0, now - 100, {"mid.txt", "old.wav", "older.txt"}}}) {
        LFileGetUserRecentFilesData collector(maxCount, start, end);
        GetUserRecentFiles(collector);
        EXPECT_EQ(Names(collector, docs), expected) << maxCount << " " << start;
    }
    OnlyWav wav;
    GetUserRecentFiles(wav);
    EXPECT_EQ(Names(wav, docs), (List{"new one.wav", "old.wav"}));
    data.Set(tree.Path("nowhere").c_str());
    LFileGetUserRecentFilesData none;
    GetUserRecentFiles(none);
    EXPECT_EQ(none.GetPaths().GetCount(), 0u);
}

}  // namespace
