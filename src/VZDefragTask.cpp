#include "VZDefragTask.h"

#include <memory>
#include <mutex>
#include <string_view>
#include <tuple>
#include <utility>

#include "KLKit/KLDebug.h"
#include "KLKit/KLMemory.h"
#include "VZDefragOutput.h"
#include "VZDefragServices.h"
#include "VZDefragStringUtilities.h"

namespace {

double now()
{
    return VZDefragServices::sharedServices().timeIntervalSinceReferenceDate();
}

void printLine(const std::string& line)
{
    VZDefragWriteOutput(line);
    VZDefragFlushOutput();
}

/** Prints @p name and what follows it on the line, for which no memory is needed. */
void printLine(const std::string& name, std::string_view rest)
{
    const VZDefragOutputLock output;
    VZDefragWriteOutput(name);
    VZDefragWriteOutput(rest);
    VZDefragFlushOutput();
}

}  // namespace

VZDefragTask::VZDefragTask(VZDefragVolume& volume)
    : _taskVolume(volume), _progressInterval(VZDefragServices::sharedServices().progressInterval())
{
    VZDefragFail(&_memoryError, "Out of memory.");
}

void VZDefragTask::performTask(const Work& work)
{
    std::unique_ptr<VZDefragError> error;
    const bool hadMemory = KLWithinMemory([&] {
        reportTaskStart();
        work(error);
    });
    if (!hadMemory) {
        didRunOutOfMemory(error);
    }
    const bool isReported = KLWithinMemory([&] { reportTaskError(error.get()); });
    if (!isReported || (!hadMemory && error == nullptr)) {
        // In fixed words where there is no memory for others.
        std::ignore = KLWithinMemory([this] { printLine(name(), ",ERROR,Out of memory.\n"); });
    }
    std::ignore = KLWithinMemory([this] { reportTaskDone(); });
}

void VZDefragTask::didRunOutOfMemory(std::unique_ptr<VZDefragError>& error)
{
    error = std::move(_memoryError);
}

void VZDefragTask::reportTaskStart()
{
    // Unlocked: no other thread looks at these before the first progress is scheduled.
    _progressReported = now();
    _timeSpent = -_progressReported;
    printLine(name(), ",START\n");
}

void VZDefragTask::updateTaskProgress(int32_t value)
{
    {
        const std::lock_guard guard(_lock);
        if (value == _progressValue) {
            return;
        }
        _progressUpdated = true;
        _progressValue = value;
        // A pending line prints the newest value; a line too early is made up for by a later call.
        if (_progressPending || !(now() - _progressReported > _progressInterval)) {
            return;
        }
        _progressPending = true;
    }
    // The line is the task's, not the other way round: a task that is gone has nothing to print.
    const std::weak_ptr<KLToolTask> self = weak_from_this();
    VZDefragServices::sharedServices().performOnMainThread([self] {
        if (const std::shared_ptr<KLToolTask> task = self.lock()) {
            static_cast<VZDefragTask&>(*task).reportTaskProgress();
        }
    });
}

void VZDefragTask::reportTaskProgress()
{
    // Held from the decision to the line, as in reportTaskDone, or the line could follow "DONE".
    const VZDefragOutputLock output;
    int32_t value = -1;
    if (_takeProgressValue(value) && value >= 0) {
        printLine(KLFormatString("%s,PROGRESS,%d\n", name(), value));
    }
}

bool VZDefragTask::_takeProgressValue(int32_t& value)
{
    const std::lock_guard guard(_lock);
    if (!(_timeSpent < 0)) {
        return false;
    }
    _progressReported = now();
    _progressUpdated = false;
    _progressPending = false;
    value = _progressValue;
    return true;
}

void VZDefragTask::reportTaskError(const VZDefragError* error)
{
    if (error != nullptr && !error->isUserCancelled()) {
        printLine(KLFormatString("%s,ERROR,%s\n", name(), outputSafeString(error->description())));
    }
}

void VZDefragTask::reportTaskDone()
{
    double elapsed = 0;
    {
        const VZDefragOutputLock output;
        {
            const std::lock_guard guard(_lock);
            _timeSpent += now();
            elapsed = _timeSpent;
        }
        printLine(name(), ",DONE\n");
    }
    KLDebugLog(KLDebugLevel::kDebug, "%@,DEBUG,Elapsed time %.03fs\n", name(), elapsed);
}

bool VZDefragCheckNotAborted(VZDefragErrorSlot error)
{
    const KLToolTask* const task = KLToolTask::currentToolTask();
    return task == nullptr || !task->aborted() || VZDefragFailCancelled(error);
}
