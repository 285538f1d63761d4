#include "Tasks/HFSPlusBootCacheProfile.h"

#include <new>

#include "HFSPlus/HFSPlusBootCachePlaylist.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusFileForkSet.h"
#include "HFSPlus/HFSPlusForkExtents.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "Tasks/HFSPlusBlockClaims.h"

namespace {

/** Looks the playlist up; record type 0 unless it is a file of its own at that very path. */
bool copyPlaylistRecord(HFSPlusVolume& volume, HFSPlusCatalogLookupRecord& record,
                        VZDefragErrorSlot error)
{
    if (!volume.catalog().copyRecordForWholePath(record, HFSPlusBootCachePlaylist::kPath, error)) {
        return false;
    }
    // An ID of the format's own would lead to a special file, whatever the record says.
    if (!record.isFile() || record.cnid() < kHFSFirstUserCatalogNodeID) {
        record.recordType = 0;
    }
    return true;
}

bool isPossibleSize(uint64_t size)
{
    return size >= HFSPlusBootCachePlaylist::kMinimumSize &&
           size <= HFSPlusBootCachePlaylist::kMaximumSize;
}

}  // namespace

std::unique_ptr<HFSPlusBootCacheProfile> HFSPlusBootCacheProfile::initWithVolume(
    HFSPlusVolume& volume, HFSPlusFileForkSet& fileForks, VZDefragErrorSlot error)
{
    HFSPlusCatalogLookupRecord record;
    if (!copyPlaylistRecord(volume, record, error) || !record.isFile() ||
        !isPossibleSize(record.file.dataFork.logicalSize)) {
        return nullptr;
    }
    std::unique_ptr<HFSPlusBootCacheProfile> profile(
        new HFSPlusBootCacheProfile(volume, record.file.dataFork, record.cnid()));
    if (!profile->_readPlaylist(error) || !volume.scanCatalogFiles(*profile, error)) {
        return nullptr;
    }
    profile->_playlist->addForks(fileForks);
    profile->_playlist.reset();
    return profile;
}

HFSPlusBootCacheProfile::HFSPlusBootCacheProfile(HFSPlusVolume& volume,
                                                 const HFSPlusHostForkData& forkData,
                                                 uint32_t fileID)
    : HFSPlusCachedForkData(volume, forkData, fileID), HFSPlusFile(volume, fileID)
{
}

HFSPlusBootCacheProfile::~HFSPlusBootCacheProfile() = default;

bool HFSPlusBootCacheProfile::_readPlaylist(VZDefragErrorSlot error)
{
    const uint64_t size = logicalSize();
    const std::unique_ptr<uint8_t[]> file(new (std::nothrow) uint8_t[size]);
    if (file == nullptr) {
        return VZDefragFail(error, "Out of memory.");
    }
    if (!read(file.get(), size, 0, error)) {
        return false;
    }
    _playlist = HFSPlusBootCachePlaylist::initWithVolume(_volume, {file.get(), size}, error);
    return _playlist != nullptr;
}

bool HFSPlusBootCacheProfile::scanCatalogFile(const HFSPlusCatalogFile& file,
                                              std::span<const uint8_t> /*key*/,
                                              VZDefragErrorSlot error)
{
    const uint32_t fileID = file.fileID;
    if (fileID < kHFSFirstUserCatalogNodeID) {
        return true;  // bad blocks, which stay where they are
    }
    const auto addForks = [&](const HFSPlusForkData& fork, uint8_t forkType) {
        const auto visit = [&](const HFSPlusHostExtentDescriptor& extent) {
            _playlist->setForkAtBlock(extent.startBlock, fileID, forkType);
        };
        return _volume.extents().visitForkExtents(fork, fileID, forkType, visit, error);
    };
    return addForks(file.dataFork, kHFSDataForkType) &&
           addForks(file.resourceFork, kHFSResourceForkType);
}

void HFSPlusBootCacheProfile::reset(HFSPlusVolume& volume)
{
    // Whatever goes wrong, the playlist stays what it was, and the next start makes a new one.
    HFSPlusCatalogLookupRecord record;
    if (!volume.isWritable() || !copyPlaylistRecord(volume, record, nullptr) || !record.isFile() ||
        record.file.dataFork.logicalSize == 0) {
        return;
    }
    const auto fork =
        HFSPlusForkExtents::initWithVolume(volume, record.cnid(), kHFSDataForkType, nullptr);
    if (fork == nullptr || !HFSPlusBlockClaims(volume, record).areExclusive(*fork)) {
        return;
    }
    fork->deleteAllExtents();
    std::ignore = fork->update(nullptr);
}
