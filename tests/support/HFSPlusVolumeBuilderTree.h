#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "support/HFSPlusVolumeBuilderModel.h"

/** What the header record of one kind of tree says (TN1150, "Header Record"). */
struct HFSPlusBuilderTreeKind {
    uint16_t maxKeyLength = 0;
    uint32_t attributes = 0;
    uint8_t keyCompareType = 0;
};

/** Where a tree lies and what its header record says. */
struct HFSPlusBuilderTreePlan {
    HFSPlusBuilderExtents extents;
    uint32_t nodeSize = 0;   // bytes
    uint32_t mapNodes = 0;   // nodes 1 to mapNodes
    uint32_t treeNodes = 0;  // leaf and index nodes
    uint32_t leafNodes = 0;
    uint32_t totalNodes = 0;
    uint32_t freeNodes = 0;
    uint32_t leafRecords = 0;
    uint32_t firstLeafNode = 0;
    uint32_t lastLeafNode = 0;
    uint32_t rootNode = 0;
    uint16_t treeDepth = 0;
    bool shuffled = false;

    /** The number of the @p sequence-th leaf or index node as they are built. */
    [[nodiscard]] uint32_t nodeNumber(uint32_t sequence) const;

    [[nodiscard]] uint64_t logicalSize() const { return uint64_t{totalNodes} * nodeSize; }

    /** Numbers the nodes and fixes how many there are, for @p shape, its extents included when they
     * were given. */
    [[nodiscard]] bool plan(const HFSPlusBuilderTree& shape, uint32_t blockSize);

private:
    [[nodiscard]] uint64_t _totalFor(const HFSPlusBuilderTree& shape, uint32_t blockSize,
                                     uint64_t capacity);
};

/** Loads a B-tree from records in ascending order, one node of each level in memory at a time.
 *
 *  Besides that only the first keys of the nodes of two levels are kept. Without an output the
 *  loader counts the nodes that the same records would take.
 */
class HFSPlusVolumeBuilderTree {
public:
    /** Takes a finished node; false ends the loading. */
    using NodeOutput = std::function<bool(uint32_t node, std::span<const uint8_t> bytes)>;

    HFSPlusVolumeBuilderTree(const HFSPlusBuilderTree& shape, HFSPlusBuilderTreePlan& plan,
                             NodeOutput output);

    /** Appends a leaf record; @p key begins with its length. */
    [[nodiscard]] bool add(std::span<const uint8_t> key, std::span<const uint8_t> data);

    /** Builds the index levels and tells the plan how the tree came out. */
    [[nodiscard]] bool finish();

    /** Writes the header node and the map nodes; after finish(). */
    [[nodiscard]] bool writeHeader(const HFSPlusBuilderTreeKind& kind);

private:
    [[nodiscard]] bool _put(std::span<const uint8_t> key, std::span<const uint8_t> data,
                            uint32_t maximumRecords);
    void _startNode(std::span<const uint8_t> key);
    [[nodiscard]] bool _endNode(bool isLast);
    [[nodiscard]] std::vector<uint8_t> _map() const;
    [[nodiscard]] bool _writeMapNodes(std::span<const uint8_t> map);

    const HFSPlusBuilderTree& _shape;
    HFSPlusBuilderTreePlan& _plan;
    NodeOutput _output;
    std::vector<uint8_t> _node;
    std::vector<uint16_t> _offsets;  // of the records of _node, and of its free space
    std::vector<std::pair<std::string, uint32_t>> _firstKeys;  // of the level being built
    uint8_t _height = 1;
    uint32_t _sequence = 0;  // nodes of all levels begun so far
    uint32_t _previous = 0;  // number of the node before _node on its level
    bool _nodeOpen = false;
};
