#include "SampleVolume.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "support/HFSPlusVolumeChecker.h"

namespace {

class SampleVolumeTest : public testing::Test {
protected:
    [[nodiscard]] std::string path(const std::string& suffix) const
    {
        const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
        return testing::TempDir() + "SampleVolume." + test->name() + suffix + ".img";
    }

    /** Makes the volume and checks it; the image is gone afterwards. */
    [[nodiscard]] HFSPlusCheckResult made(const SampleVolumeOptions& options,
                                          const std::string& suffix = "")
    {
        std::string error;
        EXPECT_TRUE(makeSampleVolume(options, path(suffix), error)) << error;
        const auto reader = HFSPlusCheckFileReader::initWithPath(path(suffix));
        HFSPlusCheckResult result;
        if (reader != nullptr) {
            result = checkHFSPlusVolume(*reader);
            _hashes = hashForks(*reader, result);
        }
        if (std::system("command -v fsck.hfsplus >/dev/null 2>&1") == 0) {
            const std::string command = "fsck.hfsplus -fn '" + path(suffix) + "' >/dev/null 2>&1";
            EXPECT_EQ(std::system(command.c_str()), 0);
        }
        std::filesystem::remove(path(suffix));
        EXPECT_TRUE(result.consistent) << result.description();
        return result;
    }

    HFSPlusForkHashes _hashes;  // of the volume made last
};

uint64_t extentCount(const HFSPlusCheckResult& result)
{
    uint64_t count = 0;
    for (const HFSPlusCheckedFork& fork : result.forks) {
        count += fork.isSpecial ? 0 : fork.extents.size();
    }
    return count;
}

TEST_F(SampleVolumeTest, TheVolumeIsAsFullAndAsFragmentedAsAskedFor)
{
    const HFSPlusCheckResult result = made({});

    const uint64_t used = result.totalBlocks - result.freeBlocks;
    EXPECT_EQ(result.fileCount, 500U);
    EXPECT_NEAR(static_cast<double>(used) / result.totalBlocks, 0.5, 0.05);
    EXPECT_NEAR(static_cast<double>(extentCount(result)), 2000, 200);
    EXPECT_GT(
        std::ranges::count_if(
            result.forks, [](const HFSPlusCheckedFork& fork) { return fork.extents.size() > 8; }),
        20);
}

TEST_F(SampleVolumeTest, ASeedGivesOneVolumeAndAnotherSeedAnother)
{
    SampleVolumeOptions options;
    options.size = 32 << 20;
    options.fragments = 300;
    options.files = 100;
    const HFSPlusCheckResult first = made(options, "1");
    const HFSPlusForkHashes firstHashes = _hashes;
    const HFSPlusCheckResult again = made(options, "2");
    const HFSPlusForkHashes againHashes = _hashes;
    options.seed = 2;
    const HFSPlusCheckResult other = made(options, "3");

    EXPECT_EQ(first.forks, again.forks);
    EXPECT_EQ(firstHashes, againHashes);
    EXPECT_NE(first.forks, other.forks);
}

TEST_F(SampleVolumeTest, AllKindsTogetherAreSound)
{
    for (const uint32_t blockSize : {512U, 1024U, 4096U, 16384U}) {
        SampleVolumeOptions options;
        options.size = (64 << 20) + 1536;
        options.blockSize = blockSize;
        options.journal = true;
        options.hfsx = true;
        options.resourceForks = true;
        options.attributes = true;
        options.nodeSize = 8192;
        options.files = 200;
        options.fragments = 1000;
        const HFSPlusCheckResult result = made(options, std::to_string(blockSize));
        EXPECT_EQ(result.signature, 0x4858U);
        EXPECT_FALSE(result.attributeForks.empty());
    }
}

TEST_F(SampleVolumeTest, WhatDoesNotFitIsRefused)
{
    SampleVolumeOptions options;
    options.fill = 100;
    std::string error;
    EXPECT_FALSE(makeSampleVolume(options, path(""), error));
    EXPECT_FALSE(error.empty());

    options.fill = 50;
    options.blockSize = 0;
    EXPECT_FALSE(makeSampleVolume(options, path(""), error));
    std::filesystem::remove(path(""));
}

}  // namespace
