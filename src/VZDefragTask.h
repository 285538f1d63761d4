#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "KLKit/KLToolTask.h"
#include "VZDefragError.h"

class VZDefragVolume;

/** Base of all commands: the lines that frame a task's output, progress and elapsed time.
 *
 *  A command hands its work to performTask and calls updateTaskProgress as it goes; both on the
 *  task's thread.
 */
class VZDefragTask : public KLToolTask {
public:
    explicit VZDefragTask(VZDefragVolume& volume);

    [[nodiscard]] double progressReportInterval() const { return _progressInterval; }
    void setProgressReportInterval(double interval) { _progressInterval = interval; }

    /** What a command does; leaves in the slot why it failed. */
    using Work = std::function<void(std::unique_ptr<VZDefragError>& error)>;
    /** Prints the start line, does @p work, prints its error if there is one and the done line.
     *
     *  Work that there is no memory for ends with "Out of memory.", whatever it was at.
     */
    void performTask(const Work& work);
    /** Prints the start line. */
    void reportTaskStart();
    /** Records a value; schedules a progress line when one is due. Task's thread. */
    void updateTaskProgress(int32_t value);
    /** Prints the progress line. Main thread. */
    void reportTaskProgress();
    /** Prints the error line; nothing for none or a cancellation. */
    void reportTaskError(const VZDefragError* error);
    /** Prints the done line and logs the elapsed time. */
    void reportTaskDone();

protected:
    [[nodiscard]] VZDefragVolume& taskVolume() const { return _taskVolume; }
    /** Makes "Out of memory." the error, for which there is memory the first time. */
    void didRunOutOfMemory(std::unique_ptr<VZDefragError>& error);

private:
    [[nodiscard]] bool _takeProgressValue(int32_t& value);

    VZDefragVolume& _taskVolume;
    std::unique_ptr<VZDefragError> _memoryError;  // made while there was memory
    double _timeSpent = 0;  // minus the start time while running; guarded by _lock, as those below
    double _progressInterval;       // seconds
    double _progressReported = 0;   // when the last progress line was printed
    bool _progressPending = false;  // a line is scheduled and not yet printed
    bool _progressUpdated = false;  // the value changed since the last line
    int32_t _progressValue = -1;    // negative: nothing to report yet
};

/** Fails with "User cancelled." when the task of the calling thread was asked to stop. */
[[nodiscard]] bool VZDefragCheckNotAborted(VZDefragErrorSlot error);
