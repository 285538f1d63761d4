#include "HFSPlus/HFSPlusExtents.h"

#include <optional>

#include "VZDefragTask.h"

// The look at the whole extents overflow tree that comes before its first change.

namespace {

constexpr std::string_view kInconsistent = "Overflow extents file is inconsistent.";

/** Takes node @p index out of @p map; false when it is not in there. */
bool takeOut(std::vector<uint8_t>& map, uint32_t index)
{
    const auto bit = static_cast<uint8_t>(0x80U >> index % 8);
    if (index / 8 >= map.size() || (map[index / 8] & bit) == 0) {
        return false;
    }
    map[index / 8] &= static_cast<uint8_t>(~bit);
    return true;
}

/** Keys in the order in which a walk from left to right meets them. */
class KeyOrder {
public:
    /** Whether a leaf record's key comes after all others. */
    [[nodiscard]] bool addRecord(const HFSPlusExtentKey& key) { return _add(key, false); }
    /** The same for a key that leads to what follows, whose first record may have it, too. */
    [[nodiscard]] bool addSeparator(const HFSPlusExtentKey& key) { return _add(key, true); }

private:
    [[nodiscard]] bool _add(const HFSPlusExtentKey& key, bool isSeparator)
    {
        bool match = false;
        const int order = _last ? HFSPlusExtents::compare(*_last, key, match) : -1;
        const bool follows = order < 0 || (order == 0 && _lastIsSeparator);
        _last = key;
        _lastIsSeparator = isSeparator;
        return follows;
    }

    std::optional<HFSPlusExtentKey> _last;
    bool _lastIsSeparator = false;
};

}  // namespace

/** What is left to meet of the tree, and on which way the walk is. */
struct HFSPlusExtents::Walk {
    std::vector<uint8_t> unmetNodes;  // as the map, without those that were met
    KeyOrder keys;
    Path path;  // Step::record is the next one to follow
};

bool HFSPlusExtents::checkTree(VZDefragErrorSlot error)
{
    Walk walk;
    walk.unmetNodes = _freeNodeMap;
    const uint32_t depth = headerRecord().treeDepth;
    if (!_checkMapNodes(walk.unmetNodes, error)) {
        return false;
    }
    if (depth == 0 && rootNode() == 0) {
        return true;  // a tree without records
    }
    if (depth == 0 || depth > kBTMaxTreeDepth) {
        return VZDefragFail(error, kInconsistent);
    }
    walk.path.reserve(depth);
    if (!_enterNode(walk, rootNode(), depth, error)) {
        return false;
    }
    while (!walk.path.empty()) {  // no node is met twice: this ends
        Step& step = walk.path.back();
        if (step.node->kind() == kBTLeafNode || step.record == step.node->recordCount()) {
            walk.path.pop_back();
        } else if (!VZDefragCheckNotAborted(error) || !_followRecord(walk, step, error)) {
            return false;
        }
    }
    return true;
}

/** Whether the nodes of the map are in use; the header node, which is node 0, cannot be given
 *  away whatever the map says of it. */
bool HFSPlusExtents::_checkMapNodes(std::vector<uint8_t>& unmetNodes, VZDefragErrorSlot error)
{
    uint32_t index = 0;
    do {
        const HFSPlusCachedNode node = cachedNodeWithIndex(index, {}, error);
        if (!node) {
            return false;
        }
        if (!takeOut(unmetNodes, index) && index != 0) {
            return VZDefragFail(error, kInconsistent);
        }
        index = node->fLink();
    } while (index != 0);
    return true;
}

bool HFSPlusExtents::_enterNode(Walk& walk, uint32_t index, uint32_t height,
                                VZDefragErrorSlot error)
{
    HFSPlusCachedNode node = _treeNode(index, height, error);
    if (!node) {
        return false;
    }
    bool sound = takeOut(walk.unmetNodes, index);
    for (uint32_t record = 0; height == 1 && record < node->recordCount(); ++record) {
        sound = walk.keys.addRecord(*node->recordAs<HFSPlusExtentKey>(record)) && sound;
    }
    if (!sound) {
        return VZDefragFail(error, kInconsistent);
    }
    walk.path.push_back({std::move(node), 0});
    return true;
}

/** Goes down to the child that the next record of @p step leads to.
 *
 *  Whoever searches for less than a node's first key goes to the first child as well, so that key
 *  may be greater than what lies below it.
 */
bool HFSPlusExtents::_followRecord(Walk& walk, Step& step, VZDefragErrorSlot error)
{
    const HFSPlusBTreeNode& node = *step.node;
    const uint32_t record = step.record++;
    const auto* const next = node.recordAs<IndexRecord>(record);
    if (record > 0) {
        bool match = false;
        const auto& key = node.recordAs<IndexRecord>(record - 1)->key;
        if (compare(key, next->key, match) >= 0 || !walk.keys.addSeparator(next->key)) {
            return VZDefragFail(error, kInconsistent);
        }
    }
    return _enterNode(walk, next->child, node.height() - 1U, error);
}
