#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "Tasks/DefragRun.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"

// Special files are moved like any fork, while everything that is looked up during the move goes
// through them.

namespace {

constexpr uint64_t kBlockSize = 4096;

/** Files in interleaved pieces, so that a run changes records all over the trees. */
void addScatteredFiles(HFSPlusVolumeBuilder& builder, uint32_t files, uint32_t pieces,
                       uint32_t firstBlock)
{
    for (uint32_t file = 0; file < files; ++file) {
        HFSPlusBuilderExtents extents;
        for (uint32_t piece = 0; piece < pieces; ++piece) {
            extents.push_back({firstBlock + (piece * files + file) * 2, 1});
        }
        builder.file("/file " + std::to_string(file)).data(extents);
    }
}

/** Runs DEFRAG and expects a sound volume with whole special files and unchanged contents. */
void expectSoundDefrag(HFSPlusOpenedVolume& volume, uint64_t bufferSize)
{
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusForkHashes before = volume.hashes();

    const DefragOutput output = runDefrag(*volume, bufferSize);

    EXPECT_EQ(output.error(), "");
    EXPECT_TRUE(output.isWhole());
    const HFSPlusCheckResult after = volume.check();
    EXPECT_TRUE(after.consistent) << after.description();
    for (const HFSPlusCheckedFork& fork : after.forks) {
        EXPECT_LE(fork.extents.size(), 1u) << fork;
    }
    EXPECT_EQ(volume.hashes(), before);
    volume.reopen();
    EXPECT_TRUE(volume) << volume.error();
}

/** A fork whose records fill a deep tree, and room before it to slide it to. */
HFSPlusVolumeBuilder volumeOfDeepTree()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(1200).extentsNodeSize(512).freeExtentsNodes(1);
    builder.extentsTree().maximumLeafRecords = 2;
    builder.extentsTree().maximumIndexRecords = 2;
    HFSPlusBuilderExtents extents;
    for (uint32_t block = 480; block > 160; block -= 4) {
        extents.push_back({block, 1 + block / 4 % 2});
    }
    builder.file("/pieces", 20).data(extents);
    return builder;
}

}  // namespace

TEST(HFSPlusSpecialFiles, EachOfThemInPiecesEndsWhole)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(kBlockSize).totalBlocks(4000);
    builder.catalogExtents({{900, 8}, {500, 8}, {700, 16}});
    builder.extentsFileExtents({{920, 2}, {520, 2}, {720, 4}});
    builder.attributesFile().attributesExtents({{940, 4}, {540, 4}});
    addScatteredFiles(builder, 30, 12, 1000);
    HFSPlusOpenedVolume volume(builder);

    expectSoundDefrag(volume, 100 * kBlockSize);
}

TEST(HFSPlusSpecialFiles, ACatalogThatMovesKeepsChangesOfNodesThatItsCacheCannotHold)
{
    // With room for one node nearly every change is written by eviction, also in the middle of the
    // list that moves the catalog itself.
    for (const uint32_t buffer : {20u, 64u, 300u}) {
        HFSPlusVolumeBuilder builder;
        builder.blockSize(kBlockSize).totalBlocks(6000);
        builder.catalogExtents({{1205, 10}, {1405, 30}});
        addScatteredFiles(builder, 90, 10, 1500);
        HFSPlusOpenedVolume volume(builder);
        ASSERT_TRUE(volume) << volume.error();
        (*volume).catalog().setNodeCacheSize((*volume).catalog().nodeSize());

        expectSoundDefrag(volume, buffer * kBlockSize);
    }
}

TEST(HFSPlusSpecialFiles, AnExtentsFileThatMovesKeepsChangesOfNodesThatItsCacheCannotHold)
{
    for (const uint32_t buffer : {20u, 64u, 300u}) {
        HFSPlusVolumeBuilder builder;
        builder.blockSize(kBlockSize).totalBlocks(9000).extentsNodeSize(1024);
        builder.extentsFileExtents({{1205, 6}, {1405, 6}}).freeExtentsNodes(10);
        addScatteredFiles(builder, 40, 60, 1500);
        HFSPlusOpenedVolume volume(builder);
        ASSERT_TRUE(volume) << volume.error();
        (*volume).extents().setNodeCacheSize((*volume).extents().nodeSize());

        expectSoundDefrag(volume, buffer * kBlockSize);
    }
}

TEST(HFSPlusSpecialFiles, ABitmapThatMovesKeepsChangesOfChunksThatItsCacheCannotHold)
{
    // Blocks of 512 bytes make a bitmap of more chunks than are cached from 2.2 GiB on. Files lie
    // in pieces all over it, so that one list changes all of its chunks.
    constexpr uint32_t kChunkBlocks = 32768 * 8;
    constexpr uint32_t kTotalBlocks = 22 * kChunkBlocks;
    const uint32_t bitmapBlocks = kTotalBlocks / 8 / 512;
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(kTotalBlocks);
    builder.allocationExtents({{9000, bitmapBlocks / 2}, {30000, bitmapBlocks - bitmapBlocks / 2}});
    for (uint32_t file = 0; file < 20; ++file) {
        HFSPlusBuilderExtents extents;
        for (uint32_t chunk = 21; chunk > 0; --chunk) {
            extents.push_back({chunk * kChunkBlocks + 100 + 10 * file, 3});
        }
        builder.file("/file " + std::to_string(file)).data(extents);
    }
    HFSPlusOpenedVolume volume(builder);

    expectSoundDefrag(volume, uint64_t{40000} * 512);
}

TEST(HFSPlusSpecialFiles, ABitmapThatMovesKeepsItsChangesWhileReportsReadItAtYields)
{
    // One change fits the cache easily, but the reader needs the room of all chunks.
    constexpr uint32_t kChunkBlocks = 32768 * 8;
    constexpr uint32_t kTotalBlocks = 22 * kChunkBlocks;
    const uint32_t bitmapBlocks = kTotalBlocks / 8 / 512;
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(kTotalBlocks);
    builder.allocationExtents({{9000, bitmapBlocks / 2}, {30000, bitmapBlocks - bitmapBlocks / 2}});
    builder.file("/f", 20).data({{8000, 3}, {11 * kChunkBlocks, 3}});
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusForkHashes before = volume.hashes();
    std::atomic<bool> ends = false;
    const auto readBitmap = [&] {
        while (!ends) {
            const KLClosedGate gate((*volume).gate());
            uint32_t set = 0;
            for (uint32_t chunk = 0; chunk < 22; ++chunk) {
                EXPECT_TRUE((*volume).allocation().isSet(chunk * kChunkBlocks, 1, set, nullptr));
            }
        }
    };
    // While one of them has the gate the other queues, so that nearly no yield finds nobody.
    std::thread report(readBitmap);
    std::thread otherReport(readBitmap);

    const DefragOutput output = runDefrag(*volume, uint64_t{40000} * 512);
    ends = true;
    report.join();
    otherReport.join();

    EXPECT_EQ(output.error(), "");
    const HFSPlusCheckResult after = volume.check();
    EXPECT_TRUE(after.consistent) << after.description();
    EXPECT_EQ(after.forkWithCNID(20)->extents.size(), 1u);
    EXPECT_EQ(volume.hashes(), before);
}

// The files before a special file in a list change it after its own blocks were read.

TEST(HFSPlusSpecialFiles, ACatalogBehindTheFilesOfItsListKeepsTheirNewExtents)
{
    for (const uint32_t buffer : {300u, 1500u}) {
        HFSPlusVolumeBuilder builder;
        builder.blockSize(kBlockSize).totalBlocks(6000);
        addScatteredFiles(builder, 40, 10, 400);
        builder.catalogExtents({{1405, 10}, {1605, 30}});
        HFSPlusOpenedVolume volume(builder);
        ASSERT_TRUE(volume) << volume.error();
        (*volume).catalog().setNodeCacheSize((*volume).catalog().nodeSize());

        expectSoundDefrag(volume, buffer * kBlockSize);
    }
}

TEST(HFSPlusSpecialFiles, AnExtentsFileBehindTheFilesOfItsListKeepsTheirNewRecords)
{
    for (const uint32_t buffer : {300u, 1500u}) {
        HFSPlusVolumeBuilder builder;
        builder.blockSize(kBlockSize).totalBlocks(9000).extentsNodeSize(1024);
        addScatteredFiles(builder, 20, 60, 400);
        builder.extentsFileExtents({{3205, 6}, {3405, 6}}).freeExtentsNodes(10);
        HFSPlusOpenedVolume volume(builder);
        ASSERT_TRUE(volume) << volume.error();
        (*volume).extents().setNodeCacheSize((*volume).extents().nodeSize());

        expectSoundDefrag(volume, buffer * kBlockSize);
    }
}

TEST(HFSPlusSpecialFiles, ABitmapBehindTheFilesOfItsListKeepsTheirBits)
{
    constexpr uint32_t kChunkBlocks = 32768 * 8;
    constexpr uint32_t kTotalBlocks = 22 * kChunkBlocks;
    const uint32_t bitmapBlocks = kTotalBlocks / 8 / 512;
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(kTotalBlocks);
    for (uint32_t file = 0; file < 20; ++file) {
        HFSPlusBuilderExtents extents = {{2000 + 10 * file, 3}};
        for (uint32_t chunk = 21; chunk > 0; --chunk) {
            extents.push_back({chunk * kChunkBlocks + 100 + 10 * file, 3});
        }
        builder.file("/file " + std::to_string(file)).data(extents);
    }
    builder.allocationExtents({{9000, bitmapBlocks / 2}, {30000, bitmapBlocks - bitmapBlocks / 2}});
    HFSPlusOpenedVolume volume(builder);

    expectSoundDefrag(volume, uint64_t{40000} * 512);
}

TEST(HFSPlusSpecialFiles, WhatWasRepairedIsOnTheDeviceBeforeAnyDataAreRead)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(kBlockSize).totalBlocks(3000);
    builder.allocationExtents({{800, 1}});
    builder.file("/f", 20).data({{1000, 10}, {900, 10}});
    builder.damage(damagedBitmap(1004, 1, false));
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();

    ASSERT_EQ(runDefrag(*volume, 100 * kBlockSize).error(), "");

    using Operation = MemoryBlockDevice::Operation;
    const std::vector<Operation> operations = volume.operations();
    const auto firstOf = [&](Operation::Kind kind, uint64_t block) {
        return std::ranges::find_if(operations, [&](const Operation& operation) {
            return operation.kind == kind && operation.offset == block * kBlockSize;
        });
    };
    const auto repair = firstOf(Operation::Kind::kWrite, 800);
    EXPECT_NE(repair, operations.end());
    EXPECT_LT(repair, firstOf(Operation::Kind::kRead, 1000));
    EXPECT_LT(repair, firstOf(Operation::Kind::kRead, 900));
}

TEST(HFSPlusSpecialFiles, RepairsOfTheBitmapSurviveItsMove)
{
    // The repair is in memory when the bitmap's own blocks are read for copying.
    HFSPlusVolumeBuilder builder;
    builder.blockSize(kBlockSize).totalBlocks(3000);
    builder.allocationExtents({{800, 1}});
    builder.file("/f", 20).data({{1000, 10}, {900, 10}});
    builder.damage(damagedBitmap(1004, 1, false));
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();

    const DefragOutput output = runDefrag(*volume, 100 * kBlockSize);

    EXPECT_EQ(output.error(), "");
    for (const std::string& problem : volume.check().problems) {
        EXPECT_NE(problem.find("freeBlocks"), std::string::npos) << problem;
    }
    EXPECT_EQ(volume.check().forkWithCNID(20)->extents.size(), 1u);
}

TEST(HFSPlusSpecialFiles, ABitmapWithOverflowRecordsOfItsOwnLosesNoBit)
{
    // While its records are rewritten, chunks beyond its first eight extents have to be found.
    constexpr uint32_t kChunkBlocks = 32768 * 8;
    constexpr uint32_t kTotalBlocks = 22 * kChunkBlocks;
    const uint32_t bitmapBlocks = kTotalBlocks / 8 / 512;
    HFSPlusBuilderExtents extents;
    for (uint32_t piece = 0; piece < 32; ++piece) {
        extents.push_back({9000 + piece * (bitmapBlocks / 32 + 7), bitmapBlocks / 32});
    }
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(kTotalBlocks).allocationExtents(extents);
    builder.file("/f", 20).data({{21 * kChunkBlocks + 50, 90}, {20 * kChunkBlocks + 50, 90}});
    HFSPlusOpenedVolume volume(builder);

    expectSoundDefrag(volume, uint64_t{3000} * 512);
}

TEST(HFSPlusSpecialFiles, AnExtentsFileThatFindsOnlyCrumbsEndsTheRunBeforeAnythingMoves)
{
    // It lies where the first zone begins, and behind the zone every free run is one block.
    HFSPlusVolumeBuilder builder;
    builder.blockSize(kBlockSize).totalBlocks(600).extentsNodeSize(4096);
    builder.allocationExtents({{1, 1}}).catalogExtents({{2, 8}});
    builder.extentsFileExtents({{20, 20}});
    HFSPlusBuilderExtents combs;
    for (uint32_t block = 60; block + 1 < 599; block += 2) {
        combs.push_back({block, 1});
    }
    builder.file("/comb", 20).data(combs);
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusCheckResult before = volume.check();
    ASSERT_TRUE(before.consistent) << before.description();

    const DefragOutput output = runDefrag(*volume, 40 * kBlockSize);

    EXPECT_EQ(output.error(), "Overflow extents file is too congested, unable to continue.");
    EXPECT_TRUE(output.moves().empty());
    const HFSPlusCheckResult after = volume.check();
    EXPECT_TRUE(after.consistent) << after.description();
    EXPECT_EQ(after.forks, before.forks);
}

TEST(HFSPlusSpecialFiles, AnOverflowFileWithoutFreeNodesEndsTheRunWithEveryForkWhole)
{
    // The first eviction breaks forks into more pieces than the full tree can take.
    HFSPlusVolumeBuilder builder;
    builder.blockSize(kBlockSize).totalBlocks(3000).extentsNodeSize(512);
    builder.file("/front", 40).data({{100, 150}, {2990, 1}});
    builder.file("/gap", 41).data({{250, 150}});
    builder.file("/tail", 42).data({{2320, 670}});
    for (uint32_t file = 0; file < 24; ++file) {
        HFSPlusBuilderExtents extents;
        for (uint32_t piece = 0; piece < 40; ++piece) {
            extents.push_back({400 + (piece * 24 + file) * 2, 1});
        }
        builder.file("/file " + std::to_string(file)).data(extents);
    }
    builder.freeExtentsNodes(0);
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusForkHashes before = volume.hashes();

    const DefragOutput output = runDefrag(*volume, 180 * kBlockSize);

    EXPECT_EQ(output.error(), "Overflow extents file is too congested, unable to continue.");
    const HFSPlusCheckResult after = volume.check();
    EXPECT_TRUE(after.consistent) << after.description();
    EXPECT_EQ(volume.hashes(), before);
}

TEST(HFSPlusSpecialFiles, AnExtentsFileWhoseMapOffersItsOwnNodesIsLeftAlone)
{
    for (const std::string command : {"COMPACT", "DEFRAG"}) {
        SCOPED_TRACE(command);
        const auto run = [&](HFSPlusOpenedVolume& volume) {
            return runDefrag(*volume, uint64_t{82} * 512, {command}).error();
        };
        HFSPlusOpenedVolume sound(volumeOfDeepTree());
        ASSERT_TRUE(sound) << sound.error();
        EXPECT_EQ(run(sound), "");
        HFSPlusVolumeBuilder builder = volumeOfDeepTree();
        builder.damage([](HFSPlusVolumeBuilderPatcher& patcher) {
            bool done = true;
            for (uint32_t node = 1; node < 7; ++node) {
                done = patcher.treeMap(kHFSPlusBuilderExtentsID, node, false) && done;
            }
            return done;
        });
        HFSPlusOpenedVolume volume(builder);
        ASSERT_TRUE(volume) << volume.error();
        const HFSPlusForkHashes before = volume.hashes();
        const auto memory = volume.memory().clone();

        EXPECT_EQ(run(volume), "Overflow extents file is inconsistent.");

        volume.close();
        EXPECT_EQ(volume.hashes(), before);
        EXPECT_TRUE(volume.memory().hasSameBytesAs(*memory));
    }
}

TEST(HFSPlusSpecialFiles, NodesOfAJournaledVolumeStayWholeHoweverARunEnds)
{
    // Nodes of four blocks, crumbs of odd sizes to evict to, bad blocks in the way, and a device
    // that stops answering ever later.
    HFSPlusVolumeBuilder builder;
    builder.blockSize(1024).totalBlocks(4000).journal(3000, 64).journalInfoBlock(3100);
    builder.catalogNodeSize(4096).extentsNodeSize(4096).attributesNodeSize(4096).attributesFile();
    builder.catalogExtents({{300, 60}, {500, 40}}).extentsFileExtents({{400, 12}, {600, 20}});
    builder.attributesExtents({{700, 16}, {760, 16}});
    builder.badBlocks({{203, 1}, {230, 3}, {257, 2}});
    for (uint32_t file = 0; file < 40; ++file) {
        builder.file("/file " + std::to_string(file))
            .data({{1000 + 20 * file, 3}, {1009 + 20 * file, 4}, {1019 + 20 * file, 1}});
    }
    bool reached = true;
    for (uint64_t ordinal = 1; reached; ordinal += 3) {
        HFSPlusOpenedVolume volume(builder);
        ASSERT_TRUE(volume) << volume.error();
        const HFSPlusForkHashes before = volume.hashes();
        volume.faults().fail(FaultyBlockDevice::Operation::kRead, ordinal, 5,
                             FaultyBlockDevice::Lasting::kFromThenOn);

        const DefragOutput output = runDefrag(*volume, uint64_t{150} * 1024);

        reached = volume.faults().faultReached();
        EXPECT_EQ(output.error().empty(), !reached) << output.error();
        volume.faults().heal();
        volume.close();
        const HFSPlusCheckResult after = volume.check();
        ASSERT_TRUE(after.consistent) << "read " << ordinal << ": " << after.description();
        ASSERT_EQ(volume.hashes(), before);
    }
}
