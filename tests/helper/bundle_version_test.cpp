// Bundle version reading and the digit-run ordering that decides whether a driver is newer.
#include "helper/bundle_version.h"

#include <sys/stat.h>

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

TEST(CompareVersions, DigitRunsByValueOtherBytesByByte) {
    struct Case {
        char const* a;
        char const* b;
        int sign;
    };
    // clang-format off
    Case const cases[] = {
        {"1.10", "1.9", 1}, {"1.1", "1.1", 0}, {"2", "1.99", 1}, {"10", "9", 1},
        {"1.0.10", "1.0.9", 1}, {"123456789012345678901234567890", "99999999999999999999999999999", 1},
        {"1.01", "1.1", 0}, {"007", "7", 0}, {"0", "000", 0}, {"1.1.0", "1.1", 1}, {"1.1", "0", 1},
        {"", "0", -1}, {"", "", 0}, {"1.1b", "1.1a", 1}, {"1a", "1b2", -1}, {"beta", "beta", 0},
        {"1.1", "1.a", -1},  // a digit sorts before a letter, as their byte values do
    };
    // clang-format on
    for (Case const& c : cases) {
        SCOPED_TRACE(std::string(c.a) + " vs " + c.b);
        int const forward = LVADHelperCompareVersions(c.a, c.b);
        int const backward = LVADHelperCompareVersions(c.b, c.a);
        EXPECT_EQ((forward > 0) - (forward < 0), c.sign);
        EXPECT_EQ((backward > 0) - (backward < 0), -c.sign);
    }
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
    for (std::string const& plist :
         {std::string(), std::string("not a property list"), InfoPlist(""),
          InfoPlist("<key>CFBundleVersion</key><integer>3</integer>"),
          std::string("<plist version=\"1.0\"><array><string>1.2</string></array></plist>")}) {
        char version[kLVADHelperTextSize] = "junk";
        EXPECT_FALSE(LVADHelperVersionFromInfoPlist(plist, version)) << plist;
        EXPECT_STREQ(version, "0") << plist;
    }
}

TEST(VersionFromInfoPlist, LongVersionIsCut) {
    char version[kLVADHelperTextSize];
    std::string const longVersion(400, '7');
    EXPECT_TRUE(LVADHelperVersionFromInfoPlist(
        InfoPlist("<key>CFBundleVersion</key><string>" + longVersion + "</string>"), version));
    EXPECT_EQ(std::string(version), longVersion.substr(0, 259));
}

TEST_F(BundleDir, ReadsContentsInfoPlistOrZero) {
    std::string bundle =
        MakeBundle("A.driver", InfoPlist("<key>CFBundleVersion</key><string>1.9</string>"));
    char version[kLVADHelperTextSize];
    EXPECT_TRUE(LVADHelperReadBundleVersion(bundle.c_str(), version));
    EXPECT_STREQ(version, "1.9");
    fs::create_directories(root_ / "Empty.driver");
    for (std::string const& missing :
         {(root_ / "none.driver").string(), (root_ / "Empty.driver").string(), std::string()}) {
        strcpy(version, "junk");
        EXPECT_FALSE(LVADHelperReadBundleVersion(missing.c_str(), version)) << missing;
        EXPECT_STREQ(version, "0");
    }
    strcpy(version, "junk");
    EXPECT_FALSE(LVADHelperReadBundleVersion(nullptr, version));
    EXPECT_STREQ(version, "0");

    // A FIFO answers at once (nobody writes to it); a link to a good list is not followed.
    for (char const* name : {"F.driver", "L.driver"})
        fs::create_directories(root_ / name / "Contents");
    ASSERT_EQ(mkfifo((root_ / "F.driver/Contents/Info.plist").c_str(), 0644), 0);
    fs::create_symlink(fs::path(bundle) / "Contents/Info.plist",
                       root_ / "L.driver/Contents/Info.plist");
    for (char const* name : {"F.driver", "L.driver"})
        EXPECT_FALSE(LVADHelperReadBundleVersion((root_ / name).c_str(), version)) << name;
}
