#include "ControlRunText.h"

#include <gtest/gtest.h>

#include "ControlInfoText.h"

#include <limits>
#include <string>

namespace {

ControlFigures figuresOf(uint64_t filesInPieces, uint32_t blocksInPieces)
{
    ControlFigures figures;
    figures.blockSize = 4096;
    figures.totalBlocks = 10000;
    figures.fragmentation.files = filesInPieces;
    figures.fragmentation.fragmentedBlocks = blocksInPieces;
    figures.fragmentation.consideredBlocks = 4000;
    figures.freeSpace = {.blocks = 6000, .runs = 1200, .largestRun = 512};
    return figures;
}

TEST(ControlRunText, ProgressLeavesOutWhatIsNotKnown)
{
    ControlProgress progress{.percent = 3, .movedBytes = uint64_t{3} << 20U};
    EXPECT_EQ(progressAsText(progress), "3.00 MiB moved");

    progress.bytesPerSecond = std::numeric_limits<double>::infinity();
    EXPECT_EQ(progressAsText(progress), "3.00 MiB moved");

    progress.bytesPerSecond = 210.0 * 1024 * 1024;
    EXPECT_EQ(progressAsText(progress), "3.00 MiB moved, 210 MiB/s");

    progress.secondsLeft = 41;
    EXPECT_EQ(progressAsText(progress), "3.00 MiB moved, 210 MiB/s, 0:41 left");
}

TEST(ControlRunText, TheSummaryOfAWholeRunComparesBeforeAndAfter)
{
    const ControlFigures after = figuresOf(0, 0);
    const ControlRunEnd end{
        .isComplete = true,
        .message = "",
        .progress = {.percent = 100, .movedBytes = uint64_t{3} << 30U, .elapsed = 71.9},
        .after = &after};

    const ControlFigures before = figuresOf(1234, 1000);
    EXPECT_EQ(summaryOfRun(before, end),
              "Done: 3.00 GiB moved in 1:11.\n" + controlComparisonText(before, after));
}

TEST(ControlRunText, TheSummaryOfAStoppedRunSaysWhere)
{
    const ControlRunEnd end{.isComplete = false,
                            .message = "The time limit is over.",
                            .progress = {.percent = 37, .movedBytes = 4096, .elapsed = 7},
                            .after = nullptr};

    EXPECT_EQ(summaryOfRun(figuresOf(1, 1), end),
              "Stopped early at 37%: 4.00 KiB moved in 0:07.\n");
}

}  // namespace
