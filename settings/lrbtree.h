// A red-black tree of nodes that own their key and value, ordered by a three-way key
// comparison. It is the store beneath LHashTable.
//
// What callers rely on:
//   - Insert never looks the key up: a key equal to existing ones is attached to the right of
//     its equals (after them in iteration order), so equal keys may coexist;
//   - Find returns the first node with an equal key met on the path from the root;
//   - removal relinks nodes and never moves a key or value between nodes, so pointers to any
//     other node (iterators) stay valid across a removal;
//   - the usual red-black rules hold after every public operation: the root is black, a red
//     node has no red child, and every path from a node down to a missing child passes the
//     same number of black nodes. Depth is therefore at most 2 log2(n + 1).
// The tree is not thread-safe; its owner locks.
#pragma once

#include <cstdint>

// Three-way comparison of a stored key with a key or a probe of another type. Specialise it
// for keys that need a particular order (LStringLongKey uses strcmp).
template <typename K>
struct LRBTreeKeyTraits {
    template <typename P>
    static int Compare(const K& key, const P& probe) {
        return key < probe ? -1 : (probe < key ? 1 : 0);
    }
};

template <typename K, typename V>
struct LRBTreeNodeItem {
    static constexpr int32_t kBlack = 0;
    static constexpr int32_t kRed = 1;

    LRBTreeNodeItem(K&& key, V* value) : m_key(static_cast<K&&>(key)), m_pValue(value) {}
    LRBTreeNodeItem(const LRBTreeNodeItem&) = delete;
    LRBTreeNodeItem& operator=(const LRBTreeNodeItem&) = delete;
    ~LRBTreeNodeItem() { delete m_pValue; }

    K m_key;
    V* m_pValue;  // owned; may be null
    int32_t m_nColour = kRed;
    LRBTreeNodeItem* m_pLeft = nullptr;
    LRBTreeNodeItem* m_pRight = nullptr;
    LRBTreeNodeItem* m_pParent = nullptr;
};

template <typename K, typename V, typename Traits = LRBTreeKeyTraits<K>>
class LRBTree {
public:
    using Node = LRBTreeNodeItem<K, V>;

    LRBTree() = default;
    LRBTree(const LRBTree&) = delete;
    LRBTree& operator=(const LRBTree&) = delete;
    ~LRBTree() { Clear(); }

    Node* GetRoot() const { return m_pRoot; }
    bool IsEmpty() const { return m_pRoot == nullptr; }

    // Takes ownership of a new node and attaches it without a lookup (equal keys go right).
    void Insert(Node* node);

    // First node with a key equal to the probe on the path from the root, or null.
    template <typename P>
    Node* Find(const P& probe) const {
        Node* x = m_pRoot;
        while (x != nullptr) {
            const int c = Traits::Compare(x->m_key, probe);
            if (c == 0) {
                return x;
            }
            x = c < 0 ? x->m_pRight : x->m_pLeft;
        }
        return nullptr;
    }

    // Unlinks the node (the caller then owns it); Delete also frees it.
    void Remove(Node* node);
    void Delete(Node* node) {
        Remove(node);
        delete node;
    }
    // Empties the tree without freeing any node, for nodes whose memory belongs to someone
    // else; the nodes keep their links, so a caller holding the old root can still walk them.
    Node* Forget() {
        Node* root = m_pRoot;
        m_pRoot = nullptr;
        return root;
    }
    // Frees every node.
    void Clear() {
        FreeSubtree(m_pRoot);
        m_pRoot = nullptr;
    }
    // Number of nodes, by walking the tree.
    unsigned long GetCount() const {
        unsigned long n = 0;
        for (Node* x = First(); x != nullptr; x = Next(x)) {
            ++n;
        }
        return n;
    }

    Node* First() const { return m_pRoot != nullptr ? Leftmost(m_pRoot) : nullptr; }
    // In-order successor, or null after the last node.
    static Node* Next(Node* x) {
        if (x->m_pRight != nullptr) {
            return Leftmost(x->m_pRight);
        }
        Node* p = x->m_pParent;
        while (p != nullptr && x == p->m_pRight) {
            x = p;
            p = p->m_pParent;
        }
        return p;
    }

private:
    static Node* Leftmost(Node* x) {
        while (x->m_pLeft != nullptr) {
            x = x->m_pLeft;
        }
        return x;
    }
    static bool IsRed(const Node* x) { return x != nullptr && x->m_nColour == Node::kRed; }
    static void FreeSubtree(Node* x) {
        while (x != nullptr) {
            FreeSubtree(x->m_pLeft);  // recursion depth is bounded by the tree's height
            Node* right = x->m_pRight;
            delete x;
            x = right;
        }
    }

    // The child of x on one side. Rotations and the rebalancing cases come in mirror-image
    // pairs; each is written once for a side and its opposite (!side).
    static Node*& Child(Node* x, bool right) { return right ? x->m_pRight : x->m_pLeft; }
    // Lifts x's child on the side opposite `right` into x's place; x becomes that node's child
    // on `right`. Rotate(x, false) is a left rotation.
    void Rotate(Node* x, bool right);
    // Puts v (possibly null) where u hangs from u's parent.
    void Transplant(Node* u, Node* v);
    void InsertFixup(Node* z);
    void RemoveFixup(Node* x, Node* parent);

    Node* m_pRoot = nullptr;
};

template <typename K, typename V, typename Traits>
void LRBTree<K, V, Traits>::Rotate(Node* x, bool right) {
    Node* y = Child(x, !right);
    Child(x, !right) = Child(y, right);
    if (Child(y, right) != nullptr) {
        Child(y, right)->m_pParent = x;
    }
    Transplant(x, y);
    Child(y, right) = x;
    x->m_pParent = y;
}

template <typename K, typename V, typename Traits>
void LRBTree<K, V, Traits>::Transplant(Node* u, Node* v) {
    Node* p = u->m_pParent;
    if (p == nullptr) {
        m_pRoot = v;
    } else if (u == p->m_pLeft) {
        p->m_pLeft = v;
    } else {
        p->m_pRight = v;
    }
    if (v != nullptr) {
        v->m_pParent = p;
    }
}

template <typename K, typename V, typename Traits>
void LRBTree<K, V, Traits>::Insert(Node* z) {
    Node* parent = nullptr;
    bool right = false;
    for (Node* x = m_pRoot; x != nullptr;) {
        parent = x;
        // An existing key less than or equal to the new one sends the new node right.
        right = Traits::Compare(x->m_key, z->m_key) < 1;
        x = Child(x, right);
    }
    z->m_pParent = parent;
    z->m_pLeft = nullptr;
    z->m_pRight = nullptr;
    z->m_nColour = Node::kRed;
    if (parent == nullptr) {
        m_pRoot = z;
    } else {
        Child(parent, right) = z;
    }
    InsertFixup(z);
}

template <typename K, typename V, typename Traits>
void LRBTree<K, V, Traits>::InsertFixup(Node* z) {
    while (IsRed(z->m_pParent)) {
        Node* p = z->m_pParent;
        Node* g = p->m_pParent;             // exists: a red node is never the root
        const bool side = p != g->m_pLeft;  // the side of g that p hangs on
        Node* uncle = Child(g, !side);
        if (IsRed(uncle)) {
            p->m_nColour = Node::kBlack;
            uncle->m_nColour = Node::kBlack;
            g->m_nColour = Node::kRed;
            z = g;
            continue;
        }
        if (z == Child(p, !side)) {
            z = p;
            Rotate(z, side);
            p = z->m_pParent;
        }
        p->m_nColour = Node::kBlack;
        g->m_nColour = Node::kRed;
        Rotate(g, !side);
    }
    m_pRoot->m_nColour = Node::kBlack;
}

template <typename K, typename V, typename Traits>
void LRBTree<K, V, Traits>::Remove(Node* z) {
    int32_t removedColour = z->m_nColour;
    Node* x = nullptr;        // the node that takes the removed position (may be null)
    Node* xParent = nullptr;  // its parent, needed when x is null
    if (z->m_pLeft == nullptr) {
        x = z->m_pRight;
        xParent = z->m_pParent;
        Transplant(z, z->m_pRight);
    } else if (z->m_pRight == nullptr) {
        x = z->m_pLeft;
        xParent = z->m_pParent;
        Transplant(z, z->m_pLeft);
    } else {
        // Two children: the successor is spliced into z's place and takes over its colour.
        Node* y = Leftmost(z->m_pRight);
        removedColour = y->m_nColour;
        x = y->m_pRight;
        if (y->m_pParent == z) {
            xParent = y;
        } else {
            xParent = y->m_pParent;
            Transplant(y, y->m_pRight);
            y->m_pRight = z->m_pRight;
            y->m_pRight->m_pParent = y;
        }
        Transplant(z, y);
        y->m_pLeft = z->m_pLeft;
        y->m_pLeft->m_pParent = y;
        y->m_nColour = z->m_nColour;
    }
    z->m_pLeft = nullptr;
    z->m_pRight = nullptr;
    z->m_pParent = nullptr;
    if (removedColour == Node::kBlack) {
        RemoveFixup(x, xParent);
    }
}

template <typename K, typename V, typename Traits>
void LRBTree<K, V, Traits>::RemoveFixup(Node* x, Node* parent) {
    // x carries an extra black. Its sibling always exists: the sibling's side has at least
    // one more black node than x's side has now.
    while (x != m_pRoot && !IsRed(x)) {
        // x may be null, so its side is told by the left link alone.
        const bool side = x != parent->m_pLeft;
        Node* w = Child(parent, !side);
        if (IsRed(w)) {
            w->m_nColour = Node::kBlack;
            parent->m_nColour = Node::kRed;
            Rotate(parent, side);
            w = Child(parent, !side);
        }
        if (!IsRed(w->m_pLeft) && !IsRed(w->m_pRight)) {
            w->m_nColour = Node::kRed;
            x = parent;
            parent = x->m_pParent;
            continue;
        }
        if (!IsRed(Child(w, !side))) {
            Child(w, side)->m_nColour = Node::kBlack;
            w->m_nColour = Node::kRed;
            Rotate(w, !side);
            w = Child(parent, !side);
        }
        w->m_nColour = parent->m_nColour;
        parent->m_nColour = Node::kBlack;
        Child(w, !side)->m_nColour = Node::kBlack;
        Rotate(parent, side);
        x = m_pRoot;
    }
    if (x != nullptr) {
        x->m_nColour = Node::kBlack;
    }
}
