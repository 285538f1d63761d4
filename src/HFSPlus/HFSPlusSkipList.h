#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "HFSPlus/HFSPlusRandom.h"
#include "HFSPlus/HFSPlusSkipListNode.h"

/** An ordered container with logarithmic search and no rebalancing.
 *
 *  Level 0 links all nodes in order, each level above about half of those below it. A payload
 *  keeps its address until it is deleted; its owner may change it as long as the order stays.
 *
 *  `Order` names the `Key` type, takes a payload's key with key(payload) and compares three-way
 *  with compare(payload, key). Payloads of equal keys are allowed. One thread at a time.
 */
template <typename Payload, typename Order, size_t kMaxLevels>
class HFSPlusSkipList {
public:
    using Key = typename Order::Key;

    HFSPlusSkipList() = default;
    HFSPlusSkipList(const HFSPlusSkipList&) = delete;
    HFSPlusSkipList& operator=(const HFSPlusSkipList&) = delete;
    ~HFSPlusSkipList() { deleteAll(); }

    /** Adds a copy of @p payload before all of the same key; null when there is no memory. */
    [[nodiscard]] Payload* insert(const Payload& payload)
    {
        // A node rises one level above the others at most: more would only lengthen searches.
        const size_t level = std::min(_drawnLevel(), _topLevel + 1);
        Node* const node = Node::create(payload, level);
        if (node == nullptr) {
            return nullptr;
        }
        const Predecessors before = _walk(_isBelow(Order::key(payload)));
        _topLevel = std::max(_topLevel, level);
        for (size_t index = 0; index <= level; ++index) {
            Node*& link = _linksOf(before[index])[index];
            node->links()[index] = link;
            link = node;
        }
        return node;
    }

    /** Unlinks and frees @p payload, which must be one of this list's own. */
    void deletePayload(const Payload& payload)
    {
        const auto& node = static_cast<const Node&>(payload);
        const auto isBelow = _isBelow(Order::key(payload));
        // On its own levels the node is met as itself, also among others of the same key.
        const Predecessors before = _walk([&](const Node& next, size_t level) {
            return level <= node.level ? &next != &node : isBelow(next, level);
        });
        for (size_t index = node.level; index > 0; --index) {
            _linksOf(before[index])[index] = node.links()[index];
        }
        Node::free(std::exchange(_linksOf(before[0])[0], node.links()[0]));
        while (_topLevel > 0 && _head[_topLevel] == nullptr) {
            --_topLevel;
        }
    }

    void deleteAll()
    {
        Node* node = _head[0];
        while (node != nullptr) {
            Node::free(std::exchange(node, node->links()[0]));
        }
        _head = {};
        _topLevel = 0;
    }

    /** The neighbours and ends, null where there is none. A list's constness covers its order,
     *  not the payloads. */
    [[nodiscard]] Payload* first() const { return _head[0]; }
    [[nodiscard]] Payload* last() const
    {
        return _walk([](const Node&, size_t) { return true; })[0];
    }
    [[nodiscard]] Payload* next(const Payload& payload) const
    {
        return static_cast<const Node&>(payload).links()[0];
    }
    /** The last payload whose key is below @p key, or null. */
    [[nodiscard]] Payload* lastBefore(const Key& key) const { return _walk(_isBelow(key))[0]; }
    /** The last payload whose key is @p key or below, or null. */
    [[nodiscard]] Payload* lastNotAfter(const Key& key) const
    {
        return _walk([&](const Node& node, size_t) { return Order::compare(node, key) <= 0; })[0];
    }

private:
    using Node = HFSPlusSkipListNode<Payload>;
    using Predecessors = std::array<Node*, kMaxLevels>;  // by level; null: the head

    [[nodiscard]] static auto _isBelow(const Key& key)
    {
        return [key](const Node& node, size_t) { return Order::compare(node, key) < 0; };
    }

    /** One level more with probability one half each. */
    [[nodiscard]] static size_t _drawnLevel()
    {
        constexpr uint32_t kHalf = 0x7FFFFFFF;
        size_t level = 0;
        while (level + 1 < kMaxLevels && HFSPlusRandom::sharedRandom().next() < kHalf) {
            ++level;
        }
        return level;
    }

    [[nodiscard]] Node** _linksOf(Node* node)
    {
        return node != nullptr ? node->links() : _head.data();
    }
    [[nodiscard]] Node* const* _linksOf(const Node* node) const
    {
        return node != nullptr ? node->links() : _head.data();
    }

    /** The last node of each level for which, and for all before which, @p goesBefore holds.
     *  Ends because each step goes forward or down. */
    template <typename Predicate>
    [[nodiscard]] Predecessors _walk(const Predicate& goesBefore) const
    {
        Predecessors before = {};
        Node* node = nullptr;
        for (size_t level = _topLevel + 1; level-- > 0;) {
            Node* next = _linksOf(node)[level];
            while (next != nullptr && goesBefore(*next, level)) {
                node = next;
                next = node->links()[level];
            }
            before[level] = node;
        }
        return before;
    }

    size_t _topLevel = 0;  // highest level that links a node
    std::array<Node*, kMaxLevels> _head = {};
};
