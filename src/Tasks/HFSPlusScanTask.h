#pragma once

#include "Tasks/HFSPlusReportTask.h"

/** The command SCAN: lists every file with its dates, its Finder type and its extents. */
class HFSPlusScanTask : public HFSPlusReportTask {
public:
    HFSPlusScanTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event);

private:
    void _scan();
};
