// Folder walks, tree operations and the copy jobs on real trees in a temporary folder; the
// busy-folder schedule on a real mount point in a private mount namespace, pauses recorded.
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "file/lfile_folder.h"
#include "file/lfile_platform.h"
#include "temp_tree.h"
#include "tests/thread/child_process.h"

namespace {

using ltest::TempTree;
namespace fs = std::filesystem;

// Records what a job reports; asks it to stop at the stopAt-th question (0: never).
class Recorder : public LProcessInterfaceVoid {
public:
    explicit Recorder(int stopAt = 0) : stopAt_(stopAt) {}
    bool IsToStop() override { return ++asked_ == stopAt_; }
    void SetStatus(char const* text, int level) override {
        statuses.push_back(std::to_string(level) + ":" + text);
    }
    void SetProgress(double p) override { progress.push_back(p); }
    std::vector<std::string> statuses;
    std::vector<double> progress;

private:
    int stopAt_;
    int asked_ = 0;
};

std::set<std::string> Names(std::string const& folder) {
    std::set<std::string> names;
    for (auto const& entry : fs::directory_iterator(folder)) {
        names.insert(entry.path().filename());
    }
    return names;
}

std::set<std::string> Walk(LFile::FolderIterator& walk, bool opened) {
    std::set<std::string> names;
    for (bool more = opened; more; more = walk.Next()) {
        names.insert(walk.GetFileName());
    }
    EXPECT_FALSE(walk.IsOpen());
    return names;
}

TEST(FolderWalk, PatternsMatchIgnoringCaseAndSkipMetadata) {
    TempTree tree;
    for (char const* f : {"take.wav", "Other.WAV", ".hidden.wav", "notes.txt"}) {
        tree.MakeFile(f);
    }
    tree.MakeFolder("__MACOSXdata");
    char const* root = tree.root().c_str();
    LFile::FolderIterator walk;
    EXPECT_EQ(Walk(walk, walk.Open(root, "*.WAV")),
              (std::set<std::string>{"take.wav", "Other.WAV", ".hidden.wav"}));
    EXPECT_EQ(Walk(walk, walk.Open(root, "*")).count("__MACOSXdata"), 0u);
    EXPECT_EQ(Walk(walk, walk.Open(tree.Path("notes.txt").c_str())),
              std::set<std::string>{"notes.txt"});
    EXPECT_FALSE(walk.Open(root, "*.mp3"));
    EXPECT_FALSE(walk.Open(tree.Path("notes.txt").c_str(), "*"));
    EXPECT_FALSE(walk.Open(tree.Path("missing").c_str()));
    LFile::FolderIteratorAllFiles all;
    EXPECT_EQ(Walk(all, all.Open(root, "*.none")),
              (std::set<std::string>{".", "..", "take.wav", "Other.WAV", ".hidden.wav", "notes.txt",
                                     "__MACOSXdata"}));
    EXPECT_FALSE(walk.IsDotFolderOrMetadata("__MACOS"));
    EXPECT_FALSE(walk.IsDotFolderOrMetadata(nullptr));
    // The matcher itself tells case apart; the walk folds it.
    for (auto [pattern, name, match] : {std::tuple{"", "", true},
                                        {"*", "", true},
                                        {"?", "", false},
                                        {"*?", "", false},
                                        {"a", "A", false},
                                        {"t?ke.*", "take.wav", true},
                                        {"*.wav", "take.wav.gz", false},
                                        {"*a*b", "xaYaZb", true},
                                        {"a*b*c", "abXbYcd", false},
                                        {"*x*", "abc", false}}) {
        EXPECT_EQ(LFile::IsMatch(pattern, name), match) << pattern << " " << name;
    }
}

TEST(FolderTree, CreateCompareAndDelete) {
    TempTree tree;
    std::string top = tree.MakeFolder("a");
    std::string deep = tree.Path("a/b/c");
    EXPECT_TRUE(LFile::CreateFolderTree(deep.c_str()));
    EXPECT_TRUE(fs::is_directory(deep));
    EXPECT_FALSE(LFile::CreateFolderTree(deep.c_str()));
    // A subfolder is told by identity, through a link too.
    fs::create_symlink(top, tree.Path("alias"));
    EXPECT_TRUE(LFile::IsSubFolder(top.c_str(), top.c_str()));
    EXPECT_TRUE(LFile::IsSubFolder(top.c_str(), tree.Path("alias/b").c_str()));
    EXPECT_FALSE(LFile::IsSubFolder(deep.c_str(), top.c_str()));
    EXPECT_FALSE(LFile::IsSubFolder(tree.Path("missing").c_str(), deep.c_str()));
    EXPECT_FALSE(LFile::DeleteFolderTree(""));
    EXPECT_FALSE(LFile::DeleteFolderTree(tree.Path("missing").c_str()));
    tree.MakeFile("a/b/c/deep.txt");
    tree.MakeFile("a/top.txt");
    fs::create_symlink(tree.Path("a/top.txt"), tree.Path("a/b/link"));
    EXPECT_TRUE(LFile::DeleteFolderTree(tree.Path("a").c_str()));
    EXPECT_FALSE(fs::exists(tree.Path("a")));
    // Only the files directly inside go; a subfolder keeps the folder.
    tree.MakeFile("f/x.txt");
    tree.MakeFile("f/sub/y.txt");
    EXPECT_FALSE(LFile::DeleteFolderAndFiles(tree.Path("f").c_str()));
    EXPECT_FALSE(fs::exists(tree.Path("f/x.txt")));
    EXPECT_TRUE(fs::exists(tree.Path("f/sub/y.txt")));
    EXPECT_TRUE(LFile::DeleteFolderAndFiles(tree.Path("f/sub").c_str()));
    // Only the variant that always deletes clears the immutable flag first.
    if (!ltest::SetImmutable(tree.MakeFile("t/locked.txt"), true)) {
        GTEST_SKIP() << "the immutable flag cannot be set here";
    }
    EXPECT_FALSE(LFile::DeleteFolderTree(tree.Path("t").c_str()));
    EXPECT_TRUE(LFile::DeleteFolderTreeAlways(tree.Path("t").c_str()));
}

TEST(FolderTree, DeleteOldFilesByBirthTimeAndContentsByAgeWithProgress) {
    TempTree tree;
    std::string born = tree.MakeFolder("born");
    for (char const* f : {"a.tmp", "b.tmp", "keep.txt", "__MACOSX.tmp"}) {
        tree.MakeFile("born/" + std::string(f));
    }
    LFile::DeleteOldFiles(born.c_str(), "*", 0);
    LFile::DeleteOldFiles(born.c_str(), "*", 1);  // all born just now
    EXPECT_EQ(Names(born).size(), 4u);
    // 24856 days overflow the 32-bit product into a negative age: everything is "old".
    LFile::DeleteOldFiles(born.c_str(), "*.TMP", 24856);
    EXPECT_EQ(Names(born), (std::set<std::string>{"keep.txt", "__MACOSX.tmp"}));
    std::string old = tree.MakeFile("d/old.txt");
    tree.MakeFile("d/new.txt");
    std::string oldSub = tree.MakeFile("d/sub/old.txt");
    timespec const hourAgo[2] = {{time(nullptr) - 3600, 0}, {time(nullptr) - 3600, 0}};
    utimensat(AT_FDCWD, old.c_str(), hourAgo, 0);
    utimensat(AT_FDCWD, oldSub.c_str(), hourAgo, 0);
    Recorder process;
    EXPECT_EQ(LFile::DeleteFolderTree(process, tree.Path("d").c_str(), 60), 2);  // new.txt stays
    EXPECT_EQ(Names(tree.Path("d")), std::set<std::string>{"new.txt"});
    EXPECT_EQ(process.statuses[0], "0:Please wait...");
    EXPECT_EQ(process.statuses[1], "1:Please wait...");  // the subfolder, one level deeper
    ASSERT_FALSE(process.progress.empty());
    EXPECT_NEAR(process.progress.back(), 1.0, 1e-9);
    EXPECT_EQ(LFile::DeleteFolderContents(process, tree.Path("missing").c_str(), 0), 2);
    Recorder stopper(2);  // the first entry's question
    EXPECT_EQ(LFile::DeleteFolderTree(stopper, tree.Path("d").c_str(), 0), 1);
    EXPECT_TRUE(fs::exists(tree.Path("d/new.txt")));
    EXPECT_EQ(LFile::DeleteFolderTree(process, tree.Path("d").c_str(), 0), 0);
    EXPECT_FALSE(fs::exists(tree.Path("d")));
}

TEST(CopyFile, KeepsMetadataLinksAndHoles) {
    TempTree tree;
    std::string src = tree.MakeFile("src/take.wav", "RIFF data");
    ASSERT_EQ(setxattr(src.c_str(), "user.tag", "blue", 4, 0), 0);
    chmod(src.c_str(), 0640);
    timespec const times[2] = {{1000000000, 500}, {1200000000, 250}};
    utimensat(AT_FDCWD, src.c_str(), times, 0);
    fs::create_symlink("take.wav", tree.Path("src/link"));
    // One byte of data between two holes.
    std::string sparse = tree.MakeFile("src/sparse", "");
    fs::resize_file(sparse, 4 << 20);
    std::ofstream(sparse, std::ios::app) << 'x';
    fs::resize_file(sparse, 8 << 20);
    tree.MakeFolder("dst");
    for (char const* name : {"take.wav", "link", "sparse"}) {
        EXPECT_TRUE(LFile::CopyFile(tree.Path("src/" + std::string(name)).c_str(),
                                    tree.Path("dst/" + std::string(name)).c_str()));
    }
    std::string dst = tree.Path("dst/take.wav");
    struct stat b;
    ASSERT_EQ(stat(dst.c_str(), &b), 0);
    EXPECT_EQ(b.st_mode & 07777, 0640u);
    EXPECT_EQ(b.st_mtim.tv_sec, 1200000000);
    EXPECT_EQ(b.st_mtim.tv_nsec, 250);
    EXPECT_EQ(b.st_atim.tv_sec, 1000000000);  // as it was before the copy read the source
    char tag[8] = {};
    EXPECT_EQ(getxattr(dst.c_str(), "user.tag", tag, sizeof(tag)), 4);
    EXPECT_STREQ(tag, "blue");
    EXPECT_TRUE(fs::is_symlink(tree.Path("dst/link")));
    EXPECT_EQ(fs::read_symlink(tree.Path("dst/link")), "take.wav");
    ASSERT_EQ(stat(tree.Path("dst/sparse").c_str(), &b), 0);
    EXPECT_EQ(b.st_size, 8 << 20);
    EXPECT_LT(b.st_blocks * 512, 1 << 20);
    // An existing destination is replaced by a finished copy; a link in its place is
    // replaced, not followed, and no temporary is left behind.
    std::string other = tree.MakeFile("other.txt", "untouched");
    fs::create_symlink(other, tree.Path("dst/to-other"));
    EXPECT_TRUE(LFile::CopyFile(src.c_str(), tree.Path("dst/to-other").c_str()));
    EXPECT_FALSE(fs::is_symlink(tree.Path("dst/to-other")));
    EXPECT_EQ(fs::file_size(other), 9u);
    EXPECT_EQ(Names(tree.Path("dst")),
              (std::set<std::string>{"take.wav", "link", "sparse", "to-other"}));
    EXPECT_FALSE(LFile::CopyFile(src.c_str(), tree.Path("dst").c_str()));  // a folder stays
    LFile::CopyFolderFiles(tree.Path("src").c_str(), tree.Path("copy/deep").c_str());
    EXPECT_TRUE(fs::is_symlink(tree.Path("copy/deep/link")));
    EXPECT_EQ(fs::file_size(tree.Path("copy/deep/take.wav")), 9u);
}

class CopyJob : public ::testing::Test {
protected:
    std::string MakeSource(size_t size) {
        std::string bytes(size, 0);
        for (size_t i = 0; i < size; ++i) {
            bytes[i] = static_cast<char>(i * 7);
        }
        return tree.MakeFile("in.bin", bytes);
    }
    TempTree tree;
    std::string out = tree.Path("out.bin");
};

TEST_F(CopyJob, StoppedOrFailedLeavesNoDestinationElseReportsProgressAndKeepsWholeSeconds) {
    std::string in = MakeSource(10 << 20);
    Recorder stopper(2);
    EXPECT_EQ(Process(stopper, LProcessCopyFile{in.c_str(), out.c_str()}), 1);
    EXPECT_FALSE(fs::exists(out));
    Recorder failing;
    EXPECT_EQ(Process(failing, LProcessCopyFile{"/no/such/file", out.c_str()}), 2);
    EXPECT_EQ(Process(failing, LProcessCopyFile{in.c_str(), "/no/such/folder/x"}), 2);
    EXPECT_FALSE(fs::exists(out));
    timespec const times[2] = {{1000000000, 700}, {1100000000, 900}};
    utimensat(AT_FDCWD, in.c_str(), times, 0);
    Recorder process;
    EXPECT_EQ(Process(process, LProcessCopyFile{in.c_str(), out.c_str()}), 0);
    EXPECT_EQ(fs::file_size(out), 10u << 20);
    EXPECT_EQ(process.statuses, (std::vector<std::string>{"0:Copy File", "1:out.bin"}));
    EXPECT_EQ(process.progress.back(), 1.0);
    struct stat st;
    ASSERT_EQ(stat(out.c_str(), &st), 0);
    EXPECT_EQ(st.st_mtim.tv_sec, 1100000000);
    EXPECT_EQ(st.st_mtim.tv_nsec, 0);
    EXPECT_EQ(st.st_atim.tv_nsec, 0);
}

TEST_F(CopyJob, FolderBarRestartsWithEveryEntry) {
    tree.MakeFile("in.dir/a.txt", "a");
    tree.MakeFile("in.dir/sub/b.txt", "bb");
    LFile::CreateFolderTree(tree.Path("out.dir").c_str());
    Recorder process;
    ASSERT_EQ(Process(process, LProcessCopyFolder{tree.Path("in.dir").c_str(),
                                                  tree.Path("out.dir").c_str()}),
              0);
    EXPECT_EQ(fs::file_size(tree.Path("out.dir/sub/b.txt")), 2u);
    EXPECT_LE(*std::max_element(process.progress.begin(), process.progress.end()), 0.5);
    EXPECT_EQ(Process(process, LProcessCopyFolder{"/no/such", "/tmp"}), 2);
}

TEST_F(CopyJob, BufferTransfersInChunks) {
    std::string bytes(25000, 'q');
    int fd = open(out.c_str(), O_RDWR | O_CREAT, 0644);
    LWriteFileRef writer(fd);
    Recorder process;
    EXPECT_EQ(LProcessFileWrite(process, writer, bytes.data(), bytes.size()), 0);
    EXPECT_EQ(process.progress, (std::vector<double>{0.4096, 0.8192, 1.0}));
    lseek(fd, 0, SEEK_SET);
    LReadFileRef reader(fd);
    std::string back(25000, 0);
    EXPECT_EQ(LProcessFileRead(process, reader, back.data(), back.size()), 0);
    EXPECT_EQ(back, bytes);
    EXPECT_EQ(LProcessFileRead(process, reader, back.data(), back.size()), 2);  // at the end
    Recorder stopper(2);
    lseek(fd, 0, SEEK_SET);
    EXPECT_EQ(LProcessFileRead(stopper, reader, back.data(), back.size()), 1);
    close(fd);
    LReadFileRef closed;
    EXPECT_EQ(LProcessFileRead(process, closed, back.data(), back.size()), 2);
    EXPECT_EQ(LProcessFileRead(process, closed, back.data(), 0), 0);
}

std::vector<unsigned int> gPauses;
std::string gUnmountAtThirdPause;

// A mount point is busy: the delete retries on a doubling schedule until the wait is used up,
// or until the mount goes. Run in a child with a private mount namespace.
TEST(FolderTree, BusyFolderRetrySchedule) {
    TempTree tree;
    std::string busy = tree.MakeFolder("busy");
    int result = ltest::WaitChild(ltest::ForkChild([&] {
        if (!ltest::UnshareMountsPrivately() ||
            mount("tmpfs", busy.c_str(), "tmpfs", 0, "size=64k") != 0) {
            return 77;
        }
        _gLFilePause = [](unsigned int ms) {
            gPauses.push_back(ms);
            if (gPauses.size() == 3 && !gUnmountAtThirdPause.empty()) {
                umount(gUnmountAtThirdPause.c_str());
            }
        };
        std::string text;
        for (unsigned int run = 0; run < 3; ++run) {
            gPauses.clear();
            gUnmountAtThirdPause = run == 2 ? busy : "";
            text += LFile::DeleteFolderTree(busy.c_str(), run == 0 ? 0 : 1000) ? "true" : "false";
            for (unsigned int ms : gPauses) {
                text += " " + std::to_string(ms);
            }
            text += ";";
        }
        fprintf(stderr, "schedule: %s\n", text.c_str());
        return text == "false;false 8 16 32 64 128 256;true 8 16 32;" ? 0 : 1;
    }));
    if (result == 77) {
        GTEST_SKIP() << "no private mount namespace here";
    }
    EXPECT_EQ(result, 0);
}

}  // namespace
