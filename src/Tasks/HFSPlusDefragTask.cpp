#include "Tasks/HFSPlusDefragTask.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "HFSPlus/HFSPlusBitmapDraft.h"
#include "HFSPlus/HFSPlusChangeMark.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusForkExtents.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"
#include "KLKit/KLMemory.h"
#include "Tasks/HFSPlusApplicationProfile.h"
#include "Tasks/HFSPlusBootCacheProfile.h"
#include "Tasks/HFSPlusCompactSelection.h"
#include "Tasks/HFSPlusCopyEngine.h"
#include "Tasks/HFSPlusDefragSelection.h"

namespace {

std::string trimmed(std::string_view text)
{
    constexpr const char* kWhiteSpace = " \t\n\r\v\f";
    const size_t begin = text.find_first_not_of(kWhiteSpace);
    const size_t last = text.find_last_not_of(kWhiteSpace);
    return begin == std::string_view::npos ? "" : std::string(text.substr(begin, last + 1 - begin));
}

}  // namespace

HFSPlusDefragTask::HFSPlusDefragTask(HFSPlusVolume& volume, bool compact)
    : VZDefragTask(volume), _volume(volume), _compact(compact)
{
    setName(_compact ? "COMPACT" : "DEFRAG");
    setAction([this] { performTask([this](auto& error) { _defrag(error); }); });
}

void HFSPlusDefragTask::setProfileFileForks(std::unique_ptr<HFSPlusFileForkSet> fileForks)
{
    _profileFileForks = std::move(fileForks);
}

void HFSPlusDefragTask::_defrag(std::unique_ptr<VZDefragError>& error)
{
    if (!_parseOptions(&error) || !_checkVolume(&error)) {
        return;
    }
    // One mover at a time for the whole command: each plans its copies on a map that nobody
    // else's moves may make untrue.
    const KLClosedGate movingGate(_volume.movingGate());
    const KLClosedGate gate(_volume.gate());
    bool moved = false;
    const bool hadMemory = KLWithinMemory([&] { moved = _moveData(&error); });
    _span.reset();
    _copyBuffer.reset();
    if (!hadMemory) {
        didRunOutOfMemory(error);
    }
    // A run that was refused before it wrote anything leaves no trace, repairs of the bitmap
    // included.
    if (moved || _volume.changeMark().isSet()) {
        std::ignore = _volume.finishChanges(&error);
    }
}

bool HFSPlusDefragTask::_parseOptions(VZDefragErrorSlot error)
{
    const std::vector<std::string>& words = arguments();
    for (size_t index = 1; index < words.size(); ++index) {
        const std::string& word = words[index];
        if (word == "-q" || word == "--quiet") {
            _verbose = false;
        } else if (!_compact && (word == "-p" || word == "--profile")) {
            if (index + 1 == words.size()) {
                return VZDefragFail(error, "Option %1$@ requires an argument.", word);
            }
            ++index;
            if (!_parseProfiles(words[index], error)) {
                return false;
            }
        } else {
            return VZDefragFail(error, "Unknown option: %1$@", word);
        }
    }
    return true;
}

bool HFSPlusDefragTask::_parseProfiles(const std::string& list, VZDefragErrorSlot error)
{
    size_t begin = 0;
    while (begin <= list.size()) {
        const size_t end = std::min(list.find(',', begin), list.size());
        const std::string item = trimmed(std::string_view(list).substr(begin, end - begin));
        if (item == "boot") {
            _useBootProfile = true;
        } else if (item == "app") {
            _useAppProfile = true;
        } else {
            return VZDefragFail(error, "Unknown profile: %1$@", item);
        }
        begin = end + 1;
    }
    return true;
}

bool HFSPlusDefragTask::_checkVolume(VZDefragErrorSlot error) const
{
    if (_volume.isMounted()) {
        return VZDefragFail(error, "Volume is mounted.");
    }
    return _volume.isWritable() || VZDefragFail(error, "Volume is read-only.");
}

bool HFSPlusDefragTask::_moveData(VZDefragErrorSlot error)
{
    // Not sooner: while the task waits for the volume, another run may be changing the count.
    const HFSPlusHostVolumeHeader& header = _volume.hostVolumeHeader();
    _allocatedBlocks = header.totalBlocks - header.freeBlocks;
    if (!_compact && !_prepareProfiles(error)) {
        return false;
    }
    // A run that ends before it writes leaves the bitmap as it was.
    const HFSPlusBitmapDraft draft(_volume.allocation());
    return _prepareForRun(error) && _run(error) && _writeRepairs(error);
}

bool HFSPlusDefragTask::_run(VZDefragErrorSlot error)
{
    if (_span->extentMap() == nullptr || _span->extentMap()->isEmpty()) {
        return true;
    }
    _startProgress();
    const auto selection = _makeSelection();
    HFSPlusCopyEngine engine(_volume, *this, *_span, *selection, *_copyBuffer, *_progress);
    return engine.run(error);
}

/** Writes what was repaired in the bitmap when no move has led to that. */
bool HFSPlusDefragTask::_writeRepairs(VZDefragErrorSlot error)
{
    return !_volume.allocation().isDirty() || _volume.flush(error);
}

std::unique_ptr<HFSPlusSourceSelection> HFSPlusDefragTask::_makeSelection()
{
    if (_compact) {
        return std::make_unique<HFSPlusCompactSelection>(*_span);
    }
    return std::make_unique<HFSPlusDefragSelection>(_volume, *_span, _profileFileForks);
}

bool HFSPlusDefragTask::_prepareProfiles(VZDefragErrorSlot error)
{
    bool built = false;
    const bool hadMemory = KLWithinMemory([&] { built = _buildProfiles(error); });
    if (_profileFileForks != nullptr && _profileFileForks->count() == 0) {
        _profileFileForks.reset();
    }
    // The playlist's blocks are free in memory. They stay untouched until the catalog on disk has
    // let go of them, which a failure here leaves in doubt.
    const bool flushed = _volume.flush(built ? error : nullptr);
    return hadMemory ? flushed && built : VZDefragFail(error, "Out of memory.");
}

/** Adds the forks of the profiles that were asked for, those that are read at start-up first. */
bool HFSPlusDefragTask::_buildProfiles(VZDefragErrorSlot error)
{
    if (_profileFileForks == nullptr) {
        _profileFileForks = std::make_unique<HFSPlusFileForkSet>(_volume);
    }
    std::unique_ptr<VZDefragError> failure;  // a profile that is not made is none
    const bool hasBootProfile =
        _useBootProfile &&
        HFSPlusBootCacheProfile::initWithVolume(_volume, *_profileFileForks, &failure) != nullptr;
    if (failure == nullptr && _useAppProfile) {
        std::ignore =
            HFSPlusApplicationProfile::initWithVolume(_volume, *_profileFileForks, &failure);
    }
    if (failure == nullptr && hasBootProfile) {
        _resetBootProfile(&failure);
    }
    const bool built = failure == nullptr;
    if (!built && VZDefragWantsError(error)) {
        *error = std::move(failure);
    }
    return built;
}

/** Empties the playlist, which is the first that is written, once all else was found to be sound.
 */
void HFSPlusDefragTask::_resetBootProfile(VZDefragErrorSlot error)
{
    const HFSPlusBitmapDraft draft(_volume.allocation());
    if (_makeSpan(error) && _lookAtAllSpans(error)) {
        _volume.allocation().keepDraft();
        HFSPlusBootCacheProfile::reset(_volume);
    }
}

void HFSPlusDefragTask::_removeImmutableForksFromProfiles()
{
    if (_profileFileForks == nullptr) {
        return;
    }
    auto movable = std::make_unique<HFSPlusFileForkSet>(_volume);
    for (size_t index = 0; index < _profileFileForks->count(); ++index) {
        uint32_t fileID = 0;
        uint8_t forkType = 0;
        _profileFileForks->fileAtIndex(fileID, forkType, index);
        if (!_immutableFileForks->contains(fileID, forkType)) {
            movable->add(fileID, forkType);
        }
    }
    _profileFileForks = movable->count() == 0 ? nullptr : std::move(movable);
}

/** Makes what maps the volume; nothing is mapped yet. */
bool HFSPlusDefragTask::_makeSpan(VZDefragErrorSlot error)
{
    _span.reset();  // refers to the set
    _immutableFileForks = _volume.immutableForkIDs(false, error);
    if (_immutableFileForks == nullptr) {
        return false;
    }
    _span = std::make_unique<HFSPlusExtentMapBuilder>(_volume, *_immutableFileForks);
    if (_spanMemory) {
        _span->setSpanMemory(*_spanMemory);
    }
    return true;
}

bool HFSPlusDefragTask::_prepareForRun(VZDefragErrorSlot error)
{
    if (!_makeSpan(error)) {
        return false;
    }
    // A profile may name the journal, whose place is known to more than the catalog.
    _removeImmutableForksFromProfiles();
    const uint32_t blockSize = _volume.hostVolumeHeader().blockSize;
    _copyBuffer = _copyBufferSize
                      ? HFSPlusCopyBuffer::initWithSize(*_copyBufferSize, blockSize, error)
                      : HFSPlusCopyBuffer::initWithBlockSize(blockSize, error);
    if (_copyBuffer == nullptr) {
        return false;
    }
    _skippedBlocks = 0;
    if (_span->reachesVolumeEnd()) {
        return true;
    }
    return _buildFirstSpan(error) && _skipToDataBlocks(error) && _skipWhatIsInPlace(error);
}

/** Builds the span at the front after a look at all others, while nothing has moved: two forks that
 *  share blocks must not be met when the data of one are elsewhere and its blocks were given away.
 */
bool HFSPlusDefragTask::_buildFirstSpan(VZDefragErrorSlot error)
{
    return _lookAtAllSpans(error) &&
           (_span->extentMap()->startBlock() == 0 || _buildSpan(0, error));
}

/** The tree whose records change with every move is looked at last, once for all spans. */
bool HFSPlusDefragTask::_lookAtAllSpans(VZDefragErrorSlot error)
{
    bool built = _buildSpan(0, error);
    while (built && !_span->reachesVolumeEnd()) {
        built = _buildSpan(_span->extentNextStartBlock(), error);
    }
    return built && _volume.extents().checkTree(error);
}

bool HFSPlusDefragTask::_buildSpan(uint32_t firstBlock, VZDefragErrorSlot error)
{
    if (!_span->buildExtentMap(firstBlock, error)) {
        return false;
    }
    return !aborted() || VZDefragFailCancelled(error);
}

bool HFSPlusDefragTask::_removeFrontEntry(VZDefragErrorSlot error)
{
    HFSPlusExtentMap& map = *_span->extentMap();
    uint32_t count = 0;
    const HFSPlusExtentMapEntry* entry = map.firstEntry(&count);
    if (entry->type() == kHFSPlusExtentAllocated) {
        _skippedBlocks += count;
    }
    if (!map.removeEntry(*entry, error)) {
        return false;
    }
    return !map.isEmpty() || _span->reachesVolumeEnd() ||
           _buildSpan(_span->extentNextStartBlock(), error);
}

bool HFSPlusDefragTask::_skipToDataBlocks(VZDefragErrorSlot error)
{
    const uint32_t firstDataBlock = _volume.firstDataBlock();
    // The map's start rises with every entry removed.
    while (const HFSPlusExtentMapEntry* entry = _span->extentMap()->firstEntry()) {
        if (entry->start >= firstDataBlock) {
            return true;
        }
        if (!_removeFrontEntry(error)) {
            return false;
        }
    }
    return true;
}

bool HFSPlusDefragTask::_skipWhatIsInPlace(VZDefragErrorSlot error)
{
    while (const HFSPlusExtentMapEntry* entry = _span->extentMap()->firstEntry()) {
        switch (_frontEntry(*entry, error)) {
            case Front::kFailed:
                return false;
            case Front::kStartHere:
                return true;
            case Front::kInPlace:
                break;
        }
        if (!_removeFrontEntry(error)) {
            return false;
        }
    }
    return true;
}

HFSPlusDefragTask::Front HFSPlusDefragTask::_frontEntry(const HFSPlusExtentMapEntry& entry,
                                                        VZDefragErrorSlot error)
{
    if (_compact) {
        return _frontEntryToCompact(entry);
    }
    if (entry.type() != kHFSPlusExtentAllocated) {
        return entry.type() == kHFSPlusExtentImmutable ? Front::kInPlace : Front::kStartHere;
    }
    const auto fork = HFSPlusForkExtents::initWithVolume(_volume, entry.cnid, entry.fork(), error);
    std::vector<HFSPlusHostExtentDescriptor> extents;
    if (fork == nullptr || !fork->copyExtentDescriptors(extents, entry.start, error)) {
        return Front::kFailed;
    }
    if (extents.size() > 1) {
        return Front::kStartHere;
    }
    return _frontEntryInProfile(entry, extents.empty() ? nullptr : extents.data(), error);
}

/** Data begin to slide at the first hole, unless all that follows would come back to its place
 *  because the hole ends at something fixed and is too small for the node that comes next. */
HFSPlusDefragTask::Front HFSPlusDefragTask::_frontEntryToCompact(const HFSPlusExtentMapEntry& entry)
{
    if (entry.type() != kHFSPlusExtentUnalloced) {
        return Front::kInPlace;
    }
    const HFSPlusExtentMap& map = *_span->extentMap();
    const HFSPlusExtentMapEntry* next = map.nextEntryAfter(nullptr, &entry);
    const bool endsAtFixed = next != nullptr && next->type() == kHFSPlusExtentImmutable;
    return endsAtFixed && map.blockCountForEntry(entry) < _blocksNeededBehind(entry)
               ? Front::kInPlace
               : Front::kStartHere;
}

/** How many blocks the next data behind @p entry need in one run; 0 when there are none. */
uint32_t HFSPlusDefragTask::_blocksNeededBehind(const HFSPlusExtentMapEntry& entry)
{
    if (entry.start < _nextDataStart) {
        return _nextDataNeeds;
    }
    const HFSPlusExtentMap& map = *_span->extentMap();
    uint32_t count = 0;
    const HFSPlusExtentMapEntry* next = map.nextEntryAfter(&count, &entry);
    while (next != nullptr && next->type() != kHFSPlusExtentAllocated) {
        next = map.nextEntryAfter(&count, next);
    }
    if (next == nullptr) {
        return 0;
    }
    _nextDataStart = next->start;
    _nextDataNeeds = std::min(count, HFSPlusCopyEngine::blocksKeptTogether(_volume, next->cnid));
    return _nextDataNeeds;
}

HFSPlusDefragTask::Front HFSPlusDefragTask::_frontEntryInProfile(
    const HFSPlusExtentMapEntry& entry, const HFSPlusHostExtentDescriptor* extent,
    VZDefragErrorSlot error)
{
    // Every round takes a fork off the profile or ends.
    while (_profileFileForks != nullptr) {
        uint32_t fileID = 0;
        uint8_t forkType = 0;
        _profileFileForks->fileAtIndex(fileID, forkType, 0);
        const auto fork = HFSPlusForkExtents::initWithVolume(_volume, fileID, forkType, error);
        std::vector<HFSPlusHostExtentDescriptor> extents;
        if (fork == nullptr || !fork->copyExtentDescriptors(extents, entry.start, error)) {
            return Front::kFailed;
        }
        const bool isThisFork = extents.size() == 1 && extent != nullptr &&
                                extents[0].startBlock == extent->startBlock &&
                                extents[0].blockCount == extent->blockCount;
        if (!extents.empty() && !isThisFork) {
            return Front::kStartHere;
        }
        _profileFileForks->removeFileForkAtIndex(0);
        if (_profileFileForks->count() == 0) {
            _profileFileForks.reset();
        }
        if (isThisFork) {
            return Front::kInPlace;
        }
    }
    return Front::kInPlace;
}

void HFSPlusDefragTask::_startProgress()
{
    _progress = std::make_unique<HFSPlusDefragProgress>(*this, _allocatedBlocks);
    _progress->setVerbose(_verbose);
    const uint32_t total = _span->extentMap()->dataBlockTotal();
    _progress->setBlocksTotal(
        _skippedBlocks <= total ? total - static_cast<uint32_t>(_skippedBlocks) : total);
    KLDebugLog(KLDebugLevel::kDebug, "%@,DEBUG,Starting at block %08X\n", name(),
               _span->extentMap()->firstEntry()->start);
    KLDebugLog(KLDebugLevel::kDebug, "%@,DEBUG,%08X blocks remaining to process\n", name(),
               _progress->blocksTotal());
}
