#include "HFSPlus/HFSPlusForkExtents.h"

#include <algorithm>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusBTreeTransaction.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusFormatConversion.h"
#include "HFSPlus/HFSPlusVolume.h"

// The write-back of a fork's extent list.

namespace {

constexpr std::string_view kSource = "HFSPlus/HFSPlusForkExtents.cpp";
constexpr unsigned kSpecialZeroLengthLine = 104;
constexpr std::string_view kCongested =
    "Overflow extents file is too congested, unable to continue.";

/** Keeps the whole new extent list of the allocation file at hand while its records change. */
class PinnedExtents {
public:
    PinnedExtents(HFSPlusAllocation& allocation, std::vector<HFSPlusHostExtentDescriptor> extents)
        : _allocation(allocation)
    {
        _allocation.setPinnedExtents(std::move(extents));
    }
    PinnedExtents(const PinnedExtents&) = delete;
    PinnedExtents& operator=(const PinnedExtents&) = delete;
    ~PinnedExtents() { _allocation.setPinnedExtents({}); }

private:
    HFSPlusAllocation& _allocation;
};

std::vector<HFSPlusHostExtentRecord> packedRecords(
    const std::vector<HFSPlusHostExtentDescriptor>& extents)
{
    std::vector<HFSPlusHostExtentRecord> records((extents.size() + kHFSPlusExtentDensity - 1) /
                                                 kHFSPlusExtentDensity);
    for (size_t index = 0; index < extents.size(); ++index) {
        records[index / kHFSPlusExtentDensity][index % kHFSPlusExtentDensity] = extents[index];
    }
    return records;
}

bool isSame(const HFSPlusHostExtentRecord& left, const HFSPlusHostExtentRecord& right)
{
    return std::ranges::equal(left, right, [](const auto& first, const auto& second) {
        return first.startBlock == second.startBlock && first.blockCount == second.blockCount;
    });
}

uint64_t blocksOf(const HFSPlusHostExtentRecord& record)
{
    uint64_t count = 0;
    for (const HFSPlusHostExtentDescriptor& extent : record) {
        count += extent.isEmpty() ? 0 : extent.blockCount;
    }
    return count;
}

}  // namespace

bool HFSPlusForkExtents::update(VZDefragErrorSlot error)
{
    if (!_modifiedDescriptors.has_value()) {
        return true;
    }
    std::vector<HFSPlusHostExtentDescriptor> extents = mergedExtents();
    const auto descriptorCount = static_cast<uint32_t>(extents.size());
    std::vector<HFSPlusHostExtentRecord> records = packedRecords(extents);
    const bool overflows = records.size() > 1 || _originalRecords.size() > 1;
    if (_fileID == kHFSExtentsFileID && overflows) {
        return VZDefragFail(error, kCongested);  // its records would lie in itself
    }
    std::optional<PinnedExtents> pinned;
    if (_fileID == kHFSAllocationFileID) {
        pinned.emplace(_volume.allocation(), std::move(extents));
    }
    PendingChanges changes;
    std::optional<HFSPlusBTreeTransaction> transaction;
    if (overflows) {
        transaction.emplace(_volume.extents());
    }
    const bool written = records.empty() ? _deleteAllRecords(changes, error)
                                         : _writeRecords(records, changes, error);
    if (!written || !_loadBitmap(changes, error) || !_writeFirstRecord(changes, error)) {
        return false;
    }
    if (transaction.has_value()) {
        transaction->commit();
    }
    _applyToBitmap(changes);
    if (records.empty()) {
        records.emplace_back();
    }
    _originalRecords = std::move(records);
    _originalDescriptorCount = descriptorCount;
    _modifiedDescriptors.reset();
    return true;
}

bool HFSPlusForkExtents::_deleteAllRecords(PendingChanges& changes, VZDefragErrorSlot error)
{
    uint64_t startBlock = 0;
    for (const HFSPlusHostExtentRecord& record : _originalRecords) {
        if (!_deleteForkExtents(static_cast<uint32_t>(startBlock), true, changes, error)) {
            return false;
        }
        startBlock += _countedBlocks(record, startBlock);
    }
    return true;
}

bool HFSPlusForkExtents::_writeRecords(const std::vector<HFSPlusHostExtentRecord>& records,
                                       PendingChanges& changes, VZDefragErrorSlot error)
{
    std::vector<uint32_t> starts;  // fork block at which each record as read begins
    uint64_t sum = 0;
    for (const HFSPlusHostExtentRecord& record : _originalRecords) {
        starts.push_back(static_cast<uint32_t>(sum));
        sum += _countedBlocks(record, sum);
    }
    const size_t common = std::min(records.size(), _originalRecords.size());
    size_t kept = _originalRecords.size();  // records as read that are still there
    uint64_t startBlock = 0;
    size_t walk = 0;
    for (; walk < common && kept > walk; ++walk) {
        const HFSPlusHostExtentRecord& record = records[walk];
        const HFSPlusHostExtentRecord& old = _originalRecords[walk];
        const auto start = static_cast<uint32_t>(startBlock);
        if (!isSame(record, old)) {
            if (blocksOf(record) != _countedBlocks(old, startBlock)) {
                // The keys of all later records change with the total of this one.
                if (!_deleteRecordsFrom(walk + 1, starts, changes, error)) {
                    return false;
                }
                kept = walk + 1;
            }
            if (!_updateForkExtents(record, start, changes, error)) {
                return false;
            }
        }
        startBlock += blocksOf(record);
    }
    if (kept > walk && !_deleteRecordsFrom(walk, starts, changes, error)) {
        return false;  // a fork with more blocks than it says had records nobody needs
    }
    for (; walk < records.size(); ++walk) {
        if (!_insertForkExtents(records[walk], static_cast<uint32_t>(startBlock), changes, error)) {
            return false;
        }
        startBlock += blocksOf(records[walk]);
    }
    return true;
}

/** Deletes the records as read from the last down to @p first. */
bool HFSPlusForkExtents::_deleteRecordsFrom(size_t first, const std::vector<uint32_t>& starts,
                                            PendingChanges& changes, VZDefragErrorSlot error)
{
    for (size_t index = starts.size(); index > first; --index) {
        if (!_deleteForkExtents(starts[index - 1], false, changes, error)) {
            return false;
        }
    }
    return true;
}

bool HFSPlusForkExtents::_deleteForkExtents(uint32_t startBlock, bool setZeroLength,
                                            PendingChanges& changes, VZDefragErrorSlot error)
{
    if (startBlock == 0) {
        if (setZeroLength && _specialFile) {
            return VZDefragFailInternal(error, kSource, kSpecialZeroLengthLine);
        }
        _clearExtents(_forkData().extents, 0, changes);
        changes.firstRecord.emplace();
        changes.setZeroLength = setZeroLength;
        return true;
    }
    HFSPlusHostExtentRecord old;
    if (!_readOverflowRecord(old, startBlock, error) ||
        !_volume.extents().deleteExtentRecord(startBlock, _fileID, _forkType, error)) {
        return false;
    }
    _clearExtents(old, startBlock, changes);
    return true;
}

bool HFSPlusForkExtents::_insertForkExtents(const HFSPlusHostExtentRecord& record,
                                            uint32_t startBlock, PendingChanges& changes,
                                            VZDefragErrorSlot error)
{
    if (startBlock == 0) {
        changes.firstRecord = record;
    } else if (!_volume.extents().insertExtentRecord(diskOrder(record), startBlock, _fileID,
                                                     _forkType, error)) {
        return false;
    }
    for (const HFSPlusHostExtentDescriptor& extent : record) {
        if (!extent.isEmpty()) {
            changes.used.push_back(extent);
        }
    }
    return true;
}

bool HFSPlusForkExtents::_updateForkExtents(const HFSPlusHostExtentRecord& record,
                                            uint32_t startBlock, PendingChanges& changes,
                                            VZDefragErrorSlot error)
{
    HFSPlusHostExtentRecord old = _forkData().extents;
    if (startBlock == 0) {
        changes.firstRecord = record;
    } else if (!_readOverflowRecord(old, startBlock, error) ||
               !_volume.extents().updateExtentRecord(diskOrder(record), startBlock, _fileID,
                                                     _forkType, error)) {
        return false;
    }
    _clearExtents(old, startBlock, changes);
    for (const HFSPlusHostExtentDescriptor& extent : record) {
        if (!extent.isEmpty()) {
            changes.used.push_back(extent);
        }
    }
    return true;
}

/** Writes record 0, which only the catalog or the header can refuse. */
bool HFSPlusForkExtents::_writeFirstRecord(const PendingChanges& changes, VZDefragErrorSlot error)
{
    if (!changes.firstRecord.has_value()) {
        return true;
    }
    const bool written =
        _specialFile ? _volume.updateForkExtents(*changes.firstRecord, _fileID, error)
                     : _volume.catalog().updateForkExtents(*changes.firstRecord, _fileID, _forkType,
                                                           changes.setZeroLength, error);
    if (written) {
        _forkData().extents = *changes.firstRecord;
    }
    return written;
}

/** Brings the chunks that change into memory while it can still be left at that. */
bool HFSPlusForkExtents::_loadBitmap(const PendingChanges& changes, VZDefragErrorSlot error)
{
    HFSPlusAllocation& allocation = _volume.allocation();
    const auto load = [&](const HFSPlusHostExtentDescriptor& extent) {
        const uint32_t last = extent.startBlock + (extent.blockCount - 1);
        uint32_t index = allocation.chunkIndexFromBlockIndex(extent.startBlock);
        for (; index <= allocation.chunkIndexFromBlockIndex(last); ++index) {
            if (!allocation.cachedChunkWithChunkIndex(index, error)) {
                return false;
            }
        }
        return true;
    };
    return std::ranges::all_of(changes.freed, load) && std::ranges::all_of(changes.used, load);
}

void HFSPlusForkExtents::_applyToBitmap(const PendingChanges& changes)
{
    // All is freed before anything is marked: an extent may have gone from one record to another.
    HFSPlusAllocation& allocation = _volume.allocation();
    bool applied = true;
    for (const HFSPlusHostExtentDescriptor& extent : changes.freed) {
        applied = allocation.clear(extent.startBlock, extent.blockCount, nullptr) && applied;
    }
    for (const HFSPlusHostExtentDescriptor& extent : changes.used) {
        applied = allocation.set(extent.startBlock, extent.blockCount, nullptr) && applied;
    }
    if (!applied) {
        // The bits contradict the records. Blocks that look free would be written over, here or by
        // whoever comes next.
        _volume.metadataWriteDidFail();
    }
}

/** Has the old extents of the record at fork block @p startBlock freed, as far as they count.
 *
 *  What stands behind the fork's last block is no extent of this fork; its blocks may be anyone's.
 */
void HFSPlusForkExtents::_clearExtents(const HFSPlusHostExtentRecord& record, uint32_t startBlock,
                                       PendingChanges& changes) const
{
    uint64_t sum = startBlock;
    for (const HFSPlusHostExtentDescriptor& extent : record) {
        if (!extent.isEmpty() && sum < _forkData().totalBlocks) {
            changes.freed.push_back(extent);
            sum += extent.blockCount;
        }
    }
}

/** The blocks of the record at fork block @p startBlock, up to the extent that ends the fork. */
uint64_t HFSPlusForkExtents::_countedBlocks(const HFSPlusHostExtentRecord& record,
                                            uint64_t startBlock) const
{
    uint64_t sum = startBlock;
    for (const HFSPlusHostExtentDescriptor& extent : record) {
        if (!extent.isEmpty() && sum < _forkData().totalBlocks) {
            sum += extent.blockCount;
        }
    }
    return sum - startBlock;
}
