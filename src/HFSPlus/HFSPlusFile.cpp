#include "HFSPlus/HFSPlusFile.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <string_view>

#include "HFSPlus/HFSPlusChangeMark.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"
#include "VZDefragTransferQueue.h"

namespace {

constexpr std::string_view kSource = "HFSPlus/HFSPlusFile.cpp";
constexpr unsigned kReadBeyondFinalPieceLine = 97;

}  // namespace

HFSPlusFile::HFSPlusFile(HFSPlusVolume& volume, uint32_t fileID)
    : _volume(volume), _hostForkData(volume.hostForkData(fileID)), _fileID(fileID)
{
    if (_hostForkData == nullptr) {
        KLPanic("file ID %lu has no fork data in the volume\n", fileID);
    }
}

uint64_t HFSPlusFile::translateOffset(uint64_t& offset, VZDefragErrorSlot error)
{
    return _volume.translateOffset(offset, _fileID, kHFSDataForkType, *_hostForkData, error);
}

bool HFSPlusFile::_isInRange(uint64_t nbyte, uint64_t offset) const
{
    return offset < logicalSize() && nbyte <= logicalSize() - offset;
}

bool HFSPlusFile::_isWholeBlocks(uint64_t nbyte, uint64_t offset) const
{
    const uint64_t blockSize = _volume.hostVolumeHeader().blockSize;
    return offset % blockSize == 0 && nbyte % blockSize == 0;
}

bool HFSPlusFile::read(void* buffer, uint64_t nbyte, uint64_t offset, VZDefragErrorSlot error)
{
    if (!_isInRange(nbyte, offset)) {
        return VZDefragFail(error,
                            "Read of file ID %1$lu at offset %2$llu and size %3$llu was out of "
                            "range.",
                            _fileID, offset, nbyte);
    }
    auto* destination = static_cast<uint8_t*>(buffer);
    return _isWholeBlocks(nbyte, offset)
               ? _readBlocks(destination, nbyte, offset, error)
               : _readThroughBounceBuffer(destination, nbyte, offset, error);
}

std::unique_ptr<VZDefragTransferQueue> HFSPlusFile::makeTransferQueue() const
{
    return std::make_unique<VZDefragTransferQueue>(_volume);
}

bool HFSPlusFile::beginRead(VZDefragTransferQueue& queue, uint8_t* buffer, uint64_t nbyte,
                            uint64_t offset)
{
    const auto beginRun = [&queue](uint8_t* destination, uint64_t size, uint64_t volumeOffset) {
        queue.read(destination, size, volumeOffset);
        return true;
    };
    return _isInRange(nbyte, offset) && _isWholeBlocks(nbyte, offset) &&
           _readRuns(buffer, nbyte, offset, beginRun, nullptr);
}

bool HFSPlusFile::_readBlocks(uint8_t* buffer, uint64_t nbyte, uint64_t offset,
                              VZDefragErrorSlot error)
{
    const auto readRun = [this, error](uint8_t* destination, uint64_t size, uint64_t volumeOffset) {
        return _volume.read(destination, size, volumeOffset, error);
    };
    return _readRuns(buffer, nbyte, offset, readRun, error);
}

bool HFSPlusFile::_readRuns(uint8_t* buffer, uint64_t nbyte, uint64_t offset,
                            const RunReader& readRun, VZDefragErrorSlot error)
{
    const uint64_t blockSize = _volume.hostVolumeHeader().blockSize;
    bool wasFinalPiece = false;
    while (nbyte > 0) {
        if (wasFinalPiece) {
            return VZDefragFailInternal(error, kSource, kReadBeyondFinalPieceLine);
        }
        uint64_t volumeOffset = offset;
        uint64_t contiguous = translateOffset(volumeOffset, error);
        if (contiguous == 0) {
            return false;
        }
        if (contiguous % blockSize != 0) {
            // The run ends with the file, inside a block; the rest of that block is the file's too.
            contiguous += blockSize - contiguous % blockSize;
            wasFinalPiece = true;
        }
        const uint64_t piece = std::min(contiguous, nbyte);
        if (!readRun(buffer, piece, volumeOffset)) {
            return false;
        }
        buffer += piece;
        offset += piece;
        nbyte -= piece;
    }
    return true;
}

bool HFSPlusFile::_readThroughBounceBuffer(uint8_t* buffer, uint64_t nbyte, uint64_t offset,
                                           VZDefragErrorSlot error)
{
    const uint64_t blockSize = _volume.hostVolumeHeader().blockSize;
    const uint64_t head = offset % blockSize;
    // The request is in memory already, so its size is nowhere near the 64 bits.
    const uint64_t length = (head + nbyte + blockSize - 1) / blockSize * blockSize;
    const std::unique_ptr<uint8_t[]> bounce(new (std::nothrow) uint8_t[length]);
    if (bounce == nullptr) {
        return VZDefragFail(error, "Out of memory.");
    }
    if (!_readBlocks(bounce.get(), length, offset - head, error)) {
        return false;
    }
    std::memcpy(buffer, bounce.get() + head, nbyte);
    return true;
}

bool HFSPlusFile::write(const void* buffer, uint64_t nbyte, uint64_t offset,
                        VZDefragErrorSlot error)
{
    if (!_isInRange(nbyte, offset)) {
        return VZDefragFail(error,
                            "Write of file ID %1$lu at offset %2$llu and size %3$llu was out of "
                            "range.",
                            _fileID, offset, nbyte);
    }
    const auto* source = static_cast<const uint8_t*>(buffer);
    while (nbyte > 0) {
        uint64_t volumeOffset = offset;
        const uint64_t contiguous = translateOffset(volumeOffset, error);
        const uint64_t piece = std::min(contiguous, nbyte);
        if (piece == 0 || !_prepareToWrite({volumeOffset, piece}, error) ||
            !_volume.write(source, piece, volumeOffset, error)) {
            // The caller may drop the change that it could not write: no later one is safe.
            _volume.metadataWriteDidFail();
            return false;
        }
        source += piece;
        offset += piece;
        nbyte -= piece;
    }
    return true;
}

/** Marks the volume, and has the old bytes kept of what is written, along with those of all that
 *  will be written soon: a barrier for each piece would be too many. */
bool HFSPlusFile::_prepareToWrite(const HFSPlusByteRange& range, VZDefragErrorSlot error)
{
    HFSPlusChangeMark& mark = _volume.changeMark();
    if (!_volume.isWritable()) {
        return true;  // the write itself says so
    }
    if (!mark.begin(error)) {
        return false;
    }
    if (!mark.isProtected(range)) {
        std::vector<HFSPlusByteRange> ranges = {range};
        appendDirtyRanges(ranges);
        if (!mark.protect(ranges, error)) {
            return false;
        }
    }
    mark.metadataWillBeWritten();
    return true;
}

std::vector<HFSPlusByteRange> HFSPlusFile::_dirtyPieces() const
{
    return {};
}

void HFSPlusFile::appendDirtyRanges(std::vector<HFSPlusByteRange>& ranges)
{
    for (HFSPlusByteRange piece : _dirtyPieces()) {
        while (piece.nbyte > 0) {
            uint64_t volumeOffset = piece.offset;
            const uint64_t nbyte = std::min(translateOffset(volumeOffset, nullptr), piece.nbyte);
            if (nbyte == 0) {
                break;  // which the write itself will meet
            }
            ranges.push_back({volumeOffset, nbyte});
            piece.offset += nbyte;
            piece.nbyte -= nbyte;
        }
    }
}
