#include "ControlProgressMeter.h"

#include <gtest/gtest.h>

namespace {

using Clock = ControlProgressMeter::Clock;
using std::chrono::milliseconds;

TEST(ControlProgressMeter, PercentNeverGoesBackNorAboveAHundred)
{
    const Clock::time_point begin;
    ControlProgressMeter meter(4096, begin);

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
    ControlProgressMeter meter(1000, begin);
    for (int step = 1; step <= 200; step++) {
        // 1 MB/s for ten seconds, then 4 MB/s.
        meter.addMove(step / 2, step <= 100 ? 100 : 400, begin + milliseconds(100 * step));
    }

    EXPECT_NEAR(meter.progress(begin + milliseconds(20000)).bytesPerSecond, 4e6, 1e5);
}

TEST(ControlProgressMeter, TheTimeLeftIsRightForASteadyRunThatBeganLate)
{
    const Clock::time_point begin;
    ControlProgressMeter meter(4096, begin);
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
    ControlProgressMeter meter(4096, begin);
    meter.addMove(93, 10, begin + milliseconds(100));
    meter.finish();

    EXPECT_EQ(meter.progress(begin + milliseconds(200)).percent, 100);
    EXPECT_EQ(meter.progress(begin + milliseconds(200)).secondsLeft.value_or(-1), 0);
}

}  // namespace
