#include "Tasks/HFSPlusFragInfoTask.h"

#include <utility>

HFSPlusFragInfoTask::HFSPlusFragInfoTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event)
    : HFSPlusReportTask(volume, std::move(event), "FRAGINFO")
{
    setAction([this] { _scan(); });
}

void HFSPlusFragInfoTask::_scan()
{
    reportTaskStart();
    std::unique_ptr<VZDefragError> error;
    VZDefragFail(&error, "%1$@ is not available in this version.", name());
    reportTaskError(error.get());
    reportTaskDone();
}
