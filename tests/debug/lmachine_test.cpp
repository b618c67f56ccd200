#include "debug/lmachine.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
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
    EXPECT_EQ(Encode("AZaz09!-._~"), "AZaz09!-._~");
    EXPECT_EQ(Encode("&m=1 (2)\xC3\xA9/\x01"), "%26m%3D1%20%282%29%C3%A9%2F%01");
    std::string const cut = Encode(std::string(3000, '&'));
    EXPECT_EQ(cut.size(), kLMachineDataSize - 1);
    EXPECT_EQ(cut.substr(8187), "%26%2");  // cut inside an escape
}

// This machine's description against the system's PCI listing, meminfo and cpuinfo.
TEST(MachineData, DescribesThisMachine) {
    std::istringstream lspci(Shell("lspci -mm 2>/dev/null"));
    std::string display, line;
    for (size_t i = 0; std::getline(lspci, line); ++i) {
        std::string slot, kind, vendor, device;  // the device name is the third quoted field
        std::istringstream(line) >> slot >> std::quoted(kind) >> std::quoted(vendor) >>
            std::quoted(device);
        display += "GPU" + std::to_string(i) + ":" + device;
    }
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
    // Every report gets the five header lines; changes replace one (an empty value drops it).
    auto write = [&](std::string const& name, std::map<std::string, std::string> changes) {
        std::map<std::string, std::string> header = {
            {"Process:", "KavelPLVadHelper [812]"},
            {"Path:", "/Volumes/Copy/KavelPL.app/Contents/MacOS/KavelPLVadHelper"},
            {"Identifier:", "KavelPLVadHelper"},
            {"Version:", "1.0"},
            {"Date/Time:", "2025-06-01 00:00:00.123 +0200"}};
        std::string text = "\n";
        for (auto const& [key, value] : changes) {
            header[key] = value;
        }
        for (auto const& [key, value] : header) {
            text += value.empty() ? "" : key + "      " + value + "\n";
        }
        tree.MakeFile(name, text + "\nThread 0 Crashed:\n");
    };
    auto latest = [&] {
        char path[260] = "untouched";
        _LFindLatestCrashReport(tree.root().c_str(), "KavelPL.app",
                                "/Applications/KavelPL.app/Contents/MacOS/KavelPLVadHelper", path);
        return std::filesystem::path(path).filename().string();
    };
    write("KavelPLVadHelper_a.crash", {{"Date/Time:", "2023-01-01 10:00:00"}});
    write("kavelplvadhelper_b.crash", {{"Date/Time:", "2024-05-06 07:08:09"}});
    write("Other.crash", {});  // not named for this program
    write("KavelPLVadHelper_1.crash", {{"Version:", "1.1"}});
    write("KavelPLVadHelper_2.crash", {{"Identifier:", "KavelPLVadHelperX"}});
    write("KavelPLVadHelper_3.crash", {{"Process:", "Other [1]"}});
    write("KavelPLVadHelper_4.crash", {{"Path:", "/KavelPL.app/Contents/MacOS/Renamed"}});
    write("KavelPLVadHelper_5.crash", {{"Date/Time:", "2025-01-01 10:00"}});
    write("KavelPLVadHelper_6.crash", {{"Date/Time:", ""}});
    EXPECT_EQ(latest(), "kavelplvadhelper_b.crash");
    std::filesystem::remove(tree.Path("kavelplvadhelper_b.crash"));
    EXPECT_EQ(latest(), "KavelPLVadHelper_a.crash");
    std::filesystem::remove(tree.Path("KavelPLVadHelper_a.crash"));
    EXPECT_EQ(latest(), "untouched");
}

}  // namespace
