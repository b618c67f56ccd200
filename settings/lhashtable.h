// LHashTable: the library's ordered text-to-text table. Despite the name nothing is hashed:
// pairs live in a red-black tree ordered by strcmp on the raw key bytes (case-sensitive, a
// null key counts as ""), so iteration is in ascending byte order ("B" before "a", "a" before
// "ab").
//
// Keys are unique when pairs go in through SetString and its aliases, which overwrite.
// LoadHTTPString is the one path that inserts without a lookup and may leave several nodes
// with one key; a lookup then answers with the first of them on its path from the root. That
// is deliberate and callers of the query-string form depend on it.
//
// Getters never fail: a missing key, or a node without a value object, gives the caller's
// default. Pointers returned into the table stay valid until that pair is changed or removed.
// A table is used by one thread at a time.
//
// Borrowed pairs: a builder that keeps many small tables in memory of its own (the XML reader
// keeps every parsed element in one arena) hands a table its pairs with SetBorrowed, as one
// array sorted by key, so that filling and freeing such a table costs no allocation and no
// tree node. The table never frees or changes borrowed memory: reading works on the array as
// it is, and the first change through any other member (or a look at the tree itself) makes
// owned nodes of every pair first. Texts returned before that stay readable, because the
// borrowed memory outlives the table.
#pragma once

#include <cstring>

#include "settings/lrbtree.h"
#include "text/lstring.h"

class LDatFile;

// A growable key string owned by a tree node, ordered by strcmp.
class LStringLongKey : public LStringLongTemplate<char> {
public:
    LStringLongKey() = default;
    explicit LStringLongKey(const char* text) : LStringLongTemplate<char>(text) {}
    explicit LStringLongKey(LStringLongTemplate<char>&& text)
        : LStringLongTemplate<char>(static_cast<LStringLongTemplate<char>&&>(text)) {}
};

template <>
struct LRBTreeKeyTraits<LStringLongKey> {
    static int Compare(const LStringLongKey& key, const LStringLongKey& other) {
        return std::strcmp(key.GetText(), other.GetText());
    }
    static int Compare(const LStringLongKey& key, const char* probe) {
        return std::strcmp(key.GetText(), probe != nullptr ? probe : "");
    }
};

class LHashTable {
public:
    using Tree = LRBTree<LStringLongKey, LStringLongTemplate<char>>;
    using Node = Tree::Node;

    // Walks the pairs in ascending key order; may change the value under it.
    class Iterator {
    public:
        // May change the table, so its pairs are made its own first.
        explicit Iterator(LHashTable& table)
            : m_rTable(table), m_pNode((table.Own(), table.m_tree.First())) {}
        bool IsValid() const { return m_pNode != nullptr; }
        explicit operator bool() const { return IsValid(); }
        Iterator& operator++() {
            m_pNode = Tree::Next(m_pNode);
            return *this;
        }
        void Next() { ++*this; }
        const char* GetParm() const { return m_pNode->m_key.GetText(); }
        // The empty string for a value without a buffer.
        const char* GetData() const;
        void SetData(const char* value);
        Node* GetNode() const { return m_pNode; }
        LHashTable& GetTable() const { return m_rTable; }

    private:
        friend class LHashTable;
        LHashTable& m_rTable;
        Node* m_pNode;
    };

    // One pair of a borrowed array: terminated texts that outlive the table.
    struct BorrowedPair {
        const char* pKey;
        const char* pValue;
    };
    // The array handed to SetBorrowed: this header, then nCount pairs in ascending strcmp order
    // of their keys, no key twice.
    struct BorrowedPairs {
        unsigned long nCount;
        const BorrowedPair* Begin() const {
            return reinterpret_cast<const BorrowedPair*>(this + 1);
        }
        const BorrowedPair* End() const { return Begin() + nCount; }
    };

    // Walks the pairs in ascending key order without changing the table; borrowed pairs are
    // read where they are.
    class ConstIterator {
    public:
        explicit ConstIterator(const LHashTable& table)
            : m_rTable(table), m_pNode(table.m_tree.First()) {
            if (table.m_pBorrowed != nullptr) {
                m_pPair = table.m_pBorrowed->Begin();
                m_pPairEnd = table.m_pBorrowed->End();
            }
        }
        bool IsValid() const { return m_pNode != nullptr || m_pPair != nullptr; }
        explicit operator bool() const { return IsValid(); }
        ConstIterator& operator++() {
            if (m_pPair != nullptr) {
                m_pPair = m_pPair + 1 != m_pPairEnd ? m_pPair + 1 : nullptr;
            } else {
                m_pNode = Tree::Next(m_pNode);
            }
            return *this;
        }
        void Next() { ++*this; }
        const char* GetParm() const {
            return m_pPair != nullptr ? m_pPair->pKey : m_pNode->m_key.GetText();
        }
        const char* GetData() const;
        // Over a borrowed pair, the table makes its nodes first (see GetTree) and the walk goes
        // on over them.
        const Node* GetNode() const;
        const LHashTable& GetTable() const { return m_rTable; }

    private:
        const LHashTable& m_rTable;
        mutable Node* m_pNode;
        mutable const BorrowedPair* m_pPair = nullptr;
        const BorrowedPair* m_pPairEnd = nullptr;
    };

    LHashTable() = default;
    // Enters every pair of the source with SetString, in ascending order.
    LHashTable(const LHashTable& other);
    LHashTable& operator=(const LHashTable& other);
    ~LHashTable() { Clear(); }

    void Clear() {
        m_pBorrowed = nullptr;
        m_tree.Clear();
    }
    bool IsEmpty() const { return m_pBorrowed == nullptr && m_tree.IsEmpty(); }
    // True when the table has nodes of its own to free (false for borrowed pairs alone).
    bool HasOwnedPairs() const { return !m_tree.IsEmpty(); }
    // Number of pairs (duplicates from LoadHTTPString included), walking the tree for owned ones.
    unsigned long GetSize() const {
        return m_pBorrowed != nullptr ? m_pBorrowed->nCount : m_tree.GetCount();
    }

    // ---- Setting ----
    // Overwrites the value of an existing key, else inserts a new pair.
    void SetString(const char* key, const char* value);
    // Both are SetString: the table is always in key order, "bottom" places nothing.
    void SetParm(const char* key, const char* value) { SetString(key, value); }
    void SetParmBottom(const char* key, const char* value) { SetString(key, value); }
    // As SetString, but takes value's buffer and leaves value null (no data, length 0).
    void AssignString(const char* key, LStringLongTemplate<char>& value);
    void SetInt(const char* key, int value);          // "%d"
    void SetInt64(const char* key, long long value);  // "%lld"
    void SetFloat(const char* key, double value);     // "%f"

    // ---- Reading ----
    const char* GetParm(const char* key, const char* defaultValue) const;
    const char* GetString(const char* key, const char* defaultValue) const {
        return GetParm(key, defaultValue);
    }
    // Copies the GetString result into a 260-byte buffer (at most 259 characters); returns dest.
    char* GetString(const char* key, const char* defaultValue, char* dest) const;
    void GetString(const char* key, const char* defaultValue,
                   LStringLongTemplate<char>& dest) const;
    // Trims blanks (0x20 only) from both ends of the stored value, keeps the trimmed value and
    // returns it.
    const char* GetParmTrim(const char* key, const char* defaultValue);
    // strtol base 10 on the text cut to 259 characters; empty or absent gives the default.
    int GetInt(const char* key, int defaultValue) const;
    long long GetInt64(const char* key, long long defaultValue) const;
    long long GetSsize(const char* key, long long defaultValue) const {
        return GetInt64(key, defaultValue);
    }
    double GetFloat(const char* key, double defaultValue) const;
    // True exactly when the value starts with '1'; empty or absent gives the default.
    bool GetBool(const char* key, bool defaultValue) const;
    bool TestFieldExists(const char* key) const;
    bool TestExists(const char* key) const { return TestFieldExists(key); }

    // Gives an empty table the pairs of an array that outlives it (see BorrowedPairs), without
    // copying them. A table that already holds pairs enters each one with SetString instead.
    void SetBorrowed(const BorrowedPairs* pairs);

    // ---- Removing ----
    void DeleteField(const char* key);
    void DeleteParm(const char* key) { DeleteField(key); }
    // Removes the pair under the iterator and moves the iterator to its successor. An iterator
    // at the end, or over another table, is left alone.
    void Delete(Iterator& it);

    // ---- Text forms ----
    // Expands %name% placeholders into out (outSize - 1 characters and a NUL; the rest is
    // dropped). "%%" gives "%". True when any placeholder was met.
    bool ParseString(const char* text, char* out, unsigned long outSize) const;
    // Expands into a new[] text the caller frees with delete[]. Here "%%" names the empty key.
    char* ParseString(const char* text) const;
    // Adds the pairs of a URI-encoded "key=value&key=value" text without looking the keys up.
    void LoadHTTPString(const char* text);
    void LoadHTTPString(const LStringLongTemplate<char>& text) { LoadHTTPString(text.GetText()); }
    void LoadHTTPStringUTF8(const char* text) { LoadHTTPString(text); }
    // Replaces out with the URI-encoded pairs in key order; returns its length.
    unsigned long SaveHTTPString(LStringLongTemplate<char>& out) const;
    // Appends "key=value" pairs joined by '&', unencoded.
    void SaveString(LStringLongTemplate<char>& out) const;
    // Sets every pair into one section of the data file, in ascending key order (one set, and
    // so one save of the file, per pair).
    void SaveDatFile(LDatFile& file, const char* section) const;

    // The tree itself, for inspection. Borrowed pairs are made owned nodes first.
    const Tree& GetTree() const {
        Own();
        return m_tree;
    }

private:
    Node* FindNode(const char* key) const { return m_tree.Find(key); }
    // The borrowed pair with that key, or null; only while pairs are borrowed.
    const BorrowedPair* FindBorrowed(const char* key) const;
    // The value text of the key's pair, or null when it is absent or has no value object.
    const char* FindValue(const char* key) const;
    const char* ValueText(const Node* node, const char* defaultValue) const;
    void CopyFrom(const LHashTable& other);
    // Replaces borrowed pairs by owned nodes, before any change. The pairs are the same either
    // way, so to the table's user this changes nothing; hence const, over mutable fields.
    void Own() const;

    mutable Tree m_tree;
    mutable const BorrowedPairs* m_pBorrowed = nullptr;  // set: the tree is empty
};

// Enters every pair of src into dest with SetString: equal keys are overwritten, the other
// keys of dest stay.
void LHashTableCopy(LHashTable& dest, const LHashTable& src);
