#include "debug/lmachine.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "tests/file/temp_tree.h"

namespace {

std::string ReadFile(char const* path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(MachineData, PercentEncodingKeepsUnreservedAndBangAndCutsAtBuffer) {
    struct {
        std::string text, encoded;
    } const cases[] = {
        {"AZaz09!-._~", "AZaz09!-._~"},
        {"&memphys=1 (2 CPUs)", "%26memphys%3D1%20%282%20CPUs%29"},
        {"\xC3\xA9/\x01", "%C3%A9%2F%01"},
    };
    char out[kLMachineDataSize];
    for (auto const& c : cases) {
        _LMachineDataEncode(c.text.c_str(), out, sizeof out);
        EXPECT_EQ(out, c.encoded);
    }
    std::string const many(3000, '&');
    _LMachineDataEncode(many.c_str(), out, sizeof out);
    EXPECT_EQ(std::string(out).size(), kLMachineDataSize - 1);
    EXPECT_EQ(std::string(out).substr(8187), "%26%2");  // cut inside an escape
}

TEST(MachineData, CPUInfoModelName) {
    char out[260];
    EXPECT_TRUE(_LMachineCPUInfoModelName(
        "processor\t: 0\nmodel\t\t: 85\nmodel name\t: Intel(R) Xeon(R) CPU @ 2.20GHz\n", out));
    EXPECT_STREQ(out, "Intel(R) Xeon(R) CPU @ 2.20GHz");
    EXPECT_TRUE(_LMachineCPUInfoModelName("model name : " + std::string(300, 'x'), out));
    EXPECT_EQ(std::string(out), std::string(259, 'x'));
    EXPECT_FALSE(_LMachineCPUInfoModelName("processor\t: 0\nmodel\t\t: 85\n", out));
    EXPECT_STREQ(out, "");
}

// The machine's own description against the system's PCI listing, meminfo and cpuinfo.
TEST(MachineData, DescribesThisMachine) {
    FILE* lspci = popen("lspci -mm 2>/dev/null", "r");
    ASSERT_NE(lspci, nullptr);
    std::string display;
    char line[1024];
    size_t index = 0;
    while (fgets(line, sizeof line, lspci) != nullptr) {
        // slot "class" "vendor" "device" ...: the device name is the third quoted field.
        std::string fields[3];
        std::istringstream in(line);
        std::string slot;
        in >> slot;
        for (auto& f : fields) {
            in >> std::quoted(f);
        }
        display += "GPU" + std::to_string(index++) + ":" + fields[2];
    }
    if (pclose(lspci) != 0 || index == 0) {
        GTEST_SKIP() << "no PCI listing on this machine";
    }
    std::string const meminfo = ReadFile("/proc/meminfo");
    unsigned long const kb = std::stoul(meminfo.substr(meminfo.find("MemTotal:") + 9));
    char cpu[260];
    ASSERT_TRUE(_LMachineCPUInfoModelName(ReadFile("/proc/cpuinfo"), cpu));
    std::string const expected = "&memphys=" + std::to_string(kb >> 10) + "&cpu=" + cpu + " (" +
                                 std::to_string(sysconf(_SC_NPROCESSORS_CONF)) +
                                 " CPUs)&disp=" + display;

    char buffer[kLMachineDataSize] = "keep";
    LFixedLengthStringWriterTemplate<char> writer(buffer, 4, sizeof buffer - 1);
    LDebugGetMachineDataForBugReport(writer);
    writer.Terminate();
    EXPECT_EQ(buffer, "keep" + expected);

    LFixedLengthStringWriterTemplate<char> crash(buffer, sizeof buffer - 1);
    LDebugGetMachineDataForCrashReport(crash, 812, -1);
    crash.Terminate();
    EXPECT_EQ(buffer, "memfrhp=812&memfrlg=-1&" + expected);

    char encoded[kLMachineDataSize], reference[kLMachineDataSize];
    LDebugGetMachineDataForCrashReport(encoded, 812, -1);
    _LMachineDataEncode(buffer, reference, sizeof reference);
    EXPECT_STREQ(encoded, reference);
    EXPECT_EQ(std::string(encoded).substr(0, 31), "memfrhp%3D812%26memfrlg%3D-1%26");
    LDebugGetMachineDataForBugReport(encoded);
    _LMachineDataEncode(expected.c_str(), reference, sizeof reference);
    EXPECT_STREQ(encoded, reference);
}

class CrashReportTest : public ::testing::Test {
protected:
    ltest::TempTree tree_;
    std::string const exe_ = "/Applications/KavelPL.app/Contents/MacOS/KavelPLVadHelper";

    // A report with the five header lines, each replaceable (an empty value drops the line).
    std::string Write(std::string const& name, std::map<std::string, std::string> changes) {
        std::map<std::string, std::string> header = {
            {"Process:", "KavelPLVadHelper [812]"},
            {"Path:", "/Volumes/Copy/KavelPL.app/Contents/MacOS/KavelPLVadHelper"},
            {"Identifier:", "KavelPLVadHelper"},
            {"Version:", "1.0"},
            {"Date/Time:", "2024-05-06 07:08:09.123 +0200"},
        };
        for (auto const& [key, value] : changes) {
            header[key] = value;
        }
        std::string text = "\n";
        for (auto const& [key, value] : header) {
            if (!value.empty()) {
                text += key + "          " + value + "\n";
            }
        }
        return tree_.MakeFile(name, text + "\nThread 0 Crashed:\n");
    }
    std::string Latest() {
        char path[260] = "untouched";
        bool found =
            _LFindLatestCrashReport(tree_.root().c_str(), "KavelPL.app", exe_.c_str(), path);
        EXPECT_EQ(found, std::string(path) != "untouched");
        return std::filesystem::path(path).filename().string();
    }
};

TEST_F(CrashReportTest, NewestMatchingReportWins) {
    Write("KavelPLVadHelper_a.crash", {{"Date/Time:", "2023-01-01 10:00:00"}});
    std::string const newest = "kavelplvadhelper_b.crash";  // the name pattern ignores case
    Write(newest, {});
    for (auto const& [name, change] : std::map<std::string, std::pair<std::string, std::string>>{
             {"KavelPLVadHelper_v11.crash", {"Version:", "1.1"}},
             {"KavelPLVadHelper_id.crash", {"Identifier:", "KavelPLVadHelperX"}},
             {"KavelPLVadHelper_proc.crash", {"Process:", "Other [1]"}},
             {"KavelPLVadHelper_path.crash", {"Path:", "/Applications/Other.app/Contents/MacOS/x"}},
             {"KavelPLVadHelper_tail.crash", {"Path:", "/KavelPL.app/Contents/MacOS/Renamed"}},
             {"KavelPLVadHelper_date.crash", {"Date/Time:", "2025-01-01 10:00"}},
             {"KavelPLVadHelper_none.crash", {"Date/Time:", ""}},
         }) {
        std::map<std::string, std::string> changes = {{"Date/Time:", "2025-06-01 00:00:00"}};
        changes[change.first] = change.second;  // each newer than the winner, but broken
        Write(name, changes);
    }
    Write("Other_2026.crash", {{"Date/Time:", "2026-01-01 00:00:00"}});
    EXPECT_EQ(Latest(), newest);
    std::filesystem::remove(tree_.Path(newest));
    EXPECT_EQ(Latest(), "KavelPLVadHelper_a.crash");
    std::filesystem::remove(tree_.Path("KavelPLVadHelper_a.crash"));
    EXPECT_EQ(Latest(), "untouched");
}

}  // namespace
