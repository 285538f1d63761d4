#include "ControlProgressMeter.h"

#include <gtest/gtest.h>

namespace {

using Clock = ControlProgressMeter::Clock;
using std::chrono::milliseconds;

TEST(ControlProgressMeter, PercentNeverGoesBackNorAboveAHundred)
{
    const Clock::time_point begin;
    ControlProgressMeter meter(4096, {}, begin);

    meter.addMove(40, 10, begin + milliseconds(100));
    meter.addMove(12, 10, begin + milliseconds(200));
    EXPECT_EQ(meter.progress(begin + milliseconds(200)).percent, 40);
    meter.addMove(140, 10, begin + milliseconds(300));
    EXPECT_EQ(meter.progress(begin + milliseconds(300)).percent, 100);
    EXPECT_EQ(meter.progress(begin + milliseconds(300)).movedBytes, 30U * 4096);
}

TEST(ControlProgressMeter, TheRateIsThatOfTheLastSeconds)
{
    const Clock::time_point begin;
    ControlProgressMeter meter(1000, {}, begin);
    for (int step = 1; step <= 200; step++) {
        // 1 MB/s for ten seconds, then 4 MB/s.
        meter.addMove(step / 2, step <= 100 ? 100 : 400, begin + milliseconds(100 * step));
    }

    EXPECT_NEAR(meter.progress(begin + milliseconds(20000)).bytesPerSecond, 4e6, 1e5);
}

TEST(ControlProgressMeter, TheTimeLeftIsRightForASteadyRunThatBeganLate)
{
    const Clock::time_point begin;
    ControlProgressMeter meter(4096, {}, begin);
    EXPECT_FALSE(meter.progress(begin + milliseconds(3000)).secondsLeft.has_value());

    // Five seconds of preparation, then one percent a second.
    for (int percent = 1; percent <= 50; percent++) {
        meter.addMove(percent, 1000, begin + milliseconds(5000 + 1000 * percent));
        if (percent >= 20) {
            const auto left =
                meter.progress(begin + milliseconds(5000 + 1000 * percent)).secondsLeft;
            ASSERT_TRUE(left.has_value());
            EXPECT_NEAR(*left, 100 - percent, 0.1 * (100 - percent));
        }
    }
}

TEST(ControlProgressMeter, AFinishedRunHasNothingLeft)
{
    const Clock::time_point begin;
    ControlProgressMeter meter(4096, {}, begin);
    meter.addMove(93, 10, begin + milliseconds(100));
    meter.finish();

    EXPECT_EQ(meter.progress(begin + milliseconds(200)).percent, 100);
    EXPECT_EQ(meter.progress(begin + milliseconds(200)).secondsLeft.value_or(-1), 0);
}

TEST(ControlProgressMeter, MakingRoomFirstIsReckonedWith)
{
    const Clock::time_point begin;
    constexpr double kCrowding = 0.8;
    ControlProgressMeter meter(4096, {.crowding = kCrowding, .extents = 0}, begin);
    // Steady work on a volume so crowded: the percentage rises faster and faster.
    const auto shareAt = [&](double done) {
        return (done + kCrowding * (done - done * done / 2)) / (1 + kCrowding / 2);
    };
    double moved = 0;
    for (int percent = 1; percent <= 95; percent++) {
        const double share = shareAt(percent / 100.0);
        const auto now = begin + milliseconds(static_cast<int64_t>(100000 * share));
        meter.addMove(percent, static_cast<uint32_t>(1e6 * (share - moved)), now);
        moved = share;
        if (share >= 0.2) {
            EXPECT_NEAR(meter.progress(now).secondsLeft.value_or(0), 100 - 100 * share,
                        0.05 * (100 - 100 * share))
                << percent;
        }
    }
}

TEST(ControlProgressMeter, FilesInManyPiecesAreReckonedWithOnceTheyArePast)
{
    // A thousand pieces of one block first, then a large one: half of the blocks each, the pieces
    // taking nine seconds and the rest half a second.
    const Clock::time_point begin;
    ControlProgressMeter meter(4096, {.crowding = 0, .extents = 1001}, begin);
    for (int move = 1; move <= 1000; move++) {
        meter.addMove(move / 20, 1, begin + milliseconds(9 * move));
    }

    EXPECT_NEAR(meter.progress(begin + milliseconds(9000)).secondsLeft.value_or(0), 0.5, 0.1);
}

TEST(ControlProgressMeter, ADiskOnWhichPiecesCostMuchIsSeenThrough)
{
    // 20 ms a piece and 10 ms a megabyte: 400 files in many pieces, then 400 in few.
    const Clock::time_point begin;
    ControlProgressMeter meter(1000, {.crowding = 0, .extents = 4400}, begin);
    double seconds = 0;
    double left = 0;
    for (int file = 1; file <= 800; file++) {
        const int pieces = file <= 400 ? 10 : 1;
        for (int piece = 0; piece < pieces; piece++) {
            seconds += 0.02 + 0.02 / pieces;
            meter.addMove(file / 8, 2000U / static_cast<uint32_t>(pieces),
                          begin + milliseconds(static_cast<int64_t>(1000 * seconds)));
        }
        if (file == 480) {
            left = meter.progress(begin + milliseconds(static_cast<int64_t>(1000 * seconds)))
                       .secondsLeft.value_or(0);
        }
    }

    // Were pieces free, it would be 60 seconds.
    EXPECT_NEAR(left, 0.04 * 320, 2);
}

TEST(ControlProgressMeter, CrowdingIsTheShareInUseOfThePlaceToBeFilled)
{
    ControlFigures figures;
    figures.fileBlocks = 400;
    figures.totalBlocks = 1000;
    figures.fragmentation.extents = 7;
    figures.map = ControlMap(1000);
    // The files' place at the front is half full; 100 fixed blocks do not count.
    figures.map.change(0, 100, ControlKind::kFree, ControlKind::kFixed);
    figures.map.change(100, 200, ControlKind::kFree, ControlKind::kUsed);
    figures.map.change(700, 200, ControlKind::kFree, ControlKind::kFragmented);

    EXPECT_DOUBLE_EQ(workloadOf(figures, ControlJob::kDefrag).crowding, 0.5);
    EXPECT_EQ(workloadOf(figures, ControlJob::kCompact).crowding, 0);
    EXPECT_EQ(workloadOf(figures, ControlJob::kCompact).extents, 7U);
}

}  // namespace
