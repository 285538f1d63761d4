#pragma once

#include <memory>
#include <string>

#include "VZDefragTask.h"

class HFSPlusVolume;
class KLToolEvent;

/** Base of the commands that only read: holds back the next line of input until it has ended. */
class HFSPlusReportTask : public VZDefragTask {
protected:
    /** Takes the arguments from the line that @p event carries; the event is completed when the
     *  task ends. */
    HFSPlusReportTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event, std::string name);

    /** The catalog's path of @p cnid; @p found tells the empty path of the root folder from that
     *  of an ID that is not in the catalog. */
    [[nodiscard]] bool _copyPath(std::string& path, uint32_t cnid, bool& found,
                                 VZDefragErrorSlot error);

    HFSPlusVolume& _volume;
};
