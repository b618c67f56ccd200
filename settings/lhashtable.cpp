// LHashTable: typed accessors, template expansion and the URI-encoded query-string form over
// the red-black tree (see lhashtable.h for the ordering and duplicate-key rules).
#include "settings/lhashtable.h"

#include "settings/ldatfile.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace {

constexpr unsigned long kNameSize = 260;  // placeholder names and numeric texts: 259 + NUL

// Copies at most 259 characters of text and a NUL into a 260-byte buffer.
void CopyCut(char* dest, const char* text) {
    unsigned long n = 0;
    while (n < kNameSize - 1 && text[n] != 0) {
        dest[n] = text[n];
        ++n;
    }
    dest[n] = 0;
}

// Anything but a hexadecimal digit counts as 0 ("%G1" gives 0x01).
int HexValue(char c) {
    return std::max(LHexDigitValue(c), 0);
}

// Decodes URI text into out until a stop character ('&', and '=' when asked) or the end;
// returns the number of input characters consumed. Stops are tested on the raw input, so an
// escaped "%26" yields '&' inside a value. Decoded zero bytes are dropped, and a '%' without
// two characters after it ends the text.
unsigned long DecodeURI(const char* in, bool stopAtEquals, LStringLongTemplate<char>& out) {
    out.Clear();
    const char* p = in;
    while (*p != 0 && *p != '&' && !(stopAtEquals && *p == '=')) {
        if (*p == '+') {
            out.AppendChar(' ');
            ++p;
        } else if (*p == '%') {
            if (p[1] == 0 || p[2] == 0) {
                p += p[1] == 0 ? 1 : 2;
                break;
            }
            const int byte = HexValue(p[1]) * 16 + HexValue(p[2]);
            if (byte != 0) {
                out.AppendChar(static_cast<char>(byte));
            }
            p += 3;
        } else {
            out.AppendChar(*p++);
        }
    }
    return static_cast<unsigned long>(p - in);
}

// Reads one placeholder name after its opening '%': up to the closing '%' or the end, keeping
// at most 259 characters; the closing '%' is consumed. Returns the position after it.
const char* ReadPlaceholder(const char* p, char* name) {
    unsigned long n = 0;
    while (*p != 0 && *p != '%') {
        if (n < kNameSize - 1) {
            name[n++] = *p;
        }
        ++p;
    }
    name[n] = 0;
    return *p == '%' ? p + 1 : p;
}

template <typename W>
void EncodeURI(W& writer, const char* text) {
    for (; *text != 0; ++text) {
        LURIEncodeToWriterDirect(writer, *text);
    }
}

}  // namespace

// ---- Iterators ----

const char* LHashTable::Iterator::GetData() const {
    return m_pNode->m_pValue != nullptr ? m_pNode->m_pValue->GetText() : "";
}

void LHashTable::Iterator::SetData(const char* value) {
    if (m_pNode->m_pValue == nullptr) {
        m_pNode->m_pValue = new LStringLongTemplate<char>(value);
    } else {
        m_pNode->m_pValue->Assign(value);
    }
}

const char* LHashTable::ConstIterator::GetData() const {
    if (m_pPair != nullptr) {
        return m_pPair->pValue;
    }
    return m_pNode->m_pValue != nullptr ? m_pNode->m_pValue->GetText() : "";
}

const LHashTable::Node* LHashTable::ConstIterator::GetNode() const {
    if (m_pPair != nullptr) {
        const char* key = m_pPair->pKey;
        m_pPair = nullptr;
        m_rTable.Own();
        m_pNode = m_rTable.FindNode(key);
    }
    return m_pNode;
}

// ---- Whole table ----

LHashTable::LHashTable(const LHashTable& other) {
    CopyFrom(other);
}

LHashTable& LHashTable::operator=(const LHashTable& other) {
    if (this != &other) {
        Clear();
        CopyFrom(other);
    }
    return *this;
}

void LHashTable::CopyFrom(const LHashTable& other) {
    for (ConstIterator it(other); it; ++it) {
        SetString(it.GetParm(), it.GetData());
    }
}

void LHashTableCopy(LHashTable& dest, const LHashTable& src) {
    if (&dest == &src) {
        return;  // every pair would overwrite itself
    }
    for (LHashTable::ConstIterator it(src); it; ++it) {
        dest.SetString(it.GetParm(), it.GetData());
    }
}

// ---- Setting ----

void LHashTable::SetBorrowed(const BorrowedPairs* pairs) {
    if (pairs == nullptr || pairs->nCount == 0) {
        return;
    }
    if (IsEmpty()) {
        m_pBorrowed = pairs;
        return;
    }
    for (const BorrowedPair* pair = pairs->Begin(); pair != pairs->End(); ++pair) {
        SetString(pair->pKey, pair->pValue);
    }
}

void LHashTable::Own() const {
    const BorrowedPairs* pairs = m_pBorrowed;
    if (pairs == nullptr) {
        return;
    }
    m_pBorrowed = nullptr;
    // In ascending order with no key twice: each pair goes in as SetString would enter it.
    for (const BorrowedPair* pair = pairs->Begin(); pair != pairs->End(); ++pair) {
        auto text = std::make_unique<LStringLongTemplate<char>>(pair->pValue);
        m_tree.Insert(new Node(LStringLongKey(pair->pKey), text.get()));
        text.release();  // owned by the node now
    }
}

void LHashTable::SetString(const char* key, const char* value) {
    Own();
    Node* node = FindNode(key);
    if (node != nullptr) {
        if (node->m_pValue != nullptr) {
            node->m_pValue->Assign(value);
        } else {
            node->m_pValue = new LStringLongTemplate<char>(value);
        }
        return;
    }
    auto text = std::make_unique<LStringLongTemplate<char>>(value);
    m_tree.Insert(new Node(LStringLongKey(key), text.get()));
    text.release();  // owned by the node now
}

void LHashTable::AssignString(const char* key, LStringLongTemplate<char>& value) {
    Own();
    Node* node = FindNode(key);
    if (node != nullptr) {
        if (node->m_pValue != nullptr) {
            *node->m_pValue = static_cast<LStringLongTemplate<char>&&>(value);
        } else {
            node->m_pValue =
                new LStringLongTemplate<char>(static_cast<LStringLongTemplate<char>&&>(value));
        }
        return;
    }
    auto text = std::make_unique<LStringLongTemplate<char>>(
        static_cast<LStringLongTemplate<char>&&>(value));
    m_tree.Insert(new Node(LStringLongKey(key), text.get()));
    text.release();
}

void LHashTable::SetInt(const char* key, int value) {
    LStringLongTemplate<char> text;
    sprintf(text, "%d", value);
    AssignString(key, text);
}

void LHashTable::SetInt64(const char* key, long long value) {
    LStringLongTemplate<char> text;
    sprintf(text, "%lld", value);
    AssignString(key, text);
}

void LHashTable::SetFloat(const char* key, double value) {
    LStringLongTemplate<char> text;
    sprintf(text, "%f", value);
    AssignString(key, text);
}

// ---- Reading ----

const char* LHashTable::ValueText(const Node* node, const char* defaultValue) const {
    if (node == nullptr || node->m_pValue == nullptr) {
        return defaultValue;
    }
    return node->m_pValue->GetText();
}

const LHashTable::BorrowedPair* LHashTable::FindBorrowed(const char* key) const {
    const char* probe = key != nullptr ? key : "";
    const BorrowedPair* low = m_pBorrowed->Begin();
    const BorrowedPair* high = m_pBorrowed->End();
    while (low < high) {
        const BorrowedPair* middle = low + (high - low) / 2;
        const int c = std::strcmp(middle->pKey, probe);
        if (c == 0) {
            return middle;
        }
        if (c < 0) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return nullptr;
}

const char* LHashTable::FindValue(const char* key) const {
    if (m_pBorrowed != nullptr) {
        const BorrowedPair* pair = FindBorrowed(key);
        return pair != nullptr ? pair->pValue : nullptr;
    }
    return ValueText(FindNode(key), nullptr);
}

const char* LHashTable::GetParm(const char* key, const char* defaultValue) const {
    const char* value = FindValue(key);
    return value != nullptr ? value : defaultValue;
}

char* LHashTable::GetString(const char* key, const char* defaultValue, char* dest) const {
    const char* text = GetParm(key, defaultValue);
    CopyCut(dest, text != nullptr ? text : "");
    return dest;
}

void LHashTable::GetString(const char* key, const char* defaultValue,
                           LStringLongTemplate<char>& dest) const {
    if (m_pBorrowed != nullptr) {
        const BorrowedPair* pair = FindBorrowed(key);
        dest.Assign(pair != nullptr ? pair->pValue : defaultValue);
        return;
    }
    const Node* node = FindNode(key);
    if (node == nullptr || node->m_pValue == nullptr) {
        dest.Assign(defaultValue);
    } else {
        dest = *node->m_pValue;
        if (dest.IsNull()) {
            dest.Assign("");
        }
    }
}

const char* LHashTable::GetParmTrim(const char* key, const char* defaultValue) {
    Own();
    Node* node = FindNode(key);
    if (node == nullptr || node->m_pValue == nullptr) {
        return defaultValue;
    }
    LStringLongTemplate<char>& value = *node->m_pValue;
    const char* text = value.GetText();
    unsigned long begin = 0;
    unsigned long end = value.GetLength();
    while (begin < end && text[begin] == ' ') {
        ++begin;
    }
    while (end > begin && text[end - 1] == ' ') {
        --end;
    }
    if (begin > 0 || end < value.GetLength()) {
        value.Assign(text + begin, end - begin);
    }
    return value.GetText();
}

int LHashTable::GetInt(const char* key, int defaultValue) const {
    const char* text = GetParm(key, nullptr);
    if (text == nullptr || text[0] == 0) {
        return defaultValue;
    }
    char buffer[kNameSize];
    CopyCut(buffer, text);
    return static_cast<int>(std::strtol(buffer, nullptr, 10));
}

long long LHashTable::GetInt64(const char* key, long long defaultValue) const {
    const char* text = GetParm(key, nullptr);
    if (text == nullptr || text[0] == 0) {
        return defaultValue;
    }
    char buffer[kNameSize];
    CopyCut(buffer, text);
    return ttoi64template(buffer);
}

double LHashTable::GetFloat(const char* key, double defaultValue) const {
    const char* text = GetParm(key, nullptr);
    if (text == nullptr || text[0] == 0) {
        return defaultValue;
    }
    return std::strtod(text, nullptr);
}

bool LHashTable::GetBool(const char* key, bool defaultValue) const {
    const char* text = GetParm(key, nullptr);
    if (text == nullptr || text[0] == 0) {
        return defaultValue;
    }
    return text[0] == '1';
}

bool LHashTable::TestFieldExists(const char* key) const {
    return FindValue(key) != nullptr;
}

// ---- Removing ----

void LHashTable::DeleteField(const char* key) {
    Own();
    Node* node = FindNode(key);
    if (node != nullptr) {
        m_tree.Delete(node);
    }
}

void LHashTable::Delete(Iterator& it) {
    Node* node = it.m_pNode;
    if (node == nullptr || &it.m_rTable != this) {
        return;
    }
    // The successor survives the removal in its own node, so it is safe to take it first.
    it.m_pNode = Tree::Next(node);
    m_tree.Delete(node);
}

// ---- Text forms ----

bool LHashTable::ParseString(const char* text, char* out, unsigned long outSize) const {
    LFixedLengthStringWriterTemplate<char> writer(out, outSize > 0 ? outSize - 1 : 0);
    bool expanded = false;
    char name[kNameSize];
    const char* p = text != nullptr ? text : "";
    while (*p != 0) {
        if (*p != '%') {
            writer.Write(*p++);
            continue;
        }
        expanded = true;
        p = ReadPlaceholder(p + 1, name);
        if (name[0] == 0) {
            writer.Write('%');
        } else {
            const char* value = GetParm(name, "");
            writer.Write(value, std::strlen(value));
        }
    }
    if (outSize > 0) {
        writer.Terminate();
    }
    return expanded;
}

char* LHashTable::ParseString(const char* text) const {
    unsigned long capacity = kNameSize;
    unsigned long length = 0;
    auto buffer = std::make_unique<char[]>(capacity);
    // Doubles whenever the next character would leave no room for the terminator.
    auto put = [&](char c) {
        if (length + 1 >= capacity) {
            auto bigger = std::make_unique<char[]>(capacity * 2);
            std::memcpy(bigger.get(), buffer.get(), length);
            buffer = std::move(bigger);
            capacity *= 2;
        }
        buffer[length++] = c;
    };
    char name[kNameSize];
    const char* p = text != nullptr ? text : "";
    while (*p != 0) {
        if (*p != '%') {
            put(*p++);
            continue;
        }
        // No "%%" rule here: an empty name looks up the empty key.
        p = ReadPlaceholder(p + 1, name);
        for (const char* v = GetParm(name, ""); *v != 0; ++v) {
            put(*v);
        }
    }
    buffer[length] = 0;
    return buffer.release();
}

void LHashTable::LoadHTTPString(const char* text) {
    Own();
    if (text == nullptr || text[0] == 0) {
        return;
    }
    LStringLongTemplate<char> name;
    LStringLongTemplate<char> value;
    const char* p = text;
    while (*p != 0) {
        p += DecodeURI(p, true, name);
        value.Clear();
        if (*p == '=') {
            ++p;
            p += DecodeURI(p, false, value);
        }
        if (*p == '&') {
            ++p;
        }
        if (name.IsEmpty()) {
            continue;
        }
        // Inserted without a lookup: a repeated name adds a second node.
        auto valueCopy =
            std::make_unique<LStringLongTemplate<char>>(value.GetText(), value.GetLength());
        m_tree.Insert(new Node(LStringLongKey(name.GetText()), valueCopy.get()));
        valueCopy.release();
    }
}

unsigned long LHashTable::SaveHTTPString(LStringLongTemplate<char>& out) const {
    out.GrowToSize(LStringLongTemplate<char>::kInitialSize);
    LStringLongTemplateWriter<char> writer(out);
    bool first = true;
    for (ConstIterator it(*this); it; ++it) {
        if (!first) {
            writer.Write('&');
        }
        first = false;
        EncodeURI(writer, it.GetParm());
        writer.Write('=');
        EncodeURI(writer, it.GetData());
    }
    return out.GetLength();
}

void LHashTable::SaveString(LStringLongTemplate<char>& out) const {
    bool first = true;
    for (ConstIterator it(*this); it; ++it) {
        if (!first) {
            out.Append("&", 1);
        }
        first = false;
        out.Append(it.GetParm());
        out.Append("=", 1);
        out.Append(it.GetData());
    }
}

void LHashTable::SaveDatFile(LDatFile& file, const char* section) const {
    for (ConstIterator it(*this); it; ++it) {
        LDatFileSetValue(file.GetPath(), section, it.GetParm(), it.GetData());
    }
}
