#include "VZDefragTransferQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "VZDefragVolume.h"
#include "support/FaultyBlockDevice.h"
#include "support/MemoryBlockDevice.h"

namespace {

constexpr size_t kMiB = 1048576;

class VZDefragTransferQueueTest : public testing::Test {
protected:
    VZDefragTransferQueueTest()
    {
        for (size_t index = 0; index < _bytes.size(); ++index) {
            _bytes[index] = static_cast<uint8_t>(index * 7 + index / 251);
        }
        _memory.poke(_bytes.data(), _bytes.size(), 0);
    }

    std::vector<uint8_t> _bytes = std::vector<uint8_t>(8 * kMiB);
    MemoryBlockDevice _memory{8 * kMiB};
    FaultyBlockDevice _faults{_memory.share()};
    std::unique_ptr<VZDefragVolume> _volume =
        VZDefragVolume::initWithBlockDevice("/dev/memory", _faults.share());
    VZDefragTransferQueue _queue{*_volume};
};

}  // namespace

TEST_F(VZDefragTransferQueueTest, ManyReadsArriveWhereTheyWereAskedFor)
{
    std::vector<uint8_t> read(4 * kMiB);

    for (size_t part = 0; part < 1024; ++part) {
        _queue.read(read.data() + part * 4096, 4096, (1023 - part) * 4096);
    }
    ASSERT_TRUE(_queue.finish(nullptr));

    for (size_t part = 0; part < 1024; ++part) {
        ASSERT_TRUE(std::equal(read.begin() + static_cast<ptrdiff_t>(part * 4096),
                               read.begin() + static_cast<ptrdiff_t>((part + 1) * 4096),
                               _bytes.begin() + static_cast<ptrdiff_t>((1023 - part) * 4096)))
            << "part " << part;
    }
}

TEST_F(VZDefragTransferQueueTest, ALongTransferGoesInPiecesOfAMebibyte)
{
    std::vector<uint8_t> read(3 * kMiB + 512);

    _queue.read(read.data(), read.size(), 512);
    ASSERT_TRUE(_queue.finish(nullptr));

    EXPECT_TRUE(std::equal(read.begin(), read.end(), _bytes.begin() + 512));
    std::vector<MemoryBlockDevice::Operation> operations = _memory.operations();
    ASSERT_EQ(operations.size(), 4u);
    std::ranges::sort(operations, {}, &MemoryBlockDevice::Operation::offset);
    EXPECT_EQ(operations[0].nbyte, kMiB);
    EXPECT_EQ(operations[3].nbyte, 512u);
    EXPECT_EQ(operations[3].offset, 512 + 3 * kMiB);
}

TEST_F(VZDefragTransferQueueTest, WritesAreOnTheDeviceWhenFinishReturns)
{
    const std::vector<uint8_t> written(5 * kMiB, 0xA5);

    _queue.write(written.data(), written.size(), kMiB);
    ASSERT_TRUE(_queue.finish(nullptr));

    std::vector<uint8_t> found(written.size());
    _memory.peek(found.data(), found.size(), kMiB);
    EXPECT_EQ(found, written);
}

TEST_F(VZDefragTransferQueueTest, PiecesThatShareADeviceBlockDoNotUndoOneAnother)
{
    constexpr uint32_t kDeviceBlockSize = 65536;
    constexpr size_t kPiece = 512;
    MemoryBlockDevice memory(kMiB, kDeviceBlockSize);
    const auto volume = VZDefragVolume::initWithBlockDevice("/dev/memory", memory.share());
    VZDefragTransferQueue queue(*volume);

    for (size_t offset = 0; offset < kMiB; offset += kPiece) {
        queue.write(_bytes.data() + offset, kPiece, offset);
    }
    ASSERT_TRUE(queue.finish(nullptr));

    std::vector<uint8_t> found(kMiB);
    memory.peek(found.data(), found.size(), 0);
    EXPECT_TRUE(std::equal(found.begin(), found.end(), _bytes.begin()));
}

TEST_F(VZDefragTransferQueueTest, AFailureIsTheFirstInTheOrderOfAskingAndIsToldOnce)
{
    std::vector<uint8_t> read(kMiB);
    _faults.fail(FaultyBlockDevice::Operation::kRead, 1, 5,
                 FaultyBlockDevice::Lasting::kFromThenOn);

    for (size_t part = 0; part < 64; ++part) {
        _queue.read(read.data() + part * 4096, 4096, part * 4096);
    }
    std::unique_ptr<VZDefragError> failure;
    EXPECT_FALSE(_queue.finish(&failure));

    ASSERT_NE(failure, nullptr);
    EXPECT_EQ(failure->description(), "Read failed with an error 5 at offset 0 and size 4096.");
    _faults.heal();
    EXPECT_TRUE(_queue.finish(nullptr));
}

TEST_F(VZDefragTransferQueueTest, WhatFollowsAFailureIsNotBegun)
{
    const std::vector<uint8_t> written(4096, 0xA5);
    _faults.stopAfterWrites(0);

    for (size_t part = 0; part < 1000; ++part) {
        _queue.write(written.data(), written.size(), part * 4096);
    }
    EXPECT_FALSE(_queue.finish(nullptr));

    EXPECT_EQ(_memory.writeCount(), 0u);
}

TEST_F(VZDefragTransferQueueTest, NothingAskedForIsDoneAtOnce)
{
    EXPECT_TRUE(_queue.finish(nullptr));
}
