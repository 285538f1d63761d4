#include "HFSPlus/HFSPlusExtentMap.h"

#include <gtest/gtest.h>

#include <limits>

#include "HFSPlusExtentMapFixture.h"
#include "support/NothrowAllocations.h"

namespace {

using namespace extentmaptest;
class HFSPlusExtentMapTest : public Fixture {};

}  // namespace

TEST_F(HFSPlusExtentMapTest, ANewMapOverNBlocksIsOneFreeEntryOfNBlocks)
{
    EXPECT_EQ(runsOf(*_map), (BlockRuns{{0, kBlocks, 0, kFree}}));
    EXPECT_EQ(_map->blockCountForType(kHFSPlusExtentUnalloced), kBlocks);
    EXPECT_EQ(_map->blockCountForType(kHFSPlusExtentImmutable), 0U);
    EXPECT_EQ(_map->blockCountForType(kHFSPlusExtentAllocated), 0U);
    EXPECT_EQ(_map->startBlock(), 0U);
    EXPECT_EQ(_map->blockCount(), kBlocks);
    EXPECT_EQ(_map->extentCount(), 1U);
    EXPECT_EQ(_map->dataBlockTotal(), 0U);
}

TEST_F(HFSPlusExtentMapTest, AMapThatBeginsAtTheVolumesEndIsEmpty)
{
    for (const uint32_t start : {kBlocks, kBlocks + 5, std::numeric_limits<uint32_t>::max()}) {
        const auto map = mapFrom(start);

        EXPECT_TRUE(map->isEmpty());
        EXPECT_EQ(map->blockCount(), 0U);
        EXPECT_EQ(map->firstEntry(), nullptr);
    }
}

TEST_F(HFSPlusExtentMapTest, AMapThatGetsNoMemoryIsNotMade)
{
    for (const uint64_t allowed : {0U, 1U}) {
        NothrowAllocations allocations;
        allocations.failAfter(allowed);
        std::unique_ptr<VZDefragError> error;

        EXPECT_EQ(HFSPlusExtentMap::initWithVolume(*_volume, 0, &error), nullptr);

        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->description(), "Out of memory.");
    }
}

TEST_F(HFSPlusExtentMapTest, InsertingARunThatStartsBeforeTheSpanKeepsOnlyItsPartInside)
{
    const auto map = mapFrom(100);

    ASSERT_TRUE(map->insert(90, 30, 20, kData));

    EXPECT_EQ(runsOf(*map), (BlockRuns{{100, 20, 20, kData}, {120, 880, 0, kFree}}));
    EXPECT_EQ(map->blockCountForType(kHFSPlusExtentAllocated), 20U);
    EXPECT_EQ(map->dataBlockTotal(), 30U);
}

TEST_F(HFSPlusExtentMapTest, InsertingARunWhollyBeyondTheSpansEndIsIgnoredWithSuccess)
{
    EXPECT_TRUE(_map->insert(kBlocks, 10, 20, kData));
    EXPECT_TRUE(_map->insert(0xFFFFFFF0, 0xFFFFFFFF, 20, kFixed));

    EXPECT_EQ(runsOf(*_map), (BlockRuns{{0, kBlocks, 0, kFree}}));
}

TEST_F(HFSPlusExtentMapTest, InsertingARunWhollyBeforeTheSpanIsIgnoredWithSuccess)
{
    const auto map = mapFrom(100);

    EXPECT_TRUE(map->insert(60, 40, 20, kData));

    EXPECT_EQ(runsOf(*map), (BlockRuns{{100, 900, 0, kFree}}));
}

TEST_F(HFSPlusExtentMapTest, InsertingARunWhoseEndDoesNotFitThirtyTwoBitsIsCutToTheSpan)
{
    ASSERT_TRUE(_map->insert(990, 0xFFFFFFFF, 20, kData));

    EXPECT_EQ(runsOf(*_map), (BlockRuns{{0, 990, 0, kFree}, {990, 10, 20, kData}}));
}

TEST_F(HFSPlusExtentMapTest, InsertingNothingSucceedsAlsoIntoAnEmptyMap)
{
    const auto empty = mapFrom(kBlocks);

    EXPECT_TRUE(empty->insert(5, 0, 20, kData));
    EXPECT_TRUE(_map->insert(5, 0, 20, kData));

    EXPECT_EQ(_map->extentCount(), 1U);
    EXPECT_EQ(_map->dataBlockTotal(), 0U);
}

TEST_F(HFSPlusExtentMapTest, InsertingIntoAnEmptyMapIsAnInternalError)
{
    const auto empty = mapFrom(kBlocks);

    EXPECT_FALSE(empty->insert(5, 1, 20, kData, &_error));

    ASSERT_NE(_error, nullptr);
    EXPECT_EQ(_error->description(), "Internal error: HFSPlus/HFSPlusExtentMap.cpp:110");
}

TEST_F(HFSPlusExtentMapTest, InsertingPastTheEndOfAFreeEntryFailsNamingThatEnd)
{
    ASSERT_TRUE(_map->insert(200, 50, 20, kData));

    EXPECT_FALSE(_map->insert(190, 20, 30, kData, &_error));

    ASSERT_NE(_error, nullptr);
    EXPECT_EQ(_error->description(),
              "Invalid overlapping extent with start block = 190, block count = 20, CNID 30, "
              "and next free extent start of 200.");
}

TEST_F(HFSPlusExtentMapTest, InsertingOntoAnAllocatedEntryFailsNamingThatEntrysEnd)
{
    ASSERT_TRUE(_map->insert(200, 50, 20, kData));

    EXPECT_FALSE(_map->insert(210, 5, 30, kData, &_error));

    ASSERT_NE(_error, nullptr);
    EXPECT_EQ(_error->description(),
              "Invalid overlapping extent with start block = 210, block count = 5, CNID 30, "
              "and next free extent start of 250.");
    _map->validate(false);
}

TEST_F(HFSPlusExtentMapTest, AnOverlapIsReportedWithTheRunAsCutToTheSpan)
{
    const auto map = mapFrom(100);
    ASSERT_TRUE(map->insert(100, 50, 20, kData));

    EXPECT_FALSE(map->insert(90, 20, 30, kData, &_error));

    ASSERT_NE(_error, nullptr);
    EXPECT_EQ(_error->description(),
              "Invalid overlapping extent with start block = 100, block count = 10, CNID 30, "
              "and next free extent start of 150.");
}

TEST_F(HFSPlusExtentMapTest, InsertingExactlyAWholeFreeEntryChangesItInPlace)
{
    ASSERT_TRUE(_map->insert(0, 100, 20, kData));
    ASSERT_TRUE(_map->insert(200, 800, 21, kData));
    const auto* const gap = _map->findEntry(100);

    ASSERT_TRUE(_map->insert(100, 100, 22, kResource));

    EXPECT_EQ(_map->extentCount(), 3U);
    EXPECT_EQ(_map->findEntry(100), gap);
    EXPECT_EQ(runsOf(*_map),
              (BlockRuns{{0, 100, 20, kData}, {100, 100, 22, kResource}, {200, 800, 21, kData}}));
    EXPECT_EQ(_map->blockCountForType(kHFSPlusExtentUnalloced), 0U);
}

TEST_F(HFSPlusExtentMapTest, InsertingInTheMiddleOfAFreeEntryLeavesFreeHeadAndTail)
{
    ASSERT_TRUE(_map->insert(400, 100, 20, kFixed));

    EXPECT_EQ(runsOf(*_map),
              (BlockRuns{{0, 400, 0, kFree}, {400, 100, 20, kFixed}, {500, 500, 0, kFree}}));
    EXPECT_EQ(_map->blockCountForType(kHFSPlusExtentImmutable), 100U);
    EXPECT_EQ(_map->blockCountForType(kHFSPlusExtentUnalloced), 900U);
}

TEST_F(HFSPlusExtentMapTest, InsertingNeverJoinsNeighboursOfOneFork)
{
    ASSERT_TRUE(_map->insert(0, 500, 20, kData));
    ASSERT_TRUE(_map->insert(500, 500, 20, kData));

    EXPECT_EQ(runsOf(*_map), (BlockRuns{{0, 500, 20, kData}, {500, 500, 20, kData}}));
}

TEST_F(HFSPlusExtentMapTest, TheDataTotalCountsAllocatedRunsOnlyAndNeverFalls)
{
    ASSERT_TRUE(_map->insert(0, 10, 20, kFixed));
    ASSERT_TRUE(_map->insert(10, 10, 20, kData));
    ASSERT_TRUE(_map->insert(990, 20, 20, kData));
    ASSERT_FALSE(_map->insert(0, 10, 20, kData));

    ASSERT_TRUE(_map->deleteRun(0, kBlocks));

    EXPECT_EQ(_map->dataBlockTotal(), 40U);
}

TEST_F(HFSPlusExtentMapTest, TheDataTotalStaysAtItsGreatestValueInsteadOfWrapping)
{
    ASSERT_TRUE(_map->insert(kBlocks, 0xFFFFFFFF, 20, kData));
    ASSERT_TRUE(_map->insert(kBlocks, 0xFFFFFFFF, 21, kData));

    EXPECT_EQ(_map->dataBlockTotal(), 0xFFFFFFFFU);
}

TEST_F(HFSPlusExtentMapTest, AnInsertionThatGetsNoMemoryFailsWithRightCounts)
{
    for (const uint64_t allowed : {0U, 1U}) {
        const auto map = mapFrom(0);
        NothrowAllocations allocations;
        allocations.failAfter(allowed);
        std::unique_ptr<VZDefragError> error;

        EXPECT_FALSE(map->insert(400, 100, 20, kData, &error));

        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->description(), "Out of memory.");
        EXPECT_EQ(map->blockCountForType(kHFSPlusExtentUnalloced), kBlocks);
        map->validate(false);
    }
}

TEST_F(HFSPlusExtentMapTest, DeletingTheMiddleOfAnEntryYieldsThree)
{
    ASSERT_TRUE(_map->insert(0, kBlocks, 20, kResource));

    ASSERT_TRUE(_map->deleteRun(300, 100));

    EXPECT_EQ(
        runsOf(*_map),
        (BlockRuns{{0, 300, 20, kResource}, {300, 100, 0, kFree}, {400, 600, 20, kResource}}));
    EXPECT_EQ(_map->blockCountForType(kHFSPlusExtentAllocated), 900U);
    EXPECT_EQ(_map->blockCountForType(kHFSPlusExtentUnalloced), 100U);
}

TEST_F(HFSPlusExtentMapTest, DeletingTheRestOfASplitEntryMergesAllIntoOneFreeEntry)
{
    ASSERT_TRUE(_map->insert(200, 600, 20, kData));
    ASSERT_TRUE(_map->deleteRun(300, 100));
    ASSERT_EQ(_map->extentCount(), 5U);

    ASSERT_TRUE(_map->deleteRun(400, 400));
    ASSERT_TRUE(_map->deleteRun(200, 100));

    EXPECT_EQ(runsOf(*_map), (BlockRuns{{0, kBlocks, 0, kFree}}));
}

TEST_F(HFSPlusExtentMapTest, DeletingAcrossOwnedAndFreeEntriesFreesThemAll)
{
    ASSERT_TRUE(_map->insert(100, 100, 20, kData));
    ASSERT_TRUE(_map->insert(200, 100, 21, kFixed));
    ASSERT_TRUE(_map->insert(400, 100, 22, kData));

    ASSERT_TRUE(_map->deleteRun(150, 300));

    EXPECT_EQ(runsOf(*_map), (BlockRuns{{0, 100, 0, kFree},
                                        {100, 50, 20, kData},
                                        {150, 300, 0, kFree},
                                        {450, 50, 22, kData},
                                        {500, 500, 0, kFree}}));
}

TEST_F(HFSPlusExtentMapTest, DeletingOutsideTheSpanOrNothingOrFromAnEmptyMapChangesNothing)
{
    const auto map = mapFrom(100);
    const auto empty = mapFrom(kBlocks);
    ASSERT_TRUE(map->insert(100, 900, 20, kData));

    EXPECT_TRUE(map->deleteRun(0, 100));
    EXPECT_TRUE(map->deleteRun(kBlocks, 100));
    EXPECT_TRUE(map->deleteRun(500, 0));
    EXPECT_TRUE(empty->deleteRun(0, kBlocks));

    EXPECT_EQ(runsOf(*map), (BlockRuns{{100, 900, 20, kData}}));
    EXPECT_TRUE(empty->isEmpty());
}

TEST_F(HFSPlusExtentMapTest, DeletingARunThatReachesOutOfTheSpanFreesItsPartInside)
{
    const auto map = mapFrom(100);
    ASSERT_TRUE(map->insert(100, 900, 20, kData));

    ASSERT_TRUE(map->deleteRun(50, 100));
    ASSERT_TRUE(map->deleteRun(900, 0xFFFFFFFF));

    EXPECT_EQ(runsOf(*map),
              (BlockRuns{{100, 50, 0, kFree}, {150, 750, 20, kData}, {900, 100, 0, kFree}}));
}

TEST_F(HFSPlusExtentMapTest, ADeletionThatGetsNoMemoryFailsWithRightCounts)
{
    for (const uint64_t allowed : {0U, 1U}) {
        const auto map = mapFrom(0);
        ASSERT_TRUE(map->insert(0, kBlocks, 20, kData));
        NothrowAllocations allocations;
        allocations.failAfter(allowed);
        std::unique_ptr<VZDefragError> error;

        EXPECT_FALSE(map->deleteRun(400, 100, &error));

        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->description(), "Out of memory.");
        EXPECT_EQ(map->blockCountForType(kHFSPlusExtentAllocated), kBlocks);
        map->validate(false);
    }
}
