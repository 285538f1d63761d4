#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlusAllocationTestVolume.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"
#include "support/NothrowAllocations.h"

namespace {

using Operation = AllocationOperation;
using Extents = HFSPlusBuilderExtents;

/** Where chunk @p index is written when the bitmap is one extent. */
uint64_t placeOfChunk(const HFSPlusOpenedVolume& opened, uint32_t index)
{
    const HFSPlusBuilderExtent extent = opened.plan().allocationExtents.at(0);
    return uint64_t{extent.startBlock} * opened.plan().spec.blockSize + uint64_t{32768} * index;
}

std::vector<uint64_t> writesOf(const HFSPlusOpenedVolume& opened)
{
    std::vector<uint64_t> offsets;
    for (const Operation& operation : opened.operations()) {
        if (operation.kind == Operation::Kind::kWrite) {
            offsets.push_back(operation.offset);
        }
    }
    return offsets;
}

/** Pieces of @p count chunks of 32768 bytes in blocks of 512. */
Extents piecesOfOneChunk(uint32_t count)
{
    Extents pieces;
    for (uint32_t piece = 0; piece < count; ++piece) {
        pieces.push_back({.startBlock = 10000 + piece * 100, .blockCount = 64});
    }
    return pieces;
}

}  // namespace

TEST(HFSPlusAllocation, SmallBlocksMakeChunksOf32KiBAndKeepSixteenIdle)
{
    HFSPlusOpenedVolume opened(
        HFSPlusVolumeBuilder{}.blockSize(4096).totalBlocks(18 * kChunkBlocks).contents(false));
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusAllocation& allocation = opened->allocation();
    EXPECT_EQ(allocation.chunkSize(), 32768u);
    EXPECT_EQ(allocation.chunkIndexFromBlockIndex(262143), 0u);
    EXPECT_EQ(allocation.chunkIndexFromBlockIndex(kChunkBlocks), 1u);

    for (uint32_t index = 0; index < 17; ++index) {
        touch(allocation, index);
    }
    opened.memory().clearOperations();

    touch(allocation, 1);
    EXPECT_EQ(readsOf(opened), 0u);
    touch(allocation, 0);
    EXPECT_EQ(readsOf(opened), 1u);
}

TEST(HFSPlusAllocation, BlocksOf64KiBMakeChunksOfThatSizeAndKeepEightIdle)
{
    HFSPlusOpenedVolume opened(
        HFSPlusVolumeBuilder{}.blockSize(65536).totalBlocks(10 * 524288).contents(false));
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusAllocation& allocation = opened->allocation();
    EXPECT_EQ(allocation.chunkSize(), 65536u);

    for (uint32_t index = 0; index < 9; ++index) {
        touch(allocation, index);
    }
    opened.memory().clearOperations();

    touch(allocation, 1);
    EXPECT_EQ(readsOf(opened), 0u);
    touch(allocation, 0);
    EXPECT_GT(readsOf(opened), 0u);
}

TEST(HFSPlusAllocation, BlocksAbove512KiBNeverEvictIdleChunks)
{
    constexpr uint32_t kLargeChunkBlocks = 1048576 * 8;
    HFSPlusOpenedVolume opened(HFSPlusVolumeBuilder{}
                                   .blockSize(1048576)
                                   .totalBlocks(4 * kLargeChunkBlocks)
                                   .contents(false));
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusAllocation& allocation = opened->allocation();
    EXPECT_EQ(allocation.chunkSize(), 1048576u);
    for (uint32_t index = 0; index < 4; ++index) {
        touch(allocation, index);
    }
    opened.memory().clearOperations();

    for (uint32_t index = 0; index < 4; ++index) {
        touch(allocation, index);
    }

    EXPECT_EQ(readsOf(opened), 0u);
}

TEST(HFSPlusAllocation, LeastRecentlyReleasedChunkIsEvictedOnePerRelease)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(18));
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusAllocation& allocation = opened->allocation();
    for (uint32_t index = 0; index < 16; ++index) {
        touch(allocation, index);
    }
    touch(allocation, 0);   // now the most recent one
    touch(allocation, 16);  // evicts 1
    opened.memory().clearOperations();

    touch(allocation, 0);
    touch(allocation, 2);
    EXPECT_EQ(readsOf(opened), 0u);
    touch(allocation, 1);
    EXPECT_EQ(readsOf(opened), 1u);
}

TEST(HFSPlusAllocation, ReferencedChunksDoNotCountAsIdle)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(18));
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusAllocation& allocation = opened->allocation();
    {
        std::vector<HFSPlusCachedChunk> taken;
        for (uint32_t index = 0; index < 18; ++index) {
            taken.push_back(allocation.cachedChunkWithChunkIndex(index, nullptr));
            ASSERT_TRUE(taken.back());
            EXPECT_EQ(taken.back()->index(), index);
        }
        opened.memory().clearOperations();
        touch(allocation, 0);
        EXPECT_EQ(readsOf(opened), 0u);
    }

    for (uint32_t index = 17; index > 1; --index) {
        touch(allocation, index);
    }
    EXPECT_EQ(readsOf(opened), 0u);
}

TEST(HFSPlusAllocation, ChunkOutsideTheFileCannotBeTakenReadOrWritten)
{
    HFSPlusOpenedVolume opened(smallVolume());
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusAllocation& allocation = opened->allocation();
    std::vector<uint8_t> buffer(allocation.chunkSize());
    std::unique_ptr<VZDefragError> taking;
    std::unique_ptr<VZDefragError> reading;
    std::unique_ptr<VZDefragError> writing;

    EXPECT_FALSE(allocation.cachedChunkWithChunkIndex(1, &taking));
    EXPECT_FALSE(allocation.readChunk(1, buffer.data(), &reading));
    EXPECT_FALSE(allocation.writeChunk(0xFFFFFFFF, buffer.data(), &writing));

    ASSERT_TRUE(taking != nullptr && reading != nullptr && writing != nullptr);
    EXPECT_EQ(taking->description(), "Allocation chunk 1 is out of range.");
    EXPECT_EQ(reading->description(), "Allocation chunk 1 is out of range.");
    EXPECT_EQ(writing->description(), "Allocation chunk 4294967295 is out of range.");
}

TEST(HFSPlusAllocation, ChunkWithoutMemoryIsNotMade)
{
    HFSPlusOpenedVolume opened(smallVolume());
    ASSERT_TRUE(opened) << opened.error();
    std::unique_ptr<VZDefragError> error;
    NothrowAllocations allocations;
    allocations.failAfter(0);

    EXPECT_FALSE(opened->allocation().cachedChunkWithBlockIndex(0, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Out of memory.");
}

TEST(HFSPlusAllocation, FlushWritesDirtyChunksOnlyAndKeepsThemCached)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(4));
    ASSERT_TRUE(opened) << opened.error();
    opened.beginChanges();
    HFSPlusAllocation& allocation = opened->allocation();
    for (const uint32_t index : {3u, 0u, 1u}) {
        touch(allocation, index);
    }
    dirty(allocation, 3);
    dirty(allocation, 1);
    opened.memory().clearOperations();

    EXPECT_TRUE(allocation.flush());
    EXPECT_FALSE(allocation.isDirty());
    touch(allocation, 3);

    EXPECT_EQ(writesOf(opened),
              (std::vector<uint64_t>{placeOfChunk(opened, 1), placeOfChunk(opened, 3)}));
    EXPECT_EQ(readsOf(opened), 0u);
    EXPECT_TRUE(isSetOnDisk(opened, 3 * kChunkBlocks + kFreeInChunk));
}

TEST(HFSPlusAllocation, FlushReachesReferencedChunksToo)
{
    HFSPlusOpenedVolume opened(smallVolume());
    ASSERT_TRUE(opened) << opened.error();
    const HFSPlusCachedChunk taken = opened->allocation().cachedChunkWithChunkIndex(0, nullptr);
    ASSERT_TRUE(taken);
    ASSERT_TRUE(opened->allocation().set(700, 1, nullptr));

    EXPECT_TRUE(opened->allocation().flush());
    EXPECT_TRUE(isSetOnDisk(opened, 700));
}

TEST(HFSPlusAllocation, FlushGoesOnPastAChunkThatFails)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(3));
    ASSERT_TRUE(opened) << opened.error();
    opened.beginChanges();
    HFSPlusAllocation& allocation = opened->allocation();
    for (uint32_t index = 0; index < 3; ++index) {
        dirty(allocation, index);
    }
    opened.faults().fail(FaultyBlockDevice::Operation::kWrite, 2, EIO);

    // Through the volume: outside of its flush nothing is written after a failure.
    EXPECT_FALSE(opened->flush(nullptr));

    EXPECT_FALSE(allocation.isDirty());
    EXPECT_TRUE(isSetOnDisk(opened, kFreeInChunk));
    EXPECT_FALSE(isSetOnDisk(opened, kChunkBlocks + kFreeInChunk));
    EXPECT_TRUE(isSetOnDisk(opened, 2 * kChunkBlocks + kFreeInChunk));
}

TEST(HFSPlusAllocation, EvictionWritesADirtyChunk)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(18));
    ASSERT_TRUE(opened) << opened.error();
    opened.beginChanges();
    HFSPlusAllocation& allocation = opened->allocation();
    dirty(allocation, 0);

    for (uint32_t index = 1; index < 17; ++index) {
        touch(allocation, index);
    }

    EXPECT_EQ(writesOf(opened), (std::vector<uint64_t>{placeOfChunk(opened, 0)}));
    EXPECT_TRUE(isSetOnDisk(opened, kFreeInChunk));
}

TEST(HFSPlusAllocation, EvictionThatCannotWriteDropsTheChunkAndTheVolumeWritesNoHeaderOverIt)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(18));
    ASSERT_TRUE(opened) << opened.error();
    opened.beginChanges();
    HFSPlusAllocation& allocation = opened->allocation();
    dirty(allocation, 0);
    opened.faults().fail(FaultyBlockDevice::Operation::kWrite, 1, EIO);

    for (uint32_t index = 1; index < 17; ++index) {
        touch(allocation, index);
    }
    EXPECT_FALSE(allocation.isDirty());

    std::unique_ptr<VZDefragError> error;
    EXPECT_FALSE(opened->flush(&error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Write failure.");
    EXPECT_EQ(opened.memory().writeCount(), 0u);
    EXPECT_TRUE(opened.check().consistent) << opened.check().description();
}

TEST(HFSPlusAllocation, DestructionWritesIdleDirtyChunks)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(3));
    ASSERT_TRUE(opened) << opened.error();
    opened.beginChanges();
    dirty(opened->allocation(), 2);
    dirty(opened->allocation(), 0);

    opened.close();

    EXPECT_TRUE(isSetOnDisk(opened, kFreeInChunk));
    EXPECT_TRUE(isSetOnDisk(opened, 2 * kChunkBlocks + kFreeInChunk));
}

TEST(HFSPlusAllocation, DestructionAfterAFailedFlushWritesNothing)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(3));
    ASSERT_TRUE(opened) << opened.error();
    dirty(opened->allocation(), 0);
    opened.faults().fail(FaultyBlockDevice::Operation::kWrite, 1, EIO);
    ASSERT_FALSE(opened->flush(nullptr));
    dirty(opened->allocation(), 1);
    opened.memory().clearOperations();

    opened.close();

    EXPECT_EQ(opened.memory().writeCount(), 0u);
}

TEST(HFSPlusAllocation, HeldWritesKeepDirtyChunksInMemoryBeyondTheLimit)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(40));
    ASSERT_TRUE(opened) << opened.error();
    opened.beginChanges();
    HFSPlusAllocation& allocation = opened->allocation();
    {
        const HFSPlusHeldWrites held(allocation);
        for (uint32_t index = 0; index < 40; ++index) {
            dirty(allocation, index);
        }
        EXPECT_EQ(opened.memory().writeCount(), 0u);
        opened.memory().clearOperations();
        for (uint32_t index = 0; index < 40; ++index) {
            touch(allocation, index);
        }
        EXPECT_EQ(readsOf(opened), 0u);
    }

    touch(allocation, 39);

    EXPECT_EQ(opened.memory().writeCount(), 24u);  // down to sixteen idle ones at once
}

TEST(HFSPlusAllocation, HeldWritesEvictTheOldestCleanChunkInstead)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(18));
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusAllocation& allocation = opened->allocation();
    const HFSPlusHeldWrites held(allocation);
    dirty(allocation, 0);
    for (uint32_t index = 1; index < 17; ++index) {
        touch(allocation, index);
    }
    opened.memory().clearOperations();

    touch(allocation, 0);
    touch(allocation, 2);
    EXPECT_EQ(readsOf(opened), 0u);
    touch(allocation, 1);
    EXPECT_EQ(readsOf(opened), 1u);
    EXPECT_EQ(opened.memory().writeCount(), 0u);
}

TEST(HFSPlusAllocation, BitmapThatIsMovedWhileItChangesLosesNoBit)
{
    // The file's blocks are copied, then more chunks change than the cache holds. Without the
    // hold, evictions would write them to the old place, behind the copy's back.
    HFSPlusOpenedVolume opened(volumeOfChunks(20));
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusAllocation& allocation = opened->allocation();
    const HFSPlusBuilderExtent old = opened.plan().allocationExtents.at(0);
    const HFSPlusBuilderExtent moved = {.startBlock = 1000000, .blockCount = old.blockCount};
    {
        const HFSPlusHeldWrites held(allocation);
        std::vector<uint8_t> bytes(size_t{512} * old.blockCount);
        ASSERT_TRUE(
            opened->read(bytes.data(), bytes.size(), uint64_t{512} * old.startBlock, nullptr));
        ASSERT_TRUE(
            opened->write(bytes.data(), bytes.size(), uint64_t{512} * moved.startBlock, nullptr));
        for (uint32_t index = 0; index < 20; ++index) {
            dirty(allocation, index);
        }
        HFSPlusHostExtentRecord record = {};
        record[0] = {.startBlock = moved.startBlock, .blockCount = moved.blockCount};
        ASSERT_TRUE(opened->updateForkExtents(record, kHFSAllocationFileID, nullptr));
    }
    ASSERT_TRUE(opened->flush(nullptr));

    opened.reopen();

    ASSERT_TRUE(opened) << opened.error();
    for (uint32_t index = 0; index < 20; ++index) {
        uint32_t result = 0;
        ASSERT_TRUE(
            opened->allocation().isSet(index * kChunkBlocks + kFreeInChunk, 1, result, nullptr));
        EXPECT_EQ(result, 1u) << "chunk " << index;
    }
}

TEST(HFSPlusAllocation, PinnedExtentsKeepTheBitmapInReachWithoutItsRecords)
{
    // Ten pieces of a chunk each: the last two are in an overflow record.
    const Extents pieces = piecesOfOneChunk(10);
    HFSPlusOpenedVolume opened(volumeOfChunks(10).allocationExtents(pieces));
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusAllocation& allocation = opened->allocation();
    std::vector<HFSPlusHostExtentDescriptor> pinned;
    for (const HFSPlusBuilderExtent& piece : pieces) {
        pinned.push_back({.startBlock = piece.startBlock, .blockCount = piece.blockCount});
    }
    const uint32_t block = 9 * kChunkBlocks + kFreeInChunk;

    allocation.setPinnedExtents(pinned);
    ASSERT_TRUE(opened->extents().deleteExtentRecord(512, kHFSAllocationFileID, 0, nullptr));
    std::unique_ptr<VZDefragError> error;
    EXPECT_TRUE(allocation.set(block, 5, &error)) << error->description();
    EXPECT_TRUE(allocation.flush());
    allocation.setPinnedExtents({});
    EXPECT_FALSE(allocation.cachedChunkWithChunkIndex(8, nullptr));

    std::vector<uint8_t> byte(1);
    opened.memory().peek(byte.data(), 1, uint64_t{512} * (10000 + 900) + kFreeInChunk / 8);
    EXPECT_EQ(byte[0], 0xF8);
}

TEST(HFSPlusAllocation, OffsetBehindThePinnedExtentsIsOutOfRange)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(3));
    ASSERT_TRUE(opened) << opened.error();
    opened->allocation().setPinnedExtents({{.startBlock = 100, .blockCount = 64}});
    std::unique_ptr<VZDefragError> error;

    EXPECT_FALSE(opened->allocation().cachedChunkWithChunkIndex(1, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Offset 32768 is out of range for file ID 6.");
}

TEST(HFSPlusAllocation, MissingOverflowRecordOfTheBitmapIsAnError)
{
    // The header promises more blocks than its extents hold, and another fork has the record.
    HFSPlusOpenedVolume opened(
        volumeOfChunks(3)
            .file("/f", 30)
            .data(piecesOfOneChunk(9))
            .damage(damagedHeader("allocationFile.extents[0].blockCount", 64)));
    ASSERT_TRUE(opened) << opened.error();
    std::unique_ptr<VZDefragError> error;
    uint32_t result = 0;

    EXPECT_FALSE(opened->allocation().isClear(kChunkBlocks, 10, result, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Offset 32768 is out of range for file ID 6.");
}
