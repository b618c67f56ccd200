// The XML reader and writer. The reader is deliberately lenient: it takes whatever text it
// is given, records the first mistake with its line and column, and builds as much of the
// tree as the text allows. Nothing here recurses on the document's depth except the deep
// copy and the writer, which only ever see trees that a parse has already built in memory.
#include "settings/lxml.h"

#include <strings.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "debug/lmemory.h"
#include "file/lfile.h"
#include "file/lfile_text.h"
#include "thread/lprocess_interface.h"

namespace {

constexpr unsigned long kNameSize = 260;
constexpr unsigned long kCancelInterval = 512;
// An entity name and its ';' must come within this many characters.
constexpr int kEntityLimit = 23;

constexpr const char kSemicolonMessage[] =
    "Strings starting with an ampersand (&) must end with a semicolon (;). Either replace "
    "the '&' with '&amp;' or add a ';' at the end of the control string.";
constexpr const char kEofMessage[] =
    "(EOF) Element <%s> should be terminated with </%s>. Check you have terminated your "
    "element properly.";

using Loader = LXMLLoaderTemplate<char>;

bool IsNameStop(char c) {
    return c == '/' || c == '=' || c == '>' || c == ' ' || c == '\t' || c == '\n';
}

// Code point 0 and values beyond the Unicode range have no UTF-8 form and give nothing.
template <typename Sink>
void PutUTF8(uint32_t cp, Sink&& put) {
    if (cp == 0 || cp > 0x10FFFF) {
        return;
    }
    if (cp < 0x80) {
        put(static_cast<char>(cp));
    } else if (cp < 0x800) {
        put(static_cast<char>(0xC0 | (cp >> 6)));
        put(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        put(static_cast<char>(0xE0 | (cp >> 12)));
        put(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        put(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        put(static_cast<char>(0xF0 | (cp >> 18)));
        put(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        put(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        put(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

// Expands the entity after '&' through put, one character at a time.
template <typename Sink>
void XMLAmpChar(Loader& loader, Sink&& put) {
    char entity[kEntityLimit + 1];
    int n = 0;
    for (;;) {
        const char c = loader.GetChar();
        if (c == ';') {
            break;
        }
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == 0 || n + 1 >= kEntityLimit) {
            loader.SetError("%s", kSemicolonMessage);
            return;
        }
        entity[n++] = c;
    }
    entity[n] = 0;
    static constexpr struct {
        const char* name;
        char c;
    } kNamed[] = {{"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
    for (const auto& named : kNamed) {
        if (std::strcmp(entity, named.name) == 0) {
            put(named.c);
            return;
        }
    }
    if (entity[0] == '#') {
        uint32_t cp = 0;
        if (entity[1] == 'x') {
            for (const char* p = entity + 2; *p != 0; ++p) {
                if (const int d = LHexDigitValue(*p); d >= 0) {
                    cp = cp * 16 + static_cast<uint32_t>(d);
                }
            }
        } else {
            for (const char* p = entity + 1; *p != 0; ++p) {
                if (*p >= '0' && *p <= '9') {
                    cp = cp * 10 + static_cast<uint32_t>(*p - '0');
                }
            }
        }
        PutUTF8(cp, put);
        return;
    }
    put('&');
}

// Reads a tag or attribute name into a 260-byte buffer (259 characters kept) and returns
// the character that ended it. The three special openings stop as soon as they are
// complete, leaving the next character unread so that it becomes part of the node's text.
char XMLLoadTag(Loader& loader, char* out) {
    unsigned long n = 0;
    char quote = 0;
    bool early = false;
    auto store = [&](char c) {
        if (n < kNameSize - 1) {
            out[n++] = c;
            if ((n == 3 && std::memcmp(out, "!--", 3) == 0) ||
                (n == 8 &&
                 (std::memcmp(out, "!DOCTYPE", 8) == 0 || std::memcmp(out, "![CDATA[", 8) == 0))) {
                early = true;
            }
        }
    };
    for (;;) {
        const char c = loader.GetChar();
        if (c == 0) {
            out[n] = 0;
            return 0;
        }
        if (quote != 0) {
            if (c == quote) {
                quote = 0;
                continue;
            }
        } else if (IsNameStop(c)) {
            out[n] = 0;
            return c;
        } else if (c == '"' || c == '\'') {
            quote = c;
            continue;
        }
        if (c == '&') {
            XMLAmpChar(loader, store);
        } else {
            store(c);
        }
        if (early) {
            out[n] = 0;
            return loader.PeekChar();
        }
    }
}

// Reads an attribute value (unbounded) with the name rules, after one optional blank.
char XMLLoadAttribute(Loader& loader, std::string& out) {
    if (loader.PeekChar() == ' ') {
        loader.GetChar();
    }
    char quote = 0;
    auto store = [&](char c) { out.push_back(c); };
    for (;;) {
        const char c = loader.GetChar();
        if (c == 0) {
            return 0;
        }
        if (quote != 0) {
            if (c == quote) {
                quote = 0;
                continue;
            }
        } else if (IsNameStop(c)) {
            return c;
        } else if (c == '"' || c == '\'') {
            quote = c;
            continue;
        }
        if (c == '&') {
            XMLAmpChar(loader, store);
        } else {
            out.push_back(c);
        }
    }
}

// Leading characters 1..31 and trailing characters below 32 go; blanks stay, so that
// indentation made of tabs and line breaks vanishes while meaningful spaces are kept.
void TrimFormattingRange(const char* data, unsigned long& begin, unsigned long& end) {
    while (begin < end && data[begin] >= 1 && data[begin] <= 31) {
        ++begin;
    }
    while (end > begin && static_cast<unsigned char>(data[end - 1]) < 32) {
        --end;
    }
}

// The pending text of the element being read: starts at 32 bytes and grows to the larger of
// double its size and what is needed.
class TextBuffer {
public:
    TextBuffer() : m_data(new char[32]), m_capacity(32) {}
    void Put(char c) {
        if (m_length + 1 >= m_capacity) {
            Grow(m_length + 2);
        }
        m_data[m_length++] = c;
    }
    void Put(const char* text, unsigned long count) {
        if (m_length + count + 1 > m_capacity) {
            Grow(m_length + count + 1);
        }
        std::memcpy(m_data.get() + m_length, text, count);
        m_length += count;
    }
    // Appends the text (trimmed unless preserve) to parent as a text node when not empty.
    void FlushInto(LXMLElement& parent, LXMLElement*& tail) {
        if (m_length == 0) {
            return;
        }
        unsigned long begin = 0;
        unsigned long end = m_length;
        if (!parent.bPreserveSpace) {
            TrimFormattingRange(m_data.get(), begin, end);
        }
        m_length = 0;
        if (end == begin) {
            return;
        }
        auto* node = new LXMLElement();
        node->bPreserveSpace = parent.bPreserveSpace;
        node->text.Assign(m_data.get() + begin, end - begin);
        if (tail == nullptr) {
            parent.children.PushFront(node);
        } else {
            tail->pNext = node;
        }
        tail = node;
    }

private:
    void Grow(unsigned long needed) {
        const unsigned long size = needed > 2 * m_capacity ? needed : 2 * m_capacity;
        std::unique_ptr<char[]> data(new char[size]);
        std::memcpy(data.get(), m_data.get(), m_length);
        m_data = std::move(data);
        m_capacity = size;
    }

    std::unique_ptr<char[]> m_data;
    unsigned long m_capacity;
    unsigned long m_length = 0;
};

LXMLElement* LastChild(const LXMLElement& parent) {
    LXMLElement* last = parent.children.Head();
    while (last != nullptr && last->pNext != nullptr) {
        last = last->pNext;
    }
    return last;
}

bool IsBlankText(const char* text) {
    for (const char* p = text; *p != 0; ++p) {
        if (*p != '\t' && *p != '\n' && *p != '\r' && *p != ' ') {
            return false;
        }
    }
    return true;
}

void PutEncoded(LStringLongTemplate<char>& out, const char* text, unsigned long length) {
    const char* run = text;
    const char* end = text + length;
    for (const char* p = text; p < end; ++p) {
        const char* entity = nullptr;
        switch (*p) {
            case '&':
                entity = "&amp;";
                break;
            case '<':
                entity = "&lt;";
                break;
            case '>':
                entity = "&gt;";
                break;
            case '"':
                entity = "&quot;";
                break;
            default:
                continue;
        }
        out.Append(run, static_cast<unsigned long>(p - run));
        out.Append(entity);
        run = p + 1;
    }
    out.Append(run, static_cast<unsigned long>(end - run));
}

void PutTabs(LStringLongTemplate<char>& out, int count) {
    for (int i = 0; i < count; ++i) {
        out.AppendChar('\t');
    }
}

}  // namespace

// ---- The cursor ----

template <typename T>
const T* LXMLLoaderTemplate<T>::TakeTextRun(unsigned long& length) {
    const T* start = m_pText + m_nPosition;
    const unsigned long budget = m_nLastCancelTest + kCancelInterval > m_nPosition
                                     ? m_nLastCancelTest + kCancelInterval - m_nPosition
                                     : 0;
    unsigned long n = 0;
    while (n < budget) {
        const T c = start[n];
        if (c == 0 || c == '<' || c == '&' || c == '\r' || c == '\n') {
            break;
        }
        ++n;
    }
    m_nPosition += n;
    m_nColumn += static_cast<int>(n);
    length = n;
    return start;
}

template <typename T>
void LXMLLoaderTemplate<T>::SetError(const char* format, ...) {
    if (m_pError == nullptr || m_pError[0] != 0) {
        return;
    }
    const unsigned long prefix =
        tplsnprintf(m_pError, kNameSize, "Ln %d, Col %d: ", m_nLine, m_nColumn);
    va_list args;
    va_start(args, format);
    tplvsnprintf(m_pError + prefix, kNameSize - prefix, format, args);
    va_end(args);
}

template <typename T>
bool LXMLLoaderTemplate<T>::TestCancel() {
    if (!m_bCancelled && m_nPosition - m_nLastCancelTest >= kCancelInterval) {
        m_nLastCancelTest = m_nPosition;
        m_bCancelled = m_rProcess.IsToStop();
    }
    return m_bCancelled;
}

template class LXMLLoaderTemplate<char>;

// ---- Elements ----

LXMLElement::LXMLElement(const char* elementName, bool preserve) : bPreserveSpace(preserve) {
    name.Assign(elementName != nullptr ? elementName : "");
}

LXMLElement::LXMLElement(const char* elementName, char stop, Loader& loader, bool preserve)
    : LXMLElement(elementName, preserve) {
    if (ParseStartTag(stop, loader)) {
        LoadData(loader);
    }
}

LXMLElement::LXMLElement(const LXMLElement& other) {
    CopyFrom(other);
}

LXMLElement& LXMLElement::operator=(const LXMLElement& other) {
    if (this != &other) {
        LXMLElement copy(other);
        children.Clear();
        attributes = copy.attributes;
        name.Swap(copy.name);
        text.Swap(copy.text);
        bPreserveSpace = copy.bPreserveSpace;
        children = std::move(copy.children);
    }
    return *this;
}

void LXMLElement::CopyFrom(const LXMLElement& other) {
    bPreserveSpace = other.bPreserveSpace;
    attributes = other.attributes;
    name = other.name;
    text = other.text;
    LXMLElement* tail = nullptr;
    for (const LXMLElement& child : other.children) {
        auto* copy = new LXMLElement(child);
        if (tail == nullptr) {
            children.PushFront(copy);
        } else {
            tail->pNext = copy;
        }
        tail = copy;
    }
}

// Frees the subtree without recursing: each node's children are spliced into the work list
// before the node itself is deleted with an empty child list.
LXMLElement::~LXMLElement() {
    LXMLElement* pending = children.Detach();
    while (pending != nullptr) {
        LXMLElement* node = pending;
        pending = node->pNext;
        if (LXMLElement* kids = node->children.Detach()) {
            LXMLElement* last = kids;
            while (last->pNext != nullptr) {
                last = last->pNext;
            }
            last->pNext = pending;
            pending = kids;
        }
        node->pNext = nullptr;
        delete node;
    }
}

bool LXMLElement::ParseStartTag(char stop, Loader& loader) {
    if (name[0] == '!') {
        ParseSpecial(stop, loader);
        return false;
    }
    bool empty = false;
    char attributeName[kNameSize];
    std::string value;
    for (char c = stop;;) {
        if (c == '>') {
            return !empty && name[0] != '?';
        }
        if (c == 0) {
            loader.SetError("Tag <%s> does not have a closing '>'", name.GetText());
            return false;
        }
        if (c == '/') {
            empty = true;
        }
        c = XMLLoadTag(loader, attributeName);
        value.clear();
        if (c == ' ' && loader.PeekChar() == '=') {
            c = loader.GetChar();
        }
        if (c == '=') {
            c = XMLLoadAttribute(loader, value);
            if (c == '>' && !value.empty() && value.back() == '?') {
                value.pop_back();
            }
        }
        if (attributeName[0] != 0) {
            if (strcasecmp(attributeName, "xml:space") == 0) {
                bPreserveSpace = true;
            } else {
                attributes.SetString(attributeName, value.c_str());
            }
        }
    }
}

// Comments, character data, the document type and any other '!' node keep the characters
// after their name as they are, up to their terminator, as one text child.
void LXMLElement::ParseSpecial(char stop, Loader& loader) {
    const char* terminator = nullptr;
    if (name == "![CDATA[") {
        terminator = "]]>";
    } else if (name == "!--") {
        terminator = "-->";
    }
    std::string collected;
    // The three openings above stop before the next character; any other name was ended by
    // a character that was read, which belongs to the node's text unless it closed the node.
    const bool early = terminator != nullptr || name == "!DOCTYPE";
    bool closed = false;
    if (!early) {
        if (stop == 0) {
            loader.SetError(kEofMessage, name.GetText(), name.GetText());
            return;
        }
        closed = stop == '>';
        if (!closed) {
            collected.push_back(stop);
        }
    }
    int depth = 0;
    while (!closed) {
        const char c = loader.GetChar();
        if (c == 0) {
            loader.SetError(kEofMessage, name.GetText(), name.GetText());
            return;
        }
        if (terminator != nullptr) {
            collected.push_back(c);
            if (collected.size() >= 3 &&
                collected.compare(collected.size() - 3, 3, terminator) == 0) {
                collected.resize(collected.size() - 3);
                closed = true;
            }
            continue;
        }
        if (c == '[') {
            ++depth;
        } else if (c == ']' && depth > 0) {
            --depth;
        } else if (c == '>' && depth == 0) {
            closed = true;
            continue;
        }
        collected.push_back(c);
    }
    auto* node = new LXMLElement();
    node->bPreserveSpace = bPreserveSpace;
    node->text.Assign(collected.c_str(), collected.size());
    AppendChild(node);
}

void LXMLElement::LoadData(Loader& loader) {
    children.Clear();
    struct Frame {
        LXMLElement* element;
        LXMLElement* tail;
    };
    std::vector<Frame> stack;
    stack.push_back({this, nullptr});
    TextBuffer pending;
    char tag[kNameSize];
    while (!stack.empty()) {
        Frame& frame = stack.back();
        LXMLElement& element = *frame.element;
        if (loader.TestCancel()) {
            pending.FlushInto(element, frame.tail);
            return;
        }
        const char c = loader.GetChar();
        if (c == 0) {
            if (!element.name.IsNull()) {
                loader.SetError(kEofMessage, element.name.GetText(), element.name.GetText());
            }
            pending.FlushInto(element, frame.tail);
            stack.pop_back();
            continue;
        }
        if (c == '&') {
            XMLAmpChar(loader, [&](char e) { pending.Put(e); });
            continue;
        }
        if (c != '<') {
            pending.Put(c);
            unsigned long run = 0;
            const char* text = loader.TakeTextRun(run);
            pending.Put(text, run);
            continue;
        }
        const char stop = XMLLoadTag(loader, tag);
        if (tag[0] != 0) {
            pending.FlushInto(element, frame.tail);
            auto* child = new LXMLElement(tag, element.bPreserveSpace);
            if (frame.tail == nullptr) {
                element.children.PushFront(child);
            } else {
                frame.tail->pNext = child;
            }
            frame.tail = child;
            if (child->ParseStartTag(stop, loader)) {
                stack.push_back({child, nullptr});
            }
            continue;
        }
        if (stop == '/') {
            char endTag[kNameSize];
            char s = XMLLoadTag(loader, endTag);
            if (element.name.IsNull()) {
                loader.SetError("Misplaced </%s> which does not match a <%s>.", endTag, endTag);
            } else if (std::strcmp(element.name.GetText(), endTag) != 0) {
                loader.SetError(
                    "Element <%s> should be terminated with </%s>, was with %s. Check you "
                    "have terminated your element properly.",
                    element.name.GetText(), element.name.GetText(), endTag);
            }
            while (s != '>' && s != 0) {
                s = loader.GetChar();
            }
        } else {
            loader.SetError("Misplaced < without name. Use &lt; instead of < if appropriate.");
        }
        pending.FlushInto(element, frame.tail);
        stack.pop_back();
    }
}

void LXMLElement::AppendChild(LXMLElement* child) {
    if (LXMLElement* last = LastChild(*this)) {
        last->pNext = child;
    } else {
        children.PushFront(child);
    }
}

LXMLElement* LXMLElement::AddText(const char* value) {
    auto* node = new LXMLElement();
    node->bPreserveSpace = bPreserveSpace;
    node->text.Assign(value != nullptr ? value : "");
    AppendChild(node);
    return node;
}

const LXMLElement* LXMLElement::GetElement(const char* elementName) const {
    for (const LXMLElement& child : children) {
        if (!child.name.IsNull() && std::strcmp(child.name.GetText(), elementName) == 0) {
            return &child;
        }
    }
    return nullptr;
}

LXMLElement* LXMLElement::GetElement(const char* elementName) {
    return const_cast<LXMLElement*>(std::as_const(*this).GetElement(elementName));
}

LXMLElement* LXMLElement::AddElement(const char* elementName) {
    auto* child = new LXMLElement(elementName, bPreserveSpace);
    AppendChild(child);
    return child;
}

const char* LXMLElement::GetElementData() const {
    if (!text.IsNull()) {
        return text.GetText();
    }
    const LXMLElement* first = children.Head();
    return first != nullptr && !first->text.IsNull() ? first->text.GetText() : nullptr;
}

char* LXMLElement::GetString(const char* elementName, const char* defaultValue, char* out) const {
    const LXMLElement* child = GetElement(elementName);
    const char* value = child != nullptr ? child->GetElementData() : nullptr;
    const char* source = value != nullptr ? value : defaultValue;
    unsigned long n = 0;
    if (source != nullptr) {
        while (n < kNameSize - 1 && source[n] != 0) {
            out[n] = source[n];
            ++n;
        }
    }
    out[n] = 0;
    return out;
}

void LXMLElement::SetString(const char* elementName, const char* value) {
    if (LXMLElement* child = GetElement(elementName)) {
        child->children.Clear();
        child->AddText(value);
    }
}

int LXMLElement::GetInt(const char* elementName, int defaultValue) const {
    const LXMLElement* child = GetElement(elementName);
    const char* value = child != nullptr ? child->GetElementData() : nullptr;
    if (value == nullptr) {
        return defaultValue;
    }
    char buffer[kNameSize];
    GetString(elementName, "", buffer);
    return static_cast<int>(std::strtol(buffer, nullptr, 10));
}

void LXMLElement::SetInt(const char* elementName, int value) {
    char buffer[32];
    tplsnprintf(buffer, sizeof(buffer), "%d", value);
    SetString(elementName, buffer);
}

double LXMLElement::GetFloat(const char* elementName, double defaultValue) const {
    const LXMLElement* child = GetElement(elementName);
    if (child == nullptr || child->GetElementData() == nullptr) {
        return defaultValue;
    }
    char buffer[kNameSize];
    GetString(elementName, "", buffer);
    return std::strtod(buffer, nullptr);
}

void LXMLElement::SetFloat(const char* elementName, double value) {
    char buffer[kNameSize];
    tplsnprintf(buffer, sizeof(buffer), "%f", value);
    SetString(elementName, buffer);
}

void LXMLElement::DeleteElement(const char* elementName) {
    auto matches = [elementName](const LXMLElement& child) {
        return !child.name.IsNull() && std::strcmp(child.name.GetText(), elementName) == 0;
    };
    while (LXMLElement* child = children.RemoveFirst(matches)) {
        delete child;
    }
}

// ---- Writing ----

bool LXMLElement::SaveToBuffer(LStringLongTemplate<char>& out, int indent) const {
    return Write(out, indent, true);
}

bool LXMLElement::SaveToBufferNoFormatting(LStringLongTemplate<char>& out) const {
    return Write(out, -1, false);
}

bool LXMLElement::Write(LStringLongTemplate<char>& out, int indent, bool format) const {
    if (name.IsNull()) {
        if (!children.IsEmpty()) {
            // The nameless root: its top-level nodes at the caller's indentation.
            bool written = false;
            for (const LXMLElement& child : children) {
                written = child.Write(out, indent, format) || written;
            }
            return written;
        }
        if (text.IsEmpty() || IsBlankText(text.GetText())) {
            return false;
        }
        const char* p = text.GetText();
        while (*p != 0) {
            const char* line = p;
            while (*p != 0 && *p != '\r' && *p != '\n') {
                ++p;
            }
            PutEncoded(out, line, static_cast<unsigned long>(p - line));
            if (*p != 0) {
                const char other = *p == '\r' ? '\n' : '\r';
                ++p;
                if (*p == other) {
                    ++p;
                }
                out.AppendChar('\n');
            }
        }
        return true;
    }
    if (format && indent > 0) {
        PutTabs(out, indent);
    }
    out.AppendChar('<');
    out.Append(name);
    const char first = name[0];
    if (first != '!') {
        const bool declaration = name == "?xml";
        if (declaration) {
            const char* version = attributes.GetParm("version", "");
            if (version[0] != 0) {
                out.tsprintfappend(" version=\"%s\"", version);
            }
        }
        for (LHashTable::ConstIterator it(attributes); it; ++it) {
            if (declaration && strcasecmp(it.GetParm(), "version") == 0) {
                continue;
            }
            out.AppendChar(' ');
            out.Append(it.GetParm());
            out.Append("=\"");
            const char* value = it.GetData();
            PutEncoded(out, value, tstrlen(value));
            out.AppendChar('"');
        }
    }
    const bool special = first == '!' || first == '?';
    bool hasElement = false;
    bool hasText = false;
    for (const LXMLElement& child : children) {
        if (!child.name.IsNull()) {
            hasElement = true;
        } else if (!child.text.IsEmpty() && !IsBlankText(child.text.GetText())) {
            hasText = true;
        }
    }
    auto endTag = [&] {
        out.Append("</");
        out.Append(name);
        out.Append(format ? ">\n" : ">");
    };
    if (!special && hasElement) {
        out.AppendChar('>');
        if (format && indent >= 0) {
            out.AppendChar('\n');
        }
        const int childIndent = format && indent >= 0 ? indent + 1 : -1;
        for (const LXMLElement& child : children) {
            child.Write(out, childIndent, format);
        }
        if (format && indent >= 1) {
            PutTabs(out, indent);
        }
        endTag();
    } else if (!special && hasText) {
        out.AppendChar('>');
        for (const LXMLElement& child : children) {
            child.Write(out, indent, format);
        }
        endTag();
    } else {
        if (first == '!') {
            for (const LXMLElement& child : children) {
                out.Append(child.text);
            }
        }
        if (first == '?') {
            out.Append("?>");
        } else if (name == "!--") {
            out.Append("-->");
        } else if (name == "![CDATA[") {
            out.Append("]]>");
        } else if (first == '!') {
            out.AppendChar('>');
        } else {
            out.Append("/>");
        }
        if (format && indent >= 0) {
            out.AppendChar('\n');
        }
    }
    return true;
}

// ---- Iterators ----

NamedElementIterator::NamedElementIterator(LXMLElement& parent, const char* name)
    : m_pNext(parent.GetFirstChild()), m_pName(name) {}

LXMLElement* NamedElementIterator::Next() {
    while (m_pNext != nullptr) {
        LXMLElement* node = m_pNext;
        m_pNext = node->pNext;
        if (!node->name.IsNull() && std::strcmp(node->name.GetText(), m_pName) == 0) {
            return node;
        }
    }
    return nullptr;
}

ConstNamedElementIterator::ConstNamedElementIterator(const LXMLElement& parent, const char* name)
    : m_pNext(parent.GetFirstChild()), m_pName(name) {}

const LXMLElement* ConstNamedElementIterator::Next() {
    while (m_pNext != nullptr) {
        const LXMLElement* node = m_pNext;
        m_pNext = node->pNext;
        if (!node->name.IsNull() && std::strcmp(node->name.GetText(), m_pName) == 0) {
            return node;
        }
    }
    return nullptr;
}

void LStringTrimFormatting(LStringLongTemplate<char>& value) {
    const char* data = value.GetText();
    unsigned long begin = 0;
    unsigned long end = value.GetLength();
    TrimFormattingRange(data, begin, end);
    if (begin != 0 || end != value.GetLength()) {
        value.Assign(data + begin, end - begin);
    }
}

// ---- Documents ----

int LXMLDocument::LoadFromFile(LProcessInterface& process, const char* path, char* error) {
    error[0] = 0;
    if (process.IsToStop()) {
        return 1;
    }
    if (!LFile::TestFileExists(path)) {
        tplsnprintf(error, kNameSize, "File does not exist: %s", path);
        return 2;
    }
    std::error_code failed;
    const std::uintmax_t size = std::filesystem::file_size(path, failed);
    const long long needed = failed ? 0 : static_cast<long long>(size) * 20;
    if (needed >= LMemoryGetFreeHeapSize()) {
        tplsnprintf(error, kNameSize, "Not enough memory available to load %s", path);
        return 2;
    }
    LStringLongTemplate<char> content;
    if (!LLoadTextAutoChar(path, content)) {
        tplsnprintf(error, kNameSize, "Cannot open xml file: %s", path);
        return 2;
    }
    if (process.IsToStop()) {
        return 1;
    }
    Loader loader(content.GetText(), error, process);
    LoadData(loader);
    return loader.IsCancelled() ? 1 : 0;
}
