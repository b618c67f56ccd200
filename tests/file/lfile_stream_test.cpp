// Streams, text files and lock files on real files in a temporary folder: the line rules of
// both readers, the length-prefixed format, the buffered reader's position bookkeeping, the
// loaders on every byte-order mark, the savers' tag, the timed lock's schedule and the lock
// file held elsewhere.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "file/lfile_platform.h"
#include "file/lfile_stream.h"
#include "file/lfile_text.h"
#include "temp_tree.h"

namespace {

using ltest::Slurp;
using ltest::TempTree;

// A file with the given bytes, opened for reading.
class OpenFile {
public:
    explicit OpenFile(std::string const& bytes) : path_(tree_.MakeFile("f.bin", bytes)) {
        fd_ = open(path_.c_str(), O_RDONLY);
    }
    ~OpenFile() { close(fd_); }
    int fd() const { return fd_; }

private:
    TempTree tree_;
    std::string path_;
    int fd_;
};

template <typename Reader>
std::vector<std::string> Lines(Reader& reader, size_t size = 260) {
    std::vector<std::string> lines;
    std::vector<char> buffer(size);
    while (reader.ReadLine(buffer.data(), size)) {
        lines.emplace_back(buffer.data());
    }
    return lines;
}

TEST(ReadLine, BothReadersOnEveryLineEndLongLinesAndBlockBoundaries) {
    using Case = std::tuple<char const*, std::vector<std::string>, std::vector<std::string>>;
    for (auto const& [bytes, unbuffered, buffered] : {
             Case{"a\r\nb", {"a", "b"}, {"a", "b"}},
             {"a\n\rb", {"a", "b"}, {"a", "", "b"}},  // LF CR: one line end, or two
             {"a\r\rb\r", {"a", "", "b"}, {"a", "", "b"}},
             {"\n", {""}, {""}},
             {"", {}, {}},
             {"abcdefgh\nxy", {"abc", "xy"}, {"abc", "xy"}},  // cut to size - 1, rest dropped
         }) {
        OpenFile a(bytes);
        LReadFileRef ref(a.fd());
        EXPECT_EQ(Lines(ref, 4), unbuffered) << bytes;
        OpenFile b(bytes);
        LReadFileBuffered reader(b.fd());
        EXPECT_EQ(Lines(reader, 4), buffered) << bytes;
    }
    // The unbuffered reader leaves the descriptor right behind the line and its pair.
    OpenFile f("a\nb\r\nc");
    LReadFileRef ref(f.fd());
    char line[8];
    ASSERT_TRUE(ref.ReadLine(line, sizeof(line)));
    EXPECT_EQ(lseek(f.fd(), 0, SEEK_CUR), 2);
    LStringLongTemplate<char> text;
    ASSERT_TRUE(ref.ReadLine(text));
    EXPECT_STREQ(text.GetText(), "b");
    EXPECT_EQ(lseek(f.fd(), 0, SEEK_CUR), 5);
    EXPECT_FALSE(LReadFileRef().ReadLine(line, sizeof(line)));
    // A line longer than the string's first 260 characters, and a CR closing one block whose
    // LF opens the next.
    std::string longLine(5000, 'x');
    std::string head(LReadFileBuffered::kBufferSize - 1, 'y');
    OpenFile big(longLine + "\n" + head + "\r\nz");
    LReadFileRef bigRef(big.fd());
    ASSERT_TRUE(bigRef.ReadLine(text));
    EXPECT_EQ(text.GetLength(), longLine.size());
    LReadFileBuffered buffered(big.fd());
    std::vector<char> buffer(10000);
    ASSERT_TRUE(buffered.ReadLine(buffer.data(), buffer.size()));
    EXPECT_EQ(std::string(buffer.data()), head);
    ASSERT_TRUE(buffered.ReadLine(buffer.data(), buffer.size()));
    EXPECT_STREQ(buffer.data(), "z");
    EXPECT_FALSE(buffered.ReadLine(buffer.data(), buffer.size()));
}

TEST(Writers, LengthPrefixedStringsLinesAndFormattedText) {
    TempTree tree;
    std::string path = tree.Path("s.bin");
    std::string s254(254, 'a'), s255(255, 'b'), s300(300, 'c');
    {
        LWriteFile out(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
        for (std::string const& s : {std::string(), s254, s255, s300, std::string("end")}) {
            out.WriteStringLenUTF8(s.c_str());
        }
        out.WriteLineCRLF("[S]");
        out.WriteLineLF("k=v");
        out.WriteString(LStringLongTemplate<char>("s"));
        fprintf(out, "%s=%d;", "n", 42ll);
        LWriteFileRef().WriteString("nowhere");
    }
    std::string bytes = Slurp(path);
    ASSERT_EQ(bytes.size(), 1 + 255 + 260 + 305 + 4u + 15u);
    EXPECT_EQ(bytes.substr(825), "[S]\r\nk=v\nsn=42;");
    EXPECT_EQ(bytes[0], 0);
    EXPECT_EQ(static_cast<unsigned char>(bytes[1]), 254);
    EXPECT_EQ(bytes.substr(256, 5), std::string("\xFF\xFF\x00\x00\x00", 5));
    EXPECT_EQ(bytes.substr(516, 5), std::string("\xFF\x2C\x01\x00\x00", 5));
    OpenFile f(bytes.substr(0, 825));
    LReadFileRef in(f.fd());
    char buffer[kLPathSize];
    // The rest of the 300 bytes is skipped; at the end the text is empty.
    for (std::string const& s :
         {std::string(), s254, s255, s300.substr(0, 259), std::string("end"), std::string()}) {
        in.ReadStringLenUTF8(buffer);
        EXPECT_EQ(std::string(buffer), s);
    }
    OpenFile cut(std::string("\xFF\x10\0\0\0abc", 8));  // announces 16, holds 3
    LReadFileRef short_(cut.fd());
    short_.ReadStringLenUTF8(buffer);
    EXPECT_STREQ(buffer, "abc");
}

TEST(Buffered, ReadPeekSeekKeepTheLogicalPosition) {
    std::string bytes;
    for (int i = 0; i < 30000; ++i) {
        bytes += static_cast<char>('a' + i % 26);
    }
    OpenFile f(bytes);
    LReadFileBuffered r(f.fd());
    EXPECT_EQ(r.GetFileSizeBytes64(), bytes.size());
    std::vector<char> out(20000);
    ASSERT_EQ(r.Read(out.data(), 10), 10u);
    EXPECT_EQ(r.Tell64(), 10u);
    // A peek across the buffer's end and beyond its size, then the same bytes read.
    for (size_t count : {size_t{100}, size_t{9000}, size_t{20000}}) {
        std::vector<char> peeked(count);
        unsigned long long at = r.Tell64();
        ASSERT_EQ(r.Peek(peeked.data(), count), count);
        EXPECT_EQ(r.Tell64(), at);
        ASSERT_EQ(r.Read(out.data(), count), count);
        EXPECT_EQ(std::string(out.data(), count), std::string(peeked.data(), count));
        EXPECT_EQ(std::string(out.data(), count), bytes.substr(at, count));
    }
    // The buffer is empty here: a large read bypasses it in one system read.
    r.Seek(100);
    ASSERT_EQ(r.Read(out.data(), 300), 300u);
    EXPECT_EQ(lseek(f.fd(), 0, SEEK_CUR), 400);
    EXPECT_EQ(r.SeekOffset64(-50), 0);
    EXPECT_EQ(r.Tell64(), 350u);
    r.Seek64(29990);
    EXPECT_EQ(r.Read(out.data(), 100), 10u);
    EXPECT_EQ(std::string(out.data(), 10), bytes.substr(29990));
    EXPECT_EQ(LReadFileBuffered().Read(out.data(), 10), 0u);
}

// The loaders on each mark (every file holds "hé" and, for UTF-16, a character above U+FFFF),
// and what the savers write.
TEST(TextFiles, LoadersOnEveryByteOrderMarkSaversWithTheirTag) {
    TempTree tree;
    auto load = [&](auto loader, std::string const& bytes) {
        std::string path = tree.MakeFile("t.txt", bytes);
        LStringLongTemplate<char> text;
        EXPECT_TRUE(loader(path.c_str(), text));
        return std::string(text.GetText(), text.GetLength());
    };
    std::string const le("h\0\xE9\0\x3D\xD8\x00\xDE", 8);
    std::string const be("\0h\0\xE9\xD8\x3D\xDE\x00", 8);
    std::string const expected = "h\xC3\xA9\xF0\x9F\x98\x80";
    EXPECT_EQ(load(LLoadTextAutoChar, "\xFF\xFE" + le), expected);
    EXPECT_EQ(load(LLoadTextAutoChar, "\xFE\xFF" + be), expected);
    EXPECT_EQ(load(LLoadTextAutoChar, "\xEF\xBB\xBFh\xC3\xA9"), "h\xC3\xA9");
    EXPECT_EQ(load(LLoadTextAutoChar, "\xEF\xBB\xBF"), "");
    EXPECT_EQ(load(LLoadTextAutoChar, "\xFF"), "\xFF");
    EXPECT_EQ(load(LLoadTextAutoChar, "h\xE9"), "h\xE9");  // no guessing without a mark
    EXPECT_EQ(load(LLoadTextUnicode, "\xFF\xFE" + le), expected);
    EXPECT_EQ(load(LLoadTextUnicode, "\xFE\xFF" + be + "x"), expected);  // odd byte dropped
    EXPECT_EQ(load(LLoadTextUnicode, le), expected);
    EXPECT_EQ(load(LLoadTextAsUTF16, le), expected);
    EXPECT_EQ(load(LLoadTextAsUTF16, "\xFF\xFE" + le), "\xEF\xBB\xBF" + expected);
    EXPECT_EQ(load(LLoadText, std::string("a\0b", 3)), std::string("a\0b", 3));
    LStringLongTemplate<char> text;
    EXPECT_FALSE(LLoadTextAutoChar(tree.Path("missing").c_str(), text));
    std::string path = tree.Path("s.txt");
    EXPECT_EQ(LSaveText(path.c_str(), "first line"), 0);
    EXPECT_EQ(LSaveText(path.c_str(), "h\xC3\xA9"), 0);
    EXPECT_EQ(LSaveAppendText(path.c_str(), LStringLongTemplate<char>("!")), 0);
    EXPECT_EQ(Slurp(path), "h\xC3\xA9!");
    char tag[32] = {};
    EXPECT_EQ(getxattr(path.c_str(), "user.com.apple.TextEncoding", tag, sizeof(tag)), 15);
    EXPECT_STREQ(tag, "utf-8;134217984");
    // The tag is attempted, and reported, even when the file cannot be written.
    EXPECT_EQ(LSaveText(tree.Path("no/such/folder").c_str(), "x"), -1);
    std::string wide = tree.Path("w.txt");
    LSaveTextAsUnicodeBOM(wide.c_str(), LStringLongTemplate<char>("h\xC3\xA9"));
    EXPECT_EQ(Slurp(wide), std::string("\xFF\xFEh\0\xE9\0", 6));
    EXPECT_EQ(getxattr(wide.c_str(), "user.com.apple.TextEncoding", tag, sizeof(tag)), -1);
    EXPECT_EQ(load(LLoadTextAutoChar, Slurp(wide)), "h\xC3\xA9");
}

// Records the pauses instead of sleeping them.
class RecordedPauses : public ::testing::Test {
protected:
    void SetUp() override {
        pauses_.clear();
        _gLFilePause = [](unsigned int ms) { pauses_.push_back(ms); };
    }
    void TearDown() override { _gLFilePause = saved_; }
    static inline std::vector<unsigned int> pauses_;
    void (*saved_)(unsigned int) = _gLFilePause;
};

TEST_F(RecordedPauses, TimedLockSchedule) {
    TempTree tree;
    std::string path = tree.MakeFile("locked.dat");
    int holder = open(path.c_str(), O_RDONLY);
    int waiter = open(path.c_str(), O_RDONLY);
    ASSERT_EQ(flock(holder, LOCK_EX), 0);
    flocktimed(waiter, LOCK_SH, 1000);
    EXPECT_EQ(pauses_, (std::vector<unsigned int>{32, 64, 128, 256, 512}));
    // Granted at once, or refused for another reason than a holder: no pause.
    ASSERT_EQ(flock(holder, LOCK_UN), 0);
    pauses_.clear();
    flocktimed(waiter, LOCK_EX, 1000);
    flocktimed(-1, LOCK_EX, 1000);
    EXPECT_TRUE(pauses_.empty());
    EXPECT_NE(flock(holder, LOCK_SH | LOCK_NB), 0);  // the waiter holds it now
    close(holder);
    close(waiter);
}

// Another holder (its own open file, as another process would have) refuses the lock, and
// the refusal leaves its file alone; a release deletes the lock file.
TEST(LockFile, RefusedWhileHeldElsewhereAndDeletedOnRelease) {
    TempTree tree;
    std::string doc = tree.Path("x.wav");
    std::string lck = tree.Path("x.lck");
    int holder = open(lck.c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_EQ(flock(holder, LOCK_EX), 0);
    {
        LLockFile second;
        EXPECT_FALSE(second.Lock(doc.c_str()));
        EXPECT_FALSE(second.IsLocked());
    }
    EXPECT_EQ(access(lck.c_str(), F_OK), 0);
    close(holder);
    {
        LLockFile mine;
        EXPECT_TRUE(mine.Lock(doc.c_str()));
        EXPECT_TRUE(mine.IsLocked());
        // Locking again releases the first lock file before taking the new one.
        EXPECT_TRUE(mine.Lock(tree.Path("y.wav").c_str()));
        EXPECT_EQ(access(lck.c_str(), F_OK), -1);
        EXPECT_EQ(access(tree.Path("y.lck").c_str(), F_OK), 0);
        // A lock file that cannot be made never stops the caller.
        LLockFile nowhere;
        EXPECT_TRUE(nowhere.Lock(tree.Path("no/such/z.wav").c_str()));
        EXPECT_FALSE(nowhere.IsLocked());
    }
    EXPECT_EQ(access(tree.Path("y.lck").c_str(), F_OK), -1);
}

}  // namespace
