#include <gtest/gtest.h>

#include <algorithm>

#include "HFSPlus/ForkList.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "Tasks/DefragRun.h"
#include "support/BootCachePlaylist.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"

namespace {

constexpr uint64_t kBuffer = 64 * 1024;  // 16 blocks of 4096 bytes
constexpr uint64_t kBlock = 4096;        // bytes

PlaylistEntry entryAt(uint64_t block, uint32_t group)
{
    return {block * kBlock, kBlock, group};
}

/** Fragmented files, four of them applications, and a playlist of three forks in three groups. */
HFSPlusVolumeBuilder profiledVolume(HFSPlusVolumeBuilder builder = {},
                                    HFSPlusBuilderExtent playlist = {250, 1})
{
    builder.blockSize(4096).totalBlocks(1000);
    builder.file("/movie", 20).data({{300, 10}, {400, 25}, {200, 5}});
    builder.file("/song", 21).data({{310, 4}, {500, 4}}).resource({{504, 2}, {320, 2}});
    builder.file("/Applications/A.app/run", 22).data({{330, 3}, {350, 3}}).resource({{340, 4}});
    builder.file("/Applications/A.app/help/page", 23).data({{360, 2}, {370, 2}, {380, 2}});
    builder.file("/Applications/B.app/run", 24).data({{600, 9}}).dataSize(33000);
    builder.file("/Applications/empty", 25);
    builder.file("/last", 650).data({{980, 1}});
    addPlaylist(builder, playlistBytes({entryAt(600, 3), entryAt(504, 1), entryAt(400, 2)}),
                {playlist});
    return builder;
}

/** The profile of that volume, in its order. */
ForkList profiledForks()
{
    return {{21, 0xFF}, {20, 0}, {24, 0}, {22, 0}, {22, 0xFF}, {23, 0}};
}

HFSPlusForkHashes withoutPlaylist(HFSPlusForkHashes hashes)
{
    hashes.erase({kPlaylistID, kHFSDataForkType});
    return hashes;
}

/** Expects @p forks in one extent each, the first at @p start and each behind the one before. */
void expectLaidOut(const HFSPlusCheckResult& state, const ForkList& forks, uint32_t start)
{
    for (const auto& [fileID, forkType] : forks) {
        const HFSPlusCheckedFork* const fork = state.forkWithCNID(fileID, forkType);
        ASSERT_NE(fork, nullptr) << fileID;
        ASSERT_EQ(fork->extents.size(), 1U) << *fork;
        EXPECT_EQ(fork->extents[0].startBlock, start) << *fork;
        start += fork->extents[0].blockCount;
    }
}

}  // namespace

TEST(HFSPlusProfileRuns, TheProfilesForksComeFirstInItsOrderAndThePlaylistIsEmptied)
{
    HFSPlusOpenedVolume volume(profiledVolume());
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusForkHashes before = volume.hashes();
    const uint32_t freeBlocks = volume.check().freeBlocks;

    const DefragOutput output = runDefrag(*volume, kBuffer, {"DEFRAG", "--profile", "boot,app"});

    ASSERT_TRUE(output.isWhole());
    EXPECT_EQ(output.error(), "");
    const HFSPlusCheckResult after = volume.check();
    EXPECT_TRUE(after.consistent) << after.description();
    expectLaidOut(after, profiledForks(), volume->firstDataBlock());
    EXPECT_EQ(withoutPlaylist(volume.hashes()), withoutPlaylist(before));
    EXPECT_EQ(after.forkWithCNID(kPlaylistID)->logicalSize, 0U);
    EXPECT_EQ(after.forkWithCNID(kPlaylistID)->totalBlocks, 0U);
    EXPECT_EQ(after.freeBlocks, freeBlocks + 1);
    EXPECT_TRUE(std::ranges::all_of(
        after.forks, [](const HFSPlusCheckedFork& fork) { return fork.extents.size() <= 1; }));
}

TEST(HFSPlusProfileRuns, TheOrderOfTheWordsDoesNotMatter)
{
    HFSPlusOpenedVolume volume(profiledVolume());

    EXPECT_EQ(runDefrag(*volume, kBuffer, {"DEFRAG", "-p", "app", "-p", "boot"}).error(), "");

    expectLaidOut(volume.check(), profiledForks(), volume->firstDataBlock());
}

TEST(HFSPlusProfileRuns, EachProfileIsUsedOnlyWhenAskedFor)
{
    HFSPlusOpenedVolume boot(profiledVolume());
    HFSPlusOpenedVolume applications(profiledVolume());
    HFSPlusOpenedVolume neither(profiledVolume());

    EXPECT_EQ(runDefrag(*boot, kBuffer, {"DEFRAG", "-p", "boot"}).error(), "");
    EXPECT_EQ(runDefrag(*applications, kBuffer, {"DEFRAG", "-p", "app"}).error(), "");
    EXPECT_EQ(runDefrag(*neither, kBuffer).error(), "");

    expectLaidOut(boot.check(), {{21, 0xFF}, {20, 0}, {24, 0}}, boot->firstDataBlock());
    expectLaidOut(applications.check(), {{22, 0}, {22, 0xFF}, {23, 0}, {24, 0}},
                  applications->firstDataBlock());
    EXPECT_EQ(boot.check().forkWithCNID(kPlaylistID)->totalBlocks, 0U);
    EXPECT_EQ(applications.check().forkWithCNID(kPlaylistID)->totalBlocks, 1U);
    EXPECT_EQ(neither.check().forkWithCNID(kPlaylistID)->totalBlocks, 1U);
}

TEST(HFSPlusProfileRuns, ASecondRunWithTheSamePlaceOfEverythingMovesNothing)
{
    HFSPlusOpenedVolume volume(profiledVolume());
    ASSERT_EQ(runDefrag(*volume, kBuffer, {"DEFRAG", "-p", "app"}).error(), "");

    const DefragOutput second = runDefrag(*volume, kBuffer, {"DEFRAG", "-p", "app"});

    EXPECT_EQ(second.lines, (std::vector<std::string>{"DEFRAG,START", "DEFRAG,DONE"}));
}

TEST(HFSPlusProfileRuns, WithoutAPlaylistAndApplicationsTheRunIsThatWithoutProfiles)
{
    HFSPlusVolumeBuilder builder;
    builder.file("/movie", 20).data({{300, 10}, {400, 25}, {200, 5}});
    HFSPlusOpenedVolume volume(builder);
    HFSPlusOpenedVolume plain(builder);

    const DefragOutput output = runDefrag(*volume, kBuffer, {"DEFRAG", "-p", "boot,app"});

    EXPECT_EQ(output.lines, runDefrag(*plain, kBuffer).lines);
    EXPECT_TRUE(volume.memory().hasSameBytesAs(plain.memory()));
}

TEST(HFSPlusProfileRuns, WhatMustNotMoveStaysAndDoesNotEndTheRun)
{
    HFSPlusVolumeBuilder builder = profiledVolume();
    builder.journal(700, 40).journalInfoBlock(690).badBlocks({{750, 2}}).startupExtents({{760, 3}});
    std::vector<PlaylistEntry> entries;
    for (const uint32_t block : {690U, 700U, 750U, 760U, 250U, 600U}) {
        entries.push_back(entryAt(block, 1));  // the playlist's own place among them
    }
    builder.file(kPlaylistPath).dataBeginning(playlistBytes(entries));
    builder.dataSize(playlistBytes(entries).size());
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusForkHashes before = volume.hashes({.includeSpecial = true});

    const DefragOutput output = runDefrag(*volume, kBuffer, {"DEFRAG", "-p", "boot"});

    EXPECT_EQ(output.error(), "");
    const HFSPlusCheckResult after = volume.check();
    EXPECT_TRUE(after.consistent) << after.description();
    expectLaidOut(after, {{24, 0}}, volume->firstDataBlock());
    const auto placeOf = [&](uint32_t fileID) { return after.forkWithCNID(fileID)->extents; };
    EXPECT_EQ(placeOf(5), (std::vector<HFSPlusCheckedExtent>{{750, 2}}));
    EXPECT_EQ(placeOf(7), (std::vector<HFSPlusCheckedExtent>{{760, 3}}));
    EXPECT_EQ(after.journalInfoBlock, 690U);
    EXPECT_TRUE(std::ranges::any_of(after.forks, [](const HFSPlusCheckedFork& fork) {
        return fork.extents == std::vector<HFSPlusCheckedExtent>{{700, 40}};
    }));
    HFSPlusForkHashes now = volume.hashes({.includeSpecial = true});
    for (const auto& [fork, hash] : withoutPlaylist(before)) {
        if (fork.first > 8 || fork.first == 5 || fork.first == 7) {
            EXPECT_EQ(now[fork], hash) << fork.first;
        }
    }
}

TEST(HFSPlusProfileRuns, AnErrorOfAProfileEndsThePreparationBeforeAnythingIsWritten)
{
    HFSPlusVolumeBuilder builder = profiledVolume();
    for (uint32_t fileID = 100; fileID < 300; ++fileID) {
        builder.file("/Applications/file" + std::to_string(fileID), fileID);
    }
    // The leaf inside "/Applications" leads to the root, which only a walk by links notices.
    builder.damage([](HFSPlusVolumeBuilderPatcher& patcher) {
        const auto middle = patcher.leafWithRecord(4, 100);
        return middle.has_value() &&
               patcher.node(4, *middle, "fLink", patcher.plan().catalogTree.rootNode);
    });
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    const auto before = volume.memory().clone();

    const DefragOutput output = runDefrag(*volume, kBuffer, {"DEFRAG", "-p", "boot,app"});

    ASSERT_TRUE(output.isWhole());
    EXPECT_EQ(output.error(), "Catalog file is inconsistent.");
    EXPECT_TRUE(output.moves().empty());
    EXPECT_FALSE(volume->needsFlush());
    volume.close();
    EXPECT_TRUE(volume.memory().hasSameBytesAs(*before));
}

TEST(HFSPlusProfileRuns, AMissingOverflowRecordEndsTheRunBeforeAnythingMoves)
{
    HFSPlusBuilderExtents extents;
    for (uint32_t piece = 0; piece < 20; ++piece) {
        extents.push_back({800 + 2 * piece, 1});
    }
    HFSPlusVolumeBuilder builder = profiledVolume();
    builder.file("/pieces", 30).resource(extents);
    builder.damage(damagedOverflowRecord(30, 0xFF, 16, "startBlock", 17));
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    const auto before = volume.memory().clone();

    const DefragOutput output = runDefrag(*volume, kBuffer, {"DEFRAG", "-p", "boot"});

    EXPECT_EQ(output.error(), "Overflow extent record missing.");
    EXPECT_TRUE(volume.memory().hasSameBytesAs(*before));
}

TEST(HFSPlusProfileRuns, WhereTheFlushFailsThePlaylistThatTheDiskStillNamesIsIntact)
{
    // The playlist lies where the first data go, the special files out of the way.
    HFSPlusVolumeBuilder builder;
    builder.allocationExtents({{180, 1}}).extentsFileExtents({{150, 16}});
    builder.catalogExtents({{100, 32}});
    uint64_t writes = 0;
    for (bool reached = true; reached; ++writes) {
        HFSPlusOpenedVolume volume(profiledVolume(builder, {1, 1}));
        ASSERT_TRUE(volume) << volume.error();
        const HFSPlusForkHashes before = volume.hashes();
        volume.faults().stopAfterWrites(writes);

        const DefragOutput output = runDefrag(*volume, kBuffer, {"DEFRAG", "-p", "boot,app"});

        reached = volume.faults().faultReached();
        EXPECT_EQ(output.error().empty(), !reached) << output.error();
        if (writes == 0) {
            EXPECT_TRUE(output.error().starts_with("Write failed with an error")) << output.error();
            EXPECT_TRUE(output.moves().empty());
        }
        volume.faults().heal();
        const HFSPlusForkHashes after = volume.hashes();
        if (volume.check().forkWithCNID(kPlaylistID)->logicalSize != 0) {
            EXPECT_EQ(after.at({kPlaylistID, 0}), before.at({kPlaylistID, 0})) << writes;
        }
        EXPECT_EQ(withoutPlaylist(after), withoutPlaylist(before)) << writes;
    }
    EXPECT_GT(writes, 10U);
}

TEST(HFSPlusProfileRuns, APlaylistThatSharesBlocksKeepsTheOtherFilesData)
{
    HFSPlusVolumeBuilder builder;
    builder.unchecked().file("/sharing", 40).data({{249, 3}});
    HFSPlusOpenedVolume volume(profiledVolume(builder));
    ASSERT_TRUE(volume) << volume.error();
    const auto before = volume.memory().clone();

    const DefragOutput output = runDefrag(*volume, kBuffer, {"DEFRAG", "-p", "boot"});

    EXPECT_NE(output.error(), "");
    EXPECT_TRUE(output.moves().empty());
    EXPECT_EQ(volume.check().forkWithCNID(kPlaylistID)->totalBlocks, 1U);
    EXPECT_TRUE(volume.memory().hasSameBytesAs(*before));
}
