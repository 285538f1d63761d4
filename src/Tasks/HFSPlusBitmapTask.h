#pragma once

#include "Tasks/HFSPlusReportTask.h"

/** The command BITMAP: a scaled picture of the allocation bitmap. */
class HFSPlusBitmapTask : public HFSPlusReportTask {
public:
    HFSPlusBitmapTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event);

private:
    void _bitmap();
};
