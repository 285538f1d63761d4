#include <gtest/gtest.h>

#include <cstdlib>

#include "HFSPlusExtentMapFixture.h"

namespace {

using namespace extentmaptest;
class HFSPlusExtentMapSpan : public Fixture {};

/** Remembers what was clipped. */
class ClipRecorder : public HFSPlusExtentMapClipDelegate {
public:
    void extentMapDidClip(const HFSPlusExtentMapEntry& entry, uint32_t count) override
    {
        runs.push_back(
            {.start = entry.start, .count = count, .cnid = entry.cnid, .info = entry.info});
    }

    BlockRuns runs;
};

}  // namespace

TEST_F(HFSPlusExtentMapSpan, WithCapacityTwoAndThreeEntriesTheLastIsDropped)
{
    ASSERT_TRUE(_map->insert(400, 100, 20, kData));
    ASSERT_EQ(_map->extentCount(), 3U);

    _map->limitMemoryUsageTo(64);

    EXPECT_EQ(runsOf(*_map), (BlockRuns{{0, 400, 0, kFree}, {400, 100, 20, kData}}));
    EXPECT_EQ(_map->blockCount(), 500U);
    EXPECT_EQ(_map->blockCountForType(kHFSPlusExtentUnalloced), 400U);
}

TEST_F(HFSPlusExtentMapSpan, AnInsertionBeyondTheCapacityLowersTheSpansEnd)
{
    _map->limitMemoryUsageTo(3 * 32);
    ASSERT_TRUE(_map->insert(400, 100, 20, kData));

    ASSERT_TRUE(_map->insert(100, 100, 21, kData));

    EXPECT_EQ(runsOf(*_map),
              (BlockRuns{{0, 100, 0, kFree}, {100, 100, 21, kData}, {200, 200, 0, kFree}}));
    EXPECT_EQ(_map->blockCount(), 400U);
}

TEST_F(HFSPlusExtentMapSpan, BlocksBeyondALoweredEndAreNoLongerPartOfTheMap)
{
    ASSERT_TRUE(_map->insert(400, 100, 20, kData));
    _map->limitMemoryUsageTo(64);

    EXPECT_TRUE(_map->insert(450, 100, 21, kData) == false);
    EXPECT_TRUE(_map->insert(500, 10, 21, kData));

    EXPECT_EQ(_map->findEntry(500), nullptr);
    EXPECT_EQ(_map->extentCount(), 2U);
}

TEST_F(HFSPlusExtentMapSpan, OwnedRunsThatAreClippedAreToldToTheDelegateLastFirst)
{
    ClipRecorder recorder;
    ASSERT_TRUE(_map->insert(100, 100, 20, kData));
    ASSERT_TRUE(_map->insert(300, 50, 21, kFixed));
    ASSERT_TRUE(_map->insert(400, 10, 22, kResource));
    _map->setClipDelegate(&recorder);

    _map->limitMemoryUsageTo(2 * 32);

    EXPECT_EQ(recorder.runs, (BlockRuns{{400, 10, 22, kResource}, {300, 50, 21, kFixed}}));
    EXPECT_EQ(_map->blockCount(), 200U);
}

TEST_F(HFSPlusExtentMapSpan, ARunThatIsInsertedAndClippedAtOnceIsToldToTheDelegate)
{
    ClipRecorder recorder;
    _map->setClipDelegate(&recorder);
    _map->limitMemoryUsageTo(33);

    ASSERT_TRUE(_map->insert(100, 100, 20, kData));

    EXPECT_EQ(recorder.runs, (BlockRuns{{100, 100, 20, kData}}));
    EXPECT_EQ(runsOf(*_map), (BlockRuns{{0, 100, 0, kFree}}));
}

TEST_F(HFSPlusExtentMapSpan, ALimitOfZeroBytesMeansNoLimit)
{
    _map->limitMemoryUsageTo(64);

    _map->limitMemoryUsageTo(0);
    for (uint32_t block = 1; block < kBlocks; block += 2) {
        ASSERT_TRUE(_map->insert(block, 1, 20, kData));
    }

    EXPECT_EQ(_map->extentCount(), uint64_t{kBlocks});
    EXPECT_EQ(_map->blockCount(), kBlocks);
}

TEST_F(HFSPlusExtentMapSpan, OnlyTheFirstEntryCanBeRemoved)
{
    ASSERT_TRUE(_map->insert(0, 100, 20, kData));

    EXPECT_FALSE(_map->removeEntry(*_map->findEntry(100), &_error));
    ASSERT_NE(_error, nullptr);
    EXPECT_EQ(_error->description(), "Internal error: HFSPlus/HFSPlusExtentMap.cpp:210");
    EXPECT_TRUE(_map->removeEntry(*_map->firstEntry()));

    EXPECT_EQ(runsOf(*_map), (BlockRuns{{100, 900, 0, kFree}}));
    EXPECT_EQ(_map->startBlock(), 100U);
    EXPECT_EQ(_map->blockCountForType(kHFSPlusExtentAllocated), 0U);
}

TEST_F(HFSPlusExtentMapSpan, RemovingTheLastEntryLeavesAnEmptySpanAtItsEnd)
{
    ASSERT_TRUE(_map->removeEntry(*_map->firstEntry()));

    EXPECT_TRUE(_map->isEmpty());
    EXPECT_EQ(_map->startBlock(), kBlocks);
    EXPECT_EQ(_map->blockCount(), 0U);
    EXPECT_TRUE(_map->removeToBlock(kBlocks));
}

TEST_F(HFSPlusExtentMapSpan, RemovingToABlockInsideTheFirstEntryTrimsItAndMovesTheStart)
{
    ASSERT_TRUE(_map->removeToBlock(30));

    EXPECT_EQ(_map->startBlock(), 30U);
    EXPECT_EQ(runsOf(*_map), (BlockRuns{{30, 970, 0, kFree}}));
    EXPECT_EQ(_map->blockCountForType(kHFSPlusExtentUnalloced), 970U);
}

TEST_F(HFSPlusExtentMapSpan, RemovingToABlockDropsWholeEntriesBeforeIt)
{
    ASSERT_TRUE(_map->insert(0, 100, 20, kData));
    ASSERT_TRUE(_map->insert(100, 100, 21, kFixed));

    ASSERT_TRUE(_map->removeToBlock(200));

    EXPECT_EQ(runsOf(*_map), (BlockRuns{{200, 800, 0, kFree}}));
    ASSERT_TRUE(_map->removeToBlock(100));
    EXPECT_EQ(_map->startBlock(), 200U);
}

TEST_F(HFSPlusExtentMapSpan, AnEntryIsFoundByEachOfItsBlocks)
{
    const auto map = mapFrom(100);
    ASSERT_TRUE(map->insert(200, 50, 20, kResource));
    uint32_t count = 0;

    for (const uint32_t block : {200U, 225U, 249U}) {
        const auto* const entry = map->findEntry(block, &count);
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(entry->start, 200U);
        EXPECT_EQ(entry->fork(), 0xFF);
        EXPECT_EQ(count, 50U);
        EXPECT_EQ(map->blockCountForEntry(*entry), 50U);
    }
    EXPECT_EQ(map->findEntry(250, &count)->start, 250U);
    EXPECT_EQ(count, 750U);
}

TEST_F(HFSPlusExtentMapSpan, NoEntryIsFoundOutsideTheSpan)
{
    const auto map = mapFrom(100);

    EXPECT_EQ(map->findEntry(99), nullptr);
    EXPECT_EQ(map->findEntry(kBlocks), nullptr);
    EXPECT_EQ(map->findEntry(0xFFFFFFFF), nullptr);
}

TEST_F(HFSPlusExtentMapSpan, ATypeOfThreeOrMoreAborts)
{
    EXPECT_DEATH(std::ignore = _map->insert(0, 1, 20, 0x03000000), "unhandled extent type: 3");
    EXPECT_DEATH(std::ignore = _map->insert(0, 0, 20, 0xFF000000), "unhandled extent type: 255");
    EXPECT_DEATH(std::ignore = _map->blockCountForType(3), "unhandled extent type: 3");
}

TEST_F(HFSPlusExtentMapSpan, ALimitOfOneToThirtyTwoBytesAborts)
{
    EXPECT_DEATH(_map->limitMemoryUsageTo(1), "extent map of 1 bytes");
    EXPECT_DEATH(_map->limitMemoryUsageTo(32), "extent map of 32 bytes");
}

TEST_F(HFSPlusExtentMapSpan, ValidatingAbortsWhenATotalIsWrong)
{
    ASSERT_TRUE(_map->insert(100, 100, 20, kData));
    _map->validate(false);
    // Entries are the map's own; only a bug would write through one.
    auto* const entry = const_cast<HFSPlusExtentMapEntry*>(_map->findEntry(100));

    entry->info = kFixed;

    EXPECT_DEATH(_map->validate(false), "block counts of an extent map are wrong");
}

TEST_F(HFSPlusExtentMapSpan, ValidatingVerboselyPrintsTheTotals)
{
    ASSERT_TRUE(_map->insert(16, 32, 20, kData));
    const auto printThenEnd = [this] {
        _map->validate(true);
        std::_Exit(0);
    };
    // The level is read once, so it takes a process of its own.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ASSERT_EQ(setenv("KLDebugLevel", "debug", 1), 0);

    EXPECT_EXIT(printThenEnd(), testing::ExitedWithCode(0),
                "_dataBlockTotal = 00000020\n.*immutable = 00000000 vs 00000000\n"
                ".*unalloced = 000003C8 vs 000003C8\n.*allocated = 00000020 vs 00000020\n");
}

TEST_F(HFSPlusExtentMapSpan, DumpingListsSpanSizesAndOwners)
{
    ASSERT_TRUE(_map->insert(100, 30, 20, kResource));
    const auto dumpThenEnd = [this] {
        _map->dump();
        std::_Exit(0);
    };
    // The level is read once, so it takes a process of its own.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ASSERT_EQ(setenv("KLDebugLevel", "debug", 1), 0);

    EXPECT_EXIT(dumpThenEnd(), testing::ExitedWithCode(0),
                "--------\n.*extent count: 3 \\(96B\\)\n.*block count: 1000 \\(.*iB\\)\n"
                ".*block range: 00000000 - 000003E7\n"
                ".*start = 00000000, count = 00000064, cnid = 00000000, info = 01 000000\n"
                ".*start = 00000064, count = 0000001E, cnid = 00000014, info = 02 FF0000  "
                "/movie\n");
}
