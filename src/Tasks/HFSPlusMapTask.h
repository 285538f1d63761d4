#pragma once

#include <optional>

#include "KLKit/KLThreadGate.h"
#include "Tasks/HFSPlusReportTask.h"

struct HFSPlusCatalogLookupRecord;

/** The command MAP: the record of single files and folders, by path or by ID. */
class HFSPlusMapTask : public HFSPlusReportTask {
public:
    HFSPlusMapTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event);

private:
    using Gate = std::optional<KLClosedGate>;  // closed from the first mapping to the last

    void _map(std::unique_ptr<VZDefragError>& error);
    void _mapWords(std::unique_ptr<VZDefragError>& error);
    [[nodiscard]] bool _mapOption(const std::string& option, const std::string& value, Gate& gate,
                                  VZDefragErrorSlot error);
    [[nodiscard]] bool _mapCNID(uint32_t cnid, VZDefragErrorSlot error);
    [[nodiscard]] bool _mapPath(const std::string& path, VZDefragErrorSlot error);
    [[nodiscard]] bool _mapCatalogRecord(const HFSPlusCatalogLookupRecord& record,
                                         VZDefragErrorSlot error);
    void _closeGate(Gate& gate);
};
