#include "Tasks/HFSPlusFragInfoTask.h"

#include <gtest/gtest.h>

#include "KLKit/KLDebug.h"
#include "Tasks/ReportRun.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"

namespace {

/** Without a journal data begin behind the volume header: at block 3 of 512 bytes. */
HFSPlusVolumeBuilder smallVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(8000).contents(false);
    return builder;
}

/** A journaled volume, whose front is kept for metadata. */
HFSPlusVolumeBuilder zonedVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(3 * 1024 * 1024).contents(false).journal();
    return builder;
}

Lines fragInfo(HFSPlusVolume& volume, const std::string& words = "")
{
    return framed(runReport<HFSPlusFragInfoTask>(volume, "FRAGINFO " + words), "FRAGINFO");
}

Lines fragInfoOf(HFSPlusVolumeBuilder builder, const std::string& words = "")
{
    const HFSPlusOpenedVolume volume(std::move(builder));
    EXPECT_TRUE(volume) << volume.error();
    return volume ? fragInfo(*volume, words) : Lines();
}

/** The first data block of the volume that @p builder makes. */
uint32_t firstDataBlock(HFSPlusVolumeBuilder builder)
{
    const HFSPlusOpenedVolume volume(std::move(builder));
    EXPECT_TRUE(volume) << volume.error();
    return volume ? volume->firstDataBlock() : 0;
}

}  // namespace

TEST(HFSPlusFragInfoTask, AVolumeOfFilesInOneExtentEachHasNoFragmentedBlocks)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/a", 20).data({{2000, 10}});
    builder.file("/b", 21).data({{2010, 5}}).resource({{3000, 7}});

    EXPECT_EQ(fragInfoOf(builder), Lines({"FRAGINFO,0,22,0"}));
}

TEST(HFSPlusFragInfoTask, AnEmptyVolumeHasNothingOfNothing)
{
    EXPECT_EQ(fragInfoOf(smallVolume()), Lines({"FRAGINFO,0,0,0"}));
}

TEST(HFSPlusFragInfoTask, AnExtentInTheMetadataZoneNeitherCountsNorMakesAForkFragmented)
{
    const uint32_t first = firstDataBlock(zonedVolume());
    ASSERT_GT(first, 10000u);
    HFSPlusVolumeBuilder builder = zonedVolume();
    builder.file("/a", 20).data({{first - 20, 8}, {first + 100, 30}});
    builder.file("/b", 21).data({{first + 200, 2}, {first + 300, 3}});

    EXPECT_EQ(fragInfoOf(builder), Lines({"FRAGINFO,5,35,14"}));
}

TEST(HFSPlusFragInfoTask, AnExtentThatEndsWhereDataBeginLiesInTheZone)
{
    const uint32_t first = firstDataBlock(zonedVolume());
    HFSPlusVolumeBuilder builder = zonedVolume();
    builder.file("/a", 20).data({{first - 8, 8}, {first + 100, 30}});

    EXPECT_EQ(fragInfoOf(builder), Lines({"FRAGINFO,0,30,0"}));
}

TEST(HFSPlusFragInfoTask, AnExtentAcrossTheFirstDataBlockCountsOnlyWithWhatLiesBeyond)
{
    const uint32_t first = firstDataBlock(zonedVolume());
    HFSPlusVolumeBuilder builder = zonedVolume();
    builder.file("/a", 20).data({{first - 20, 21}, {first + 100, 30}});

    EXPECT_EQ(fragInfoOf(builder), Lines({"FRAGINFO,31,31,100"}));
}

TEST(HFSPlusFragInfoTask, OnlyTheFragmentedForkOfAFileCountsAsFragmented)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/a", 20).data({{2000, 10}, {2020, 10}, {2040, 10}}).resource({{3000, 60}});

    EXPECT_EQ(fragInfoOf(builder), Lines({"FRAGINFO,30,90,33"}));
}

TEST(HFSPlusFragInfoTask, ExtentsInOverflowRecordsCount)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    HFSPlusBuilderExtents extents;
    for (uint32_t index = 0; index < 20; ++index) {
        extents.push_back({2000 + 3 * index, 2});
    }
    builder.file("/a", 20).resource(extents);

    EXPECT_EQ(fragInfoOf(builder), Lines({"FRAGINFO,40,40,100"}));
}

TEST(HFSPlusFragInfoTask, With50000000FragmentedBlocksThePercentageWrapsIn32Bits)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(60000000).contents(false);
    builder.file("/a", 20).data({{9000000, 25000000}, {34000001, 25000000}});

    // 5000000000 - 4294967296 = 705032704, divided by 50000000.
    EXPECT_EQ(fragInfoOf(builder), Lines({"FRAGINFO,50000000,50000000,14"}));
}

TEST(HFSPlusFragInfoTask, AWordAfterTheCommandIsAnErrorAndNothingIsScanned)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/a", 20).data({{2000, 10}});

    EXPECT_EQ(fragInfoOf(builder, "-a b"), Lines({"FRAGINFO,ERROR,Unknown option: -a"}));
}

TEST(HFSPlusFragInfoTask, AMissingOverflowRecordLeavesTheErrorAlone)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    HFSPlusBuilderExtents extents;
    for (uint32_t index = 0; index < 10; ++index) {
        extents.push_back({2000 + 2 * index, 1});
    }
    builder.file("/a", 20).data(extents);
    HFSPlusVolumeBuilder unreadable = builder;
    builder.damage(damagedOverflowRecord(20, 0, 8, "extents[0].startBlock", 0));
    unreadable.damage([](HFSPlusVolumeBuilderPatcher& patcher) {
        return patcher.node(3, patcher.plan().extentsTree.rootNode, "numRecords", 0xFFFF);
    });

    EXPECT_EQ(fragInfoOf(builder), Lines({"FRAGINFO,ERROR,Overflow extent record missing."}));
    EXPECT_EQ(fragInfoOf(unreadable),
              Lines({"FRAGINFO,ERROR,Overflow extents file is inconsistent."}));
}

TEST(HFSPlusFragInfoTask, AnAbortedScanPrintsNeitherRecordNorError)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/a", 20).data({{2000, 10}});
    const HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    const auto event = std::make_shared<KLToolEvent>(KLToolEventStringType, "FRAGINFO");
    const auto task = std::make_shared<HFSPlusFragInfoTask>(*volume, event);
    task->abort();

    EXPECT_EQ(runTask(*task), Lines({"FRAGINFO,START", "FRAGINFO,DONE"}));
}

TEST(HFSPlusFragInfoTask, PrintsNoProgress)
{
    ImmediateServices services;
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/a", 20).data({{2000, 10}});

    EXPECT_EQ(fragInfoOf(builder), Lines({"FRAGINFO,0,10,0"}));
}

TEST(HFSPlusFragInfoTask, WaitsForTheVolumesGateBeforeItLooksAtTheVolume)
{
    const HFSPlusOpenedVolume volume(smallVolume());
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_TRUE(waitsForGate<HFSPlusFragInfoTask>(*volume, "FRAGINFO"));
    EXPECT_FALSE(waitsForGate<HFSPlusFragInfoTask>(*volume, "FRAGINFO word"));
}
