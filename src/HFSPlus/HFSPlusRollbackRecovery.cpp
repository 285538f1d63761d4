#include "HFSPlus/HFSPlusRollbackRecovery.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <tuple>

#include "KLKit/KLDebug.h"
#include "VZDefragVolume.h"

namespace {

constexpr std::string_view kDamaged = "Rollback file %1$@ is damaged.";
constexpr std::string_view kOtherVolume = "Rollback file %1$@ belongs to another volume.";
constexpr std::string_view kChanged = "Volume was changed after rollback file %1$@ was written.";
constexpr uint32_t kMarkMask = kHFSVolumeUnmountedMask | kHFSBootVolumeInconsistentMask;
constexpr uint64_t kVolumeHeaderSize = sizeof(HFSPlusVolumeHeader);

bool isClean(const HFSPlusVolumeHeader& header)
{
    return (header.attributes & kHFSVolumeUnmountedMask) != 0;
}

/** What a volume keeps for ever. */
bool isSameVolume(const HFSPlusVolumeHeader& left, const HFSPlusVolumeHeader& right)
{
    return left.signature == right.signature && left.version == right.version &&
           left.createDate == right.createDate && left.blockSize == right.blockSize &&
           left.totalBlocks == right.totalBlocks && left.finderInfo[6] == right.finderInfo[6] &&
           left.finderInfo[7] == right.finderInfo[7];
}

}  // namespace

bool HFSPlusRollbackRecovery::run(VZDefragErrorSlot error)
{
    bool blank = false;
    if (!_readHeader(blank, error)) {
        return false;
    }
    if (blank) {
        return true;
    }
    if (!_checkVolume(error)) {
        return false;
    }
    return _findRecords(error) && (_hasMark() ? _rollBack(error) : _forget(error));
}

/** How many flushes of the run the volume header says to be complete. */
uint32_t HFSPlusRollbackRecovery::_completeFlushes() const
{
    return _volumeHeader.writeCount - _header.firstWriteCount;
}

bool HFSPlusRollbackRecovery::_hasMark() const
{
    return !isClean(_volumeHeader) && _completeFlushes() < kHFSPlusRollbackMostFlushes;
}

/** Nothing is left to undo where the mark of the run is gone: it is the first thing that a run
 *  writes and, with the records forgotten, the last that it takes away. Or a check has done so. */
bool HFSPlusRollbackRecovery::_forget(VZDefragErrorSlot error)
{
    if (!isClean(_volumeHeader) && (isClean(_before) || _hasChangedSince())) {
        // Another run, or somebody else, left it like this.
        return VZDefragFail(error, kChanged, _name);
    }
    if (_isCopy()) {
        return VZDefragFail(error, kOtherVolume, _name);
    }
    _emptyFile();
    return true;
}

/** Whether the volume was never part of the run: a copy from before it, while the one that needs
 *  the records is elsewhere. */
bool HFSPlusRollbackRecovery::_isCopy() const
{
    const bool isUntouched =
        std::memcmp(&_before, &_volumeHeader, _header.volumeHeader.size()) == 0;
    // The header is recorded before the mark is written, all else behind it.
    return isUntouched &&
           (_records.size() > 1 || (!_records.empty() && _records[0].generation > 1));
}

bool HFSPlusRollbackRecovery::_rollBack(VZDefragErrorSlot error)
{
    if (_hasChangedSince()) {
        return VZDefragFail(error, kChanged, _name);
    }
    const uint32_t complete = _completeFlushes();
    const uint32_t generation = _records.empty() ? complete : _records.front().generation;
    if (generation != complete && generation != complete + 1) {
        return VZDefragFail(error, kDamaged, _name);
    }
    const bool undo = generation != complete;
    if (!(undo ? _putBack(error) : _completeAlternate(error)) || !_cutFile(error) ||
        !_writeCleanHeader(error)) {
        return false;
    }
    KLDebugLog(KLDebugLevel::kWarning,
               "An interrupted run was rolled back with %@ (records put back = %lu).\n", _name,
               undo ? _records.size() : size_t{0});
    _emptyFile();
    return true;
}

/** Forgets the records for good, since a volume without the mark does not need any. */
bool HFSPlusRollbackRecovery::_cutFile(VZDefragErrorSlot error)
{
    int errorNumber = _file.setSize(sizeof _header);
    if (errorNumber == 0) {
        errorNumber = _file.synchronizeWhole();
    }
    return errorNumber == 0 ||
           VZDefragFail(error, "Unable to write rollback file %1$@. An error %2$d occurred.", _name,
                        errorNumber);
}

bool HFSPlusRollbackRecovery::_failToRead(int errorNumber, VZDefragErrorSlot error) const
{
    return VZDefragFail(error, "Unable to read rollback file %1$@. An error %2$d occurred.", _name,
                        errorNumber);
}

bool HFSPlusRollbackRecovery::_readHeader(bool& blank, VZDefragErrorSlot error)
{
    const int64_t size = _file.size();
    if (size < 0) {
        return _failToRead(static_cast<int>(-size), error);
    }
    const uint64_t present = std::min<uint64_t>(static_cast<uint64_t>(size), sizeof _header);
    if (const int errorNumber = _file.readWhole(&_header, present, 0); errorNumber != 0) {
        return _failToRead(errorNumber, error);
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(&_header);
    blank = std::all_of(bytes, bytes + present, [](uint8_t byte) { return byte == 0; }) &&
            static_cast<uint64_t>(size) <= sizeof _header;
    if (blank) {
        // A header that did not reach the disk, though its place did.
        if (size != 0) {
            _emptyFile();
        }
        return true;
    }
    std::memcpy(&_before, _header.volumeHeader.data(), _header.volumeHeader.size());
    return (present == sizeof _header && _header.magic == kHFSPlusRollbackMagic &&
            _header.version == kHFSPlusRollbackVersion &&
            _header.checksum == HFSPlusRollbackChecksum(_header)) ||
           VZDefragFail(error, kDamaged, _name);
}

bool HFSPlusRollbackRecovery::_checkVolume(VZDefragErrorSlot error)
{
    const uint64_t start = _header.volumeStartOffset;
    const uint64_t size = _header.volumeSizeBytes;
    const uint64_t deviceSize = _device.deviceSizeBytes();
    if (deviceSize != _header.deviceSizeBytes || start > deviceSize || size > deviceSize - start ||
        size < kHFSPlusReservedAreaSize + kHFSPlusVolumeHeaderOffset) {
        return VZDefragFail(error, kOtherVolume, _name);
    }
    return _readVolumeHeader(error) &&
           (isSameVolume(_before, _volumeHeader) || VZDefragFail(error, kOtherVolume, _name));
}

/** Whether somebody else wrote the volume header: old bytes would undo their changes in part. */
bool HFSPlusRollbackRecovery::_hasChangedSince() const
{
    HFSPlusVolumeHeader before = _before;
    HFSPlusVolumeHeader now = _volumeHeader;
    for (HFSPlusVolumeHeader* header : {&before, &now}) {
        header->attributes = header->attributes & ~kMarkMask;
        header->freeBlocks = 0;
        header->writeCount = 0;
    }
    return std::memcmp(&before, &now, _header.volumeHeader.size()) != 0;
}

bool HFSPlusRollbackRecovery::_isInVolume(uint64_t offset, uint64_t nbyte) const
{
    const uint64_t start = _header.volumeStartOffset;
    const uint64_t size = _header.volumeSizeBytes;
    return offset >= start && offset - start <= size && nbyte <= size - (offset - start);
}

bool HFSPlusRollbackRecovery::_findRecords(VZDefragErrorSlot error)
{
    const int64_t size = _file.size();
    if (size < 0) {
        return _failToRead(static_cast<int>(-size), error);
    }
    uint64_t place = sizeof _header;
    bool whole = true;
    while (whole) {
        if (!_takeRecord(place, static_cast<uint64_t>(size), whole, error)) {
            return false;
        }
    }
    return true;
}

/** Takes the record at @p place, which moves behind it; @p whole says whether there was one. */
bool HFSPlusRollbackRecovery::_takeRecord(uint64_t& place, uint64_t size, bool& whole,
                                          VZDefragErrorSlot error)
{
    whole = false;
    HFSPlusRollbackRecord record = {};
    if (place > size || size - place < sizeof record) {
        return true;
    }
    if (const int errorNumber = _file.readWhole(&record, sizeof record, place); errorNumber != 0) {
        return _failToRead(errorNumber, error);
    }
    const uint64_t bytesPlace = place + sizeof record;
    const uint32_t nbyte = record.nbyte;
    if (record.magic != kHFSPlusRollbackRecordMagic || nbyte == 0 ||
        nbyte > kHFSPlusRollbackMostBytes || nbyte > size - bytesPlace ||
        (!_records.empty() && record.generation != _records.front().generation)) {
        return true;
    }
    _bytes.resize(nbyte);
    if (const int errorNumber = _file.readWhole(_bytes.data(), nbyte, bytesPlace);
        errorNumber != 0) {
        return _failToRead(errorNumber, error);
    }
    if (record.checksum != HFSPlusRollbackChecksum(record, _bytes)) {
        return true;
    }
    if (!_isInVolume(record.offset, nbyte)) {
        return VZDefragFail(error, kDamaged, _name);
    }
    _records.push_back({bytesPlace, record.offset, nbyte, record.generation});
    place = bytesPlace + nbyte;
    whole = true;
    return true;
}

bool HFSPlusRollbackRecovery::_putBack(VZDefragErrorSlot error)
{
    // The newest first: of bytes that were overwritten twice, those before the change come last.
    for (auto found = _records.rbegin(); found != _records.rend(); ++found) {
        const Record& record = *found;
        _bytes.resize(record.nbyte);
        if (const int errorNumber = _file.readWhole(_bytes.data(), record.nbyte, record.place);
            errorNumber != 0) {
            return _failToRead(errorNumber, error);
        }
        if (_isVolumeHeader(record)) {
            _keepMark(record);
        }
        if (!_device.write(_bytes.data(), _bytes.size(), record.offset, error)) {
            return false;
        }
    }
    return _device.synchronize(error) && _readVolumeHeader(error);
}

bool HFSPlusRollbackRecovery::_isVolumeHeader(const Record& record) const
{
    return record.offset == _header.volumeStartOffset + kHFSPlusVolumeHeaderOffset &&
           record.nbyte == kVolumeHeaderSize;
}

/** Leaves the mark in the volume header that is put back: it goes when all the rest is durable. */
void HFSPlusRollbackRecovery::_keepMark(const Record& record)
{
    HFSPlusVolumeHeader header;
    std::memcpy(&header, _bytes.data(), sizeof header);
    header.attributes = (header.attributes & ~kMarkMask) | kHFSBootVolumeInconsistentMask;
    header.writeCount = _header.firstWriteCount + record.generation - 1;
    std::memcpy(_bytes.data(), &header, sizeof header);
}

/** The change was complete, but for the copy of the header that the volume's last write makes. */
bool HFSPlusRollbackRecovery::_completeAlternate(VZDefragErrorSlot error)
{
    const uint64_t alternate =
        _header.volumeStartOffset + _header.volumeSizeBytes - kHFSPlusVolumeHeaderOffset;
    if (std::ranges::none_of(_records, [&](const Record& record) {
            return record.offset == alternate && record.nbyte == kVolumeHeaderSize;
        })) {
        return true;
    }
    const HFSPlusVolumeHeader header = _cleanHeader();
    return _device.write(&header, sizeof header, alternate, error) && _device.synchronize(error);
}

HFSPlusVolumeHeader HFSPlusRollbackRecovery::_cleanHeader() const
{
    HFSPlusVolumeHeader header = _volumeHeader;
    header.attributes = (header.attributes & ~kMarkMask) | (_before.attributes & kMarkMask);
    header.writeCount =
        _completeFlushes() == 0 ? _before.writeCount.value() : _header.finalWriteCount.value();
    return header;
}

bool HFSPlusRollbackRecovery::_writeCleanHeader(VZDefragErrorSlot error)
{
    const HFSPlusVolumeHeader header = _cleanHeader();
    return _device.write(&header, sizeof header,
                         _header.volumeStartOffset + kHFSPlusVolumeHeaderOffset, error) &&
           _device.synchronize(error);
}

bool HFSPlusRollbackRecovery::_readVolumeHeader(VZDefragErrorSlot error)
{
    return _device.read(&_volumeHeader, sizeof _volumeHeader,
                        _header.volumeStartOffset + kHFSPlusVolumeHeaderOffset, error);
}

void HFSPlusRollbackRecovery::_emptyFile()
{
    // What stays when this fails is recognised as of no use the next time, too.
    if (_file.setSize(0) != 0 || _file.synchronizeWhole() != 0) {
        KLDebugLog(KLDebugLevel::kWarning, "Unable to empty rollback file %@.\n", _name);
    }
}
