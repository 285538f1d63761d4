#include "HFSPlus/HFSPlusAllocation.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <random>
#include <vector>

#include "HFSPlusAllocationTestVolume.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"
#include "support/TestSeed.h"

namespace {

constexpr uint32_t kUntouched = 77;

}  // namespace

TEST(HFSPlusAllocation, LastChunkIsTheRemainderInWholeBlocks)
{
    // One chunk and 200 blocks: 25 bytes of the second chunk, which fill one block.
    HFSPlusOpenedVolume opened(
        HFSPlusVolumeBuilder{}.blockSize(4096).totalBlocks(kChunkBlocks + 200).contents(false));
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusAllocation& allocation = opened->allocation();
    EXPECT_EQ(allocation.chunkCount(), 2u);
    EXPECT_EQ(allocation.chunkSizeFromChunkIndex(0, nullptr), 32768u);
    EXPECT_EQ(allocation.chunkSizeFromChunkIndex(1, nullptr), 4096u);

    std::unique_ptr<VZDefragError> error;
    EXPECT_EQ(allocation.chunkSizeFromChunkIndex(2, &error), 0u);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Allocation chunk 2 is out of range.");
}

TEST(HFSPlusAllocation, RangeToTheVeryLastBitSucceedsAndOneMoreFails)
{
    HFSPlusOpenedVolume opened(smallVolume());
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusAllocation& allocation = opened->allocation();
    const uint32_t bits = static_cast<uint32_t>(allocation.logicalSize() * 8);
    uint32_t result = 0;

    EXPECT_TRUE(allocation.isClear(bits - 100, 100, result, nullptr));
    EXPECT_EQ(result, 100u);

    std::unique_ptr<VZDefragError> error;
    EXPECT_FALSE(allocation.isClear(bits - 100, 101, result, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(),
              "Allocation block " + std::to_string(bits + 1) + " is out of range.");
}

TEST(HFSPlusAllocation, FileThatEndsInsideABlockIsUsableToItsVeryLastBit)
{
    HFSPlusOpenedVolume opened(
        smallVolume().damage(damagedHeader("allocationFile.logicalSize", 125)));
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusAllocation& allocation = opened->allocation();
    EXPECT_EQ(allocation.chunkSizeFromChunkIndex(0, nullptr), 4096u);
    uint32_t result = 0;

    EXPECT_TRUE(allocation.isSet(999, 1, result, nullptr));
    EXPECT_EQ(result, 1u);
    EXPECT_FALSE(allocation.isSet(999, 2, result, nullptr));
    ASSERT_TRUE(allocation.set(900, 20, nullptr));
    ASSERT_TRUE(allocation.flush());
    EXPECT_TRUE(isSetOnDisk(opened, 900));
    EXPECT_TRUE(isSetOnDisk(opened, 919));
    EXPECT_FALSE(isSetOnDisk(opened, 920));
}

TEST(HFSPlusAllocation, RangeErrorSubtractsTheCountFromTheResult)
{
    HFSPlusOpenedVolume opened(smallVolume());
    ASSERT_TRUE(opened) << opened.error();
    uint32_t result = kUntouched;

    EXPECT_FALSE(opened->allocation().isSet(0xFFFFFFF0, 0x20, result, nullptr));
    EXPECT_EQ(result, kUntouched - 0x20);
}

TEST(HFSPlusAllocation, RangeErrorNamesThe32BitSum)
{
    HFSPlusOpenedVolume opened(smallVolume());
    ASSERT_TRUE(opened) << opened.error();
    std::unique_ptr<VZDefragError> error;
    uint32_t result = 0;

    EXPECT_FALSE(opened->allocation().isSet(0xFFFFFFF0, 0x20, result, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Allocation block 16 is out of range.");
}

TEST(HFSPlusAllocation, CountOfZeroGivesZero)
{
    HFSPlusOpenedVolume opened(smallVolume());
    ASSERT_TRUE(opened) << opened.error();
    uint32_t result = kUntouched;

    EXPECT_TRUE(opened->allocation().isClear(500, 0, result, nullptr));
    EXPECT_EQ(result, 0u);
}

TEST(HFSPlusAllocation, ClearTestThatStartsOnASetBlockGivesZero)
{
    HFSPlusOpenedVolume opened(smallVolume());
    ASSERT_TRUE(opened) << opened.error();
    uint32_t result = kUntouched;

    EXPECT_TRUE(opened->allocation().isClear(0, 10, result, nullptr));
    EXPECT_EQ(result, 0u);
    EXPECT_TRUE(opened->allocation().isSet(500, 10, result, nullptr));
    EXPECT_EQ(result, 0u);
}

TEST(HFSPlusAllocation, ClearingFreeBlocksStillRaisesTheFreeCountByAllOfThem)
{
    HFSPlusOpenedVolume opened(smallVolume());
    ASSERT_TRUE(opened) << opened.error();
    const uint32_t freeBlocks = opened->hostVolumeHeader().freeBlocks;

    ASSERT_TRUE(opened->allocation().clear(500, 100, nullptr));

    EXPECT_EQ(opened->hostVolumeHeader().freeBlocks, freeBlocks + 100);
    EXPECT_FALSE(opened->allocation().isDirty());
}

TEST(HFSPlusAllocation, SettingBlocksMakesThemUsedAndLowersTheFreeCount)
{
    HFSPlusOpenedVolume opened(smallVolume());
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusAllocation& allocation = opened->allocation();
    const uint32_t freeBlocks = opened->hostVolumeHeader().freeBlocks;
    uint32_t result = 0;

    ASSERT_TRUE(allocation.set(501, 70, nullptr));

    EXPECT_TRUE(allocation.isDirty());
    EXPECT_EQ(opened->hostVolumeHeader().freeBlocks, freeBlocks - 70);
    EXPECT_TRUE(allocation.isClear(500, 10, result, nullptr));
    EXPECT_EQ(result, 1u);
    EXPECT_TRUE(allocation.isSet(501, 100, result, nullptr));
    EXPECT_EQ(result, 70u);
    EXPECT_TRUE(allocation.isClear(571, 100, result, nullptr));
    EXPECT_EQ(result, 100u);
}

TEST(HFSPlusAllocation, MarkingBeyondTheBitmapChangesNothing)
{
    HFSPlusOpenedVolume opened(smallVolume());
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusAllocation& allocation = opened->allocation();
    const uint32_t bits = static_cast<uint32_t>(allocation.logicalSize() * 8);
    const uint32_t freeBlocks = opened->hostVolumeHeader().freeBlocks;
    std::unique_ptr<VZDefragError> error;

    EXPECT_FALSE(allocation.set(bits - 10, 11, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(),
              "Allocation block " + std::to_string(bits + 1) + " is out of range.");
    EXPECT_FALSE(allocation.clear(0, bits + 1, nullptr));

    EXPECT_EQ(opened->hostVolumeHeader().freeBlocks, freeBlocks);
    EXPECT_FALSE(opened->needsFlush());
}

TEST(HFSPlusAllocation, RangeAcrossAChunkBoundaryTakesEachChunkOnce)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(3));
    ASSERT_TRUE(opened) << opened.error();
    uint32_t result = 0;

    EXPECT_TRUE(
        opened->allocation().isClear(kChunkBlocks - 100, kChunkBlocks + 200, result, nullptr));

    EXPECT_EQ(result, kChunkBlocks + 200u);
    EXPECT_EQ(readsOf(opened), 3u);
}

TEST(HFSPlusAllocation, ChunkThatCannotBeReadEndsATestWithTheBlocksBeforeIt)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(3));
    ASSERT_TRUE(opened) << opened.error();
    opened.faults().fail(FaultyBlockDevice::Operation::kRead, 2, EIO);
    std::unique_ptr<VZDefragError> error;
    uint32_t result = 0;

    EXPECT_FALSE(opened->allocation().isClear(kChunkBlocks - 100, 200, result, &error));

    EXPECT_EQ(result, 100u);
    ASSERT_NE(error, nullptr);
    EXPECT_TRUE(error->description().starts_with("Read failed with an error 5 at offset "));
}

TEST(HFSPlusAllocation, ChunkThatCannotBeReadEndsMarkingAfterTheBlocksBeforeIt)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(3));
    ASSERT_TRUE(opened) << opened.error();
    const uint32_t freeBlocks = opened->hostVolumeHeader().freeBlocks;
    opened.faults().fail(FaultyBlockDevice::Operation::kRead, 2, EIO);
    std::unique_ptr<VZDefragError> error;

    EXPECT_FALSE(opened->allocation().set(kChunkBlocks - 100, 200, &error));

    EXPECT_NE(error, nullptr);
    EXPECT_EQ(opened->hostVolumeHeader().freeBlocks, freeBlocks - 100);
}

TEST(HFSPlusAllocation, BitmapTooSmallForTheVolumeIsRefused)
{
    HFSPlusOpenedVolume opened(
        smallVolume().damage(damagedHeader("allocationFile.logicalSize", 124)));

    EXPECT_FALSE(opened);
    EXPECT_EQ(opened.error(), "Allocation file is inconsistent.");
}

TEST(HFSPlusAllocation, DumpOfARangeOutsideTheBitmapAborts)
{
    HFSPlusOpenedVolume opened(smallVolume());
    ASSERT_TRUE(opened) << opened.error();
    opened->allocation().dump(0, 0);
    opened->allocation().dump(0, 100);

    EXPECT_DEATH(opened->allocation().dump(0xFFFFFFFF, 1), "Allocation block 0 is out of range");
}

TEST(HFSPlusAllocation, DumpLogsOneCharacterPerBlock)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");

    EXPECT_EXIT(
        {
            setenv("KLDebugLevel", "debug", 1);
            HFSPlusOpenedVolume opened(smallVolume().file("/f", 30).data({{502, 3}}));
            opened->allocation().dump(500, 8);
            std::exit(0);
        },
        testing::ExitedWithCode(0), "\\]: 00111000\n");
}

TEST(HFSPlusAllocation, OpeningLogsTheSizeOfTheBitmap)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");

    EXPECT_EXIT(
        {
            setenv("KLDebugLevel", "info", 1);
            HFSPlusOpenedVolume opened(smallVolume());
            std::exit(0);
        },
        testing::ExitedWithCode(0), "Allocation size     = 4KiB \\(total blocks = 1\\)\n");
}

TEST(HFSPlusAllocation, RandomRunsMatchAPlainBitVector)
{
    constexpr uint32_t kBlocks = 2 * kChunkBlocks + 5000;
    HFSPlusOpenedVolume opened(
        HFSPlusVolumeBuilder{}.blockSize(512).totalBlocks(kBlocks).contents(false));
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusAllocation& allocation = opened->allocation();
    std::vector<bool> model(kBlocks);
    for (uint32_t block = 0; block < kBlocks; ++block) {
        model[block] = isSetOnDisk(opened, block);
    }
    std::mt19937 random(testSeed());
    for (int step = 0; step < 3000; ++step) {
        const uint32_t block = static_cast<uint32_t>(random() % kBlocks);
        const uint32_t limit = random() % 8 == 0 ? kBlocks : 300;
        const uint32_t count = std::min(static_cast<uint32_t>(random() % limit), kBlocks - block);
        const bool value = random() % 2 != 0;
        if (random() % 2 == 0) {
            ASSERT_TRUE(value ? allocation.set(block, count, nullptr)
                              : allocation.clear(block, count, nullptr));
            std::fill_n(model.begin() + block, count, value);
            continue;
        }
        uint32_t expected = 0;
        while (expected < count && model[block + expected] == value) {
            ++expected;
        }
        uint32_t result = kUntouched;
        ASSERT_TRUE(value ? allocation.isSet(block, count, result, nullptr)
                          : allocation.isClear(block, count, result, nullptr));
        ASSERT_EQ(result, expected) << "block " << block << " count " << count;
    }
    ASSERT_TRUE(allocation.flush());
    for (uint32_t block = 0; block < kBlocks; ++block) {
        ASSERT_EQ(isSetOnDisk(opened, block), model[block]) << "block " << block;
    }
}
