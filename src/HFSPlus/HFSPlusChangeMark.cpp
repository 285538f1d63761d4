#include "HFSPlus/HFSPlusChangeMark.h"

#include <string_view>
#include <vector>

#include "KLKit/KLMemory.h"
#include "VZDefragVolume.h"

namespace {

constexpr std::string_view kWriteFailure = "Write failure.";

}  // namespace

void HFSPlusChangeMark::setVolume(uint64_t startOffset, uint64_t sizeBytes,
                                  const HFSPlusVolumeHeader& header)
{
    _startOffset = startOffset;
    _sizeBytes = sizeBytes;
    _header = header;
    // Counts once for as long as the volume is open, however many runs there are.
    _finalWriteCount = header.writeCount + 1;
}

bool HFSPlusChangeMark::begin(VZDefragErrorSlot error)
{
    if (_failed) {
        return VZDefragFail(error, kWriteFailure);
    }
    if (_isSet) {
        return true;
    }
    const std::lock_guard guard(_beginLock);
    if (_isSet) {
        return true;
    }
    if (_file != nullptr && !_beginRollbackFile(error)) {
        _failed = true;  // the run is over: what it wanted to write must not follow later
        return false;
    }
    const HFSPlusVolumeHeader marked = primaryHeader(_header);
    bool isMarked = false;
    const bool hadMemory = KLWithinMemory([&] { isMarked = _writePrimary(marked, error); });
    if (!isMarked) {
        _failed = true;
        return !hadMemory && VZDefragFail(error, "Out of memory.");
    }
    _isSet = true;
    return true;
}

bool HFSPlusChangeMark::_beginRollbackFile(VZDefragErrorSlot error)
{
    const HFSPlusRollbackFile::Volume volume{_startOffset, _sizeBytes, _header, _finalWriteCount};
    const HFSPlusByteRange primary{kHFSPlusVolumeHeaderOffset, sizeof _header};
    if (!_file->begin(_device, volume, error)) {
        return false;
    }
    bool isProtected = false;
    const bool hadMemory = KLWithinMemory([&] { isProtected = protect({&primary, 1}, error); });
    if (!isProtected) {
        _file->end();
        return !hadMemory && VZDefragFail(error, "Out of memory.");
    }
    return true;
}

bool HFSPlusChangeMark::_writePrimary(const HFSPlusVolumeHeader& header, VZDefragErrorSlot error)
{
    return _device.VZDefragVolume::write(&header, sizeof header,
                                         _startOffset + kHFSPlusVolumeHeaderOffset, error) &&
           _device.synchronize(error);
}

bool HFSPlusChangeMark::isProtected(const HFSPlusByteRange& range) const
{
    return _file == nullptr || _file->isProtected({_startOffset + range.offset, range.nbyte});
}

bool HFSPlusChangeMark::protect(std::span<const HFSPlusByteRange> ranges, VZDefragErrorSlot error)
{
    if (_file == nullptr) {
        return true;
    }
    std::vector<HFSPlusByteRange> onDevice(ranges.begin(), ranges.end());
    for (HFSPlusByteRange& range : onDevice) {
        range.offset += _startOffset;
    }
    return _file->protect(_device, onDevice, error);
}

HFSPlusVolumeHeader HFSPlusChangeMark::primaryHeader(const HFSPlusVolumeHeader& header) const
{
    HFSPlusVolumeHeader marked = header;
    // Of a journaled volume, the second bit alone makes others look further than the journal.
    marked.attributes = (header.attributes & ~uint32_t{kHFSVolumeUnmountedMask}) |
                        uint32_t{kHFSBootVolumeInconsistentMask};
    if (_file != nullptr) {
        marked.writeCount = _isSet ? _file->completeWriteCount() : _file->presentWriteCount();
    }
    return marked;
}

void HFSPlusChangeMark::flushDidComplete(const HFSPlusVolumeHeader& header)
{
    _header = header;
    _isTorn = false;
    if (needsHeader()) {
        _file->changeDidComplete();
    }
}

bool HFSPlusChangeMark::end(VZDefragErrorSlot error)
{
    if (!_isSet) {
        return true;
    }
    if (_isTorn || !_device.synchronize(error) ||
        (_file != nullptr && !_file->prepareToEnd(error))) {
        return false;
    }
    // Until it is written: whatever becomes of this, it is not tried again, and nobody may write to
    // a volume of which it is not known whether it has the mark.
    _isTorn = true;
    if (!_writePrimary(_header, error)) {
        _failed = true;
        return false;
    }
    _isTorn = false;
    _isSet = false;
    if (_file != nullptr) {
        _file->end();
    }
    return true;
}
