// LList<T>: the program's intrusive singly linked list. A node carries its own link in a
// member `T* pNext`; the list holds only the head pointer and new nodes are pushed at the
// front, so a list built by pushing reads back in the reverse order of the pushes.
//
// Invariants:
// - The list owns its nodes: they are allocated with `new` by whoever pushes them and the list
//   deletes them (through `T`'s destructor, virtual where `T` is a base) when it is cleared or
//   destroyed. Nodes leave the list's ownership only through PopFront, Remove and Detach.
// - A node is in at most one list at a time; the list never copies nodes, so it is move-only.
// - No locking: a list is touched by one thread at a time, or under its owner's lock.
#pragma once

#include <cstddef>
#include <iterator>
#include <utility>

template <class T>
class LList {
public:
    class Iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = T*;
        using reference = T&;

        Iterator() = default;
        explicit Iterator(T* node) : node_(node) {}
        T& operator*() const { return *node_; }
        T* operator->() const { return node_; }
        Iterator& operator++() {
            node_ = node_->pNext;
            return *this;
        }
        Iterator operator++(int) {
            Iterator before = *this;
            node_ = node_->pNext;
            return before;
        }
        bool operator==(const Iterator&) const = default;

    private:
        T* node_ = nullptr;
    };

    LList() = default;
    ~LList() { Clear(); }
    LList(const LList&) = delete;
    LList& operator=(const LList&) = delete;
    LList(LList&& other) noexcept : pHead_(std::exchange(other.pHead_, nullptr)) {}
    LList& operator=(LList&& other) noexcept {
        if (this != &other) {
            Clear();
            pHead_ = std::exchange(other.pHead_, nullptr);
        }
        return *this;
    }

    // Takes ownership of `node` and makes it the first node.
    void PushFront(T* node) {
        node->pNext = pHead_;
        pHead_ = node;
    }

    // Unlinks the first node and hands it to the caller; null when the list is empty.
    T* PopFront() {
        T* node = pHead_;
        if (node != nullptr) {
            pHead_ = node->pNext;
            node->pNext = nullptr;
        }
        return node;
    }

    // Unlinks the first node for which `match(node)` holds and hands it to the caller; null
    // when none matches.
    template <class Match>
    T* RemoveFirst(Match&& match) {
        for (T** link = &pHead_; *link != nullptr; link = &(*link)->pNext) {
            if (match(static_cast<const T&>(**link))) {
                T* node = *link;
                *link = node->pNext;
                node->pNext = nullptr;
                return node;
            }
        }
        return nullptr;
    }

    // Unlinks `node` if it is in this list; true when it was.
    bool Remove(T* node) {
        return RemoveFirst([node](const T& candidate) { return &candidate == node; }) != nullptr;
    }

    // The first node for which `match(node)` holds, or null. The list keeps it.
    template <class Match>
    T* FindFirst(Match&& match) const {
        for (T* node = pHead_; node != nullptr; node = node->pNext) {
            if (match(static_cast<const T&>(*node))) {
                return node;
            }
        }
        return nullptr;
    }

    // Gives up the whole chain to the caller, leaving the list empty.
    T* Detach() { return std::exchange(pHead_, nullptr); }

    // Deletes every node, front first.
    void Clear() {
        while (T* node = PopFront()) {
            delete node;
        }
    }

    T* Head() const { return pHead_; }
    bool IsEmpty() const { return pHead_ == nullptr; }
    size_t Count() const {
        size_t count = 0;
        for (T* node = pHead_; node != nullptr; node = node->pNext) {
            ++count;
        }
        return count;
    }

    Iterator begin() const { return Iterator(pHead_); }
    Iterator end() const { return Iterator(); }

private:
    T* pHead_ = nullptr;
};
