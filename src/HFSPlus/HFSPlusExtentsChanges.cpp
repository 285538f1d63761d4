#include "HFSPlus/HFSPlusExtents.h"

#include <cstring>

// Inserting into and deleting from the extents overflow tree, with the splits, the growth and the
// collapse that this brings.

namespace {

constexpr std::string_view kInconsistent = "Overflow extents file is inconsistent.";
constexpr std::string_view kMissing = "Overflow extent record missing.";
constexpr std::string_view kCollision = "Overflow extent record collision.";
constexpr std::string_view kCongested =
    "Overflow extents file is too congested, unable to continue.";

constexpr uint32_t kOffsetSize = 2;  // bytes that a record takes in the offsets table

template <typename T>
std::span<const uint8_t> bytesOf(const T& record)
{
    static_assert(alignof(T) == 1);
    return {reinterpret_cast<const uint8_t*>(&record), sizeof record};
}

}  // namespace

bool HFSPlusExtents::insertExtentRecord(const HFSPlusExtentRecord& record, uint32_t block,
                                        uint32_t fileID, uint8_t forkType, VZDefragErrorSlot error)
{
    if (rootNode() == 0 && !_createRootNode(error)) {
        return false;
    }
    const LeafRecord leafRecord = {_makeKey(block, fileID, forkType), record};
    Path path;
    for (;;) {  // every turn but the last takes a free node
        if (!_descend(leafRecord.key, path, error)) {
            return false;
        }
        switch (_insertRecord(path, leafRecord, error)) {
            case Inserted::kFailed:
                return false;
            case Inserted::kYes:
                return true;
            case Inserted::kNodeFull:
                if (!_makeRoom(path, error)) {
                    return false;
                }
                break;
        }
    }
}

bool HFSPlusExtents::deleteExtentRecord(uint32_t block, uint32_t fileID, uint8_t forkType,
                                        VZDefragErrorSlot error)
{
    if (rootNode() == 0) {
        return VZDefragFail(error, kMissing);
    }
    const HFSPlusExtentKey searchKey = _makeKey(block, fileID, forkType);
    Path path;
    if (!_descend(searchKey, path, error) || !_deleteRecord(path, searchKey, error)) {
        return false;
    }
    const HFSPlusBTreeNode& root = *path.front().node;
    if (root.index() != rootNode() || root.recordCount() != 0) {
        return true;
    }
    if (!markNodeAsFree(root.index(), error)) {
        return false;
    }
    _clearTree();
    return true;
}

uint32_t HFSPlusExtents::_getNextFreeNodeIndex(VZDefragErrorSlot error)
{
    const uint32_t index = getNextFreeNodeIndex();
    if (index == 0 || index >= nodeCount()) {
        std::ignore = VZDefragFail(error, kCongested);
        return 0;
    }
    return index;
}

/** A free node to be set up, not yet marked as used. */
HFSPlusCachedNode HFSPlusExtents::_takeFreeNode(VZDefragErrorSlot error)
{
    const uint32_t index = _getNextFreeNodeIndex(error);
    if (index == 0) {
        return {};
    }
    // A broken map may offer a node of the tree; the ones at hand must not be set up anew.
    if (index == rootNode() || _isReferenced(index)) {
        std::ignore = VZDefragFail(error, kInconsistent);
        return {};
    }
    return cachedNodeWithIndex(index, {}, error);
}

bool HFSPlusExtents::_createRootNode(VZDefragErrorSlot error)
{
    const HFSPlusCachedNode root = _takeFreeNode(error);
    if (!root) {
        return false;
    }
    root->setupNewNode(kBTLeafNode);
    markNodeAsUsed(root->index());
    _setRootLeaf(root->index());
    return true;
}

/** Whether the insertion would refuse one more record. It leaves at least a byte free. */
bool HFSPlusExtents::_isFull(const HFSPlusBTreeNode& node)
{
    const size_t size = node.kind() == kBTLeafNode ? sizeof(LeafRecord) : sizeof(IndexRecord);
    return node.freeSpace() <= size + kOffsetSize;
}

HFSPlusExtents::Inserted HFSPlusExtents::_insertRecord(Path& path, const LeafRecord& record,
                                                       VZDefragErrorSlot error)
{
    HFSPlusBTreeNode& leaf = *path.back().node;
    if (_isFull(leaf)) {
        return Inserted::kNodeFull;
    }
    uint32_t index = 0;
    if (_findRecord(leaf, record.key, index)) {
        std::ignore = VZDefragFail(error, kCollision);
        return Inserted::kFailed;
    }
    if (!leaf.insertRecordData(bytesOf(record), _upperBound(leaf, record.key), error)) {
        return Inserted::kFailed;
    }
    for (size_t level = path.size() - 1; level > 0; --level) {
        _copyFirstKey(*path[level].node, path[level - 1]);
    }
    return Inserted::kYes;
}

/** Splits the topmost of the full nodes above and including the full leaf of @p path. */
bool HFSPlusExtents::_makeRoom(Path& path, VZDefragErrorSlot error)
{
    size_t level = path.size() - 1;
    while (level > 0 && _isFull(*path[level - 1].node)) {
        --level;
    }
    HFSPlusBTreeNode& node = *path[level].node;
    if (level == 0) {
        return _growTree(node, error);
    }
    const HFSPlusCachedNode sibling = _splitNode(node, error);
    const Step& parent = path[level - 1];
    return sibling && _insertIndexRecord(*parent.node, parent.record + 1, *sibling, error);
}

bool HFSPlusExtents::_growTree(HFSPlusBTreeNode& oldRoot, VZDefragErrorSlot error)
{
    if (oldRoot.height() >= kBTMaxTreeDepth) {
        return VZDefragFail(error, kInconsistent);
    }
    const HFSPlusCachedNode root = _takeFreeNode(error);
    if (!root) {
        return false;
    }
    markNodeAsUsed(root->index());
    const HFSPlusCachedNode sibling = _splitNode(oldRoot, error);
    if (!sibling) {
        std::ignore = markNodeAsFree(root->index(), error);  // the first reason stays in the slot
        return false;
    }
    root->setupNewNode(kBTIndexNode);
    root->setHeight(static_cast<uint8_t>(oldRoot.height() + 1));
    return incrementTreeDepth(root->index(), error) &&
           _insertIndexRecord(*root, 0, oldRoot, error) &&
           _insertIndexRecord(*root, 1, *sibling, error);
}

/** Moves the upper half of @p node's records to a new right sibling, the smaller half if odd. */
HFSPlusCachedNode HFSPlusExtents::_splitNode(HFSPlusBTreeNode& node, VZDefragErrorSlot error)
{
    HFSPlusCachedNode neighbour;
    if (node.fLink() != 0) {
        neighbour = _treeNode(node.fLink(), node.height(), error);
        if (!neighbour) {
            return {};
        }
    }
    HFSPlusCachedNode sibling = _takeFreeNode(error);
    if (!sibling) {
        return {};
    }
    sibling->setupNewNode(node.kind());
    sibling->setFLink(node.fLink());
    sibling->setBLink(node.index());
    sibling->setHeight(node.height());
    const uint32_t count = node.recordCount();
    const uint32_t first = (count + 1) / 2;
    for (uint32_t index = first; index < count; ++index) {
        if (!sibling->insertRecordData(node.recordAtIndex(index), index - first, error)) {
            return {};
        }
    }
    for (uint32_t index = count; index > first; --index) {
        if (!node.deleteRecordAtIndex(index - 1, error)) {
            return {};
        }
    }
    markNodeAsUsed(sibling->index());
    node.setFLink(sibling->index());
    if (neighbour) {
        neighbour->setBLink(sibling->index());
    }
    if (node.kind() == kBTLeafNode && node.index() == lastLeafNode()) {
        setLastLeafNode(sibling->index());
    }
    return sibling;
}

bool HFSPlusExtents::_insertIndexRecord(HFSPlusBTreeNode& node, uint32_t index,
                                        const HFSPlusBTreeNode& child, VZDefragErrorSlot error)
{
    const IndexRecord record = {*child.recordAs<HFSPlusExtentKey>(0), child.index()};
    return node.insertRecordData(bytesOf(record), index, error);
}

/** Makes the index key of @p child in @p parent the child's first key again. */
void HFSPlusExtents::_copyFirstKey(const HFSPlusBTreeNode& child, Step& parent)
{
    const std::span<const uint8_t> key = bytesOf(*child.recordAs<HFSPlusExtentKey>(0));
    uint8_t* indexKey = parent.node->recordDataAtIndex(parent.record);
    if (std::memcmp(indexKey, key.data(), key.size()) != 0) {
        std::memcpy(indexKey, key.data(), key.size());
        // Without the mark the old key would stay on disk, and checkers refuse such a tree.
        parent.node->setDirty(true);
    }
}

bool HFSPlusExtents::_deleteRecord(Path& path, const HFSPlusExtentKey& searchKey,
                                   VZDefragErrorSlot error)
{
    HFSPlusBTreeNode& leaf = *path.back().node;
    uint32_t index = 0;
    if (!_findRecord(leaf, searchKey, index)) {
        return VZDefragFail(error, kMissing);
    }
    if (!leaf.deleteRecordAtIndex(index, error)) {
        return false;
    }
    for (size_t level = path.size() - 1; level > 0; --level) {
        HFSPlusBTreeNode& child = *path[level].node;
        Step& parent = path[level - 1];
        if (child.recordCount() > 0) {
            _copyFirstKey(child, parent);
        } else if (!_removeEmptyChild(parent, child, error)) {
            return false;
        }
    }
    return true;
}

bool HFSPlusExtents::_removeEmptyChild(Step& parent, HFSPlusBTreeNode& child,
                                       VZDefragErrorSlot error)
{
    HFSPlusBTreeNode& node = *parent.node;
    if (!node.deleteRecordAtIndex(parent.record, error) || !_unlinkNode(child, error) ||
        !markNodeAsFree(child.index(), error)) {
        return false;
    }
    return node.index() != rootNode() || node.recordCount() != 1 || _collapseRoot(node, error);
}

/** Gives up a root with a single record; the child takes its place. */
bool HFSPlusExtents::_collapseRoot(HFSPlusBTreeNode& root, VZDefragErrorSlot error)
{
    const uint32_t child = root.recordAs<IndexRecord>(0)->child;
    if (!_treeNode(child, root.height() - 1u, error)) {
        return false;
    }
    return _unlinkNode(root, error) && root.deleteRecordAtIndex(0, error) &&
           markNodeAsFree(root.index(), error) && decrementTreeDepth(child, error);
}

/** Takes @p node out of the chain of its level. */
bool HFSPlusExtents::_unlinkNode(HFSPlusBTreeNode& node, VZDefragErrorSlot error)
{
    const uint32_t left = node.bLink();
    const uint32_t right = node.fLink();
    if (left != 0) {
        const HFSPlusCachedNode neighbour = _treeNode(left, node.height(), error);
        if (!neighbour) {
            return false;
        }
        neighbour->setFLink(right);
    }
    if (right != 0) {
        const HFSPlusCachedNode neighbour = _treeNode(right, node.height(), error);
        if (!neighbour) {
            return false;
        }
        neighbour->setBLink(left);
    }
    if (node.kind() == kBTLeafNode && node.index() == firstLeafNode()) {
        setFirstLeafNode(right);
    }
    if (node.kind() == kBTLeafNode && node.index() == lastLeafNode()) {
        setLastLeafNode(left);
    }
    return true;
}
