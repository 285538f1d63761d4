#include "HFSPlus/HFSPlusFreeMap.h"

#include <new>
#include <tuple>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"
#include "KLKit/KLStringUtilities.h"

namespace {

constexpr uint64_t kBytesPerEntry = 32;  // a run with its links, as memory is accounted

}  // namespace

HFSPlusFreeMap::HFSPlusFreeMap(HFSPlusVolume& volume, uint32_t startBlock, uint32_t capacity)
    : _volume(volume), _startBlock(startBlock), _entryCapacity(capacity)
{
}

std::unique_ptr<HFSPlusFreeMap> HFSPlusFreeMap::initWithVolume(HFSPlusVolume& volume,
                                                               uint32_t startBlock,
                                                               uint32_t desiredBlocks,
                                                               uint32_t capacity,
                                                               VZDefragErrorSlot error)
{
    std::unique_ptr<HFSPlusFreeMap> map(new (std::nothrow)
                                            HFSPlusFreeMap(volume, startBlock, capacity));
    if (map == nullptr) {
        std::ignore = VZDefragFail(error, "Out of memory.");
        return nullptr;
    }
    if (!map->_scanForBlocks(desiredBlocks, error)) {
        return nullptr;
    }
    return map;
}

HFSPlusFreeMap::~HFSPlusFreeMap() = default;

bool HFSPlusFreeMap::_scanForBlocks(uint32_t desiredBlocks, VZDefragErrorSlot error)
{
    const uint32_t totalBlocks = _volume.hostVolumeHeader().totalBlocks;
    if (_startBlock >= totalBlocks) {
        return VZDefragFail(error, "Invalid allocation bitmap block = %1$u.", _startBlock);
    }
    HFSPlusAllocation& allocation = _volume.allocation();
    uint32_t block = _startBlock;
    // Ends because a step is never of 0 blocks.
    while (block < totalBlocks) {
        uint32_t count = 0;
        if (!allocation.isClear(block, totalBlocks - block, count, error)) {
            return false;
        }
        if (count != 0) {
            if (!insert(block, count, error)) {
                return false;
            }
            const HFSPlusFreeRun* const largest = firstEntry();
            if (largest != nullptr && largest->count >= desiredBlocks) {
                return true;
            }
        } else {
            if (!allocation.isSet(block, totalBlocks - block, count, error)) {
                return false;
            }
            if (count == 0) {
                return VZDefragFail(error, "Invalid state for allocation bitmap block = %1$u.",
                                    block);
            }
        }
        block += count;
    }
    return true;
}

uint32_t HFSPlusFreeMap::allocate(uint32_t& count, VZDefragErrorSlot error)
{
    const HFSPlusFreeRun* const largest = firstEntry();
    if (largest == nullptr) {
        std::ignore = VZDefragFail(error, "The amount of free space is insufficient.");
        return 0;
    }
    const HFSPlusFreeRun run = *largest;
    deleteEntry(*largest);
    if (run.count <= count) {
        count = run.count;
        return run.start;
    }
    return insert(run.start + count, run.count - count, error) ? run.start : 0;
}

bool HFSPlusFreeMap::insert(uint32_t start, uint32_t count, VZDefragErrorSlot error)
{
    if (_map.insert({.start = start, .count = count}) == nullptr) {
        return VZDefragFail(error, "Out of memory.");
    }
    ++_entryCount;
    _blockCount += count;
    while (_entryCapacity != 0 && _entryCount > _entryCapacity) {
        _clipLastEntry();
    }
    return true;
}

const HFSPlusFreeRun* HFSPlusFreeMap::firstEntry() const
{
    return _map.first();
}

const HFSPlusFreeRun* HFSPlusFreeMap::nextEntry(const HFSPlusFreeRun* run) const
{
    return run != nullptr ? _map.next(*run) : _map.first();
}

void HFSPlusFreeMap::deleteEntry(const HFSPlusFreeRun& run)
{
    --_entryCount;
    _blockCount -= run.count;
    _map.deletePayload(run);
}

void HFSPlusFreeMap::dump() const
{
    const uint64_t blockSize = _volume.hostVolumeHeader().blockSize;
    KLDebugLog(KLDebugLevel::kDebug, "--------\n");
    KLDebugLog(KLDebugLevel::kDebug, "entry count: %lu (%@)\n", _entryCount,
               stringWithPrettySize(_entryCount * kBytesPerEntry));
    KLDebugLog(KLDebugLevel::kDebug, "block count: %lu (%@)\n", _blockCount,
               stringWithPrettySize(_blockCount * blockSize));
    for (const HFSPlusFreeRun* run = firstEntry(); run != nullptr; run = nextEntry(run)) {
        KLDebugLog(KLDebugLevel::kDebug, "count = %08X, start = %08X (%@)\n", run->count,
                   run->start, stringWithPrettySize(run->count * blockSize));
    }
}

void HFSPlusFreeMap::_clipLastEntry()
{
    const HFSPlusFreeRun* const last = _map.last();
    if (last != nullptr) {
        deleteEntry(*last);
    }
}
