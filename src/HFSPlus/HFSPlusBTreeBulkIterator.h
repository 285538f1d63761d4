#pragma once

#include "HFSPlus/HFSPlusBTreeFile.h"
#include "VZDefragTransferQueue.h"

/** The nodes of a tree that are in use, in the order of the file, read a megabyte at a time.
 *
 *  Every node read goes through the tree's cache, so what was changed in memory is what is seen,
 *  and the nodes stay there for whoever looks next. While nodes are handed out, the megabyte after
 *  them is read. The tree is not changed between two steps. Used by the thread that uses the tree.
 */
class HFSPlusBTreeBulkIterator {
public:
    /** Takes a copy of the node map; the tree must outlive the iterator. */
    [[nodiscard]] static std::unique_ptr<HFSPlusBTreeBulkIterator> initWithBTree(
        HFSPlusBTreeFile& btree, VZDefragErrorSlot error);

    /** The next node in use; @p node is empty after the last one. */
    [[nodiscard]] bool nextCachedNode(HFSPlusCachedNode& node, VZDefragErrorSlot error);

private:
    explicit HFSPlusBTreeBulkIterator(HFSPlusBTreeFile& btree);
    [[nodiscard]] bool _allocate(VZDefragErrorSlot error);
    [[nodiscard]] bool _copyMap(VZDefragErrorSlot error);
    [[nodiscard]] bool _isNodeInUse(uint32_t index) const;
    [[nodiscard]] uint32_t _nodeInUseFrom(uint32_t index) const;
    [[nodiscard]] uint32_t _countFrom(uint32_t index) const;
    [[nodiscard]] bool _fillBuffer(VZDefragErrorSlot error);
    [[nodiscard]] bool _readBuffer(uint32_t count, VZDefragErrorSlot error);
    void _readAhead();
    [[nodiscard]] bool _holdsChanges(uint32_t index, uint32_t count) const;
    void _refreshBuffer(uint32_t count);
    [[nodiscard]] size_t _bufferOffset(uint32_t index) const;  // bytes
    [[nodiscard]] std::span<const uint8_t> _nodeBytes(uint32_t index) const;

    /** Memory for _bufferSize bytes, aligned for direct transfers; empty when there is none. */
    struct Buffer {
        std::unique_ptr<uint8_t[]> memory;
        uint8_t* data = nullptr;
    };
    [[nodiscard]] Buffer _makeBuffer() const;

    HFSPlusBTreeFile& _btree;
    uint32_t _nextNodeIndex = 0;
    uint32_t _nodesPerBuffer;
    uint32_t _bufferBaseIndex = 0;
    bool _bufferValid = false;
    uint64_t _bufferSize;  // bytes
    Buffer _buffer;
    Buffer _aheadBuffer;  // empty until something is read ahead
    uint32_t _aheadBaseIndex = 0;
    bool _aheadValid = false;  // the nodes from _aheadBaseIndex on are under way
    uint64_t _mapSize;         // bytes
    std::unique_ptr<uint8_t[]> _mapData;
    std::unique_ptr<VZDefragTransferQueue> _queue;  // ends before the buffers do
};
