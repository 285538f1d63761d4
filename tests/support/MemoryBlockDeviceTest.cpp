#include "support/MemoryBlockDevice.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace {

using Operation = MemoryBlockDevice::Operation;
using Kind = MemoryBlockDevice::Operation::Kind;

std::vector<uint8_t> filled(size_t size, uint8_t value)
{
    return std::vector<uint8_t>(size, value);
}

TEST(MemoryBlockDevice, WhatWasWrittenIsReadBackAndTheRestIsZero)
{
    MemoryBlockDevice device(1 << 20);
    const std::vector<uint8_t> written = filled(5120, 7);

    ASSERT_EQ(device.writeAt(written.data(), written.size(), 3584), 5120);

    std::vector<uint8_t> read = filled(6144, 1);
    ASSERT_EQ(device.readAt(read.data(), read.size(), 3072), 6144);
    EXPECT_EQ(std::vector<uint8_t>(read.begin() + 512, read.begin() + 5632), written);
    EXPECT_EQ(std::vector<uint8_t>(read.begin(), read.begin() + 512), filled(512, 0));
    EXPECT_EQ(std::vector<uint8_t>(read.begin() + 5632, read.end()), filled(512, 0));
}

TEST(MemoryBlockDevice, TransfersOfPartsOfDeviceBlocksAreRefused)
{
    MemoryBlockDevice device(1 << 20, 4096);
    std::vector<uint8_t> buffer(4096);

    EXPECT_EQ(device.readAt(buffer.data(), 512, 0), -EINVAL);
    EXPECT_EQ(device.readAt(buffer.data(), 4096, 512), -EINVAL);
    EXPECT_EQ(device.writeAt(buffer.data(), 512, 0), -EINVAL);
}

TEST(MemoryBlockDevice, TransfersEndAtTheLastWholeBlock)
{
    MemoryBlockDevice device(1100);
    std::vector<uint8_t> buffer(1024);

    EXPECT_EQ(device.blockCount(), 2U);
    EXPECT_EQ(device.readAt(buffer.data(), 1024, 512), 512);
    EXPECT_EQ(device.readAt(buffer.data(), 512, 1024), 0);
    EXPECT_EQ(device.writeAt(buffer.data(), 1024, 512), 512);
    EXPECT_EQ(device.writeAt(buffer.data(), 512, 1024), -ENOSPC);
}

TEST(MemoryBlockDevice, DuplicatesShareBytesAndLog)
{
    MemoryBlockDevice device(1 << 20);
    const std::unique_ptr<PlatformBlockDevice> second = device.duplicate();
    std::vector<uint8_t> buffer = filled(512, 9);

    ASSERT_EQ(second->writeAt(buffer.data(), 512, 1024), 512);
    ASSERT_EQ(device.synchronize(), 0);
    ASSERT_EQ(second->readAt(buffer.data(), 512, 1024), 512);

    const std::vector<Operation> expected = {
        {Kind::kWrite, 1024, 512}, {Kind::kSynchronize, 0, 0}, {Kind::kRead, 1024, 512}};
    EXPECT_EQ(device.operations(), expected);
    EXPECT_EQ(device.writeCount(), 1U);
    EXPECT_EQ(device.readCount(), 1U);
    EXPECT_EQ(device.synchronizeCount(), 1U);
}

TEST(MemoryBlockDevice, ACloneKeepsItsBytesWhenTheOriginalChanges)
{
    MemoryBlockDevice device(1 << 20);
    device.poke("before", 6, 4000);
    const std::unique_ptr<MemoryBlockDevice> clone = device.clone();
    ASSERT_TRUE(device.hasSameBytesAs(*clone));

    device.poke("after!", 6, 4000);

    std::string kept(6, ' ');
    clone->peek(kept.data(), 6, 4000);
    EXPECT_EQ(kept, "before");
    EXPECT_FALSE(device.hasSameBytesAs(*clone));
}

TEST(MemoryBlockDevice, PagesOfZerosEqualPagesNeverWritten)
{
    MemoryBlockDevice device(1 << 20);
    const std::unique_ptr<MemoryBlockDevice> clone = device.clone();
    device.poke("\0\0\0", 3, 9000);

    EXPECT_TRUE(device.hasSameBytesAs(*clone));
    EXPECT_TRUE(clone->hasSameBytesAs(device));
}

TEST(MemoryBlockDevice, PeekingAndPokingLeaveNoTrace)
{
    MemoryBlockDevice device(4096);
    char byte = 'x';
    device.poke(&byte, 1, 17);
    device.peek(&byte, 1, 17);

    EXPECT_TRUE(device.operations().empty());
    EXPECT_EQ(device.readCount() + device.writeCount(), 0U);
}

TEST(MemoryBlockDevice, ALockedDeviceTakesNoWrites)
{
    MemoryBlockDevice device(4096);
    device.setWritable(false);
    const std::vector<uint8_t> buffer = filled(512, 1);

    EXPECT_FALSE(device.isWritable());
    EXPECT_EQ(device.writeAt(buffer.data(), 512, 0), -EROFS);
    EXPECT_TRUE(device.hasSameBytesAs(MemoryBlockDevice(4096)));
}

}  // namespace
