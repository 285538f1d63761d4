#include "Tasks/HFSPlusReportTask.h"

#include <utility>

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
