#pragma once

#include <memory>
#include <string>

#include "HFSPlus/HFSPlusCatalogScanDelegate.h"
#include "Tasks/HFSPlusReportTask.h"

class HFSPlusFileRecordPrinter;

/** The command SCAN: lists every file with its dates, its Finder type and its extents. */
class HFSPlusScanTask : public HFSPlusReportTask, private HFSPlusCatalogScanDelegate {
public:
    HFSPlusScanTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event);
    ~HFSPlusScanTask() override;

private:
    void scanCatalogFilesWillStart() override;
    [[nodiscard]] bool scanCatalogFile(const HFSPlusCatalogFile& file, std::span<const uint8_t> key,
                                       VZDefragErrorSlot error) override;
    void scanCatalogFilesDidFinish() override;

    void _scan(std::unique_ptr<VZDefragError>& error);
    void _parseOptions(std::unique_ptr<VZDefragError>& error);
    void _scanCatalog(std::unique_ptr<VZDefragError>& error);
    [[nodiscard]] bool _findFolder(uint32_t parentID, uint32_t fileID, VZDefragErrorSlot error);
    void _countFile();

    bool _fullPaths = false;
    bool _fragOnly = false;
    std::unique_ptr<HFSPlusFileRecordPrinter> _printer;  // while a scan runs
    double _fileCount = 0;                               // as the volume header has it
    double _fileIndex = 0;                               // files listed so far
    int32_t _progress = 0;                               // percent
    uint32_t _lastParentID = 0;                          // 0: none
    std::string _lastParentPath;                         // safe for output
    std::string _safeName;                               // of the file being listed
};
