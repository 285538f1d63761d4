#include "HFSPlus/HFSPlusVolume.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <string_view>
#include <tuple>
#include <utility>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusAttributes.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusCatalogScanner.h"
#include "HFSPlus/HFSPlusChangeMark.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusFileForkSet.h"
#include "HFSPlus/HFSPlusFormatConversion.h"
#include "HFSPlus/HFSPlusHotFiles.h"
#include "KLKit/KLDebug.h"
#include "KLKit/KLMemory.h"

namespace {

constexpr std::string_view kSource = "HFSPlus/HFSPlusVolume.cpp";
constexpr unsigned kUpdateForkExtentsLine = 327;
constexpr std::string_view kOffsetOutOfRange = "Offset %1$llu is out of range for file ID %2$lu.";

}  // namespace

/** Fork data of an ordinary file, and how many users rely on it. */
struct HFSPlusVolume::CachedForkData {
    HFSPlusHostForkData forkData = {};
    uint32_t useCount = 0;
};

HFSPlusVolume::HFSPlusVolume(const VZDefragVolume& volume,
                             std::unique_ptr<PlatformBlockDevice> device)
    : VZDefragVolume(volume, std::move(device)),
      _changeMark(std::make_unique<HFSPlusChangeMark>(*this)),
      _volumeSizeBytes(deviceSizeBytes())
{
}

HFSPlusVolume::~HFSPlusVolume()
{
    if (_changeMark->isSet()) {
        std::unique_ptr<VZDefragError> failure;
        std::ignore = KLWithinMemory([&] {
            if (!finishChanges(&failure)) {
                KLDebugLog(KLDebugLevel::kWarning, "%@\n", failure->description());
            }
        });
    } else {
        _changeMark->setFailed();  // what nobody asked to be written is dropped
    }
    // Special files write what is still dirty in their caches when they go, and find their extents
    // through the overflow file, which therefore goes last.
    _catalog.reset();
    _attributes.reset();
    _allocation.reset();
    _extents.reset();
}

bool HFSPlusVolume::hasSparedBlocks() const
{
    return (_hostVolumeHeader.attributes & kHFSVolumeSparedBlocksMask) != 0;
}

bool HFSPlusVolume::isJournaled() const
{
    return (_hostVolumeHeader.attributes & kHFSVolumeJournaledMask) != 0;
}

bool HFSPlusVolume::isSpecialFile(uint32_t fileID) const
{
    // Bad blocks are no special file: they have overflow records only, and never move.
    return fileID == kHFSExtentsFileID || fileID == kHFSCatalogFileID ||
           fileID == kHFSAllocationFileID || fileID == kHFSStartupFileID ||
           fileID == kHFSAttributesFileID;
}

HFSPlusHostForkData* HFSPlusVolume::hostForkData(uint32_t fileID)
{
    switch (fileID) {
        case kHFSExtentsFileID:
            return &_hostVolumeHeader.extentsFile;
        case kHFSCatalogFileID:
            return &_hostVolumeHeader.catalogFile;
        case kHFSAllocationFileID:
            return &_hostVolumeHeader.allocationFile;
        case kHFSStartupFileID:
            return &_hostVolumeHeader.startupFile;
        case kHFSAttributesFileID:
            return &_hostVolumeHeader.attributesFile;
        default:
            break;
    }
    const auto found = _hostForkDataCache.find(fileID);
    return found != _hostForkDataCache.end() ? &found->second->forkData : nullptr;
}

void HFSPlusVolume::cacheHostForkData(const HFSPlusHostForkData& forkData, uint32_t fileID)
{
    // An entry is overwritten in place: files that read through it keep their reference.
    std::unique_ptr<CachedForkData>& entry = _hostForkDataCache[fileID];
    if (entry == nullptr) {
        entry = std::make_unique<CachedForkData>();
    }
    entry->forkData = forkData;
    ++entry->useCount;
}

void HFSPlusVolume::uncacheHostForkData(uint32_t fileID)
{
    const auto found = _hostForkDataCache.find(fileID);
    if (found == _hostForkDataCache.end()) {
        return;
    }
    CachedForkData& entry = *found->second;
    --entry.useCount;
    if (entry.useCount == 0) {
        _hostForkDataCache.erase(found);
    }
}

bool HFSPlusVolume::updateForkExtents(const HFSPlusHostExtentRecord& extents, uint32_t fileID,
                                      VZDefragErrorSlot error)
{
    if (!isWritable() || !isSpecialFile(fileID)) {
        return VZDefragFailInternal(error, kSource, kUpdateForkExtentsLine);
    }
    hostForkData(fileID)->extents = extents;
    _dirty = true;
    return true;
}

void HFSPlusVolume::updateFreeBlocks(int32_t delta)
{
    if (delta != 0) {
        _hostVolumeHeader.freeBlocks += static_cast<uint32_t>(delta);  // wraps as the field does
        _dirty = true;
    }
}

uint32_t HFSPlusVolume::firstDataBlock() const
{
    if (hasMetadataZone()) {
        return _metadata.startBlock + _metadata.blockCount;
    }
    const uint64_t blockSize = _hostVolumeHeader.blockSize;
    return static_cast<uint32_t>((kHFSPlusReservedAreaSize - 1 + blockSize) / blockSize);
}

std::unique_ptr<HFSPlusFileForkSet> HFSPlusVolume::immutableForkIDs(bool includeHotFiles,
                                                                    VZDefragErrorSlot error)
{
    auto forks = std::make_unique<HFSPlusFileForkSet>(*this);
    for (const std::string_view path : {"/.journal_info_block", "/.journal"}) {
        HFSPlusCatalogLookupRecord record;
        // A volume without a journal has neither file, and one that cannot be looked up is not
        // worth ending the command for: the map fences the journal off by its place as well.
        if (catalog().copyRecordForPath(record, path, nullptr) && record.isFile()) {
            forks->add(record.cnid(), kHFSDataForkType);
        }
    }
    if (includeHotFiles) {
        // Without a hot-files tree, or with one that cannot be opened, nothing is hot.
        const auto hotFiles = HFSPlusHotFiles::initWithVolume(*this, nullptr);
        if (hotFiles != nullptr && !hotFiles->mergeFileIDs(*forks, error)) {
            return nullptr;
        }
    }
    return forks;
}

bool HFSPlusVolume::_isInRange(size_t nbyte, uint64_t offset) const
{
    // A wrapper goes on behind the volume, so the device's own bound would be too wide.
    return offset <= _volumeSizeBytes && nbyte <= _volumeSizeBytes - offset;
}

bool HFSPlusVolume::read(void* buffer, size_t nbyte, uint64_t offset, VZDefragErrorSlot error)
{
    if (!_isInRange(nbyte, offset)) {
        return VZDefragFail(error, "Out of range read failed at offset %llu and size %lu.",
                            offset + _volumeStartOffset, nbyte);
    }
    return VZDefragVolume::read(buffer, nbyte, offset + _volumeStartOffset, error);
}

bool HFSPlusVolume::write(const void* buffer, size_t nbyte, uint64_t offset,
                          VZDefragErrorSlot error)
{
    if (!_isInRange(nbyte, offset)) {
        return VZDefragFail(error, "Out of range write failed at offset %llu and size %lu.",
                            offset + _volumeStartOffset, nbyte);
    }
    if (isWritable()) {
        if (!_changeMark->begin(error)) {
            return false;
        }
        _willBumpWriteCount = true;
    }
    return VZDefragVolume::write(buffer, nbyte, offset + _volumeStartOffset, error);
}

uint64_t HFSPlusVolume::translateOffset(uint64_t& offset, uint32_t fileID, uint8_t forkType,
                                        const HFSPlusHostForkData& forkData,
                                        VZDefragErrorSlot error)
{
    const uint64_t block = offset / _hostVolumeHeader.blockSize;
    uint64_t contiguous = translateOffsetInExtents(offset, forkData.extents, 0, forkData);
    // The overflow file has no overflow extents of its own, so a lookup never leads to another.
    const bool mayOverflow = fileID != kHFSExtentsFileID && _extents != nullptr;
    if (contiguous == 0 && mayOverflow && offset < forkData.logicalSize &&
        block < forkData.totalBlocks) {
        HFSPlusExtentRecord record = {};
        auto firstBlock = static_cast<uint32_t>(block);
        if (_extents->copyExtentRecord(record, firstBlock, fileID, forkType, error)) {
            contiguous = translateOffsetInExtents(offset, hostOrder(record), firstBlock, forkData);
        }
    }
    if (contiguous == 0) {
        std::ignore = VZDefragFail(error, kOffsetOutOfRange, offset, fileID);
    }
    return contiguous;
}

uint64_t HFSPlusVolume::translateOffsetInExtents(
    uint64_t& offset, std::span<const HFSPlusHostExtentDescriptor> extents, uint32_t firstBlock,
    const HFSPlusHostForkData& forkData) const
{
    const uint64_t blockSize = _hostVolumeHeader.blockSize;
    const uint64_t block = offset / blockSize;
    if (offset >= forkData.logicalSize || block >= forkData.totalBlocks) {
        return 0;
    }
    uint64_t before = firstBlock;  // fork blocks before the current extent
    for (const HFSPlusHostExtentDescriptor& extent : extents) {
        if (extent.isEmpty()) {
            continue;
        }
        if (block < before) {
            return 0;
        }
        if (block - before < extent.blockCount) {
            if (!_isInVolume(extent)) {
                return 0;
            }
            const uint64_t base = before * blockSize;
            const uint64_t end =
                std::min(base + extent.blockCount * blockSize, forkData.logicalSize);
            const uint64_t contiguous = end - offset;
            offset = extent.startBlock * blockSize + (offset - base);
            return contiguous;
        }
        before += extent.blockCount;
    }
    return 0;
}

bool HFSPlusVolume::_isInVolume(const HFSPlusHostExtentDescriptor& extent) const
{
    return uint64_t{extent.startBlock} + extent.blockCount <= _hostVolumeHeader.totalBlocks;
}

bool HFSPlusVolume::scanCatalogFiles(HFSPlusCatalogScanDelegate& delegate, VZDefragErrorSlot error)
{
    return HFSPlusCatalogScanner(*this).scanCatalogFiles(delegate, error);
}
