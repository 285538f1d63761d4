#include "Tasks/HFSPlusCopyList.h"

#include <algorithm>
#include <new>
#include <unordered_map>
#include <utility>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusChangeMark.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLMemory.h"
#include "Tasks/HFSPlusCopyBuffer.h"
#include "Tasks/HFSPlusDefragProgress.h"
#include "Tasks/HFSPlusMovedForks.h"
#include "VZDefragOutput.h"

namespace {

constexpr const char* kSource = "Tasks/HFSPlusCopyList.cpp";
constexpr unsigned kLineListBeyondBuffer = 61;
constexpr unsigned kLineDestinationInUse = 152;
constexpr unsigned kLineUnflushedBitmap = 153;

/** No checker accepts an extents overflow file with overflow records of its own. */
constexpr uint32_t kMostExtentsOfExtentsFile = kHFSPlusExtentDensity;

}  // namespace

/** Consecutive entries of one fork. */
struct HFSPlusCopyList::Group {
    const HFSPlusCopyEntry* first;
    const HFSPlusCopyEntry* end;  // null at the list's end
    bool lastOfFork;
};

HFSPlusCopyList::HFSPlusCopyList(HFSPlusVolume& volume, HFSPlusCopyBuffer& buffer,
                                 HFSPlusDefragProgress& progress)
    : _volume(volume), _buffer(buffer), _progress(progress), _transfers(volume)
{
}

HFSPlusCopyList::~HFSPlusCopyList()
{
    dispose();
}

bool HFSPlusCopyList::append(const HFSPlusCopyEntry& entry, VZDefragErrorSlot error)
{
    if (_blockCount + entry.count > _buffer.capacity()) {
        return VZDefragFailInternal(error, kSource, kLineListBeyondBuffer);
    }
    std::unique_ptr<HFSPlusCopyEntry> node(new (std::nothrow) HFSPlusCopyEntry{
        entry.start, entry.cnid, entry.info, entry.offset, entry.count, entry.nustart});
    if (node == nullptr) {
        return VZDefragFail(error, "Out of memory.");
    }
    _blockCount += entry.count;
    HFSPlusCopyEntry* const added = node.get();
    (_tail == nullptr ? _head : _tail->next) = std::move(node);
    _tail = added;
    return true;
}

void HFSPlusCopyList::dispose()
{
    // One by one: a chain that goes as a whole would recurse through all of its entries.
    while (_head != nullptr) {
        _head = std::move(_head->next);
    }
    _tail = nullptr;
    _blockCount = 0;
}

bool HFSPlusCopyList::perform(HFSPlusExtentMap& map, bool countProgress, VZDefragErrorSlot error)
{
    std::unique_ptr<VZDefragError> failure;
    bool performed = false;
    const bool hadMemory =
        KLWithinMemory([&] { performed = _perform(map, countProgress, &failure); });
    // The forks done before a failure already name their new blocks, so the volume is written
    // either way.
    const bool flushed = _volume.flush(failure == nullptr && hadMemory ? &failure : nullptr);
    VZDefragFlushOutput();
    if (!hadMemory) {
        return VZDefragFail(error, "Out of memory.");
    }
    if (failure != nullptr && VZDefragWantsError(error)) {
        *error = std::move(failure);
    }
    return performed && flushed;
}

bool HFSPlusCopyList::_perform(HFSPlusExtentMap& map, bool countProgress, VZDefragErrorSlot error)
{
    _volume.allocation().keepDraft();  // the first write comes now
    // What the disk holds is what gets copied: nothing of a special file may be waiting in memory
    // when its blocks are read, nor go to its old place once they were.
    if ((_volume.needsFlush() && !_volume.flush(error)) || !_checkExtentsFile(error)) {
        return false;
    }
    const std::vector<HFSPlusHeldWrites> held = _holdSpecialFiles();
    _volume.yieldGate();
    if (!_readData(error)) {
        return false;
    }
    _volume.yieldGate();
    if (!_checkDestinations(error) || (_head != nullptr && !_volume.changeMark().begin(error)) ||
        !_writeData(error) || !_volume.synchronize(error)) {
        return false;
    }
    _volume.yieldGate();
    return _moveForks(map, countProgress, error);
}

bool HFSPlusCopyList::_checkExtentsFile(VZDefragErrorSlot error)
{
    std::unique_ptr<HFSPlusForkExtents> extents;
    for (const HFSPlusCopyEntry* entry = _head.get(); entry != nullptr; entry = entry->next.get()) {
        if (entry->cnid != kHFSExtentsFileID) {
            continue;
        }
        if (extents == nullptr) {
            extents = HFSPlusForkExtents::initWithVolume(_volume, kHFSExtentsFileID,
                                                         kHFSDataForkType, error);
        }
        if (extents == nullptr ||
            !extents->moveTo(entry->source(), entry->destination(), entry->count, error)) {
            return false;
        }
    }
    if (extents != nullptr && extents->mergedExtentCount() > kMostExtentsOfExtentsFile) {
        return VZDefragFail(error, "Overflow extents file is too congested, unable to continue.");
    }
    return true;
}

std::vector<HFSPlusHeldWrites> HFSPlusCopyList::_holdSpecialFiles()
{
    std::vector<HFSPlusHeldWrites> held;
    const std::pair<uint32_t, HFSPlusFile*> files[] = {
        {kHFSExtentsFileID, &_volume.extents()},
        {kHFSCatalogFileID, &_volume.catalog()},
        {kHFSAllocationFileID, &_volume.allocation()},
    };
    for (const auto& [fileID, file] : files) {
        for (const HFSPlusCopyEntry* entry = _head.get(); entry != nullptr;
             entry = entry->next.get()) {
            if (entry->cnid == fileID) {
                held.emplace_back(*file);
                break;
            }
        }
    }
    return held;
}

bool HFSPlusCopyList::_checkDestinations(VZDefragErrorSlot error)
{
    // What the bitmap in memory calls free must be free on disk as well: after a power cut, the
    // volume as it was at the last complete flush is what there is.
    if (_volume.needsFlush()) {
        return VZDefragFailInternal(error, kSource, kLineUnflushedBitmap);
    }
    return _forEachRun(
        &HFSPlusCopyEntry::destination, [&](uint32_t block, uint32_t count, uint64_t /*offset*/) {
            uint32_t clear = 0;
            if (!_volume.allocation().isClear(block, count, clear, error)) {
                return false;
            }
            return clear == count || VZDefragFailInternal(error, kSource, kLineDestinationInUse);
        });
}

template <typename Transfer>
bool HFSPlusCopyList::_forEachRun(uint32_t (HFSPlusCopyEntry::*firstBlock)() const,
                                  Transfer transfer) const
{
    const uint64_t blockSize = _volume.hostVolumeHeader().blockSize;
    uint64_t offset = 0;
    const HFSPlusCopyEntry* entry = _head.get();
    while (entry != nullptr) {
        const uint32_t block = (entry->*firstBlock)();
        uint32_t count = 0;
        do {
            count += entry->count;
            entry = entry->next.get();
        } while (entry != nullptr && (entry->*firstBlock)() == uint64_t{block} + count);
        if (!transfer(block, count, offset)) {
            return false;
        }
        offset += count * blockSize;
    }
    return true;
}

bool HFSPlusCopyList::_readData(VZDefragErrorSlot error)
{
    const uint64_t blockSize = _volume.hostVolumeHeader().blockSize;
    const bool begun = _forEachRun(
        &HFSPlusCopyEntry::source, [&](uint32_t block, uint32_t count, uint64_t offset) {
            if (offset != 0) {
                _volume.yieldGate();
            }
            _transfers.read(_buffer.data() + offset, count * blockSize, block * blockSize);
            return true;
        });
    return _transfers.finish(error) && begun;
}

bool HFSPlusCopyList::_writeData(VZDefragErrorSlot error)
{
    const uint64_t blockSize = _volume.hostVolumeHeader().blockSize;
    const bool begun = _forEachRun(
        &HFSPlusCopyEntry::destination, [&](uint32_t block, uint32_t count, uint64_t offset) {
            if (offset != 0) {
                _volume.yieldGate();
            }
            _transfers.write(_buffer.data() + offset, count * blockSize, block * blockSize);
            return true;
        });
    return _transfers.finish(error) && begun;
}

std::vector<HFSPlusCopyList::Group> HFSPlusCopyList::_groups() const
{
    std::vector<Group> groups;
    std::unordered_map<uint64_t, size_t> lastGroups;  // by file and fork
    const HFSPlusCopyEntry* entry = _head.get();
    while (entry != nullptr) {
        const HFSPlusCopyEntry& first = *entry;
        while (entry != nullptr && entry->hasForkOf(first)) {
            entry = entry->next.get();
        }
        lastGroups[uint64_t{first.cnid} << 8 | first.fork()] = groups.size();
        groups.push_back({&first, entry, false});
    }
    for (const auto& last : lastGroups) {
        groups[last.second].lastOfFork = true;
    }
    return groups;
}

bool HFSPlusCopyList::_moveForks(HFSPlusExtentMap& map, bool countProgress, VZDefragErrorSlot error)
{
    HFSPlusMovedForks forks(_volume, map);
    bool moved = false;
    const bool hadMemory =
        KLWithinMemory([&] { moved = _moveGroups(forks, countProgress, error); });
    if (!moved) {
        // Data of the groups before were reported as moved, so their records follow.
        std::ignore = forks.updateAll(nullptr);  // the first reason is the one that counts
    }
    return hadMemory ? moved : VZDefragFail(error, "Out of memory.");
}

bool HFSPlusCopyList::_moveGroups(HFSPlusMovedForks& forks, bool countProgress,
                                  VZDefragErrorSlot error)
{
    for (const Group& group : _groups()) {
        const HFSPlusCopyEntry& entry = *group.first;
        HFSPlusForkExtents* const fork = forks.openFork(entry.cnid, entry.info, error);
        if (fork == nullptr || !_moveGroup(*fork, group, countProgress, error) ||
            (group.lastOfFork && !forks.updateFork(entry.cnid, entry.info, error))) {
            return false;
        }
        _volume.yieldGate();
    }
    return true;
}

bool HFSPlusCopyList::_moveGroup(HFSPlusForkExtents& fork, const Group& group, bool countProgress,
                                 VZDefragErrorSlot error)
{
    for (const HFSPlusCopyEntry* entry = group.first; entry != group.end;
         entry = entry->next.get()) {
        if (!fork.moveTo(entry->source(), entry->destination(), entry->count, error)) {
            return false;
        }
        _progress.reportMove(entry->source(), entry->destination(), entry->count, countProgress);
    }
    return true;
}
