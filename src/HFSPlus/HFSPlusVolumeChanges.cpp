#include "HFSPlus/HFSPlusVolume.h"

#include <array>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusAttributes.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusChangeMark.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusFormatConversion.h"
#include "HFSPlus/HFSPlusUninterruptedChange.h"
#include "KLKit/KLDebug.h"

// How changes reach the disk.

namespace {

constexpr std::string_view kWriteFailure = "Write failure.";

}  // namespace

bool HFSPlusVolume::needsFlush() const
{
    return _dirty || (_willBumpWriteCount && !_didBumpWriteCount) || _allocation->isDirty() ||
           (_attributes != nullptr && _attributes->isDirty()) || _catalog->isDirty() ||
           _extents->isDirty();
}

void HFSPlusVolume::metadataWriteDidFail()
{
    // While special files are flushed, the others still get their turn.
    if (_isFlushing) {
        _writeFailedInFlush = true;
    } else {
        _changeMark->setFailed();
    }
}

bool HFSPlusVolume::flush(VZDefragErrorSlot error)
{
    const HFSPlusUninterruptedChange change(*this);
    if (needsFlush() && !_prepareToFlush(error)) {
        return false;
    }
    if (_changeMark->hasFailed()) {
        return VZDefragFail(error, kWriteFailure);
    }
    if (!_flushSpecialFiles()) {
        // The header would name what is not on disk, and so would everything after it.
        _changeMark->setFailed();
        return VZDefragFail(error, kWriteFailure);
    }
    const bool headerChanged = std::exchange(_dirty, false);
    _willBumpWriteCount = _willBumpWriteCount || headerChanged;
    const bool bumps = _willBumpWriteCount && !_didBumpWriteCount;
    if (bumps) {
        ++_hostVolumeHeader.writeCount;
        _didBumpWriteCount = true;
    }
    if (bumps || headerChanged || _changeMark->needsHeader()) {
        if (!synchronize(error)) {
            _changeMark->setFailed();
            return false;
        }
        _writeHeaders(headerChanged);
    }
    // The header is durable before anybody writes to a block that it no longer counts as used.
    if (!synchronize(error)) {
        _changeMark->setFailed();
        return false;
    }
    if (!_changeMark->hasFailed()) {
        _changeMark->flushDidComplete(diskOrder(_hostVolumeHeader));
    }
    return true;
}

/** Marks the volume, and keeps what this flush will overwrite: all of it with one barrier. */
bool HFSPlusVolume::_prepareToFlush(VZDefragErrorSlot error)
{
    if (!_changeMark->begin(error)) {
        return false;
    }
    if (!_changeMark->keepsOldBytes()) {
        return true;
    }
    std::vector<HFSPlusByteRange> ranges = {
        {kHFSPlusVolumeHeaderOffset, sizeof(HFSPlusVolumeHeader)},
        {_volumeSizeBytes - kHFSPlusVolumeHeaderOffset, sizeof(HFSPlusVolumeHeader)}};
    for (HFSPlusFile* file : std::array<HFSPlusFile*, 4>{_allocation.get(), _attributes.get(),
                                                         _catalog.get(), _extents.get()}) {
        if (file != nullptr) {
            file->prepareToFlush();
            file->appendDirtyRanges(ranges);
        }
    }
    if (!_changeMark->protect(ranges, error)) {
        // The changes stay in memory for good.
        _changeMark->setFailed();
        return false;
    }
    return true;
}

bool HFSPlusVolume::_flushSpecialFiles()
{
    _isFlushing = true;
    bool flushed = false;
    try {
        flushed = _allocation->flush();
        flushed = (_attributes == nullptr || _attributes->flush()) && flushed;
        flushed = _catalog->flush() && flushed;
        flushed = _extents->flush() && flushed;
    } catch (...) {
        _isFlushing = false;
        throw;
    }
    _isFlushing = false;
    return flushed && !_writeFailedInFlush;
}

void HFSPlusVolume::_writeHeaders(bool headerChanged)
{
    const HFSPlusVolumeHeader header = diskOrder(_hostVolumeHeader);
    const HFSPlusVolumeHeader primary = _changeMark->primaryHeader(header);
    std::unique_ptr<VZDefragError> failure;
    _changeMark->metadataWillBeWritten();
    const bool written =
        write(&primary, sizeof primary, kHFSPlusVolumeHeaderOffset, &failure) &&
        (!headerChanged ||
         write(&header, sizeof header, _volumeSizeBytes - kHFSPlusVolumeHeaderOffset, &failure));
    if (!written) {
        // The verdict of the flush stays what it is. But the header on disk may still lead to the
        // old places of special files, so nothing may be written there any more, and what has
        // failed is not tried again. A rollback file keeps what it takes to complete the headers.
        _changeMark->setFailed();
    }
    if (failure != nullptr) {
        KLDebugLog(KLDebugLevel::kWarning, "%@\n", failure->description());
    }
}

bool HFSPlusVolume::finishChanges(VZDefragErrorSlot error)
{
    const bool isDone = _changeMark->hasFailed() || !(needsFlush() || _changeMark->isTorn());
    const bool flushed = isDone || flush(error);
    return (_changeMark->end(error) && flushed) || VZDefragFail(error, kWriteFailure);
}
