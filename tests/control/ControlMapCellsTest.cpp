#include <gtest/gtest.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "ControlMap.h"

namespace {

/** A map of @p totalBlocks blocks of which every third one is in use. */
ControlMap stripedMap(uint32_t totalBlocks, size_t sliceLimit)
{
    ControlMap map(totalBlocks, sliceLimit);
    for (uint32_t block = 0; block < totalBlocks; block += 3) {
        map.change(block, 1, ControlKind::kFree, ControlKind::kUsed);
    }
    return map;
}

TEST(ControlMapCells, CellsTileTheVolumeAndCountTheirBlocks)
{
    for (const uint32_t totalBlocks : {1U, 7U, 100U, 1000U, 65537U, 200001U}) {
        const ControlMap map = stripedMap(totalBlocks, 512);
        for (const size_t count : {size_t{1}, size_t{20}, size_t{500}}) {
            const auto cells = map.cells(count);
            if (count > map.slices().size()) {
                continue;
            }
            uint64_t next = 0;
            for (size_t index = 0; index < count; index++) {
                const ControlBlockRange range = map.blocksOfCell(index, count);
                EXPECT_EQ(range.start, next);
                EXPECT_EQ(range.end - range.start, cells[index].total());
                EXPECT_EQ(map.cellOfBlock(static_cast<uint32_t>(range.start), count), index);
                EXPECT_EQ(map.cellOfBlock(static_cast<uint32_t>(range.end - 1), count), index);
                next = range.end;
            }
            EXPECT_EQ(next, totalBlocks);
        }
    }
}

TEST(ControlMapCells, MoreCellsThanSlicesShowTheSliceTheyLieIn)
{
    const ControlMap map(10, 5);

    EXPECT_EQ(map.blocksOfCell(0, 10), (ControlBlockRange{0, 2}));
    EXPECT_EQ(map.blocksOfCell(1, 10), (ControlBlockRange{0, 2}));
    EXPECT_EQ(map.blocksOfCell(9, 10), (ControlBlockRange{8, 10}));
}

TEST(ControlMapCells, ACoarserMapHasTheSameBlocksInFewerSlices)
{
    for (const uint32_t totalBlocks : {0U, 1U, 1024U, 1025U, 65537U, 200001U, UINT32_MAX}) {
        const ControlMap fine =
            totalBlocks < 1000000 ? stripedMap(totalBlocks, 65536) : ControlMap(totalBlocks);

        const ControlMap coarse = fine.coarsened(1024);

        EXPECT_LE(coarse.slices().size(), 1024U) << totalBlocks;
        EXPECT_GE(coarse.slices().size(), std::min<size_t>(fine.slices().size(), 500));
        EXPECT_EQ(coarse.totals(), fine.totals());
        EXPECT_TRUE(ControlMap::withSlices(totalBlocks, coarse.blocksPerSlice(), coarse.slices()))
            << totalBlocks;
    }
}

TEST(ControlMapCells, AMapIsMadeOnlyOfSlicesThatCountTheirBlocks)
{
    const ControlMap map = stripedMap(100, 10);
    const auto changed = [&](size_t index, ControlKind kind, uint64_t blocks) {
        std::vector<ControlKindCounts> slices = map.slices();
        slices[index].of(kind) = blocks;
        return ControlMap::withSlices(100, 10, std::move(slices));
    };
    std::vector<ControlKindCounts> tooFew(map.slices().begin(), map.slices().end() - 1);

    EXPECT_EQ(ControlMap::withSlices(100, 10, map.slices())->slices(), map.slices());
    EXPECT_FALSE(changed(3, ControlKind::kFixed, 1));
    EXPECT_FALSE(changed(9, ControlKind::kFree, 0));
    EXPECT_FALSE(changed(0, ControlKind::kFixed, UINT64_MAX));
    EXPECT_FALSE(ControlMap::withSlices(100, 10, tooFew));
    EXPECT_FALSE(ControlMap::withSlices(100, 0, map.slices()));
}

}  // namespace
