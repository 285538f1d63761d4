#include "HFSPlus/HFSPlusRollbackFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <tuple>
#include <utility>

#include "HFSPlus/HFSPlusRollbackFormat.h"
#include "HFSPlus/HFSPlusRollbackRecovery.h"
#include "KLKit/KLDebug.h"
#include "VZDefragVolume.h"

namespace {

constexpr std::string_view kCannotOpen =
    "Unable to open rollback file %1$@. An error %2$d occurred.";
constexpr std::string_view kCannotWrite =
    "Unable to write rollback file %1$@. An error %2$d occurred.";

constexpr uint32_t kFarFromWriteCount = 0x80000000;

template <typename Structure>
void appendTo(std::vector<uint8_t>& bytes, const Structure& structure)
{
    const auto* first = reinterpret_cast<const uint8_t*>(&structure);
    bytes.insert(bytes.end(), first, first + sizeof structure);
}

}  // namespace

HFSPlusRollbackFile::HFSPlusRollbackFile(std::string name, PlatformWritableFileOpener opener)
    : _name(std::move(name)), _opener(std::move(opener))
{
}

bool HFSPlusRollbackFile::_fail(std::string_view format, int errorNumber,
                                VZDefragErrorSlot error) const
{
    return VZDefragFail(error, format, _name, errorNumber);
}

bool HFSPlusRollbackFile::_open(bool create, VZDefragErrorSlot error)
{
    if (_file != nullptr) {
        return true;
    }
    int errorNumber = 0;
    _file = _opener(create, errorNumber);
    if (_file != nullptr || (errorNumber == ENOENT && !create)) {
        return true;
    }
    return errorNumber == EBUSY ? VZDefragFail(error, "Rollback file %1$@ is in use.", _name)
                                : _fail(kCannotOpen, errorNumber, error);
}

bool HFSPlusRollbackFile::recover(VZDefragVolume& device, VZDefragErrorSlot error)
{
    if (!_open(false, error)) {
        return false;
    }
    const bool recovered =
        _file == nullptr || HFSPlusRollbackRecovery(*_file, _name, device).run(error);
    _file.reset();  // others may use it until a run begins
    return recovered;
}

bool HFSPlusRollbackFile::begin(const VZDefragVolume& device, const Volume& volume,
                                VZDefragErrorSlot error)
{
    if (!_open(true, error)) {
        return false;
    }
    const int64_t size = _file->size();
    if (size != 0) {
        return size < 0 ? _fail(kCannotOpen, static_cast<int>(-size), error)
                        : VZDefragFail(error, "Rollback file %1$@ is in use.", _name);
    }
    HFSPlusRollbackHeader header = {};
    header.magic = kHFSPlusRollbackMagic;
    header.version = kHFSPlusRollbackVersion;
    header.deviceSizeBytes = device.deviceSizeBytes();
    header.volumeStartOffset = volume.startOffset;
    header.volumeSizeBytes = volume.sizeBytes;
    // Tells this run's mark from that of any other run, with this file, another or none.
    _firstWriteCount = volume.header.writeCount + kFarFromWriteCount +
                       (std::random_device{}() % kFarFromWriteCount) / 2;
    header.firstWriteCount = _firstWriteCount;
    header.finalWriteCount = volume.finalWriteCount;
    std::memcpy(header.volumeHeader.data(), &volume.header, header.volumeHeader.size());
    header.checksum = HFSPlusRollbackChecksum(header);
    // Durable before the first record: zeros with anything behind them are somebody else's file.
    int errorNumber = _file->writeWhole(&header, sizeof header, 0);
    if (errorNumber == 0) {
        errorNumber = _file->synchronizeWhole();
    }
    if (errorNumber != 0) {
        std::ignore = _file->setSize(0);
        return _fail(kCannotWrite, errorNumber, error);
    }
    _end = sizeof header;
    _generation = 1;
    _protected.clear();
    return true;
}

bool HFSPlusRollbackFile::protect(VZDefragVolume& device, std::span<const HFSPlusByteRange> ranges,
                                  VZDefragErrorSlot error)
{
    std::vector<uint8_t> records;
    std::vector<HFSPlusByteRange> added;
    for (const HFSPlusByteRange& range : ranges) {
        if (isProtected(range)) {
            continue;
        }
        if (!_appendRecords(device, range, records, error) ||
            (records.size() >= kHFSPlusRollbackMostBytes && !_append(records, error))) {
            return false;
        }
        added.push_back(range);
    }
    if (added.empty()) {
        return true;
    }
    if (!_append(records, error)) {
        return false;
    }
    if (const int errorNumber = _file->synchronizeWhole(); errorNumber != 0) {
        return _fail(kCannotWrite, errorNumber, error);
    }
    _protected.insert(added.begin(), added.end());
    return true;
}

bool HFSPlusRollbackFile::_appendRecords(VZDefragVolume& device, HFSPlusByteRange range,
                                         std::vector<uint8_t>& records,
                                         VZDefragErrorSlot error) const
{
    while (range.nbyte > 0) {
        std::vector<uint8_t> bytes(std::min<uint64_t>(range.nbyte, kHFSPlusRollbackMostBytes));
        if (!device.VZDefragVolume::read(bytes.data(), bytes.size(), range.offset, error)) {
            return false;
        }
        HFSPlusRollbackRecord record = {};
        record.magic = kHFSPlusRollbackRecordMagic;
        record.generation = _generation;
        record.offset = range.offset;
        record.nbyte = static_cast<uint32_t>(bytes.size());
        record.checksum = HFSPlusRollbackChecksum(record, bytes);
        appendTo(records, record);
        records.insert(records.end(), bytes.begin(), bytes.end());
        range.offset += bytes.size();
        range.nbyte -= bytes.size();
    }
    return true;
}

bool HFSPlusRollbackFile::_append(std::vector<uint8_t>& records, VZDefragErrorSlot error)
{
    if (const int errorNumber = _file->writeWhole(records.data(), records.size(), _end);
        errorNumber != 0) {
        return _fail(kCannotWrite, errorNumber, error);
    }
    _end += records.size();
    records.clear();
    return true;
}

void HFSPlusRollbackFile::changeDidComplete()
{
    ++_generation;
    _protected.clear();
    _end = sizeof(HFSPlusRollbackHeader);
    // Whether this reaches the disk does not matter: the volume header tells that the records are
    // of no use any more, and the next ones take their place.
    std::ignore = _file->setSize(_end);
}

bool HFSPlusRollbackFile::prepareToEnd(VZDefragErrorSlot error)
{
    _protected.clear();
    int errorNumber = _file->setSize(sizeof(HFSPlusRollbackHeader));
    if (errorNumber == 0) {
        errorNumber = _file->synchronizeWhole();
    }
    return errorNumber == 0 || _fail(kCannotWrite, errorNumber, error);
}

void HFSPlusRollbackFile::end()
{
    if (_file == nullptr) {
        return;
    }
    _protected.clear();
    int errorNumber = _file->setSize(0);
    if (errorNumber == 0) {
        errorNumber = _file->synchronizeWhole();
    }
    if (errorNumber != 0) {
        // The volume is complete and says so, hence what stays in the file will not be used.
        KLDebugLog(KLDebugLevel::kWarning, "Unable to empty rollback file %@, error %d\n", _name,
                   errorNumber);
    }
}
