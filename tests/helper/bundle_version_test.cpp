// Bundle version reading and the digit-run ordering that decides whether a driver is newer.
#include "helper/bundle_version.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

namespace {

std::string InfoPlist(std::string const& versionEntry) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<plist version=\"1.0\"><dict>"
           "<key>CFBundleIdentifier</key><string>com.example.driver</string>" +
           versionEntry + "</dict></plist>\n";
}

class BundleDir : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/bundle_version_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
    }
    void TearDown() override { fs::remove_all(root_); }

    std::string MakeBundle(std::string const& name, std::string const& plist) {
        fs::path bundle = root_ / name;
        fs::create_directories(bundle / "Contents");
        std::ofstream(bundle / "Contents" / "Info.plist", std::ios::binary) << plist;
        return bundle.string();
    }

    fs::path root_;
};

}  // namespace

TEST(CompareVersions, DigitRunsCompareByValue) {
    EXPECT_GT(LVADHelperCompareVersions("1.10", "1.9"), 0);
    EXPECT_LT(LVADHelperCompareVersions("1.9", "1.10"), 0);
    EXPECT_EQ(LVADHelperCompareVersions("1.1", "1.1"), 0);
    EXPECT_GT(LVADHelperCompareVersions("2", "1.99"), 0);
    EXPECT_GT(LVADHelperCompareVersions("10", "9"), 0);
    EXPECT_GT(LVADHelperCompareVersions("1.0.10", "1.0.9"), 0);
    EXPECT_GT(LVADHelperCompareVersions("123456789012345678901234567890",
                                        "99999999999999999999999999999"),
              0);
}

TEST(CompareVersions, LeadingZerosAndPrefixes) {
    EXPECT_EQ(LVADHelperCompareVersions("1.01", "1.1"), 0);
    EXPECT_EQ(LVADHelperCompareVersions("007", "7"), 0);
    EXPECT_EQ(LVADHelperCompareVersions("0", "000"), 0);
    EXPECT_GT(LVADHelperCompareVersions("1.1.0", "1.1"), 0);
    EXPECT_LT(LVADHelperCompareVersions("1.1", "1.1.0"), 0);
    EXPECT_GT(LVADHelperCompareVersions("1.1", "0"), 0);
    EXPECT_LT(LVADHelperCompareVersions("", "0"), 0);
    EXPECT_EQ(LVADHelperCompareVersions("", ""), 0);
}

TEST(CompareVersions, NonDigitsCompareByByte) {
    EXPECT_GT(LVADHelperCompareVersions("1.1b", "1.1a"), 0);
    EXPECT_LT(LVADHelperCompareVersions("1a", "1b2"), 0);
    // A digit sorts before a letter, as their byte values do.
    EXPECT_LT(LVADHelperCompareVersions("1.1", "1.a"), 0);
    EXPECT_EQ(LVADHelperCompareVersions("beta", "beta"), 0);
}

TEST(VersionFromInfoPlist, XmlAndBinary) {
    char version[kLVADHelperTextSize];
    EXPECT_TRUE(LVADHelperVersionFromInfoPlist(
        InfoPlist("<key>CFBundleVersion</key><string>1.10</string>"), version));
    EXPECT_STREQ(version, "1.10");

    // "bplist00", one dict of one key-value pair: "CFBundleVersion" -> "2.5".
    static char const kBinary[] =
        "bplist00\xd1\x01\x02_\x10\x0f"
        "CFBundleVersionS2.5\x08\x0b\x1d\x00\x00\x00\x00\x00\x00\x01\x01\x00\x00\x00\x00\x00"
        "\x00\x00\x03\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x21";
    std::string const binary(kBinary, sizeof kBinary - 1);
    EXPECT_TRUE(LVADHelperVersionFromInfoPlist(binary, version));
    EXPECT_STREQ(version, "2.5");
}

TEST(VersionFromInfoPlist, UnreadableIsZero) {
    char version[kLVADHelperTextSize] = "junk";
    EXPECT_FALSE(LVADHelperVersionFromInfoPlist("", version));
    EXPECT_STREQ(version, "0");
    strcpy(version, "junk");
    EXPECT_FALSE(LVADHelperVersionFromInfoPlist("not a property list", version));
    EXPECT_STREQ(version, "0");
    EXPECT_FALSE(LVADHelperVersionFromInfoPlist(InfoPlist(""), version));
    EXPECT_STREQ(version, "0");
    EXPECT_FALSE(LVADHelperVersionFromInfoPlist(
        InfoPlist("<key>CFBundleVersion</key><integer>3</integer>"), version));
    EXPECT_STREQ(version, "0");
    EXPECT_FALSE(LVADHelperVersionFromInfoPlist(
        "<plist version=\"1.0\"><array><string>1.2</string></array></plist>", version));
    EXPECT_STREQ(version, "0");
}

TEST(VersionFromInfoPlist, LongVersionIsCut) {
    char version[kLVADHelperTextSize];
    std::string const longVersion(400, '7');
    EXPECT_TRUE(LVADHelperVersionFromInfoPlist(
        InfoPlist("<key>CFBundleVersion</key><string>" + longVersion + "</string>"), version));
    EXPECT_EQ(std::string(version), longVersion.substr(0, 259));
}

TEST_F(BundleDir, ReadsContentsInfoPlist) {
    std::string bundle =
        MakeBundle("A.driver", InfoPlist("<key>CFBundleVersion</key><string>1.9</string>"));
    char version[kLVADHelperTextSize];
    EXPECT_TRUE(LVADHelperReadBundleVersion(bundle.c_str(), version));
    EXPECT_STREQ(version, "1.9");
}

TEST_F(BundleDir, MissingBundleOrListReadsZero) {
    char version[kLVADHelperTextSize] = "junk";
    EXPECT_FALSE(LVADHelperReadBundleVersion((root_ / "none.driver").c_str(), version));
    EXPECT_STREQ(version, "0");
    fs::create_directories(root_ / "Empty.driver");
    EXPECT_FALSE(LVADHelperReadBundleVersion((root_ / "Empty.driver").c_str(), version));
    EXPECT_STREQ(version, "0");
    EXPECT_FALSE(LVADHelperReadBundleVersion("", version));
    EXPECT_FALSE(LVADHelperReadBundleVersion(nullptr, version));
    EXPECT_STREQ(version, "0");
}
