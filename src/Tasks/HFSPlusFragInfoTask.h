#pragma once

#include "Tasks/HFSPlusReportTask.h"

/** The command FRAGINFO: how many of the files' blocks lie in fragmented forks. */
class HFSPlusFragInfoTask : public HFSPlusReportTask {
public:
    HFSPlusFragInfoTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event);

private:
    void _scan();
};
