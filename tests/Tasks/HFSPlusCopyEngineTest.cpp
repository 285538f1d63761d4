#include "Tasks/HFSPlusCopyEngine.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "Tasks/DefragRun.h"
#include "Tasks/HFSPlusCopyBuffer.h"
#include "Tasks/HFSPlusDefragProgress.h"
#include "Tasks/HFSPlusExtentMapBuilder.h"
#include "Tasks/HFSPlusSourceSelection.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"
#include "support/NothrowAllocations.h"

namespace {

constexpr uint64_t kBlockSize = 4096;
using Operation = MemoryBlockDevice::Operation;

HFSPlusVolumeBuilder plainVolume(uint32_t totalBlocks = 1000)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(kBlockSize).totalBlocks(totalBlocks);
    return builder;
}

/** Runs DEFRAG on a volume and expects it sound, with its contents as before. */
DefragOutput defragSoundly(HFSPlusOpenedVolume& volume, uint64_t bufferBlocks)
{
    EXPECT_TRUE(volume) << volume.error();
    const HFSPlusForkHashes before = volume.hashes({.hashBlocks = true});
    const uint32_t freeBlocks = volume.check().freeBlocks;
    const DefragOutput output = runDefrag(*volume, bufferBlocks * kBlockSize);
    EXPECT_TRUE(output.isWhole());
    const HFSPlusCheckResult after = volume.check();
    EXPECT_TRUE(after.consistent) << after.description();
    EXPECT_EQ(after.freeBlocks, freeBlocks);
    EXPECT_EQ(volume.hashes({.hashBlocks = true}), before);
    return output;
}

std::vector<HFSPlusCheckedExtent> extentsOf(const HFSPlusOpenedVolume& volume, uint32_t cnid,
                                            uint8_t fork = 0)
{
    const HFSPlusCheckResult result = volume.check();
    const HFSPlusCheckedFork* found = result.forkWithCNID(cnid, fork);
    return found == nullptr ? std::vector<HFSPlusCheckedExtent>{} : found->extents;
}

}  // namespace

TEST(HFSPlusCopyEngine, AForkInOnePieceButNotAtTheFrontIsMovedThereAllTheSame)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/whole", 20).data({{700, 12}});
    HFSPlusOpenedVolume volume(builder);

    EXPECT_EQ(defragSoundly(volume, 16).error(), "");

    ASSERT_EQ(extentsOf(volume, 20).size(), 1u);
    EXPECT_LT(extentsOf(volume, 20)[0].startBlock, 100u);
}

TEST(HFSPlusCopyEngine, AnExtentLongerThanTheZoneIsPlacedOverSeveralCycles)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/long", 20).data({{300, 100}, {500, 50}});
    HFSPlusOpenedVolume volume(builder);

    const DefragOutput output = defragSoundly(volume, 16);

    EXPECT_EQ(output.error(), "");
    EXPECT_EQ(extentsOf(volume, 20).size(), 1u);
    const std::vector<DefragMove> moves = output.moves();
    EXPECT_GE(
        std::ranges::count_if(
            moves, [](const DefragMove& move) { return move.source >= 300 && move.source < 400; }),
        100 / 16);
    for (const DefragMove& move : moves) {
        EXPECT_LE(move.count, 16u);
    }
}

TEST(HFSPlusCopyEngine, DestinationsSkipImmutableBlocksAndNoCopySpansThem)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.badBlocks({{40, 3}, {60, 1}});
    builder.file("/long", 20).data({{300, 40}, {500, 40}});
    HFSPlusOpenedVolume volume(builder);

    const DefragOutput output = defragSoundly(volume, 64);

    EXPECT_EQ(output.error(), "");
    for (const DefragMove& move : output.moves()) {
        for (const uint32_t bad : {40u, 41u, 42u, 60u}) {
            EXPECT_FALSE(move.destination <= bad && bad < move.destination + move.count);
            EXPECT_FALSE(move.source <= bad && bad < move.source + move.count);
        }
    }
}

TEST(HFSPlusCopyEngine, AnEvictedEntryIsSplitAcrossFreeRunsLargestFirst)
{
    // Everything behind block 100 is in use but three free runs of 6, 9 and 30 blocks.
    HFSPlusVolumeBuilder builder = plainVolume(400);
    builder.file("/front", 20).data({{30, 20}, {360, 1}});
    builder.file("/next", 25).data({{50, 50}});
    builder.file("/a", 21).data({{100, 100}});
    builder.file("/b", 22).data({{206, 54}});
    builder.file("/c", 23).data({{269, 61}});
    builder.file("/d", 24).data({{361, 38}});
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    ASSERT_TRUE(volume.check().consistent) << volume.check().description();

    const std::vector<DefragMove> moves = runDefrag(*volume, 40 * kBlockSize).moves();

    EXPECT_TRUE(volume.check().consistent) << volume.check().description();
    // The zone begins behind the special files and ends inside the second file.
    ASSERT_GE(moves.size(), 3u);
    EXPECT_EQ(moves[0].source, 30u);
    EXPECT_EQ(moves[0].destination, 330u);
    EXPECT_EQ(moves[0].count, 20u);
    EXPECT_EQ(moves[1].source, 50u);
    EXPECT_EQ(moves[1].destination, 350u);
    EXPECT_EQ(moves[1].count, 10u);
    EXPECT_EQ(moves[2].source, 60u);
    EXPECT_EQ(moves[2].destination, 260u);
}

TEST(HFSPlusCopyEngine, TooLittleFreeSpaceEndsTheRunWithItsMessageAndNothingMoved)
{
    HFSPlusVolumeBuilder builder = plainVolume(400);
    builder.file("/f", 20).data({{100, 10}, {50, 10}});
    builder.file("/rest", 21).data({{120, 275}});
    HFSPlusOpenedVolume volume(builder);
    const auto before = volume.memory().clone();

    const DefragOutput output = runDefrag(*volume, 200 * kBlockSize);

    EXPECT_EQ(output.error(), "The amount of free space is insufficient.");
    EXPECT_TRUE(output.moves().empty());
    EXPECT_TRUE(volume.check().consistent) << volume.check().description();
    EXPECT_EQ(extentsOf(volume, 20), (std::vector<HFSPlusCheckedExtent>{{100, 10}, {50, 10}}));
}

TEST(HFSPlusCopyEngine, TheBitmapStaysWrongWhenTheRunEndsBeforeItWrites)
{
    HFSPlusVolumeBuilder builder = plainVolume(400);
    builder.file("/f", 20).data({{100, 10}, {50, 10}});
    builder.file("/rest", 21).data({{120, 275}});
    builder.damage(damagedBitmap(200, 5, false));
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    const auto before = volume.memory().clone();

    const DefragOutput output = runDefrag(*volume, 200 * kBlockSize);

    EXPECT_EQ(output.error(), "The amount of free space is insufficient.");
    EXPECT_FALSE(volume->needsFlush());
    volume.close();
    EXPECT_TRUE(volume.memory().hasSameBytesAs(*before));
}

TEST(HFSPlusCopyEngine, AZoneOfNoBlocksIsTooCongestedRatherThanEndless)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/f", 20).data({{100, 10}, {50, 10}});
    HFSPlusOpenedVolume volume(builder);

    const DefragOutput output = runDefrag(*volume, kBlockSize - 1);

    EXPECT_EQ(output.error(), "Volume is too congested, unable to continue.");
}

TEST(HFSPlusCopyEngine, DataAreDurableBeforeRecordsAndSpecialFilesBeforeTheHeader)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/f", 20).data({{500, 4}, {400, 4}});
    HFSPlusOpenedVolume volume(builder);

    const DefragOutput output = runDefrag(*volume, 64 * kBlockSize);

    EXPECT_EQ(output.error(), "");
    std::vector<std::string> writes;  // what was written between two barriers, in order
    std::string since;
    const std::vector<DefragMove> moves = output.moves();
    for (const Operation& operation : volume.operations()) {
        if (operation.kind == Operation::Kind::kSynchronize) {
            writes.push_back(since);
            since.clear();
        } else if (operation.kind == Operation::Kind::kWrite) {
            const uint64_t block = operation.offset / kBlockSize;
            const bool isData = std::ranges::any_of(moves, [&](const DefragMove& move) {
                return move.destination <= block && block < move.destination + move.count;
            });
            const bool isHeader =
                operation.offset == 1024 || operation.offset == 1000 * kBlockSize - 1024;
            since += isHeader ? 'H' : isData ? 'D' : 'S';
        }
    }
    EXPECT_EQ(since, "");
    // The mark comes first and goes last.
    ASSERT_EQ(writes.size() % 3, 2u);
    EXPECT_EQ(writes.front(), "H");
    EXPECT_EQ(writes.back(), "H");
    for (size_t cycle = 1; cycle + 3 < writes.size(); cycle += 3) {
        EXPECT_EQ(writes[cycle].find_first_not_of('D'), std::string::npos) << writes[cycle];
        EXPECT_EQ(writes[cycle + 1].find('H'), std::string::npos) << writes[cycle + 1];
        EXPECT_EQ(writes[cycle + 2], "HH");
    }
}

TEST(HFSPlusCopyEngine, EveryReadOfACycleComesBeforeItsFirstWrite)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/f", 20).data({{500, 4}, {400, 4}, {300, 4}});
    HFSPlusOpenedVolume volume(builder);

    const DefragOutput output = runDefrag(*volume, 256 * kBlockSize);

    ASSERT_EQ(output.error(), "");
    const std::vector<Operation> operations = volume.operations();
    const auto firstWrite = std::ranges::find_if(operations, [](const Operation& operation) {
        return operation.kind == Operation::Kind::kWrite;
    });
    for (const uint32_t source : {500u, 400u, 300u}) {
        const auto read = std::ranges::find_if(operations, [&](const Operation& operation) {
            return operation.kind == Operation::Kind::kRead &&
                   operation.offset == source * kBlockSize;
        });
        EXPECT_LT(read, firstWrite);
    }
}

TEST(HFSPlusCopyEngine, ARunThatFailsAtAnyReadLeavesASoundVolumeWithEveryByte)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/f", 20).data({{500, 14}, {400, 24}, {300, 9}});
    builder.file("/g", 21).data({{520, 3}, {30, 5}}).resource({{540, 3}, {36, 5}});
    bool reached = true;
    for (uint64_t ordinal = 1; reached; ++ordinal) {
        HFSPlusOpenedVolume volume(builder);
        const HFSPlusForkHashes before = volume.hashes();
        volume.faults().fail(FaultyBlockDevice::Operation::kRead, ordinal, 5,
                             FaultyBlockDevice::Lasting::kFromThenOn);

        const DefragOutput output = runDefrag(*volume, 16 * kBlockSize);

        reached = volume.faults().faultReached();
        EXPECT_TRUE(output.isWhole());
        EXPECT_EQ(output.error().empty(), !reached) << "read " << ordinal;
        volume.faults().heal();
        volume.close();
        ASSERT_TRUE(volume.check().consistent)
            << "read " << ordinal << ": " << volume.check().description();
        ASSERT_EQ(volume.hashes(), before) << "read " << ordinal;
    }
}

TEST(HFSPlusCopyEngine, ARunThatFailsAtAnyWriteLosesNoByteOfAFile)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/f", 20).data({{500, 14}, {400, 24}, {300, 9}});
    builder.file("/g", 21).data({{520, 3}, {30, 5}}).resource({{540, 3}, {36, 5}});
    bool reached = true;
    for (uint64_t ordinal = 0; reached; ++ordinal) {
        HFSPlusOpenedVolume volume(builder);
        const HFSPlusForkHashes before = volume.hashes();
        volume.faults().stopAfterWrites(ordinal);

        const DefragOutput output = runDefrag(*volume, 16 * kBlockSize);

        reached = volume.faults().faultReached();
        EXPECT_TRUE(output.isWhole());
        volume.close();
        ASSERT_EQ(volume.hashes(), before) << "after " << ordinal << " writes";
    }
}

TEST(HFSPlusCopyEngine, ABarrierThatFailsEndsTheRunBeforeARecordNamesTheData)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/f", 20).data({{500, 14}, {400, 24}, {300, 9}});
    HFSPlusOpenedVolume volume(builder);
    volume.faults().fail(FaultyBlockDevice::Operation::kSynchronize, 1, 5);

    const DefragOutput output = runDefrag(*volume, 64 * kBlockSize);
    volume.close();

    EXPECT_EQ(output.error(), "Write failure.");
    EXPECT_TRUE(output.moves().empty());
    EXPECT_EQ(extentsOf(volume, 20),
              (std::vector<HFSPlusCheckedExtent>{{500, 14}, {400, 24}, {300, 9}}));
}

TEST(HFSPlusCopyEngine, TwoFilesInAlternatingPiecesBothEndInOne)
{
    HFSPlusBuilderExtents even;
    HFSPlusBuilderExtents odd;
    for (uint32_t run = 0; run < 60; ++run) {
        even.push_back({100 + 2 * run, 1});
        odd.push_back({101 + 2 * run, 1});
    }
    HFSPlusVolumeBuilder builder = plainVolume(2000);
    builder.file("/even", 20).data(even);
    builder.file("/odd", 21).data(odd);
    HFSPlusOpenedVolume volume(builder);

    EXPECT_EQ(defragSoundly(volume, 50).error(), "");

    EXPECT_EQ(extentsOf(volume, 20).size(), 1u);
    EXPECT_EQ(extentsOf(volume, 21).size(), 1u);
}

namespace {

constexpr uint32_t kCrowdedRuns = 131300;  // with their gaps, more runs than one span holds

/** Every byte of the file behind; the rest of the volume's data are zeros. */
std::string textOfFileBehind()
{
    std::string text;
    for (uint32_t block = 0; block < 200; ++block) {
        text.append(512, static_cast<char>(1 + block));
    }
    return text;
}

/** A file in runs of one block, two apart, and one behind it in two pieces of which the bitmap
 *  does not know the first. */
HFSPlusVolumeBuilder crowdedVolume()
{
    HFSPlusBuilderExtents extents;
    for (uint32_t run = 0; run < kCrowdedRuns; ++run) {
        extents.push_back({20000 + 2 * run, 1});
    }
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(600000).contents(false);
    builder.extentsNodeSize(4096).freeExtentsNodes(400);
    builder.file("/crowd", 20).data(std::move(extents));
    builder.file("/behind", 21).data({{420000, 100}, {300000, 100}});
    builder.dataBeginning(textOfFileBehind());
    builder.damage(damagedBitmap(300000, 100, false));
    return builder;
}

/** Never finds anything to place, and never gives up. */
class IdleSelection final : public HFSPlusSourceSelection {
public:
    [[nodiscard]] Found getSourceEntry(Piece& /*piece*/, VZDefragErrorSlot /*error*/) override
    {
        return Found::kNothing;
    }
    [[nodiscard]] bool putSourceEntry(const Piece& /*piece*/, VZDefragErrorSlot /*error*/) override
    {
        return false;
    }
    [[nodiscard]] bool updateSource(VZDefragErrorSlot /*error*/) override { return true; }
};

}  // namespace

TEST(HFSPlusCopyEngine, MoreRunsThanOneSpanHoldsAreDefragmentedSpanBySpan)
{
    // An eviction finds its room behind the span, where it must not take used blocks for free.
    HFSPlusOpenedVolume volume(crowdedVolume());
    ASSERT_TRUE(volume) << volume.error();

    const DefragOutput output = runDefrag(*volume, uint64_t{60000} * 512, {"DEFRAG", "-q"});

    EXPECT_EQ(output.error(), "");
    const HFSPlusCheckResult after = volume.check();
    EXPECT_TRUE(std::ranges::all_of(after.problems, [](const std::string& problem) {
        return problem.find("freeBlocks") != std::string::npos;
    })) << after.description();
    EXPECT_EQ(extentsOf(volume, 20).size(), 1u);
    const std::vector<HFSPlusCheckedExtent> behind = extentsOf(volume, 21);
    ASSERT_EQ(behind.size(), 1u);
    std::string text(textOfFileBehind().size(), '\0');
    volume.memory().peek(text.data(), text.size(), uint64_t{behind[0].startBlock} * 512);
    EXPECT_TRUE(text == textOfFileBehind());
}

TEST(HFSPlusCopyEngine, ForksThatShareBlocksBehindTheFirstSpanAreRefusedBeforeAnythingMoves)
{
    HFSPlusVolumeBuilder builder = crowdedVolume();
    builder.unchecked();
    builder.file("/sharing", 22).data({{19000, 10}, {420050, 100}});
    for (const char* command : {"DEFRAG", "COMPACT"}) {
        HFSPlusOpenedVolume volume(builder);
        ASSERT_TRUE(volume) << volume.error();

        const DefragOutput output = runDefrag(*volume, uint64_t{60000} * 512, {command});

        EXPECT_TRUE(output.error().starts_with("Invalid overlapping extent")) << output.error();
        EXPECT_EQ(output.moves().size(), 0u);
        EXPECT_EQ(volume.memory().writeCount(), 0u);
    }
}

TEST(HFSPlusCopyEngine, ALongForkIsNotTakenOutOfTheMapAndInAgainEveryCycle)
{
    constexpr uint32_t kPieces = 100000;
    HFSPlusBuilderExtents extents;
    for (uint32_t piece = 0; piece < kPieces; ++piece) {
        extents.push_back({110000 + 2 * piece, 1});
    }
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(400000).contents(false);
    builder.extentsNodeSize(4096).freeExtentsNodes(300);
    builder.file("/long", 20).data(std::move(extents));
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();

    // Each entry of the map, copy and tree node is one allocation. Ten cycles that touched the
    // whole fork would take a million.
    const NothrowAllocations allocations;
    const DefragOutput output = runDefrag(*volume, uint64_t{10000} * 512, {"DEFRAG", "-q"});
    const uint64_t count = allocations.count();

    EXPECT_EQ(output.error(), "");
    EXPECT_EQ(extentsOf(volume, 20).size(), 1u);
    EXPECT_LT(count, 4 * kPieces);
}

TEST(HFSPlusCopyEngine, ASpanRebuiltAgainAndAgainWithoutNewsIsTooCongested)
{
    HFSPlusOpenedVolume volume(crowdedVolume());
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusFileForkSet immutable(*volume);
    HFSPlusExtentMapBuilder span(*volume, immutable);
    ASSERT_TRUE(span.buildExtentMap(0));
    ASSERT_FALSE(span.reachesVolumeEnd());
    ASSERT_TRUE(span.extentMap()->removeToBlock(10000));  // the zone is free from the start
    const auto task = std::make_shared<HFSPlusDefragTask>(*volume, false);
    HFSPlusDefragProgress progress(*task, 0);
    const auto buffer = HFSPlusCopyBuffer::initWithSize(uint64_t{100} * 512, 512, nullptr);
    IdleSelection selection;
    HFSPlusCopyEngine engine(*volume, *task, span, selection, *buffer, progress);

    std::unique_ptr<VZDefragError> failure;
    const KLClosedGate gate((*volume).gate());
    ASSERT_FALSE(engine.run(&failure));

    EXPECT_EQ(failure->description(), "Volume is too congested, unable to continue.");
}
