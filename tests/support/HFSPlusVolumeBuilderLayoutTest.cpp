#include <gtest/gtest.h>

#include "support/HFSPlusVolumeBuilderTesting.h"

namespace {

using CheckedExtents = std::vector<HFSPlusCheckedExtent>;

class HFSPlusVolumeBuilderBlockSize : public testing::TestWithParam<uint32_t> {};

TEST_P(HFSPlusVolumeBuilderBlockSize, APlainVolumeIsSound)
{
    auto builder = HFSPlusVolumeBuilder{}.blockSize(GetParam()).totalBlocks(3000);
    builder.file("/a/b", 50).data(comb(500, 100, 1, 3)).resource(comb(501, 30, 1, 3));
    builder.file("/c").data({{2000, 7}}).dataSize(5 * uint64_t{GetParam()} + 1);

    const auto device = builtSound(builder);

    ASSERT_NE(device, nullptr);
    EXPECT_EQ(checked(*device).blockSize, GetParam());
}

TEST_P(HFSPlusVolumeBuilderBlockSize, AJournaledVolumeIsSound)
{
    auto builder = HFSPlusVolumeBuilder{}.blockSize(GetParam()).totalBlocks(6000).journal();
    builder.file("/a", 50).data(comb(3500, 100, 1, 3));

    const auto device = builtSound(builder);

    ASSERT_NE(device, nullptr);
    EXPECT_NE(checked(*device).attributes & 0x2000, 0U);
}

TEST_P(HFSPlusVolumeBuilderBlockSize, AWrappedVolumeIsSound)
{
    auto builder = HFSPlusVolumeBuilder{}.blockSize(GetParam()).totalBlocks(3000).wrapper();
    builder.file("/a", 50).data({{500, 20}});

    const auto device = builtSound(builder);

    ASSERT_NE(device, nullptr);
    EXPECT_EQ(checked(*device).volumeOffset, builder.plan().volumeOffset);
    EXPECT_GT(builder.plan().volumeOffset, 4096U);
}

INSTANTIATE_TEST_SUITE_P(All, HFSPlusVolumeBuilderBlockSize,
                         testing::Values(512, 1024, 2048, 4096, 8192, 16384, 32768, 65536,
                                         1 << 20));

TEST(HFSPlusVolumeBuilderLayout, TheJournalLiesWhereItWasPut)
{
    auto builder = HFSPlusVolumeBuilder{}.totalBlocks(6000).journal(1000, 512).journalInfoBlock(5);
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    const HFSPlusCheckResult result = checked(*device);
    EXPECT_EQ(result.journalInfoBlock, 5U);
    EXPECT_EQ(result.forkWithCNID(16)->extents, (CheckedExtents{{5, 1}}));
    EXPECT_EQ(result.forkWithCNID(17)->extents, (CheckedExtents{{1000, 512}}));
}

TEST(HFSPlusVolumeBuilderLayout, JournalsOfEitherByteOrderAndBlankOnesAreSound)
{
    for (const bool littleEndian : {false, true}) {
        HFSPlusBuilderJournal journal;
        journal.littleEndian = littleEndian;
        journal.blank = !littleEndian;
        journal.flags = littleEndian ? 1 : 5;
        auto builder = HFSPlusVolumeBuilder{}.totalBlocks(2000).journalDetails(journal);
        EXPECT_NE(builtSound(builder), nullptr);
    }
}

TEST(HFSPlusVolumeBuilderLayout, AJournalWithAWaitingTransactionIsNotEmpty)
{
    HFSPlusBuilderJournal journal;
    journal.pending = true;
    auto builder = HFSPlusVolumeBuilder{}.totalBlocks(2000).journalDetails(journal);
    const auto device = builder.build();
    ASSERT_NE(device, nullptr) << builder.error();

    EXPECT_FALSE(checked(*device).consistent);
}

TEST(HFSPlusVolumeBuilderLayout, BothKindsOfHFSXVolumesAreSound)
{
    auto folding = HFSPlusVolumeBuilder{}.hfsx().file("/a/b").folder("/a/c").folder("/D");
    auto binary = HFSPlusVolumeBuilder{}.hfsx(true).file("/a/b").file("/a/B").folder("/D");

    EXPECT_NE(builtSound(folding), nullptr);
    EXPECT_NE(builtSound(binary), nullptr);
}

TEST(HFSPlusVolumeBuilderLayout, AVolumeMayEndInAPartOfABlock)
{
    for (const uint64_t tail : {512U, 1536U, 3584U}) {
        auto builder = HFSPlusVolumeBuilder{}.totalBlocks(1000).trailingBytes(tail);
        const auto device = builtSound(builder);
        ASSERT_NE(device, nullptr);
        EXPECT_EQ(device->size(), 1000 * 4096 + tail);
        EXPECT_EQ(checked(*device).totalBlocks, 1000U);
    }
}

TEST(HFSPlusVolumeBuilderLayout, BadBlocksAreOverflowRecordsOfFileFive)
{
    auto builder = HFSPlusVolumeBuilder{}.badBlocks(comb(700, 20, 1, 2));
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    const HFSPlusCheckResult result = checked(*device);
    EXPECT_EQ(result.extents.leafRecords, 3U);
    EXPECT_NE(result.attributes & 0x200, 0U);
    ASSERT_NE(result.forkWithCNID(5), nullptr);
    EXPECT_EQ(result.forkWithCNID(5)->extents.size(), 20U);
}

TEST(HFSPlusVolumeBuilderLayout, SpecialFilesTakeAnyExtents)
{
    auto builder = HFSPlusVolumeBuilder{}.totalBlocks(3000).catalogExtents(comb(400, 20, 1, 2));
    builder.allocationExtents({{600, 1}}).extentsFileExtents(comb(601, 8, 1, 2));
    builder.attributesExtents(comb(700, 12, 1, 2)).startupExtents({{900, 4}});
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    const HFSPlusCheckResult result = checked(*device);
    EXPECT_EQ(result.forkWithCNID(4)->extents.size(), 20U);
    EXPECT_EQ(result.forkWithCNID(3)->extents.size(), 8U);
    EXPECT_EQ(result.forkWithCNID(8)->extents.size(), 12U);
    EXPECT_EQ(result.forkWithCNID(7)->extents, (CheckedExtents{{900, 4}}));
    EXPECT_EQ(result.forkWithCNID(6)->extents, (CheckedExtents{{600, 1}}));
}

TEST(HFSPlusVolumeBuilderLayout, AnAllocationFileMayHaveOverflowExtents)
{
    auto builder = HFSPlusVolumeBuilder{}.blockSize(512).totalBlocks(60000);
    builder.allocationExtents(comb(20000, 15, 1, 5));
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    EXPECT_EQ(checked(*device).forkWithCNID(6)->extents.size(), 15U);
}

TEST(HFSPlusVolumeBuilderLayout, AttributesOfAllKindsAreSound)
{
    auto builder = HFSPlusVolumeBuilder{}.file("/x", 20).attribute("abc", "hello");
    builder.attribute("b", std::string(301, 'x')).forkAttribute("zz", comb(600, 20, 1, 2));
    builder.folder("/f", 21).attribute("u", "v");
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    const HFSPlusCheckResult result = checked(*device);
    EXPECT_EQ(result.attributesTree.leafRecords, 6U);
    ASSERT_EQ(result.attributeForks.size(), 1U);
    EXPECT_EQ(result.attributeForks[0].extents.size(), 20U);
}

TEST(HFSPlusVolumeBuilderLayout, TreesMayBeDeepAndTheirNodesInAnyOrder)
{
    auto builder =
        HFSPlusVolumeBuilder{}.totalBlocks(20000).file("/x").data(comb(9000, 2000, 1, 2));
    builder.manyFiles(3000).extentsNodeSize(1024);
    builder.extentsTree().maximumLeafRecords = 2;
    builder.extentsTree().maximumIndexRecords = 3;
    builder.extentsTree().shuffled = true;
    builder.catalogTree().maximumLeafRecords = 2;
    builder.catalogTree().maximumIndexRecords = 6;
    builder.catalogTree().shuffled = true;
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    EXPECT_EQ(checked(*device).extents.treeDepth, 6U);
    EXPECT_EQ(checked(*device).catalog.treeDepth, 6U);
}

TEST(HFSPlusVolumeBuilderLayout, ATreeHasExactlyTheFreeNodesAskedFor)
{
    for (const uint32_t nodeSize : {512U, 1024U, 4096U, 8192U}) {
        for (const uint32_t freeNodes : {0U, 1U, 2U, 7U}) {
            auto builder = HFSPlusVolumeBuilder{}.totalBlocks(2000).extentsNodeSize(nodeSize);
            builder.file("/x").data(comb(400, 400, 1, 2)).freeExtentsNodes(freeNodes);
            const auto device = builtSound(builder);
            ASSERT_NE(device, nullptr);
            EXPECT_EQ(checked(*device).extents.freeNodes, freeNodes) << nodeSize;
        }
    }
}

TEST(HFSPlusVolumeBuilderLayout, LongMapsGoOnInMapNodes)
{
    auto builder = HFSPlusVolumeBuilder{}.blockSize(512).totalBlocks(100000).extentsNodeSize(512);
    builder.freeExtentsNodes(9000).file("/x").data(comb(60000, 100, 1, 2));
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    EXPECT_EQ(checked(*device).extents.freeNodes, 9000U);
    EXPECT_EQ(builder.plan().extentsTree.mapNodes, 2U);
}

TEST(HFSPlusVolumeBuilderLayout, NodesMayBeLargerOrSmallerThanBlocks)
{
    for (const uint32_t nodeSize : {4096U, 8192U, 16384U, 32768U}) {
        for (const uint32_t blockSize : {512U, 4096U, 65536U}) {
            auto builder = HFSPlusVolumeBuilder{}.blockSize(blockSize).totalBlocks(6000);
            builder.catalogNodeSize(nodeSize).extentsNodeSize(nodeSize).attributesNodeSize(
                nodeSize);
            builder.journal().file("/x").attribute("a", "b").data(comb(4000, 50, 1, 2));
            EXPECT_NE(builtSound(builder), nullptr) << nodeSize << " " << blockSize;
        }
    }
}

TEST(HFSPlusVolumeBuilderLayout, AJournaledVolumeOfTwelveGigabytesTakesLittleMemory)
{
    auto builder = HFSPlusVolumeBuilder{}.totalBlocks(3000000).journal(0, 2048).contents(false);
    builder.file("/x", 20).data({{2000000, 100000}});
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    EXPECT_EQ(device->size(), uint64_t{3000000} * 4096);
    EXPECT_EQ(checked(*device).forkWithCNID(20)->totalBlocks, 100000U);
}

TEST(HFSPlusVolumeBuilderLayout, BlocksMayBeAsLargeAsTheFormatAllows)
{
    auto builder = HFSPlusVolumeBuilder{}.blockSize(1U << 31).totalBlocks(20).contents(false);
    builder.file("/x", 20).data({{10, 2}});
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    EXPECT_EQ(checked(*device).forkWithCNID(20)->logicalSize, uint64_t{1} << 32);
}

TEST(HFSPlusVolumeBuilderLayout, HardLinksLeadToAFileInThePrivateFolder)
{
    const std::string folder("/\0\0\0\0HFS+ Private Data", 22);
    auto builder = HFSPlusVolumeBuilder{}.folder(folder, 18).file(folder + "/iNode19", 19);
    builder.data({{100, 3}}).mode(0100644, 2).hardLink("/a", 20, 19).hardLink("/b", 21, 19);
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    EXPECT_EQ(checked(*device).forkWithCNID(19)->extents, (CheckedExtents{{100, 3}}));
    EXPECT_TRUE(checked(*device).forkWithCNID(20)->extents.empty());
}

TEST(HFSPlusVolumeBuilderLayout, AWrapperRefusesAVolumeOfPartsOfItsBlocks)
{
    HFSPlusBuilderWrapper wrapper;
    wrapper.wrapperBlockSize = 3072;
    auto builder = HFSPlusVolumeBuilder{}.totalBlocks(1000).wrapper(wrapper);

    EXPECT_EQ(builder.build(), nullptr);
}

}  // namespace
