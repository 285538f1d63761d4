#include "Tasks/HFSPlusBitmapTask.h"

#include <utility>

HFSPlusBitmapTask::HFSPlusBitmapTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event)
    : HFSPlusReportTask(volume, std::move(event), "BITMAP")
{
    setAction([this] { _bitmap(); });
}

void HFSPlusBitmapTask::_bitmap()
{
    reportTaskStart();
    std::unique_ptr<VZDefragError> error;
    VZDefragFail(&error, "%1$@ is not available in this version.", name());
    reportTaskError(error.get());
    reportTaskDone();
}
