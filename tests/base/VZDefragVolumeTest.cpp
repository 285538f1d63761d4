#include "VZDefragVolume.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "base/BoastfulDevice.h"
#include "base/ManualServices.h"
#include "support/FaultyBlockDevice.h"
#include "support/MemoryBlockDevice.h"

namespace {

using Operation = MemoryBlockDevice::Operation;
using Operations = std::vector<Operation>;
using enum Operation::Kind;

constexpr size_t kPiece = 1048576;

uint8_t patternAt(uint64_t offset)
{
    return static_cast<uint8_t>(offset ^ (offset >> 8) ^ (offset >> 16));
}

/** A volume on a device in memory with faults. */
class VZDefragVolumeTest : public testing::Test {
protected:
    void open(uint64_t size, uint32_t blockSize = 512)
    {
        auto memory = std::make_unique<MemoryBlockDevice>(size, blockSize);
        std::vector<uint8_t> bytes(size);
        for (uint64_t offset = 0; offset < size; ++offset) {
            bytes[offset] = patternAt(offset);
        }
        memory->poke(bytes.data(), bytes.size(), 0);
        _device = memory->share();
        auto faulty = std::make_unique<FaultyBlockDevice>(std::move(memory));
        _faults = faulty->share();
        _volume = VZDefragVolume::initWithBlockDevice("/dev/test", std::move(faulty));
        ASSERT_NE(_volume, nullptr);
    }

    bool read(size_t nbyte, uint64_t offset)
    {
        _error.reset();
        _buffer.assign(nbyte, 0xEE);
        return _volume->read(_buffer.data(), nbyte, offset, &_error);
    }

    bool write(size_t nbyte, uint64_t offset)
    {
        _error.reset();
        _buffer.assign(nbyte, 'w');
        return _volume->write(_buffer.data(), nbyte, offset, &_error);
    }

    /** Whether what was read is what the device was filled with. */
    [[nodiscard]] bool bufferHasPatternFrom(uint64_t offset) const
    {
        for (size_t index = 0; index < _buffer.size(); ++index) {
            if (_buffer[index] != patternAt(offset + index)) {
                return false;
            }
        }
        return true;
    }

    [[nodiscard]] std::string reason() const
    {
        return _error != nullptr ? _error->description() : "no error";
    }

    std::unique_ptr<MemoryBlockDevice> _device;
    std::unique_ptr<FaultyBlockDevice> _faults;
    std::unique_ptr<VZDefragVolume> _volume;
    std::unique_ptr<VZDefragError> _error;
    std::vector<uint8_t> _buffer;
};

TEST_F(VZDefragVolumeTest, AReadOfOneByteAtOffsetOneReadsTheWholeBlockAndReturnsByteOne)
{
    open(4096);

    ASSERT_TRUE(read(1, 1));

    EXPECT_EQ(_buffer[0], patternAt(1));
    EXPECT_EQ(_device->operations(), (Operations{{kRead, 0, 512}}));
}

TEST_F(VZDefragVolumeTest, AReadOfThreeMiBAndTenBytesIsDoneInFourPiecesTheLastOfTenBytes)
{
    open(4 * kPiece);

    ASSERT_TRUE(read(3 * kPiece + 10, 0));

    EXPECT_TRUE(bufferHasPatternFrom(0));
    EXPECT_EQ(_device->operations(), (Operations{{kRead, 0, kPiece},
                                                 {kRead, kPiece, kPiece},
                                                 {kRead, 2 * kPiece, kPiece},
                                                 {kRead, 3 * kPiece, 512}}));
}

TEST_F(VZDefragVolumeTest, AnUnalignedReadReadsTheSpanOfEachPieceRoundedOutward)
{
    open(3 * kPiece, 4096);

    ASSERT_TRUE(read(kPiece + 5000, 100));

    EXPECT_TRUE(bufferHasPatternFrom(100));
    EXPECT_EQ(_device->operations(),
              (Operations{{kRead, 0, kPiece + 4096}, {kRead, kPiece, 8192}}));
}

TEST_F(VZDefragVolumeTest, AReadEndingExactlyAtTheDevicesSizeSucceeds)
{
    open(10 * 512);

    EXPECT_TRUE(read(700, 10 * 512 - 700));
    EXPECT_TRUE(bufferHasPatternFrom(10 * 512 - 700));
    EXPECT_TRUE(write(700, 10 * 512 - 700)) << reason();
}

TEST_F(VZDefragVolumeTest, OneByteBeyondTheEndIsOutOfRangeWithTheWholeRequestInTheMessage)
{
    open(3 * kPiece);

    EXPECT_FALSE(read(3 * kPiece, 1));
    EXPECT_EQ(reason(), "Out of range read failed at offset 1 and size 3145728.");
    EXPECT_FALSE(write(3 * kPiece, 1));
    EXPECT_EQ(reason(), "Out of range write failed at offset 1 and size 3145728.");
    EXPECT_EQ(_device->operations(), Operations{}) << "nothing was tried";
}

TEST_F(VZDefragVolumeTest, ARangeThatOverflowsIsOutOfRange)
{
    open(4096);

    EXPECT_FALSE(read(2, UINT64_MAX));
    EXPECT_EQ(reason(), "Out of range read failed at offset 18446744073709551615 and size 2.");
    EXPECT_FALSE(write(4096, UINT64_MAX - 4095));
    EXPECT_EQ(reason(), "Out of range write failed at offset 18446744073709547520 and size 4096.");
    EXPECT_FALSE(_volume->read(_buffer.data(), SIZE_MAX, 1, &_error));
}

TEST_F(VZDefragVolumeTest, ACountOfZeroSucceedsAtOnceUpToTheEnd)
{
    open(4096);

    EXPECT_TRUE(read(0, 1));
    EXPECT_TRUE(read(0, 4096));
    EXPECT_TRUE(write(0, 4096));
    EXPECT_FALSE(read(0, 4097));
    EXPECT_EQ(reason(), "Out of range read failed at offset 4097 and size 0.");
    EXPECT_EQ(_device->operations(), Operations{});
}

TEST_F(VZDefragVolumeTest, AnAlignedWriteGoesStraightToTheDevice)
{
    open(3 * kPiece);

    ASSERT_TRUE(write(kPiece + 512, 512));

    EXPECT_EQ(_device->operations(),
              (Operations{{kWrite, 512, kPiece}, {kWrite, kPiece + 512, 512}}));
}

TEST_F(VZDefragVolumeTest, AWriteToAnUnalignedRangeLeavesTheBytesOfTheSurroundingBlocks)
{
    open(4096);

    ASSERT_TRUE(write(600, 500));

    EXPECT_EQ(_device->operations(), (Operations{{kRead, 0, 1536}, {kWrite, 0, 1536}}));
    ASSERT_TRUE(read(4096, 0));
    for (size_t offset = 0; offset < 4096; ++offset) {
        ASSERT_EQ(_buffer[offset], offset >= 500 && offset < 1100 ? 'w' : patternAt(offset));
    }
}

TEST_F(VZDefragVolumeTest, AFailedReadNamesTheNumberAndThePiece)
{
    open(4 * kPiece);
    _faults->fail(FaultyBlockDevice::Operation::kRead, 3, EIO);

    EXPECT_FALSE(read(3 * kPiece + 10, 0));

    EXPECT_EQ(reason(), "Read failed with an error 5 at offset 2097152 and size 1048576.");
    EXPECT_EQ(_device->readCount(), 2U) << "nothing follows the failed piece";
}

TEST_F(VZDefragVolumeTest, WhicheverPieceFailsItsOffsetAndSizeAreInTheMessage)
{
    open(3 * kPiece + 512);
    for (uint64_t piece = 1; piece <= 4; ++piece) {
        const std::string place = " at offset " + std::to_string((piece - 1) * kPiece) +
                                  " and size " + (piece <= 3 ? "1048576." : "512.");
        _faults->heal();
        _faults->fail(FaultyBlockDevice::Operation::kRead, piece, ENXIO);
        EXPECT_FALSE(read(3 * kPiece + 512, 0));
        EXPECT_EQ(reason(), "Read failed with an error 6" + place);

        _faults->heal();
        _faults->fail(FaultyBlockDevice::Operation::kWrite, piece, ENOSPC);
        EXPECT_FALSE(write(3 * kPiece + 512, 0));
        EXPECT_EQ(reason(), "Write failed with an error 28" + place);
    }
}

TEST_F(VZDefragVolumeTest, AnAlignedReadThatComesShortHasNoNumber)
{
    open(4096);
    _faults->cutShort(FaultyBlockDevice::Operation::kRead, 1, 512);

    EXPECT_FALSE(read(1024, 512));

    EXPECT_EQ(reason(), "Read failed at offset 512 and size 1024.");
}

TEST_F(VZDefragVolumeTest, AnUnalignedReadThatComesShortFailsWithERANGE)
{
    open(4096);
    _faults->cutShort(FaultyBlockDevice::Operation::kRead, 1, 512);

    EXPECT_FALSE(read(600, 500));

    EXPECT_EQ(reason(), "Read failed with an error " + std::to_string(ERANGE) +
                            " at offset 500 and size 600.");
}

TEST_F(VZDefragVolumeTest, AnAlignedWriteThatComesShortHasNoNumber)
{
    open(4096);
    _faults->cutShort(FaultyBlockDevice::Operation::kWrite, 1, 512);

    EXPECT_FALSE(write(1024, 512));

    EXPECT_EQ(reason(), "Write failed at offset 512 and size 1024.");
}

TEST_F(VZDefragVolumeTest, AnUnalignedWriteThatComesShortFailsWithERANGE)
{
    open(4096);
    _faults->cutShort(FaultyBlockDevice::Operation::kWrite, 1, 512);

    EXPECT_FALSE(write(600, 500));

    EXPECT_EQ(reason(), "Write failed with an error " + std::to_string(ERANGE) +
                            " at offset 500 and size 600.");
}

TEST_F(VZDefragVolumeTest, AnUnalignedWriteWhoseReadComesShortWritesNothingAndHasNoNumber)
{
    open(4096);
    _faults->cutShort(FaultyBlockDevice::Operation::kRead, 1, 512);

    EXPECT_FALSE(write(600, 500));

    EXPECT_EQ(reason(), "Write failed at offset 500 and size 600.");
    EXPECT_EQ(_device->writeCount(), 0U);
}

TEST_F(VZDefragVolumeTest, AnUnalignedWriteWhoseReadOrWriteFailsGivesThatNumber)
{
    open(4096);

    _faults->fail(FaultyBlockDevice::Operation::kRead, 1, EIO);
    EXPECT_FALSE(write(600, 500));
    EXPECT_EQ(reason(), "Write failed with an error 5 at offset 500 and size 600.");
    EXPECT_EQ(_device->writeCount(), 0U);

    _faults->fail(FaultyBlockDevice::Operation::kWrite, 1, ENOSPC);
    EXPECT_FALSE(write(600, 500));
    EXPECT_EQ(reason(), "Write failed with an error 28 at offset 500 and size 600.");
}

TEST_F(VZDefragVolumeTest, AnInterruptedAttemptIsRepeated)
{
    open(4096);
    for (uint64_t attempt = 1; attempt <= 5; ++attempt) {
        _faults->fail(FaultyBlockDevice::Operation::kRead, attempt, EINTR);
    }
    EXPECT_TRUE(read(600, 500)) << reason();
    EXPECT_TRUE(bufferHasPatternFrom(500));

    _faults->heal();
    _faults->fail(FaultyBlockDevice::Operation::kRead, 1, EINTR);
    _faults->fail(FaultyBlockDevice::Operation::kWrite, 1, EINTR);
    EXPECT_TRUE(write(600, 500)) << reason();
    EXPECT_TRUE(_faults->faultReached());
}

TEST_F(VZDefragVolumeTest, WhatIsInterruptedWithoutEndHasFailed)
{
    using Request = FaultyBlockDevice::Operation;
    open(4096);
    for (const Request request : {Request::kRead, Request::kWrite, Request::kSynchronize}) {
        _faults->fail(request, 1, EINTR, FaultyBlockDevice::Lasting::kFromThenOn);
    }

    EXPECT_FALSE(read(512, 0));
    EXPECT_EQ(reason(), "Read failed with an error 4 at offset 0 and size 512.");
    EXPECT_FALSE(write(512, 0));
    EXPECT_EQ(reason(), "Write failed with an error 4 at offset 0 and size 512.");
    EXPECT_FALSE(_volume->synchronize(nullptr));
}

TEST_F(VZDefragVolumeTest, AnInterruptionOfLongAgoRepeatsNothing)
{
    open(4096);

    errno = EINTR;
    EXPECT_TRUE(read(512, 0));
    errno = EINTR;
    EXPECT_TRUE(write(512, 0));
    EXPECT_EQ(_device->operations(), (Operations{{kRead, 0, 512}, {kWrite, 0, 512}}));

    _faults->cutShort(FaultyBlockDevice::Operation::kRead, 1, 0,
                      FaultyBlockDevice::Lasting::kFromThenOn);
    errno = EINTR;
    EXPECT_FALSE(read(512, 0)) << "a short count is no interruption either";
    EXPECT_EQ(reason(), "Read failed at offset 0 and size 512.");
}

TEST_F(VZDefragVolumeTest, MessagesAreTranslatedBeforeTheyAreFilledIn)
{
    ManualServices services;
    services.translations["Out of range read failed at offset %llu and size %lu."] =
        "Lesefehler (%llu+%lu)";
    open(4096);

    EXPECT_FALSE(read(1, 4096));

    EXPECT_EQ(reason(), "Lesefehler (4096+1)");
}

TEST_F(VZDefragVolumeTest, WritingToAVolumeThatIsNotWritableAborts)
{
    auto device = std::make_unique<MemoryBlockDevice>(4096);
    device->setWritable(false);
    const auto volume = VZDefragVolume::initWithBlockDevice("/dev/test", std::move(device));

    EXPECT_FALSE(volume->isWritable());
    EXPECT_DEATH(std::ignore = volume->write("w", 1, 0, nullptr), "PANIC: .*not writable");
}

TEST_F(VZDefragVolumeTest, ADeviceThatTransfersMoreThanItWasAskedForAborts)
{
    const auto volume =
        VZDefragVolume::initWithBlockDevice("/dev/test", std::make_unique<BoastfulDevice>());
    char block[512] = {};

    EXPECT_DEATH(std::ignore = volume->read(block, 512, 0, nullptr), "PANIC: ");
    EXPECT_DEATH(std::ignore = volume->write(block, 512, 0, nullptr), "PANIC: ");
}

TEST_F(VZDefragVolumeTest, ADeviceWithoutABlockSizeOrWithMoreThanFitsIsRefused)
{
    auto blockless = std::make_unique<BoastfulDevice>();
    blockless->bytesPerBlock = 0;
    EXPECT_EQ(VZDefragVolume::initWithBlockDevice("/dev/test", std::move(blockless)), nullptr);

    auto endless = std::make_unique<BoastfulDevice>();
    endless->blocks = UINT64_MAX / 256;
    EXPECT_EQ(VZDefragVolume::initWithBlockDevice("/dev/test", std::move(endless)), nullptr);
}

TEST_F(VZDefragVolumeTest, SynchronizingWithoutAWriteSinceTheLastTimeDoesNothing)
{
    open(4096);

    EXPECT_TRUE(_volume->synchronize(&_error));
    EXPECT_TRUE(read(512, 0));
    EXPECT_TRUE(_volume->synchronize(&_error));
    EXPECT_EQ(_device->synchronizeCount(), 0U);

    ASSERT_TRUE(write(512, 0));
    EXPECT_TRUE(_volume->synchronize(&_error));
    EXPECT_TRUE(_volume->synchronize(&_error));
    EXPECT_EQ(_device->synchronizeCount(), 1U);

    ASSERT_TRUE(write(1, 1));
    EXPECT_TRUE(_volume->synchronize(&_error));
    EXPECT_EQ(_device->synchronizeCount(), 2U);
}

TEST_F(VZDefragVolumeTest, AFailedWriteIsSynchronizedAsWell)
{
    open(4 * kPiece);
    _faults->fail(FaultyBlockDevice::Operation::kWrite, 2, EIO);
    EXPECT_FALSE(write(2 * kPiece, 0));

    EXPECT_TRUE(_volume->synchronize(nullptr));

    EXPECT_EQ(_device->synchronizeCount(), 1U) << "its first piece is on its way";
}

TEST_F(VZDefragVolumeTest, ASynchronizationThatFailedFailsForEver)
{
    open(4096);
    _faults->fail(FaultyBlockDevice::Operation::kSynchronize, 1, EIO);
    ASSERT_TRUE(write(512, 0));

    EXPECT_FALSE(_volume->synchronize(&_error));
    EXPECT_EQ(reason(), "Write failure.");
    EXPECT_FALSE(_volume->synchronize(nullptr));
    ASSERT_TRUE(write(512, 0));
    EXPECT_FALSE(_volume->synchronize(&_error));
    EXPECT_EQ(_device->synchronizeCount(), 0U) << "no later one pretends that all is well";
}

TEST_F(VZDefragVolumeTest, AnInterruptedSynchronizationIsRepeated)
{
    open(4096);
    _faults->fail(FaultyBlockDevice::Operation::kSynchronize, 1, EINTR);
    ASSERT_TRUE(write(512, 0));

    EXPECT_TRUE(_volume->synchronize(&_error)) << reason();
    EXPECT_EQ(_device->synchronizeCount(), 1U);
}

TEST_F(VZDefragVolumeTest, TheGateIsForwarded)
{
    open(4096);
    _volume->closeGate();
    bool entered = false;
    std::thread other([&] {
        _volume->closeGate();
        entered = true;
        _volume->openGate();
    });
    while (_volume->gate().waiterCount() == 0) {
        std::this_thread::yield();
    }

    EXPECT_FALSE(entered);
    _volume->yieldGate();
    EXPECT_TRUE(entered);
    _volume->openGate();
    other.join();
}

TEST_F(VZDefragVolumeTest, AnyRangesReadAndWriteLikeAPlainArray)
{
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (const uint32_t blockSize : {512U, 2048U, 4096U}) {
        open(40 * 4096, blockSize);
        std::vector<uint8_t> model(40 * 4096);
        _device->peek(model.data(), model.size(), 0);
        for (int step = 0; step < 500; ++step) {
            const size_t offset = random() % model.size();
            const size_t nbyte = random() % std::min<size_t>(model.size() - offset + 1, 10000);
            const auto place = model.begin() + static_cast<ptrdiff_t>(offset);
            std::vector<uint8_t> bytes(nbyte, static_cast<uint8_t>(random()));
            if (random() % 2 == 0) {
                ASSERT_TRUE(_volume->write(bytes.data(), nbyte, offset, nullptr));
                std::ranges::copy(bytes, place);
            } else {
                ASSERT_TRUE(_volume->read(bytes.data(), nbyte, offset, nullptr));
                ASSERT_TRUE(std::ranges::equal(bytes, std::span(place, nbyte)));
            }
        }
        std::vector<uint8_t> onDevice(model.size());
        _device->peek(onDevice.data(), onDevice.size(), 0);
        EXPECT_EQ(onDevice, model);
    }
}

}  // namespace
