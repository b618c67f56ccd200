// XML documents: every reader message with its line and column, entities, whitespace rules,
// the writer's exact text, the element API, file loading results, the arena, and round trips
// of XML files that other programs on this machine wrote.
#include "settings/lxml.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <utility>

#include "tests/file/temp_tree.h"
#include "thread/lprocess_interface.h"

namespace {

struct Parsed {
    LXMLDocument doc;
    char error[260] = {};
};

void Parse(Parsed& p, const char* text) {
    LProcessInterfaceVoid process;
    LXMLLoaderTemplate<char> loader(text, p.error, process);
    p.doc.LoadData(loader);
}

std::string Written(const LXMLElement& e, bool format = true) {
    LStringLongTemplate<char> out;
    format ? e.SaveToBuffer(out, 0) : e.SaveToBufferNoFormatting(out);
    return out.GetText();
}

std::string Reformatted(const char* text) {
    Parsed p;
    Parse(p, text);
    EXPECT_STREQ(p.error, "") << text;
    return Written(p.doc);
}

std::string Eof(const char* where, const std::string& name) {
    return where + ("(EOF) Element <" + name + "> should be terminated with </" + name +
                    ">. Check you have terminated your element properly.");
}

TEST(XMLReader, EveryMessageAtItsLineAndColumnEntitiesAndWhitespace) {
    const std::string semicolon =
        "Strings starting with an ampersand (&) must end with a semicolon (;). Either replace "
        "the '&' with '&amp;' or add a ';' at the end of the control string.";
    using Case = std::pair<const char*, std::string>;
    for (const auto& [text, error] : {
             Case{"<a>x &amp y</a>", "Ln 1, Col 11: " + semicolon},
             {"<a>&abcdefghijklmnopqrstuvwxyz;</a>", "Ln 1, Col 28: " + semicolon},
             {"<a b='1'", "Ln 1, Col 9: Tag <a> does not have a closing '>'"},
             {"<a>\n<b>", Eof("Ln 2, Col 4: ", "b")},
             {"<a>\r\n\r\n  <b>", Eof("Ln 3, Col 6: ", "b")},
             {"<a>\n\r<b>x", Eof("Ln 2, Col 5: ", "b")},
             {"<!-- x", Eof("Ln 1, Col 7: ", "!--")},
             {"<a><b></a>",
              "Ln 1, Col 11: Element <b> should be terminated with </b>, was with a. Check you "
              "have terminated your element properly."},
             {"\n</x>", "Ln 2, Col 5: Misplaced </x> which does not match a <x>."},
             {"<a>< b</a>",
              "Ln 1, Col 6: Misplaced < without name. Use &lt; instead of < if appropriate."},
             // The first error wins over the later unclosed element.
             {"<a>&x y</a", "Ln 1, Col 7: " + semicolon},
         }) {
        Parsed p;
        Parse(p, text);
        EXPECT_EQ(p.error, error) << text;
    }
    for (auto [text, data] : {
             std::pair<const char*, const char*>{"<a>&foo;x</a>", "&x"},
             {"<a>&#x41;&#X41;&#65;&#x4a;</a>", "A)AJ"},
             {"<a>&lt;&gt;&amp;&quot;&apos;</a>", "<>&\"'"},
             {"<a>&#x20AC;&#0;</a>", "\xE2\x82\xAC"},
             {"<a>\t\n  x y \t\n</a>", "  x y "},
             {"<a>a text run of more than 32 bytes</a>", "a text run of more than 32 bytes"},
             {"<a xml:space='default'>\t x \n</a>", "\t x \n"},
             {"<a XML:SPACE><b>\tx\t</b></a>", nullptr},
         }) {
        Parsed p;
        Parse(p, text);
        const LXMLElement* a = p.doc.GetElement("a");
        ASSERT_NE(a, nullptr) << text;
        if (data != nullptr) {
            EXPECT_STREQ(a->GetElementData(), data) << text;
        } else {
            EXPECT_TRUE(a->attributes.IsEmpty());
            EXPECT_STREQ(a->GetElement("b")->GetElementData(), "\tx\t");
        }
    }
    Parsed p;
    Parse(p, "<a n=\"x &amp; 'y'\" m='say \"hi\"' e k = v/>");
    const LXMLElement* a = p.doc.GetElement("a");
    EXPECT_STREQ(a->attributes.GetParm("n", "?"), "x & 'y'");
    EXPECT_STREQ(a->attributes.GetParm("m", "?"), "say \"hi\"");
    EXPECT_STREQ(a->attributes.GetParm("e", "?"), "");
    EXPECT_STREQ(a->attributes.GetParm("k", "?"), "v");
    EXPECT_EQ(a->GetFirstChild(), nullptr);
}

TEST(XMLWriter, ExactText) {
    for (auto [in, out] : {
             std::pair{
                 "<?xml encoding=\"UTF-8\" version=\"1.0\"?><Section><Key value=\"1\"/></Section>",
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Section>\n\t<Key value=\"1\"/>\n"
                 "</Section>\n"},
             {"<a b='1' B='2' a='3'/>", "<a B=\"2\" a=\"3\" b=\"1\"/>\n"},
             {"<a>  \n </a>", "<a/>\n"},
             {"<a><!-- hi --><b>x</b></a>", "<a>\n\t<!-- hi -->\n\t<b>x</b>\n</a>\n"},
             {"<a v='&lt;&amp;&quot;&apos;'>&gt;'\r\nz</a>",
              "<a v=\"&lt;&amp;&quot;'\">&gt;'\nz</a>\n"},
             {"<!DOCTYPE d [<!ENTITY e \"x>\">]><d><![CDATA[<&>]]></d>",
              "<!DOCTYPE d [<!ENTITY e \"x>\">]>\n<d>\n\t<![CDATA[<&>]]>\n</d>\n"},
         }) {
        EXPECT_EQ(Reformatted(in), out) << in;
    }
    Parsed p;
    Parse(p, "<a><b><c/></b>t</a>");
    EXPECT_EQ(Written(p.doc, false), "<a><b><c/></b>t</a>");
}

TEST(XMLElement, Api) {
    Parsed p;
    Parse(p, "<r><s>text</s><n>42</n><f>2.5</f><e/><d/><x/><d>2</d></r>");
    LXMLElement& r = *p.doc.GetElement("r");
    char out[260];
    EXPECT_STREQ(r.GetString("s", "def", out), "text");
    EXPECT_STREQ(r.GetString("missing", "def", out), "def");
    EXPECT_STREQ(r.GetString("e", "def", out), "def");
    EXPECT_EQ(r.GetInt("n", 7), 42);
    EXPECT_DOUBLE_EQ(r.GetFloat("f"), 2.5);

    const std::string before = Written(r);
    r.SetString("missing", "v");
    EXPECT_EQ(Written(r), before);
    r.SetInt("e", -3);
    r.SetFloat("f", 0.25);
    EXPECT_EQ(r.GetInt("e", 0), -3);
    EXPECT_DOUBLE_EQ(r.GetFloat("f"), 0.25);

    LXMLElement copy(r);
    r.DeleteElement("d");
    EXPECT_FALSE(r.TestFieldExists("d"));
    EXPECT_TRUE(r.TestFieldExists("x"));
    int count = 0;
    for (ConstNamedElementIterator it(copy, "d"); it.Next() != nullptr;) {
        ++count;
    }
    EXPECT_EQ(count, 2);
    r.AddElement("z")->AddText("last");
    EXPECT_TRUE(Written(r).ends_with("\t<x/>\n\t<z>last</z>\n</r>\n"));
    copy = r;
    EXPECT_EQ(Written(copy), Written(r));
}

// Answers "stop" from its n-th question on.
class StopAfter : public LProcessInterfaceVoid {
public:
    explicit StopAfter(int n) : left_(n) {}
    bool IsToStop() override { return --left_ < 0; }
    int left_;
};

void ExpectRoundTrip(const std::string& path) {
    SCOPED_TRACE(path);
    LXMLDocument first;
    char error[260];
    LProcessInterfaceVoid never;
    ASSERT_EQ(first.LoadFromFile(never, path.c_str(), error), 0);
    EXPECT_STREQ(error, "");
    EXPECT_GT(first.children.Count(), 1u);
    const std::string text = Written(first);
    Parsed second;
    Parse(second, text.c_str());
    EXPECT_STREQ(second.error, "");
    EXPECT_EQ(Written(second.doc, false), Written(first, false));
    EXPECT_EQ(Written(second.doc), text);
    Parsed flat;
    Parse(flat, Written(first, false).c_str());
    EXPECT_EQ(Written(flat.doc), text);
}

TEST(XMLDocument, LoadFromFileResultsAndRoundTripsOfFilesOfThisMachine) {
    ltest::TempTree tree;
    std::string body = "<a>";
    for (int i = 0; i < 200; ++i) {
        body += "<k v='x'/>";
    }
    const std::string path = tree.MakeFile("d.xml", "\xEF\xBB\xBF" + body + "</a>");
    LXMLDocument doc;
    char error[260];
    LProcessInterfaceVoid never;
    EXPECT_EQ(doc.LoadFromFile(never, path.c_str(), error), 0);
    EXPECT_STREQ(error, "");
    EXPECT_EQ(doc.GetElement("a")->children.Count(), 200u);
    for (int n : {0, 1, 2}) {
        StopAfter stop(n);
        EXPECT_EQ(doc.LoadFromFile(stop, path.c_str(), error), 1) << n;
    }
    const std::string missing = tree.Path("none.xml");
    EXPECT_EQ(doc.LoadFromFile(never, missing.c_str(), error), 2);
    EXPECT_EQ(error, "File does not exist: " + missing);

    // A sparse file far larger than the free heap could ever be.
    const std::string huge = tree.MakeFile("huge.xml", "");
    std::filesystem::resize_file(huge, 1ull << 40);
    EXPECT_EQ(doc.LoadFromFile(never, huge.c_str(), error), 2);
    EXPECT_EQ(error, "Not enough memory available to load " + huge);

    // A file another program wrote comes back as it was read.
    const std::string xbel = tree.Path("recently-used.xbel");
    GBookmarkFile* bookmarks = g_bookmark_file_new();
    g_bookmark_file_set_title(bookmarks, "file:///tmp/a%20b.txt", "A & <b>");
    g_bookmark_file_set_mime_type(bookmarks, "file:///tmp/a%20b.txt", "text/plain");
    g_bookmark_file_add_application(bookmarks, "file:///tmp/a%20b.txt", "editor", "ed %u");
    g_bookmark_file_add_application(bookmarks, "file:///tmp/c.wav", "player", "play %f");
    g_bookmark_file_add_group(bookmarks, "file:///tmp/c.wav", "Audio");
    ASSERT_TRUE(g_bookmark_file_to_file(bookmarks, xbel.c_str(), nullptr));
    g_bookmark_file_free(bookmarks);
    ExpectRoundTrip(xbel);
}

// Loaded elements, their texts and attributes live in memory of their load: every way of
// taking, changing or freeing them must leave the rest readable and free everything (the
// sanitizer build checks both).
TEST(XMLArena, LoadedElementsAndAttributesTakenChangedAndFreed) {
    const char* text = "<r><a k=' 1 ' j='2'>x</a><b/><a k='3'/></r>";
    using Case = std::tuple<const char*, std::function<std::string(LXMLDocument&)>, std::string>;
    for (const auto& [what, step, expected] : {
             Case{"moved to another document that outlives it",
                  [](LXMLDocument& d) {
                      LXMLDocument other;
                      other.AppendChild(d.children.PopFront());
                      char error[260] = {};
                      LProcessInterfaceVoid never;
                      LXMLLoaderTemplate<char> loader("<t/>", error, never);
                      d.LoadData(loader);
                      return Written(other) + Written(d);
                  },
                  "<r>\n\t<a j=\"2\" k=\" 1 \">x</a>\n\t<b/>\n\t<a k=\"3\"/>\n</r>\n<t/>\n"},
             {"every a deleted, one added",
              [](LXMLDocument& d) {
                  d.GetElement("r")->DeleteElement("a");
                  d.GetElement("r")->AddElement("c")->AddText("y");
                  return Written(d);
              },
              "<r>\n\t<b/>\n\t<c>y</c>\n</r>\n"},
             {"copied, then the original loaded again",
              [](LXMLDocument& d) {
                  LXMLElement copy(*d.GetElement("r"));
                  Parsed p;
                  Parse(p, "<z/>");
                  d = p.doc;
                  return Written(copy) + Written(d);
              },
              "<r>\n\t<a j=\"2\" k=\" 1 \">x</a>\n\t<b/>\n\t<a k=\"3\"/>\n</r>\n<z/>\n"},
             {"a loaded element assigned over another",
              [](LXMLDocument& d) {
                  LXMLElement& r = *d.GetElement("r");
                  *r.GetElement("b") = *r.GetElement("a");
                  r.GetElement("a")->SetString("missing", "v");
                  return Written(r, false);
              },
              "<r><a j=\"2\" k=\" 1 \">x</a><a j=\"2\" k=\" 1 \">x</a><a k=\"3\"/></r>"},
         }) {
        Parsed p;
        Parse(p, text);
        EXPECT_EQ(step(p.doc), expected) << what;
    }
    // Attributes read by a load are changed through every setter of their table; the pairs not
    // changed keep their text, also through a pointer taken before the change.
    using Change = std::tuple<const char*, std::function<void(LHashTable&)>, const char*>;
    for (const auto& [what, change, pairs] : {
             Change{"set", [](LHashTable& t) { t.SetString("k", "9"); }, "j=2&k=9&n=x"},
             {"deleted", [](LHashTable& t) { t.DeleteField("k"); }, "j=2&n=x"},
             {"trimmed", [](LHashTable& t) { EXPECT_STREQ(t.GetParmTrim("k", ""), "1"); },
              "j=2&k=1&n=x"},
             {"through an iterator",
              [](LHashTable& t) {
                  for (LHashTable::Iterator it(t); it; ++it) {
                      if (std::strcmp(it.GetParm(), "n") == 0) {
                          it.SetData("y");
                      }
                  }
              },
              "j=2&k= 1 &n=y"},
             {"query string", [](LHashTable& t) { t.LoadHTTPString("j=5"); }, "j=2&j=5&k= 1 &n=x"},
             {"cleared", [](LHashTable& t) { t.Clear(); }, ""},
         }) {
        Parsed p;
        Parse(p, "<a k=' 1 ' j='1' n='x' j='2'/>");
        LHashTable& table = p.doc.GetElement("a")->attributes;
        const char* kept = table.GetParm("n", "");
        change(table);
        LStringLongTemplate<char> saved;
        table.SaveString(saved);
        EXPECT_STREQ(saved.GetText(), pairs) << what;
        EXPECT_STREQ(kept, "x") << what;
    }
}

// A load spread over many arena blocks: an element taken from its middle outlives it.
TEST(XMLArena, LargeLoadElementOutlivesItsDocument) {
    std::string text = "<r>";
    for (int i = 0; i < 60000; ++i) {
        text += "<k n='" + std::to_string(i) + "' v='" + std::string(80, 'v') + "'/>";
    }
    text += "</r>";
    Parsed p;
    Parse(p, text.c_str());
    ASSERT_STREQ(p.error, "");
    LXMLElement& r = *p.doc.GetElement("r");
    LXMLElement* middle = r.GetFirstChild();
    for (int i = 0; i < 30000; ++i) {
        middle = middle->pNext;
    }
    std::unique_ptr<LXMLElement> taken(
        r.children.RemoveFirst([middle](const LXMLElement& e) { return &e == middle; }));
    p.doc.children.Clear();
    EXPECT_STREQ(taken->attributes.GetParm("n", ""), "30000");
    EXPECT_EQ(taken->attributes.GetParm("v", ""), std::string(80, 'v'));
}

}  // namespace
