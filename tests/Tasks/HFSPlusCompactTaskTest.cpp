#include <gtest/gtest.h>

#include <algorithm>

#include "HFSPlus/HFSPlusVolumeProber.h"
#include "Tasks/DefragRun.h"
#include "support/HFSPlusDataOrder.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"
#include "support/MountedOpener.h"

// COMPACT from its line to its last one.

namespace {

constexpr uint32_t kBlockSize = 4096;
constexpr uint32_t kBufferBlocks = 16;

using Lines = std::vector<std::string>;
using Extents = std::vector<HFSPlusCheckedExtent>;

const Lines& linesOfAnIdleRun()
{
    static const Lines kLines = {"COMPACT,START", "COMPACT,DONE"};
    return kLines;
}

HFSPlusVolumeBuilder plainVolume(uint32_t totalBlocks = 1000)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(kBlockSize).totalBlocks(totalBlocks);
    return builder;
}

constexpr uint32_t kFront = 26;  // the first block behind the special files of a packed volume

/** A volume with its special files at the front, one behind the other. */
HFSPlusVolumeBuilder packedVolume()
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.catalogNodeSize(4096).extentsNodeSize(4096);
    builder.allocationExtents({{1, 1}}).extentsFileExtents({{2, 4}}).catalogExtents({{6, 20}});
    return builder;
}

/** Files in pieces all over the volume, with gaps wider and narrower than a cycle. */
HFSPlusVolumeBuilder scatteredVolume()
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/movie", 20).data({{300, 10}, {400, 25}, {200, 5}});
    builder.file("/song", 21).data({{312, 4}, {500, 4}}).resource({{504, 2}, {320, 2}});
    builder.file("/text", 22).data({{429, 40}, {205, 1}});
    return builder;
}

DefragOutput runCompact(HFSPlusVolume& volume, uint32_t bufferBlocks = kBufferBlocks,
                        Lines words = {"COMPACT"})
{
    return runDefrag(volume, uint64_t{bufferBlocks} * volume.hostVolumeHeader().blockSize,
                     std::move(words));
}

/** What a volume holds and how it lies. */
struct Layout {
    explicit Layout(const HFSPlusOpenedVolume& volume)
    {
        const auto copy = volume.memory().clone();
        HFSPlusCheckDeviceReader reader(*copy);
        check = checkHFSPlusVolume(reader);
        order = dataOrder(movableForks(reader, check));
        gaps = gapsAmongData(reader, check, 0);
        hashes = hashForks(reader, check, {.hashBlocks = true});
    }

    HFSPlusCheckResult check;
    std::vector<HFSPlusDataRun> order;
    Extents gaps;
    HFSPlusForkHashes hashes;
};

/** Runs COMPACT to its end without an error and expects what every such run brings about. */
DefragOutput compactSoundly(HFSPlusOpenedVolume& volume, uint32_t bufferBlocks = kBufferBlocks)
{
    EXPECT_TRUE(volume) << volume.error();
    const Layout before(volume);
    EXPECT_TRUE(before.check.consistent) << before.check.description();

    DefragOutput output = runCompact(*volume, bufferBlocks);

    EXPECT_TRUE(output.isWhole());
    EXPECT_EQ(output.error(), "");
    const Layout after(volume);
    EXPECT_TRUE(after.check.consistent) << after.check.description();
    EXPECT_EQ(after.check.freeBlocks, before.check.freeBlocks);
    EXPECT_EQ(after.hashes, before.hashes);
    EXPECT_EQ(after.order, before.order);
    EXPECT_EQ(after.gaps, Extents());
    EXPECT_EQ(runCompact(*volume, bufferBlocks).lines, linesOfAnIdleRun());
    return output;
}

Extents extentsOf(const HFSPlusOpenedVolume& volume, uint32_t cnid, uint8_t fork = 0)
{
    const HFSPlusCheckResult result = volume.check();
    const HFSPlusCheckedFork* found = result.forkWithCNID(cnid, fork);
    return found == nullptr ? Extents{} : found->extents;
}

/** How many moves went towards the end: those that made room. */
size_t evictionsOf(const DefragOutput& output)
{
    const std::vector<DefragMove> moves = output.moves();
    return static_cast<size_t>(std::ranges::count_if(
        moves, [](const DefragMove& move) { return move.destination > move.source; }));
}

std::string errorOfWords(Lines words)
{
    HFSPlusOpenedVolume volume(scatteredVolume());
    const auto before = volume.memory().clone();
    const DefragOutput output = runCompact(*volume, kBufferBlocks, std::move(words));
    EXPECT_TRUE(output.isWhole());
    EXPECT_TRUE(volume.memory().hasSameBytesAs(*before));
    return output.error();
}

/** The blocks that a volume of this size uses without any file. */
uint32_t blocksUsedWithoutFiles(uint32_t totalBlocks)
{
    HFSPlusVolumeBuilder plain = plainVolume(totalBlocks);
    EXPECT_NE(plain.build(), nullptr) << plain.error();
    return totalBlocks - plain.plan().bitmap.freeBlocks();
}

}  // namespace

TEST(HFSPlusCompactTask, RunsOfDifferentFilesKeepTheirRelativeOrder)
{
    HFSPlusOpenedVolume volume(scatteredVolume());

    const DefragOutput output = compactSoundly(volume);

    EXPECT_NE(output.moves().size(), 0u);
    // The extents of a file stay apart where something else lies between them.
    EXPECT_EQ(extentsOf(volume, 20).size(), 3u);
}

TEST(HFSPlusCompactTask, AVolumeWithNoFreeBlockBeforeItsLastRunIsLeftAsItIs)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/a", 20).automaticData(30);
    builder.file("/b", 21).automaticData(70);
    HFSPlusOpenedVolume volume(builder);
    const auto before = volume.memory().clone();
    ASSERT_EQ(Layout(volume).gaps, Extents());

    const DefragOutput output = runCompact(*volume);
    volume.close();

    EXPECT_EQ(output.lines, linesOfAnIdleRun());
    EXPECT_TRUE(volume.memory().hasSameBytesAs(*before));
}

TEST(HFSPlusCompactTask, AVolumeWithoutAFreeBlockIsLeftAsItIs)
{
    HFSPlusVolumeBuilder builder = plainVolume(400);
    builder.file("/rest", 20).automaticData(400 - blocksUsedWithoutFiles(400));
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    ASSERT_EQ(volume.check().freeBlocks, 0u);

    EXPECT_EQ(runCompact(*volume).lines, linesOfAnIdleRun());
}

TEST(HFSPlusCompactTask, ARunLongerThanTheFreeSpaceAtTheFrontIsMovedInSeveralCycles)
{
    const uint32_t front = blocksUsedWithoutFiles(1000) - 1;  // the last block is the header's
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.file("/long", 20).data({{front + 20, 100}});
    HFSPlusOpenedVolume volume(builder);

    const DefragOutput output = compactSoundly(volume);

    // Each cycle goes on at the unmoved rest, and the gap is wide enough for all of them.
    EXPECT_EQ(evictionsOf(output), 0u);
    uint32_t moved = 0;
    for (const DefragMove& move : output.moves()) {
        EXPECT_EQ(move.source, front + 20 + moved);
        EXPECT_EQ(move.destination, front + moved);
        EXPECT_LE(move.count, kBufferBlocks);
        moved += move.count;
    }
    EXPECT_EQ(moved, 100u);
    EXPECT_EQ(extentsOf(volume, 20), (Extents{{front, 100}}));
}

TEST(HFSPlusCompactTask, DataEvictedFromANarrowGapComeBackInTheirOrder)
{
    HFSPlusVolumeBuilder builder = packedVolume();
    for (uint32_t file = 0; file < 30; ++file) {
        builder.file("/file" + std::to_string(file), 20 + file).data({{kFront + 1 + 4 * file, 3}});
    }
    HFSPlusOpenedVolume volume(builder);

    const DefragOutput output = compactSoundly(volume, 30);

    // More than one cycle had to make room.
    EXPECT_GT(evictionsOf(output), 10u);
}

TEST(HFSPlusCompactTask, DataEvictedInPiecesComeBackTogetherAndInTheirOrder)
{
    // Room for evicted data is only in runs of seven blocks, and there are many of them.
    HFSPlusVolumeBuilder builder = packedVolume();
    builder.file("/first", 20).data({{kFront + 2, 30}});
    builder.file("/second", 21).data({{kFront + 32, 20}, {kFront + 54, 10}});
    for (uint32_t run = 0; run < 70; ++run) {
        builder.file("/run" + std::to_string(run), 30 + run).data({{90 + 10 * run, 3}});
    }
    builder.file("/last", 22).data({{790, 205}});
    HFSPlusOpenedVolume volume(builder);

    const DefragOutput output = compactSoundly(volume, 40);

    const std::vector<DefragMove> moves = output.moves();
    EXPECT_TRUE(std::ranges::any_of(moves, [&](const DefragMove& move) {
        return move.source == kFront + 2 && move.destination > move.source && move.count < 30;
    }));
    EXPECT_EQ(extentsOf(volume, 20), (Extents{{kFront, 30}}));
    EXPECT_EQ(extentsOf(volume, 21), (Extents{{kFront + 30, 30}}));
}

TEST(HFSPlusCompactTask, DataSlideAcrossWhatCannotMove)
{
    HFSPlusVolumeBuilder builder = scatteredVolume();
    builder.badBlocks({{60, 3}, {70, 1}, {310, 2}});
    builder.startupExtents({{90, 5}});
    HFSPlusOpenedVolume volume(builder);

    static_cast<void>(compactSoundly(volume));

    EXPECT_EQ(extentsOf(volume, 5), (Extents{{60, 3}, {70, 1}, {310, 2}}));
    EXPECT_EQ(extentsOf(volume, 7), (Extents{{90, 5}}));
}

TEST(HFSPlusCompactTask, SpecialFilesSlideWithTheRest)
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.allocationExtents({{150, 1}}).attributesFile().attributesExtents({{160, 4}, {180, 4}});
    builder.catalogExtents({{210, 6}, {240, 6}}).extentsFileExtents({{220, 4}, {230, 4}});
    builder.attributesNodeSize(4096).catalogNodeSize(4096).extentsNodeSize(4096);
    builder.file("/file", 20).data({{170, 5}, {100, 5}});
    builder.attribute("name", "bytes");
    for (const uint32_t bufferBlocks : {4u, 16u, 100u}) {
        HFSPlusOpenedVolume volume(builder);

        static_cast<void>(compactSoundly(volume, bufferBlocks));

        EXPECT_LT(extentsOf(volume, 6)[0].startBlock, 20u);
        EXPECT_EQ(extentsOf(volume, 8).size(), 2u);
        volume.reopen();
        EXPECT_TRUE(volume) << volume.error();
    }
}

TEST(HFSPlusCompactTask, EveryBufferThatTheFreeSpaceAllowsKeepsTheOrder)
{
    for (uint32_t bufferBlocks = 1; bufferBlocks < 120; ++bufferBlocks) {
        HFSPlusOpenedVolume volume(scatteredVolume());

        static_cast<void>(compactSoundly(volume, bufferBlocks));

        ASSERT_FALSE(HasFailure()) << "buffer of " << bufferBlocks << " blocks";
    }
}

namespace {

/** A journaled volume whose catalog has nodes of two blocks; the rest is the test's. */
HFSPlusVolumeBuilder volumeOfTwoBlockNodes()
{
    HFSPlusVolumeBuilder builder = plainVolume();
    builder.journal(600, 20).journalInfoBlock(640);
    builder.catalogNodeSize(8192).extentsNodeSize(4096);
    return builder;
}

}  // namespace

TEST(HFSPlusCompactTask, AHoleTooSmallForTheNodeThatComesNextStays)
{
    HFSPlusVolumeBuilder builder = volumeOfTwoBlockNodes();
    builder.allocationExtents({{1, 1}}).extentsFileExtents({{2, 4}});
    builder.badBlocks({{7, 1}, {15, 3}});  // behind a hole of one block, and of seven
    builder.catalogExtents({{100, 10}, {140, 10}});
    builder.file("/file", 20).data({{120, 9}, {300, 40}});
    HFSPlusOpenedVolume volume(builder);

    static_cast<void>(compactSoundly(volume, 15));

    EXPECT_EQ(extentsOf(volume, 4)[0], (HFSPlusCheckedExtent{8, 6}));
    EXPECT_EQ(extentsOf(volume, 4)[1], (HFSPlusCheckedExtent{18, 4}));
}

TEST(HFSPlusCompactTask, AVolumeWhoseOnlyHoleIsTooSmallForANodeIsLeftAsItIs)
{
    HFSPlusVolumeBuilder builder = volumeOfTwoBlockNodes();
    builder.allocationExtents({{1, 1}}).extentsFileExtents({{2, 4}});
    builder.badBlocks({{7, 1}});
    builder.catalogExtents({{8, 20}});
    builder.file("/file", 20).data({{28, 9}});
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    ASSERT_TRUE(volume.check().consistent) << volume.check().description();

    EXPECT_EQ(runCompact(*volume).lines, linesOfAnIdleRun());
}

TEST(HFSPlusCompactTask, AHoleBehindOneTooSmallForANodeIsJudgedByWhatComesNextThere)
{
    HFSPlusVolumeBuilder builder = volumeOfTwoBlockNodes();
    builder.allocationExtents({{1, 1}}).extentsFileExtents({{2, 4}});
    builder.badBlocks({{7, 1}, {29, 1}});
    builder.catalogExtents({{8, 20}});
    builder.file("/file", 20).data({{30, 9}});
    HFSPlusOpenedVolume volume(builder);

    static_cast<void>(compactSoundly(volume, 5));

    EXPECT_EQ(extentsOf(volume, 4), (Extents{{8, 20}}));
    EXPECT_EQ(extentsOf(volume, 20), (Extents{{28, 1}, {30, 8}}));
}

TEST(HFSPlusCompactTask, AHoleTooSmallForANodeTakesABlockThatHoldsNone)
{
    HFSPlusVolumeBuilder builder = volumeOfTwoBlockNodes();
    builder.allocationExtents({{1, 1}}).extentsFileExtents({{2, 4}});
    builder.badBlocks({{7, 1}, {9, 1}});
    builder.catalogExtents({{10, 20}, {8, 1}});  // the last block is no whole node
    builder.file("/file", 20).data({{30, 9}});
    HFSPlusOpenedVolume volume(builder);

    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusForkHashes before = volume.hashes({.hashBlocks = true});

    EXPECT_EQ(runCompact(*volume, 5).error(), "");

    EXPECT_EQ(extentsOf(volume, 4), (Extents{{10, 20}, {6, 1}}));
    EXPECT_EQ(volume.hashes({.hashBlocks = true}), before);
    EXPECT_EQ(runCompact(*volume, 5).lines, linesOfAnIdleRun());
}

TEST(HFSPlusCompactTask, AHoleTooSmallForANodeTakesTheFileThatComesFirst)
{
    HFSPlusVolumeBuilder builder = volumeOfTwoBlockNodes();
    builder.allocationExtents({{1, 1}}).extentsFileExtents({{2, 4}});
    builder.badBlocks({{7, 1}});
    builder.file("/file", 20).data({{8, 3}});
    builder.catalogExtents({{11, 20}});
    HFSPlusOpenedVolume volume(builder);

    static_cast<void>(compactSoundly(volume));

    EXPECT_EQ(extentsOf(volume, 20), (Extents{{6, 1}, {8, 2}}));
    EXPECT_EQ(extentsOf(volume, 4), (Extents{{10, 20}}));
}

TEST(HFSPlusCompactTask, HolesAmongWhatCannotMoveEndTheRunAtOnce)
{
    HFSPlusVolumeBuilder builder = packedVolume();
    builder.badBlocks({{kFront + 3, 10}, {kFront + 20, 1}}).startupExtents({{500, 30}});
    HFSPlusOpenedVolume volume(builder);
    const auto before = volume.memory().clone();

    const DefragOutput output = runCompact(*volume);
    volume.close();

    EXPECT_EQ(output.lines, linesOfAnIdleRun());
    EXPECT_TRUE(volume.memory().hasSameBytesAs(*before));
}

TEST(HFSPlusCompactTask, AHoleInFrontOfSomethingFixedIsFilledThoughItIsNarrowerThanACycle)
{
    HFSPlusVolumeBuilder builder = packedVolume();
    builder.badBlocks({{kFront + 3, 2}, {kFront + 6, 1}});
    builder.file("/one", 20).data({{kFront + 7, 9}, {400, 20}});
    builder.file("/two", 21).data({{kFront + 20, 30}});
    HFSPlusOpenedVolume volume(builder);

    static_cast<void>(compactSoundly(volume));

    EXPECT_EQ(extentsOf(volume, 20)[0], (HFSPlusCheckedExtent{kFront, 3}));
    EXPECT_EQ(extentsOf(volume, 20)[1], (HFSPlusCheckedExtent{kFront + 5, 1}));
    EXPECT_EQ(extentsOf(volume, 20)[2], (HFSPlusCheckedExtent{kFront + 7, 5}));
    EXPECT_EQ(extentsOf(volume, 21), (Extents{{kFront + 12, 30}}));
}

TEST(HFSPlusCompactTask, NodesThatFindNoRoomInACycleAreTheFirstOfTheNext)
{
    // A cycle of nine blocks carries four nodes of two, and evicts five.
    HFSPlusVolumeBuilder builder = volumeOfTwoBlockNodes();
    builder.allocationExtents({{1, 1}}).extentsFileExtents({{2, 4}});
    builder.catalogExtents({{7, 20}, {200, 10}}).badBlocks({{30, 1}, {34, 1}, {36, 1}, {38, 1}});
    builder.file("/file", 20).data({{27, 3}, {31, 3}, {40, 30}});
    for (uint32_t bufferBlocks = 3; bufferBlocks < 60; ++bufferBlocks) {
        HFSPlusOpenedVolume volume(builder);

        const DefragOutput output = compactSoundly(volume, bufferBlocks);

        ASSERT_NE(evictionsOf(output), 0u);
        ASSERT_FALSE(HasFailure()) << "buffer of " << bufferBlocks << " blocks";
    }
}

TEST(HFSPlusCompactTask, TooLittleFreeSpaceBehindTheFrontEndsTheRunAndMovesNothing)
{
    HFSPlusVolumeBuilder builder = plainVolume(400);
    builder.file("/file", 20).data({{100, 10}});
    builder.file("/rest", 21).data({{120, 275}});
    HFSPlusOpenedVolume volume(builder);
    const Layout before(volume);

    const DefragOutput output = runCompact(*volume, 200);

    EXPECT_EQ(output.error(), "The amount of free space is insufficient.");
    EXPECT_TRUE(output.isWhole());
    EXPECT_TRUE(output.moves().empty());
    EXPECT_EQ(Layout(volume).check.forks, before.check.forks);
}

TEST(HFSPlusCompactTask, AVolumeFullButForOneBlockEndsWithItsMessage)
{
    const uint32_t used = blocksUsedWithoutFiles(400);
    HFSPlusVolumeBuilder builder = plainVolume(400);
    builder.file("/rest", 20).data({{used, 400 - used - 1}});
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    ASSERT_EQ(volume.check().freeBlocks, 1u);

    const DefragOutput output = runCompact(*volume);

    EXPECT_EQ(output.error(), "The amount of free space is insufficient.");
    EXPECT_TRUE(output.moves().empty());
}

TEST(HFSPlusCompactTask, OneFreeBlockIsEnoughToSlideBlockByBlock)
{
    const uint32_t used = blocksUsedWithoutFiles(400);
    HFSPlusVolumeBuilder builder = plainVolume(400);
    builder.file("/rest", 20).data({{used, 400 - used - 1}});
    HFSPlusOpenedVolume volume(builder);

    const DefragOutput output = compactSoundly(volume, 1);

    EXPECT_EQ(output.moves().size(), 400 - used - 1);
}

TEST(HFSPlusCompactTask, ProfilesAreNoOptionOfIt)
{
    EXPECT_EQ(errorOfWords({"COMPACT", "--profile", "boot"}), "Unknown option: --profile");
    EXPECT_EQ(errorOfWords({"COMPACT", "-p"}), "Unknown option: -p");
    EXPECT_EQ(errorOfWords({"COMPACT", "-q", "-x"}), "Unknown option: -x");
}

TEST(HFSPlusCompactTask, AReadOnlyVolumeIsRefused)
{
    HFSPlusVolumeBuilder builder = scatteredVolume();
    builder.damage(damagedHeader("attributes", 0x00008100));
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(runCompact(*volume).error(), "Volume is read-only.");
}

TEST(HFSPlusCompactTask, AMountedVolumeIsRefused)
{
    HFSPlusVolumeBuilder builder = scatteredVolume();
    const auto memory = builder.build();
    MountedOpener opener(*memory);
    HFSPlusVolumeProber prober;
    std::unique_ptr<VZDefragError> failure;
    const auto volume = VZDefragVolume::initWithDevice("/dev/memory", opener, prober, &failure);
    ASSERT_NE(volume, nullptr) << failure->description();

    EXPECT_EQ(runCompact(static_cast<HFSPlusVolume&>(*volume)).error(), "Volume is mounted.");
}

TEST(HFSPlusCompactTask, QuietRunsMoveTheSameAndPrintNoMoves)
{
    for (const char* option : {"-q", "--quiet"}) {
        HFSPlusOpenedVolume quiet(scatteredVolume());
        HFSPlusOpenedVolume verbose(scatteredVolume());

        const DefragOutput output = runCompact(*quiet, kBufferBlocks, {"COMPACT", option});
        ASSERT_NE(runCompact(*verbose).moves().size(), 0u);

        EXPECT_EQ(output.error(), "");
        EXPECT_TRUE(output.moves().empty());
        EXPECT_EQ(Layout(quiet).check.forks, Layout(verbose).check.forks);
    }
}

TEST(HFSPlusCompactTask, ProgressCountsWhatSlidesAndNotWhatMakesRoom)
{
    HFSPlusVolumeBuilder builder = packedVolume();
    builder.file("/file", 20).data({{kFront + 3, 50}, {300, 40}});
    HFSPlusOpenedVolume volume(builder);
    const HFSPlusCheckResult before = volume.check();

    const DefragOutput output = runCompact(*volume);

    ASSERT_NE(evictionsOf(output), 0u);
    const std::vector<DefragMove> moves = output.moves();
    int percent = 0;
    for (const DefragMove& move : moves) {
        EXPECT_EQ(move.allocatedBlocks, before.totalBlocks - before.freeBlocks);
        if (move.destination > move.source) {
            EXPECT_EQ(move.percent, percent);
        }
        EXPECT_GE(move.percent, percent);
        percent = move.percent;
    }
    EXPECT_EQ(percent, 100);
}

namespace {

constexpr uint32_t kCrowdedRuns = 131300;  // with their gaps, more runs than one span holds

/** Two files in turns, in runs of one block, two apart. */
HFSPlusVolumeBuilder crowdedVolume()
{
    HFSPlusBuilderExtents even;
    HFSPlusBuilderExtents odd;
    for (uint32_t run = 0; run < kCrowdedRuns; ++run) {
        (run % 2 == 0 ? even : odd).push_back({20000 + 2 * run, 1});
    }
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(600000);
    builder.extentsNodeSize(4096).freeExtentsNodes(800);
    builder.file("/even", 20).data(std::move(even));
    builder.file("/odd", 21).data(std::move(odd));
    builder.file("/behind", 22).data({{420000, 100}, {300000, 100}});
    return builder;
}

}  // namespace

TEST(HFSPlusCompactTask, MoreRunsThanOneSpanHoldsKeepTheirOrder)
{
    // The zone is wider than the gap at the front, and what it holds goes behind the span's end.
    HFSPlusOpenedVolume volume(crowdedVolume());
    ASSERT_TRUE(volume) << volume.error();
    const Layout before(volume);

    const DefragOutput output = runCompact(*volume, 60000);

    EXPECT_EQ(output.error(), "");
    const Layout after(volume);
    EXPECT_TRUE(after.check.consistent) << after.check.description();
    EXPECT_EQ(after.hashes, before.hashes);
    EXPECT_TRUE(after.order == before.order);
    EXPECT_EQ(after.gaps, Extents());
    const std::vector<DefragMove> moves = output.moves();
    EXPECT_TRUE(std::ranges::any_of(
        moves, [](const DefragMove& move) { return move.destination > 20000 + 2 * kCrowdedRuns; }));
}
