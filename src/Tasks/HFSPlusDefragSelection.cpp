#include "Tasks/HFSPlusDefragSelection.h"

#include "HFSPlus/HFSPlusExtentMap.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "Tasks/HFSPlusExtentMapBuilder.h"

namespace {

constexpr const char* kSource = "Tasks/HFSPlusDefragSelection.cpp";
constexpr unsigned kLineListEmpty = 47;
constexpr unsigned kLineEntryWithoutOwner = 91;
constexpr unsigned kLineProfileEmpty = 103;
constexpr unsigned kLineProfileWithoutFork = 109;
constexpr unsigned kLineOtherProfileFork = 125;
constexpr unsigned kLinePutWithoutPiece = 151;
constexpr unsigned kLinePutOtherProfileFork = 162;

constexpr uint32_t kMostRetries = 2;

}  // namespace

HFSPlusDefragSelection::HFSPlusDefragSelection(
    HFSPlusVolume& volume, HFSPlusExtentMapBuilder& span,
    std::unique_ptr<HFSPlusFileForkSet>& profileFileForks)
    : _volume(volume), _span(span), _profileFileForks(profileFileForks)
{
}

HFSPlusSourceSelection::Found HFSPlusDefragSelection::getSourceEntry(Piece& piece,
                                                                     VZDefragErrorSlot error)
{
    if (_pending.start == 0) {
        if (!_holdsExtentList) {
            const Found chosen = _chooseFork(error);
            if (chosen != Found::kPiece) {
                return chosen;
            }
        }
        if (_extentList.empty()) {
            VZDefragFailInternal(error, kSource, kLineListEmpty);
            return Found::kFailed;
        }
        _currentExtent = _extentList.front();
        _pending = {_currentExtent.startBlock, 0, _currentExtent.blockCount, _cnid, _fork};
    }
    piece = _pending;
    return Found::kPiece;
}

HFSPlusSourceSelection::Found HFSPlusDefragSelection::_chooseFork(VZDefragErrorSlot error)
{
    if (_cnid != 0) {
        if (_profileFileForks != nullptr && !_isFirstOfProfile()) {
            VZDefragFailInternal(error, kSource, kLineOtherProfileFork);
            return Found::kFailed;
        }
        const Found read = _readExtents(error);
        if (read != Found::kPiece || !_extentList.empty() || _profileFileForks == nullptr) {
            return read;
        }
        _removeFirstOfProfile();
    }
    // Every round takes a fork off the profile, so the profile ends it.
    while (_profileFileForks != nullptr) {
        const Found chosen = _chooseForkOfProfile(error);
        if (chosen != Found::kPiece || !_extentList.empty()) {
            return chosen;
        }
        _removeFirstOfProfile();
    }
    return _chooseForkMet(error);
}

HFSPlusSourceSelection::Found HFSPlusDefragSelection::_chooseForkOfProfile(VZDefragErrorSlot error)
{
    if (_profileFileForks->count() == 0) {
        VZDefragFailInternal(error, kSource, kLineProfileEmpty);
        return Found::kFailed;
    }
    _profileFileForks->fileAtIndex(_cnid, _fork, 0);
    if (_cnid == 0) {
        VZDefragFailInternal(error, kSource, kLineProfileWithoutFork);
        return Found::kFailed;
    }
    return _readExtents(error);
}

HFSPlusSourceSelection::Found HFSPlusDefragSelection::_chooseForkMet(VZDefragErrorSlot error)
{
    HFSPlusExtentMap& map = *_span.extentMap();
    if (map.isEmpty()) {
        return Found::kNothing;
    }
    const HFSPlusExtentMapEntry* entry = map.firstEntry();
    while (entry != nullptr && entry->type() != kHFSPlusExtentAllocated) {
        entry = map.nextEntryAfter(nullptr, entry);
    }
    if (entry == nullptr) {
        if (_retryCount < kMostRetries) {
            ++_retryCount;
            return Found::kNothing;
        }
        VZDefragFail(error, "Volume is too congested, unable to continue.");
        return Found::kFailed;
    }
    _retryCount = 0;
    if (entry->cnid == 0) {
        VZDefragFailInternal(error, kSource, kLineEntryWithoutOwner);
        return Found::kFailed;
    }
    _cnid = entry->cnid;
    _fork = entry->fork();
    return _readExtents(error);
}

HFSPlusSourceSelection::Found HFSPlusDefragSelection::_readExtents(VZDefragErrorSlot error)
{
    const HFSPlusExtentMapEntry* front = _span.extentMap()->firstEntry();
    if (front == nullptr) {
        return Found::kNothing;
    }
    const auto fork = HFSPlusForkExtents::initWithVolume(_volume, _cnid, _fork, error);
    std::vector<HFSPlusHostExtentDescriptor> extents;
    if (fork == nullptr || !fork->copyExtentDescriptors(extents, front->start, error)) {
        return Found::kFailed;
    }
    _extentList.assign(extents.begin(), extents.end());
    _holdsExtentList = true;
    return Found::kPiece;
}

bool HFSPlusDefragSelection::_isFirstOfProfile() const
{
    uint32_t firstID = 0;
    uint8_t firstFork = 0;
    if (_profileFileForks->count() != 0) {
        _profileFileForks->fileAtIndex(firstID, firstFork, 0);
    }
    return firstID == _cnid && firstFork == _fork;
}

void HFSPlusDefragSelection::_removeFirstOfProfile()
{
    _profileFileForks->removeFileForkAtIndex(0);
    if (_profileFileForks->count() == 0) {
        _profileFileForks.reset();
    }
    _cnid = 0;
    _fork = 0;
    _extentList.clear();
    _holdsExtentList = false;
}

bool HFSPlusDefragSelection::putSourceEntry(const Piece& piece, VZDefragErrorSlot error)
{
    if (_pending.start == 0 || piece.count > _pending.count ||
        _pending.start != _currentExtent.startBlock || !_holdsExtentList || _extentList.empty()) {
        return VZDefragFailInternal(error, kSource, kLinePutWithoutPiece);
    }
    if (piece.count < _pending.count) {
        _pending.offset += piece.count;
        _pending.count -= piece.count;
        return true;
    }
    _extentList.pop_front();
    _currentExtent = {};
    _pending = {};
    if (!_extentList.empty()) {
        return true;
    }
    if (_profileFileForks != nullptr) {
        if (!_isFirstOfProfile()) {
            return VZDefragFailInternal(error, kSource, kLinePutOtherProfileFork);
        }
        _removeFirstOfProfile();
    }
    _holdsExtentList = false;
    _cnid = 0;
    return true;
}

bool HFSPlusDefragSelection::updateSource(VZDefragErrorSlot /*error*/)
{
    // The cycle's update changed the forks' extents: they are read afresh.
    _extentList.clear();
    _holdsExtentList = false;
    _currentExtent = {};
    _pending = {};
    return true;
}
