#pragma once

#include <memory>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "HFSPlus/HFSPlusBTreeNode.h"
#include "HFSPlus/HFSPlusCachedNode.h"
#include "HFSPlus/HFSPlusFile.h"

/** A B-tree in a file (TN1150, "B-Trees"): header record, node map and a write-back node cache.
 *
 *  Searching and changing records across nodes is each tree's own business. Nodes stay in disk
 *  order. Used by the one thread that holds the volume's gate.
 */
class HFSPlusBTreeFile : public HFSPlusFile {
public:
    [[nodiscard]] static std::unique_ptr<HFSPlusBTreeFile> initWithVolume(HFSPlusVolume& volume,
                                                                          uint32_t fileID,
                                                                          VZDefragErrorSlot error);
    ~HFSPlusBTreeFile() override;

    [[nodiscard]] uint32_t rootNode() const { return _hostHeaderRec.rootNode; }
    [[nodiscard]] uint32_t firstLeafNode() const { return _hostHeaderRec.firstLeafNode; }
    [[nodiscard]] uint32_t lastLeafNode() const { return _hostHeaderRec.lastLeafNode; }
    [[nodiscard]] uint32_t freeNodes() const { return _hostHeaderRec.freeNodes; }
    [[nodiscard]] uint32_t nodeCount() const { return _hostHeaderRec.totalNodes; }
    [[nodiscard]] uint32_t nodeSize() const { return _hostHeaderRec.nodeSize; }  // bytes
    [[nodiscard]] const BTHostHeaderRec& headerRecord() const { return _hostHeaderRec; }
    [[nodiscard]] std::span<const uint8_t> freeNodeMap() const { return _freeNodeMap; }
    void setFirstLeafNode(uint32_t index);
    void setLastLeafNode(uint32_t index);

    [[nodiscard]] uint64_t nodeCacheSize() const { return nodeSize() * _nodeCacheLimit; }  // bytes
    void setNodeCacheSize(uint32_t bytes) { _nodeCacheLimit = bytes / nodeSize(); }
    /** Node @p index, referenced; made from @p data when it is neither cached nor to be read. */
    [[nodiscard]] HFSPlusCachedNode cachedNodeWithIndex(uint32_t index,
                                                        std::span<const uint8_t> data,
                                                        VZDefragErrorSlot error);
    /** The same for a node in use: its records must be sound, else fails with @p message. */
    [[nodiscard]] HFSPlusCachedNode soundNodeWithIndex(uint32_t index, std::string_view message,
                                                       VZDefragErrorSlot error);

    /** Node @p index when it is in the cache, else null. Not referenced: good until the next node
     *  is taken or given back. */
    [[nodiscard]] const HFSPlusBTreeNode* nodeInCache(uint32_t index) const;

    /** The first node that the map shows free; 0 for none. Not checked against nodeCount(). */
    [[nodiscard]] uint32_t getNextFreeNodeIndex() const;
    void markNodeAsUsed(uint32_t index);
    [[nodiscard]] bool markNodeAsFree(uint32_t index, VZDefragErrorSlot error);
    [[nodiscard]] bool incrementTreeDepth(uint32_t rootNode, VZDefragErrorSlot error);
    [[nodiscard]] bool decrementTreeDepth(uint32_t rootNode, VZDefragErrorSlot error);
    [[nodiscard]] bool incrementLeafRecordCount(VZDefragErrorSlot error);
    [[nodiscard]] bool decrementLeafRecordCount(VZDefragErrorSlot error);

    [[nodiscard]] bool readNode(uint32_t index, uint8_t* buffer, VZDefragErrorSlot error);
    [[nodiscard]] bool writeNode(uint32_t index, const uint8_t* buffer, VZDefragErrorSlot error);
    /** Writes header, map and dirty nodes in ascending order; goes on past failures. */
    [[nodiscard]] virtual bool flush();

    [[nodiscard]] bool isDirty() const override;
    void prepareToFlush() override;
    void setHoldsWrites(bool holds) override;

protected:
    HFSPlusBTreeFile(HFSPlusVolume& volume, uint32_t fileID);
    /** The part of opening that can fail; factories of derived trees call it first. */
    [[nodiscard]] bool _open(VZDefragErrorSlot error);
    void _clearTree();                  // depth, root, leaf count, first and last leaf become 0
    void _setRootLeaf(uint32_t index);  // the tree becomes this one leaf without records

    [[nodiscard]] std::vector<HFSPlusByteRange> _dirtyPieces() const override;
    /** Whether somebody holds node @p index. */
    [[nodiscard]] bool _isReferenced(uint32_t index) const;

    BTHostHeaderRec _hostHeaderRec = {};
    std::vector<uint8_t> _freeNodeMap;
    bool _updated = false;  // header record or map changed since the last flush

private:
    friend class HFSPlusBTreeTransaction;
    friend class HFSPlusCachedNode;

    struct Snapshot;  // what _rollBack() puts back

    [[nodiscard]] bool _checkHeader(VZDefragErrorSlot error) const;
    [[nodiscard]] bool _loadMapRecords(VZDefragErrorSlot error);
    [[nodiscard]] bool _updateHeaderAndMapRecords(VZDefragErrorSlot error);
    [[nodiscard]] bool _updateHeaderRecord(HFSPlusBTreeNode& node, VZDefragErrorSlot error) const;
    [[nodiscard]] bool _updateMapRecord(HFSPlusBTreeNode& node, uint32_t index,
                                        size_t& offset) const;
    void cachedNodeRelease(HFSPlusBTreeNode& node);
    void _retain(HFSPlusBTreeNode& node);
    void _trimCache();
    void _cachedNodeDealloc(HFSPlusBTreeNode& node);
    void _unlinkFromQueue(HFSPlusBTreeNode& node);
    void _requeueParkedNodes();
    void _beginTransaction();
    void _commit();
    void _rollBack();

    std::unordered_map<uint32_t, std::unique_ptr<HFSPlusBTreeNode>> _nodeCacheTOC;
    uint64_t _nodeCacheCount = 0;                 // unreferenced nodes
    uint64_t _nodeCacheLimit = 0;                 // most unreferenced nodes kept; 0: no limit
    HFSPlusBTreeNode* _nodeCacheQHead = nullptr;  // most recently released
    HFSPlusBTreeNode* _nodeCacheQTail = nullptr;
    bool _holdsWrites = false;
    std::vector<uint32_t> _parkedNodes;   // left the queue's tail while writes were held
    std::unique_ptr<Snapshot> _snapshot;  // null outside a transaction
};
