#include "HFSPlus/HFSPlusExtents.h"

#include <algorithm>
#include <cstring>

#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"
#include "KLKit/KLStringUtilities.h"
#include "VZDefragTask.h"

namespace {

constexpr std::string_view kInconsistent = "Overflow extents file is inconsistent.";
constexpr std::string_view kMissing = "Overflow extent record missing.";
constexpr uint16_t kKeyLength = sizeof(HFSPlusExtentKey) - sizeof(uint16_t);

}  // namespace

HFSPlusExtents::HFSPlusExtents(HFSPlusVolume& volume) : HFSPlusBTreeFile(volume, kHFSExtentsFileID)
{
}

std::unique_ptr<HFSPlusExtents> HFSPlusExtents::initWithVolume(HFSPlusVolume& volume,
                                                               VZDefragErrorSlot error)
{
    static_assert(sizeof(LeafRecord) == 76 && sizeof(IndexRecord) == 16);
    std::unique_ptr<HFSPlusExtents> extents(new HFSPlusExtents(volume));
    if (!extents->_open(error)) {
        return nullptr;
    }
    KLDebugLog(KLDebugLevel::kInfo,
               "Extents size        = %@ (node size = %@, total nodes = %lu)\n",
               stringWithPrettySize(uint64_t{extents->nodeSize()} * extents->nodeCount()),
               stringWithPrettySize(extents->nodeSize()), extents->nodeCount());
    KLDebugLog(KLDebugLevel::kInfo,
               "Extents root node   = %lu (first leaf node = %lu, last leaf node = %lu)\n",
               extents->rootNode(), extents->firstLeafNode(), extents->lastLeafNode());
    return extents;
}

int HFSPlusExtents::compare(const HFSPlusExtentKey& left, const HFSPlusExtentKey& right,
                            bool& match)
{
    match = false;
    if (left.fileID != right.fileID) {
        return left.fileID < right.fileID ? -1 : 1;
    }
    if (left.forkType != right.forkType) {
        return left.forkType < right.forkType ? -1 : 1;
    }
    match = true;
    if (left.startBlock != right.startBlock) {
        return left.startBlock < right.startBlock ? -1 : 1;
    }
    return 0;
}

HFSPlusExtentKey HFSPlusExtents::_makeKey(uint32_t block, uint32_t fileID, uint8_t forkType)
{
    HFSPlusExtentKey key = {};
    key.keyLength = kKeyLength;
    key.forkType = forkType;
    key.fileID = fileID;
    key.startBlock = block;
    return key;
}

/** Whether every record of @p node has the size of its kind and the one key length. */
bool HFSPlusExtents::_hasGoodRecords(HFSPlusBTreeNode& node)
{
    if (node.checked() == HFSPlusBTreeNode::Checked::kRecords) {
        return true;
    }
    const size_t size = node.kind() == kBTLeafNode ? sizeof(LeafRecord) : sizeof(IndexRecord);
    for (uint32_t record = 0; record < node.recordCount(); ++record) {
        if (node.recordSizeAtIndex(record) != size ||
            node.recordAs<HFSPlusExtentKey>(record)->keyLength != kKeyLength) {
            return false;
        }
    }
    node.setChecked(HFSPlusBTreeNode::Checked::kRecords);
    return true;
}

HFSPlusCachedNode HFSPlusExtents::_treeNode(uint32_t index, uint32_t height,
                                            VZDefragErrorSlot error)
{
    HFSPlusCachedNode node = soundNodeWithIndex(index, kInconsistent, error);
    if (!node) {
        return {};
    }
    // The height falls by one a level, so every descent ends and no node is met twice.
    const bool isLeaf = node->kind() == kBTLeafNode;
    bool sound = (isLeaf && height == 1) || (node->kind() == kBTIndexNode && height > 1);
    sound = sound && node->height() == height && (isLeaf || node->recordCount() > 0);
    if (!sound || !_hasGoodRecords(*node)) {
        std::ignore = VZDefragFail(error, kInconsistent);
        return {};
    }
    return node;
}

bool HFSPlusExtents::_descend(const HFSPlusExtentKey& searchKey, Path& path,
                              VZDefragErrorSlot error)
{
    path.clear();
    uint32_t index = rootNode();
    uint32_t height = headerRecord().treeDepth;
    if (height == 0 || height > kBTMaxTreeDepth) {
        return VZDefragFail(error, kInconsistent);
    }
    path.reserve(height);
    for (; height > 0; --height) {
        HFSPlusCachedNode node = _treeNode(index, height, error);
        if (!node) {
            return false;
        }
        uint32_t record = 0;
        if (height > 1) {
            const uint32_t notGreater = _upperBound(*node, searchKey);
            record = notGreater > 0 ? notGreater - 1 : 0;
            index = node->recordAs<IndexRecord>(record)->child;
        }
        path.push_back({std::move(node), record});
    }
    return true;
}

/** How many records of @p node are not greater than @p searchKey. */
uint32_t HFSPlusExtents::_upperBound(const HFSPlusBTreeNode& node,
                                     const HFSPlusExtentKey& searchKey)
{
    uint32_t low = 0;
    uint32_t high = node.recordCount();
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        bool match = false;
        if (compare(*node.recordAs<HFSPlusExtentKey>(middle), searchKey, match) > 0) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    return low;
}

bool HFSPlusExtents::_findRecord(const HFSPlusBTreeNode& node, const HFSPlusExtentKey& searchKey,
                                 uint32_t& index)
{
    const uint32_t notGreater = _upperBound(node, searchKey);
    if (notGreater == 0) {
        return false;
    }
    index = notGreater - 1;
    bool match = false;
    return compare(*node.recordAs<HFSPlusExtentKey>(index), searchKey, match) == 0;
}

bool HFSPlusExtents::copyExtentRecord(HFSPlusExtentRecord& record, uint32_t& block, uint32_t fileID,
                                      uint8_t forkType, VZDefragErrorSlot error)
{
    record[0].startBlock = 0;
    record[0].blockCount = 0;
    const HFSPlusExtentKey searchKey = _makeKey(block, fileID, forkType);
    Path path;
    if (!_descend(searchKey, path, error)) {
        return false;
    }
    const HFSPlusBTreeNode& leaf = *path.back().node;
    const uint32_t notGreater = _upperBound(leaf, searchKey);
    if (notGreater == 0) {
        return true;
    }
    const auto* found = leaf.recordAs<LeafRecord>(notGreater - 1);
    bool match = false;
    std::ignore = compare(found->key, searchKey, match);  // only whether it is the same fork
    if (match) {
        record = found->extents;
        block = found->key.startBlock;
    }
    return true;
}

bool HFSPlusExtents::visitForkExtents(const HFSPlusForkData& fork, uint32_t fileID,
                                      uint8_t forkType, const HFSPlusExtentVisitor& visit,
                                      VZDefragErrorSlot error)
{
    uint64_t sum = 0;
    const auto visitExtent = [&](const HFSPlusExtentDescriptor& extent) {
        if (!extent.isEmpty()) {
            visit({extent.startBlock, extent.blockCount});
            sum += extent.blockCount;
        }
    };
    std::ranges::for_each(fork.extents, visitExtent);
    while (sum < fork.totalBlocks) {
        const auto wanted = static_cast<uint32_t>(sum);
        HFSPlusExtentRecord record;
        uint32_t start = wanted;
        if (!VZDefragCheckNotAborted(error) ||
            !copyExtentRecord(record, start, fileID, forkType, error)) {
            return false;
        }
        // The lookup answers with a lower record when the one asked for is not there, and one
        // without a block would be asked for again and again.
        const bool isThere = record[0].startBlock != 0 && start == wanted &&
                             !std::ranges::all_of(record, &HFSPlusExtentDescriptor::isEmpty);
        if (!isThere) {
            return VZDefragFail(error, "Overflow extent record missing.");
        }
        for (const HFSPlusExtentDescriptor& extent : record) {
            if (sum < fork.totalBlocks) {
                visitExtent(extent);
            }
        }
    }
    return true;
}

bool HFSPlusExtents::visitBadBlocks(const HFSPlusExtentVisitor& visit, VZDefragErrorSlot error)
{
    if (headerRecord().treeDepth == 0) {
        return true;  // an empty tree cannot be searched
    }
    uint64_t sum = 0;
    while (sum <= UINT32_MAX) {  // every record adds a block at least
        const auto wanted = static_cast<uint32_t>(sum);
        HFSPlusExtentRecord record;
        uint32_t start = wanted;
        if (!copyExtentRecord(record, start, kHFSBadBlockFileID, kHFSDataForkType, error)) {
            return false;
        }
        if (record[0].isEmpty() || start != wanted) {
            return true;
        }
        for (const HFSPlusExtentDescriptor& extent : record) {
            if (!extent.isEmpty()) {
                visit({extent.startBlock, extent.blockCount});
                sum += extent.blockCount;
            }
        }
    }
    return VZDefragFail(error, kInconsistent);  // more blocks than a volume has
}

bool HFSPlusExtents::updateExtentRecord(const HFSPlusExtentRecord& record, uint32_t block,
                                        uint32_t fileID, uint8_t forkType, VZDefragErrorSlot error)
{
    const HFSPlusExtentKey searchKey = _makeKey(block, fileID, forkType);
    Path path;
    if (!_descend(searchKey, path, error)) {
        return false;
    }
    HFSPlusBTreeNode& leaf = *path.back().node;
    uint32_t index = 0;
    if (!_findRecord(leaf, searchKey, index)) {
        return VZDefragFail(error, kMissing);
    }
    // The key is taken from the node: its pad byte stays whatever it was.
    std::array<uint8_t, sizeof(LeafRecord)> bytes = {};
    std::memcpy(bytes.data(), leaf.recordDataAtIndex(index), sizeof(HFSPlusExtentKey));
    std::memcpy(bytes.data() + sizeof(HFSPlusExtentKey), &record, sizeof record);
    return leaf.setRecordData(bytes, index, error);
}
