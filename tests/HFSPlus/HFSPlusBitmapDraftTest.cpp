#include "HFSPlus/HFSPlusBitmapDraft.h"

#include <gtest/gtest.h>

#include "support/HFSPlusOpenedVolume.h"

namespace {

constexpr uint32_t kChunkBlocks = 262144;

/** A volume whose bitmap has @p chunks chunks, the last one in use by a block or two. */
HFSPlusVolumeBuilder volumeOfChunks(uint32_t chunks)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks((chunks - 1) * kChunkBlocks + 100).contents(false);
    return builder;
}

/** Sets a block in the middle of each of the first @p chunks chunks; how many it could set. */
uint32_t setBlocks(HFSPlusAllocation& allocation, uint32_t chunks, VZDefragErrorSlot error)
{
    uint32_t done = 0;
    while (done < chunks && allocation.set(done * kChunkBlocks + 200000, 1, error)) {
        ++done;
    }
    return done;
}

}  // namespace

TEST(HFSPlusBitmapDraft, WhatIsTakenBackWasNeverThere)
{
    constexpr uint32_t kChunks = 30;  // more than are kept idle
    HFSPlusOpenedVolume volume(volumeOfChunks(kChunks + 1));
    ASSERT_TRUE(volume) << volume.error();
    const auto before = volume.memory().clone();
    const uint32_t freeBlocks = volume->hostVolumeHeader().freeBlocks;
    HFSPlusAllocation& allocation = volume->allocation();
    {
        const HFSPlusBitmapDraft draft(allocation);
        ASSERT_EQ(setBlocks(allocation, kChunks, nullptr), kChunks);
        for (uint32_t chunk = 0; chunk < kChunks; ++chunk) {
            uint32_t set = 0;
            ASSERT_TRUE(allocation.isSet(chunk * kChunkBlocks + 200000, 2, set, nullptr));
            EXPECT_EQ(set, 1u);
        }
        EXPECT_EQ(volume->hostVolumeHeader().freeBlocks, freeBlocks);
    }

    uint32_t clear = 0;
    ASSERT_TRUE(allocation.isClear(200000, 2, clear, nullptr));
    EXPECT_EQ(clear, 2u);
    EXPECT_EQ(volume->hostVolumeHeader().freeBlocks, freeBlocks);
    EXPECT_FALSE(volume->needsFlush());
    volume.close();
    EXPECT_TRUE(volume.memory().hasSameBytesAs(*before));
}

TEST(HFSPlusBitmapDraft, WhatIsFlushedStays)
{
    constexpr uint32_t kChunks = 30;
    HFSPlusOpenedVolume volume(volumeOfChunks(kChunks + 1));
    ASSERT_TRUE(volume) << volume.error();
    const uint32_t freeBlocks = volume->hostVolumeHeader().freeBlocks;
    {
        const HFSPlusBitmapDraft draft(volume->allocation());
        ASSERT_EQ(setBlocks(volume->allocation(), kChunks, nullptr), kChunks);
        ASSERT_TRUE(volume->flush(nullptr));
        ASSERT_TRUE(volume->allocation().set(500, 1, nullptr));  // no draft any more
    }

    EXPECT_TRUE(volume->needsFlush());
    ASSERT_TRUE(volume->flush(nullptr));
    volume.reopen();
    EXPECT_EQ(volume->hostVolumeHeader().freeBlocks, freeBlocks - kChunks - 1);
    for (uint32_t chunk = 0; chunk < kChunks; ++chunk) {
        uint32_t set = 0;
        ASSERT_TRUE(volume->allocation().isSet(chunk * kChunkBlocks + 200000, 2, set, nullptr));
        EXPECT_EQ(set, 1u);
    }
}

TEST(HFSPlusBitmapDraft, WhatIsKeptIsWrittenWithTheNextChanges)
{
    HFSPlusOpenedVolume volume(volumeOfChunks(2));
    ASSERT_TRUE(volume) << volume.error();
    const uint32_t freeBlocks = volume->hostVolumeHeader().freeBlocks;
    {
        const HFSPlusBitmapDraft draft(volume->allocation());
        ASSERT_TRUE(volume->allocation().set(500, 7, nullptr));
        volume->allocation().keepDraft();
        EXPECT_EQ(volume->hostVolumeHeader().freeBlocks, freeBlocks - 7);
    }

    ASSERT_TRUE(volume->flush(nullptr));
    volume.reopen();
    uint32_t set = 0;
    ASSERT_TRUE(volume->allocation().isSet(500, 8, set, nullptr));
    EXPECT_EQ(set, 7u);
    EXPECT_EQ(volume->hostVolumeHeader().freeBlocks, freeBlocks - 7);
}

TEST(HFSPlusBitmapDraft, ChangesThatWaitedBeforeAreNotTakenBack)
{
    HFSPlusOpenedVolume volume(volumeOfChunks(2));
    ASSERT_TRUE(volume) << volume.error();
    ASSERT_TRUE(volume->allocation().set(500, 1, nullptr));
    {
        const HFSPlusBitmapDraft draft(volume->allocation());
        ASSERT_TRUE(volume->allocation().set(510, 1, nullptr));
    }

    ASSERT_TRUE(volume->flush(nullptr));
    volume.reopen();
    for (const uint32_t block : {500u, 510u}) {
        uint32_t set = 0;
        ASSERT_TRUE(volume->allocation().isSet(block, 2, set, nullptr));
        EXPECT_EQ(set, 1u);
    }
}

TEST(HFSPlusBitmapDraft, ABitmapThatIsWrongAllOverIsInconsistent)
{
    constexpr uint32_t kMost = HFSPlusAllocation::kDraftLimit / 32768;
    HFSPlusOpenedVolume volume(volumeOfChunks(kMost + 2));
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusBitmapDraft draft(volume->allocation());
    std::unique_ptr<VZDefragError> error;

    EXPECT_EQ(setBlocks(volume->allocation(), kMost + 1, &error), kMost);

    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Allocation file is inconsistent.");
    EXPECT_EQ(volume.memory().writeCount(), 0u);
}
