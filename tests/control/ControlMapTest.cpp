#include "ControlMap.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using enum ControlKind;

ControlKindCounts countsOf(uint64_t free, uint64_t used, uint64_t fragmented, uint64_t fixed)
{
    ControlKindCounts counts;
    counts.of(kFree) = free;
    counts.of(kUsed) = used;
    counts.of(kFragmented) = fragmented;
    counts.of(kFixed) = fixed;
    return counts;
}

/** The kind that each block shows, as a letter. */
std::string pictureOf(const ControlMap& map)
{
    std::string picture;
    for (const ControlKindCounts& cell : map.cells(map.totalBlocks())) {
        picture += ".UFX"[static_cast<size_t>(cell.shownKind())];
    }
    return picture;
}

TEST(ControlKindCounts, FreeIsShownOnlyWhereMostBlocksAreFree)
{
    EXPECT_EQ(countsOf(5, 5, 0, 0).shownKind(), kUsed);
    EXPECT_EQ(countsOf(6, 5, 0, 0).shownKind(), kFree);
    EXPECT_EQ(countsOf(5, 2, 2, 2).shownKind(), kFragmented);
    EXPECT_EQ(countsOf(0, 0, 0, 0).shownKind(), kFree);
}

TEST(ControlKindCounts, OfBlocksInUseThoseThatAreMostAreShownAndOfEqualsThoseInPieces)
{
    EXPECT_EQ(countsOf(0, 4, 3, 3).shownKind(), kUsed);
    EXPECT_EQ(countsOf(0, 3, 3, 4).shownKind(), kFixed);
    EXPECT_EQ(countsOf(0, 3, 3, 3).shownKind(), kFragmented);
    EXPECT_EQ(countsOf(0, 3, 0, 3).shownKind(), kFixed);
}

TEST(ControlMap, ANewVolumeIsAllFree)
{
    const ControlMap map(1000);

    EXPECT_EQ(map.totals(), countsOf(1000, 0, 0, 0));
}

TEST(ControlMap, ChangingARunChangesItAndNothingBesideIt)
{
    ControlMap map(12);

    map.change(3, 4, kFree, kUsed);
    map.change(5, 1, kUsed, kFragmented);
    map.change(11, 1, kFree, kFixed);

    EXPECT_EQ(pictureOf(map), "...UUFU....X");
}

TEST(ControlMap, WhatIsNoneOfTheKindToChangeStays)
{
    ControlMap map(6);

    map.change(0, 3, kFree, kFixed);
    map.change(0, 6, kFree, kUsed);

    EXPECT_EQ(pictureOf(map), "XXXUUU");
}

TEST(ControlMap, BlocksOutsideTheVolumeAreIgnored)
{
    ControlMap map(10);

    map.change(8, 5, kFree, kUsed);
    map.change(20, 5, kFree, kUsed);
    map.change(UINT32_MAX, UINT32_MAX, kFree, kUsed);

    EXPECT_EQ(map.totals(), countsOf(8, 2, 0, 0));
}

TEST(ControlMap, SlicesOfSeveralBlocksLoseNone)
{
    ControlMap map(1003, 100);

    map.change(5, 1000, kFree, kUsed);

    EXPECT_EQ(map.totals(), countsOf(1003 - 998, 998, 0, 0));
    EXPECT_EQ(map.cells(1)[0], map.totals());
}

TEST(ControlMap, TheLargestVolumeFitsInItsSlices)
{
    ControlMap map(UINT32_MAX);

    map.change(0, UINT32_MAX, kFree, kUsed);

    EXPECT_EQ(map.totals(), countsOf(0, UINT32_MAX, 0, 0));
}

TEST(ControlMap, AMoveFreesItsSourceAndFillsItsDestination)
{
    ControlMap map(12);
    map.change(1, 3, kFree, kUsed);

    map.move(1, 8, 3, false);

    EXPECT_EQ(pictureOf(map), "........UUU.");
}

TEST(ControlMap, WhatMovesKeepsItsKindUnlessItBecomesWhole)
{
    ControlMap map(12);
    map.change(0, 4, kFree, kFragmented);

    map.move(0, 8, 2, false);
    map.move(2, 5, 2, true);

    EXPECT_EQ(pictureOf(map), ".....UU.FF..");
}

TEST(ControlMap, AMoveBetweenOverlappingRunsLosesNoBlock)
{
    ControlMap map(12);
    map.change(4, 4, kFree, kUsed);

    map.move(4, 2, 4, false);

    EXPECT_EQ(pictureOf(map), "..UUUU......");
}

TEST(ControlMap, AMoveWithinOneSliceChangesNothing)
{
    ControlMap map(100, 2);
    map.change(0, 20, kFree, kUsed);

    map.move(0, 30, 10, false);

    EXPECT_EQ(map.cells(2)[0], countsOf(30, 20, 0, 0));
}

TEST(ControlMap, CellsShareTheVolumeOutWithoutLossInOrder)
{
    ControlMap map(100);
    map.change(0, 10, kFree, kUsed);
    map.change(90, 10, kFree, kFixed);

    const std::vector<ControlKindCounts> cells = map.cells(10);

    ASSERT_EQ(cells.size(), 10U);
    EXPECT_EQ(cells.front(), countsOf(0, 10, 0, 0));
    EXPECT_EQ(cells[1], countsOf(10, 0, 0, 0));
    EXPECT_EQ(cells.back(), countsOf(0, 0, 0, 10));
}

TEST(ControlMap, MoreCellsThanBlocksShowEachBlockSeveralTimes)
{
    ControlMap map(2);
    map.change(1, 1, kFree, kUsed);

    const std::vector<ControlKindCounts> cells = map.cells(6);

    EXPECT_EQ(cells[2].shownKind(), kFree);
    EXPECT_EQ(cells[3].shownKind(), kUsed);
    EXPECT_EQ(cells[5].shownKind(), kUsed);
}

TEST(ControlMap, AVolumeWithoutBlocksHasEmptyCells)
{
    const ControlMap map;

    EXPECT_EQ(map.cells(3), std::vector<ControlKindCounts>(3));
    EXPECT_EQ(map.cellOfBlock(7, 3), 0U);
}

TEST(ControlMap, TheCellOfABlockIsOneThatShowsIt)
{
    for (const uint32_t totalBlocks : {7U, 64U, 1000U}) {
        for (const size_t count : {1U, 5U, 63U, 64U, 65U, 2000U}) {
            for (uint32_t block = 0; block < totalBlocks; block += 3) {
                ControlMap map(totalBlocks, 64);
                map.change(block, 1, kFree, kUsed);

                const size_t cell = map.cellOfBlock(block, count);

                ASSERT_LT(cell, count);
                EXPECT_EQ(map.cells(count)[cell].of(kUsed), 1U)
                    << "block " << block << " of " << totalBlocks << " in " << count << " cells";
            }
        }
    }
}

}  // namespace
