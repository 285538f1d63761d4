#include "HFSPlus/HFSPlusFreeMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ostream>
#include <random>
#include <tuple>
#include <vector>

#include "HFSPlus/HFSPlusAllocation.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/NothrowAllocations.h"
#include "support/TestSeed.h"

namespace {

constexpr uint32_t kBlocks = 1000;

struct BlockRun {
    uint32_t start;
    uint32_t count;
    bool operator==(const BlockRun&) const = default;
};
using BlockRuns = std::vector<BlockRun>;

std::ostream& operator<<(std::ostream& stream, const BlockRun& run)
{
    return stream << run.start << '+' << run.count;
}

BlockRuns runsOf(const HFSPlusFreeMap& map)
{
    BlockRuns runs;
    for (const auto* run = map.nextEntry(nullptr); run != nullptr; run = map.nextEntry(run)) {
        runs.push_back({.start = run->start, .count = run->count});
    }
    return runs;
}

/** The order of the map: larger first, lower start among equals. */
bool goesBefore(const BlockRun& left, const BlockRun& right)
{
    return std::tuple(right.count, left.start) < std::tuple(left.count, right.start);
}

/** A volume whose bitmap is full behind block 100 except for given runs.
 *
 *      100        200        300   ...            999
 *       |..########|...#######|#####...###############|
 */
class HFSPlusFreeMapTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(_volume) << _volume.error();
        ASSERT_TRUE(_volume->allocation().set(100, kBlocks - 100, nullptr));
    }
    void freeRuns(const BlockRuns& runs)
    {
        for (const BlockRun& run : runs) {
            ASSERT_TRUE(_volume->allocation().clear(run.start, run.count, nullptr));
        }
    }
    std::unique_ptr<HFSPlusFreeMap> mapOf(uint32_t startBlock, uint32_t desiredBlocks,
                                          uint32_t capacity = 0)
    {
        return HFSPlusFreeMap::initWithVolume(*_volume, startBlock, desiredBlocks, capacity,
                                              &_error);
    }
    /** A map of @p runs that were inserted in that order. */
    std::unique_ptr<HFSPlusFreeMap> mapWith(const BlockRuns& runs, uint32_t capacity = 0)
    {
        auto map = mapOf(kBlocks - 1, 1, capacity);
        for (const BlockRun& run : runs) {
            EXPECT_TRUE(map->insert(run.start, run.count));
        }
        return map;
    }
    [[nodiscard]] std::string failure() const
    {
        return _error != nullptr ? _error->description() : "";
    }

    HFSPlusOpenedVolume _volume =
        HFSPlusOpenedVolume(HFSPlusVolumeBuilder{}.blockSize(4096).totalBlocks(kBlocks));
    std::unique_ptr<VZDefragError> _error;
};

}  // namespace

TEST_F(HFSPlusFreeMapTest, AStartBlockAtTheVolumesEndIsInvalid)
{
    EXPECT_EQ(mapOf(kBlocks, 1), nullptr);

    EXPECT_EQ(failure(), "Invalid allocation bitmap block = 1000.");
}

TEST_F(HFSPlusFreeMapTest, AFullBitmapGivesAnEmptyMap)
{
    const auto map = mapOf(100, 1);

    ASSERT_NE(map, nullptr);
    EXPECT_EQ(map->firstEntry(), nullptr);
    EXPECT_EQ(map->blockCount(), 0U);
}

TEST_F(HFSPlusFreeMapTest, FreeRunsComeLargestFirst)
{
    freeRuns({{110, 3}, {200, 20}, {300, 7}});

    const auto map = mapOf(100, kBlocks);

    ASSERT_NE(map, nullptr);
    EXPECT_EQ(runsOf(*map), (BlockRuns{{200, 20}, {300, 7}, {110, 3}}));
    EXPECT_EQ(map->blockCount(), 30U);
}

TEST_F(HFSPlusFreeMapTest, TheScanBeginsInTheMiddleOfARunAndEndsWithTheVolume)
{
    freeRuns({{110, 10}, {990, 10}});

    const auto map = mapOf(115, kBlocks);

    ASSERT_NE(map, nullptr);
    EXPECT_EQ(runsOf(*map), (BlockRuns{{990, 10}, {115, 5}}));
}

TEST_F(HFSPlusFreeMapTest, WithDesiredTenTheScanStopsAfterARunOfTwelve)
{
    freeRuns({{110, 3}, {200, 12}, {300, 50}});

    const auto map = mapOf(100, 10);

    ASSERT_NE(map, nullptr);
    EXPECT_EQ(runsOf(*map), (BlockRuns{{200, 12}, {110, 3}}));
}

TEST_F(HFSPlusFreeMapTest, TheScanGoesOnWhileOnlyTheSumIsLargeEnough)
{
    freeRuns({{110, 6}, {200, 6}, {300, 6}});

    const auto map = mapOf(100, 10);

    ASSERT_NE(map, nullptr);
    EXPECT_EQ(map->blockCount(), 18U);
}

TEST_F(HFSPlusFreeMapTest, ABitmapThatCannotBeReadEndsTheScanWithItsError)
{
    ASSERT_TRUE(_volume->flush(nullptr));
    _volume.reopen();
    _volume.faults().fail(FaultyBlockDevice::Operation::kRead, 1, EIO,
                          FaultyBlockDevice::Lasting::kFromThenOn);

    EXPECT_EQ(mapOf(100, 10), nullptr);

    EXPECT_NE(failure(), "");
}

TEST_F(HFSPlusFreeMapTest, RunsOfEqualSizeAreHandedOutLowerStartFirst)
{
    const auto map = mapWith({{300, 5}, {100, 5}, {200, 5}});
    BlockRuns taken;

    for (int turn = 0; turn < 3; ++turn) {
        uint32_t count = 5;
        const uint32_t start = map->allocate(count);
        taken.push_back({.start = start, .count = count});
    }

    EXPECT_EQ(taken, (BlockRuns{{100, 5}, {200, 5}, {300, 5}}));
    EXPECT_EQ(map->blockCount(), 0U);
}

TEST_F(HFSPlusFreeMapTest, AllocatingFiveFromALargestRunOfThreeGivesThatRun)
{
    const auto map = mapWith({{100, 3}, {200, 2}});
    uint32_t count = 5;

    EXPECT_EQ(map->allocate(count), 100U);

    EXPECT_EQ(count, 3U);
    EXPECT_EQ(runsOf(*map), (BlockRuns{{200, 2}}));
    EXPECT_EQ(map->blockCount(), 2U);
}

TEST_F(HFSPlusFreeMapTest, AllocatingFiveFromARunOfEightLeavesItsTailInItsPlaceBySize)
{
    const auto map = mapWith({{100, 8}, {200, 4}, {300, 2}});
    uint32_t count = 5;

    EXPECT_EQ(map->allocate(count), 100U);

    EXPECT_EQ(count, 5U);
    EXPECT_EQ(runsOf(*map), (BlockRuns{{200, 4}, {105, 3}, {300, 2}}));
    EXPECT_EQ(map->blockCount(), 9U);
}

TEST_F(HFSPlusFreeMapTest, AllocatingARunOfExactlyTheWantedSizeUsesItUp)
{
    const auto map = mapWith({{100, 8}});
    uint32_t count = 8;

    EXPECT_EQ(map->allocate(count), 100U);

    EXPECT_EQ(count, 8U);
    EXPECT_EQ(map->firstEntry(), nullptr);
}

TEST_F(HFSPlusFreeMapTest, AllocatingFromNoRunsFailsForLackOfSpace)
{
    const auto map = mapWith({});
    uint32_t count = 1;

    EXPECT_EQ(map->allocate(count, &_error), 0U);

    EXPECT_EQ(failure(), "The amount of free space is insufficient.");
}

TEST_F(HFSPlusFreeMapTest, WithCapacityTwoTheSmallestOfThreeRunsIsGoneAndNotCounted)
{
    const auto map = mapWith({{100, 3}, {200, 9}, {300, 5}}, 2);

    EXPECT_EQ(runsOf(*map), (BlockRuns{{200, 9}, {300, 5}}));
    EXPECT_EQ(map->blockCount(), 14U);
}

TEST_F(HFSPlusFreeMapTest, ADeletedRunIsNoLongerCounted)
{
    const auto map = mapWith({{100, 3}, {200, 9}, {300, 5}});

    map->deleteEntry(*map->nextEntry(map->firstEntry()));

    EXPECT_EQ(runsOf(*map), (BlockRuns{{200, 9}, {100, 3}}));
    EXPECT_EQ(map->blockCount(), 12U);
}

TEST_F(HFSPlusFreeMapTest, TheSameRunTwiceIsHeldTwice)
{
    const auto map = mapWith({{100, 3}, {100, 3}});

    map->deleteEntry(*map->nextEntry(map->firstEntry()));

    EXPECT_EQ(runsOf(*map), (BlockRuns{{100, 3}}));
}

TEST_F(HFSPlusFreeMapTest, RunsThatGetNoMemoryFailTheirOperation)
{
    const auto map = mapWith({{100, 8}});
    uint32_t count = 5;
    NothrowAllocations allocations;
    allocations.failAfter(0);

    EXPECT_FALSE(map->insert(300, 5, &_error));
    EXPECT_EQ(failure(), "Out of memory.");
    _error.reset();
    EXPECT_EQ(map->allocate(count, &_error), 0U);
    EXPECT_EQ(failure(), "Out of memory.");
    _error.reset();
    EXPECT_EQ(mapOf(100, 1), nullptr);
    EXPECT_EQ(failure(), "Out of memory.");
}

TEST_F(HFSPlusFreeMapTest, DumpingListsRunsWithTheirSizes)
{
    const auto map = mapWith({{0x100, 1}, {0x200, 2}});
    const auto dumpThenEnd = [&map] {
        map->dump();
        std::_Exit(0);
    };
    // The level is read once, so it takes a process of its own.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ASSERT_EQ(setenv("KLDebugLevel", "debug", 1), 0);

    EXPECT_EXIT(dumpThenEnd(), testing::ExitedWithCode(0),
                "--------\n.*entry count: 2 \\(64B\\)\n.*block count: 3 \\(12KiB\\)\n"
                ".*count = 00000002, start = 00000200 \\(8KiB\\)\n"
                ".*count = 00000001, start = 00000100 \\(4KiB\\)\n");
}

TEST_F(HFSPlusFreeMapTest, RandomOperationsAgreeWithASortedVector)
{
    std::minstd_rand random(testSeed());
    const auto below = [&random](uint32_t limit) {
        return static_cast<uint32_t>(random() % limit);
    };
    const auto map = mapWith({}, 64);
    BlockRuns model;

    for (uint32_t step = 0; step < 20000; ++step) {
        if (below(2) == 0) {
            const BlockRun run = {.start = 1 + below(1000), .count = 1 + below(40)};
            ASSERT_TRUE(map->insert(run.start, run.count));
            model.insert(std::ranges::lower_bound(model, run, goesBefore), run);
            model.resize(std::min<size_t>(model.size(), 64));
        } else if (!model.empty()) {
            uint32_t count = 1 + below(60);
            const BlockRun largest = model.front();
            model.erase(model.begin());
            const uint32_t taken = std::min(count, largest.count);
            const BlockRun rest = {.start = largest.start + taken, .count = largest.count - taken};
            if (rest.count != 0) {
                model.insert(std::ranges::lower_bound(model, rest, goesBefore), rest);
            }
            ASSERT_EQ(map->allocate(count), largest.start);
            ASSERT_EQ(count, taken);
        }
        if (step % 50 == 0) {
            ASSERT_EQ(runsOf(*map), model) << "step " << step;
        }
    }
}
