#include "Tasks/HFSPlusScanTask.h"

#include <utility>

HFSPlusScanTask::HFSPlusScanTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event)
    : HFSPlusReportTask(volume, std::move(event), "SCAN")
{
    setAction([this] { _scan(); });
}

void HFSPlusScanTask::_scan()
{
    reportTaskStart();
    std::unique_ptr<VZDefragError> error;
    VZDefragFail(&error, "%1$@ is not available in this version.", name());
    reportTaskError(error.get());
    reportTaskDone();
}
