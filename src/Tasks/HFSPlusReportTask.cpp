#include "Tasks/HFSPlusReportTask.h"

#include <utility>

#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLStringUtilities.h"
#include "KLKit/KLToolEvent.h"

HFSPlusReportTask::HFSPlusReportTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event,
                                     std::string name)
    : VZDefragTask(volume), _volume(volume)
{
    setName(std::move(name));
    setArguments(trimmedComponentsSeparatedByCharactersInSet(event->string(), " \t"));
    setEvent(std::move(event));
}

bool HFSPlusReportTask::_copyPath(std::string& path, uint32_t cnid, bool& found,
                                  VZDefragErrorSlot error)
{
    if (!_volume.catalog().copyPathForCNID(path, cnid, error)) {
        return false;
    }
    found = !path.empty() || cnid <= kHFSRootFolderID;
    return true;
}
