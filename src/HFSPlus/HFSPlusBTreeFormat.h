#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "HFSPlus/HFSPlusFormat.h"

/** Structures of B-trees (TN1150, "B-Trees") and the keys of the smaller trees. */

enum : int8_t { kBTLeafNode = -1, kBTIndexNode = 0, kBTHeaderNode = 1, kBTMapNode = 2 };
enum : uint32_t { kBTBigKeysMask = 0x00000002, kBTVariableIndexKeysMask = 0x00000004 };
enum : uint8_t { kHFSBinaryCompare = 0xBC, kHFSCaseFolding = 0xCF };

inline constexpr uint32_t kBTMinNodeSize = 512;    // bytes
inline constexpr uint32_t kBTMaxNodeSize = 32768;  // bytes
inline constexpr uint16_t kBTMaxTreeDepth = 16;    // no sound tree is deeper

/** Node descriptor, at the start of every node (TN1150, "Node Structure"). */
struct BTNodeDescriptor {
    HFSPlusDiskOrder::UInt32 fLink;
    HFSPlusDiskOrder::UInt32 bLink;
    int8_t kind;
    uint8_t height;
    HFSPlusDiskOrder::UInt16 numRecords;
    HFSPlusDiskOrder::UInt16 reserved;
};
static_assert(sizeof(BTNodeDescriptor) == 14 && alignof(BTNodeDescriptor) == 1);

/** Header record, record 0 of node 0 (TN1150, "Header Record"). */
template <typename Order>
struct BTHeaderRecIn {
    typename Order::UInt16 treeDepth;
    typename Order::UInt32 rootNode;
    typename Order::UInt32 leafRecords;
    typename Order::UInt32 firstLeafNode;
    typename Order::UInt32 lastLeafNode;
    typename Order::UInt16 nodeSize;  // bytes
    typename Order::UInt16 maxKeyLength;
    typename Order::UInt32 totalNodes;
    typename Order::UInt32 freeNodes;
    std::array<uint8_t, 2> reserved1;
    typename Order::UInt32 clumpSize;
    uint8_t btreeType;
    uint8_t keyCompareType;
    typename Order::UInt32 attributes;
    std::array<uint8_t, 64> reserved3;
};
using BTHeaderRec = BTHeaderRecIn<HFSPlusDiskOrder>;
using BTHostHeaderRec = BTHeaderRecIn<HFSPlusHostOrder>;
static_assert(sizeof(BTHeaderRec) == 106 && offsetof(BTHeaderRec, attributes) == 38);

/** Key of the extents overflow file (TN1150, "Extents Overflow File"). */
struct HFSPlusExtentKey {
    HFSPlusDiskOrder::UInt16 keyLength;  // always 10
    uint8_t forkType;
    uint8_t pad;
    HFSPlusDiskOrder::UInt32 fileID;
    HFSPlusDiskOrder::UInt32 startBlock;  // fork block of the record's first extent
};
static_assert(sizeof(HFSPlusExtentKey) == 12);

/** Key of the attributes file up to its name (TN1150, "Attributes File"). */
struct HFSPlusAttrKeyHead {
    HFSPlusDiskOrder::UInt16 keyLength;
    HFSPlusDiskOrder::UInt16 pad;
    HFSPlusDiskOrder::UInt32 fileID;
    HFSPlusDiskOrder::UInt32 startBlock;
    HFSPlusDiskOrder::UInt16 attrNameLength;  // UTF-16 units
};
static_assert(sizeof(HFSPlusAttrKeyHead) == 14);
inline constexpr size_t kHFSPlusAttrMaxNameLength = 127;  // UTF-16 units

/** Types of records of the attributes file. */
enum : uint32_t { kHFSPlusAttrForkData = 0x20, kHFSPlusAttrExtents = 0x30 };

/** An attribute with a fork of its own. */
struct HFSPlusAttrForkDataRecord {
    HFSPlusDiskOrder::UInt32 recordType;
    HFSPlusDiskOrder::UInt32 reserved;
    HFSPlusForkData fork;
};
static_assert(sizeof(HFSPlusAttrForkDataRecord) == 88);

/** Further extents of such a fork. */
struct HFSPlusAttrExtentsRecord {
    HFSPlusDiskOrder::UInt32 recordType;
    HFSPlusDiskOrder::UInt32 reserved;
    HFSPlusExtentRecord extents;
};
static_assert(sizeof(HFSPlusAttrExtentsRecord) == 72);

/** Key of a leaf record of the hot-files B-tree. */
struct HFSPlusHotFileKey {
    HFSPlusDiskOrder::UInt16 keyLength;
    uint8_t forkType;
    uint8_t pad;
    HFSPlusDiskOrder::UInt32 temperature;
    HFSPlusDiskOrder::UInt32 fileID;
};
static_assert(sizeof(HFSPlusHotFileKey) == 12);
inline constexpr uint32_t kHFSPlusHotFileLookupTemperature = 0xFFFFFFFF;  // leads to another key
