#include "Tasks/HFSPlusDefragTask.h"

#include <gtest/gtest.h>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusVolumeProber.h"
#include "Tasks/DefragRun.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"
#include "support/MountedOpener.h"

namespace {

constexpr uint64_t kBuffer = 64 * 1024;  // 16 blocks of 4096 bytes

HFSPlusVolumeBuilder fragmentedVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(1000);
    builder.file("/movie", 20).data({{300, 10}, {400, 25}, {200, 5}});
    builder.file("/song", 21).data({{310, 4}, {500, 4}}).resource({{504, 2}, {320, 2}});
    return builder;
}

std::string errorOfWords(std::vector<std::string> words)
{
    HFSPlusOpenedVolume volume(fragmentedVolume());
    const DefragOutput output = runDefrag(*volume, kBuffer, std::move(words));
    EXPECT_TRUE(output.isWhole());
    return output.error();
}

}  // namespace

TEST(HFSPlusDefragTask, AFragmentedVolumeEndsWithOneExtentAFork)
{
    HFSPlusOpenedVolume volume(fragmentedVolume());
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusForkHashes before = volume.hashes();
    const uint32_t freeBlocks = volume.check().freeBlocks;

    const DefragOutput output = runDefrag(*volume, kBuffer);

    ASSERT_TRUE(output.isWhole());
    EXPECT_EQ(output.error(), "");
    const HFSPlusCheckResult after = volume.check();
    EXPECT_TRUE(after.consistent) << after.description();
    EXPECT_EQ(after.freeBlocks, freeBlocks);
    for (const HFSPlusCheckedFork& fork : after.forks) {
        EXPECT_LE(fork.extents.size(), 1u) << fork;
    }
    EXPECT_EQ(volume.hashes(), before);
}

TEST(HFSPlusDefragTask, ASecondRunMovesNothing)
{
    HFSPlusOpenedVolume volume(fragmentedVolume());
    ASSERT_NE(runDefrag(*volume, kBuffer).moves().size(), 0u);

    const DefragOutput second = runDefrag(*volume, kBuffer);

    EXPECT_EQ(second.lines, (std::vector<std::string>{"DEFRAG,START", "DEFRAG,DONE"}));
}

TEST(HFSPlusDefragTask, AnUnknownOptionIsNamed)
{
    EXPECT_EQ(errorOfWords({"DEFRAG", "-x"}), "Unknown option: -x");
}

TEST(HFSPlusDefragTask, AListOfBothProfilesIsUnderstood)
{
    EXPECT_EQ(errorOfWords({"DEFRAG", "--profile", "boot,app"}), "");
    EXPECT_EQ(errorOfWords({"DEFRAG", "-p", " app ,\tboot"}), "");
    EXPECT_EQ(errorOfWords({"DEFRAG", "-p", "app"}), "");
}

TEST(HFSPlusDefragTask, AnyOtherProfileIsUnknown)
{
    EXPECT_EQ(errorOfWords({"DEFRAG", "--profile", "fast"}), "Unknown profile: fast");
    EXPECT_EQ(errorOfWords({"DEFRAG", "--profile", "boot,fast"}), "Unknown profile: fast");
    EXPECT_EQ(errorOfWords({"DEFRAG", "--profile", "boot,"}), "Unknown profile: ");
}

TEST(HFSPlusDefragTask, AProfileOptionWithoutAListRequiresAnArgument)
{
    EXPECT_EQ(errorOfWords({"DEFRAG", "--profile"}), "Option --profile requires an argument.");
    EXPECT_EQ(errorOfWords({"DEFRAG", "-q", "-p"}), "Option -p requires an argument.");
}

TEST(HFSPlusDefragTask, ARefusedCommandLeavesTheVolumeUntouched)
{
    HFSPlusOpenedVolume volume(fragmentedVolume());
    const auto before = volume.memory().clone();

    ASSERT_NE(runDefrag(*volume, kBuffer, {"DEFRAG", "-x"}).error(), "");
    volume.close();

    EXPECT_TRUE(volume.memory().hasSameBytesAs(*before));
}

TEST(HFSPlusDefragTask, AReadOnlyVolumeIsRefused)
{
    HFSPlusVolumeBuilder builder = fragmentedVolume();
    builder.damage(damagedHeader("attributes", 0x00008100));
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(runDefrag(*volume, kBuffer).error(), "Volume is read-only.");
}

TEST(HFSPlusDefragTask, AMountedVolumeIsRefused)
{
    HFSPlusVolumeBuilder builder = fragmentedVolume();
    const auto memory = builder.build();
    MountedOpener opener(*memory);
    HFSPlusVolumeProber prober;
    std::unique_ptr<VZDefragError> failure;
    const auto volume = VZDefragVolume::initWithDevice("/dev/memory", opener, prober, &failure);
    ASSERT_NE(volume, nullptr) << failure->description();

    EXPECT_EQ(runDefrag(static_cast<HFSPlusVolume&>(*volume), kBuffer).error(),
              "Volume is mounted.");
}

TEST(HFSPlusDefragTask, AVolumeWithoutAFreeBlockIsLeftAsItIs)
{
    HFSPlusVolumeBuilder plain;
    plain.blockSize(4096).totalBlocks(400);
    ASSERT_NE(plain.build(), nullptr) << plain.error();
    const uint32_t used = 400 - plain.plan().bitmap.freeBlocks();
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(400);
    builder.file("/rest", 20).automaticData(400 - used);
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    ASSERT_EQ(volume.check().freeBlocks, 0u);

    const DefragOutput output = runDefrag(*volume, kBuffer);

    EXPECT_EQ(output.lines, (std::vector<std::string>{"DEFRAG,START", "DEFRAG,DONE"}));
}

TEST(HFSPlusDefragTask, QuietRunsPrintNoMoves)
{
    HFSPlusOpenedVolume volume(fragmentedVolume());

    const DefragOutput output = runDefrag(*volume, kBuffer, {"DEFRAG", "--quiet"});

    EXPECT_EQ(output.error(), "");
    EXPECT_TRUE(output.moves().empty());
    const HFSPlusCheckResult after = volume.check();
    EXPECT_EQ(after.forkWithCNID(20)->extents.size(), 1u);
}

TEST(HFSPlusDefragTask, EveryMoveTellsPercentPlacesCountAndUsedBlocks)
{
    HFSPlusOpenedVolume volume(fragmentedVolume());
    const HFSPlusCheckResult before = volume.check();

    const std::vector<DefragMove> moves = runDefrag(*volume, kBuffer).moves();

    ASSERT_FALSE(moves.empty());
    int percent = 0;
    for (const DefragMove& move : moves) {
        EXPECT_EQ(move.allocatedBlocks, before.totalBlocks - before.freeBlocks);
        EXPECT_GE(move.percent, percent);
        percent = move.percent;
    }
}

TEST(HFSPlusDefragTask, UsedBlocksAreThoseOfTheRunsBeginningAndNotOfTheTasksCreation)
{
    HFSPlusOpenedVolume volume(fragmentedVolume());
    const uint32_t used = 1000 - volume->hostVolumeHeader().freeBlocks;

    const DefragOutput output = runDefrag(*volume, kBuffer, {"DEFRAG"}, [&](HFSPlusDefragTask&) {
        EXPECT_TRUE(volume->allocation().set(900, 1, nullptr));
    });

    ASSERT_NE(output.moves().size(), 0u);
    EXPECT_EQ(output.moves().front().allocatedBlocks, used + 1);
}

TEST(HFSPlusDefragTask, ForksOfTheProfileComeFirstInItsOrder)
{
    HFSPlusVolumeBuilder builder = fragmentedVolume();
    HFSPlusOpenedVolume volume(builder);

    const DefragOutput output =
        runDefrag(*volume, kBuffer, {"DEFRAG"}, [&](HFSPlusDefragTask& task) {
            auto forks = std::make_unique<HFSPlusFileForkSet>(*volume);
            forks->add(21, kHFSResourceForkType);
            forks->add(20, kHFSDataForkType);
            task.setProfileFileForks(std::move(forks));
        });

    EXPECT_EQ(output.error(), "");
    const HFSPlusCheckResult after = volume.check();
    EXPECT_TRUE(after.consistent) << after.description();
    const HFSPlusCheckedFork& first = *after.forkWithCNID(21, kHFSResourceForkType);
    const HFSPlusCheckedFork& second = *after.forkWithCNID(20);
    ASSERT_EQ(first.extents.size(), 1u);
    ASSERT_EQ(second.extents.size(), 1u);
    EXPECT_EQ(first.extents[0].startBlock, (*volume).firstDataBlock());
    EXPECT_EQ(second.extents[0].startBlock,
              first.extents[0].startBlock + first.extents[0].blockCount);
}

TEST(HFSPlusDefragTask, AProfileThatNamesTheJournalDoesNotMoveIt)
{
    HFSPlusVolumeBuilder builder = fragmentedVolume();
    builder.journal(600, 40).journalInfoBlock(700);
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogLookupRecord journal;
    ASSERT_TRUE((*volume).catalog().copyRecordForPath(journal, "/.journal", nullptr));

    const DefragOutput output =
        runDefrag(*volume, kBuffer, {"DEFRAG"}, [&](HFSPlusDefragTask& task) {
            auto forks = std::make_unique<HFSPlusFileForkSet>(*volume);
            forks->add(journal.cnid(), kHFSDataForkType);
            task.setProfileFileForks(std::move(forks));
        });

    EXPECT_EQ(output.error(), "");
    const HFSPlusCheckResult after = volume.check();
    EXPECT_TRUE(after.consistent) << after.description();
    EXPECT_EQ(after.forkWithCNID(journal.cnid())->extents,
              (std::vector<HFSPlusCheckedExtent>{{600, 40}}));
}
