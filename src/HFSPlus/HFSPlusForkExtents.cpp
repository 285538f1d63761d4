#include "HFSPlus/HFSPlusForkExtents.h"

#include <algorithm>

#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusFormatConversion.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"
#include "VZDefragStringUtilities.h"

namespace {

constexpr std::string_view kSource = "HFSPlus/HFSPlusForkExtents.cpp";

// Lines that internal errors of this class carry.
constexpr unsigned kSpecialForkTypeLine = 101;
constexpr unsigned kMissingForkDataLine = 102;
constexpr unsigned kSplitLine = 103;

uint64_t endOf(const HFSPlusHostExtentDescriptor& extent)
{
    return uint64_t{extent.startBlock} + extent.blockCount;
}

std::string textOf(const std::vector<HFSPlusHostExtentDescriptor>& extents)
{
    std::string text;
    for (const HFSPlusHostExtentDescriptor& extent : extents) {
        text += KLFormatString("%s%08X:%X", text.empty() ? "" : ", ", extent.startBlock,
                               extent.blockCount);
    }
    return text;
}

}  // namespace

HFSPlusForkExtents::HFSPlusForkExtents(HFSPlusVolume& volume, uint32_t fileID, uint8_t forkType)
    : _volume(volume),
      _fileID(fileID),
      _forkType(forkType),
      _specialFile(volume.isSpecialFile(fileID))
{
}

std::unique_ptr<HFSPlusForkExtents> HFSPlusForkExtents::initWithVolume(HFSPlusVolume& volume,
                                                                       uint32_t fileID,
                                                                       uint8_t forkType,
                                                                       VZDefragErrorSlot error)
{
    std::unique_ptr<HFSPlusForkExtents> fork(new HFSPlusForkExtents(volume, fileID, forkType));
    if (!fork->_checkForkType(error) || !fork->_readForkStuff(error)) {
        return nullptr;
    }
    return fork;
}

bool HFSPlusForkExtents::_checkForkType(VZDefragErrorSlot error)
{
    if (_forkType == kHFSDataForkType) {
        return true;
    }
    if (_specialFile) {
        return VZDefragFailInternal(error, kSource, kSpecialForkTypeLine);
    }
    if (_forkType == kHFSResourceForkType) {
        return true;
    }
    return VZDefragFail(error, "File ID = %1$u (%2$@) has invalid fork type = %3$u.", _fileID,
                        _nameForMessage(error), _forkType);
}

bool HFSPlusForkExtents::_readForkStuff(VZDefragErrorSlot error)
{
    if (!_readFileRecord(error)) {
        return false;
    }
    const uint32_t totalBlocks = _forkData().totalBlocks;
    uint64_t sum = 0;
    if (!_addOriginalRecord(_forkData().extents, sum, error)) {
        return false;
    }
    if (sum == 0 && totalBlocks > 0) {
        // An overflow record for fork block 0 could not be told from the first eight extents.
        return _failWithMissingExtents(error);
    }
    while (sum < totalBlocks) {  // every record adds a block at least
        const auto startBlock = static_cast<uint32_t>(sum);
        HFSPlusHostExtentRecord record;
        if (!_readOverflowRecord(record, startBlock, error) ||
            !_addOriginalRecord(record, sum, error)) {
            return false;
        }
        if (sum == startBlock) {
            return _failWithMissingExtents(error);
        }
    }
    return true;
}

bool HFSPlusForkExtents::_readFileRecord(VZDefragErrorSlot error)
{
    if (_specialFile) {
        const HFSPlusHostForkData* forkData = _volume.hostForkData(_fileID);
        if (forkData == nullptr) {
            return VZDefragFailInternal(error, kSource, kMissingForkDataLine);
        }
        _fileRecord.recordType = kHFSPlusFileRecord;
        _fileRecord.file.dataFork = *forkData;
        return true;
    }
    if (!_volume.catalog().copyRecordForCNID(_fileRecord, _fileID, error)) {
        return false;
    }
    if (!_fileRecord.isFile()) {
        return VZDefragFail(
            error, "File ID = %1$u (%2$@) could not be found. The catalog file may be corrupt.",
            _fileID, _nameForMessage(error));
    }
    return true;
}

/** The overflow record that begins at fork block @p startBlock, and no other. */
bool HFSPlusForkExtents::_readOverflowRecord(HFSPlusHostExtentRecord& record, uint32_t startBlock,
                                             VZDefragErrorSlot error)
{
    if (_fileID == kHFSExtentsFileID) {
        return _failWithMissingExtents(error);  // it has no records in itself
    }
    HFSPlusExtentRecord diskRecord = {};
    uint32_t foundBlock = startBlock;
    if (!_volume.extents().copyExtentRecord(diskRecord, foundBlock, _fileID, _forkType, error)) {
        return false;
    }
    record = hostOrder(diskRecord);
    // The lookup answers with a lower record when the one asked for is not there.
    if (record[0].isEmpty() || foundBlock != startBlock) {
        return _failWithMissingExtents(error);
    }
    return true;
}

bool HFSPlusForkExtents::_addOriginalRecord(const HFSPlusHostExtentRecord& record, uint64_t& sum,
                                            VZDefragErrorSlot error)
{
    _originalRecords.push_back(record);
    for (const HFSPlusHostExtentDescriptor& extent : record) {
        if (extent.isEmpty()) {
            continue;
        }
        if (sum >= _forkData().totalBlocks) {
            break;
        }
        sum += extent.blockCount;
        ++_originalDescriptorCount;
        if (endOf(extent) > _volume.hostVolumeHeader().totalBlocks || sum > UINT32_MAX) {
            return _failWithMissingExtents(error);
        }
    }
    return true;
}

HFSPlusHostForkData& HFSPlusForkExtents::_forkData()
{
    return _forkType == kHFSDataForkType ? _fileRecord.file.dataFork
                                         : _fileRecord.file.resourceFork;
}

const HFSPlusHostForkData& HFSPlusForkExtents::_forkData() const
{
    return _forkType == kHFSDataForkType ? _fileRecord.file.dataFork
                                         : _fileRecord.file.resourceFork;
}

std::vector<HFSPlusHostExtentDescriptor> HFSPlusForkExtents::_originalDescriptors() const
{
    std::vector<HFSPlusHostExtentDescriptor> extents;
    extents.reserve(_originalDescriptorCount);
    for (const HFSPlusHostExtentRecord& record : _originalRecords) {
        for (const HFSPlusHostExtentDescriptor& extent : record) {
            if (!extent.isEmpty() && extents.size() < _originalDescriptorCount) {
                extents.push_back(extent);
            }
        }
    }
    return extents;
}

std::vector<HFSPlusHostExtentDescriptor> HFSPlusForkExtents::_currentDescriptors() const
{
    if (!_modifiedDescriptors.has_value()) {
        return _originalDescriptors();
    }
    std::vector<HFSPlusHostExtentDescriptor> extents;
    extents.reserve(_modifiedDescriptors->size());
    uint32_t piece = _modifiedDescriptors->empty() ? kNoPiece : 0;
    for (; piece != kNoPiece; piece = (*_modifiedDescriptors)[piece].next) {
        extents.push_back((*_modifiedDescriptors)[piece].extent);
    }
    return extents;
}

bool HFSPlusForkExtents::copyExtentDescriptors(std::vector<HFSPlusHostExtentDescriptor>& extents,
                                               uint32_t startBlock, VZDefragErrorSlot error) const
{
    std::ignore = error;
    extents = _originalDescriptors();
    std::erase_if(extents,
                  [startBlock](const auto& extent) { return endOf(extent) <= startBlock; });
    for (HFSPlusHostExtentDescriptor& extent : extents) {
        if (extent.startBlock < startBlock) {
            extent.blockCount -= startBlock - extent.startBlock;
            extent.startBlock = startBlock;
        }
    }
    return true;
}

void HFSPlusForkExtents::deleteAllExtents()
{
    _modifiedDescriptors.emplace();
    _lastPiece = 0;
}

void HFSPlusForkExtents::_makeModifiedDescriptors()
{
    const std::vector<HFSPlusHostExtentDescriptor> extents = _originalDescriptors();
    // Whole before it is the fork's: without memory for all of it, an update would drop the rest.
    std::vector<Piece> pieces;
    pieces.reserve(extents.size());
    for (const HFSPlusHostExtentDescriptor& extent : extents) {
        const auto next = static_cast<uint32_t>(pieces.size() + 1);
        pieces.push_back({extent, next < extents.size() ? next : kNoPiece});
    }
    _modifiedDescriptors = std::move(pieces);
    _lastPiece = 0;
}

bool HFSPlusForkExtents::moveTo(uint32_t from, uint32_t to, uint32_t count, VZDefragErrorSlot error)
{
    if (count == 0) {
        return true;
    }
    if (!_modifiedDescriptors.has_value()) {
        _makeModifiedDescriptors();
    }
    uint32_t piece = _pieceWithBlock(from);
    if (piece == kNoPiece || endOf((*_modifiedDescriptors)[piece].extent) - from < count) {
        return VZDefragFail(error,
                            "Invalid extent range with start block = %1$u and block count = %2$u "
                            "encountered when processing file ID = %3$u (%4$@).",
                            from, count, _fileID, _nameForMessage(error));
    }
    const uint32_t head = from - (*_modifiedDescriptors)[piece].extent.startBlock;
    if (head > 0) {
        piece = _splitPiece(piece, head);
    }
    if ((*_modifiedDescriptors)[piece].extent.blockCount > count) {
        std::ignore = _splitPiece(piece, count);  // the tail stays where it is
    }
    HFSPlusHostExtentDescriptor& moved = (*_modifiedDescriptors)[piece].extent;
    if (moved.startBlock != from || moved.blockCount != count) {
        return VZDefragFailInternal(error, kSource, kSplitLine);
    }
    moved.startBlock = to;
    _lastPiece = piece;
    return true;
}

/** The piece that holds volume block @p block, or kNoPiece.
 *
 *  The extents of a fork are disjoint, so it does not matter where the search begins.
 */
uint32_t HFSPlusForkExtents::_pieceWithBlock(uint32_t block) const
{
    const std::vector<Piece>& pieces = *_modifiedDescriptors;
    uint32_t piece = _lastPiece;
    for (size_t visited = 0; visited < pieces.size(); ++visited) {
        const HFSPlusHostExtentDescriptor& extent = pieces[piece].extent;
        if (extent.startBlock <= block && block < endOf(extent)) {
            return piece;
        }
        piece = pieces[piece].next != kNoPiece ? pieces[piece].next : 0;
    }
    return kNoPiece;
}

/** Cuts @p piece behind its first @p count blocks and returns the rest. */
uint32_t HFSPlusForkExtents::_splitPiece(uint32_t piece, uint32_t count)
{
    std::vector<Piece>& pieces = *_modifiedDescriptors;
    const auto rest = static_cast<uint32_t>(pieces.size());
    Piece tail = pieces[piece];
    tail.extent.startBlock += count;
    tail.extent.blockCount -= count;
    pieces.push_back(tail);
    pieces[piece].extent.blockCount = count;
    pieces[piece].next = rest;
    return rest;
}

std::vector<HFSPlusHostExtentDescriptor> HFSPlusForkExtents::mergedExtents() const
{
    std::vector<HFSPlusHostExtentDescriptor> merged;
    for (const HFSPlusHostExtentDescriptor& extent : _currentDescriptors()) {
        if (!merged.empty() && endOf(merged.back()) == extent.startBlock) {
            merged.back().blockCount += extent.blockCount;
        } else {
            merged.push_back(extent);
        }
    }
    return merged;
}

uint32_t HFSPlusForkExtents::mergedExtentCount() const
{
    return static_cast<uint32_t>(mergedExtents().size());
}

void HFSPlusForkExtents::dump() const
{
    const bool isModified = _modifiedDescriptors.has_value();
    KLDebugLog(KLDebugLevel::kDebug, "  %@ -> %@\n", textOf(_originalDescriptors()),
               isModified ? textOf(_currentDescriptors()) : std::string());
}

bool HFSPlusForkExtents::_failWithMissingExtents(VZDefragErrorSlot error)
{
    return VZDefragFail(error,
                        "Extents for file ID = %1$u (%2$@) could not be found. The extents "
                        "overflow file may be corrupt.",
                        _fileID, _nameForMessage(error));
}

/** The file's name when somebody will read it: finding it may take a scan of the catalog. */
std::string HFSPlusForkExtents::_nameForMessage(VZDefragErrorSlot error)
{
    return VZDefragWantsError(error) ? _nameForFileID() : std::string();
}

std::string HFSPlusForkExtents::_nameForFileID()
{
    if (_fileID == 0) {
        return {};
    }
    // No slot is passed down: these lookups serve a message that already says what went wrong.
    HFSPlusCatalogLookupRecord record;
    if (_volume.catalog().copyRecordForCNID(record, _fileID, nullptr) &&
        (record.isFile() || record.isFolder())) {
        std::span<uint16_t> units(record.name.data(), record.nameLength);
        std::ranges::replace(units, uint16_t{'/'}, uint16_t{':'});
        return stringWithUnicodeUnits(units);
    }
    _fileName.clear();
    std::ignore = _volume.scanCatalogFiles(*this, nullptr);
    return _fileName;
}

bool HFSPlusForkExtents::scanCatalogFile(const HFSPlusCatalogFile& file,
                                         std::span<const uint8_t> key, VZDefragErrorSlot error)
{
    if (file.fileID != _fileID) {
        return true;
    }
    _fileName = stringWithHFSUniStr255(key.subspan(offsetof(HFSPlusCatalogKeyHead, nameLength)));
    return VZDefragFailCancelled(error);
}
