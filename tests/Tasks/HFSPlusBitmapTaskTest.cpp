#include "Tasks/HFSPlusBitmapTask.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "HFSPlus/HFSPlusAllocation.h"
#include "Tasks/TaskRun.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"

namespace {

using Lines = std::vector<std::string>;

constexpr uint32_t kChunkBlocks = 262144;  // of the usual block sizes

Lines bitmapOf(const HFSPlusOpenedVolume& volume, const std::string& line)
{
    return runReport<HFSPlusBitmapTask>(*volume, line);
}

/** A volume of @p totalBlocks blocks with the bitmap that @p pattern repeats, from block 0 on. */
HFSPlusVolumeBuilder volumeWithBitmap(uint32_t totalBlocks, const std::string& pattern,
                                      uint32_t blockSize = 32768)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(blockSize).totalBlocks(totalBlocks);
    builder.damage([pattern, totalBlocks](HFSPlusVolumeBuilderPatcher& patcher) {
        bool done = true;
        for (uint32_t block = 0; block < totalBlocks; ++block) {
            done = patcher.bitmap(block, pattern[block % pattern.size()] == '1') && done;
        }
        return done;
    });
    return builder;
}

Lines bitmapOf16Blocks(const std::string& bits, const std::string& line)
{
    const HFSPlusOpenedVolume volume(volumeWithBitmap(16, bits));
    EXPECT_TRUE(volume) << volume.error();
    return bitmapOf(volume, line);
}

/** The text behind @p record of the only such line. */
std::string valueOf(const Lines& lines, const std::string& record)
{
    std::string value = "none";
    const std::string prefix = "BITMAP," + record + ",";
    for (const std::string& line : lines) {
        if (line.starts_with(prefix)) {
            EXPECT_EQ(value, "none") << record << " twice";
            value = line.substr(prefix.size());
        }
    }
    return value;
}

std::string errorOf(const std::string& line)
{
    const Lines lines = bitmapOf16Blocks("1", line);
    EXPECT_EQ(lines.size(), 3u) << "more than START, ERROR and DONE";
    return valueOf(lines, "ERROR");
}

HFSPlusVolumeBuilder volumeOfChunks(uint32_t chunks)
{
    return HFSPlusVolumeBuilder{}.blockSize(512).totalBlocks(chunks * kChunkBlocks).contents(false);
}

}  // namespace

TEST(HFSPlusBitmapTask, ScaleOneOnSixteenBlocksPrintsALengthOfTwoAndFourDigits)
{
    EXPECT_EQ(bitmapOf16Blocks("1101001110110001", "BITMAP 1"),
              (Lines{"BITMAP,START", "BITMAP,LENGTH,2", "BITMAP,DATA,D3B1",
                     "BITMAP,FIRSTUNUSEDBLOCK,2", "BITMAP,LASTUSEDBLOCK,11", "BITMAP,DONE"}));
}

TEST(HFSPlusBitmapTask, ScaleThreeOnSixteenBlocksPrintsALengthOfOneAndTwoDigits)
{
    // 110 100 111 011 000 1: the last block is too few for a group.
    EXPECT_EQ(bitmapOf16Blocks("1101001110110001", "BITMAP 3"),
              (Lines{"BITMAP,START", "BITMAP,LENGTH,1", "BITMAP,DATA,B0",
                     "BITMAP,FIRSTUNUSEDBLOCK,2", "BITMAP,LASTUSEDBLOCK,11", "BITMAP,DONE"}));
    // The fifth group begins the second digit.
    EXPECT_EQ(valueOf(bitmapOf16Blocks("1101001110111101", "BITMAP 3"), "DATA"), "B8");
}

TEST(HFSPlusBitmapTask, AGroupWithAsManyUsedAsFreeBlocksCountsAsUsed)
{
    EXPECT_EQ(valueOf(bitmapOf16Blocks("1010000100110010", "BITMAP 4"), "DATA"), "A0");
}

TEST(HFSPlusBitmapTask, WithMTheFirstFreeBlockIsNeverBelowTheFirstDataBlock)
{
    const HFSPlusOpenedVolume volume(volumeWithBitmap(800, "0", 512));
    ASSERT_TRUE(volume) << volume.error();
    const uint32_t firstDataBlock = volume->firstDataBlock();
    ASSERT_GT(firstDataBlock, 1u);

    EXPECT_EQ(valueOf(bitmapOf(volume, "BITMAP 1"), "FIRSTUNUSEDBLOCK"), "0");
    EXPECT_EQ(valueOf(bitmapOf(volume, "BITMAP -m 1"), "FIRSTUNUSEDBLOCK"),
              std::to_string(firstDataBlock));
}

TEST(HFSPlusBitmapTask, MMayStandOnBothSidesOfTheScale)
{
    const HFSPlusOpenedVolume volume(volumeWithBitmap(800, "0", 512));
    const Lines before = bitmapOf(volume, "BITMAP -m 7");

    EXPECT_EQ(bitmapOf(volume, "BITMAP 7 -m"), before);
    EXPECT_EQ(bitmapOf(volume, "BITMAP -m 7 -m"), before);
    EXPECT_NE(bitmapOf(volume, "BITMAP 7"), before);
}

TEST(HFSPlusBitmapTask, MaskingChangesNothingOfTheBitmapItself)
{
    const HFSPlusOpenedVolume volume(volumeWithBitmap(800, "0", 512));
    const Lines before = bitmapOf(volume, "BITMAP 1");

    ASSERT_NE(bitmapOf(volume, "BITMAP -m 1"), before);

    EXPECT_EQ(bitmapOf(volume, "BITMAP 1"), before);
}

TEST(HFSPlusBitmapTask, AFullBitmapOfWholeBytesHasNoFirstUnusedBlock)
{
    const Lines lines = bitmapOf16Blocks("1", "BITMAP 1");

    EXPECT_EQ(valueOf(lines, "FIRSTUNUSEDBLOCK"), "4294967295");
    EXPECT_EQ(valueOf(lines, "LASTUSEDBLOCK"), "14");
}

TEST(HFSPlusBitmapTask, AFullVolumeThatEndsInsideAByteReportsTheFirstBitPastItsEnd)
{
    const HFSPlusOpenedVolume volume(volumeWithBitmap(20, "1"));
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(bitmapOf(volume, "BITMAP 1"),
              (Lines{"BITMAP,START", "BITMAP,LENGTH,3", "BITMAP,DATA,FFFFF0",
                     "BITMAP,FIRSTUNUSEDBLOCK,20", "BITMAP,LASTUSEDBLOCK,18", "BITMAP,DONE"}));
}

TEST(HFSPlusBitmapTask, AnEmptyBitmapHasNoLastUsedBlock)
{
    EXPECT_EQ(valueOf(bitmapOf16Blocks("0", "BITMAP 1"), "LASTUSEDBLOCK"), "0");
}

TEST(HFSPlusBitmapTask, TheBlocksOfTheAlternateHeaderAreNeverTheLastUsedOnes)
{
    const HFSPlusOpenedVolume small(volumeWithBitmap(801, "1", 512));
    const HFSPlusOpenedVolume larger(volumeWithBitmap(801, "1", 1024));

    EXPECT_EQ(valueOf(bitmapOf(small, "BITMAP 64"), "LASTUSEDBLOCK"), "798");
    EXPECT_EQ(valueOf(bitmapOf(larger, "BITMAP 64"), "LASTUSEDBLOCK"), "799");
}

TEST(HFSPlusBitmapTask, TheLargestScaleHasALengthOfOneAndNoBit)
{
    EXPECT_EQ(
        bitmapOf16Blocks("1", "BITMAP 2147483647"),
        (Lines{"BITMAP,START", "BITMAP,LENGTH,1", "BITMAP,DATA,00",
               "BITMAP,FIRSTUNUSEDBLOCK,4294967295", "BITMAP,LASTUSEDBLOCK,14", "BITMAP,DONE"}));
}

TEST(HFSPlusBitmapTask, AScaleIsTheNumberThatAWordBeginsWith)
{
    const Lines three = bitmapOf16Blocks("1101001110110001", "BITMAP 3");

    for (const char* word : {"3x", "+3", "003", "3.9", "3,5", "3-"}) {
        EXPECT_EQ(bitmapOf16Blocks("1101001110110001", std::string("BITMAP ") + word), three)
            << word;
    }
}

TEST(HFSPlusBitmapTask, AScaleBeyond32BitsIsTheLargestOfThem)
{
    const Lines largest = bitmapOf16Blocks("1", "BITMAP 2147483647");

    for (const char* word : {"2147483648", "4294967299", "99999999999999999999999"}) {
        EXPECT_EQ(bitmapOf16Blocks("1", std::string("BITMAP ") + word), largest) << word;
    }
}

TEST(HFSPlusBitmapTask, NoScaleGivenIsRefused)
{
    EXPECT_EQ(errorOf("BITMAP"), "Scale argument is required.");
    EXPECT_EQ(errorOf("BITMAP -m"), "Scale argument is required.");
}

TEST(HFSPlusBitmapTask, AScaleThatIsNoPositiveIntegerIsRefused)
{
    for (const char* word : {"x", "-", "+", "+-3", "-+3", "--3", "0", "-0", "0x10", "-1", "-x",
                             "-2147483649", "-99999999999999999999999"}) {
        EXPECT_EQ(errorOf(std::string("BITMAP ") + word),
                  std::string(word) + " is not a positive integer.");
    }
    EXPECT_EQ(errorOf("BITMAP x,y\\z"), "x\\,y\\\\z is not a positive integer.");
}

TEST(HFSPlusBitmapTask, AnyArgumentAfterTheScaleOtherThanMIsUnknown)
{
    EXPECT_EQ(errorOf("BITMAP 1 2"), "Unknown option: 2");
    EXPECT_EQ(errorOf("BITMAP 1 -m 0"), "Unknown option: 0");
    EXPECT_EQ(errorOf("BITMAP 1 -x"), "Unknown option: -x");
}

TEST(HFSPlusBitmapTask, AnUnreadableBitmapEndsWithTheChunksError)
{
    const HFSPlusOpenedVolume volume(volumeOfChunks(3));
    ASSERT_TRUE(volume) << volume.error();
    volume.faults().fail(FaultyBlockDevice::Operation::kRead, 1, EIO,
                         FaultyBlockDevice::Lasting::kFromThenOn);

    const Lines lines = bitmapOf(volume, "BITMAP 4096");

    ASSERT_TRUE(volume.faults().faultReached());
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "BITMAP,START");
    EXPECT_EQ(lines[1], "BITMAP,LENGTH,24");
    EXPECT_TRUE(lines[2].starts_with("BITMAP,ERROR,")) << lines[2];
    EXPECT_EQ(lines[3], "BITMAP,DONE");
}

TEST(HFSPlusBitmapTask, DataPrintedBeforeAnUnreadableChunkStaysPrinted)
{
    const HFSPlusOpenedVolume volume(volumeOfChunks(3));
    ASSERT_TRUE(volume) << volume.error();
    const Lines whole = bitmapOf(volume, "BITMAP 1");
    const HFSPlusOpenedVolume again(volumeOfChunks(3));
    // All chunks together, the first one, and the second one.
    again.faults().fail(FaultyBlockDevice::Operation::kRead, 1, EIO);
    again.faults().fail(FaultyBlockDevice::Operation::kRead, 3, EIO,
                        FaultyBlockDevice::Lasting::kFromThenOn);

    const Lines lines = bitmapOf(again, "BITMAP 1");

    // START, LENGTH and the 16 lines of each chunk
    ASSERT_EQ(whole.size(), 2 + 3 * 16 + 3u);
    ASSERT_EQ(lines.size(), 2 + 16 + 2u);
    EXPECT_EQ(Lines(lines.begin(), lines.end() - 2), Lines(whole.begin(), whole.begin() + 18));
    EXPECT_TRUE(lines[18].starts_with("BITMAP,ERROR,")) << lines[18];
    EXPECT_EQ(lines[19], "BITMAP,DONE");
}

TEST(HFSPlusBitmapTask, GroupsRunAcrossChunks)
{
    const HFSPlusOpenedVolume volume(volumeOfChunks(2));
    ASSERT_TRUE(volume) << volume.error();
    constexpr uint32_t kScale = 200000;
    // Half of the second group is used, on both sides of where the second chunk begins.
    ASSERT_TRUE(volume->allocation().set(kChunkBlocks - 60000, 100000, nullptr));

    EXPECT_EQ(valueOf(bitmapOf(volume, "BITMAP " + std::to_string(kScale)), "DATA"), "40");
    ASSERT_TRUE(volume->allocation().clear(kChunkBlocks + 39999, 1, nullptr));
    EXPECT_EQ(valueOf(bitmapOf(volume, "BITMAP " + std::to_string(kScale)), "DATA"), "00");
}

TEST(HFSPlusBitmapTask, ChangesThatAreNotYetOnDiskArePrinted)
{
    const HFSPlusOpenedVolume volume(HFSPlusVolumeBuilder{}.blockSize(4096).totalBlocks(1000));
    ASSERT_TRUE(volume) << volume.error();
    ASSERT_EQ(valueOf(bitmapOf(volume, "BITMAP 1"), "LASTUSEDBLOCK").size(), 2u);

    ASSERT_TRUE(volume->allocation().set(900, 1, nullptr));

    EXPECT_EQ(valueOf(bitmapOf(volume, "BITMAP 1"), "LASTUSEDBLOCK"), "900");
    EXPECT_EQ(volume.memory().writeCount(), 0u);
}

TEST(HFSPlusBitmapTask, WaitsForTheVolumeWhileAnotherUsesIt)
{
    const HFSPlusOpenedVolume volume(HFSPlusVolumeBuilder{}.blockSize(4096).totalBlocks(1000));
    ASSERT_TRUE(volume) << volume.error();
    std::promise<void> closed;
    std::atomic<bool> ended = false;
    std::thread other([&] {
        const KLClosedGate gate(volume->gate());
        closed.set_value();
        while (volume->gate().waiterCount() == 0 && !ended) {
            std::this_thread::yield();
        }
        EXPECT_TRUE(volume->allocation().set(900, 1, nullptr));
    });
    closed.get_future().wait();

    const Lines lines = bitmapOf(volume, "BITMAP 1");
    ended = true;
    other.join();

    EXPECT_EQ(valueOf(lines, "LASTUSEDBLOCK"), "900");
}

TEST(HFSPlusBitmapTask, AnAbortEndsBetweenChunksWithNothingButDone)
{
    const HFSPlusOpenedVolume volume(volumeOfChunks(3));
    ASSERT_TRUE(volume) << volume.error();
    const auto event = std::make_shared<KLToolEvent>(KLToolEventStringType, "BITMAP 1");
    const auto task = std::make_shared<HFSPlusBitmapTask>(*volume, event);
    task->abort();

    EXPECT_EQ(runTask(*task), (Lines{"BITMAP,START", "BITMAP,LENGTH,98304", "BITMAP,DONE"}));
    EXPECT_EQ(volume.memory().readCount(), 0u);
}

TEST(HFSPlusBitmapTask, AVolumeOfAllBlocksThat32BitsNumberIsDrawnToItsEnd)
{
    constexpr uint32_t kTotalBlocks = 0xFFFFFFF9;
    const HFSPlusOpenedVolume volume(
        HFSPlusVolumeBuilder{}.blockSize(512).totalBlocks(kTotalBlocks).contents(false));
    ASSERT_TRUE(volume) << volume.error();
    ASSERT_TRUE(volume->allocation().set(kTotalBlocks - 4, 1, nullptr));

    const Lines lines = bitmapOf(volume, "BITMAP 2147483647");

    EXPECT_EQ(valueOf(lines, "LENGTH"), "1");
    EXPECT_EQ(valueOf(lines, "DATA"), "00");
    EXPECT_EQ(valueOf(lines, "LASTUSEDBLOCK"), std::to_string(kTotalBlocks - 4));
}

TEST(HFSPlusBitmapTask, ReadsManyChunksAtOnce)
{
    const HFSPlusOpenedVolume volume(volumeOfChunks(33));
    ASSERT_TRUE(volume) << volume.error();

    ASSERT_EQ(valueOf(bitmapOf(volume, "BITMAP -m 100"), "LENGTH"), "10814");

    EXPECT_EQ(volume.memory().readCount(), 2u);
}
