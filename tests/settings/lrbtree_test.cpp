// The red-black tree: its rules checked after every step of random insert and delete
// sequences (duplicates included), iteration against a sorted model, and node stability.
#include "settings/lrbtree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "rbtree_validator.h"

namespace {

using IntTree = LRBTree<int, int>;
using Node = IntTree::Node;
using Validator = LRBTreeValidator<int, int>;

int Height(const Node* x) {
    return x == nullptr ? 0 : 1 + std::max(Height(x->m_pLeft), Height(x->m_pRight));
}

std::vector<std::pair<int, int>> InOrder(const IntTree& tree) {
    std::vector<std::pair<int, int>> out;
    for (Node* x = tree.First(); x != nullptr; x = IntTree::Next(x)) {
        out.emplace_back(x->m_key, *x->m_pValue);
    }
    return out;
}

}  // namespace

TEST(LRBTree, RandomInsertsAndDeletesKeepEveryRule) {
    for (unsigned seed = 1; seed <= 6; ++seed) {
        std::mt19937 rng(seed);
        IntTree tree;
        std::vector<Node*> nodes;                // every live node
        std::vector<std::pair<int, int>> made;   // what each live node was made with
        std::vector<std::pair<int, int>> model;  // (key, tag), kept in the tree's order
        int tag = 0;
        // A small range gives many duplicates, and equal keys go right of their equals: long
        // one-sided runs, like ascending inserts.
        const int keyRange = seed % 2 == 0 ? 20 : 100000;
        for (int step = 0; step < 1500; ++step) {
            const bool insert = nodes.empty() || rng() % 100 < (step < 700 ? 70 : 35);
            if (insert) {
                const int key = static_cast<int>(rng() % keyRange);
                auto* node = new Node(int(key), new int(tag));
                tree.Insert(node);
                nodes.push_back(node);
                made.emplace_back(key, tag);
                // Equal keys go after their equals, as std::upper_bound places them.
                const auto at = std::upper_bound(
                    model.begin(), model.end(), key,
                    [](int k, const std::pair<int, int>& e) { return k < e.first; });
                model.insert(at, {key, tag});
                ++tag;
            } else {
                const size_t i = rng() % nodes.size();
                Node* node = nodes[i];
                model.erase(std::find(model.begin(), model.end(), made[i]));
                tree.Delete(node);
                nodes[i] = nodes.back();
                nodes.pop_back();
                made[i] = made.back();
                made.pop_back();
            }
            ASSERT_EQ(Validator::Check(tree), "") << "seed " << seed << " step " << step;
            // Removal never moves another node's key or value into the node.
            for (size_t k = 0; k < nodes.size(); ++k) {
                ASSERT_EQ(std::make_pair(nodes[k]->m_key, *nodes[k]->m_pValue), made[k]);
            }
        }
        ASSERT_EQ(InOrder(tree), model);
        ASSERT_EQ(tree.GetCount(), nodes.size());
        const double bound = 2 * std::log2(static_cast<double>(nodes.size()) + 1);
        EXPECT_LE(Height(tree.GetRoot()), bound);
    }
}
