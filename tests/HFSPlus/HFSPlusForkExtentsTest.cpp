#include "HFSPlus/HFSPlusForkExtents.h"

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlusForkExtentsFixture.h"

namespace {

std::string invalidRange(const std::string& arguments)
{
    return "Invalid extent range with start block = " + arguments;
}

}  // namespace

TEST(HFSPlusForkExtents, MovingTheMiddleOfAnExtentLeavesHeadPieceAndTail)
{
    const HFSPlusOpenedVolume volume(movieVolume({{100, 30}}));
    const auto fork = openFork(volume, 20);

    ASSERT_TRUE(moveData(volume, *fork, 110, 500, 10));
    ASSERT_TRUE(fork->update());

    EXPECT_EQ(flushedExtents(volume, 20), (Extents{{100, 10}, {500, 10}, {120, 10}}));
    EXPECT_TRUE(isSound(volume));
}

TEST(HFSPlusForkExtents, AdjacentPiecesMovedToAdjacentPlacesAreStoredAsOneExtent)
{
    const HFSPlusOpenedVolume volume(movieVolume({{100, 10}, {200, 10}, {300, 5}}));
    const auto fork = openFork(volume, 20);

    ASSERT_TRUE(moveData(volume, *fork, 100, 500, 10));
    ASSERT_TRUE(moveData(volume, *fork, 200, 510, 10));
    EXPECT_EQ(fork->mergedExtentCount(), 2u);
    ASSERT_TRUE(fork->update());

    EXPECT_EQ(flushedExtents(volume, 20), (Extents{{500, 20}, {300, 5}}));
    EXPECT_TRUE(isSound(volume));
}

TEST(HFSPlusForkExtents, AForkThatFallsFrom9To8ExtentsLosesItsOverflowRecord)
{
    const HFSPlusOpenedVolume volume(movieVolume(scattered(100, 9, 5, 10)));
    ASSERT_EQ(volume->extents().headerRecord().leafRecords, 1u);
    const auto fork = openFork(volume, 20);

    ASSERT_TRUE(moveData(volume, *fork, 110, 105, 5));
    ASSERT_TRUE(fork->update());

    EXPECT_EQ(volume->extents().headerRecord().leafRecords, 0u);
    Extents expected = {{100, 10}};
    for (uint32_t start = 120; start <= 180; start += 10) {
        expected.push_back({start, 5});
    }
    EXPECT_EQ(flushedExtents(volume, 20), expected);
    EXPECT_TRUE(isSound(volume));
}

TEST(HFSPlusForkExtents, AForkWhoseTotalChangesInRecord0GetsItsOverflowRecordsUnderNewStarts)
{
    const HFSPlusOpenedVolume volume(movieVolume(scattered(100, 30, 4, 10)));
    const auto fork = openFork(volume, 20);

    ASSERT_TRUE(moveData(volume, *fork, 111, 700, 2));
    ASSERT_TRUE(fork->update());

    // Record 0 lost the extents at 160 and 170 to the next record, which begins 8 blocks earlier.
    for (const uint32_t start : {24u, 56u, 88u}) {
        uint32_t block = start;
        HFSPlusExtentRecord record = {};
        ASSERT_TRUE(volume->extents().copyExtentRecord(record, block, 20, 0, nullptr));
        EXPECT_EQ(block, start);
    }
    EXPECT_EQ(volume->extents().headerRecord().leafRecords, 3u);
    EXPECT_EQ(flushedExtents(volume, 20).size(), 32u);
    EXPECT_TRUE(isSound(volume));
}

TEST(HFSPlusForkExtents, ARecordOfTheSameTotalIsRewrittenInPlace)
{
    const HFSPlusOpenedVolume volume(movieVolume(scattered(100, 30, 4, 10)));
    const auto fork = openFork(volume, 20);

    ASSERT_TRUE(moveData(volume, *fork, 100, 700, 4));
    ASSERT_TRUE(moveData(volume, *fork, 250, 710, 4));
    ASSERT_TRUE(fork->update());

    Extents expected;
    for (const HFSPlusBuilderExtent& extent : scattered(100, 30, 4, 10)) {
        expected.push_back({extent.startBlock, extent.blockCount});
    }
    expected[0].startBlock = 700;
    expected[15].startBlock = 710;
    EXPECT_EQ(flushedExtents(volume, 20), expected);
    EXPECT_TRUE(isSound(volume));
}

TEST(HFSPlusForkExtents, AForkThatItsEightExtentsCoverIsReadWithoutTheOverflowFile)
{
    HFSPlusVolumeBuilder builder = movieVolume(scattered(100, 8, 5, 10));
    builder.file("/other", 21).data(scattered(500, 9, 5, 10));
    builder.damage(damagedNode(3, 1, "kind", 2));  // the overflow file's only leaf
    const HFSPlusOpenedVolume volume(std::move(builder));

    EXPECT_NE(openFork(volume, 20), nullptr);
    EXPECT_EQ(openingError(volume, 21), "Overflow extents file is inconsistent.");
}

TEST(HFSPlusForkExtents, DeletingAllExtentsFreesEveryBlockAndSetsTheLengthToZero)
{
    for (const uint32_t count : {3u, 8u, 40u}) {
        const HFSPlusOpenedVolume volume(movieVolume(scattered(100, count, 5, 10)));
        const uint32_t freeBlocks = volume->hostVolumeHeader().freeBlocks;
        const auto fork = openFork(volume, 20);

        fork->deleteAllExtents();
        ASSERT_TRUE(fork->update());

        EXPECT_EQ(volume->hostVolumeHeader().freeBlocks, freeBlocks + 5 * count);
        EXPECT_EQ(flushedExtents(volume, 20), Extents());
        const HFSPlusCheckResult result = volume.check();
        EXPECT_TRUE(result.consistent) << result.description();
        EXPECT_EQ(result.forkWithCNID(20)->logicalSize, 0u);
        EXPECT_EQ(result.extents.leafRecords, 0u);
    }
}

TEST(HFSPlusForkExtents, AResourceForkIsMovedLikeADataFork)
{
    HFSPlusVolumeBuilder builder = movieVolume({{100, 10}});
    builder.resource(scattered(200, 20, 2, 4));
    const HFSPlusOpenedVolume volume(std::move(builder));
    const auto fork = openFork(volume, 20, kHFSResourceForkType);

    ASSERT_TRUE(moveData(volume, *fork, 204, 600, 2));
    ASSERT_TRUE(moveData(volume, *fork, 240, 610, 2));
    ASSERT_TRUE(fork->update());

    ASSERT_TRUE(volume->flush(nullptr));
    EXPECT_EQ(extentsOnDisk(volume, 20), (Extents{{100, 10}}));
    EXPECT_EQ(extentsOnDisk(volume, 20, 0xFF)[1], (HFSPlusCheckedExtent{600, 2}));
    EXPECT_EQ(extentsOnDisk(volume, 20, 0xFF)[10], (HFSPlusCheckedExtent{610, 2}));
    EXPECT_TRUE(isSound(volume));
}

TEST(HFSPlusForkExtents, AForkThatWasNotChangedIsWrittenWithoutATrace)
{
    const HFSPlusOpenedVolume volume(movieVolume({{100, 30}}));
    const auto fork = openFork(volume, 20);

    ASSERT_TRUE(fork->moveTo(100, 500, 0));
    ASSERT_TRUE(fork->update());
    EXPECT_FALSE(volume->needsFlush());
}

TEST(HFSPlusForkExtents, ExtentsAreCopiedFromABlockOnWithTheOneThatContainsItCut)
{
    const HFSPlusOpenedVolume volume(movieVolume({{300, 10}, {100, 30}, {200, 5}}));
    const auto fork = openFork(volume, 20);
    const auto from = [&](uint32_t startBlock) {
        std::vector<HFSPlusHostExtentDescriptor> found = {{1, 1}};
        EXPECT_TRUE(fork->copyExtentDescriptors(found, startBlock, nullptr));
        Extents extents;
        for (const HFSPlusHostExtentDescriptor& extent : found) {
            extents.push_back({extent.startBlock, extent.blockCount});
        }
        return extents;
    };
    EXPECT_EQ(from(0), (Extents{{300, 10}, {100, 30}, {200, 5}}));
    EXPECT_EQ(from(129), (Extents{{300, 10}, {129, 1}, {200, 5}}));
    EXPECT_EQ(from(130), (Extents{{300, 10}, {200, 5}}));
    EXPECT_EQ(from(205), (Extents{{300, 10}}));
    EXPECT_EQ(from(310), Extents());

    ASSERT_TRUE(fork->moveTo(100, 500, 30));
    EXPECT_EQ(from(0), (Extents{{300, 10}, {100, 30}, {200, 5}}));  // as read until the update
    ASSERT_TRUE(fork->update());
    EXPECT_EQ(from(0), (Extents{{300, 10}, {500, 30}, {200, 5}}));
}

TEST(HFSPlusForkExtents, AMoveOutsideOneExtentIsRefused)
{
    const HFSPlusOpenedVolume volume(movieVolume({{100, 30}, {200, 5}}));
    const auto fork = openFork(volume, 20);
    const auto move = [&](uint32_t from, uint32_t count) {
        return failureOf([&](auto error) { return fork->moveTo(from, 500, count, error); });
    };
    const std::string tail = " encountered when processing file ID = 20 (movie).";

    EXPECT_EQ(move(99, 1), invalidRange("99 and block count = 1" + tail));
    EXPECT_EQ(move(130, 1), invalidRange("130 and block count = 1" + tail));
    EXPECT_EQ(move(129, 2), invalidRange("129 and block count = 2" + tail));
    EXPECT_EQ(move(200, 0xFFFFFFFF), invalidRange("200 and block count = 4294967295" + tail));

    fork->deleteAllExtents();
    EXPECT_EQ(move(100, 1), invalidRange("100 and block count = 1" + tail));
}

TEST(HFSPlusForkExtents, MovesInAnyOrderFindTheirExtents)
{
    const HFSPlusOpenedVolume volume(movieVolume(scattered(100, 20, 5, 10)));
    const auto fork = openFork(volume, 20);
    Extents expected;
    for (uint32_t index = 0; index < 20; ++index) {
        expected.push_back({500 + 10 * index, 5});
    }
    for (uint32_t step = 0; step < 20; ++step) {
        const uint32_t index = step * 7 % 20;
        ASSERT_TRUE(moveData(volume, *fork, 100 + 10 * index, 500 + 10 * index, 5));
    }
    ASSERT_TRUE(fork->update());
    EXPECT_EQ(flushedExtents(volume, 20), expected);
    EXPECT_TRUE(isSound(volume));
}

TEST(HFSPlusForkExtents, AForkTypeThatDoesNotExistIsRefused)
{
    const HFSPlusOpenedVolume volume(movieVolume({{100, 30}}));

    EXPECT_EQ(openingError(volume, 20, 1), "File ID = 20 (movie) has invalid fork type = 1.");
    EXPECT_EQ(openingError(volume, 0, 0xFE), "File ID = 0 () has invalid fork type = 254.");
}

TEST(HFSPlusForkExtents, WhatIsNoFileIsNotFound)
{
    const HFSPlusOpenedVolume volume(movieVolume({{100, 30}}));

    EXPECT_EQ(openingError(volume, 999),
              "File ID = 999 () could not be found. The catalog file may be corrupt.");
    EXPECT_EQ(openingError(volume, 2),
              "File ID = 2 (Untitled) could not be found. The catalog file may be corrupt.");
    EXPECT_EQ(openingError(volume, 5),
              "File ID = 5 () could not be found. The catalog file may be corrupt.");
}

TEST(HFSPlusForkExtents, AFileWithoutAThreadIsNamedByAScanOfTheCatalog)
{
    HFSPlusVolumeBuilder builder = movieVolume({{100, 30}});
    builder.file("/a:b", 30).data({{300, 5}});  // "a/b" on disk
    builder.damage(damagedCatalogRecord(30, "fileID", 31));
    const HFSPlusOpenedVolume volume(std::move(builder));

    EXPECT_EQ(openingError(volume, 31),
              "File ID = 31 (a:b) could not be found. The catalog file may be corrupt.");
}

TEST(HFSPlusForkExtents, ASpecialFileHasNoResourceForkAndIsNeverEmptied)
{
    const HFSPlusOpenedVolume volume(movieVolume({{100, 30}}));
    EXPECT_EQ(openingError(volume, 4, 0xFF).find("Internal error: HFSPlus/HFSPlusForkExtents.cpp:"),
              0u);

    const auto fork = openFork(volume, 4);
    fork->deleteAllExtents();
    EXPECT_EQ(failureOf([&](auto error) {
                  return fork->update(error);
              }).find("Internal error: HFSPlus/HFSPlusForkExtents.cpp:"),
              0u);
    EXPECT_FALSE(volume->needsFlush());
}

TEST(HFSPlusForkExtents, AMissingOverflowRecordIsNotReplacedByALowerOne)
{
    HFSPlusVolumeBuilder builder = movieVolume(scattered(100, 30, 4, 10));
    builder.damage(damagedOverflowRecord(20, 0, 64, "startBlock", 65));
    EXPECT_EQ(openingError(HFSPlusOpenedVolume(std::move(builder)), 20), missingExtents(20));
}

TEST(HFSPlusForkExtents, ARecordThatAddsNoBlocksCountsAsMissing)
{
    HFSPlusVolumeBuilder builder = movieVolume(scattered(100, 9, 4, 10));
    builder.damage(damagedOverflowRecord(20, 0, 32, "extents[0].blockCount", 0));
    EXPECT_EQ(openingError(HFSPlusOpenedVolume(std::move(builder)), 20), missingExtents(20));

    HFSPlusVolumeBuilder empty = movieVolume({{100, 4}});
    empty.file("/other", 21).data(scattered(500, 9, 5, 10));
    empty.damage(damagedCatalogRecord(20, "dataFork.extents[0].blockCount", 0));
    EXPECT_EQ(openingError(HFSPlusOpenedVolume(std::move(empty)), 20), missingExtents(20));
}

TEST(HFSPlusForkExtents, AForkWithMoreBlocksThanExtentsMissesARecord)
{
    HFSPlusVolumeBuilder builder = movieVolume(scattered(100, 9, 4, 10));
    builder.damage(damagedCatalogRecord(20, "dataFork.totalBlocks", 0xFFFFFFFF));
    EXPECT_EQ(openingError(HFSPlusOpenedVolume(std::move(builder)), 20), missingExtents(20));
}

TEST(HFSPlusForkExtents, ExtentsThatLeaveTheVolumeAreRefused)
{
    for (const auto& [field, value] : {std::pair{"dataFork.extents[1].startBlock", 998u},
                                       std::pair{"dataFork.extents[1].startBlock", 0xFFFFFFFEu},
                                       std::pair{"dataFork.extents[1].blockCount", 0xFFFFFFFFu}}) {
        HFSPlusVolumeBuilder builder = movieVolume({{100, 4}, {200, 4}});
        builder.damage(damagedCatalogRecord(20, field, value));
        EXPECT_EQ(openingError(HFSPlusOpenedVolume(std::move(builder)), 20), missingExtents(20));
    }
    HFSPlusVolumeBuilder builder = movieVolume(scattered(100, 9, 4, 10));
    builder.damage(damagedOverflowRecord(20, 0, 32, "extents[0].startBlock", 0x80000000));
    EXPECT_EQ(openingError(HFSPlusOpenedVolume(std::move(builder)), 20), missingExtents(20));
}

TEST(HFSPlusForkExtents, WhatStandsBehindAForksLastBlockIsNotFreed)
{
    HFSPlusVolumeBuilder builder = movieVolume({{100, 4}});
    builder.file("/other", 21).data({{200, 10}});
    builder.damage(damagedCatalogRecord(20, "dataFork.extents[1].startBlock", 200));
    builder.damage(damagedCatalogRecord(20, "dataFork.extents[1].blockCount", 10));
    const HFSPlusOpenedVolume volume(std::move(builder));
    const auto fork = openFork(volume, 20);

    ASSERT_TRUE(fork->moveTo(100, 500, 4));
    ASSERT_TRUE(fork->update());

    uint32_t used = 0;
    ASSERT_TRUE(volume->allocation().isSet(200, 10, used, nullptr));
    EXPECT_EQ(used, 10u);
}

TEST(HFSPlusForkExtents, AnExtentsFileThatItsEightExtentsDoNotCoverIsRefused)
{
    HFSPlusVolumeBuilder builder = movieVolume(scattered(100, 9, 4, 10));
    builder.damage(damagedHeader("extentsFile.totalBlocks", 500));
    const HFSPlusOpenedVolume volume(std::move(builder));
    EXPECT_EQ(openingError(volume, 3),
              "Extents for file ID = 3 () could not be found. The extents overflow file may be "
              "corrupt.");
}

TEST(HFSPlusForkExtents, TheExtentsFileHasNoUseForARecordOfItsOwnInItself)
{
    // Whoever followed such a record would need it to read the node that it lies in.
    HFSPlusVolumeBuilder builder = movieVolume(scattered(100, 9, 4, 10));
    builder.extentsFileExtents({{500, 8}});
    builder.damage(damagedHeader("extentsFile.totalBlocks", 12));
    builder.damage(damagedOverflowRecord(20, 0, 32, "startBlock", 8));
    builder.damage(damagedOverflowRecord(20, 0, 8, "fileID", 3));
    const HFSPlusOpenedVolume volume(std::move(builder));
    EXPECT_EQ(openingError(volume, 3),
              "Extents for file ID = 3 () could not be found. The extents overflow file may be "
              "corrupt.");
}

TEST(HFSPlusForkExtents, AForkWithoutAnExtentOfItsOwnRecordMissesOneWhateverTheOverflowFileHas)
{
    HFSPlusVolumeBuilder builder = movieVolume(scattered(100, 9, 4, 10));
    for (uint32_t index = 0; index < 8; ++index) {
        const std::string extent = "dataFork.extents[" + std::to_string(index) + "]";
        builder.damage(damagedCatalogRecord(20, extent + ".startBlock", 0));
        builder.damage(damagedCatalogRecord(20, extent + ".blockCount", 0));
    }
    builder.damage(damagedCatalogRecord(20, "dataFork.totalBlocks", 4));
    builder.damage(damagedOverflowRecord(20, 0, 32, "startBlock", 0));
    const HFSPlusOpenedVolume volume(std::move(builder));
    EXPECT_EQ(openingError(volume, 20),
              "Extents for file ID = 20 (movie) could not be found. The extents overflow file may "
              "be corrupt.");
}

TEST(HFSPlusForkExtents, ExtentsWhoseSumDoesNotFitThirtyTwoBitsAreRefused)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(0xFFFFFFF0).file("/movie", 20).data({{100, 1}, {200, 1}});
    builder.damage(damagedCatalogRecord(20, "dataFork.totalBlocks", 0xFFFFFFFF));
    builder.damage(damagedCatalogRecord(20, "dataFork.extents[0].blockCount", 0xF0000000));
    builder.damage(damagedCatalogRecord(20, "dataFork.extents[1].blockCount", 0xF0000000));
    const HFSPlusOpenedVolume volume(std::move(builder));
    EXPECT_EQ(openingError(volume, 20),
              "Extents for file ID = 20 (movie) could not be found. The extents overflow file may "
              "be corrupt.");
}

TEST(HFSPlusForkExtents, MovingPiecesInForkOrderTakesLinearTime)
{
    constexpr uint32_t kPieces = 200000;
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(1000000).contents(false);
    builder.file("/movie", 20).data({{100000, 2 * kPieces}});
    const HFSPlusOpenedVolume volume(std::move(builder));
    const auto fork = openFork(volume, 20);

    // A search from the start for every piece would take 20,000,000,000 steps.
    for (uint32_t piece = 0; piece < kPieces; ++piece) {
        ASSERT_TRUE(fork->moveTo(100000 + 2 * piece, 550000 + 2 * piece, 1));
    }
    EXPECT_EQ(fork->mergedExtentCount(), 2 * kPieces);
}
