#include "HFSPlus/HFSPlusBTreeLeafSet.h"

#include "HFSPlus/HFSPlusBTreeFile.h"
#include "VZDefragTask.h"

bool HFSPlusBTreeLeafSet::_isInUse(uint32_t index) const
{
    const std::span<const uint8_t> map = _btree.freeNodeMap();
    return index < _btree.nodeCount() && index / 8 < map.size() &&
           (map[index / 8] & (0x80U >> index % 8)) != 0;
}

bool HFSPlusBTreeLeafSet::addLeaf(const HFSPlusBTreeNode& leaf, std::string_view message,
                                  VZDefragErrorSlot error)
{
    const uint32_t index = leaf.index();
    if (!_isInUse(index) || (leaf.fLink() != 0 && !_isInUse(leaf.fLink()))) {
        return VZDefragFail(error, message);
    }
    if (index >= _leaves.size()) {
        _leaves.resize(_btree.freeNodeMap().size() * 8);
    }
    _leaves[index] = true;
    return true;
}

bool HFSPlusBTreeLeafSet::checkIndex(std::string_view message, VZDefragErrorSlot error)
{
    const uint32_t depth = _btree.headerRecord().treeDepth;
    const uint32_t root = _btree.rootNode();
    if (depth == 0 && root == 0) {
        return true;  // a tree without records
    }
    if (depth == 0 || depth > kBTMaxTreeDepth) {
        return VZDefragFail(error, message);
    }
    std::vector<Step> path;  // heights fall by one a step, and no leaf is met twice: this ends
    path.reserve(depth);
    if (!_visit(path, root, depth, message, error)) {
        return false;
    }
    while (!path.empty()) {
        Step& step = path.back();
        if (step.record == step.node->recordCount()) {
            path.pop_back();
            continue;
        }
        const std::optional<uint32_t> child = _childOf(step.node->recordAtIndex(step.record++));
        const auto height = static_cast<uint32_t>(depth - path.size());
        if (!child || !VZDefragCheckNotAborted(error) ||
            !_visit(path, *child, height, message, error)) {
            return child ? false : VZDefragFail(error, message);
        }
    }
    return true;
}

/** Goes down to node @p index of @p height: a leaf leaves the set, another node is gone through. */
bool HFSPlusBTreeLeafSet::_visit(std::vector<Step>& path, uint32_t index, uint32_t height,
                                 std::string_view message, VZDefragErrorSlot error)
{
    if (!_isInUse(index)) {
        return VZDefragFail(error, message);
    }
    if (height == 1) {
        if (index >= _leaves.size() || !_leaves[index]) {
            return VZDefragFail(error, message);
        }
        _leaves[index] = false;
        return true;
    }
    HFSPlusCachedNode node = _btree.soundNodeWithIndex(index, message, error);
    if (!node) {
        return false;
    }
    if (node->kind() != kBTIndexNode || node->height() != height || node->recordCount() == 0) {
        return VZDefragFail(error, message);
    }
    path.push_back({std::move(node), 0});
    return true;
}
