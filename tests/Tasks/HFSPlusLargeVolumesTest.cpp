#include <gtest/gtest.h>

#include "HFSPlus/HFSPlusExtentMap.h"
#include "Tasks/DefragRun.h"
#include "Tasks/HFSPlusCopyBuffer.h"
#include "Tasks/HFSPlusCopyList.h"
#include "Tasks/HFSPlusDefragProgress.h"
#include "support/HFSPlusDataOrder.h"
#include "support/HFSPlusOpenedVolume.h"

// Volumes whose block numbers nearly fill 32 bits: no sum of them does, and no offset in bytes.

namespace {

constexpr uint32_t kTotalBlocks = 0xFFFFFFF0;
constexpr uint32_t kBlockSize = 512;
constexpr uint32_t kInfo = HFSPlusExtentInfo(kHFSPlusExtentAllocated, kHFSDataForkType);

HFSPlusVolumeBuilder largeVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(kBlockSize).totalBlocks(kTotalBlocks);
    return builder;
}

std::vector<HFSPlusCheckedExtent> extentsOf(const HFSPlusCheckResult& result, uint32_t cnid)
{
    const HFSPlusCheckedFork* found = result.forkWithCNID(cnid);
    return found == nullptr ? std::vector<HFSPlusCheckedExtent>{} : found->extents;
}

}  // namespace

TEST(HFSPlusLargeVolumes, ForksAtTheVeryEndAreBroughtToTheFront)
{
    HFSPlusVolumeBuilder builder = largeVolume();
    builder.journal(kTotalBlocks - 1000, 64).journalInfoBlock(kTotalBlocks - 900);
    builder.catalogExtents({{kTotalBlocks - 800, 64}, {kTotalBlocks - 600, 64}});
    builder.file("/f", 20).data({{kTotalBlocks - 40, 5}, {kTotalBlocks - 12, 10}});
    builder.file("/g", 21).data({{0x80000000, 3}, {kTotalBlocks - 30, 7}, {0x7FFFFFF0, 9}});
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusForkHashes before = volume.hashes();

    const DefragOutput output = runDefrag(*volume, uint64_t{64} * kBlockSize);

    EXPECT_EQ(output.error(), "");
    const HFSPlusCheckResult after = volume.check();
    EXPECT_TRUE(after.consistent) << after.description();
    EXPECT_EQ(extentsOf(after, 20).size(), 1u);
    EXPECT_EQ(extentsOf(after, 21).size(), 1u);
    EXPECT_EQ(extentsOf(after, kHFSCatalogFileID).size(), 1u);
    EXPECT_EQ(volume.hashes(), before);
}

TEST(HFSPlusLargeVolumes, RunsAtTheVeryEndSlideToTheFrontInTheirOrder)
{
    HFSPlusVolumeBuilder builder = largeVolume();
    builder.catalogExtents({{kTotalBlocks - 800, 64}, {kTotalBlocks - 600, 64}});
    builder.file("/f", 20).data({{kTotalBlocks - 40, 5}, {kTotalBlocks - 12, 10}});
    builder.file("/g", 21).data({{0x80000000, 3}, {kTotalBlocks - 30, 7}, {0x7FFFFFF0, 9}});
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusForkHashes before = volume.hashes();
    const std::vector<HFSPlusDataRun> order = dataOrder(volume.check().forks);

    const DefragOutput output = runDefrag(*volume, uint64_t{64} * kBlockSize, {"COMPACT"});

    EXPECT_EQ(output.error(), "");
    const HFSPlusCheckResult after = volume.check();
    EXPECT_TRUE(after.consistent) << after.description();
    EXPECT_EQ(dataOrder(after.forks), order);
    for (const HFSPlusCheckedFork& fork : after.forks) {
        for (const HFSPlusCheckedExtent& extent : fork.extents) {
            EXPECT_LT(extent.startBlock, kTotalBlocks / 2) << fork;
        }
    }
    EXPECT_EQ(volume.hashes(), before);
}

TEST(HFSPlusLargeVolumes, BlocksAreCopiedToTheVeryEndAsWell)
{
    HFSPlusVolumeBuilder builder = largeVolume();
    builder.file("/f", 20).data({{kTotalBlocks - 40, 5}, {kTotalBlocks - 35, 5}, {100, 10}});
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusForkHashes before = volume.hashes();
    // A map without entries is left alone, and filling one takes a look at every block.
    const auto map = HFSPlusExtentMap::initWithVolume(*volume, 0);
    ASSERT_TRUE(map->removeToBlock(kTotalBlocks));
    std::unique_ptr<VZDefragError> failure;
    const auto buffer = HFSPlusCopyBuffer::initWithSize(64 * kBlockSize, kBlockSize, nullptr);
    const auto task = std::make_shared<HFSPlusDefragTask>(*volume, false);
    HFSPlusDefragProgress progress(*task, 20);
    HFSPlusCopyList list(*volume, *buffer, progress);

    ASSERT_TRUE(list.append({kTotalBlocks - 40, 20, kInfo, 2, 3, kTotalBlocks - 5}, nullptr));
    ASSERT_TRUE(list.append({100, 20, kInfo, 0, 10, kTotalBlocks - 20}, nullptr));
    const KLClosedGate gate((*volume).gate());
    ASSERT_TRUE(list.perform(*map, true, &failure)) << failure->description();

    const HFSPlusCheckResult after = volume.check();
    EXPECT_TRUE(after.consistent) << after.description();
    EXPECT_EQ(extentsOf(after, 20), (std::vector<HFSPlusCheckedExtent>{{kTotalBlocks - 40, 2},
                                                                       {kTotalBlocks - 5, 3},
                                                                       {kTotalBlocks - 35, 5},
                                                                       {kTotalBlocks - 20, 10}}));
    EXPECT_EQ(volume.hashes(), before);
}
