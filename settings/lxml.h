// XML documents: a small, forgiving reader and writer for the library's XML setting files.
//
// A document is a tree of LXMLElement nodes: named elements with attributes and children,
// and nameless text nodes. Names beginning with '!' or '?' are special nodes ("?xml",
// "!--", "![CDATA[", "!DOCTYPE") whose raw text is kept as their one text child, so that
// what was read is written back.
//
// The reader never stops at the first mistake: it records only the first error, as
// "Ln %d, Col %d: %s" into the caller's 260-byte buffer, and keeps the tree built so far.
// It works iteratively (an explicit stack, not recursion), so nesting depth is bounded by
// memory, not by the thread's stack; the destructor is iterative for the same reason.
//
// Attributes live in an LHashTable, so they come back in byte order of their names and a
// repeated attribute keeps its last value. Children are owned by their parent and kept in
// document order.
//
// Memory: a load places every element it reads, with its name, text and attribute pairs, in
// one arena (LXMLArena), so that reading and freeing a large document costs a few block
// allocations instead of several per element. Each element placed there holds a reference
// on its arena, which is freed with the last of them; so an element taken out of its tree,
// moved to another tree or deleted on its own behaves as any other. Elements made through
// the API (new, AddElement, AddText, copies) and everything they own live on the heap.
#pragma once

#include <new>

#include "platform/llist.h"
#include "settings/lhashtable.h"
#include "text/lstring.h"

class LProcessInterface;

// The reader's cursor over the whole text. Line and column start at 1; every line end (CR,
// LF, CR LF, LF CR) reads as one LF. The error buffer (260 bytes) belongs to the caller and
// must start empty for the first error to be recorded.
template <typename T>
class LXMLLoaderTemplate {
public:
    LXMLLoaderTemplate(const T* text, char* error, LProcessInterface& process)
        : m_pText(text), m_pError(error), m_rProcess(process) {}

    // The next character with line ends folded; 0 at the end, without moving.
    T GetChar() {
        const T c = m_pText[m_nPosition];
        if (c == 0) {
            return 0;
        }
        ++m_nPosition;
        if (c == '\r' || c == '\n') {
            if (m_pText[m_nPosition] == (c == '\r' ? '\n' : '\r')) {
                ++m_nPosition;
            }
            ++m_nLine;
            m_nColumn = 1;
            return '\n';
        }
        ++m_nColumn;
        return c;
    }
    // Consumes the run of plain text characters ahead (none of NUL, '<', '&', CR, LF), but
    // not past the next cancel test; returns where it starts and sets its length.
    const T* TakeTextRun(unsigned long& length);
    // The next raw character, not consumed (0 at the end).
    T PeekChar() const { return m_pText[m_nPosition]; }
    // Records "Ln %d, Col %d: " and the formatted message, unless an error is already there.
    void SetError(const char* format, ...) __attribute__((format(printf, 2, 3)));
    // Asks the process interface once per 512 characters consumed; remembers a stop.
    bool TestCancel();

    bool IsCancelled() const { return m_bCancelled; }
    unsigned long GetPosition() const { return m_nPosition; }
    int GetLine() const { return m_nLine; }
    int GetColumn() const { return m_nColumn; }
    const char* GetError() const { return m_pError; }

    // The fields of the cursor, in order.
    const T* m_pText;
    char* m_pError;
    unsigned long m_nPosition = 0;
    int m_nLine = 1;
    int m_nColumn = 1;
    LProcessInterface& m_rProcess;

private:
    unsigned long m_nLastCancelTest = 0;
    bool m_bCancelled = false;
};

extern template class LXMLLoaderTemplate<char>;

class LXMLArena;
class LXMLReader;

// The owned name or text of an element: null, or a terminated text that is either this
// string's own heap copy or, for text read by a load, lives in the element's arena.
class LXMLString {
public:
    LXMLString() = default;
    LXMLString(const LXMLString& other) {
        if (other.m_pData != nullptr) {
            Assign(other.m_pData, other.GetLength());
        }
    }
    LXMLString& operator=(const LXMLString& other);
    ~LXMLString() {
        if ((m_nLength & kOwned) != 0) {
            delete[] m_pData;
        }
    }

    // Replaces the text with an owned copy.
    void Assign(const char* text, unsigned long length);
    void Assign(const char* text);
    // Points at a terminated text that outlives this string, which never frees it.
    void Borrow(const char* text, unsigned long length);
    void Swap(LXMLString& other) noexcept;
    // Back to null.
    void Free();

    // Never null: a null string reads as "".
    const char* GetText() const { return m_pData != nullptr ? m_pData : ""; }
    unsigned long GetLength() const { return m_nLength & ~kOwned; }
    bool IsNull() const { return m_pData == nullptr; }
    bool IsEmpty() const { return GetLength() == 0; }
    // True for a heap copy of this string's own, false for null or borrowed text.
    bool IsOwned() const { return (m_nLength & kOwned) != 0; }
    char operator[](unsigned long index) const { return GetText()[index]; }
    bool operator==(const char* other) const;

private:
    // The top bit of the length tells an owned copy, keeping an element small.
    static constexpr unsigned long kOwned = 1ul << 63;

    const char* m_pData = nullptr;
    unsigned long m_nLength = 0;
};

class LXMLElement {
public:
    // A nameless element: the root of a document, or a text node once given text.
    LXMLElement() = default;
    // A named element with no content yet.
    explicit LXMLElement(const char* name, bool preserve = false);
    // Parses one element whose name has been read; stop is the character that ended the
    // name. Attributes, then content up to the end tag.
    LXMLElement(const char* name, char stop, LXMLLoaderTemplate<char>& loader, bool preserve);
    LXMLElement(const LXMLElement& other);
    LXMLElement& operator=(const LXMLElement& other);
    ~LXMLElement();

    // Deleting an element placed in an arena gives its reference back instead of freeing the
    // memory; one on the heap is freed as usual.
    static void* operator new(std::size_t size) { return ::operator new(size); }
    static void operator delete(void* memory) { ::operator delete(memory); }
    static void operator delete(LXMLElement* element, std::destroying_delete_t);

    // Clears the children, then parses content up to this element's end tag (for a nameless
    // root, to the end of the text).
    void LoadData(LXMLLoaderTemplate<char>& loader);

    // First child whose name equals name (case-sensitive); null when none.
    LXMLElement* GetElement(const char* name);
    const LXMLElement* GetElement(const char* name) const;
    // Appends a new child with the name and this element's preserve flag.
    LXMLElement* AddElement(const char* name);
    // The child's text (its own, else its first child's) copied into out (260 bytes); the
    // default when the child is absent or has no text. Returns out.
    char* GetString(const char* name, const char* defaultValue, char* out) const;
    // Replaces all children of child `name` by one text node. An absent child is not added.
    void SetString(const char* name, const char* value);
    int GetInt(const char* name, int defaultValue) const;
    void SetInt(const char* name, int value);
    double GetFloat(const char* name) const { return GetFloat(name, 0.0); }
    double GetFloat(const char* name, double defaultValue) const;
    void SetFloat(const char* name, double value);
    bool TestFieldExists(const char* name) const { return GetElement(name) != nullptr; }
    // Removes and frees every child with that name, with its subtree.
    void DeleteElement(const char* name);
    // The element's text, or that of its first child; null when neither has any.
    const char* GetElementData() const;

    // Appends the element as tab-indented text (a negative indent: no line breaks inside).
    // False when nothing was written (an empty or blank text node).
    bool SaveToBuffer(LStringLongTemplate<char>& out, int indent) const;
    // The same constructs with no tabs and no line breaks.
    bool SaveToBufferNoFormatting(LStringLongTemplate<char>& out) const;

    // Appends a child (taking ownership) after the last one.
    void AppendChild(LXMLElement* child);
    // A new text node child holding the text, appended.
    LXMLElement* AddText(const char* text);

    const char* GetName() const { return name.IsNull() ? nullptr : name.GetText(); }
    const char* GetText() const { return text.IsNull() ? nullptr : text.GetText(); }
    bool IsTextNode() const { return name.IsNull(); }
    bool IsSpecial() const { return !name.IsNull() && (name[0] == '!' || name[0] == '?'); }
    LHashTable& GetAttributes() { return attributes; }
    const LHashTable& GetAttributes() const { return attributes; }
    LXMLElement* GetFirstChild() const { return children.Head(); }
    LXMLElement* GetNext() const { return pNext; }

    // The fields, in order.
    LXMLElement* pNext = nullptr;
    bool bPreserveSpace = false;
    LHashTable attributes;
    LList<LXMLElement> children;
    LXMLString name;  // null for a text node or the root
    LXMLString text;

private:
    friend class LXMLReader;
    // Reads the attributes after the name; true when content follows. With a reader, the
    // pairs and the text child of a special node go to its arena.
    bool ParseStartTag(char stop, LXMLLoaderTemplate<char>& loader, LXMLReader* reader);
    void ParseSpecial(char stop, LXMLLoaderTemplate<char>& loader, LXMLReader* reader);
    void CopyFrom(const LXMLElement& other);
    bool Write(LStringLongTemplate<char>& out, int indent, bool format) const;

    LXMLArena* m_pArena = nullptr;  // the arena holding this element's memory, if any
};

class LXMLDocument : public LXMLElement {
public:
    LXMLDocument() = default;

    // 0 loaded (error holds a syntax error, if one was met), 1 cancelled, 2 failed with error
    // holding the file message. error is a 260-byte buffer.
    int LoadFromFile(LProcessInterface& process, const char* path, char* error);
};

// Visits, in order, the children whose name equals name.
class NamedElementIterator {
public:
    NamedElementIterator(LXMLElement& parent, const char* name);
    LXMLElement* Next();

private:
    LXMLElement* m_pNext;
    const char* m_pName;
};

class ConstNamedElementIterator {
public:
    ConstNamedElementIterator(const LXMLElement& parent, const char* name);
    const LXMLElement* Next();

private:
    const LXMLElement* m_pNext;
    const char* m_pName;
};

// Removes leading characters 1..31 and trailing characters below 32, in place.
void LStringTrimFormatting(LStringLongTemplate<char>& text);
