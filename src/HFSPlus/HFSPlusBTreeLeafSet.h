#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "HFSPlus/HFSPlusCachedNode.h"
#include "VZDefragError.h"

class HFSPlusBTreeFile;
class HFSPlusBTreeNode;

/** The leaves that a scan of a tree has met, to be held against the tree's index.
 *
 *  A scan goes by the map of nodes or by the links of leaves; whoever searches the tree goes by its
 *  index. On a damaged tree either may lead to records that the other knows nothing of.
 */
class HFSPlusBTreeLeafSet {
public:
    /** The child that an index record leads to; nothing when the record is damaged. */
    using ChildOf = std::function<std::optional<uint32_t>(std::span<const uint8_t> record)>;

    /** @p btree outlives the set. */
    HFSPlusBTreeLeafSet(HFSPlusBTreeFile& btree, ChildOf childOf)
        : _btree(btree), _childOf(std::move(childOf))
    {
    }

    /** Takes in a leaf that the scan met; it must be in use, and so the one that follows it. */
    [[nodiscard]] bool addLeaf(const HFSPlusBTreeNode& leaf, std::string_view message,
                               VZDefragErrorSlot error);
    /** Whether each leaf that the index leads to was met, and is led to once; empties the set. */
    [[nodiscard]] bool checkIndex(std::string_view message, VZDefragErrorSlot error);

private:
    /** A node on the way from the root to a leaf. */
    struct Step {
        HFSPlusCachedNode node;
        uint32_t record = 0;  // the next one to follow
    };

    [[nodiscard]] bool _isInUse(uint32_t index) const;
    [[nodiscard]] bool _visit(std::vector<Step>& path, uint32_t index, uint32_t height,
                              std::string_view message, VZDefragErrorSlot error);

    HFSPlusBTreeFile& _btree;
    ChildOf _childOf;
    std::vector<bool> _leaves;  // by node index, no longer than the map of nodes
};
