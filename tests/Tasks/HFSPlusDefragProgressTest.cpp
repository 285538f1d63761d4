#include "Tasks/HFSPlusDefragProgress.h"

#include <gtest/gtest.h>

#include <limits>

#include "Tasks/HFSPlusDefragTask.h"
#include "base/ManualServices.h"
#include "base/StandardOutputCapture.h"
#include "support/HFSPlusOpenedVolume.h"

namespace {

class HFSPlusDefragProgressTest : public testing::Test {
protected:
    HFSPlusOpenedVolume _volume{HFSPlusVolumeBuilder{}};
    ManualServices _services;
    std::shared_ptr<HFSPlusDefragTask> _task = std::make_shared<HFSPlusDefragTask>(*_volume, false);
    HFSPlusDefragProgress _progress{*_task, 77};
};

}  // namespace

TEST_F(HFSPlusDefragProgressTest, PercentagesAreTruncated)
{
    const StandardOutputCapture capture;
    _progress.setBlocksTotal(3);

    _progress.reportMove(10, 20, 2, true);

    EXPECT_EQ(_progress.percentage(), 66);
}

TEST_F(HFSPlusDefragProgressTest, MovesThatMakeRoomAreNotCounted)
{
    const StandardOutputCapture capture;
    _progress.setBlocksTotal(3);

    _progress.reportMove(10, 20, 2, false);

    EXPECT_EQ(_progress.percentage(), 0);
}

TEST_F(HFSPlusDefragProgressTest, NothingToMoveIsAllOfIt)
{
    _progress.setBlocksTotal(0);

    EXPECT_EQ(_progress.percentage(), 100);
}

TEST_F(HFSPlusDefragProgressTest, BlocksBeyondTheTotalGoAboveAHundred)
{
    const StandardOutputCapture capture;
    _progress.setBlocksTotal(4);

    _progress.reportMove(10, 20, 6, true);

    EXPECT_EQ(_progress.percentage(), 150);
}

TEST_F(HFSPlusDefragProgressTest, PercentagesStopAtTheLargestNumber)
{
    const StandardOutputCapture capture;
    _progress.setBlocksTotal(1);

    _progress.reportMove(10, 20, std::numeric_limits<uint32_t>::max(), true);

    EXPECT_EQ(_progress.percentage(), std::numeric_limits<int32_t>::max());
}

TEST_F(HFSPlusDefragProgressTest, AQuietRunReportsOnlyWhenTheWholePercentageChanges)
{
    StandardOutputCapture capture;
    _task->reportTaskStart();
    _progress.setVerbose(false);
    _progress.setBlocksTotal(1000);

    for (uint32_t move = 0; move < 30; ++move) {
        _services.now += 2;
        _progress.reportMove(100 + move, 200 + move, 1, true);
        _services.runMainThread();
    }

    EXPECT_EQ(capture.text(),
              "DEFRAG,START\nDEFRAG,PROGRESS,0\nDEFRAG,PROGRESS,1\nDEFRAG,PROGRESS,2\n"
              "DEFRAG,PROGRESS,3\n");
}

TEST_F(HFSPlusDefragProgressTest, AMoveIsALineOfItsOwn)
{
    StandardOutputCapture capture;
    _progress.setBlocksTotal(100);

    _progress.reportMove(500, 30, 7, true);
    VZDefragFlushOutput();

    EXPECT_EQ(capture.text(), "DEFRAG,PROGRESS,7,500,30,7,77\n");
}
