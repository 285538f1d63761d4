#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "HFSPlus/HFSPlusByteOrder.h"

// The rollback file: a header, then records, each followed by its bytes. All numbers are
// big-endian.

constexpr uint64_t kHFSPlusRollbackMagic = 0x565A524F4C4C424BULL;  // "VZROLLBK"
constexpr uint32_t kHFSPlusRollbackVersion = 1;
constexpr uint32_t kHFSPlusRollbackRecordMagic = 0x4F4C4442;  // "OLDB"
constexpr size_t kHFSPlusRollbackMostBytes = 1048576;         // of one record
constexpr uint32_t kHFSPlusRollbackMostFlushes = 1 << 20;     // that a run is thought to make

/** Begins the file and says which volume it belongs to. One sector, so that it is there whole or
 *  not at all. */
struct HFSPlusRollbackHeader {
    HFSPlusDiskOrder::UInt64 magic;
    HFSPlusDiskOrder::UInt32 version;
    HFSPlusDiskOrder::UInt32 checksum;  // of the header with this field 0
    HFSPlusDiskOrder::UInt64 deviceSizeBytes;
    HFSPlusDiskOrder::UInt64 volumeStartOffset;  // bytes into the device
    HFSPlusDiskOrder::UInt64 volumeSizeBytes;
    HFSPlusDiskOrder::UInt32 firstWriteCount;  // the marked volume header's before any flush
    HFSPlusDiskOrder::UInt32 finalWriteCount;  // the volume header's, once a flush is complete
    std::array<uint8_t, 112> volumeHeader;     // the start of the volume header before the run
    std::array<uint8_t, 352> unused;
};
static_assert(sizeof(HFSPlusRollbackHeader) == 512 && alignof(HFSPlusRollbackHeader) == 1);

/** What lay at some place before it was overwritten; the bytes follow. */
struct HFSPlusRollbackRecord {
    HFSPlusDiskOrder::UInt32 magic;
    HFSPlusDiskOrder::UInt32 generation;  // 1 for what is overwritten up to the first flush's end
    HFSPlusDiskOrder::UInt64 offset;      // bytes into the device
    HFSPlusDiskOrder::UInt32 nbyte;
    HFSPlusDiskOrder::UInt32 checksum;  // of the record with this field 0, and its bytes
};
static_assert(sizeof(HFSPlusRollbackRecord) == 24 && alignof(HFSPlusRollbackRecord) == 1);

/** CRC-32C of @p bytes; goes on from @p checksum where bytes came before. */
[[nodiscard]] uint32_t HFSPlusRollbackChecksum(std::span<const uint8_t> bytes,
                                               uint32_t checksum = 0);
[[nodiscard]] uint32_t HFSPlusRollbackChecksum(HFSPlusRollbackHeader header);
[[nodiscard]] uint32_t HFSPlusRollbackChecksum(HFSPlusRollbackRecord record,
                                               std::span<const uint8_t> bytes);
