#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "HFSPlus/HFSPlusFormat.h"

/** Keys and records of the catalog file (TN1150, "Catalog File"). */

/** Catalog key up to its name, whose units follow (TN1150, "Catalog File Key"). */
struct HFSPlusCatalogKeyHead {
    HFSPlusDiskOrder::UInt16 keyLength;
    HFSPlusDiskOrder::UInt32 parentID;
    HFSPlusDiskOrder::UInt16 nameLength;  // UTF-16 units
};
static_assert(sizeof(HFSPlusCatalogKeyHead) == 8);

/** The lowest ID of an object that is not the format's own. */
inline constexpr uint32_t kHFSFirstUserCatalogNodeID = 16;

enum : uint16_t {
    kHFSPlusFolderRecord = 1,
    kHFSPlusFileRecord = 2,
    kHFSPlusFolderThreadRecord = 3,
    kHFSPlusFileThreadRecord = 4,
};

/** Access rights (TN1150, "HFS Plus Permissions"). */
template <typename Order>
struct HFSPlusBSDInfoIn {
    typename Order::UInt32 ownerID;
    typename Order::UInt32 groupID;
    uint8_t adminFlags;
    uint8_t ownerFlags;
    typename Order::UInt16 fileMode;
    typename Order::UInt32 special;
};

/** Catalog file record (TN1150, "Catalog File Records"). */
template <typename Order>
struct HFSPlusCatalogFileIn {
    typename Order::UInt16 recordType;
    typename Order::UInt16 flags;
    typename Order::UInt32 reserved1;
    typename Order::UInt32 fileID;
    typename Order::UInt32 createDate;
    typename Order::UInt32 contentModDate;
    typename Order::UInt32 attributeModDate;
    typename Order::UInt32 accessDate;
    typename Order::UInt32 backupDate;
    HFSPlusBSDInfoIn<Order> permissions;
    typename Order::UInt32 fileType;
    typename Order::UInt32 fileCreator;
    typename Order::UInt16 finderFlags;
    typename Order::UInt16 locationV;
    typename Order::UInt16 locationH;
    typename Order::UInt16 reservedField;
    std::array<uint8_t, 16> extendedFinderInfo;
    typename Order::UInt32 textEncoding;
    typename Order::UInt32 reserved2;
    HFSPlusForkDataIn<Order> dataFork;
    HFSPlusForkDataIn<Order> resourceFork;
};
using HFSPlusCatalogFile = HFSPlusCatalogFileIn<HFSPlusDiskOrder>;
using HFSPlusHostCatalogFile = HFSPlusCatalogFileIn<HFSPlusHostOrder>;
static_assert(sizeof(HFSPlusCatalogFile) == 248 && alignof(HFSPlusCatalogFile) == 1);
static_assert(offsetof(HFSPlusCatalogFile, dataFork) == 88);
static_assert(offsetof(HFSPlusCatalogFile, resourceFork) == 168);

/** Catalog folder record (TN1150, "Catalog Folder Records"). */
template <typename Order>
struct HFSPlusCatalogFolderIn {
    typename Order::UInt16 recordType;
    typename Order::UInt16 flags;
    typename Order::UInt32 valence;
    typename Order::UInt32 folderID;
    typename Order::UInt32 createDate;
    typename Order::UInt32 contentModDate;
    typename Order::UInt32 attributeModDate;
    typename Order::UInt32 accessDate;
    typename Order::UInt32 backupDate;
    HFSPlusBSDInfoIn<Order> permissions;
    std::array<uint8_t, 16> userInfo;
    std::array<uint8_t, 16> finderInfo;
    typename Order::UInt32 textEncoding;
    typename Order::UInt32 folderCount;
};
using HFSPlusCatalogFolder = HFSPlusCatalogFolderIn<HFSPlusDiskOrder>;
using HFSPlusHostCatalogFolder = HFSPlusCatalogFolderIn<HFSPlusHostOrder>;
static_assert(sizeof(HFSPlusCatalogFolder) == 88 && alignof(HFSPlusCatalogFolder) == 1);

/** Catalog thread record up to its name (TN1150, "Catalog Thread Records"). */
struct HFSPlusCatalogThreadHead {
    HFSPlusDiskOrder::UInt16 recordType;
    HFSPlusDiskOrder::UInt16 reserved;
    HFSPlusDiskOrder::UInt32 parentID;
    HFSPlusDiskOrder::UInt16 nameLength;  // UTF-16 units
};
static_assert(sizeof(HFSPlusCatalogThreadHead) == 10);
