#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "HFSPlus/HFSPlusByteOrder.h"

/** The structures of HFS Plus (TN1150), each declared once over its byte order.
 *
 *  `HFSPlusX` is the structure as on disk, `HFSPlusHostX` the same in host order; hostOrder() and
 *  diskOrder() in HFSPlusFormatConversion.h turn one into the other.
 */

/** Catalog node IDs with a fixed meaning (TN1150, "Catalog File"). */
enum : uint32_t {
    kHFSRootParentID = 1,
    kHFSRootFolderID = 2,
    kHFSExtentsFileID = 3,
    kHFSCatalogFileID = 4,
    kHFSBadBlockFileID = 5,
    kHFSAllocationFileID = 6,
    kHFSStartupFileID = 7,
    kHFSAttributesFileID = 8,
};

/** Fork types as keys of the extents overflow file hold them. */
enum : uint8_t { kHFSDataForkType = 0x00, kHFSResourceForkType = 0xFF };

enum : uint16_t {
    kHFSPlusSigWord = 0x482B,  // "H+"
    kHFSXSigWord = 0x4858,     // "HX"
    kHFSSigWord = 0x4244,      // "BD", a wrapper's master directory block
    kHFSPlusVersion = 4,
    kHFSXVersion = 5,
};

/** Volume attributes (TN1150, "Volume Attributes"). */
enum : uint32_t {
    kHFSVolumeHardwareLockMask = 0x00000080,
    kHFSVolumeUnmountedMask = 0x00000100,
    kHFSBootVolumeInconsistentMask = 0x00000800,
    kHFSVolumeSparedBlocksMask = 0x00000200,
    kHFSVolumeJournaledMask = 0x00002000,
    kHFSVolumeSoftwareLockMask = 0x00008000,
};

inline constexpr uint64_t kHFSPlusVolumeHeaderOffset = 1024;  // bytes from the volume's start
inline constexpr uint64_t kHFSPlusReservedAreaSize = 1536;    // boot blocks and volume header
inline constexpr size_t kHFSPlusExtentDensity = 8;            // descriptors in a record
inline constexpr size_t kHFSPlusMaxFileNameLength = 255;      // UTF-16 units

/** A run of allocation blocks (TN1150, "Fork Data Structure"); empty when either field is 0. */
template <typename Order>
struct HFSPlusExtentDescriptorIn {
    typename Order::UInt32 startBlock;
    typename Order::UInt32 blockCount;

    [[nodiscard]] bool isEmpty() const { return startBlock == 0u || blockCount == 0u; }
};
using HFSPlusExtentDescriptor = HFSPlusExtentDescriptorIn<HFSPlusDiskOrder>;
using HFSPlusHostExtentDescriptor = HFSPlusExtentDescriptorIn<HFSPlusHostOrder>;
using HFSPlusExtentRecord = std::array<HFSPlusExtentDescriptor, kHFSPlusExtentDensity>;
using HFSPlusHostExtentRecord = std::array<HFSPlusHostExtentDescriptor, kHFSPlusExtentDensity>;

static_assert(sizeof(HFSPlusExtentRecord) == 64 && alignof(HFSPlusExtentRecord) == 1);

/** Size and first eight extents of one fork (TN1150, "Fork Data Structure"). */
template <typename Order>
struct HFSPlusForkDataIn {
    typename Order::UInt64 logicalSize;  // bytes
    typename Order::UInt32 clumpSize;    // bytes
    typename Order::UInt32 totalBlocks;  // allocation blocks, overflow extents included
    std::array<HFSPlusExtentDescriptorIn<Order>, kHFSPlusExtentDensity> extents;
};
using HFSPlusForkData = HFSPlusForkDataIn<HFSPlusDiskOrder>;
using HFSPlusHostForkData = HFSPlusForkDataIn<HFSPlusHostOrder>;

static_assert(sizeof(HFSPlusForkData) == 80 && alignof(HFSPlusForkData) == 1);
static_assert(offsetof(HFSPlusForkData, extents) == 16);

/** The volume header, 1024 bytes into the volume (TN1150, "Volume Header"). */
template <typename Order>
struct HFSPlusVolumeHeaderIn {
    typename Order::UInt16 signature;
    typename Order::UInt16 version;
    typename Order::UInt32 attributes;
    typename Order::UInt32 lastMountedVersion;
    typename Order::UInt32 journalInfoBlock;  // allocation block
    typename Order::UInt32 createDate;
    typename Order::UInt32 modifyDate;
    typename Order::UInt32 backupDate;
    typename Order::UInt32 checkedDate;
    typename Order::UInt32 fileCount;
    typename Order::UInt32 folderCount;
    typename Order::UInt32 blockSize;  // bytes
    typename Order::UInt32 totalBlocks;
    typename Order::UInt32 freeBlocks;
    typename Order::UInt32 nextAllocation;
    typename Order::UInt32 rsrcClumpSize;
    typename Order::UInt32 dataClumpSize;
    typename Order::UInt32 nextCatalogID;
    typename Order::UInt32 writeCount;
    typename Order::UInt64 encodingsBitmap;
    std::array<typename Order::UInt32, 8> finderInfo;
    HFSPlusForkDataIn<Order> allocationFile;
    HFSPlusForkDataIn<Order> extentsFile;
    HFSPlusForkDataIn<Order> catalogFile;
    HFSPlusForkDataIn<Order> attributesFile;
    HFSPlusForkDataIn<Order> startupFile;
};
using HFSPlusVolumeHeader = HFSPlusVolumeHeaderIn<HFSPlusDiskOrder>;
using HFSPlusHostVolumeHeader = HFSPlusVolumeHeaderIn<HFSPlusHostOrder>;

static_assert(sizeof(HFSPlusVolumeHeader) == 512 && alignof(HFSPlusVolumeHeader) == 1);
static_assert(offsetof(HFSPlusVolumeHeader, blockSize) == 40);
static_assert(offsetof(HFSPlusVolumeHeader, writeCount) == 68);
static_assert(offsetof(HFSPlusVolumeHeader, allocationFile) == 112);
static_assert(offsetof(HFSPlusVolumeHeader, startupFile) == 432);

/** A wrapper's master directory block, the parts that lead to the volume inside (TN1150, "HFS
 *  Wrapper"). */
struct HFSMasterDirectoryBlock {
    HFSPlusDiskOrder::UInt16 drSigWord;
    std::array<uint8_t, 18> reserved1;
    HFSPlusDiskOrder::UInt32 drAlBlkSiz;  // bytes
    std::array<uint8_t, 4> reserved2;
    HFSPlusDiskOrder::UInt16 drAlBlSt;  // sectors of 512 bytes
    std::array<uint8_t, 94> reserved3;
    HFSPlusDiskOrder::UInt16 drEmbedSigWord;
    HFSPlusDiskOrder::UInt16 drEmbedStartBlock;  // wrapper blocks
    HFSPlusDiskOrder::UInt16 drEmbedBlockCount;
    std::array<uint8_t, 382> rest;
};
static_assert(sizeof(HFSMasterDirectoryBlock) == 512);
static_assert(offsetof(HFSMasterDirectoryBlock, drAlBlkSiz) == 20);
static_assert(offsetof(HFSMasterDirectoryBlock, drAlBlSt) == 28);
static_assert(offsetof(HFSMasterDirectoryBlock, drEmbedSigWord) == 124);

/** Where the journal lies (TN1150, "Journal Info Block"); the rest of the block is not used. */
struct HFSPlusJournalInfoBlock {
    HFSPlusDiskOrder::UInt32 flags;
    std::array<uint8_t, 32> deviceSignature;
    HFSPlusDiskOrder::UInt64 offset;  // bytes from the volume's start
    HFSPlusDiskOrder::UInt64 size;    // bytes
    std::array<uint8_t, 128> reserved;
};
static_assert(sizeof(HFSPlusJournalInfoBlock) == 180);
inline constexpr uint32_t kHFSPlusJournalInFSMask = 0x00000001;
