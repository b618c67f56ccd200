// Data files: the written format and its save order, reading and merging, the 259-character
// cut, case-insensitive names, typed accessors, two processes on one file, and eviction
// through an injected clock.
#include "settings/ldatfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include <gtest/gtest.h>

#include "settings/lhashtable.h"
#include "tests/file/temp_tree.h"
#include "tests/thread/child_process.h"

namespace {

using ltest::Slurp;

class DatFileTest : public ::testing::Test {
protected:
    std::string Get(char const* section, char const* key, char const* fallback = "-") {
        char out[kLDatFileTextSize];
        LDatFileGetValue(path.c_str(), section, key, fallback, out);
        return out;
    }
    void Set(char const* section, char const* key, char const* value) {
        LDatFileSetValue(path.c_str(), section, key, value);
    }
    ltest::TempTree tree;
    std::string path = tree.Path("settings.dat");
    LDatFile file{path.c_str()};
};

TEST_F(DatFileTest, FirstValueOfNewSectionReachesDiskWithTheNextSave) {
    Set("Audio", "Volume", "7");
    EXPECT_EQ(Slurp(path), "");
    EXPECT_EQ(Get("Audio", "Volume"), "7");
    LDatFileFlush(path.c_str());  // not dirty: the save before the section joined cleared it
    EXPECT_EQ(Slurp(path), "");
    Set("Audio", "Gain", "2");
    Set("Video", "Fps", "30");
    EXPECT_EQ(Slurp(path), "[Audio]\r\nVolume=7\r\nGain=2\r\n\r\n");
    Set("Audio", "Volume", nullptr);
    EXPECT_EQ(Slurp(path), "[Audio]\r\nGain=2\r\n\r\n[Video]\r\nFps=30\r\n\r\n");
    // A removed section stays on disk until something saves the file again.
    Set("Video", nullptr, nullptr);
    EXPECT_EQ(Get("Video", "Fps"), "-");
    EXPECT_NE(Slurp(path).find("Fps"), std::string::npos);
    LDatFileFlush(path.c_str());
    EXPECT_EQ(Slurp(path), "[Audio]\r\nGain=2\r\n\r\n");
}

TEST_F(DatFileTest, NamesIgnoreCaseAndKeepTheirFirstSpellingAndTextsAreCut) {
    Set("Audio", "Volume", "1");
    Set("AUDIO", "volume", "2");
    Set("audio", "VOLUME", "3");
    EXPECT_EQ(Slurp(path), "[Audio]\r\nVolume=3\r\n\r\n");
    char out[kLDatFileTextSize];
    LDatFileGetValue(tree.Path("SETTINGS.DAT").c_str(), "aUdIo", "vOlUmE", "", out);
    EXPECT_STREQ(out, "3");
    const std::string longKey(300, 'k');
    const std::string longValue = std::string(259, 'v') + "tail";
    Set("Audio", longKey.c_str(), longValue.c_str());
    const std::string otherLongKey = std::string(259, 'K') + "different";
    EXPECT_EQ(Get("Audio", otherLongKey.c_str()), longValue.substr(0, 259));
    EXPECT_NE(Slurp(path).find(std::string(259, 'k') + "=" + std::string(259, 'v') + "\r\n"),
              std::string::npos);
}

TEST_F(DatFileTest, ReadingMergesLinesOfEveryEndingAndCutsLongLines) {
    const std::string longLine = "long=" + std::string(600, 'x');
    tree.MakeFile("settings.dat",
                  "orphan=1\n[Main]\r\n a = b \nurl=x=y\n\r[main\rnoequals\r\n[Other]x\n"
                  "k=1\r\n[MAIN]\nk=2\n" +
                      longLine + "\n");
    EXPECT_EQ(Get("Main", "orphan"), "-");
    EXPECT_EQ(Get("Main", " a "), " b ");
    EXPECT_EQ(Get("Main", "url"), "x=y");
    EXPECT_EQ(Get("main", "k"), "2");
    EXPECT_EQ(Get("Other", "k"), "1");
    EXPECT_EQ(Get("main", "long"), std::string(259, 'x'));  // 551 characters read, 259 kept
}

TEST_F(DatFileTest, TypedAccessorsListItemsAndTablesWriteAndReadTheirTextForms) {
    file.SetString("S", "seed", "x");  // makes the section, so each later set is saved
    file.SetLong("S", "long", 4294967297L);
    file.SetInt64("S", "big", 4294967297LL);
    file.SetDayTime("S", "day", LDayTime(3725));
    file.SetDB("S", "silence", LdB<signed char>(-128));
    file.SetDB("S", "level", LdB<signed char>(-6));
    file.SetSoundTime("S", "pos", LSoundTime(3723500));
    EXPECT_EQ(Slurp(path),
              "[S]\r\nseed=x\r\nlong=1\r\nbig=4294967297\r\nday=01:02:05\r\nsilence=--dB\r\n"
              "level=-6dB\r\npos=1:02:03.500\r\n\r\n");
    EXPECT_EQ(file.GetLong("S", "long", 9), 1);
    EXPECT_EQ(file.GetInt64("S", "big", 9), 4294967297LL);
    EXPECT_EQ(file.GetDayTime("S", "day", 9).GetSeconds(), 3725);
    EXPECT_EQ(file.GetDB("S", "silence", 9).GetValue(), -127);
    EXPECT_EQ(file.GetDB("S", "level", 9).GetValue(), -6);
    EXPECT_EQ(file.GetSoundTime("S", "pos", 9).GetTime(), 3723500);
    EXPECT_EQ(file.GetLong("S", "missing", 9), 9);
    file.SetString("S", "short", "1:2");
    EXPECT_EQ(file.GetDayTime("S", "short", 9).GetSeconds(), 3720);
    const std::pair<char const*, bool> bools[] = {{"t", true}, {"tx", true}, {"True", false}};
    for (auto const& [text, expected] : bools) {
        file.SetString("S", "flag", text);
        EXPECT_EQ(file.GetBool("S", "flag", !expected), expected) << text;
    }
    EXPECT_TRUE(file.GetBool("S", "absent", true));
    EXPECT_EQ(file.AddList("L", "item"), 0);
    EXPECT_EQ(file.AddList("L", "item"), 1);
    EXPECT_EQ(file.AddList("L", "item"), 2);
    file.SetString("L", "item0name", "zero");
    file.SetString("L", "item2name", "two");
    file.MoveListItem("L", "item", "name", 0, 2);
    EXPECT_EQ(Get("L", "item0name"), "-");
    EXPECT_EQ(Get("L", "item2name"), "zero");
    EXPECT_EQ(file.GetListCount("L", "item"), 3);
    // A table is saved pair by pair, in key order.
    LHashTable table;
    table.SetString("b", "2");
    table.SetString("a", "1");
    table.SetString("C", "3");
    table.SaveDatFile(file, "T");
    EXPECT_NE(Slurp(path).find("[T]\r\nC=3\r\na=1\r\nb=2\r\n\r\n"), std::string::npos);
}

TEST_F(DatFileTest, ChangesOfAnotherProcessAreMergedByTimeOrSize) {
    Set("S", "a", "1");
    Set("S", "b", "2");
    ASSERT_EQ(Get("S", "a"), "1");
    pid_t child = ltest::ForkChild([&] {
        Set("S", "a", "100");  // new size
        Set("S", "b", nullptr);
        return Slurp(path) == "[S]\r\na=100\r\n\r\n" ? 0 : 1;
    });
    ASSERT_EQ(ltest::WaitChild(child), 0);
    EXPECT_EQ(Get("S", "a"), "100");
    EXPECT_EQ(Get("S", "b"), "2");  // removed on disk, still in memory
    child = ltest::ForkChild([&] {
        Set("S", "a", "200");  // same size: only the time tells
        struct timespec later[2] = {{0, UTIME_OMIT}, {time(nullptr) + 5, 0}};
        return utimensat(AT_FDCWD, path.c_str(), later, 0);
    });
    ASSERT_EQ(ltest::WaitChild(child), 0);
    EXPECT_EQ(Get("S", "a"), "200");
}

std::atomic<uint32_t> gFakeNow{0};
uint32_t FakeClock() {
    return gFakeNow.load();
}

TEST_F(DatFileTest, IdleFilesAreEvictedAfterTenMinutesOfTheWrappingClock) {
    const uint32_t start = 0xFFFFFFFFu - 1000;  // the idle spans cross the wrap
    _LDatFileSetClock(FakeClock);
    gFakeNow = start - 1;
    const std::string other = tree.Path("other.dat");
    LDatFileSetValue(other.c_str(), "G", "x", "1");
    LDatFileSetValue(other.c_str(), "G", "y", "1");
    LDatFileSetValue(other.c_str(), "G", nullptr, nullptr);  // dirty, not saved
    gFakeNow = start;
    Set("S", "a", "1");
    Set("S", "b", "2");
    tree.MakeFile("settings.dat", "[S]\r\na=1\r\n");
    gFakeNow = start + kLDatFileIdleMs - 1;
    EXPECT_EQ(Get("S", "b"), "2");  // merged from memory
    LDatFileFlush();
    EXPECT_EQ(Slurp(other), "");  // evicted, and saved first because it was dirty
    EXPECT_EQ(Get("S", "b"), "2");
    gFakeNow = start + kLDatFileIdleMs;
    LDatFileFlush();
    _LDatFileSetClock(nullptr);
    EXPECT_EQ(Get("S", "b"), "-");  // a fresh record knows only the disk
}

}  // namespace
