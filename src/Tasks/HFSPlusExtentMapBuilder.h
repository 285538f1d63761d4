#pragma once

#include <memory>
#include <optional>
#include <span>

#include "HFSPlus/HFSPlusCatalogScanDelegate.h"
#include "HFSPlus/HFSPlusExtentMap.h"
#include "HFSPlus/HFSPlusFileForkSet.h"

class HFSPlusVolume;

/** The part of the volume that a run works on, and how it is mapped.
 *
 *  A span begins at a given block and reaches as far as the map's default capacity carries. On
 *  the way disagreements between the bitmap and the extents are repaired, also for extents that
 *  lie beyond the span: free space is looked for there, and it must be free.
 */
class HFSPlusExtentMapBuilder : private HFSPlusCatalogScanDelegate,
                                private HFSPlusExtentMapClipDelegate {
public:
    /** @p immutableFileForks never move and outlive the builder. */
    HFSPlusExtentMapBuilder(HFSPlusVolume& volume, const HFSPlusFileForkSet& immutableFileForks);

    /** Lets maps grow to @p bytes while they are filled, instead of what is usual. */
    void setSpanMemory(uint64_t bytes) { _spanMemory = bytes; }
    /** Replaces the map by a new span from @p firstBlock on. */
    [[nodiscard]] bool buildExtentMap(uint32_t firstBlock, VZDefragErrorSlot error = nullptr);

    /** The span's map; null before the first build. */
    [[nodiscard]] HFSPlusExtentMap* extentMap() const { return _extentMap.get(); }
    /** Blocks that the span covered when it was built. */
    [[nodiscard]] uint32_t extentBlockCount() const { return _extentBlockCount; }
    /** First block after the span. */
    [[nodiscard]] uint32_t extentNextStartBlock() const { return _extentNextStartBlock; }
    /** Whether the span reaches the volume's end. */
    [[nodiscard]] bool reachesVolumeEnd() const;

private:
    [[nodiscard]] bool _fillExtentMap(VZDefragErrorSlot error);
    [[nodiscard]] bool _insertReservedAreas(VZDefragErrorSlot error);
    [[nodiscard]] bool _insertJournal(VZDefragErrorSlot error);
    [[nodiscard]] uint32_t _fileIDOfPath(const char* path);
    [[nodiscard]] bool _insertBadBlocks(VZDefragErrorSlot error);
    [[nodiscard]] bool _buildSpecialFileExtentMap(uint32_t fileID, HFSPlusExtentType type,
                                                  VZDefragErrorSlot error);
    [[nodiscard]] bool scanCatalogFile(const HFSPlusCatalogFile& file, std::span<const uint8_t> key,
                                       VZDefragErrorSlot error) override;
    [[nodiscard]] bool needsEveryCatalogFile() const override { return true; }
    [[nodiscard]] bool _insertFileExtents(const HFSPlusCatalogFile& file, HFSPlusExtentType type,
                                          VZDefragErrorSlot error);
    [[nodiscard]] bool _insertForkExtents(const HFSPlusForkData& fork, uint32_t fileID,
                                          uint8_t forkType, HFSPlusExtentType type,
                                          VZDefragErrorSlot error);
    [[nodiscard]] bool _checkUnmovedForks(VZDefragErrorSlot error);
    [[nodiscard]] bool _checkBadBlocks(bool& found, VZDefragErrorSlot error);
    [[nodiscard]] bool _checkAttributes(bool& found, VZDefragErrorSlot error);
    [[nodiscard]] bool _checkUnmovedExtent(const HFSPlusHostExtentDescriptor& extent,
                                           uint32_t fileID, VZDefragErrorSlot error);
    [[nodiscard]] bool _insertExtent(uint32_t start, uint32_t count, uint32_t cnid, uint32_t info,
                                     VZDefragErrorSlot error);
    void extentMapDidClip(const HFSPlusExtentMapEntry& entry, uint32_t count) override;
    [[nodiscard]] bool _crossCheck(VZDefragErrorSlot error);
    [[nodiscard]] bool _checkFreeRun(uint32_t start, uint32_t count, VZDefragErrorSlot error);
    [[nodiscard]] bool _checkUsedRun(uint32_t start, uint32_t count, VZDefragErrorSlot error);

    HFSPlusVolume& _volume;
    const HFSPlusFileForkSet& _immutableFileForks;
    std::unique_ptr<HFSPlusExtentMap> _extentMap;
    std::optional<uint64_t> _spanMemory;  // bytes
    uint32_t _extentBlockCount = 0;
    uint32_t _extentNextStartBlock = 0;
    bool _badBlocksMapped = false;
    uint64_t _unmovedCheckedTo = 0;  // below this block _checkUnmovedForks() found nothing wrong
    std::unique_ptr<VZDefragError> _clipFailure;  // a check of clipped blocks that failed
};
