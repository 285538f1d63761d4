#include "Tasks/HFSPlusCopyEngine.h"

#include <algorithm>

#include "HFSPlus/HFSPlusAttributes.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusFreeMap.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"
#include "KLKit/KLToolTask.h"
#include "Tasks/HFSPlusCopyBuffer.h"

namespace {

constexpr const char* kSource = "Tasks/HFSPlusCopyEngine.cpp";
constexpr unsigned kLineZoneBeyondMap = 171;
constexpr unsigned kLineMapEmpty = 238;
constexpr unsigned kLineFrontNotFree = 241;

/** The source selection may ask twice for a fresh look before it gives up itself. */
constexpr uint32_t kMostRebuildsWithoutNews = 3;

[[noreturn]] void panicOnType(const HFSPlusExtentMapEntry& entry)
{
    KLPanic("unhandled extent type: %u\n", uint32_t{entry.type()});
}

}  // namespace

HFSPlusCopyEngine::HFSPlusCopyEngine(HFSPlusVolume& volume, const KLToolTask& task,
                                     HFSPlusExtentMapBuilder& span,
                                     HFSPlusSourceSelection& selection, HFSPlusCopyBuffer& buffer,
                                     HFSPlusDefragProgress& progress)
    : _volume(volume),
      _task(task),
      _span(span),
      _selection(selection),
      _buffer(buffer),
      _copyList(volume, buffer, progress)
{
}

bool HFSPlusCopyEngine::run(VZDefragErrorSlot error)
{
    if (_task.aborted()) {
        return VZDefragFailCancelled(error);
    }
    Cycle cycle = Cycle::kGoOn;
    while (cycle == Cycle::kGoOn) {
        cycle = _runCycle(error);
    }
    _copyList.dispose();
    return cycle == Cycle::kFinished;
}

uint32_t HFSPlusCopyEngine::_movableBlocks() const
{
    return _map().blockCount() - _map().blockCountForType(kHFSPlusExtentImmutable);
}

uint32_t HFSPlusCopyEngine::blocksKeptTogether(const HFSPlusVolume& volume, uint32_t cnid)
{
    if (!volume.isJournaled() || !volume.isSpecialFile(cnid)) {
        return 1;
    }
    const HFSPlusBTreeFile* tree = nullptr;
    if (cnid == kHFSCatalogFileID) {
        tree = &volume.catalog();
    } else if (cnid == kHFSExtentsFileID) {
        tree = &volume.extents();
    } else if (cnid == kHFSAttributesFileID) {
        tree = volume.attributes();
    }
    const uint32_t nodeSize = tree == nullptr ? 0 : tree->nodeSize();
    return std::max(nodeSize / volume.hostVolumeHeader().blockSize, 1u);
}

HFSPlusCopyEngine::Cycle HFSPlusCopyEngine::_runCycle(VZDefragErrorSlot error)
{
    uint32_t movable = 0;
    const Cycle prepared = _prepareSpan(movable, error);
    if (prepared != Cycle::kGoOn || movable == 0) {
        return prepared;
    }
    const uint32_t zone = std::min(movable, _buffer.blocks());
    if (zone == 0) {
        // Blocks larger than the whole buffer: no cycle would ever move one.
        VZDefragFail(error, "Volume is too congested, unable to continue.");
        return Cycle::kFailed;
    }
    bool cleared = false;
    if (!_clearCopyZone(zone, cleared, error)) {
        return Cycle::kFailed;
    }
    if (!cleared) {
        return Cycle::kFinished;
    }
    if (_task.aborted()) {
        VZDefragFailCancelled(error);
        return Cycle::kFailed;
    }
    if (!_fillCycle(zone, error)) {
        return Cycle::kFailed;
    }
    const bool copied = _copyList.perform(_map(), true, error);
    _copyList.dispose();
    if (!copied || !_selection.updateSource(error)) {
        return Cycle::kFailed;
    }
    if (_task.aborted()) {
        VZDefragFailCancelled(error);
        return Cycle::kFailed;
    }
    return Cycle::kGoOn;
}

HFSPlusCopyEngine::Cycle HFSPlusCopyEngine::_prepareSpan(uint32_t& movable, VZDefragErrorSlot error)
{
    movable = 0;  // the caller starts over while it stays so
    if (_map().isEmpty()) {
        if (_span.reachesVolumeEnd()) {
            return Cycle::kFinished;
        }
        _sourceIsDry = false;
        return _span.buildExtentMap(_span.extentNextStartBlock(), error) ? Cycle::kGoOn
                                                                         : Cycle::kFailed;
    }
    if (_sourceIsDry) {
        if (_span.reachesVolumeEnd()) {
            return Cycle::kFinished;
        }
        return _rebuildFromFront(error) ? Cycle::kGoOn : Cycle::kFailed;
    }
    movable = _movableBlocks();
    if (movable != 0) {
        return Cycle::kGoOn;
    }
    if (_span.reachesVolumeEnd()) {
        return Cycle::kFinished;
    }
    if (!_rebuildFromFront(error)) {
        return Cycle::kFailed;
    }
    movable = _movableBlocks();
    if (movable != 0) {
        return Cycle::kGoOn;
    }
    if (_span.reachesVolumeEnd()) {
        return Cycle::kFinished;
    }
    VZDefragFail(error, "Volume is too congested, unable to continue.");
    return Cycle::kFailed;
}

bool HFSPlusCopyEngine::_rebuildFromFront(VZDefragErrorSlot error)
{
    const uint32_t spanEnd = _span.extentNextStartBlock();
    _sourceIsDry = false;
    if (!_span.buildExtentMap(_map().firstEntry()->start, error)) {
        return false;
    }
    _rebuildsWithoutNews = _span.extentNextStartBlock() > spanEnd ? 0 : _rebuildsWithoutNews + 1;
    return _rebuildsWithoutNews <= kMostRebuildsWithoutNews ||
           VZDefragFail(error, "Volume is too congested, unable to continue.");
}

bool HFSPlusCopyEngine::_clearCopyZone(uint32_t zone, bool& cleared, VZDefragErrorSlot error)
{
    cleared = _countCopyZoneFreeBlocks(zone) >= zone;
    if (!cleared) {
        if (!_evictCopyZone(zone, error)) {
            return false;
        }
        cleared = _countCopyZoneFreeBlocks(zone) >= zone;
    }
    return true;
}

uint32_t HFSPlusCopyEngine::_countCopyZoneFreeBlocks(uint32_t wanted) const
{
    uint32_t found = 0;
    uint32_t count = 0;
    for (const auto* entry = _map().firstEntry(&count); entry != nullptr && found < wanted;
         entry = _map().nextEntryAfter(&count, entry)) {
        switch (entry->type()) {
            case kHFSPlusExtentImmutable:
                break;
            case kHFSPlusExtentUnalloced:
                found += count;
                break;
            case kHFSPlusExtentAllocated:
                return found;
            default:
                panicOnType(*entry);
        }
    }
    return found;
}

bool HFSPlusCopyEngine::_findCopyZoneEnd(uint32_t zone, uint32_t& end,
                                         VZDefragErrorSlot error) const
{
    uint32_t immutable = 0;
    uint32_t position = 0;
    uint32_t count = 0;
    const auto* entry = _map().firstEntry(&count);
    while (entry != nullptr && position < zone) {
        switch (entry->type()) {
            case kHFSPlusExtentImmutable:
                immutable += count;
                break;
            case kHFSPlusExtentUnalloced:
            case kHFSPlusExtentAllocated:
                position += count;
                break;
            default:
                panicOnType(*entry);
        }
        entry = _map().nextEntryAfter(&count, entry);
    }
    if (position < zone) {
        return VZDefragFailInternal(error, kSource, kLineZoneBeyondMap);
    }
    end = _map().startBlock() + zone + immutable;
    return true;
}

bool HFSPlusCopyEngine::_evictCopyZone(uint32_t zone, VZDefragErrorSlot error)
{
    uint32_t end = 0;
    const bool evicted = _findCopyZoneEnd(zone, end, error) && _queueEvictions(zone, end, error) &&
                         _copyList.perform(_map(), false, error);
    if (evicted) {
        _tellOfEvictions();
    }
    _copyList.dispose();
    return evicted;
}

void HFSPlusCopyEngine::_tellOfEvictions()
{
    std::vector<HFSPlusSourceSelection::Eviction> evictions;
    for (const HFSPlusCopyEntry* entry = _copyList.firstEntry(); entry != nullptr;
         entry = entry->next.get()) {
        evictions.push_back(
            {entry->source(), entry->count, entry->cnid, entry->fork(), entry->destination()});
    }
    _selection.sourceDidMove(evictions);
}

bool HFSPlusCopyEngine::_queueEvictions(uint32_t zone, uint32_t end, VZDefragErrorSlot error)
{
    const auto freeMap = HFSPlusFreeMap::initWithVolume(_volume, end, zone, zone, error);
    if (freeMap == nullptr) {
        return false;
    }
    if (freeMap->blockCount() < zone) {
        return VZDefragFail(error, "The amount of free space is insufficient.");
    }
    uint32_t position = 0;
    uint32_t count = 0;
    for (const auto* entry = _map().firstEntry(&count); entry != nullptr && position < zone;
         entry = _map().nextEntryAfter(&count, entry)) {
        if (entry->type() == kHFSPlusExtentImmutable) {
            continue;
        }
        const uint32_t inside = std::min(count, zone - position);
        if (entry->type() == kHFSPlusExtentAllocated) {
            const uint32_t unit = blocksKeptTogether(_volume, entry->cnid);
            const uint64_t whole = (uint64_t{inside} + unit - 1) / unit * unit;
            const auto evicted = static_cast<uint32_t>(std::min<uint64_t>(whole, count));
            if (!_queueEviction(*entry, evicted, *freeMap, error)) {
                return false;
            }
        }
        position += inside;
    }
    return true;
}

bool HFSPlusCopyEngine::_queueEviction(const HFSPlusExtentMapEntry& entry, uint32_t count,
                                       HFSPlusFreeMap& freeMap, VZDefragErrorSlot error)
{
    const uint32_t unit = blocksKeptTogether(_volume, entry.cnid);
    uint32_t offset = 0;
    while (offset < count) {
        uint32_t given = count - offset;
        const uint32_t destination = freeMap.allocate(given, error);
        if (destination == 0) {
            return false;
        }
        const uint32_t rest = given < count - offset ? given % unit : 0;
        if (rest != 0) {
            if (rest == given) {
                return VZDefragFail(error, "The amount of free space is insufficient.");
            }
            given -= rest;
            if (!freeMap.insert(destination + given, rest, error)) {
                return false;
            }
        }
        if (!_copyList.append({entry.start, entry.cnid, entry.info, offset, given, destination},
                              error)) {
            return false;
        }
        offset += given;
    }
    return true;
}

bool HFSPlusCopyEngine::_fillCycle(uint32_t zone, VZDefragErrorSlot error)
{
    uint32_t queued = 0;
    while (queued < zone) {
        HFSPlusSourceSelection::Piece piece;
        switch (_selection.getSourceEntry(piece, error)) {
            case HFSPlusSourceSelection::Found::kFailed:
                return false;
            case HFSPlusSourceSelection::Found::kNothing:
                _sourceIsDry = true;
                return true;
            case HFSPlusSourceSelection::Found::kPiece:
                break;
        }
        if (!_queuePiece(piece, zone - queued, queued, error)) {
            return false;
        }
        _rebuildsWithoutNews = 0;
    }
    return true;
}

bool HFSPlusCopyEngine::_queuePiece(HFSPlusSourceSelection::Piece piece, uint32_t room,
                                    uint32_t& queued, VZDefragErrorSlot error)
{
    uint32_t frontCount = 0;
    const HFSPlusExtentMapEntry* front = _map().firstEntry(&frontCount);
    while (front != nullptr && front->type() == kHFSPlusExtentImmutable) {
        if (!_map().removeEntry(*front, error)) {
            return false;
        }
        front = _map().firstEntry(&frontCount);
    }
    if (front == nullptr) {
        return VZDefragFailInternal(error, kSource, kLineMapEmpty);
    }
    if (front->type() != kHFSPlusExtentUnalloced) {
        return VZDefragFailInternal(error, kSource, kLineFrontNotFree);
    }
    const uint32_t destination = front->start;
    const uint32_t source = piece.start + piece.offset;
    const uint32_t possible = std::min({piece.count, frontCount, room});
    const uint32_t unit = blocksKeptTogether(_volume, piece.cnid);
    piece.count = possible < piece.count ? possible - possible % unit : possible;
    if (piece.count == 0) {
        return _skipFront(room, frontCount, queued, error);
    }
    queued += piece.count;
    return _copyList.append(
               {piece.start, piece.cnid, HFSPlusExtentInfo(kHFSPlusExtentAllocated, piece.fork),
                piece.offset, piece.count, destination},
               error) &&
           _selection.putSourceEntry(piece, error) &&
           _map().removeToBlock(destination + piece.count, error) &&
           _map().deleteRun(source, piece.count, error);
}

/** Leaves blocks at the front free that are too few for the next node. */
bool HFSPlusCopyEngine::_skipFront(uint32_t room, uint32_t frontCount, uint32_t& queued,
                                   VZDefragErrorSlot error)
{
    if (frontCount < room) {
        // The free run ends at something immutable: what follows begins behind that.
        queued += frontCount;
        return _map().removeToBlock(_map().startBlock() + frontCount, error);
    }
    if (queued == 0) {
        return VZDefragFail(error, "Volume is too congested, unable to continue.");
    }
    queued += room;  // the cycle is full; the next one goes on at this block
    return true;
}
