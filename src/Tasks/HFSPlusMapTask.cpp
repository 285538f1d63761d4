#include "Tasks/HFSPlusMapTask.h"

#include <utility>

HFSPlusMapTask::HFSPlusMapTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event)
    : HFSPlusReportTask(volume, std::move(event), "MAP")
{
    setAction([this] { _map(); });
}

void HFSPlusMapTask::_map()
{
    reportTaskStart();
    std::unique_ptr<VZDefragError> error;
    VZDefragFail(&error, "%1$@ is not available in this version.", name());
    reportTaskError(error.get());
    reportTaskDone();
}
