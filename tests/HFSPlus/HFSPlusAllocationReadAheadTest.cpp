#include "HFSPlus/HFSPlusAllocationReadAhead.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "HFSPlusAllocationTestVolume.h"

namespace {

constexpr uint32_t kChunks = 40;  // of which 32 are read at once
constexpr uint32_t kMostIdleChunks = 16;

using Device = FaultyBlockDevice;

bool isSet(HFSPlusAllocation& allocation, uint32_t block)
{
    uint32_t count = 0;
    EXPECT_TRUE(allocation.isSet(block, 1, count, nullptr));
    return count == 1;
}

}  // namespace

TEST(HFSPlusAllocationReadAhead, ChunksInAscendingOrderTakeOneReadAMebibyte)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(kChunks));
    HFSPlusAllocation& allocation = opened->allocation();
    const HFSPlusAllocationReadAhead readAhead(allocation);

    for (uint32_t index = 0; index < kChunks; ++index) {
        touch(allocation, index);
    }

    EXPECT_EQ(readsOf(opened), 2u);
}

TEST(HFSPlusAllocationReadAhead, EndsWithTheObject)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(kChunks));
    HFSPlusAllocation& allocation = opened->allocation();
    {
        const HFSPlusAllocationReadAhead readAhead(allocation);
        touch(allocation, 0);
    }

    touch(allocation, 1);

    EXPECT_EQ(readsOf(opened), 2u);
}

TEST(HFSPlusAllocationReadAhead, HandsOutTheBytesThatAReadOfItsOwnGives)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(kChunks));
    for (uint32_t index = 0; index < kChunks; ++index) {
        ASSERT_TRUE(
            opened->allocation().set(index * kChunkBlocks + kFreeInChunk + index, 1, nullptr));
    }
    ASSERT_TRUE(opened->flush(nullptr));
    opened.reopen();
    HFSPlusAllocation& allocation = opened->allocation();
    const HFSPlusAllocationReadAhead readAhead(allocation);

    for (const uint32_t index : {3U, 5U, 4U, 39U, 2U, 38U, 0U}) {
        const uint32_t block = index * kChunkBlocks + kFreeInChunk + index;
        EXPECT_TRUE(isSet(allocation, block)) << index;
        EXPECT_FALSE(isSet(allocation, block + 1)) << index;
    }
}

TEST(HFSPlusAllocationReadAhead, AChunkThatWasWrittenAndEvictedIsReadAnew)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(kChunks));
    HFSPlusAllocation& allocation = opened->allocation();
    const HFSPlusAllocationReadAhead readAhead(allocation);
    touch(allocation, 0);
    dirty(allocation, 20);
    // The write comes with the eviction.
    for (uint32_t index = 1; index <= kMostIdleChunks; ++index) {
        touch(allocation, index);
    }
    ASSERT_TRUE(isSetOnDisk(opened, 20 * kChunkBlocks + kFreeInChunk));

    EXPECT_TRUE(isSet(allocation, 20 * kChunkBlocks + kFreeInChunk));
}

TEST(HFSPlusAllocationReadAhead, AChunkInTheCacheKeepsItsChanges)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(kChunks));
    HFSPlusAllocation& allocation = opened->allocation();
    dirty(allocation, 1);
    const HFSPlusAllocationReadAhead readAhead(allocation);

    touch(allocation, 0);

    EXPECT_TRUE(isSet(allocation, kChunkBlocks + kFreeInChunk));
}

TEST(HFSPlusAllocationReadAhead, AfterAFailureEveryChunkIsReadForItself)
{
    HFSPlusOpenedVolume opened(volumeOfChunks(3));
    HFSPlusAllocation& allocation = opened->allocation();
    opened.faults().fail(Device::Operation::kRead, 1, EIO);
    opened.faults().fail(Device::Operation::kRead, 3, EIO);
    const HFSPlusAllocationReadAhead readAhead(allocation);
    std::unique_ptr<VZDefragError> error;

    EXPECT_TRUE(allocation.cachedChunkWithChunkIndex(0, &error));
    EXPECT_FALSE(allocation.cachedChunkWithChunkIndex(1, &error));
    EXPECT_TRUE(allocation.cachedChunkWithChunkIndex(2, nullptr));

    ASSERT_NE(error, nullptr);
    EXPECT_TRUE(error->description().starts_with("Read failed with an error 5 at offset "))
        << error->description();
}
