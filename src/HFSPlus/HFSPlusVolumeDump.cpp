#include "HFSPlus/HFSPlusVolume.h"

#include <array>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusFormatConversion.h"
#include "KLKit/KLDebug.h"
#include "VZDefragStringUtilities.h"

// Diagnostic aids: nothing in the program calls them, somebody with a strange volume does.

namespace {

constexpr KLDebugLevel kLevel = KLDebugLevel::kDebug;
constexpr std::string_view kRecordMissing = "Overflow extent record missing.";

using Forks = std::array<std::pair<uint8_t, const HFSPlusHostForkData*>, 2>;

Forks forksOf(const HFSPlusHostCatalogFile& file)
{
    return {{{kHFSDataForkType, &file.dataFork}, {kHFSResourceForkType, &file.resourceFork}}};
}

using ExtentVisitor = std::function<void(const HFSPlusHostExtentDescriptor&, bool isOverflow)>;

/** Hands every extent of a fork to @p visitor, and says of each whether the overflow file has it.
 */
bool visitExtents(HFSPlusExtents& overflow, uint32_t fileID, uint8_t forkType,
                  const HFSPlusHostForkData& forkData, const ExtentVisitor& visitor,
                  VZDefragErrorSlot error)
{
    HFSPlusHostExtentRecord extents = forkData.extents;
    bool isOverflow = false;
    // Ends since every record adds blocks to a sum that is bounded.
    for (uint64_t sum = 0;;) {
        const uint64_t before = sum;
        for (const HFSPlusHostExtentDescriptor& extent : extents) {
            if (!extent.isEmpty() && sum < forkData.totalBlocks) {
                visitor(extent, isOverflow);
                sum += extent.blockCount;
            }
        }
        if (sum >= forkData.totalBlocks) {
            return true;
        }
        if (isOverflow && sum == before) {
            return VZDefragFail(error, kRecordMissing);
        }
        HFSPlusExtentRecord record = {};
        auto block = static_cast<uint32_t>(sum);
        if (!overflow.copyExtentRecord(record, block, fileID, forkType, error)) {
            return false;
        }
        if (record[0].isEmpty() || block != sum) {
            return VZDefragFail(error, kRecordMissing);
        }
        extents = hostOrder(record);
        isOverflow = true;
    }
}

bool dumpPathOf(HFSPlusCatalog& catalog, uint32_t cnid, std::string& path, VZDefragErrorSlot error)
{
    if (!catalog.copyPathForCNID(path, cnid, error) || path.empty()) {
        return VZDefragFail(error, "Path lookup failed for CNID %1$lu.", cnid);
    }
    KLDebugLog(kLevel, "%08lX %s\n", cnid, outputSafeString(path));
    return true;
}

}  // namespace

bool HFSPlusVolume::dumpFileExtents(const HFSPlusHostCatalogFile& file, VZDefragErrorSlot error)
{
    for (const auto& [forkType, forkData] : forksOf(file)) {
        bool isFirst = true;
        const bool visited = visitExtents(
            extents(), file.fileID, forkType, *forkData,
            [&isFirst](const HFSPlusHostExtentDescriptor& extent, bool) {
                if (isFirst) {
                    KLDebugLog(kLevel, "%s%u, %u", "", extent.startBlock, extent.blockCount);
                } else {
                    KLDebugLog(kLevel, ", %u, %u", extent.startBlock, extent.blockCount);
                }
                isFirst = false;
            },
            error);
        if (!isFirst) {
            KLDebugLog(kLevel, "\n");
        }
        if (!visited) {
            return false;
        }
    }
    return true;
}

bool HFSPlusVolume::dumpFileExtentsOverflows(const HFSPlusHostCatalogFile& file,
                                             VZDefragErrorSlot error)
{
    if (!dumpFilePath(file, error)) {
        return false;
    }
    const uint64_t blockSize = _hostVolumeHeader.blockSize;
    for (const auto& [forkType, forkData] : forksOf(file)) {
        const bool visited = visitExtents(
            extents(), file.fileID, forkType, *forkData,
            [blockSize](const HFSPlusHostExtentDescriptor& extent, bool isOverflow) {
                if (isOverflow) {
                    const uint64_t start = extent.startBlock * blockSize;
                    KLDebugLog(kLevel, "         %08lX %08lX:  %016llX - %016llX\n",
                               extent.startBlock, extent.blockCount, start,
                               start + extent.blockCount * blockSize - 1);
                }
            },
            error);
        if (!visited) {
            return false;
        }
    }
    return true;
}

bool HFSPlusVolume::dumpFilePath(const HFSPlusHostCatalogFile& file, VZDefragErrorSlot error)
{
    std::string path;
    return dumpPathOf(catalog(), file.fileID, path, error);
}

bool HFSPlusVolume::dumpFilePathFull(const HFSPlusHostCatalogFile& file, VZDefragErrorSlot error)
{
    std::string path;
    if (!dumpPathOf(catalog(), file.fileID, path, error)) {
        return false;
    }
    HFSPlusCatalogLookupRecord record;
    if (!catalog().copyRecordForPath(record, path, error) || record.recordType == 0) {
        return VZDefragFail(error, "File lookup failed for %1$@.", path);
    }
    return record.cnid() == file.fileID || VZDefragFail(error, "CNID %1$lu -> %2$@ -> CNID %3$lu.",
                                                        file.fileID, path, record.cnid());
}
