// The property lists inside the built service executable: read back from its ELF sections
// and parsed as launchd and the service-management framework would.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <string_view>

#include "service_process.h"

namespace fs = std::filesystem;

namespace {

// The bytes of one section of the service executable, through objcopy.
std::string Section(char const* name) {
    char tmpl[] = "/tmp/embedded_plists_test.XXXXXX";
    if (!mkdtemp(tmpl))
        return "";
    fs::path out = fs::path(tmpl) / "section";
    std::string command = std::string("objcopy -O binary --only-section=") + name + " '" +
                          helper_test::ServiceExecutable() + "' '" + out.string() + "'";
    std::string bytes;
    if (std::system(command.c_str()) == 0) {
        std::ifstream in(out, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    fs::remove_all(tmpl);
    return bytes;
}

struct Plist {
    explicit Plist(std::string const& bytes) {
        plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    }
    ~Plist() {
        if (root)
            plist_free(root);
    }
    plist_t root = nullptr;
};

std::string StringAt(plist_t dict, char const* key) {
    plist_t item = plist_dict_get_item(dict, key);
    if (!item || plist_get_node_type(item) != PLIST_STRING)
        return "<missing>";
    uint64_t length = 0;
    char const* text = plist_get_string_ptr(item, &length);
    return std::string(text, length);
}

// Splits "identifier <id> and certificate leaf[subject.CN] = "<name> (<TEAMID>)"" into the
// bundle identifier and the quoted common name, whose team identifier is ten upper-case
// letters or digits; false for any other form.
bool ParseRequirement(std::string_view text, std::string& id, std::string& name) {
    constexpr std::string_view kHead = "identifier ";
    constexpr std::string_view kMiddle = " and certificate leaf[subject.CN] = \"";
    size_t const middle = text.find(kMiddle);
    if (!text.starts_with("identifier com.tessalysoftware.") || middle == text.npos ||
        !text.ends_with(")\""))
        return false;
    id = text.substr(kHead.size(), middle - kHead.size());
    name = text.substr(middle + kMiddle.size(), text.size() - middle - kMiddle.size() - 1);
    if (name.size() < 14 || name.find('"') != name.npos ||
        name.compare(name.size() - 13, 2, " (") != 0)
        return false;
    auto const idChar = [](unsigned char c) { return std::isalnum(c) || c == '.'; };
    auto const teamChar = [](unsigned char c) { return std::isupper(c) || std::isdigit(c); };
    return std::all_of(id.begin(), id.end(), idChar) &&
           std::all_of(name.end() - 11, name.end() - 1, teamChar);
}

}  // namespace

TEST(EmbeddedPlists, InfoPlistIdentifiesTheServiceAndItsClients) {
    std::string bytes = Section(".info_plist");
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ(bytes.rfind("<?xml", 0), 0u);  // XML, the section holding nothing else
    Plist plist(bytes);
    ASSERT_NE(plist.root, nullptr);
    ASSERT_EQ(plist_get_node_type(plist.root), PLIST_DICT);
    EXPECT_EQ(StringAt(plist.root, "CFBundleIdentifier"), "com.tessalysoftware.KavelPL.VadHelper");
    EXPECT_EQ(StringAt(plist.root, "CFBundleInfoDictionaryVersion"), "6.0");
    EXPECT_EQ(StringAt(plist.root, "CFBundleName"), "KavelPLVadhelper");
    EXPECT_EQ(StringAt(plist.root, "CFBundleVersion"), "1.1");

    plist_t clients = plist_dict_get_item(plist.root, "SMAuthorizedClients");
    ASSERT_NE(clients, nullptr);
    ASSERT_EQ(plist_get_node_type(clients), PLIST_ARRAY);
    ASSERT_EQ(plist_array_get_size(clients), 28u);
    // One requirement per edition, all signed with one certificate.
    std::set<std::string> identifiers, certificates;
    for (uint32_t i = 0; i < 28; ++i) {
        plist_t item = plist_array_get_item(clients, i);
        ASSERT_EQ(plist_get_node_type(item), PLIST_STRING);
        uint64_t length = 0;
        char const* chars = plist_get_string_ptr(item, &length);
        std::string text(chars, length);
        std::string id, name;
        ASSERT_TRUE(ParseRequirement(text, id, name)) << text;
        identifiers.insert(id);
        certificates.insert(name);
    }
    EXPECT_EQ(identifiers.size(), 28u);
    EXPECT_EQ(certificates.size(), 1u);
}

TEST(EmbeddedPlists, LaunchdPlistNamesTheMachService) {
    std::string bytes = Section(".launchd_plist");
    ASSERT_FALSE(bytes.empty());
    Plist plist(bytes);
    ASSERT_NE(plist.root, nullptr);
    EXPECT_EQ(StringAt(plist.root, "Label"), "com.tessalysoftware.KavelPL.VadHelper");
    plist_t services = plist_dict_get_item(plist.root, "MachServices");
    ASSERT_NE(services, nullptr);
    ASSERT_EQ(plist_get_node_type(services), PLIST_DICT);
    EXPECT_EQ(plist_dict_get_size(services), 1u);
    plist_t entry = plist_dict_get_item(services, "com.tessalysoftware.KavelPL.VadHelper");
    ASSERT_NE(entry, nullptr);
    ASSERT_EQ(plist_get_node_type(entry), PLIST_BOOLEAN);
    uint8_t value = 0;
    plist_get_bool_val(entry, &value);
    EXPECT_TRUE(value);
}
