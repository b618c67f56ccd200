// Property lists: every value conversion through files written here and converted by the
// command-line property-list tool (and the reverse, binary included), the unescaped URL of
// the loader, and the dictionary queries.
#include "settings/lplist.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "settings/lcfstring.h"
#include "tests/file/temp_tree.h"

namespace {

void Set(LPlist& plist, const char* key, const void* value) {
    ASSERT_NE(value, nullptr);
    ASSERT_TRUE(plist.SetValue(key, value));
}

template <typename T>
void SetAs(LPlist& plist, const char* key, T value) {
    const void* made = nullptr;
    ASSERT_TRUE(LPlist::ConvertToValue(value, made));
    Set(plist, key, made);
}

template <typename T>
bool Read(LPlist& plist, const char* key, T& out) {
    const void* v = nullptr;
    return plist.GetValue(key, v) && LPlist::ConvertFromValue(v, out);
}

bool Convert(const std::string& from, const std::string& to, const char* format) {
    const std::string command =
        "plistutil -i '" + from + "' -o '" + to + "' -f " + format + " >/dev/null 2>&1";
    return std::system(command.c_str()) == 0;
}

TEST(Plist, EveryConversionThroughTheToolAndBackLoadingPathsAndFailures) {
    ltest::TempTree tree;
    LPlist nested;
    SetAs(nested, "inner", "deep");
    LPlist plist;
    SetAs(plist, "flag", true);
    SetAs(plist, "count", -7);
    SetAs(plist, "ratio", 0.5f);
    SetAs(plist, "name", "caf\xC3\xA9 & <tag>");
    SetAs(plist, "long", LStringLongTemplate<char>("x"));
    SetAs(plist, "null", static_cast<const char*>(nullptr));
    SetAs(plist, "child", nested);
    plist_t array = plist_new_array();
    plist_array_append_item(array, plist_new_string("a"));
    plist_array_append_item(array, plist_new_string("b"));
    Set(plist, "list", array);
    const std::string xml = tree.Path("ours.plist"), bin = tree.Path("tool.bin");
    ASSERT_TRUE(plist.WriteToFile(xml.c_str()));
    ASSERT_TRUE(Convert(xml, bin, "bin"));
    LPlist loaded;
    ASSERT_TRUE(loaded.CreateFromFile(bin.c_str()));
    EXPECT_EQ(loaded.GetSize(), 8u);
    bool flag = false;
    EXPECT_TRUE(Read(loaded, "flag", flag) && flag);
    LStringLongTemplate<char> text;
    EXPECT_TRUE(Read(loaded, "name", text));
    EXPECT_STREQ(text.GetText(), "caf\xC3\xA9 & <tag>");
    char whole[64];
    EXPECT_TRUE(Read(loaded, "null", whole));
    EXPECT_STREQ(whole, "");
    LPlist child;
    ASSERT_TRUE(Read(loaded, "child", child));
    EXPECT_TRUE(Read(child, "inner", text));
    EXPECT_STREQ(text.GetText(), "deep");
    unsigned long count = 0;
    EXPECT_TRUE(loaded.GetValueArraySize("list", count));
    EXPECT_EQ(count, 2u);
    EXPECT_FALSE(loaded.GetValueArraySize("name", count));
    // The number reads compare the type identifier with the number-type codes: an integer
    // or a float never reads back, and only the kind whose identifier happens to be 9 does.
    int number = 5;
    float real = 1.5f;
    EXPECT_FALSE(Read(loaded, "count", number));
    EXPECT_FALSE(Read(loaded, "ratio", real));
    EXPECT_EQ(number, 5);
    EXPECT_EQ(real, 1.5f);
    plist_t uid = plist_new_uid(42);  // not kept by files: checked in memory
    EXPECT_TRUE(LPlist::ConvertFromValue(uid, number));
    EXPECT_EQ(number, 42);
    const void* v = uid;
    // Wrong kinds fail, and a failed text read empties the output.
    EXPECT_FALSE(LPlist::ConvertFromValue(v, flag));
    EXPECT_FALSE(LPlist::ConvertFromValue(v, text));
    EXPECT_STREQ(text.GetText(), "");
    EXPECT_FALSE(LPlist::ConvertFromValue(v, child));
    plist_free(uid);
    // The tool's own XML of our binary reads the same as our XML.
    const std::string back = tree.Path("tool.xml");
    ASSERT_TRUE(Convert(bin, back, "xml"));
    LPlist again;
    ASSERT_TRUE(again.CreateFromFile(back.c_str()));
    const void* name = nullptr;
    ASSERT_TRUE(loaded.GetValue("name", name));
    EXPECT_TRUE(again.TestValueExists(name));
    ASSERT_TRUE(loaded.GetValue("child", name));
    EXPECT_TRUE(again.TestValueExists(name));
    LCFString other("other");
    EXPECT_FALSE(again.TestValueExists(other.GetRef()));
    const std::string dict =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
        "<key>k</key><string>v</string><key>a</key><array/></dict></plist>\n";
    const std::string plain = tree.MakeFile("plain.plist", dict);
    const std::string blank = tree.MakeFile("with blank.plist", dict);
    const std::string percent = tree.MakeFile("with%20percent.plist", dict);
    // The loader's URL is not escaped: names with a blank or a percent sign do not load.
    LCFDictionary dictionary;
    EXPECT_TRUE(dictionary.CreateFromFullPath(plain.c_str()));
    EXPECT_FALSE(dictionary.CreateFromFullPath(blank.c_str()));
    EXPECT_EQ(dictionary.GetRef(), nullptr);
    EXPECT_FALSE(dictionary.CreateFromFullPath(percent.c_str()));
    // A non-dictionary is loaded as it is; a binary file converted by the tool reads too.
    const std::string arrayPlist =
        tree.MakeFile("array.plist", "<plist version=\"1.0\"><array><true/></array></plist>");
    const std::string arrayBin = tree.Path("array.bin");
    ASSERT_TRUE(Convert(arrayPlist, arrayBin, "bin"));
    ASSERT_TRUE(dictionary.CreateFromFullPath(arrayBin.c_str()));
    EXPECT_EQ(plist_get_node_type(dictionary.GetRef()), PLIST_ARRAY);
    LPlist fromText;
    ASSERT_TRUE(fromText.CreateFromFile(plain.c_str()));
    EXPECT_FALSE(fromText.CreateFromFile(tree.Path("missing.plist").c_str()));
    EXPECT_FALSE(fromText.CreateFromFile(blank.c_str()));
    EXPECT_TRUE(fromText.TestKeyExists("k"));
    EXPECT_FALSE(fromText.TestKeyExists("\xC3("));
    const void* bad = nullptr;
    EXPECT_FALSE(LPlist::ConvertToValue("\xC3(", bad));
    EXPECT_FALSE(LPlist::ConvertToValue("\xED\xA0\x80", bad));
    fromText.RemoveValue("k");
    EXPECT_EQ(fromText.GetSize(), 1u);
    fromText.RemoveAllValues();
    EXPECT_EQ(fromText.GetSize(), 0u);
    EXPECT_FALSE(LPlist().WriteToFile(tree.Path("none.plist").c_str()));
}

}  // namespace
