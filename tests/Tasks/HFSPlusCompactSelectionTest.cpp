#include "Tasks/HFSPlusCompactSelection.h"

#include <gtest/gtest.h>

#include <tuple>

#include "HFSPlus/HFSPlusExtentMap.h"
#include "HFSPlus/HFSPlusFileForkSet.h"
#include "Tasks/HFSPlusExtentMapBuilder.h"
#include "support/HFSPlusOpenedVolume.h"

namespace {

using Found = HFSPlusSourceSelection::Found;
using Piece = HFSPlusSourceSelection::Piece;

/** First block to copy, count, file and fork of a piece. */
using DataRun = std::tuple<uint32_t, uint32_t, uint32_t, uint8_t>;

/** Three files in a span that begins at block 100, and the selection under test. */
class HFSPlusCompactSelectionTest : public testing::Test {
protected:
    HFSPlusCompactSelectionTest()
    {
        EXPECT_TRUE(_volume) << _volume.error();
        EXPECT_TRUE(_span.buildExtentMap(100));
    }

    static HFSPlusVolumeBuilder builder()
    {
        HFSPlusVolumeBuilder builder;
        builder.blockSize(4096).totalBlocks(1000).badBlocks({{130, 2}});
        builder.file("/a", 20).data({{120, 10}, {300, 5}});
        builder.file("/b", 21).data({{140, 8}}).resource({{200, 3}});
        builder.file("/c", 22).data({{148, 4}});
        return builder;
    }

    /** What comes next; nothing in it when there is nothing. */
    DataRun next()
    {
        Piece piece;
        if (_selection.getSourceEntry(piece, nullptr) != Found::kPiece) {
            return {};
        }
        return {piece.start + piece.offset, piece.count, piece.cnid, piece.fork};
    }

    /** Places the first @p count blocks of what comes next, as the engine does. */
    DataRun place(uint32_t count)
    {
        const DataRun run = next();
        Piece piece{std::get<0>(run), 0, count, std::get<2>(run), std::get<3>(run)};
        EXPECT_TRUE(_selection.putSourceEntry(piece, nullptr));
        EXPECT_TRUE(map().deleteRun(piece.start, count));
        return run;
    }

    DataRun placeAll() { return place(std::get<1>(next())); }

    HFSPlusExtentMap& map() { return *_span.extentMap(); }
    HFSPlusCompactSelection& selection() { return _selection; }

    std::string errorOfPut(uint32_t count)
    {
        std::unique_ptr<VZDefragError> failure;
        EXPECT_FALSE(_selection.putSourceEntry({0, 0, count, 0, 0}, &failure));
        return failure == nullptr ? "" : failure->description();
    }

    std::string errorOfGet()
    {
        std::unique_ptr<VZDefragError> failure;
        Piece piece;
        EXPECT_EQ(_selection.getSourceEntry(piece, &failure), Found::kFailed);
        return failure == nullptr ? "" : failure->description();
    }

private:
    HFSPlusOpenedVolume _volume{builder()};
    HFSPlusFileForkSet _immutable{*_volume};
    HFSPlusExtentMapBuilder _span{*_volume, _immutable};
    HFSPlusCompactSelection _selection{_span};
};

constexpr uint8_t kResource = 0xFF;
const DataRun kNothing = {};

}  // namespace

TEST_F(HFSPlusCompactSelectionTest, AllocatedRunsComeInBlockOrder)
{
    EXPECT_EQ(placeAll(), DataRun(120, 10, 20, 0));
    EXPECT_EQ(placeAll(), DataRun(140, 8, 21, 0));
    EXPECT_EQ(placeAll(), DataRun(148, 4, 22, 0));
    EXPECT_EQ(placeAll(), DataRun(200, 3, 21, kResource));
    EXPECT_EQ(placeAll(), DataRun(300, 5, 20, 0));
    EXPECT_EQ(next(), kNothing);
}

TEST_F(HFSPlusCompactSelectionTest, APieceIsHandedOutUntilItIsPlacedToItsEnd)
{
    EXPECT_EQ(place(4), DataRun(120, 10, 20, 0));
    EXPECT_EQ(next(), DataRun(124, 6, 20, 0));
    EXPECT_EQ(next(), DataRun(124, 6, 20, 0));
}

TEST_F(HFSPlusCompactSelectionTest, ACycleGoesOnAtTheUnmovedRestOfARun)
{
    static_cast<void>(place(4));
    ASSERT_TRUE(selection().updateSource(nullptr));

    EXPECT_EQ(placeAll(), DataRun(124, 6, 20, 0));
    ASSERT_TRUE(selection().updateSource(nullptr));
    EXPECT_EQ(next(), DataRun(140, 8, 21, 0));
}

TEST_F(HFSPlusCompactSelectionTest, EvictedRunsComeBeforeAllOthersInTheirOldOrder)
{
    ASSERT_TRUE(map().deleteRun(120, 10));
    ASSERT_TRUE(map().deleteRun(140, 5));
    ASSERT_TRUE(map().insert(700, 10, 20, HFSPlusExtentInfo(kHFSPlusExtentAllocated, 0)));
    ASSERT_TRUE(map().insert(500, 5, 21, HFSPlusExtentInfo(kHFSPlusExtentAllocated, 0)));
    selection().sourceDidMove({{120, 10, 20, 0, 700}, {140, 5, 21, 0, 500}});

    EXPECT_EQ(placeAll(), DataRun(700, 10, 20, 0));
    EXPECT_EQ(placeAll(), DataRun(500, 5, 21, 0));
    EXPECT_EQ(placeAll(), DataRun(145, 3, 21, 0));
    EXPECT_EQ(placeAll(), DataRun(148, 4, 22, 0));
}

TEST_F(HFSPlusCompactSelectionTest, AnEvictedRunLeavesTheLineAsFarAsItIsPlaced)
{
    selection().sourceDidMove({{120, 10, 20, 0, 700}, {200, 3, 21, kResource, 500}});

    EXPECT_EQ(place(7), DataRun(700, 10, 20, 0));
    EXPECT_EQ(next(), DataRun(707, 3, 20, 0));
    ASSERT_TRUE(selection().updateSource(nullptr));
    EXPECT_EQ(placeAll(), DataRun(707, 3, 20, 0));
    EXPECT_EQ(next(), DataRun(500, 3, 21, kResource));
}

TEST_F(HFSPlusCompactSelectionTest, AnEvictedRunThatWasNotPlacedIsTheFirstOfTheNextCycle)
{
    ASSERT_EQ(placeAll(), DataRun(120, 10, 20, 0));
    selection().sourceDidMove({{140, 8, 21, 0, 700}});
    ASSERT_EQ(next(), DataRun(700, 8, 21, 0));  // there was no room for it
    ASSERT_TRUE(selection().updateSource(nullptr));

    EXPECT_EQ(next(), DataRun(700, 8, 21, 0));
}

TEST_F(HFSPlusCompactSelectionTest, RunsInLineKeepTheirPlacesWhenTheyAreEvictedOnceMore)
{
    selection().sourceDidMove({{120, 10, 20, 0, 700}, {140, 5, 21, 0, 500}});

    // In part, in several pieces, with a neighbour of the same file, and with others.
    selection().sourceDidMove(
        {{498, 4, 21, 0, 900}, {600, 3, 22, 0, 910}, {702, 4, 20, 0, 950}, {706, 1, 20, 0, 930}});

    EXPECT_EQ(placeAll(), DataRun(700, 2, 20, 0));
    EXPECT_EQ(placeAll(), DataRun(950, 4, 20, 0));
    EXPECT_EQ(placeAll(), DataRun(930, 1, 20, 0));
    EXPECT_EQ(placeAll(), DataRun(707, 3, 20, 0));
    EXPECT_EQ(placeAll(), DataRun(902, 2, 21, 0));
    EXPECT_EQ(placeAll(), DataRun(502, 3, 21, 0));
    EXPECT_EQ(placeAll(), DataRun(900, 2, 21, 0));
    EXPECT_EQ(placeAll(), DataRun(910, 3, 22, 0));
}

TEST_F(HFSPlusCompactSelectionTest, AfterAnEvictionTheNextRunIsTheFirstBehindTheFront)
{
    ASSERT_EQ(placeAll(), DataRun(120, 10, 20, 0));
    ASSERT_EQ(place(4), DataRun(140, 8, 21, 0));
    ASSERT_TRUE(selection().updateSource(nullptr));
    ASSERT_TRUE(map().deleteRun(144, 4));
    selection().sourceDidMove({{144, 4, 21, 0, 700}});
    ASSERT_EQ(placeAll(), DataRun(700, 4, 21, 0));
    ASSERT_TRUE(map().removeToBlock(147));  // beyond where the cycle before had stopped

    EXPECT_EQ(next(), DataRun(148, 4, 22, 0));
}

TEST_F(HFSPlusCompactSelectionTest, ACursorBehindTheSpanAsksTwiceForAFreshLookAndThenGivesUp)
{
    map().limitMemoryUsageTo(uint64_t{32} * 2);  // the free front and the first run
    ASSERT_EQ(placeAll(), DataRun(120, 10, 20, 0));

    EXPECT_EQ(next(), kNothing);
    EXPECT_EQ(next(), kNothing);
    EXPECT_EQ(errorOfGet(), "Volume is too congested, unable to continue.");
}

TEST_F(HFSPlusCompactSelectionTest, ACursorBeforeTheSpanIsAnInternalError)
{
    ASSERT_EQ(place(4), DataRun(120, 10, 20, 0));
    ASSERT_TRUE(selection().updateSource(nullptr));
    ASSERT_TRUE(map().removeToBlock(140));

    EXPECT_EQ(errorOfGet(), "Internal error: Tasks/HFSPlusCompactSelection.cpp:82");
}

TEST_F(HFSPlusCompactSelectionTest, ACursorInsideARunIsAnInternalError)
{
    const DataRun run = next();
    ASSERT_TRUE(selection().putSourceEntry({std::get<0>(run), 0, 4, 20, 0}, nullptr));
    ASSERT_TRUE(selection().updateSource(nullptr));  // the map still has the run as it was

    EXPECT_EQ(errorOfGet(), "Internal error: Tasks/HFSPlusCompactSelection.cpp:61");
}

TEST_F(HFSPlusCompactSelectionTest, WhatWasNotHandedOutCannotBePlaced)
{
    EXPECT_EQ(errorOfPut(1), "Internal error: Tasks/HFSPlusCompactSelection.cpp:97");
    ASSERT_EQ(next(), DataRun(120, 10, 20, 0));
    EXPECT_EQ(errorOfPut(11), "Internal error: Tasks/HFSPlusCompactSelection.cpp:97");
    ASSERT_TRUE(selection().updateSource(nullptr));
    selection().sourceDidMove({{140, 8, 21, 0, 700}});
    EXPECT_EQ(errorOfPut(1), "Internal error: Tasks/HFSPlusCompactSelection.cpp:116");
    ASSERT_EQ(next(), DataRun(700, 8, 21, 0));
    EXPECT_EQ(errorOfPut(9), "Internal error: Tasks/HFSPlusCompactSelection.cpp:116");
}

TEST_F(HFSPlusCompactSelectionTest, AnEmptySpanHasNothingToPlace)
{
    ASSERT_TRUE(map().removeToBlock(1000));

    EXPECT_EQ(next(), kNothing);
    EXPECT_EQ(next(), kNothing);
    EXPECT_EQ(next(), kNothing);
}
