#include "HFSPlus/HFSPlusBTreeFile.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <unordered_set>

#include "HFSPlus/HFSPlusBTreeSnapshot.h"
#include "HFSPlus/HFSPlusFormatConversion.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"

namespace {

constexpr std::string_view kHeaderMessage = "B-Tree header is inconsistent.";
constexpr std::string_view kMapMessage = "B-Tree file has inconsistent map node.";
constexpr std::string_view kRangeMessage = "B-Tree node %1$lu is out of range.";
// Only the extents overflow file changes its counters, hence one text for every tree.
constexpr std::string_view kCounterMessage = "Overflow extents file is inconsistent.";

constexpr uint32_t kDefaultCacheSize = 8 * 1024 * 1024;  // bytes
constexpr uint32_t kHeaderMapRecord = 2;                 // after header and user data record

/** The most that is kept of a map: 268 million nodes, which is a catalog of a terabyte in the
 *  smallest nodes that it may have. */
constexpr size_t kMapLimit = size_t{32} * 1024 * 1024;  // bytes

}  // namespace

HFSPlusBTreeFile::HFSPlusBTreeFile(HFSPlusVolume& volume, uint32_t fileID)
    : HFSPlusFile(volume, fileID)
{
}

std::unique_ptr<HFSPlusBTreeFile> HFSPlusBTreeFile::initWithVolume(HFSPlusVolume& volume,
                                                                   uint32_t fileID,
                                                                   VZDefragErrorSlot error)
{
    std::unique_ptr<HFSPlusBTreeFile> btree(new HFSPlusBTreeFile(volume, fileID));
    if (!btree->_open(error)) {
        return nullptr;
    }
    return btree;
}

HFSPlusBTreeFile::~HFSPlusBTreeFile()
{
    _requeueParkedNodes();
    while (_nodeCacheQHead != nullptr) {
        _cachedNodeDealloc(*_nodeCacheQHead);
    }
}

bool HFSPlusBTreeFile::_open(VZDefragErrorSlot error)
{
    std::vector<uint8_t> block(std::max(_volume.deviceBlockSize(), kBTMinNodeSize));
    if (!read(block.data(), block.size(), 0, error)) {
        return false;
    }
    BTNodeDescriptor descriptor;
    BTHeaderRec headerRecord;
    std::memcpy(&descriptor, block.data(), sizeof descriptor);
    std::memcpy(&headerRecord, block.data() + sizeof descriptor, sizeof headerRecord);
    if (descriptor.bLink != 0u || descriptor.kind != kBTHeaderNode || descriptor.height != 0) {
        return VZDefragFail(error, kHeaderMessage);
    }
    _hostHeaderRec = hostOrder(headerRecord);
    if (!_checkHeader(error)) {
        return false;
    }
    setNodeCacheSize(kDefaultCacheSize);
    return _loadMapRecords(error);
}

bool HFSPlusBTreeFile::_checkHeader(VZDefragErrorSlot error) const
{
    const BTHostHeaderRec& header = _hostHeaderRec;
    if (!std::has_single_bit(nodeSize()) || nodeSize() < kBTMinNodeSize ||
        nodeSize() > kBTMaxNodeSize) {
        return VZDefragFail(error, kHeaderMessage);
    }
    const bool sizeFits = logicalSize() % nodeSize() == 0 && nodeCount() != 0 &&
                          nodeCount() <= logicalSize() / nodeSize();
    const bool countsFit = header.freeNodes <= nodeCount() && header.firstLeafNode <= nodeCount() &&
                           header.lastLeafNode <= nodeCount();
    if (!sizeFits || !countsFit || (header.attributes & kBTBigKeysMask) == 0) {
        return VZDefragFail(error, kHeaderMessage);
    }
    return true;
}

bool HFSPlusBTreeFile::_loadMapRecords(VZDefragErrorSlot error)
{
    // A chain that comes back to a node would never end and take all memory for the map.
    std::unordered_set<uint32_t> visited;
    _freeNodeMap.reserve(std::min<size_t>(nodeCount() / 8 + nodeSize(), kMapLimit));
    uint32_t index = 0;
    do {
        const std::string_view message = index == 0 ? kHeaderMessage : kMapMessage;
        const int8_t kind = index == 0 ? kBTHeaderNode : kBTMapNode;
        const uint32_t record = index == 0 ? kHeaderMapRecord : 0;
        if (index >= nodeCount() || !visited.insert(index).second) {
            return VZDefragFail(error, kMapMessage);
        }
        const HFSPlusCachedNode node = cachedNodeWithIndex(index, {}, error);
        if (!node) {
            return false;
        }
        if (node->kind() != kind || !node->hasSoundRecords() || node->recordCount() <= record) {
            return VZDefragFail(error, message);
        }
        const std::span<const uint8_t> bits = node->recordAtIndex(record);
        if (bits.size() > kMapLimit - _freeNodeMap.size()) {
            return VZDefragFail(error, kHeaderMessage);
        }
        _freeNodeMap.insert(_freeNodeMap.end(), bits.begin(), bits.end());
        index = node->fLink();
    } while (index != 0);
    return true;
}

void HFSPlusBTreeFile::setFirstLeafNode(uint32_t index)
{
    _hostHeaderRec.firstLeafNode = index;
    _updated = true;
}

void HFSPlusBTreeFile::setLastLeafNode(uint32_t index)
{
    _hostHeaderRec.lastLeafNode = index;
    _updated = true;
}

void HFSPlusBTreeFile::_clearTree()
{
    _setRootLeaf(0);
    _hostHeaderRec.treeDepth = 0;
}

void HFSPlusBTreeFile::_setRootLeaf(uint32_t index)
{
    _hostHeaderRec.treeDepth = 1;
    _hostHeaderRec.rootNode = index;
    _hostHeaderRec.leafRecords = 0;
    _hostHeaderRec.firstLeafNode = index;
    _hostHeaderRec.lastLeafNode = index;
    _updated = true;
}

uint32_t HFSPlusBTreeFile::getNextFreeNodeIndex() const
{
    if (freeNodes() == 0) {
        return 0;
    }
    // A byte for every node looks at more map than the nodes have; the caller checks the index.
    const size_t limit = std::min<size_t>(_freeNodeMap.size(), nodeCount());
    for (size_t byte = 0; byte < limit; ++byte) {
        const uint8_t bits = _freeNodeMap[byte];
        if (bits != 0xFF) {
            return static_cast<uint32_t>(byte * 8) + static_cast<uint32_t>(std::countl_one(bits));
        }
    }
    return 0;
}

void HFSPlusBTreeFile::markNodeAsUsed(uint32_t index)
{
    if (index / 8 < _freeNodeMap.size()) {
        _freeNodeMap[index / 8] |= static_cast<uint8_t>(0x80u >> (index % 8));
    }
    if (_hostHeaderRec.freeNodes > 0) {
        --_hostHeaderRec.freeNodes;
    }
    _updated = true;
}

bool HFSPlusBTreeFile::markNodeAsFree(uint32_t index, VZDefragErrorSlot error)
{
    {
        const HFSPlusCachedNode node = cachedNodeWithIndex(index, {}, error);
        if (!node) {
            return false;
        }
        node->zero();
    }
    if (index / 8 < _freeNodeMap.size()) {
        _freeNodeMap[index / 8] &= static_cast<uint8_t>(~(0x80u >> (index % 8)));
    }
    ++_hostHeaderRec.freeNodes;
    _updated = true;
    return true;
}

bool HFSPlusBTreeFile::incrementTreeDepth(uint32_t rootNode, VZDefragErrorSlot error)
{
    if (_hostHeaderRec.treeDepth >= nodeCount() || _hostHeaderRec.treeDepth == UINT16_MAX) {
        return VZDefragFail(error, kCounterMessage);
    }
    ++_hostHeaderRec.treeDepth;
    _hostHeaderRec.rootNode = rootNode;
    _updated = true;
    return true;
}

bool HFSPlusBTreeFile::decrementTreeDepth(uint32_t rootNode, VZDefragErrorSlot error)
{
    if (_hostHeaderRec.treeDepth < 2) {
        return VZDefragFail(error, kCounterMessage);
    }
    --_hostHeaderRec.treeDepth;
    _hostHeaderRec.rootNode = rootNode;
    _updated = true;
    return true;
}

bool HFSPlusBTreeFile::incrementLeafRecordCount(VZDefragErrorSlot error)
{
    if (_hostHeaderRec.leafRecords == UINT32_MAX) {
        return VZDefragFail(error, kCounterMessage);
    }
    ++_hostHeaderRec.leafRecords;
    _updated = true;
    return true;
}

bool HFSPlusBTreeFile::decrementLeafRecordCount(VZDefragErrorSlot error)
{
    if (_hostHeaderRec.leafRecords == 0) {
        return VZDefragFail(error, kCounterMessage);
    }
    --_hostHeaderRec.leafRecords;
    _updated = true;
    return true;
}

bool HFSPlusBTreeFile::readNode(uint32_t index, uint8_t* buffer, VZDefragErrorSlot error)
{
    if (index >= nodeCount()) {
        return VZDefragFail(error, kRangeMessage, index);
    }
    if (!read(buffer, nodeSize(), uint64_t{nodeSize()} * index, error)) {
        return VZDefragFail(error, kRangeMessage, index);
    }
    return true;
}

bool HFSPlusBTreeFile::writeNode(uint32_t index, const uint8_t* buffer, VZDefragErrorSlot error)
{
    if (index >= nodeCount()) {
        return VZDefragFail(error, kRangeMessage, index);
    }
    if (!write(buffer, nodeSize(), uint64_t{nodeSize()} * index, error)) {
        return VZDefragFail(error, kRangeMessage, index);
    }
    return true;
}

void HFSPlusBTreeFile::prepareToFlush()
{
    if (_updated) {
        // flush() does it again, which finds nothing left to change, and judges a failure.
        std::ignore = _updateHeaderAndMapRecords(nullptr);
    }
}

std::vector<HFSPlusByteRange> HFSPlusBTreeFile::_dirtyPieces() const
{
    std::vector<HFSPlusByteRange> pieces;
    for (const auto& [index, node] : _nodeCacheTOC) {
        if (node->dirty()) {
            pieces.push_back({uint64_t{nodeSize()} * index, nodeSize()});
        }
    }
    return pieces;
}

bool HFSPlusBTreeFile::flush()
{
    if (_updated) {
        std::unique_ptr<VZDefragError> failure;
        if (!_updateHeaderAndMapRecords(&failure)) {
            KLDebugLog(KLDebugLevel::kWarning, "%@\n", failure->description());
            // The nodes get their turn below, but what the volume header says must not follow a
            // tree whose own header stayed behind.
            _volume.metadataWriteDidFail();
        }
        _updated = false;
    }
    std::vector<HFSPlusBTreeNode*> dirtyNodes;
    for (const auto& [index, node] : _nodeCacheTOC) {
        if (node->dirty()) {
            dirtyNodes.push_back(node.get());
        }
    }
    std::ranges::sort(dirtyNodes, {}, [](const HFSPlusBTreeNode* node) { return node->index(); });
    bool flushed = true;
    for (HFSPlusBTreeNode* node : dirtyNodes) {
        flushed = node->flush() && flushed;
    }
    return flushed;
}

bool HFSPlusBTreeFile::_updateHeaderAndMapRecords(VZDefragErrorSlot error)
{
    uint32_t index = 0;
    size_t offset = 0;  // into the map; rises with every record, which ends the walk
    do {
        const HFSPlusCachedNode node = cachedNodeWithIndex(index, {}, error);
        if (!node) {
            return false;
        }
        if (index == 0 && !_updateHeaderRecord(*node, error)) {
            return false;
        }
        if (!_updateMapRecord(*node, index == 0 ? kHeaderMapRecord : 0, offset)) {
            return VZDefragFail(error, index == 0 ? kHeaderMessage : kMapMessage);
        }
        index = node->fLink();
    } while (index != 0);
    return true;
}

bool HFSPlusBTreeFile::_updateHeaderRecord(HFSPlusBTreeNode& node, VZDefragErrorSlot error) const
{
    const BTHeaderRec record = diskOrder(_hostHeaderRec);
    if (node.kind() != kBTHeaderNode || !node.hasSoundRecords() ||
        node.recordAs<BTHeaderRec>(0) == nullptr) {
        return VZDefragFail(error, kHeaderMessage);
    }
    if (std::memcmp(node.recordDataAtIndex(0), &record, sizeof record) != 0) {
        std::memcpy(node.recordDataAtIndex(0), &record, sizeof record);
        node.setDirty(true);
    }
    return true;
}

bool HFSPlusBTreeFile::_updateMapRecord(HFSPlusBTreeNode& node, uint32_t index,
                                        size_t& offset) const
{
    const int8_t kind = offset == 0 ? kBTHeaderNode : kBTMapNode;
    if (node.kind() != kind || !node.hasSoundRecords() || node.recordCount() <= index) {
        return false;
    }
    const size_t size = node.recordSizeAtIndex(index);
    if (size > _freeNodeMap.size() - offset) {
        return false;
    }
    const uint8_t* bits = _freeNodeMap.data() + offset;
    if (std::memcmp(node.recordDataAtIndex(index), bits, size) != 0) {
        std::memcpy(node.recordDataAtIndex(index), bits, size);
        node.setDirty(true);
    }
    offset += size;
    return true;
}
