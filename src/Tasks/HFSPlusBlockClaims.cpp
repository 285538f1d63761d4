#include "Tasks/HFSPlusBlockClaims.h"

#include <algorithm>
#include <array>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusAttributesScanner.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusForkExtents.h"
#include "HFSPlus/HFSPlusFormatConversion.h"
#include "HFSPlus/HFSPlusJournal.h"
#include "HFSPlus/HFSPlusVolume.h"

namespace {

uint64_t endOf(const HFSPlusHostExtentDescriptor& extent)
{
    return uint64_t{extent.startBlock} + extent.blockCount;
}

}  // namespace

bool HFSPlusBlockClaims::areExclusive(const HFSPlusForkExtents& fork)
{
    if (!_isFoundByID() || !fork.copyExtentDescriptors(_extents, 0, nullptr)) {
        return false;
    }
    std::ranges::sort(_extents, {}, &HFSPlusHostExtentDescriptor::startBlock);
    _recordCount = 0;
    _isShared = false;
    return _haveNoOverlaps() && _areMarkedUsed() && _avoidReservedAreas() && _avoidJournal() &&
           _avoidSpecialFiles() && _avoidBadBlocks() && _avoidAttributes() &&
           _volume.scanCatalogFiles(*this, nullptr) && _recordCount == 1 && !_isShared;
}

/** Whether the file's ID leads to the very record that the file was found by. */
bool HFSPlusBlockClaims::_isFoundByID() const
{
    HFSPlusCatalogLookupRecord byID;
    return _volume.catalog().copyRecordForCNID(byID, _file.cnid(), nullptr) && byID.isFile() &&
           byID.cnid() == _file.cnid() && byID.parentID == _file.parentID &&
           byID.nameLength == _file.nameLength &&
           std::equal(byID.name.begin(), byID.name.begin() + byID.nameLength, _file.name.begin());
}

bool HFSPlusBlockClaims::_haveNoOverlaps() const
{
    return std::ranges::adjacent_find(_extents, [](const auto& left, const auto& right) {
               return endOf(left) > right.startBlock;
           }) == _extents.end();
}

bool HFSPlusBlockClaims::_areMarkedUsed() const
{
    return std::ranges::all_of(_extents, [&](const HFSPlusHostExtentDescriptor& extent) {
        uint32_t run = 0;
        return _volume.allocation().isSet(extent.startBlock, extent.blockCount, run, nullptr) &&
               run == extent.blockCount;
    });
}

bool HFSPlusBlockClaims::_avoidReservedAreas() const
{
    const HFSPlusHostVolumeHeader& header = _volume.hostVolumeHeader();
    const auto bootBlocks =
        static_cast<uint32_t>((kHFSPlusReservedAreaSize + header.blockSize - 1) / header.blockSize);
    const uint32_t alternateBlocks = header.blockSize <= 512 ? 2 : 1;
    return !_overlap({0, bootBlocks}) &&
           !_overlap({header.totalBlocks - alternateBlocks, alternateBlocks});
}

bool HFSPlusBlockClaims::_avoidJournal() const
{
    if (!_volume.isJournaled()) {
        return true;
    }
    HFSPlusHostExtentDescriptor journal;
    return !_overlap({_volume.hostVolumeHeader().journalInfoBlock, 1}) &&
           HFSPlusJournal::copyExtent(journal, _volume, nullptr) && !_overlap(journal);
}

bool HFSPlusBlockClaims::_avoidAttributes() const
{
    bool isShared = false;
    const auto visit = [&](const HFSPlusHostExtentDescriptor& extent, uint32_t /*fileID*/,
                           VZDefragErrorSlot /*error*/) {
        isShared = isShared || _overlap(extent);
        return true;
    };
    return HFSPlusAttributesScanner(_volume).scanForkExtents(visit, nullptr) && !isShared;
}

bool HFSPlusBlockClaims::_avoidSpecialFiles() const
{
    constexpr std::array kSpecialFileIDs = {kHFSExtentsFileID, kHFSCatalogFileID,
                                            kHFSAllocationFileID, kHFSStartupFileID,
                                            kHFSAttributesFileID};
    return std::ranges::all_of(kSpecialFileIDs, [&](uint32_t fileID) {
        const auto fork =
            HFSPlusForkExtents::initWithVolume(_volume, fileID, kHFSDataForkType, nullptr);
        std::vector<HFSPlusHostExtentDescriptor> extents;
        return fork != nullptr && fork->copyExtentDescriptors(extents, 0, nullptr) &&
               std::ranges::none_of(extents, [&](const auto& extent) { return _overlap(extent); });
    });
}

bool HFSPlusBlockClaims::_avoidBadBlocks() const
{
    bool isShared = false;
    const auto visit = [&](const HFSPlusHostExtentDescriptor& extent) {
        isShared = isShared || _overlap(extent);
    };
    return _volume.extents().visitBadBlocks(visit, nullptr) && !isShared;
}

/** Whether one of the file's blocks lies in @p extent. */
bool HFSPlusBlockClaims::_overlap(const HFSPlusHostExtentDescriptor& extent) const
{
    // The extents do not overlap, so only the last that begins before the other's end can reach it.
    const auto next = std::ranges::lower_bound(
        _extents, endOf(extent), {},
        [](const HFSPlusHostExtentDescriptor& own) { return uint64_t{own.startBlock}; });
    return next != _extents.begin() && endOf(*std::prev(next)) > extent.startBlock;
}

bool HFSPlusBlockClaims::scanCatalogFile(const HFSPlusCatalogFile& file,
                                         std::span<const uint8_t> /*key*/, VZDefragErrorSlot error)
{
    const uint32_t fileID = file.fileID;
    const bool isOwn = fileID == _file.cnid();
    _recordCount += isOwn ? 1 : 0;
    const auto visit = [&](const HFSPlusHostExtentDescriptor& extent) {
        _isShared = _isShared || _overlap(extent);
    };
    HFSPlusExtents& extents = _volume.extents();
    return (isOwn ||
            extents.visitForkExtents(file.dataFork, fileID, kHFSDataForkType, visit, error)) &&
           extents.visitForkExtents(file.resourceFork, fileID, kHFSResourceForkType, visit, error);
}
