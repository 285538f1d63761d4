#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>

/** A payload with its forward pointers, in one allocation, for HFSPlusSkipList. */
template <typename Payload>
struct alignas(void*) HFSPlusSkipListNode : Payload {
    static_assert(std::is_trivially_destructible_v<Payload>, "nodes are freed, not destroyed");

    /** A node with @p level + 1 links, all null; null itself when there is no memory. */
    [[nodiscard]] static HFSPlusSkipListNode* create(const Payload& payload, size_t level)
    {
        const size_t size = sizeof(HFSPlusSkipListNode) + (level + 1) * sizeof(void*);
        void* const memory = ::operator new(size, std::nothrow);
        if (memory == nullptr) {
            return nullptr;
        }
        auto* const node = ::new (memory) HFSPlusSkipListNode(payload, level);
        std::uninitialized_fill_n(node->links(), level + 1, nullptr);
        return node;
    }
    static void free(HFSPlusSkipListNode* node) { ::operator delete(node); }

    /** The next node of each level; they follow the node in memory. */
    [[nodiscard]] HFSPlusSkipListNode** links()
    {
        return reinterpret_cast<HFSPlusSkipListNode**>(this + 1);
    }
    [[nodiscard]] HFSPlusSkipListNode* const* links() const
    {
        return reinterpret_cast<HFSPlusSkipListNode* const*>(this + 1);
    }

    uint32_t level;

private:
    HFSPlusSkipListNode(const Payload& payload, size_t nodeLevel)
        : Payload(payload), level(static_cast<uint32_t>(nodeLevel))
    {
    }
};
