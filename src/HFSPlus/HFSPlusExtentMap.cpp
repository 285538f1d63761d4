#include "HFSPlus/HFSPlusExtentMap.h"

#include <algorithm>
#include <limits>
#include <new>
#include <string>
#include <tuple>

#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"
#include "KLKit/KLStringUtilities.h"
#include "VZDefragStringUtilities.h"

namespace {

constexpr uint64_t kBytesPerEntry = 32;  // an entry with its links, as memory is accounted
constexpr uint64_t kDefaultCapacity = 0x40000;
constexpr uint32_t kFreeInfo = HFSPlusExtentInfo(kHFSPlusExtentUnalloced, 0);

constexpr std::string_view kSource = "HFSPlus/HFSPlusExtentMap.cpp";
// What people quote from an internal error; each place keeps its number.
constexpr unsigned kLineInsertIntoEmptyMap = 110;
constexpr unsigned kLineInsertWithoutEntry = 120;
constexpr unsigned kLineRemoveOtherThanFirst = 210;

void checkType(uint32_t type)
{
    if (type > kHFSPlusExtentAllocated) {
        KLPanic("unhandled extent type: %u\n", type);
    }
}

}  // namespace

HFSPlusExtentMap::HFSPlusExtentMap(HFSPlusVolume& volume, uint32_t startBlock)
    : _volume(volume),
      _startBlock(startBlock),
      _totalBlocks(std::max(startBlock, uint32_t{volume.hostVolumeHeader().totalBlocks})),
      _extentCapacity(kDefaultCapacity)
{
}

std::unique_ptr<HFSPlusExtentMap> HFSPlusExtentMap::initWithVolume(HFSPlusVolume& volume,
                                                                   uint32_t startBlock,
                                                                   VZDefragErrorSlot error)
{
    std::unique_ptr<HFSPlusExtentMap> map(new (std::nothrow) HFSPlusExtentMap(volume, startBlock));
    if (map == nullptr) {
        std::ignore = VZDefragFail(error, "Out of memory.");
        return nullptr;
    }
    // A span of no blocks has no entry either: an entry always covers something.
    const uint32_t count = map->blockCount();
    if (count != 0) {
        if (map->_addEntry({.start = startBlock, .cnid = 0, .info = kFreeInfo}, error) == nullptr) {
            return nullptr;
        }
        map->_blockCountForType[kHFSPlusExtentUnalloced] = count;
    }
    return map;
}

HFSPlusExtentMap::~HFSPlusExtentMap() = default;

void HFSPlusExtentMap::limitMemoryUsageTo(uint64_t bytes)
{
    if (bytes != 0 && bytes <= kBytesPerEntry) {
        KLPanic("an extent map of %llu bytes cannot hold anything\n", bytes);
    }
    _extentCapacity = bytes / kBytesPerEntry;
    _clipToCapacity();
}

bool HFSPlusExtentMap::insert(uint32_t start, uint32_t count, uint32_t cnid, uint32_t info,
                              VZDefragErrorSlot error)
{
    const uint32_t type = info >> 24;
    checkType(type);
    if (count == 0) {
        return true;
    }
    if (isEmpty()) {
        return VZDefragFailInternal(error, kSource, kLineInsertIntoEmptyMap);
    }
    if (type == kHFSPlusExtentAllocated) {
        // Progress is measured against the whole of the data, whatever this span shows of it.
        const uint64_t total = uint64_t{_dataBlockTotal} + count;
        _dataBlockTotal =
            static_cast<uint32_t>(std::min<uint64_t>(total, std::numeric_limits<uint32_t>::max()));
    }
    if (!_clipRun(start, count)) {
        return true;
    }
    Entry* entry = _entryContaining(start);
    if (entry == nullptr) {
        return VZDefragFailInternal(error, kSource, kLineInsertWithoutEntry);
    }
    const uint32_t end = start + count;  // within the span, so it does not wrap
    const uint32_t freeEnd = _endOf(*entry);
    if (entry->type() != kHFSPlusExtentUnalloced || end > freeEnd) {
        return VZDefragFail(error,
                            "Invalid overlapping extent with start block = %1$u, block count = "
                            "%2$u, CNID %3$u, and next free extent start of %4$u.",
                            start, count, cnid, freeEnd);
    }
    if (end < freeEnd &&
        _addEntry({.start = end, .cnid = entry->cnid, .info = entry->info}, error) == nullptr) {
        return false;
    }
    if (entry->start == start) {
        entry->cnid = cnid;
        entry->info = info;
    } else if (_addEntry({.start = start, .cnid = cnid, .info = info}, error) == nullptr) {
        return false;
    }
    _blockCountForType[kHFSPlusExtentUnalloced] -= count;
    _blockCountForType[type] += count;
    _clipToCapacity();
    return true;
}

bool HFSPlusExtentMap::deleteRun(uint32_t start, uint32_t count, VZDefragErrorSlot error)
{
    if (!_clipRun(start, count)) {
        return true;
    }
    const uint32_t end = start + count;  // within the span, so it does not wrap
    uint32_t block = start;
    while (block < end) {
        Entry* entry = _entryContaining(block);
        if (entry == nullptr) {
            break;
        }
        const uint32_t pieceEnd = std::min(_endOf(*entry), end);
        if (entry->type() != kHFSPlusExtentUnalloced) {
            if (entry->start < block) {
                entry =
                    _addEntry({.start = block, .cnid = entry->cnid, .info = entry->info}, error);
                if (entry == nullptr) {
                    return false;
                }
            }
            if (pieceEnd < _endOf(*entry) &&
                _addEntry({.start = pieceEnd, .cnid = entry->cnid, .info = entry->info}, error) ==
                    nullptr) {
                return false;
            }
            _blockCountForType[entry->type()] -= pieceEnd - block;
            _blockCountForType[kHFSPlusExtentUnalloced] += pieceEnd - block;
            entry->cnid = 0;
            entry->info = kFreeInfo;
            _mergeWithNeighbours(*entry);
        }
        block = pieceEnd;
    }
    return true;
}

bool HFSPlusExtentMap::removeEntry(const Entry& entry, VZDefragErrorSlot error)
{
    const Entry* const first = _map.first();
    if (first == nullptr || first->start != entry.start) {
        return VZDefragFailInternal(error, kSource, kLineRemoveOtherThanFirst);
    }
    const uint32_t count = blockCountForEntry(*first);
    _blockCountForType[first->type()] -= count;
    _startBlock += count;
    _deleteEntry(*first);
    return true;
}

bool HFSPlusExtentMap::removeToBlock(uint32_t block, VZDefragErrorSlot error)
{
    for (Entry* first = _map.first(); first != nullptr && first->start < block;
         first = _map.first()) {
        if (_endOf(*first) > block) {
            _blockCountForType[first->type()] -= block - first->start;
            _startBlock = block;
            first->start = block;
            return true;
        }
        if (!removeEntry(*first, error)) {
            return false;
        }
    }
    return true;
}

uint32_t HFSPlusExtentMap::blockCountForEntry(const Entry& entry) const
{
    return _endOf(entry) - entry.start;
}

uint32_t HFSPlusExtentMap::blockCountForType(uint8_t type) const
{
    checkType(type);
    return _blockCountForType[type];
}

const HFSPlusExtentMapEntry* HFSPlusExtentMap::findEntry(uint32_t block, uint32_t* count) const
{
    const Entry* const entry = _entryContaining(block);
    if (entry != nullptr && count != nullptr) {
        *count = blockCountForEntry(*entry);
    }
    return entry;
}

const HFSPlusExtentMapEntry* HFSPlusExtentMap::firstEntry(uint32_t* count) const
{
    return nextEntryAfter(count, nullptr);
}

const HFSPlusExtentMapEntry* HFSPlusExtentMap::nextEntryAfter(uint32_t* count,
                                                              const Entry* entry) const
{
    const Entry* const next = entry != nullptr ? _map.next(*entry) : _map.first();
    if (next != nullptr && count != nullptr) {
        *count = blockCountForEntry(*next);
    }
    return next;
}

void HFSPlusExtentMap::dump() const
{
    const uint64_t blockSize = _volume.hostVolumeHeader().blockSize;
    KLDebugLog(KLDebugLevel::kDebug, "--------\n");
    KLDebugLog(KLDebugLevel::kDebug, "extent count: %lu (%@)\n", _extentCount,
               stringWithPrettySize(_extentCount * kBytesPerEntry));
    KLDebugLog(KLDebugLevel::kDebug, "block count: %lu (%@)\n", blockCount(),
               stringWithPrettySize(blockCount() * blockSize));
    KLDebugLog(KLDebugLevel::kDebug, "block range: %08X - %08X\n", _startBlock, _totalBlocks - 1);
    for (const Entry* entry = _map.first(); entry != nullptr; entry = _map.next(*entry)) {
        dumpEntry(*entry);
    }
}

void HFSPlusExtentMap::dumpEntry(const Entry& entry) const
{
    if (!KLDebugLevelIsEnabled(KLDebugLevel::kDebug)) {
        return;
    }
    std::string path;
    if (entry.cnid != 0 && !_volume.catalog().copyPathForCNID(path, entry.cnid, nullptr)) {
        path.clear();
    }
    KLDebugLog(KLDebugLevel::kDebug,
               "start = %08X, count = %08X, cnid = %08X, info = %02X %06X%s%@\n", entry.start,
               blockCountForEntry(entry), entry.cnid, entry.type(), entry.info & 0x00FFFFFF,
               entry.cnid != 0 ? "  " : "", outputSafeString(path));
}

void HFSPlusExtentMap::validate(bool verbose) const
{
    std::array<uint32_t, kTypeCount> counts = {};
    for (const Entry* entry = _map.first(); entry != nullptr; entry = _map.next(*entry)) {
        counts[entry->type()] += blockCountForEntry(*entry);
    }
    const bool valid = counts == _blockCountForType;
    if (valid && !verbose) {
        return;
    }
    constexpr std::array<std::string_view, kTypeCount> kTypeNames = {"immutable", "unalloced",
                                                                     "allocated"};
    KLDebugLog(KLDebugLevel::kDebug, "_dataBlockTotal = %08X\n", _dataBlockTotal);
    for (size_t type = 0; type < kTypeCount; ++type) {
        KLDebugLog(KLDebugLevel::kDebug, "%s = %08X vs %08X\n", kTypeNames[type],
                   _blockCountForType[type], counts[type]);
    }
    if (!valid) {
        KLPanic("the block counts of an extent map are wrong\n");
    }
}

/** Cuts the run to the span; false when nothing of it is inside. */
bool HFSPlusExtentMap::_clipRun(uint32_t& start, uint32_t& count) const
{
    const uint64_t end = std::min<uint64_t>(uint64_t{start} + count, _totalBlocks);
    start = std::max(start, _startBlock);
    if (end <= start) {
        return false;
    }
    count = static_cast<uint32_t>(end - start);
    return true;
}

HFSPlusExtentMap::Entry* HFSPlusExtentMap::_entryContaining(uint32_t block) const
{
    // The entries tile the span, so the last one that begins at the block or before contains it.
    return block < _totalBlocks ? _map.lastNotAfter(block) : nullptr;
}

uint32_t HFSPlusExtentMap::_endOf(const Entry& entry) const
{
    const Entry* const next = _map.next(entry);
    return next != nullptr ? next->start : _totalBlocks;
}

HFSPlusExtentMap::Entry* HFSPlusExtentMap::_addEntry(const Entry& entry, VZDefragErrorSlot error)
{
    Entry* const added = _map.insert(entry);
    if (added == nullptr) {
        std::ignore = VZDefragFail(error, "Out of memory.");
        return nullptr;
    }
    ++_extentCount;
    return added;
}

void HFSPlusExtentMap::_deleteEntry(const Entry& entry)
{
    _map.deletePayload(entry);
    --_extentCount;
}

void HFSPlusExtentMap::_mergeWithNeighbours(Entry& entry)
{
    const auto areAlike = [](const Entry* left, const Entry* right) {
        return left != nullptr && right != nullptr && left->cnid == right->cnid &&
               left->info == right->info;
    };
    const Entry* const next = _map.next(entry);
    if (areAlike(&entry, next)) {
        _deleteEntry(*next);
    }
    if (areAlike(_map.lastBefore(entry.start), &entry)) {
        _deleteEntry(entry);
    }
}

void HFSPlusExtentMap::_clipToCapacity()
{
    while (_extentCapacity != 0 && _extentCount > _extentCapacity) {
        _clipLastExtent();
    }
}

void HFSPlusExtentMap::_clipLastExtent()
{
    const Entry* const last = _map.last();
    if (last == nullptr) {
        return;
    }
    const uint32_t count = blockCountForEntry(*last);
    if (last->type() != kHFSPlusExtentUnalloced && _clipDelegate != nullptr) {
        _clipDelegate->extentMapDidClip(*last, count);
    }
    _blockCountForType[last->type()] -= count;
    _totalBlocks = last->start;
    _deleteEntry(*last);
}
