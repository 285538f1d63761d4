#pragma once

#include <functional>

#include "HFSPlus/HFSPlusBTreeFile.h"

/** Takes one extent of a fork, never an empty one. */
using HFSPlusExtentVisitor = std::function<void(const HFSPlusHostExtentDescriptor&)>;

/** The extents overflow file (TN1150, "Extents Overflow File"): extents of a fork beyond its first
 *  eight, keyed by file, fork and the fork block at which a record begins.
 *
 *  Never grows: a change for which no node is free fails with "Overflow extents file is too
 *  congested, unable to continue." and may leave splits behind, which are harmless; a caller that
 *  needs several changes or none wraps them in an HFSPlusBTreeTransaction. Nodes are never
 *  merged; one goes back when its last record goes.
 */
class HFSPlusExtents : public HFSPlusBTreeFile {
public:
    [[nodiscard]] static std::unique_ptr<HFSPlusExtents> initWithVolume(HFSPlusVolume& volume,
                                                                        VZDefragErrorSlot error);

    /** Order of two keys; @p match when they name the same fork. */
    [[nodiscard]] static int compare(const HFSPlusExtentKey& left, const HFSPlusExtentKey& right,
                                     bool& match);
    /** The fork's record with the greatest start not above @p block, which takes that start.
     *
     *  Without one succeeds with a zero first extent and @p block unchanged.
     */
    [[nodiscard]] bool copyExtentRecord(HFSPlusExtentRecord& record, uint32_t& block,
                                        uint32_t fileID, uint8_t forkType, VZDefragErrorSlot error);
    /** Hands the extents of a fork to @p visit in fork order: the record's own that are not empty,
     *  then those of the overflow file until they cover the fork's blocks.
     *
     *  Fails with "Overflow extent record missing." where no record begins at the next block.
     */
    [[nodiscard]] bool visitForkExtents(const HFSPlusForkData& fork, uint32_t fileID,
                                        uint8_t forkType, const HFSPlusExtentVisitor& visit,
                                        VZDefragErrorSlot error);
    /** The same for bad blocks, which have overflow records only: until there is no next one. */
    [[nodiscard]] bool visitBadBlocks(const HFSPlusExtentVisitor& visit, VZDefragErrorSlot error);
    /** Fails with "Overflow extent record collision." when the key is already there. */
    [[nodiscard]] bool insertExtentRecord(const HFSPlusExtentRecord& record, uint32_t block,
                                          uint32_t fileID, uint8_t forkType,
                                          VZDefragErrorSlot error);
    /** Fails with "Overflow extent record missing." when the key is not there. */
    [[nodiscard]] bool updateExtentRecord(const HFSPlusExtentRecord& record, uint32_t block,
                                          uint32_t fileID, uint8_t forkType,
                                          VZDefragErrorSlot error);
    /** Fails with "Overflow extent record missing." when the key is not there. */
    [[nodiscard]] bool deleteExtentRecord(uint32_t block, uint32_t fileID, uint8_t forkType,
                                          VZDefragErrorSlot error);
    /** Whether a change can take no more from the tree than it is meant to: every node of it, and
     *  of the map, is in use and met once, and every record lies where a search looks for it.
     *
     *  A node that the map calls free would be set up anew by the next split.
     */
    [[nodiscard]] bool checkTree(VZDefragErrorSlot error);

private:
    /** A leaf record as it lies in the node. */
    struct LeafRecord {
        HFSPlusExtentKey key;
        HFSPlusExtentRecord extents;
    };
    /** An index record as it lies in the node. */
    struct IndexRecord {
        HFSPlusExtentKey key;
        HFSPlusDiskOrder::UInt32 child;
    };
    /** A node on the way from the root to a leaf, and the record that leads on. */
    struct Step {
        HFSPlusCachedNode node;
        uint32_t record = 0;  // unused in the leaf
    };
    using Path = std::vector<Step>;  // the root first, the leaf last
    struct Walk;
    enum class Inserted { kFailed, kYes, kNodeFull };

    explicit HFSPlusExtents(HFSPlusVolume& volume);

    [[nodiscard]] HFSPlusCachedNode _treeNode(uint32_t index, uint32_t height,
                                              VZDefragErrorSlot error);
    [[nodiscard]] bool _descend(const HFSPlusExtentKey& searchKey, Path& path,
                                VZDefragErrorSlot error);
    [[nodiscard]] uint32_t _getNextFreeNodeIndex(VZDefragErrorSlot error);
    [[nodiscard]] HFSPlusCachedNode _takeFreeNode(VZDefragErrorSlot error);
    [[nodiscard]] bool _createRootNode(VZDefragErrorSlot error);
    [[nodiscard]] Inserted _insertRecord(Path& path, const LeafRecord& record,
                                         VZDefragErrorSlot error);
    [[nodiscard]] bool _makeRoom(Path& path, VZDefragErrorSlot error);
    [[nodiscard]] bool _growTree(HFSPlusBTreeNode& oldRoot, VZDefragErrorSlot error);
    [[nodiscard]] HFSPlusCachedNode _splitNode(HFSPlusBTreeNode& node, VZDefragErrorSlot error);
    [[nodiscard]] bool _deleteRecord(Path& path, const HFSPlusExtentKey& searchKey,
                                     VZDefragErrorSlot error);
    [[nodiscard]] bool _removeEmptyChild(Step& parent, HFSPlusBTreeNode& child,
                                         VZDefragErrorSlot error);
    [[nodiscard]] bool _collapseRoot(HFSPlusBTreeNode& root, VZDefragErrorSlot error);
    [[nodiscard]] bool _unlinkNode(HFSPlusBTreeNode& node, VZDefragErrorSlot error);
    [[nodiscard]] bool _checkMapNodes(std::vector<uint8_t>& unmetNodes, VZDefragErrorSlot error);
    [[nodiscard]] bool _enterNode(Walk& walk, uint32_t index, uint32_t height,
                                  VZDefragErrorSlot error);
    [[nodiscard]] bool _followRecord(Walk& walk, Step& step, VZDefragErrorSlot error);

    [[nodiscard]] static HFSPlusExtentKey _makeKey(uint32_t block, uint32_t fileID,
                                                   uint8_t forkType);
    [[nodiscard]] static bool _hasGoodRecords(HFSPlusBTreeNode& node);
    [[nodiscard]] static uint32_t _upperBound(const HFSPlusBTreeNode& node,
                                              const HFSPlusExtentKey& searchKey);
    [[nodiscard]] static bool _findRecord(const HFSPlusBTreeNode& node,
                                          const HFSPlusExtentKey& searchKey, uint32_t& index);
    [[nodiscard]] static bool _isFull(const HFSPlusBTreeNode& node);
    static void _copyFirstKey(const HFSPlusBTreeNode& child, Step& parent);
    [[nodiscard]] static bool _insertIndexRecord(HFSPlusBTreeNode& node, uint32_t index,
                                                 const HFSPlusBTreeNode& child,
                                                 VZDefragErrorSlot error);
};
