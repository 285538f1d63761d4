#include "HFSPlus/HFSPlusAllocationChunk.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "HFSPlus/HFSPlusAllocation.h"
#include "support/HFSPlusOpenedVolume.h"

namespace {

class HFSPlusAllocationChunkTest : public testing::Test {
protected:
    HFSPlusAllocationChunkTest()
        : opened(HFSPlusVolumeBuilder{}.blockSize(4096).totalBlocks(1000).file("/f", 30).data(
              {{904, 4}}))
    {
        EXPECT_TRUE(opened) << opened.error();
        chunk = HFSPlusAllocationChunk::initWithAllocation(opened->allocation(), 0, nullptr);
        opened.beginChanges();
    }

    HFSPlusOpenedVolume opened;
    std::shared_ptr<HFSPlusAllocationChunk> chunk;
};

}  // namespace

TEST_F(HFSPlusAllocationChunkTest, HoldsTheBytesOfTheFileClean)
{
    ASSERT_NE(chunk, nullptr);
    EXPECT_EQ(chunk->index(), 0u);
    EXPECT_EQ(chunk->size(), 4096u);
    EXPECT_EQ(chunk->data()[904 / 8], 0xF0);
    EXPECT_FALSE(chunk->dirty());
}

TEST_F(HFSPlusAllocationChunkTest, FlushingACleanChunkDoesNothing)
{
    ASSERT_NE(chunk, nullptr);
    EXPECT_TRUE(chunk->flush());
    EXPECT_TRUE(opened.operations().empty());
}

TEST_F(HFSPlusAllocationChunkTest, FlushingADirtyChunkWritesItOnce)
{
    ASSERT_NE(chunk, nullptr);
    chunk->data()[905 / 8] = 0xFF;
    chunk->setDirty(true);

    EXPECT_TRUE(chunk->flush());
    EXPECT_TRUE(chunk->flush());

    EXPECT_EQ(opened.memory().writeCount(), 1u);
    uint8_t byte = 0;
    opened.memory().peek(
        &byte, 1, uint64_t{4096} * opened.plan().allocationExtents.at(0).startBlock + 905 / 8);
    EXPECT_EQ(byte, 0xFF);
}

TEST_F(HFSPlusAllocationChunkTest, FailedFlushLeavesTheChunkCleanAndLogsAWarning)
{
    ASSERT_NE(chunk, nullptr);
    chunk->setDirty(true);
    opened.faults().fail(FaultyBlockDevice::Operation::kWrite, 1, EIO);
    testing::internal::CaptureStderr();

    EXPECT_FALSE(chunk->flush());

    EXPECT_FALSE(chunk->dirty());
    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "]: WARNING: Write failed with an error 5 at offset "),
              std::string::npos);
}

TEST_F(HFSPlusAllocationChunkTest, ChunkThatCannotBeReadIsNotMade)
{
    opened.faults().fail(FaultyBlockDevice::Operation::kRead, 1, EIO);
    std::unique_ptr<VZDefragError> error;

    EXPECT_EQ(HFSPlusAllocationChunk::initWithAllocation(opened->allocation(), 0, &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_TRUE(error->description().starts_with("Read failed with an error 5 at offset "));
}
