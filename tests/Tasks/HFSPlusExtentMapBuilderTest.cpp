#include "Tasks/HFSPlusExtentMapBuilder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"

namespace {

/** An entry of a map, with its length. */
struct Run {
    uint32_t start;
    uint32_t count;
    uint32_t cnid;
    uint8_t type;
    uint8_t fork;
};

/** A span of a built volume. */
class Span {
public:
    explicit Span(HFSPlusVolumeBuilder builder, uint32_t firstBlock = 0)
        : volume(std::move(builder))
    {
        EXPECT_TRUE(volume) << volume.error();
        immutable = volume->immutableForkIDs(false, nullptr);
        map = std::make_unique<HFSPlusExtentMapBuilder>(*volume, *immutable);
        std::unique_ptr<VZDefragError> failure;
        built = map->buildExtentMap(firstBlock, &failure);
        error = failure != nullptr ? failure->description() : "";
    }

    [[nodiscard]] Run runAt(uint32_t block) const
    {
        uint32_t count = 0;
        const HFSPlusExtentMapEntry* entry = map->extentMap()->findEntry(block, &count);
        EXPECT_NE(entry, nullptr);
        return entry == nullptr
                   ? Run{}
                   : Run{entry->start, count, entry->cnid, entry->type(), entry->fork()};
    }

    HFSPlusOpenedVolume volume;
    std::unique_ptr<HFSPlusFileForkSet> immutable;
    std::unique_ptr<HFSPlusExtentMapBuilder> map;
    bool built = false;
    std::string error;
};

HFSPlusVolumeBuilder plainVolume(uint32_t blockSize = 4096)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(blockSize).totalBlocks(1000);
    return builder;
}

}  // namespace

TEST(HFSPlusExtentMapBuilder, BlocksOf512BytesMakeTheBootAreaThreeAndTheAlternateAreaTwo)
{
    const Span span(plainVolume(512));

    ASSERT_TRUE(span.built) << span.error;
    EXPECT_EQ(span.runAt(0).count, 3u);
    EXPECT_EQ(span.runAt(0).type, kHFSPlusExtentImmutable);
    EXPECT_EQ(span.runAt(999).start, 998u);
    EXPECT_EQ(span.runAt(999).type, kHFSPlusExtentImmutable);
}

TEST(HFSPlusExtentMapBuilder, BlocksOf4096BytesMakeBothAreasOneBlock)
{
    const Span span(plainVolume(4096));

    ASSERT_TRUE(span.built) << span.error;
    EXPECT_EQ(span.runAt(0).count, 1u);
    EXPECT_EQ(span.runAt(0).cnid, 0u);
    EXPECT_EQ(span.runAt(999).start, 999u);
    EXPECT_EQ(span.runAt(999).count, 1u);
}

TEST(HFSPlusExtentMapBuilder, TheJournalAndItsInfoBlockAreFencedOffUnderTheirFiles)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.journal(600, 40).journalInfoBlock(700);
    const Span span(builder);

    ASSERT_TRUE(span.built) << span.error;
    EXPECT_EQ(span.runAt(610).start, 600u);
    EXPECT_EQ(span.runAt(610).count, 40u);
    EXPECT_EQ(span.runAt(610).type, kHFSPlusExtentImmutable);
    EXPECT_NE(span.runAt(610).cnid, 0u);
    EXPECT_EQ(span.runAt(700).count, 1u);
    EXPECT_EQ(span.runAt(700).type, kHFSPlusExtentImmutable);
}

TEST(HFSPlusExtentMapBuilder, AJournalInfoBlockBeyondFourGibibytesIsReadWhereItLies)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(1200000).journal(1150000, 40).journalInfoBlock(1100000);
    // The journal's own file is fenced off anyhow, so only a wrong size tells who read it.
    builder.damage(damagedJournalInfo("size", uint64_t{1} << 40));
    const Span span(builder);

    EXPECT_FALSE(span.built);
    EXPECT_EQ(span.error, "Volume is inconsistent.");
}

TEST(HFSPlusExtentMapBuilder, AnInfoBlockWithoutFlagBit0FencesOffOnlyItself)
{
    HFSPlusBuilderJournal journal;
    journal.startBlock = 600;
    journal.blockCount = 40;
    journal.infoBlock = 700;
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.journalDetails(journal);
    // The journal's place is out of bounds: without the flag nobody may look at it.
    builder.damage(damagedJournalInfo("flags", 2));
    builder.damage(damagedJournalInfo("offset", UINT64_MAX));
    const Span span(builder);

    ASSERT_TRUE(span.built) << span.error;
    EXPECT_EQ(span.runAt(700).count, 1u);
    EXPECT_EQ(span.runAt(700).type, kHFSPlusExtentImmutable);
}

TEST(HFSPlusExtentMapBuilder, AJournalBeyondTheVolumeIsRefused)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.journal(600, 40).journalInfoBlock(700);
    builder.damage(damagedJournalInfo("size", uint64_t{1} << 40));
    const Span span(builder);

    EXPECT_FALSE(span.built);
    EXPECT_EQ(span.error, "Volume is inconsistent.");
}

TEST(HFSPlusExtentMapBuilder, AJournalFileLongerThanTheJournalIsFencedOffToItsEnd)
{
    HFSPlusVolumeBuilder builder = plainVolume(4096);
    builder.journal(600, 40).journalInfoBlock(700);
    builder.damage(damagedJournalInfo("size", 20 * 4096));
    builder.damage(damagedBitmap(620, 20, false));
    const Span span(builder);

    ASSERT_TRUE(span.built) << span.error;
    for (uint32_t block = 600; block < 640; ++block) {
        EXPECT_EQ(span.runAt(block).type, kHFSPlusExtentImmutable) << block;
    }
    EXPECT_NE(span.runAt(640).type, kHFSPlusExtentImmutable);
}

TEST(HFSPlusExtentMapBuilder, AForkWithinItsCatalogRecordNeedsNoOverflowLookup)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/f", 20).data(
        {{300, 1}, {310, 1}, {320, 1}, {330, 1}, {340, 1}, {350, 1}, {360, 1}, {370, 1}});
    // A lookup would end in an error: the tree's root is out of range.
    builder.damage(damagedTreeHeader(kHFSPlusBuilderExtentsID, "rootNode", 0x00FFFFFF));
    const Span span(builder);

    ASSERT_TRUE(span.built) << span.error;
    EXPECT_EQ(span.runAt(370).cnid, 20u);
    EXPECT_EQ(span.runAt(370).type, kHFSPlusExtentAllocated);
}

TEST(HFSPlusExtentMapBuilder, ADataForkWithoutItsOverflowRecordFails)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/f", 20).data({{300, 2}});
    builder.damage(damagedCatalogRecord(20, "dataFork.totalBlocks", 5));
    // A record of another fork, so that the lookup has a tree to go through.
    builder.file("/g", 21).data(
        {{400, 1}, {402, 1}, {404, 1}, {406, 1}, {408, 1}, {410, 1}, {412, 1}, {414, 1}, {416, 1}});
    const Span span(builder);

    EXPECT_FALSE(span.built);
    EXPECT_EQ(span.error, "Overflow extent record missing.");
}

TEST(HFSPlusExtentMapBuilder, AResourceForkWithoutItsOverflowRecordDoesNotFail)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/f", 20).resource({{300, 2}});
    builder.damage(damagedCatalogRecord(20, "resourceFork.totalBlocks", 5));
    builder.file("/g", 21).data(
        {{400, 1}, {402, 1}, {404, 1}, {406, 1}, {408, 1}, {410, 1}, {412, 1}, {414, 1}, {416, 1}});
    const Span span(builder);

    ASSERT_TRUE(span.built) << span.error;
    EXPECT_EQ(span.runAt(300).cnid, 20u);
    EXPECT_EQ(span.runAt(300).fork, kHFSResourceForkType);
}

TEST(HFSPlusExtentMapBuilder, AnOverflowRecordThatBeginsElsewhereIsMissing)
{
    // The lookup for fork block 9 finds the record of fork block 8, whose extents would then be
    // taken twice.
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/g", 21).data(
        {{400, 1}, {402, 1}, {404, 1}, {406, 1}, {408, 1}, {410, 1}, {412, 1}, {414, 1}, {416, 1}});
    builder.damage(damagedCatalogRecord(21, "dataFork.totalBlocks", 10));
    const Span span(builder);

    EXPECT_FALSE(span.built);
    EXPECT_EQ(span.error, "Overflow extent record missing.");
}

TEST(HFSPlusExtentMapBuilder, AnOverflowRecordThatAddsNoBlocksIsMissing)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/g", 21).data(
        {{400, 1}, {402, 1}, {404, 1}, {406, 1}, {408, 1}, {410, 1}, {412, 1}, {414, 1}, {416, 1}});
    builder.damage(damagedOverflowRecord(21, 0, 8, "extents[0].blockCount", 0));
    const Span span(builder);

    EXPECT_FALSE(span.built);
    EXPECT_EQ(span.error, "Overflow extent record missing.");
}

TEST(HFSPlusExtentMapBuilder, AnOverflowRecordOfEmptyExtentsAheadOfUsedOnesEndsAllTheSame)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/g", 21).data({{400, 1},
                                 {402, 1},
                                 {404, 1},
                                 {406, 1},
                                 {408, 1},
                                 {410, 1},
                                 {412, 1},
                                 {414, 1},
                                 {416, 1},
                                 {418, 1}});
    builder.damage(damagedOverflowRecord(21, 0, 8, "extents[1].blockCount", 0));
    const Span span(builder);

    EXPECT_FALSE(span.built);
    EXPECT_EQ(span.error, "Overflow extent record missing.");
}

TEST(HFSPlusExtentMapBuilder, AForkOfTheImmutableSetIsImmutableThoughItsFileIsOrdinary)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/f", 20).data({{300, 2}}).resource({{310, 2}});
    HFSPlusOpenedVolume volume(builder);
    HFSPlusFileForkSet immutable(*volume);
    immutable.add(20, kHFSResourceForkType);
    HFSPlusExtentMapBuilder span(*volume, immutable);

    ASSERT_TRUE(span.buildExtentMap(0));

    EXPECT_EQ(span.extentMap()->findEntry(300)->type(), kHFSPlusExtentAllocated);
    EXPECT_EQ(span.extentMap()->findEntry(310)->type(), kHFSPlusExtentImmutable);
    EXPECT_EQ(span.extentMap()->findEntry(310)->cnid, 20u);
}

TEST(HFSPlusExtentMapBuilder, SpecialFilesMayMoveButNotTheStartupFile)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.startupExtents({{500, 3}}).catalogExtents({{520, 8}});
    const Span span(builder);

    ASSERT_TRUE(span.built) << span.error;
    EXPECT_EQ(span.runAt(500).type, kHFSPlusExtentImmutable);
    EXPECT_EQ(span.runAt(500).cnid, 7u);
    EXPECT_EQ(span.runAt(520).type, kHFSPlusExtentAllocated);
    EXPECT_EQ(span.runAt(520).cnid, 4u);
}

TEST(HFSPlusExtentMapBuilder, BadBlocksWithACatalogRecordAreMappedOnce)
{
    // The scan meets the record again, and its extents would then overlap themselves.
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/bad", 5).data({{300, 4}});
    const Span span(builder);

    ASSERT_TRUE(span.built) << span.error;
    EXPECT_EQ(span.runAt(300).cnid, 5u);
    EXPECT_EQ(span.runAt(300).type, kHFSPlusExtentImmutable);
}

TEST(HFSPlusExtentMapBuilder, BlocksSetInTheBitmapButOwnedByNobodyAreFencedOff)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.damage(damagedBitmap(600, 7, true));
    const Span span(builder);

    ASSERT_TRUE(span.built) << span.error;
    EXPECT_EQ(span.runAt(603).start, 600u);
    EXPECT_EQ(span.runAt(603).count, 7u);
    EXPECT_EQ(span.runAt(603).type, kHFSPlusExtentImmutable);
    EXPECT_EQ(span.runAt(603).cnid, 0u);
}

TEST(HFSPlusExtentMapBuilder, BlocksInUseButClearInTheBitmapAreSet)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/f", 20).data({{300, 10}});
    builder.damage(damagedBitmap(303, 2, false));
    const Span span(builder);

    ASSERT_TRUE(span.built) << span.error;
    uint32_t set = 0;
    ASSERT_TRUE(span.volume->allocation().isSet(300, 10, set, nullptr));
    EXPECT_EQ(set, 10u);
}

TEST(HFSPlusExtentMapBuilder, TwoForksWithOneBlockAreRefused)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.unchecked();
    builder.file("/f", 20).data({{300, 10}});
    builder.file("/g", 21).data({{305, 2}});
    const Span span(builder);

    EXPECT_FALSE(span.built);
    EXPECT_TRUE(span.error.starts_with("Invalid overlapping extent with start block = 305"))
        << span.error;
}

TEST(HFSPlusExtentMapBuilder, AnExtentBeyondTheVolumeIsRefused)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/f", 20).data({{300, 10}});
    builder.damage(damagedCatalogRecord(20, "dataFork.extents[0].startBlock", 0xFFFFFFFE));
    const Span span(builder);

    EXPECT_FALSE(span.built);
    EXPECT_EQ(span.error, "Volume is inconsistent.");
}

TEST(HFSPlusExtentMapBuilder, AForkWithExtentsBehindItsLastBlockIsRefused)
{
    // The records of such a fork could not be rewritten without losing those extents.
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/f", 20).data({{300, 10}}).resource({{330, 1}, {320, 1}});
    builder.damage(damagedCatalogRecord(20, "resourceFork.totalBlocks", 1));
    const Span inCatalog(builder);

    EXPECT_FALSE(inCatalog.built);
    EXPECT_EQ(inCatalog.error, "Volume is inconsistent.");

    HFSPlusVolumeBuilder longer = plainVolume();
    HFSPlusBuilderExtents extents;
    for (uint32_t piece = 0; piece < 12; ++piece) {
        extents.push_back({300 + 2 * piece, 1});
    }
    longer.file("/f", 20).data(extents);
    longer.damage(damagedCatalogRecord(20, "dataFork.totalBlocks", 10));
    const Span inOverflowFile(longer);

    EXPECT_FALSE(inOverflowFile.built);
    EXPECT_EQ(inOverflowFile.error, "Volume is inconsistent.");
}

namespace {

constexpr uint32_t kCrowdedRuns = 131300;  // with their gaps, more runs than one span holds

/** Blocks of 512 bytes: one file in runs of one block, two apart, and a second file behind. */
HFSPlusVolumeBuilder crowdedVolume()
{
    HFSPlusBuilderExtents extents;
    for (uint32_t run = 0; run < kCrowdedRuns; ++run) {
        extents.push_back({20000 + 2 * run, 1});
    }
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(400000).contents(false).extentsNodeSize(4096);
    builder.file("/crowd", 20).data(std::move(extents));
    builder.file("/behind", 21).data({{300000, 100}});
    return builder;
}

}  // namespace

TEST(HFSPlusExtentMapBuilder, ASpanOfTooManyRunsEndsEarlyAndTheNextBeginsThere)
{
    const Span span(crowdedVolume());

    ASSERT_TRUE(span.built) << span.error;
    const uint32_t end = span.map->extentNextStartBlock();
    EXPECT_LT(end, 400000u);
    EXPECT_EQ(span.map->extentBlockCount(), end);
    EXPECT_FALSE(span.map->reachesVolumeEnd());
    ASSERT_TRUE(span.map->buildExtentMap(end));
    EXPECT_EQ(span.map->extentMap()->startBlock(), end);
    EXPECT_GT(span.map->extentNextStartBlock(), end);
}

TEST(HFSPlusExtentMapBuilder, UsedBlocksBeyondTheSpanAreSetInTheBitmapAsWell)
{
    // Room for evictions is looked for behind the span, and there these blocks would be taken.
    HFSPlusVolumeBuilder builder = crowdedVolume();
    builder.damage(damagedBitmap(300000, 100, false));
    builder.damage(damagedBitmap(20000 + 2 * (kCrowdedRuns - 3), 1, false));
    const Span span(builder);

    ASSERT_TRUE(span.built) << span.error;
    ASSERT_LT(span.map->extentNextStartBlock(), 20000 + 2 * (kCrowdedRuns - 3));
    uint32_t set = 0;
    ASSERT_TRUE(span.volume->allocation().isSet(300000, 100, set, nullptr));
    EXPECT_EQ(set, 100u);
    ASSERT_TRUE(span.volume->allocation().isSet(20000 + 2 * (kCrowdedRuns - 3), 1, set, nullptr));
    EXPECT_EQ(set, 1u);
}

TEST(HFSPlusExtentMapBuilder, ABitmapThatCannotBeReadBehindTheSpanFailsTheBuild)
{
    // Which read that is, a first span tells: the alternate header leaves the map before any other
    // block is looked up in the bitmap.
    const HFSPlusOpenedVolume volume(crowdedVolume());
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusFileForkSet immutable(*volume);
    HFSPlusExtentMapBuilder span(*volume, immutable);
    ASSERT_TRUE(span.buildExtentMap(0));
    const uint64_t bitmap = (*volume).hostVolumeHeader().allocationFile.extents[0].startBlock;
    const std::vector<MemoryBlockDevice::Operation> operations = volume.operations();
    const auto read = std::ranges::find_if(operations, [&](const auto& operation) {
        return operation.offset >= bitmap * 512 && operation.offset < bitmap * 512 + 400000 / 8;
    });
    ASSERT_NE(read, operations.end());
    const auto ordinal = static_cast<uint64_t>(read - operations.begin()) + 1;

    const HFSPlusOpenedVolume other(crowdedVolume());
    other.faults().fail(FaultyBlockDevice::Operation::kRead, ordinal, 5);
    HFSPlusExtentMapBuilder otherSpan(*other, immutable);

    EXPECT_FALSE(otherSpan.buildExtentMap(0));
    EXPECT_TRUE(other.faults().faultReached());
}

TEST(HFSPlusExtentMapBuilder, AForkThatSharesBlocksWithAnAttributeIsRefused)
{
    const auto errorWithAttribute = [](const HFSPlusBuilderExtents& extents) {
        HFSPlusVolumeBuilder builder = plainVolume();
        builder.unchecked();
        builder.file("/f", 20).data({{300, 10}});
        builder.file("/g", 21).data({{320, 1}}).forkAttribute("fork", extents);
        const Span span(builder);
        return span.built ? "" : span.error;
    };

    EXPECT_EQ(errorWithAttribute({{310, 5}}), "");
    EXPECT_TRUE(errorWithAttribute({{400, 1}, {290, 12}})
                    .starts_with("Invalid overlapping extent with start block = 300, block count "
                                 "= 2, CNID 21"));
    EXPECT_TRUE(errorWithAttribute({{309, 1}}).starts_with("Invalid overlapping extent"));
    EXPECT_TRUE(errorWithAttribute({{900, 200}}).starts_with("Volume is inconsistent."));
    // In an extents record of the attributes file.
    HFSPlusBuilderExtents pieces;
    for (uint32_t piece = 0; piece < 12; ++piece) {
        pieces.push_back({500 + 2 * piece, 1});
    }
    EXPECT_EQ(errorWithAttribute(pieces), "");
    pieces.back().startBlock = 305;
    EXPECT_TRUE(errorWithAttribute(pieces).starts_with("Invalid overlapping extent"));
}

TEST(HFSPlusExtentMapBuilder, BlocksOfAttributesAreFencedOffAlsoWhereTheBitmapForgotThem)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/f", 20).data({{300, 10}}).forkAttribute("fork", {{400, 6}});
    builder.damage(damagedBitmap(402, 2, false));
    const Span span(builder);

    ASSERT_TRUE(span.built) << span.error;
    uint32_t set = 0;
    ASSERT_TRUE(span.volume->allocation().isSet(400, 7, set, nullptr));
    EXPECT_EQ(set, 6u);
    for (uint32_t block = 400; block < 406; ++block) {
        EXPECT_EQ(span.runAt(block).type, kHFSPlusExtentImmutable);
    }
}
