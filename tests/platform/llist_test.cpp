// LList: front pushes, unlinking, ownership of nodes (deleted exactly once, through the
// virtual destructor of a base node type) and moves.
#include "platform/llist.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

struct Node {
    explicit Node(int v) : value(v) {}
    int value;
    Node* pNext = nullptr;
};

std::vector<int> Values(const LList<Node>& list) {
    std::vector<int> out;
    for (const Node& node : list) {
        out.push_back(node.value);
    }
    return out;
}

struct CountedBase {
    explicit CountedBase(int* deaths) : deaths_(deaths) {}
    virtual ~CountedBase() { ++*deaths_; }
    CountedBase* pNext = nullptr;
    int* deaths_;
};

struct CountedDerived : CountedBase {
    CountedDerived(int* deaths, int* derivedDeaths)
        : CountedBase(deaths), derivedDeaths_(derivedDeaths) {}
    ~CountedDerived() override { ++*derivedDeaths_; }
    int* derivedDeaths_;
};

TEST(LList, PushFrontReversesOrderAndCounts) {
    LList<Node> list;
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(list.Count(), 0u);
    for (int i = 1; i <= 4; ++i) {
        list.PushFront(new Node(i));
    }
    EXPECT_EQ(Values(list), (std::vector<int>{4, 3, 2, 1}));
    EXPECT_EQ(list.Count(), 4u);
    EXPECT_EQ(list.Head()->value, 4);
}

TEST(LList, UnlinkingHandsNodesBack) {
    LList<Node> list;
    Node* keep[5];
    for (int i = 0; i < 5; ++i) {
        keep[i] = new Node(i);
        list.PushFront(keep[i]);
    }
    // Middle, last and first nodes each unlink cleanly.
    Node* middle = list.RemoveFirst([](const Node& n) { return n.value == 2; });
    ASSERT_EQ(middle, keep[2]);
    EXPECT_EQ(middle->pNext, nullptr);
    delete middle;
    EXPECT_TRUE(list.Remove(keep[0]));
    delete keep[0];
    Node* front = list.PopFront();
    EXPECT_EQ(front, keep[4]);
    delete front;
    EXPECT_EQ(Values(list), (std::vector<int>{3, 1}));
    // Absent nodes are left alone.
    Node stranger(9);
    EXPECT_FALSE(list.Remove(&stranger));
    EXPECT_EQ(list.RemoveFirst([](const Node& n) { return n.value == 42; }), nullptr);
    EXPECT_EQ(list.FindFirst([](const Node& n) { return n.value == 1; }), keep[1]);
    EXPECT_EQ(list.Count(), 2u);
}

TEST(LList, OwnsNodesUntilDetached) {
    int deaths = 0;
    int derivedDeaths = 0;
    {
        LList<CountedBase> list;
        list.PushFront(new CountedBase(&deaths));
        list.PushFront(new CountedDerived(&deaths, &derivedDeaths));
        LList<CountedBase> moved(std::move(list));
        EXPECT_TRUE(list.IsEmpty());
        EXPECT_EQ(moved.Count(), 2u);
        LList<CountedBase> assigned;
        assigned.PushFront(new CountedBase(&deaths));
        assigned = std::move(moved);  // the old node of `assigned` goes
        EXPECT_EQ(deaths, 1);
        EXPECT_EQ(assigned.Count(), 2u);
    }
    EXPECT_EQ(deaths, 3);
    EXPECT_EQ(derivedDeaths, 1);

    LList<CountedBase> list;
    list.PushFront(new CountedBase(&deaths));
    CountedBase* chain = list.Detach();
    EXPECT_TRUE(list.IsEmpty());
    list.Clear();
    EXPECT_EQ(deaths, 3);
    delete chain;
    EXPECT_EQ(deaths, 4);
}

}  // namespace
