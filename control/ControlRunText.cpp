#include "ControlRunText.h"

#include <algorithm>

#include "ControlInfoText.h"
#include "ControlText.h"

namespace {

/** No disk moves more bytes in a second; what is above comes of a clock that stood still. */
constexpr double kFastest = 1e15;

}  // namespace

std::string_view titleOfJob(ControlJob job)
{
    return job == ControlJob::kDefrag ? "Defragmenting" : "Compacting";
}

std::string progressAsText(const ControlProgress& progress)
{
    std::string text = readableSize(progress.movedBytes) + " moved";
    if (progress.bytesPerSecond >= 1 && progress.bytesPerSecond < kFastest) {
        text += ", " + readableSize(static_cast<uint64_t>(progress.bytesPerSecond)) + "/s";
    }
    if (progress.secondsLeft) {
        text += ", " + readableDuration(*progress.secondsLeft) + " left";
    }
    return text;
}

std::string summaryOfRun(const ControlFigures& before, const ControlRunEnd& end)
{
    const ControlProgress& progress = end.progress;
    std::string text =
        end.isComplete ? "Done" : "Stopped early at " + std::to_string(progress.percent) + "%";
    text += ": " + readableSize(progress.movedBytes) + " moved in " +
            readableDuration(progress.elapsed) + ".\n";
    if (end.after != nullptr) {
        text += controlComparisonText(before, *end.after);
    }
    return text;
}
