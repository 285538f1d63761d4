#include "HFSPlus/HFSPlusBTreeBulkIterator.h"

#include <algorithm>
#include <memory>
#include <new>
#include <tuple>
#include <utility>

namespace {

constexpr uint32_t kBytesPerRead = 1024 * 1024;
constexpr size_t kAlignment = 4096;  // what direct transfers ask for at most
constexpr uint32_t kNodesPerMapByte = 8;
constexpr uint32_t kHeaderMapRecord = 2;
constexpr uint32_t kMapNodeMapRecord = 0;
constexpr std::string_view kMapInconsistent = "B-Tree file has inconsistent map node.";

/** As many nodes as fill a megabyte, and whole bytes of the map. */
uint32_t nodesPerBuffer(uint32_t nodeSize)
{
    const uint32_t nodes = (kBytesPerRead + nodeSize - 1) / nodeSize;
    return (nodes + kNodesPerMapByte - 1) / kNodesPerMapByte * kNodesPerMapByte;
}

}  // namespace

std::unique_ptr<HFSPlusBTreeBulkIterator> HFSPlusBTreeBulkIterator::initWithBTree(
    HFSPlusBTreeFile& btree, VZDefragErrorSlot error)
{
    std::unique_ptr<HFSPlusBTreeBulkIterator> iterator(new HFSPlusBTreeBulkIterator(btree));
    if (!iterator->_allocate(error) || !iterator->_copyMap(error)) {
        return nullptr;
    }
    return iterator;
}

HFSPlusBTreeBulkIterator::HFSPlusBTreeBulkIterator(HFSPlusBTreeFile& btree)
    : _btree(btree),
      _nodesPerBuffer(nodesPerBuffer(btree.nodeSize())),
      _bufferSize(uint64_t{btree.nodeSize()} * _nodesPerBuffer),
      _mapSize(std::min<uint64_t>(
          (uint64_t{btree.nodeCount()} + kNodesPerMapByte - 1) / kNodesPerMapByte,
          btree.freeNodeMap().size()))
{
}

bool HFSPlusBTreeBulkIterator::_allocate(VZDefragErrorSlot error)
{
    _buffer = _makeBuffer();
    _mapData.reset(new (std::nothrow) uint8_t[_mapSize]());
    if (_buffer.data == nullptr || _mapData == nullptr) {
        return VZDefragFail(error, "Out of memory.");
    }
    return true;
}

HFSPlusBTreeBulkIterator::Buffer HFSPlusBTreeBulkIterator::_makeBuffer() const
{
    size_t space = _bufferSize + kAlignment;
    Buffer buffer;
    buffer.memory.reset(new (std::nothrow) uint8_t[space]);
    void* data = buffer.memory.get();
    if (data != nullptr) {
        buffer.data = static_cast<uint8_t*>(std::align(kAlignment, _bufferSize, data, space));
    }
    return buffer;
}

bool HFSPlusBTreeBulkIterator::_copyMap(VZDefragErrorSlot error)
{
    uint64_t copied = 0;
    uint32_t nodeIndex = 0;
    uint32_t recordIndex = kHeaderMapRecord;
    // Each node is visited once at most, whatever its link says.
    for (uint32_t step = 0; step < _btree.nodeCount() && copied < _mapSize; ++step) {
        const HFSPlusCachedNode node = _btree.cachedNodeWithIndex(nodeIndex, {}, error);
        if (!node) {
            return false;
        }
        if (!node->hasSoundRecords() || recordIndex >= node->recordCount()) {
            return VZDefragFail(error, kMapInconsistent);
        }
        const std::span<const uint8_t> record = node->recordAtIndex(recordIndex);
        const uint64_t size = std::min<uint64_t>(record.size(), _mapSize - copied);
        std::copy_n(record.data(), size, _mapData.get() + copied);
        copied += size;
        nodeIndex = node->fLink();
        recordIndex = kMapNodeMapRecord;
        if (nodeIndex == 0) {
            break;
        }
    }
    return true;
}

bool HFSPlusBTreeBulkIterator::_isNodeInUse(uint32_t index) const
{
    const uint32_t byte = index / kNodesPerMapByte;
    return byte < _mapSize && (_mapData[byte] & (0x80U >> index % kNodesPerMapByte)) != 0;
}

/** The first node in use from @p index on; the node count when there is none.
 *
 *  Where the chain of map nodes ends early, the nodes it does not cover count as free.
 */
uint32_t HFSPlusBTreeBulkIterator::_nodeInUseFrom(uint32_t index) const
{
    const uint32_t nodeCount = _btree.nodeCount();
    const uint64_t end = std::min<uint64_t>(nodeCount, _mapSize * kNodesPerMapByte);
    while (index < end && !_isNodeInUse(index)) {
        const bool isByteStart = index % kNodesPerMapByte == 0;
        const bool isByteClear = _mapData[index / kNodesPerMapByte] == 0;
        const uint32_t step = isByteStart && isByteClear ? kNodesPerMapByte : 1;
        index = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{index} + step, end));
    }
    return index < end ? index : nodeCount;
}

/** How many nodes a buffer holds that begins with node @p index. */
uint32_t HFSPlusBTreeBulkIterator::_countFrom(uint32_t index) const
{
    return std::min(_nodesPerBuffer, _btree.nodeCount() - index);
}

size_t HFSPlusBTreeBulkIterator::_bufferOffset(uint32_t index) const
{
    return size_t{index - _bufferBaseIndex} * _btree.nodeSize();
}

std::span<const uint8_t> HFSPlusBTreeBulkIterator::_nodeBytes(uint32_t index) const
{
    return {_buffer.data + _bufferOffset(index), _btree.nodeSize()};
}

/** Reads from _nextNodeIndex on and leaves the nodes in use in the tree's cache. */
bool HFSPlusBTreeBulkIterator::_fillBuffer(VZDefragErrorSlot error)
{
    const uint32_t count = _countFrom(_nextNodeIndex);
    _bufferValid = false;
    if (!_readBuffer(count, error)) {
        return false;
    }
    _bufferBaseIndex = _nextNodeIndex;
    _bufferValid = true;
    _refreshBuffer(count);
    _readAhead();
    for (uint32_t index = _bufferBaseIndex; index - _bufferBaseIndex < count; ++index) {
        // Given back at once: only its place in the cache is wanted.
        if (_isNodeInUse(index) && !_btree.cachedNodeWithIndex(index, _nodeBytes(index), error)) {
            return false;
        }
    }
    return true;
}

bool HFSPlusBTreeBulkIterator::_readBuffer(uint32_t count, VZDefragErrorSlot error)
{
    const bool isUnderWay = _aheadValid && _aheadBaseIndex == _nextNodeIndex;
    if (_aheadValid) {
        _aheadValid = false;
        if (!_queue->finish(isUnderWay ? error : nullptr) && isUnderWay) {
            return false;
        }
    }
    if (isUnderWay) {
        std::swap(_buffer, _aheadBuffer);
        return true;
    }
    const uint64_t nodeSize = _btree.nodeSize();
    return _btree.read(_buffer.data, count * nodeSize, _nextNodeIndex * nodeSize, error);
}

/** Begins to read what comes after the buffer, where nothing can go wrong with that. */
void HFSPlusBTreeBulkIterator::_readAhead()
{
    const uint32_t base = _nodeInUseFrom(_bufferBaseIndex + _countFrom(_bufferBaseIndex));
    const uint32_t count = _countFrom(base);
    // A changed node may be evicted during the read, which would then miss what was changed.
    if (count == 0 || _holdsChanges(base, count)) {
        return;
    }
    if (_aheadBuffer.data == nullptr) {
        _aheadBuffer = _makeBuffer();
        if (_aheadBuffer.data == nullptr) {
            return;
        }
    }
    if (_queue == nullptr) {
        _queue = _btree.makeTransferQueue();
    }
    const uint64_t nodeSize = _btree.nodeSize();
    _aheadBaseIndex = base;
    _aheadValid = _btree.beginRead(*_queue, _aheadBuffer.data, count * nodeSize, base * nodeSize);
    if (!_aheadValid) {
        // Reading it when its turn has come tells what is wrong.
        std::ignore = _queue->finish(nullptr);
    }
}

/** Whether the cache holds one of these nodes as the disk does not. */
bool HFSPlusBTreeBulkIterator::_holdsChanges(uint32_t index, uint32_t count) const
{
    for (uint32_t offset = 0; offset < count; ++offset) {
        const HFSPlusBTreeNode* const node = _btree.nodeInCache(index + offset);
        if (node != nullptr && node->dirty()) {
            return true;
        }
    }
    return false;
}

/** Puts what the cache holds over what the disk held.
 *
 *  A changed node may be evicted while the others of the buffer enter the cache; coming back from
 *  the buffer it must not be what it was before the change.
 */
void HFSPlusBTreeBulkIterator::_refreshBuffer(uint32_t count)
{
    for (uint32_t index = _bufferBaseIndex; index - _bufferBaseIndex < count; ++index) {
        const HFSPlusBTreeNode* const node = _btree.nodeInCache(index);
        if (node != nullptr && node->dirty()) {
            std::ranges::copy(node->bytes(), _buffer.data + _bufferOffset(index));
        }
    }
}

bool HFSPlusBTreeBulkIterator::nextCachedNode(HFSPlusCachedNode& node, VZDefragErrorSlot error)
{
    node = HFSPlusCachedNode();
    _nextNodeIndex = _nodeInUseFrom(_nextNodeIndex);
    if (_nextNodeIndex >= _btree.nodeCount()) {
        return true;
    }
    const bool isBuffered = _bufferValid && _nextNodeIndex - _bufferBaseIndex < _nodesPerBuffer;
    if (!isBuffered && !_fillBuffer(error)) {
        return false;
    }
    node = _btree.cachedNodeWithIndex(_nextNodeIndex, _nodeBytes(_nextNodeIndex), error);
    if (!node) {
        return false;
    }
    ++_nextNodeIndex;
    return true;
}
