#include <gtest/gtest.h>

#include <vector>

#include "Platform/PlatformBacktrace.h"

namespace {

TEST(LinuxBacktrace, TheStackIsListedFromTheInnermostFrameOutwards)
{
    const std::vector<PlatformStackFrame> frames = PlatformBacktrace(50);

    ASSERT_GE(frames.size(), 3U);
    for (size_t index = 1; index < frames.size(); ++index) {
        EXPECT_LT(frames[index - 1].frameAddress, frames[index].frameAddress);
        EXPECT_NE(frames[index].returnAddress, 0U);
    }
}

TEST(LinuxBacktrace, TheLimitIsKept)
{
    EXPECT_EQ(PlatformBacktrace(2).size(), 2U);
    EXPECT_TRUE(PlatformBacktrace(0).empty());
}

}  // namespace
