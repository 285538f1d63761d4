#include "ControlInfoFigures.h"

#include <utility>

#include "ControlText.h"

namespace {

std::string changeOf(uint64_t before, uint64_t after)
{
    if (before == after) {
        return "0";
    }
    return after > before ? '+' + grouped(after - before) : '-' + grouped(before - after);
}

enum class Wanted { kAny, kLess, kMore };

ControlComparedFigure compared(std::string name, uint64_t before, uint64_t after,
                               Wanted wanted = Wanted::kAny)
{
    ControlComparedFigure figure{.name = std::move(name),
                                 .before = grouped(before),
                                 .after = grouped(after),
                                 .change = changeOf(before, after)};
    if (wanted != Wanted::kAny && before != after) {
        figure.trend = (after < before) == (wanted == Wanted::kLess) ? ControlTrend::kBetter
                                                                     : ControlTrend::kWorse;
    }
    return figure;
}

}  // namespace

std::string readableForks(const ControlFragmentation& fragmentation)
{
    const std::string least = grouped(fragmentation.leastForks);
    return fragmentation.leastForks == fragmentation.mostForks
               ? least
               : least + " to " + grouped(fragmentation.mostForks);
}

std::string readableRunClass(size_t index)
{
    const uint64_t least = uint64_t{1} << index;
    return index == 0 ? "1" : grouped(least) + '-' + grouped(2 * least - 1);
}

std::vector<ControlComparedFigure> comparedFigures(const ControlFigures& before,
                                                   const ControlFigures& after)
{
    const ControlFragmentation& old = before.fragmentation;
    const ControlFragmentation& now = after.fragmentation;
    ControlComparedFigure forks =
        compared("Forks in pieces", old.mostForks, now.mostForks, Wanted::kLess);
    forks.before = readableForks(old);
    forks.after = readableForks(now);
    return {compared("Files", before.fileCount, after.fileCount),
            compared("Files in pieces", old.files, now.files, Wanted::kLess),
            forks,
            compared("Extents", old.extents, now.extents, Wanted::kLess),
            compared("Blocks in pieces", old.fragmentedBlocks, now.fragmentedBlocks, Wanted::kLess),
            compared("Percent in pieces", old.percent, now.percent, Wanted::kLess),
            compared("Free blocks", before.freeSpace.blocks, after.freeSpace.blocks),
            compared("Free runs", before.freeSpace.runs, after.freeSpace.runs, Wanted::kLess),
            compared("Largest run, blocks", before.freeSpace.largestRun, after.freeSpace.largestRun,
                     Wanted::kMore)};
}
