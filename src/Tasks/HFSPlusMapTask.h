#pragma once

#include "Tasks/HFSPlusReportTask.h"

/** The command MAP: the record of single files and folders, by path or by ID. */
class HFSPlusMapTask : public HFSPlusReportTask {
public:
    HFSPlusMapTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event);

private:
    void _map();
};
