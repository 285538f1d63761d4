#include "Tasks/HFSPlusExtentMapBuilder.h"

#include <algorithm>
#include <array>
#include <vector>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusAttributesScanner.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusForkExtents.h"
#include "HFSPlus/HFSPlusFormatConversion.h"
#include "HFSPlus/HFSPlusJournal.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"
#include "VZDefragTask.h"

namespace {

constexpr const char* kSource = "Tasks/HFSPlusExtentMapBuilder.cpp";
constexpr unsigned kLineBitmapWithoutState = 251;

constexpr uint32_t kInfoOfLastImmutable = 0x00FFFFFF;

}  // namespace

HFSPlusExtentMapBuilder::HFSPlusExtentMapBuilder(HFSPlusVolume& volume,
                                                 const HFSPlusFileForkSet& immutableFileForks)
    : _volume(volume), _immutableFileForks(immutableFileForks)
{
}

bool HFSPlusExtentMapBuilder::reachesVolumeEnd() const
{
    return _extentNextStartBlock >= _volume.hostVolumeHeader().totalBlocks;
}

bool HFSPlusExtentMapBuilder::buildExtentMap(uint32_t firstBlock, VZDefragErrorSlot error)
{
    _badBlocksMapped = false;
    _clipFailure.reset();
    _extentMap.reset();  // the old map's memory is given back before the new one grows
    _extentMap = HFSPlusExtentMap::initWithVolume(_volume, firstBlock, error);
    if (_extentMap == nullptr) {
        return false;
    }
    if (_spanMemory) {
        _extentMap->limitMemoryUsageTo(*_spanMemory);
    }
    _extentMap->setClipDelegate(this);
    const bool filled = _fillExtentMap(error);
    _extentMap->setClipDelegate(nullptr);
    // The pass splits entries freely, so the bound ends with the filling.
    _extentMap->limitMemoryUsageTo(0);
    _extentBlockCount = _extentMap->blockCount();
    _extentNextStartBlock = _extentMap->startBlock() + _extentBlockCount;
    return filled;
}

bool HFSPlusExtentMapBuilder::_fillExtentMap(VZDefragErrorSlot error)
{
    if (!_insertReservedAreas(error) || !_insertJournal(error) || !_insertBadBlocks(error)) {
        return false;
    }
    for (const uint32_t fileID :
         {kHFSAllocationFileID, kHFSAttributesFileID, kHFSCatalogFileID, kHFSExtentsFileID}) {
        if (!_buildSpecialFileExtentMap(fileID, kHFSPlusExtentAllocated, error)) {
            return false;
        }
    }
    if (!_buildSpecialFileExtentMap(kHFSStartupFileID, kHFSPlusExtentImmutable, error) ||
        !_volume.scanCatalogFiles(*this, error)) {
        return false;
    }
    return VZDefragCheckNotAborted(error) && _checkUnmovedForks(error) && _crossCheck(error);
}

bool HFSPlusExtentMapBuilder::_insertReservedAreas(VZDefragErrorSlot error)
{
    const HFSPlusHostVolumeHeader& header = _volume.hostVolumeHeader();
    const uint32_t info = HFSPlusExtentInfo(kHFSPlusExtentImmutable, kHFSDataForkType);
    const auto bootBlocks =
        static_cast<uint32_t>((kHFSPlusReservedAreaSize + header.blockSize - 1) / header.blockSize);
    const uint32_t alternateBlocks = header.blockSize <= 512 ? 2 : 1;
    return _insertExtent(0, bootBlocks, 0, info, error) &&
           _insertExtent(header.totalBlocks - alternateBlocks, alternateBlocks, 0, info, error);
}

uint32_t HFSPlusExtentMapBuilder::_fileIDOfPath(const char* path)
{
    HFSPlusCatalogLookupRecord record;
    const bool found = _volume.catalog().copyRecordForPath(record, path, nullptr);
    return found && record.isFile() ? record.file.fileID : 0;
}

bool HFSPlusExtentMapBuilder::_insertJournal(VZDefragErrorSlot error)
{
    if (!_volume.isJournaled()) {
        return true;
    }
    const HFSPlusHostVolumeHeader& header = _volume.hostVolumeHeader();
    const uint32_t info = HFSPlusExtentInfo(kHFSPlusExtentImmutable, kHFSDataForkType);
    if (!_insertExtent(header.journalInfoBlock, 1, _fileIDOfPath("/.journal_info_block"), info,
                       error)) {
        return false;
    }
    HFSPlusHostExtentDescriptor journal;
    return HFSPlusJournal::copyExtent(journal, _volume, error) &&
           (journal.blockCount == 0 || _insertExtent(journal.startBlock, journal.blockCount,
                                                     _fileIDOfPath("/.journal"), info, error));
}

bool HFSPlusExtentMapBuilder::_insertBadBlocks(VZDefragErrorSlot error)
{
    HFSPlusCatalogLookupRecord record;
    if (!_volume.catalog().copyRecordForCNID(record, kHFSBadBlockFileID, error)) {
        return false;
    }
    if (!record.isFile()) {
        return true;
    }
    const HFSPlusForkData data = diskOrder(record.file.dataFork);
    const HFSPlusForkData resource = diskOrder(record.file.resourceFork);
    _badBlocksMapped = true;
    return _insertForkExtents(data, record.file.fileID, kHFSDataForkType, kHFSPlusExtentImmutable,
                              error) &&
           _insertForkExtents(resource, record.file.fileID, kHFSResourceForkType,
                              kHFSPlusExtentImmutable, error);
}

bool HFSPlusExtentMapBuilder::_buildSpecialFileExtentMap(uint32_t fileID, HFSPlusExtentType type,
                                                         VZDefragErrorSlot error)
{
    const auto fork = HFSPlusForkExtents::initWithVolume(_volume, fileID, kHFSDataForkType, error);
    std::vector<HFSPlusHostExtentDescriptor> extents;
    if (fork == nullptr || !fork->copyExtentDescriptors(extents, 0, error)) {
        return false;
    }
    return std::ranges::all_of(extents, [&](const HFSPlusHostExtentDescriptor& extent) {
        return _insertExtent(extent.startBlock, extent.blockCount, fileID,
                             HFSPlusExtentInfo(type, kHFSDataForkType), error);
    });
}

bool HFSPlusExtentMapBuilder::scanCatalogFile(const HFSPlusCatalogFile& file,
                                              std::span<const uint8_t> /*key*/,
                                              VZDefragErrorSlot error)
{
    if (file.fileID == kHFSBadBlockFileID) {
        // Its blocks stay where they are, also when no thread record led to this record before.
        return _badBlocksMapped || _insertFileExtents(file, kHFSPlusExtentImmutable, error);
    }
    return _insertFileExtents(file, kHFSPlusExtentAllocated, error);
}

bool HFSPlusExtentMapBuilder::_insertFileExtents(const HFSPlusCatalogFile& file,
                                                 HFSPlusExtentType type, VZDefragErrorSlot error)
{
    return _insertForkExtents(file.dataFork, file.fileID, kHFSDataForkType, type, error) &&
           _insertForkExtents(file.resourceFork, file.fileID, kHFSResourceForkType, type, error);
}

bool HFSPlusExtentMapBuilder::_insertForkExtents(const HFSPlusForkData& fork, uint32_t fileID,
                                                 uint8_t forkType, HFSPlusExtentType type,
                                                 VZDefragErrorSlot error)
{
    const HFSPlusExtentType entryType =
        _immutableFileForks.contains(fileID, forkType) ? kHFSPlusExtentImmutable : type;
    const uint32_t info = HFSPlusExtentInfo(entryType, forkType);
    const uint64_t totalBlocks = fork.totalBlocks;
    uint64_t sum = 0;
    const auto insertAll = [&](const HFSPlusExtentRecord& extents) {
        return std::ranges::all_of(extents, [&](const HFSPlusExtentDescriptor& extent) {
            if (extent.isEmpty()) {
                return true;
            }
            if (sum >= totalBlocks && entryType != kHFSPlusExtentImmutable) {
                // A move rewrites the fork's records up to its last block and would drop this one.
                return VZDefragFail(error, "Volume is inconsistent.");
            }
            sum += extent.blockCount;
            return _insertExtent(extent.startBlock, extent.blockCount, fileID, info, error);
        });
    };
    if (!insertAll(fork.extents)) {
        return false;
    }
    // Each record begins where the one before it ended and adds a block at least.
    while (sum < totalBlocks) {
        const auto wanted = static_cast<uint32_t>(sum);
        HFSPlusExtentRecord record;
        uint32_t start = wanted;
        if (!_volume.extents().copyExtentRecord(record, start, fileID, forkType, error)) {
            return false;
        }
        if (record[0].isEmpty() || start != wanted) {
            // The data fork must be whole; a resource fork ends where its records end.
            return forkType == kHFSResourceForkType ||
                   VZDefragFail(error, "Overflow extent record missing.");
        }
        if (!insertAll(record)) {
            return false;
        }
    }
    return true;
}

/** Sees to it that forks which the map does not know share no blocks with those that it does, and
 *  are in use, so that the cross-check fences them off.
 *
 *  Once for each part of the volume is enough, since nothing ever moves onto them.
 */
bool HFSPlusExtentMapBuilder::_checkUnmovedForks(VZDefragErrorSlot error)
{
    const uint64_t start = _extentMap->startBlock();
    const uint64_t end = start + _extentMap->blockCount();
    if (end <= _unmovedCheckedTo) {
        return true;
    }
    bool found = false;
    if (!_checkBadBlocks(found, error) || !_checkAttributes(found, error)) {
        return false;
    }
    if (!found) {
        _unmovedCheckedTo = UINT64_MAX;
    } else if (start <= _unmovedCheckedTo) {
        _unmovedCheckedTo = end;
    }
    return true;
}

/** Bad blocks have overflow records, whether or not a record of the catalog tells of them. */
bool HFSPlusExtentMapBuilder::_checkBadBlocks(bool& found, VZDefragErrorSlot error)
{
    bool sound = true;
    const auto visit = [&](const HFSPlusHostExtentDescriptor& extent) {
        found = true;
        sound = sound && _checkUnmovedExtent(extent, kHFSBadBlockFileID, error);
    };
    return _badBlocksMapped || (_volume.extents().visitBadBlocks(visit, error) && sound);
}

bool HFSPlusExtentMapBuilder::_checkAttributes(bool& found, VZDefragErrorSlot error)
{
    const auto visit = [&](const HFSPlusHostExtentDescriptor& extent, uint32_t fileID,
                           VZDefragErrorSlot slot) {
        found = true;
        return _checkUnmovedExtent(extent, fileID, slot);
    };
    return HFSPlusAttributesScanner(_volume).scanForkExtents(visit, error);
}

bool HFSPlusExtentMapBuilder::_checkUnmovedExtent(const HFSPlusHostExtentDescriptor& extent,
                                                  uint32_t fileID, VZDefragErrorSlot error)
{
    const uint64_t end = uint64_t{extent.startBlock} + extent.blockCount;
    if (end > _volume.hostVolumeHeader().totalBlocks) {
        return VZDefragFail(error, "Volume is inconsistent.");
    }
    uint64_t block = std::max(extent.startBlock, _extentMap->startBlock());
    uint32_t count = 0;
    while (const HFSPlusExtentMapEntry* entry =
               block < end ? _extentMap->findEntry(static_cast<uint32_t>(block), &count)
                           : nullptr) {
        const uint64_t entryEnd = uint64_t{entry->start} + count;
        if (entry->type() == kHFSPlusExtentAllocated) {
            // Fails with the message for blocks that are taken.
            const auto shared = static_cast<uint32_t>(std::min(end, entryEnd) - block);
            return _extentMap->insert(static_cast<uint32_t>(block), shared, fileID,
                                      HFSPlusExtentInfo(kHFSPlusExtentImmutable, kHFSDataForkType),
                                      error);
        }
        block = entryEnd;
    }
    return _checkUsedRun(extent.startBlock, extent.blockCount, error);
}

bool HFSPlusExtentMapBuilder::_insertExtent(uint32_t start, uint32_t count, uint32_t cnid,
                                            uint32_t info, VZDefragErrorSlot error)
{
    const uint64_t end = uint64_t{start} + count;
    if (end > _volume.hostVolumeHeader().totalBlocks) {
        return VZDefragFail(error, "Volume is inconsistent.");
    }
    if (info <= kInfoOfLastImmutable) {
        // What is fixed already may end before this extent does, whose rest is not free either.
        uint32_t known = 0;
        const HFSPlusExtentMapEntry* entry = _extentMap->findEntry(start, &known);
        while (entry != nullptr && entry->type() == kHFSPlusExtentImmutable) {
            const uint64_t knownEnd = uint64_t{entry->start} + known;
            if (end <= knownEnd) {
                return true;
            }
            start = static_cast<uint32_t>(knownEnd);
            count = static_cast<uint32_t>(end - knownEnd);
            entry = _extentMap->findEntry(start, &known);
        }
    }
    const uint64_t spanEnd = uint64_t{_extentMap->startBlock()} + _extentMap->blockCount();
    if (end > spanEnd) {
        const uint64_t beyond = std::max<uint64_t>(start, spanEnd);
        if (!_checkUsedRun(static_cast<uint32_t>(beyond), static_cast<uint32_t>(end - beyond),
                           error)) {
            return false;
        }
    }
    if (!_extentMap->insert(start, count, cnid, info, error)) {
        return false;
    }
    if (_clipFailure != nullptr) {
        if (VZDefragWantsError(error)) {
            *error = std::move(_clipFailure);
        }
        return false;
    }
    return true;
}

void HFSPlusExtentMapBuilder::extentMapDidClip(const HFSPlusExtentMapEntry& entry, uint32_t count)
{
    if (_clipFailure == nullptr) {
        std::ignore = _checkUsedRun(entry.start, count, &_clipFailure);  // told by _insertExtent
    }
}

bool HFSPlusExtentMapBuilder::_crossCheck(VZDefragErrorSlot error)
{
    // The walk goes by block numbers: fencing off a run splits the entry being checked, and may
    // clip the map's end.
    uint64_t block = _extentMap->startBlock();
    uint32_t count = 0;
    while (const HFSPlusExtentMapEntry* entry =
               block <= UINT32_MAX ? _extentMap->findEntry(static_cast<uint32_t>(block), &count)
                                   : nullptr) {
        const uint32_t start = entry->start;
        const bool checked = entry->type() == kHFSPlusExtentUnalloced
                                 ? _checkFreeRun(start, count, error)
                                 : _checkUsedRun(start, count, error);
        if (!checked) {
            return false;
        }
        block = uint64_t{start} + count;
    }
    return true;
}

bool HFSPlusExtentMapBuilder::_checkFreeRun(uint32_t start, uint32_t count, VZDefragErrorSlot error)
{
    HFSPlusAllocation& allocation = _volume.allocation();
    const uint32_t info = HFSPlusExtentInfo(kHFSPlusExtentImmutable, kHFSDataForkType);
    while (count != 0) {
        uint32_t run = 0;
        if (!allocation.isClear(start, count, run, error)) {
            return false;
        }
        if (run == 0) {
            if (!allocation.isSet(start, count, run, error)) {
                return false;
            }
            if (run == 0) {
                return VZDefragFailInternal(error, kSource, kLineBitmapWithoutState);
            }
            if (!_insertExtent(start, run, 0, info, error)) {
                return false;
            }
            KLDebugLog(KLDebugLevel::kWarning,
                       "Allocation bitmap block = %08X with count = %u was not clear (and should "
                       "have been), marking range immutable.\n",
                       start, run);
        }
        start += run;
        count -= run;
    }
    return true;
}

bool HFSPlusExtentMapBuilder::_checkUsedRun(uint32_t start, uint32_t count, VZDefragErrorSlot error)
{
    HFSPlusAllocation& allocation = _volume.allocation();
    while (count != 0) {
        uint32_t run = 0;
        if (!allocation.isSet(start, count, run, error)) {
            return false;
        }
        if (run == 0) {
            if (!allocation.isClear(start, count, run, error)) {
                return false;
            }
            if (run == 0) {
                return VZDefragFailInternal(error, kSource, kLineBitmapWithoutState);
            }
            if (!allocation.set(start, run, error)) {
                return false;
            }
            KLDebugLog(KLDebugLevel::kWarning,
                       "Allocation bitmap block = %08X with count = %u was not set (and should "
                       "have been), marking range allocated.\n",
                       start, run);
        }
        start += run;
        count -= run;
    }
    return true;
}
