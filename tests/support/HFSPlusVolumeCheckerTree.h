#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "support/HFSPlusVolumeCheckerBase.h"
#include "support/HFSPlusVolumeCheckerKeys.h"

/** Gets the leaf records of a tree, in the order of the tree. */
class HFSPlusCheckLeafVisitor {
public:
    virtual ~HFSPlusCheckLeafVisitor() = default;

    /** @p key begins with its length field; @p data runs to the end of the record. */
    virtual void visitRecord(std::span<const uint8_t> key, std::span<const uint8_t> data) = 0;
};

/** Checks a whole B-tree: header record, every level from the root down, map, unused nodes.
 *
 *  Each level is read along the child numbers of the level above, so that the sibling links are
 *  compared with an order known without them. A node is read once, which ends every walk.
 */
class HFSPlusCheckTree {
public:
    HFSPlusCheckTree(const HFSPlusCheckedVolume& volume, const HFSPlusCheckKeyRule& rule,
                     const HFSPlusCheckedFork& fork);

    /** Checks everything and gives each leaf record to @p visitor. */
    void check(HFSPlusCheckLeafVisitor& visitor);

    [[nodiscard]] const HFSPlusCheckedTree& header() const { return _header; }

private:
    /** The nodes of one level in order, with the keys that the level above has for them. */
    struct Level {
        std::vector<uint32_t> nodes;
        std::vector<uint8_t> keys;
        std::vector<size_t> keyEnds;  // empty for the root, which has no key above it

        [[nodiscard]] std::span<const uint8_t> keyAt(size_t index) const;
    };

    [[nodiscard]] bool _readHeader();
    [[nodiscard]] bool _checkSizes();
    void _checkHeaderNode();
    void _checkEmpty();
    void _checkExtentsHoldWholeNodes();
    void _checkLevel(const Level& level, uint32_t height, Level& children,
                     HFSPlusCheckLeafVisitor& visitor);
    [[nodiscard]] bool _readNode(uint32_t number);
    void _checkLinks(const Level& level, size_t index);
    [[nodiscard]] bool _checkOffsets(uint32_t number);
    void _checkRecords(const Level& level, size_t index, uint32_t height, Level& children,
                       HFSPlusCheckLeafVisitor& visitor);
    [[nodiscard]] size_t _keySize(std::span<const uint8_t> record) const;
    void _checkKeyOrder(std::span<const uint8_t> key, uint32_t number, size_t record);
    void _addChild(std::span<const uint8_t> record, size_t keySize, uint32_t number,
                   Level& children);
    void _checkMap();
    void _readMapNodes(std::vector<uint8_t>& map);
    void _checkUnusedNode(uint32_t number);
    [[nodiscard]] uint32_t _offsetAt(size_t index) const;

    const HFSPlusCheckedVolume& _volume;
    HFSPlusCheckProblems& _problems;
    const HFSPlusCheckKeyRule& _rule;
    const HFSPlusCheckedFork& _fork;
    const char* _name;
    HFSPlusCheckForkStream _stream;
    HFSPlusCheckedTree _header;
    std::vector<uint8_t> _node;     // the node being looked at
    std::vector<bool> _visited;     // by node number
    std::vector<uint8_t> _lastKey;  // the key before, on the same level
    uint64_t _leafRecords = 0;
};
