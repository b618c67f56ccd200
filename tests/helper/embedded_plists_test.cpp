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
#include <memory>
#include <set>
#include <string>
#include <string_view>

namespace {

using PlistPtr = std::unique_ptr<void, decltype(&plist_free)>;

// One section of the service executable, through objcopy, parsed (null when unreadable).
PlistPtr Section(char const* name, std::string& bytes) {
    char tmpl[] = "/tmp/embedded_plists_test.XXXXXX";
    std::string const out = std::string(mkdtemp(tmpl)) + "/section";
    std::string const command = std::string("objcopy -O binary --only-section=") + name + " '" +
                                VADHELPER_EXE + "' '" + out + "'";
    if (std::system(command.c_str()) == 0) {
        std::ifstream in(out, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    std::filesystem::remove_all(tmpl);
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    return PlistPtr(root, plist_free);
}

std::string Text(plist_t item) {
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
    std::string bytes;
    PlistPtr plist = Section(".info_plist", bytes);
    EXPECT_EQ(bytes.rfind("<?xml", 0), 0u);  // XML, the section holding nothing else
    ASSERT_TRUE(plist && plist_get_node_type(plist.get()) == PLIST_DICT);
    for (auto [key, value] :
         {std::pair{"CFBundleIdentifier", "com.tessalysoftware.KavelPL.VadHelper"},
          {"CFBundleVersion", "1.1"}})
        EXPECT_EQ(Text(plist_dict_get_item(plist.get(), key)), value) << key;

    plist_t clients = plist_dict_get_item(plist.get(), "SMAuthorizedClients");
    ASSERT_TRUE(clients && plist_get_node_type(clients) == PLIST_ARRAY);
    ASSERT_EQ(plist_array_get_size(clients), 28u);
    // One requirement per edition, all signed with one certificate.
    std::set<std::string> identifiers, certificates;
    for (uint32_t i = 0; i < 28; ++i) {
        std::string const text = Text(plist_array_get_item(clients, i));
        std::string id, name;
        ASSERT_TRUE(ParseRequirement(text, id, name)) << text;
        identifiers.insert(id);
        certificates.insert(name);
    }
    EXPECT_EQ(identifiers.size(), 28u);
    EXPECT_EQ(certificates.size(), 1u);
}

TEST(EmbeddedPlists, LaunchdPlistNamesTheMachService) {
    std::string bytes;
    PlistPtr plist = Section(".launchd_plist", bytes);
    ASSERT_TRUE(plist);
    char const* const name = "com.tessalysoftware.KavelPL.VadHelper";
    EXPECT_EQ(Text(plist_dict_get_item(plist.get(), "Label")), name);
    plist_t services = plist_dict_get_item(plist.get(), "MachServices");
    ASSERT_TRUE(services && plist_get_node_type(services) == PLIST_DICT);
    EXPECT_EQ(plist_dict_get_size(services), 1u);
    uint8_t value = 0;
    plist_t entry = plist_dict_get_item(services, name);
    ASSERT_TRUE(entry && plist_get_node_type(entry) == PLIST_BOOLEAN);
    plist_get_bool_val(entry, &value);
    EXPECT_TRUE(value);
}
