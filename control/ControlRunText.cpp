#include "ControlRunText.h"

#include <algorithm>
#include <array>

#include "ControlText.h"

namespace {

/** No disk moves more bytes in a second; what is above comes of a clock that stood still. */
constexpr double kFastest = 1e15;

struct ComparedFigure {
    std::string_view name;
    std::string before;
    std::string after;
};

std::string percentOf(const ControlFragmentation& fragmentation)
{
    return readablePercent(fragmentation.fragmentedBlocks, fragmentation.consideredBlocks) + "%";
}

std::string padded(std::string_view text, size_t width)
{
    return std::string(width - std::min(width, text.size()), ' ') + std::string(text);
}

/** One line for each figure: its name, before, after. */
std::string comparison(const ControlFigures& before, const ControlFigures& after)
{
    const auto sizeOf = [](const ControlFigures& figures) {
        return readableSize(figures.bytes(figures.freeSpace.largestRun));
    };
    const std::array<ComparedFigure, 5> figures = {{
        {.name = "", .before = "before", .after = "after"},
        {.name = "Files in pieces",
         .before = grouped(before.fragmentation.files),
         .after = grouped(after.fragmentation.files)},
        {.name = "Blocks in pieces",
         .before = percentOf(before.fragmentation),
         .after = percentOf(after.fragmentation)},
        {.name = "Free runs",
         .before = grouped(before.freeSpace.runs),
         .after = grouped(after.freeSpace.runs)},
        {.name = "Largest free run", .before = sizeOf(before), .after = sizeOf(after)},
    }};
    size_t nameWidth = 0;
    size_t width = 0;
    for (const ComparedFigure& figure : figures) {
        nameWidth = std::max(nameWidth, figure.name.size());
        width = std::max({width, figure.before.size(), figure.after.size()});
    }
    std::string text;
    for (const ComparedFigure& figure : figures) {
        text += std::string(figure.name) + std::string(nameWidth - figure.name.size(), ' ') + "  " +
                padded(figure.before, width) + "  " + padded(figure.after, width) + "\n";
    }
    return text;
}

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
    if (!end.message.empty()) {
        text += end.message + "\n";
    }
    if (end.after != nullptr) {
        text += comparison(before, *end.after);
    }
    return text;
}
