// LList: front pushes, unlinking and ownership of nodes (deleted exactly once, through the
// virtual destructor of a base node type).
#include "platform/llist.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

int deaths = 0, derivedDeaths = 0;

struct Node {
    explicit Node(int v = 0) : value(v) {}
    virtual ~Node() { ++deaths; }
    int value;
    Node* pNext = nullptr;
};

struct Derived : Node {
    ~Derived() override { ++derivedDeaths; }
};

std::vector<int> Values(LList<Node> const& list) {
    std::vector<int> out;
    for (Node const& node : list) {
        out.push_back(node.value);
    }
    return out;
}

TEST(LList, PushFrontReversesOrderAndUnlinkingHandsNodesBack) {
    LList<Node> list;
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(list.Count(), 0u);
    Node* keep[5];
    for (int i = 0; i < 5; ++i) {
        list.PushFront(keep[i] = new Node(i));
    }
    EXPECT_EQ(Values(list), (std::vector<int>{4, 3, 2, 1, 0}));
    EXPECT_EQ(list.Count(), 5u);
    EXPECT_EQ(list.Head(), keep[4]);
    // Middle, last and first nodes each unlink cleanly and come back without a link.
    Node* unlinked[] = {list.RemoveFirst([](Node const& n) { return n.value == 2; }),
                        list.Remove(keep[0]) ? keep[0] : nullptr, list.PopFront()};
    EXPECT_EQ(unlinked[0], keep[2]);
    EXPECT_EQ(unlinked[1], keep[0]);
    EXPECT_EQ(unlinked[2], keep[4]);
    for (Node* node : unlinked) {
        EXPECT_EQ(node->pNext, nullptr);
        delete node;
    }
    EXPECT_EQ(Values(list), (std::vector<int>{3, 1}));
    // Absent nodes are left alone.
    Node stranger(9);
    EXPECT_FALSE(list.Remove(&stranger));
    EXPECT_EQ(list.RemoveFirst([](Node const& n) { return n.value == 42; }), nullptr);
    EXPECT_EQ(list.FindFirst([](Node const& n) { return n.value == 1; }), keep[1]);
    EXPECT_EQ(list.Count(), 2u);
}

TEST(LList, OwnsNodesUntilDetached) {
    deaths = derivedDeaths = 0;
    {
        LList<Node> list;
        list.PushFront(new Node);
        list.PushFront(new Derived);
    }
    EXPECT_EQ(deaths, 2);
    EXPECT_EQ(derivedDeaths, 1);

    LList<Node> list;
    list.PushFront(new Node);
    Node* chain = list.Detach();
    EXPECT_TRUE(list.IsEmpty());
    list.Clear();
    EXPECT_EQ(deaths, 2);
    delete chain;
    EXPECT_EQ(deaths, 3);
}

}  // namespace
