// Test-only checker of the red-black rules and the links of an LRBTree: parent pointers agree
// with child pointers, the root is black, no red node has a red child, every path to a missing
// child has the same number of black nodes, and the in-order sequence never decreases.
#pragma once

#include <string>

#include "settings/lrbtree.h"

template <typename K, typename V, typename Traits = LRBTreeKeyTraits<K>>
class LRBTreeValidator {
public:
    using Node = LRBTreeNodeItem<K, V>;
    // Empty when the tree is sound, else a description of the first fault found.
    static std::string Check(const LRBTree<K, V, Traits>& tree) {
        const Node* root = tree.GetRoot();
        std::string fault;
        if (root != nullptr && root->m_pParent != nullptr) {
            fault = "root has a parent";
        } else if (root != nullptr && root->m_nColour != Node::kBlack) {
            fault = "root is red";
        } else {
            BlackHeight(root, fault);
        }
        const Node* previous = nullptr;
        for (const Node* x = tree.First(); fault.empty() && x != nullptr;
             x = LRBTree<K, V, Traits>::Next(const_cast<Node*>(x))) {
            if (previous != nullptr && Traits::Compare(previous->m_key, x->m_key) > 0) {
                fault = "in-order sequence decreases";
            }
            previous = x;
        }
        return fault;
    }

private:
    static int BlackHeight(const Node* x, std::string& fault) {
        if (x == nullptr || !fault.empty()) {
            return 1;
        }
        if (x->m_nColour != Node::kRed && x->m_nColour != Node::kBlack) {
            fault = "colour is neither red nor black";
            return 0;
        }
        for (const Node* child : {x->m_pLeft, x->m_pRight}) {
            if (child != nullptr && child->m_pParent != x) {
                fault = "child's parent pointer is wrong";
                return 0;
            }
            if (child != nullptr && x->m_nColour == Node::kRed && child->m_nColour == Node::kRed) {
                fault = "red node with a red child";
                return 0;
            }
        }
        const int left = BlackHeight(x->m_pLeft, fault);
        const int right = BlackHeight(x->m_pRight, fault);
        if (fault.empty() && left != right) {
            fault = "black heights differ";
        }
        return left + (x->m_nColour == Node::kBlack ? 1 : 0);
    }
};
