#include "debug/lmachine.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "tests/file/temp_tree.h"

namespace {

// The output of a shell command, without its last line end.
std::string Shell(char const* command) {
    std::string out;
    FILE* pipe = popen(command, "r");
    for (int c; (c = fgetc(pipe)) != EOF;) {
        out += static_cast<char>(c);
    }
    pclose(pipe);
    return out.empty() || out.back() != '\n' ? out : out.substr(0, out.size() - 1);
}

std::string Encode(std::string const& text) {
    char out[kLMachineDataSize];
    _LMachineDataEncode(text.c_str(), out, sizeof out);
    return out;
}

TEST(MachineData, PercentEncodingKeepsBangAndCuts) {
    EXPECT_EQ(Encode("AZaz09!-._~&m=1 (2)\xC3\xA9/\x01"),
              "AZaz09!-._~%26m%3D1%20%282%29%C3%A9%2F%01");
    EXPECT_EQ(Encode(std::string(3000, '&')).substr(8187), "%26%2");  // cut inside an escape
}

// This machine's description against the system's PCI listing, meminfo and cpuinfo.
TEST(MachineData, DescribesThisMachine) {
    // The device name is the third quoted field of each line.
    std::string const display = Shell(
        "lspci -mm 2>/dev/null | sed -E 's/^[^\"]*\"[^\"]*\" \"[^\"]*\" \"([^\"]*)\".*/\\1/' | "
        "awk '{ printf \"GPU%d:%s\", NR - 1, $0 }'");
    if (display.empty()) {
        GTEST_SKIP() << "no PCI listing on this machine";
    }
    std::string const expected =
        "&memphys=" + Shell("awk '/^MemTotal:/ { print int($2 / 1024) }' /proc/meminfo") +
        "&cpu=" + Shell("sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1") +
        " (" + Shell("getconf _NPROCESSORS_CONF") + " CPUs)&disp=" + display;

    char buffer[kLMachineDataSize] = "keep";
    LFixedLengthStringWriterTemplate<char> writer(buffer, 4, sizeof buffer - 1);
    LDebugGetMachineDataForBugReport(writer);
    writer.Terminate();
    EXPECT_EQ(buffer, "keep" + expected);
    char encoded[kLMachineDataSize];
    LDebugGetMachineDataForCrashReport(encoded, 812, -1);
    EXPECT_EQ(encoded, Encode("memfrhp=812&memfrlg=-1&" + expected));
}

TEST(CrashReport, NewestMatchingReportWins) {
    ltest::TempTree tree;
    // A report with the five header lines, one of them replaced by the change.
    auto write = [&](std::string const& name, std::string const& change) {
        std::string text =
            "Process:    KavelPLVadHelper [812]\n"
            "Path:       /Volumes/Copy/KavelPL.app/Contents/MacOS/KavelPLVadHelper\n"
            "Identifier: KavelPLVadHelper\nVersion:    1.0\n"
            "Date/Time:  2025-06-01 00:00:00.123 +0200\n\nThread 0 Crashed:\n";
        size_t const line = text.find(change.substr(0, change.find(':') + 1));
        tree.MakeFile(name, text.replace(line, text.find('\n', line) - line, change));
    };
    auto latest = [&] {
        char path[260] = "untouched";
        _LFindLatestCrashReport(tree.root().c_str(), "KavelPL.app",
                                "/Applications/KavelPL.app/Contents/MacOS/KavelPLVadHelper", path);
        return std::filesystem::path(path).filename().string();
    };
    write("KavelPLVadHelper_a.crash", "Date/Time: 2023-01-01 10:00:00");
    write("kavelplvadhelper_b.crash", "Date/Time: 2024-05-06 07:08:09");  // names ignore case
    write("Other.crash", "Version: 1.0");  // not named for this program
    write("KavelPLVadHelper_1.crash", "Version: 1.1");
    write("KavelPLVadHelper_2.crash", "Identifier: KavelPLVadHelperX");
    write("KavelPLVadHelper_3.crash", "Process: Other [1]");
    write("KavelPLVadHelper_4.crash", "Path: /KavelPL.app/Contents/MacOS/Renamed");
    write("KavelPLVadHelper_5.crash", "Date/Time: 2025-01-01 10:00");
    EXPECT_EQ(latest(), "kavelplvadhelper_b.crash");
    std::filesystem::remove(tree.Path("kavelplvadhelper_b.crash"));
    EXPECT_EQ(latest(), "KavelPLVadHelper_a.crash");
    std::filesystem::remove(tree.Path("KavelPLVadHelper_a.crash"));
    EXPECT_EQ(latest(), "untouched");
}

}  // namespace
