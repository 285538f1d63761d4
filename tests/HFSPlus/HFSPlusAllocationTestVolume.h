#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "HFSPlus/HFSPlusAllocation.h"
#include "support/HFSPlusOpenedVolume.h"

/** What the tests of the bitmap share. A chunk of theirs is 32768 bytes, 262144 blocks. */

using AllocationOperation = MemoryBlockDevice::Operation;

constexpr uint32_t kChunkBlocks = 262144;
constexpr uint32_t kFreeInChunk = 200000;  // a block of every chunk that is free when built

/** A volume whose bitmap takes @p chunks chunks, sparse. */
inline HFSPlusVolumeBuilder volumeOfChunks(uint32_t chunks)
{
    return HFSPlusVolumeBuilder{}.blockSize(512).totalBlocks(chunks * kChunkBlocks).contents(false);
}

inline HFSPlusVolumeBuilder smallVolume()
{
    return HFSPlusVolumeBuilder{}.blockSize(4096).totalBlocks(1000);
}

inline uint64_t countOf(const HFSPlusOpenedVolume& opened, AllocationOperation::Kind kind)
{
    return static_cast<uint64_t>(
        std::ranges::count(opened.operations(), kind, &AllocationOperation::kind));
}

inline uint64_t readsOf(const HFSPlusOpenedVolume& opened)
{
    return countOf(opened, AllocationOperation::Kind::kRead);
}

/** Takes chunk @p index and gives it back. */
inline void touch(HFSPlusAllocation& allocation, uint32_t index)
{
    EXPECT_TRUE(allocation.cachedChunkWithChunkIndex(index, nullptr));
}

/** Changes a bit of chunk @p index. */
inline void dirty(HFSPlusAllocation& allocation, uint32_t index)
{
    EXPECT_TRUE(allocation.set(index * kChunkBlocks + kFreeInChunk, 1, nullptr));
}

/** Whether the bit of @p block is set on the device, where the bitmap is one extent. */
inline bool isSetOnDisk(const HFSPlusOpenedVolume& opened, uint32_t block)
{
    const HFSPlusBuilderExtent extent = opened.plan().allocationExtents.at(0);
    const uint64_t bitmap = uint64_t{extent.startBlock} * opened.plan().spec.blockSize;
    uint8_t byte = 0;
    opened.memory().peek(&byte, 1, bitmap + block / 8);
    return (byte & (0x80 >> block % 8)) != 0;
}
