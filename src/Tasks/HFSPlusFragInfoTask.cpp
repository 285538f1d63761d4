#include "Tasks/HFSPlusFragInfoTask.h"

#include <algorithm>
#include <utility>

#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"
#include "KLKit/KLThreadGate.h"
#include "VZDefragOutput.h"

HFSPlusFragInfoTask::HFSPlusFragInfoTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event)
    : HFSPlusReportTask(volume, std::move(event), "FRAGINFO")
{
    setAction([this] { performTask([this](auto& error) { _scan(error); }); });
}

void HFSPlusFragInfoTask::_scan(std::unique_ptr<VZDefragError>& error)
{
    if (_checkOptions(&error)) {
        std::ignore = _scanCatalog(&error);  // the error says it all
    }
}

bool HFSPlusFragInfoTask::_checkOptions(VZDefragErrorSlot error) const
{
    return arguments().size() <= 1 || VZDefragFail(error, "Unknown option: %1$@", arguments()[1]);
}

bool HFSPlusFragInfoTask::_scanCatalog(VZDefragErrorSlot error)
{
    const KLClosedGate gate(_volume.gate());
    _startBlock = _volume.firstDataBlock();
    KLDebugLog(KLDebugLevel::kDebug, "%@,DEBUG,Starting at block %08X\n", name(), _startBlock);
    _totalBlocks = 0;
    _fragmentedBlocks = 0;
    if (!_volume.scanCatalogFiles(*this, error)) {
        return false;
    }
    _printRecord();
    return true;
}

void HFSPlusFragInfoTask::_printRecord() const
{
    // The product stays in 32 bits, as readers of this line expect it.
    const uint32_t percent = _fragmentedBlocks * 100u / std::max(_totalBlocks, 1u);
    VZDefragWriteOutput(
        KLFormatString("%s,%u,%u,%u\n", name(), _fragmentedBlocks, _totalBlocks, percent));
}

bool HFSPlusFragInfoTask::scanCatalogFile(const HFSPlusCatalogFile& file,
                                          std::span<const uint8_t> /*key*/, VZDefragErrorSlot error)
{
    return _countFork(file.dataFork, file.fileID, kHFSDataForkType, error) &&
           _countFork(file.resourceFork, file.fileID, kHFSResourceForkType, error);
}

bool HFSPlusFragInfoTask::_countFork(const HFSPlusForkData& fork, uint32_t fileID, uint8_t forkType,
                                     VZDefragErrorSlot error)
{
    uint64_t extents = 0;  // with blocks from the start block on
    uint64_t blocks = 0;   // from the start block on
    const auto countExtent = [&](const HFSPlusHostExtentDescriptor& extent) {
        const uint64_t end = uint64_t{extent.startBlock} + extent.blockCount;
        if (end > _startBlock) {
            ++extents;
            blocks += end - std::max(extent.startBlock, _startBlock);
        }
    };
    if (!_volume.extents().visitForkExtents(fork, fileID, forkType, countExtent, error)) {
        return false;
    }
    if (extents > 1) {
        _fragmentedBlocks += static_cast<uint32_t>(blocks);
    }
    _totalBlocks += static_cast<uint32_t>(blocks);
    return true;
}
