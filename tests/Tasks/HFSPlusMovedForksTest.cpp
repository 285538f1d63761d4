#include "Tasks/HFSPlusMovedForks.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "HFSPlus/HFSPlusVolume.h"
#include "Tasks/HFSPlusExtentMapBuilder.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/NothrowAllocations.h"
#include "support/TestSeed.h"

namespace {

constexpr uint32_t kInfo = HFSPlusExtentInfo(kHFSPlusExtentAllocated, kHFSDataForkType);

struct Run {
    uint32_t start;
    uint32_t cnid;
    uint32_t info;
    bool operator==(const Run&) const = default;
};

std::vector<Run> runsOf(const HFSPlusExtentMap& map)
{
    std::vector<Run> runs;
    for (const auto* entry = map.firstEntry(); entry != nullptr;
         entry = map.nextEntryAfter(nullptr, entry)) {
        runs.push_back({entry->start, entry->cnid, entry->info});
    }
    return runs;
}

HFSPlusVolumeBuilder scatteredVolume()
{
    HFSPlusBuilderExtents extents;
    for (uint32_t run = 0; run < 40; ++run) {
        extents.push_back({200 + 5 * run, 2});
    }
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(2000);
    builder.file("/f", 20).data(extents);
    return builder;
}

}  // namespace

TEST(HFSPlusMovedForks, TouchingOnlyWhatChangedLeavesTheMapThatTouchingAllLeaves)
{
    const uint64_t seed = testSeed();
    std::mt19937_64 random(seed);
    HFSPlusOpenedVolume volume(scatteredVolume());
    HFSPlusFileForkSet immutable(*volume);
    HFSPlusExtentMapBuilder span(*volume, immutable);
    HFSPlusExtentMapBuilder other(*volume, immutable);
    ASSERT_TRUE(span.buildExtentMap(0));
    ASSERT_TRUE(other.buildExtentMap(0));
    uint32_t destination = 600;
    for (int round = 0; round < 30; ++round) {
        const auto fork = HFSPlusForkExtents::initWithVolume(*volume, 20, 0);
        std::vector<HFSPlusHostExtentDescriptor> before;
        ASSERT_TRUE(fork->copyExtentDescriptors(before, 0, nullptr));
        const HFSPlusHostExtentDescriptor piece = before[random() % before.size()];
        const auto count = static_cast<uint32_t>(random() % piece.blockCount + 1);

        HFSPlusMovedForks forks(*volume, *span.extentMap());
        HFSPlusForkExtents* const moved = forks.openFork(20, kInfo, nullptr);
        ASSERT_NE(moved, nullptr);
        ASSERT_TRUE(moved->moveTo(piece.startBlock, destination, count));
        ASSERT_TRUE(forks.updateFork(20, kInfo, nullptr));
        destination += count + static_cast<uint32_t>(random() % 2);

        for (const HFSPlusHostExtentDescriptor& extent : before) {
            ASSERT_TRUE(other.extentMap()->deleteRun(extent.startBlock, extent.blockCount));
        }
        std::vector<HFSPlusHostExtentDescriptor> after;
        const auto updated = HFSPlusForkExtents::initWithVolume(*volume, 20, 0);
        ASSERT_TRUE(updated->copyExtentDescriptors(after, 0, nullptr));
        for (const HFSPlusHostExtentDescriptor& extent : after) {
            ASSERT_TRUE(other.extentMap()->insert(extent.startBlock, extent.blockCount, 20, kInfo));
        }
        ASSERT_EQ(runsOf(*span.extentMap()), runsOf(*other.extentMap())) << "seed " << seed;
    }
    EXPECT_TRUE((*volume).flush(nullptr));
    const HFSPlusCheckResult result = volume.check();
    EXPECT_TRUE(result.consistent) << result.description();
}

TEST(HFSPlusMovedForks, AMapThatThePassHasUsedUpIsLeftAlone)
{
    HFSPlusOpenedVolume volume(scatteredVolume());
    HFSPlusFileForkSet immutable(*volume);
    HFSPlusExtentMapBuilder span(*volume, immutable);
    ASSERT_TRUE(span.buildExtentMap(0));
    ASSERT_TRUE(span.extentMap()->removeToBlock(2000));
    ASSERT_TRUE(span.extentMap()->isEmpty());

    HFSPlusMovedForks forks(*volume, *span.extentMap());
    ASSERT_TRUE(forks.openFork(20, kInfo, nullptr)->moveTo(200, 600, 2));
    std::unique_ptr<VZDefragError> failure;
    EXPECT_TRUE(forks.updateFork(20, kInfo, &failure)) << failure->description();

    EXPECT_TRUE(span.extentMap()->isEmpty());
}

TEST(HFSPlusMovedForks, AForkStaysOpenUntilItIsUpdated)
{
    HFSPlusOpenedVolume volume(scatteredVolume());
    HFSPlusFileForkSet immutable(*volume);
    HFSPlusExtentMapBuilder span(*volume, immutable);
    ASSERT_TRUE(span.buildExtentMap(0));
    HFSPlusMovedForks forks(*volume, *span.extentMap());

    HFSPlusForkExtents* const first = forks.openFork(20, kInfo, nullptr);
    ASSERT_TRUE(first->moveTo(200, 600, 2));

    EXPECT_EQ(forks.openFork(20, kInfo, nullptr), first);
    ASSERT_TRUE(forks.updateAll(nullptr));
    std::vector<HFSPlusHostExtentDescriptor> extents;
    ASSERT_TRUE(HFSPlusForkExtents::initWithVolume(*volume, 20, 0)
                    ->copyExtentDescriptors(extents, 0, nullptr));
    EXPECT_EQ(extents[0].startBlock, 600u);
}

TEST(HFSPlusMovedForks, MovingOnePieceOfALongForkLeavesItsOtherEntriesUntouched)
{
    constexpr uint32_t kPieces = 100000;
    HFSPlusBuilderExtents extents;
    for (uint32_t piece = 0; piece < kPieces; ++piece) {
        extents.push_back({20000 + 2 * piece, 1});
    }
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(300000).contents(false).extentsNodeSize(4096);
    builder.file("/f", 20).data(std::move(extents));
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusFileForkSet immutable(*volume);
    HFSPlusExtentMapBuilder span(*volume, immutable);
    ASSERT_TRUE(span.buildExtentMap(0));
    HFSPlusMovedForks forks(*volume, *span.extentMap());
    ASSERT_TRUE(forks.openFork(20, kInfo, nullptr)->moveTo(20000 + kPieces, 250000, 1));

    // Every entry of the map is an allocation: two for the piece at its new place.
    const NothrowAllocations allocations;
    ASSERT_TRUE(forks.updateFork(20, kInfo, nullptr));

    EXPECT_LT(allocations.count(), 100u);
    EXPECT_EQ(span.extentMap()->findEntry(20000 + kPieces)->cnid, 0u);
    EXPECT_EQ(span.extentMap()->findEntry(250000)->cnid, 20u);
}
