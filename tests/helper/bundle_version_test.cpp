// Bundle version reading and the digit-run ordering that decides whether a driver is newer.
#include "helper/bundle_version.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "tests/file/temp_tree.h"

namespace {

std::string InfoPlist(std::string const& versionEntry) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<plist version=\"1.0\"><dict>"
           "<key>CFBundleIdentifier</key><string>com.example.driver</string>" +
           versionEntry + "</dict></plist>\n";
}

std::string Version(std::string const& version) {
    return InfoPlist("<key>CFBundleVersion</key><string>" + version + "</string>");
}

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

TEST(VersionFromInfoPlist, XmlAndBinaryAreReadLongOnesCutAndUnreadableIsZero) {
    // "bplist00", one dict of one key-value pair: "CFBundleVersion" -> "2.5".
    static char const kBinary[] =
        "bplist00\xd1\x01\x02_\x10\x0f"
        "CFBundleVersionS2.5\x08\x0b\x1d\x00\x00\x00\x00\x00\x00\x01\x01\x00\x00\x00\x00\x00"
        "\x00\x00\x03\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x21";
    std::string const longVersion(400, '7');
    std::pair<std::string, char const*> const cases[] = {
        {Version("1.10"), "1.10"},
        {std::string(kBinary, sizeof kBinary - 1), "2.5"},
        {Version(longVersion), nullptr},
        {std::string(), "0"},
        {"not a property list", "0"},
        {InfoPlist(""), "0"},
        {InfoPlist("<key>CFBundleVersion</key><integer>3</integer>"), "0"},
        {"<plist version=\"1.0\"><array><string>1.2</string></array></plist>", "0"},
    };
    for (auto const& [plist, expected] : cases) {
        char version[kLVADHelperTextSize] = "junk";
        std::string const want = expected ? expected : longVersion.substr(0, 259);
        EXPECT_EQ(LVADHelperVersionFromInfoPlist(plist, version), want != "0") << plist;
        EXPECT_EQ(version, want) << plist;
    }
}

TEST(ReadBundleVersion, ReadsContentsInfoPlistOrZero) {
    ltest::TempTree tree;
    std::string const bundle = tree.MakeFile("A.driver/Contents/Info.plist", Version("1.9"));
    tree.MakeFolder("Empty.driver");
    // A FIFO answers at once (nobody writes to it); a link to a good list is not followed.
    ASSERT_EQ(mkfifo(tree.MakeFolder("F.driver/Contents").append("/Info.plist").c_str(), 0644), 0);
    std::filesystem::create_symlink(bundle, tree.MakeFolder("L.driver/Contents") + "/Info.plist");
    char version[kLVADHelperTextSize];
    EXPECT_TRUE(LVADHelperReadBundleVersion(tree.Path("A.driver").c_str(), version));
    EXPECT_STREQ(version, "1.9");
    auto zero = [&](char const* path) {
        strcpy(version, "junk");
        return !LVADHelperReadBundleVersion(path, version) && std::string(version) == "0";
    };
    EXPECT_TRUE(zero(nullptr));
    for (char const* name : {"none.driver", "Empty.driver", "F.driver", "L.driver", ""})
        EXPECT_TRUE(zero(*name ? tree.Path(name).c_str() : "")) << name;
}
