#pragma once

#include "HFSPlus/HFSPlusCatalogScanDelegate.h"
#include "Tasks/HFSPlusReportTask.h"

/** The command FRAGINFO: how many of the files' blocks lie in fragmented forks.
 *
 *  Only blocks from the volume's first data block on count, in 32 bits that may wrap.
 */
class HFSPlusFragInfoTask : public HFSPlusReportTask, private HFSPlusCatalogScanDelegate {
public:
    HFSPlusFragInfoTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event);

private:
    [[nodiscard]] bool scanCatalogFile(const HFSPlusCatalogFile& file, std::span<const uint8_t> key,
                                       VZDefragErrorSlot error) override;

    void _scan(std::unique_ptr<VZDefragError>& error);
    [[nodiscard]] bool _checkOptions(VZDefragErrorSlot error) const;
    [[nodiscard]] bool _scanCatalog(VZDefragErrorSlot error);
    void _printRecord() const;
    [[nodiscard]] bool _countFork(const HFSPlusForkData& fork, uint32_t fileID, uint8_t forkType,
                                  VZDefragErrorSlot error);

    uint32_t _startBlock = 0;
    uint32_t _totalBlocks = 0;
    uint32_t _fragmentedBlocks = 0;
};
