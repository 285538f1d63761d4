#include "HFSPlus/HFSPlusHotFiles.h"

#include <algorithm>

#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusFileForkSet.h"
#include "HFSPlus/HFSPlusVolume.h"

namespace {

constexpr std::string_view kPath = "/.hotfiles.btree";
constexpr std::string_view kInconsistent = "The hotfiles.btree file is inconsistent.";
constexpr uint16_t kKeyLength = sizeof(HFSPlusHotFileKey) - sizeof(uint16_t);

/** Whether the fork lies below block @p limit, in one extent at most. */
bool liesBefore(const HFSPlusHostForkData& fork, uint32_t limit)
{
    const auto isUsed = [](const HFSPlusHostExtentDescriptor& extent) { return !extent.isEmpty(); };
    return std::ranges::count_if(fork.extents, isUsed) <= 1 &&
           std::ranges::all_of(fork.extents, [&](const HFSPlusHostExtentDescriptor& extent) {
               return extent.isEmpty() || uint64_t{extent.startBlock} + extent.blockCount <= limit;
           });
}

}  // namespace

std::unique_ptr<HFSPlusHotFiles> HFSPlusHotFiles::initWithVolume(HFSPlusVolume& volume,
                                                                 VZDefragErrorSlot error)
{
    HFSPlusCatalogLookupRecord record;
    if (!volume.catalog().copyRecordForWholePath(record, kPath, error)) {
        return nullptr;
    }
    // An ID of the format's own would lead to a special file, whatever the record says.
    if (!record.isFile() || record.cnid() < kHFSFirstUserCatalogNodeID) {
        return nullptr;
    }
    std::unique_ptr<HFSPlusHotFiles> hotFiles(
        new HFSPlusHotFiles(volume, record.file.dataFork, record.cnid()));
    return hotFiles->_open(error) ? std::move(hotFiles) : nullptr;
}

HFSPlusHotFiles::HFSPlusHotFiles(HFSPlusVolume& volume, const HFSPlusHostForkData& forkData,
                                 uint32_t fileID)
    : HFSPlusCachedForkData(volume, forkData, fileID), HFSPlusBTreeFile(volume, fileID)
{
}

bool HFSPlusHotFiles::mergeFileIDs(HFSPlusFileForkSet& forkSet, VZDefragErrorSlot error)
{
    uint32_t index = firstLeafNode();
    // The chain of leaves may be a circle; no sound one has more nodes than the tree.
    for (uint32_t step = 0; index != 0; ++step) {
        if (step == nodeCount()) {
            return VZDefragFail(error, kInconsistent);
        }
        const HFSPlusCachedNode node = soundNodeWithIndex(index, kInconsistent, error);
        if (!node) {
            return false;
        }
        if (node->kind() != kBTLeafNode) {
            return VZDefragFail(error, kInconsistent);
        }
        if (!_mergeNode(*node, forkSet, error)) {
            return false;
        }
        index = node->fLink();
    }
    return true;
}

bool HFSPlusHotFiles::_mergeNode(const HFSPlusBTreeNode& node, HFSPlusFileForkSet& forkSet,
                                 VZDefragErrorSlot error)
{
    for (uint32_t index = 0; index < node.recordCount(); ++index) {
        const auto* const key = node.recordAs<HFSPlusHotFileKey>(index);
        if (key == nullptr || key->keyLength != kKeyLength) {
            return VZDefragFail(error, kInconsistent);
        }
        if (key->temperature != kHFSPlusHotFileLookupTemperature) {
            _mergeFork(key->fileID, key->forkType, forkSet);
        }
    }
    return true;
}

void HFSPlusHotFiles::_mergeFork(uint32_t fileID, uint8_t forkType, HFSPlusFileForkSet& forkSet)
{
    if (forkType != kHFSDataForkType && forkType != kHFSResourceForkType) {
        return;
    }
    HFSPlusCatalogLookupRecord record;
    // The tree is not kept in step with the catalog: files that are gone are no hot files.
    if (!_volume.catalog().copyRecordForCNID(record, fileID, nullptr) || !record.isFile()) {
        return;
    }
    const bool isData = forkType == kHFSDataForkType;
    if (liesBefore(isData ? record.file.dataFork : record.file.resourceFork,
                   _volume.firstDataBlock())) {
        forkSet.add(fileID, forkType);
    }
}
