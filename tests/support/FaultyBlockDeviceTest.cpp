#include "support/FaultyBlockDevice.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>

#include "support/MemoryBlockDevice.h"

namespace {

using Operation = FaultyBlockDevice::Operation;
using Lasting = FaultyBlockDevice::Lasting;

class FaultyBlockDeviceTest : public testing::Test {
protected:
    [[nodiscard]] int64_t read(PlatformBlockDevice& device)
    {
        return device.readAt(_buffer.data(), _buffer.size(), 0);
    }

    [[nodiscard]] int64_t write(PlatformBlockDevice& device, uint64_t offset = 0)
    {
        return device.writeAt(_buffer.data(), _buffer.size(), offset);
    }

    MemoryBlockDevice memory{1 << 16};
    FaultyBlockDevice faulty{memory.share()};

private:
    std::array<uint8_t, 2048> _buffer{};
};

TEST_F(FaultyBlockDeviceTest, OnlyTheOrdinalAskedForFails)
{
    faulty.fail(Operation::kRead, 2, EIO);

    EXPECT_EQ(read(faulty), 2048);
    EXPECT_FALSE(faulty.faultReached());
    EXPECT_EQ(read(faulty), -EIO);
    EXPECT_TRUE(faulty.faultReached());
    EXPECT_EQ(read(faulty), 2048);
    EXPECT_EQ(memory.readCount(), 2U);
}

TEST_F(FaultyBlockDeviceTest, ALastingFaultStrikesFromThenOn)
{
    faulty.fail(Operation::kWrite, 2, ENOSPC, Lasting::kFromThenOn);

    EXPECT_EQ(write(faulty), 2048);
    EXPECT_EQ(write(faulty), -ENOSPC);
    EXPECT_EQ(write(faulty), -ENOSPC);
    EXPECT_EQ(read(faulty), 2048);
}

TEST_F(FaultyBlockDeviceTest, OrdinalsCountFromTheMomentOfAsking)
{
    EXPECT_EQ(read(faulty), 2048);
    faulty.fail(Operation::kRead, 1, EINTR);

    EXPECT_EQ(read(faulty), -EINTR);
}

TEST_F(FaultyBlockDeviceTest, AShortTransferMovesNoMoreThanAskedFor)
{
    faulty.cutShort(Operation::kRead, 1, 512);
    faulty.cutShort(Operation::kWrite, 1, 1024);

    EXPECT_EQ(read(faulty), 512);
    EXPECT_EQ(write(faulty), 1024);
    EXPECT_EQ(memory.operations().back().nbyte, 1024U);
}

TEST_F(FaultyBlockDeviceTest, ASynchronizationFailsByItsErrorNumber)
{
    faulty.fail(Operation::kSynchronize, 1, EIO);

    EXPECT_EQ(faulty.synchronize(), EIO);
    EXPECT_EQ(faulty.synchronize(), 0);
    EXPECT_EQ(memory.synchronizeCount(), 1U);
}

TEST_F(FaultyBlockDeviceTest, NothingIsWrittenAfterTheStop)
{
    faulty.stopAfterWrites(2);

    EXPECT_EQ(write(faulty, 0), 2048);
    EXPECT_EQ(faulty.synchronize(), 0);
    EXPECT_EQ(write(faulty, 4096), 2048);
    EXPECT_EQ(faulty.synchronize(), EIO);
    EXPECT_EQ(write(faulty, 8192), -EIO);
    EXPECT_EQ(read(faulty), 2048);
    EXPECT_EQ(memory.writeCount(), 2U);
}

TEST_F(FaultyBlockDeviceTest, DuplicatesCountTogether)
{
    faulty.fail(Operation::kRead, 2, EIO);
    const std::unique_ptr<PlatformBlockDevice> second = faulty.duplicate();
    ASSERT_NE(second, nullptr);

    EXPECT_EQ(read(*second), 2048);
    EXPECT_EQ(read(faulty), -EIO);
}

TEST_F(FaultyBlockDeviceTest, AHealedDeviceWorksAgain)
{
    faulty.stopAfterWrites(0);
    EXPECT_EQ(write(faulty), -EIO);

    faulty.heal();

    EXPECT_EQ(write(faulty), 2048);
    EXPECT_FALSE(faulty.faultReached());
}

}  // namespace
