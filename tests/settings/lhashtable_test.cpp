// LHashTable against a std::multimap model (with the loader's duplicate keys), accessors,
// template expansion and the text forms.
#include "settings/lhashtable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/settings/hashtable_contents.h"
#include "tests/settings/rbtree_validator.h"

namespace {

using Validator = LRBTreeValidator<LStringLongKey, LStringLongTemplate<char>>;
using Pairs = HashTablePairs;

Pairs Contents(const std::multimap<std::string, std::string>& model) {
    return {model.begin(), model.end()};
}

// Query-string escape of every byte, so keys and values of any bytes can be loaded.
std::string Escape(const std::string& s) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : s) {
        out += '%';
        out += kHex[c >> 4];
        out += kHex[c & 15];
    }
    return out;
}

// A table holding `pairs`, entered with SetString.
LHashTable Table(std::initializer_list<std::pair<const char*, const char*>> pairs) {
    LHashTable t;
    for (auto [key, value] : pairs) {
        t.SetString(key, value);
    }
    return t;
}

// Only for texts without duplicate keys: a copy made on return would merge them.
LHashTable Loaded(const char* query) {
    LHashTable t;
    t.LoadHTTPString(query);
    return t;
}

std::string Owned(char* text) {
    std::unique_ptr<char[]> owner(text);
    return text;
}

}  // namespace

TEST(LHashTableModel, AgreesWithAMultimapOverRandomOperations) {
    std::mt19937 rng(2026);
    LHashTable table;
    std::multimap<std::string, std::string> model;
    int serial = 0;  // every value written is unique, so the node a lookup met can be named
    auto randomKey = [&] {
        static const char* const kKeys[] = {"a",   "ab",         "B", "b",  "",    "key",
                                            "Key", "k\xC3\xA9y", "z", "aa", "a b", "~"};
        return std::string(kKeys[rng() % (sizeof(kKeys) / sizeof(kKeys[0]))]) +
               (rng() % 3 == 0 ? std::to_string(rng() % 30) : "");
    };
    // The model entry holding the value the table's lookup answered with.
    auto entryFound = [&](const std::string& key) {
        const char* found = table.GetParm(key.c_str(), nullptr);
        auto [lo, hi] = model.equal_range(key);
        if (found == nullptr) {
            EXPECT_EQ(lo, hi) << "key '" << key << "' missing from the table";
            return model.end();
        }
        auto it = std::find_if(lo, hi, [&](const auto& entry) { return entry.second == found; });
        EXPECT_TRUE(it != hi) << "lookup of '" << key << "' gave a value the model lacks";
        return it == hi ? model.end() : it;
    };
    for (int step = 0; step < 3000; ++step) {
        const std::string key = randomKey();
        const std::string value = "v" + std::to_string(serial++);
        switch (rng() % 5) {
            case 0:
            case 1: {  // SetString overwrites the node a lookup meets, else inserts
                auto it = entryFound(key);
                table.SetString(key.c_str(), value.c_str());
                if (it != model.end()) {
                    it->second = value;
                } else {
                    model.emplace(key, value);
                }
                break;
            }
            case 2:  // the loader inserts without a lookup: duplicates
                if (!key.empty()) {
                    table.LoadHTTPString((Escape(key) + "=" + value).c_str());
                    model.emplace(key, value);
                }
                break;
            case 3: {
                auto it = entryFound(key);
                table.DeleteField(key.c_str());
                if (it != model.end()) {
                    model.erase(it);
                }
                break;
            }
            case 4: {  // delete through an iterator at a random position
                LHashTable::Iterator it(table);
                auto m = model.begin();
                for (unsigned k = rng() % 8; k > 0 && it; --k, ++it, ++m) {
                }
                if (it) {
                    table.Delete(it);
                    auto after = model.erase(m);
                    ASSERT_EQ(it.IsValid(), after != model.end());
                    if (it.IsValid()) {
                        EXPECT_EQ(it.GetParm(), after->first);
                        EXPECT_EQ(it.GetData(), after->second);
                    }
                }
                break;
            }
        }
        ASSERT_EQ(Validator::Check(table.GetTree()), "") << "step " << step;
        if (step % 50 == 0) {
            ASSERT_EQ(Contents(table), Contents(model)) << "step " << step;
            ASSERT_EQ(table.GetSize(), model.size());
        }
    }
    ASSERT_EQ(Contents(table), Contents(model));
}

TEST(LHashTable, AccessorsCopiesMergesAndIteratorWrites) {
    LHashTable t =
        Table({{"int", "12abc"}, {"word", "abc"}, {"empty", ""}, {"true", "true"}, {"ten", "10"}});
    t.SetInt("i", -42);
    t.SetInt64("l", -9000000000LL);
    t.SetFloat("f", 2.5);
    t.SetString("trim", "  \tvalue\n  ");
    EXPECT_EQ(t.GetInt("i", 7), -42);
    EXPECT_EQ(t.GetSsize("l", 0), -9000000000LL);
    EXPECT_DOUBLE_EQ(t.GetFloat("f", 0), 2.5);
    EXPECT_EQ(t.GetInt("int", 7), 12);
    EXPECT_EQ(t.GetInt("word", 7), 0);
    EXPECT_EQ(t.GetInt("empty", 7), 7);
    EXPECT_FALSE(t.GetBool("true", true));
    EXPECT_TRUE(t.GetBool("ten", false));
    EXPECT_TRUE(t.GetBool("empty", true));
    EXPECT_DOUBLE_EQ(t.GetFloat("empty", 1.5), 1.5);
    EXPECT_STREQ(t.GetParm("empty", "d"), "");  // present but empty is not absent
    EXPECT_EQ(t.GetParm("missing", nullptr), nullptr);
    EXPECT_TRUE(t.TestExists("empty"));
    // Trimming takes blanks only, not tabs or line ends, and keeps the trimmed value.
    EXPECT_STREQ(t.GetParmTrim("trim", nullptr), "\tvalue\n");
    EXPECT_STREQ(t.GetParm("trim", nullptr), "\tvalue\n");
    // Byte-wise, case-sensitive order; overwriting never moves a key to the end.
    LHashTable order = Table({{"a", "a"}, {"A", "A"}});
    order.SetParm("a", "1");
    order.SetParmBottom("A", "2");
    EXPECT_EQ(Contents(order), (Pairs{{"A", "2"}, {"a", "1"}}));
    // Numbers are read from the first 259 characters.
    t.SetString("n", (std::string(259, '0') + "9").c_str());
    EXPECT_EQ(t.GetInt("n", 5), 0);
    t.SetString("n", (std::string(258, '0') + "9").c_str());
    EXPECT_EQ(t.GetInt("n", 5), 9);
    const std::string longValue(300, 'x');
    t.SetString("long", longValue.c_str());
    char buffer[260];
    EXPECT_EQ(t.GetString("long", "", buffer), buffer);
    EXPECT_EQ(std::string(buffer), longValue.substr(0, 259));
    LStringLongTemplate<char> s("old");
    t.GetString("long", "", s);
    EXPECT_EQ(std::string(s.GetText()), longValue);
    t.GetString("missing", "dflt", s);
    EXPECT_STREQ(s.GetText(), "dflt");
    LHashTable src = Table({{"a", "0"}, {"b", "1"}});
    for (LHashTable::Iterator it(src); it; ++it) {
        it.SetData((std::string(it.GetData()) == "0" ? "1" : "2"));
    }
    EXPECT_EQ(Contents(src), (Pairs{{"a", "1"}, {"b", "2"}}));
    LHashTable copy(src);
    EXPECT_EQ(Contents(copy), Contents(src));
    copy.SetString("a", "changed");
    EXPECT_STREQ(src.GetParm("a", nullptr), "1");
    LHashTable assigned = Table({{"zzz", "gone"}});
    assigned = src;
    EXPECT_EQ(Contents(assigned), Contents(src));
    LHashTable dest = Table({{"a", "old"}, {"c", "3"}});
    LHashTableCopy(dest, src);
    EXPECT_EQ(Contents(dest), (Pairs{{"a", "1"}, {"b", "2"}, {"c", "3"}}));
    // Copying a table with duplicate keys enters each through SetString: one node per key,
    // holding the value that comes last in order (the one loaded last).
    LHashTable dup;
    dup.LoadHTTPString("a=1&a=2&b=3");
    const LHashTable dupCopy(dup);
    EXPECT_EQ(Contents(dupCopy), (Pairs{{"a", "2"}, {"b", "3"}}));
    // AssignString takes the buffer itself and leaves its source null.
    LStringLongTemplate<char> v("moved value");
    const char* moved = v.GetText();
    dest.AssignString("k", v);
    EXPECT_TRUE(v.IsNull());
    EXPECT_EQ(v.GetCapacity(), 0u);
    EXPECT_EQ(dest.GetParm("k", nullptr), moved);
}

// Borrowed pairs are read where they are, by every reader; whatever changes the table, or
// asks for its nodes, makes owned nodes of the same pairs first and leaves the array as it was.
TEST(LHashTableBorrowed, ReadInPlaceAndMadeOwnedOnDemand) {
    struct {
        LHashTable::BorrowedPairs header{4};
        LHashTable::BorrowedPair pairs[4] = {{"B", "2"}, {"a", ""}, {"ab", "x y"}, {"k", "17"}};
    } borrowed;
    const Pairs all{{"B", "2"}, {"a", ""}, {"ab", "x y"}, {"k", "17"}};
    const struct {
        const char* what;
        std::function<std::string(LHashTable&)> step;
        std::string expected;
    } cases[] = {
        {"looked up, present and absent on either side of each key",
         [](LHashTable& t) {
             std::string out;
             for (const char* key : {"", "A", "B", "C", "a", "aa", "ab", "abc", "k", "z"}) {
                 out += std::string(t.GetParm(key, "-")) + (t.TestFieldExists(key) ? "+" : ".");
             }
             return out + t.GetParm(nullptr, "null");
         },
         "-.-.2+-.+-.x y+-.17+-.null"},
        {"typed and copied out",
         [](LHashTable& t) {
             char buffer[260];
             LStringLongTemplate<char> text;
             t.GetString("ab", "", text);
             return std::to_string(t.GetInt("k", 0) + t.GetInt("a", 5)) +
                    t.GetString("B", "", buffer) + text.GetText() + std::to_string(t.GetSize()) +
                    std::to_string(t.IsEmpty());
         },
         "222x y40"},
        {"expanded and saved",
         [](LHashTable& t) {
             char out[64];
             t.ParseString("%ab%/%k%/%a%", out, sizeof(out));
             LStringLongTemplate<char> query;
             t.SaveHTTPString(query);
             return std::string(out) + " " + query.GetText();
         },
         "x y/17/ B=2&a=&ab=x%20y&k=17"},
        {"asked for a node halfway",
         [](LHashTable& t) {
             LHashTable::ConstIterator it(t);
             ++it;
             std::string out = it.GetNode()->m_key.GetText();
             for (++it; it; ++it) {
                 out += it.GetParm();
             }
             return out + (Validator::Check(t.GetTree()).empty() ? " valid" : " invalid");
         },
         "aabk valid"},
        {"tree asked", [](LHashTable& t) { return std::to_string(t.GetTree().GetCount()); }, "4"},
        {"set",
         [](LHashTable& t) {
             t.SetString("ab", "new");
             return std::string();
         },
         ""},
        {"copied, then cleared",
         [](LHashTable& t) {
             LHashTable copy(t);
             t.Clear();
             return std::to_string(Contents(copy).size()) + std::to_string(t.IsEmpty());
         },
         "41"},
    };
    for (const auto& c : cases) {
        LHashTable table;
        table.SetBorrowed(&borrowed.header);
        EXPECT_EQ(c.step(table), c.expected) << c.what;
        if (!table.IsEmpty()) {
            Pairs expected = all;
            if (std::string(c.what) == "set") {
                expected[2].second = "new";
            }
            EXPECT_EQ(Contents(table), expected) << c.what;
        }
        EXPECT_STREQ(borrowed.pairs[2].pValue, "x y") << c.what;
    }
    // Into a table that already holds pairs they go as SetString would put them.
    LHashTable filled = Table({{"a", "old"}, {"c", "3"}});
    filled.SetBorrowed(&borrowed.header);
    EXPECT_EQ(Contents(filled),
              (Pairs{{"B", "2"}, {"a", ""}, {"ab", "x y"}, {"c", "3"}, {"k", "17"}}));
}

TEST(LHashTableText, TemplatesExpandedQueryStringsLoadedAndSaved) {
    LHashTable t = Table({{"name", "World"}, {"", "EMPTYKEY"}});
    char out[64];
    EXPECT_TRUE(t.ParseString("Hello %name%!", out, sizeof(out)));
    EXPECT_STREQ(out, "Hello World!");
    EXPECT_TRUE(t.ParseString("100%%", out, sizeof(out)));
    EXPECT_STREQ(out, "100%");
    EXPECT_TRUE(t.ParseString("to %name", out, sizeof(out)));  // unclosed: rest is the name
    EXPECT_STREQ(out, "to World");
    EXPECT_FALSE(t.ParseString("plain", out, sizeof(out)));
    EXPECT_STREQ(out, "plain");
    // What does not fit is dropped, but the scan goes on.
    t.SetString("v", "0123456789");
    char exact[8];  // ASan sees a write past it
    EXPECT_TRUE(t.ParseString("ab%v%", exact, sizeof(exact)));
    EXPECT_STREQ(exact, "ab01234");
    char tiny[1] = {'#'};
    EXPECT_TRUE(t.ParseString("abc%v%", tiny, 0));  // no room at all: nothing written
    EXPECT_EQ(tiny[0], '#');
    // A name longer than 259 characters is cut for the lookup but consumed whole.
    const std::string longName(300, 'n');
    t.SetString(longName.substr(0, 259).c_str(), "cut");
    char buffer[32];
    t.ParseString(("<%" + longName + "%>").c_str(), buffer, sizeof(buffer));
    EXPECT_STREQ(buffer, "<cut>");
    // The allocating form looks "%%" up as the empty key, and grows.
    EXPECT_EQ(Owned(t.ParseString("100%%")), "100EMPTYKEY");
    t.DeleteParm("");
    EXPECT_EQ(Owned(t.ParseString("Hi %name%%%")), "Hi World");
    const std::string big(1000, 'q');
    t.SetString("big", big.c_str());
    EXPECT_EQ(Owned(t.ParseString("[%big%][%big%]")), "[" + big + "][" + big + "]");
    EXPECT_EQ(Owned(t.ParseString(nullptr)), "");
    LHashTable duplicates;
    duplicates.LoadHTTPString(LStringLongTemplate<char>("a=1&a=2"));
    EXPECT_EQ(Contents(duplicates), (Pairs{{"a", "1"}, {"a", "2"}}));
    EXPECT_EQ(Contents(Loaded("=5&b")), (Pairs{{"b", ""}}));
    LHashTable v = Loaded("&&x=1&&=&y=a=b");
    EXPECT_EQ(Contents(v), (Pairs{{"x", "1"}, {"y", "a=b"}}));
    v.LoadHTTPString(static_cast<const char*>(nullptr));
    v.LoadHTTPStringUTF8("x=2");  // the table is not cleared: a second "x"
    EXPECT_EQ(v.GetSize(), 3u);
    const LHashTable d = Loaded("k1=a+b%20c&k2=%26%3d&k3=x%00y&k5=%41%62%G1%e9&k4=a%2");
    EXPECT_STREQ(d.GetParm("k1", nullptr), "a b c");
    EXPECT_STREQ(d.GetParm("k2", nullptr), "&=");  // escaped stops stay in the value
    EXPECT_STREQ(d.GetParm("k3", nullptr), "xy");  // a decoded zero byte vanishes
    EXPECT_STREQ(d.GetParm("k4", nullptr), "a");   // '%' with one character at the end
    EXPECT_STREQ(d.GetParm("k5", nullptr), "Ab\x01\xE9");
    EXPECT_EQ(Contents(Loaded("a%")), (Pairs{{"a", ""}}));
    const LHashTable saved = Table({{"b", "x y"}, {"a", "1&2"}});
    LStringLongTemplate<char> query("stale text");
    EXPECT_EQ(saved.SaveHTTPString(query), 15u);
    EXPECT_STREQ(query.GetText(), "a=1%262&b=x%20y");
    LStringLongTemplate<char> raw("prefix:");
    saved.SaveString(raw);  // appends, unencoded
    EXPECT_STREQ(raw.GetText(), "prefix:a=1&2&b=x y");
    EXPECT_GE(query.GetCapacity(), 260u);
    Table({{"m", "~!*-._\xC3\xA9+"}}).SaveHTTPString(query);
    EXPECT_STREQ(query.GetText(), "m=~!%2A-._%C3%A9%2B");
}
