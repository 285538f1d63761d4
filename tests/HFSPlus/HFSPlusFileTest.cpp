#include "HFSPlus/HFSPlusFile.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <numeric>
#include <vector>

#include "VZDefragTransferQueue.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/HFSPlusVolumeBuilderContents.h"
#include "support/NothrowAllocations.h"

namespace {

using Operation = MemoryBlockDevice::Operation;
constexpr uint32_t kBlockSize = 4096;
constexpr uint32_t kMovie = 20;

/** A volume with one file in pieces: nine blocks, the last one only half in use. */
class HFSPlusFileTest : public testing::Test {
protected:
    static constexpr uint64_t kSize = 8 * kBlockSize + 2000;

    HFSPlusFileTest()
        : opened(HFSPlusVolumeBuilder{}
                     .blockSize(kBlockSize)
                     .totalBlocks(1000)
                     .file("/movie", kMovie)
                     .data({{100, 2}, {200, 1}, {300, 6}})
                     .dataSize(kSize)
                     .file("/scattered", 21)
                     .data(scatteredExtents()))
    {
        EXPECT_TRUE(opened) << opened.error();
        HFSPlusHostForkData forkData = {};
        forkData.logicalSize = kSize;
        forkData.totalBlocks = 9;
        forkData.extents[0] = {.startBlock = 100, .blockCount = 2};
        forkData.extents[1] = {.startBlock = 200, .blockCount = 1};
        forkData.extents[2] = {.startBlock = 300, .blockCount = 6};
        opened->cacheHostForkData(forkData, kMovie);
    }

    /** Nine pieces: with their overflow record, the overflow file is not empty. */
    static HFSPlusBuilderExtents scatteredExtents()
    {
        HFSPlusBuilderExtents extents;
        for (uint32_t piece = 0; piece < 9; ++piece) {
            extents.push_back({.startBlock = 600 + piece * 2, .blockCount = 1});
        }
        return extents;
    }

    /** What the builder put into @p count blocks from fork block @p block on. */
    static std::vector<uint8_t> contents(uint64_t block, uint64_t count)
    {
        std::vector<uint8_t> bytes(count * kBlockSize);
        fillForkContents(bytes, kMovie, 0, block * kBlockSize, kBlockSize);
        return bytes;
    }

    static Operation readOf(uint64_t block, uint64_t count)
    {
        return {Operation::Kind::kRead, block * kBlockSize, count * kBlockSize};
    }

    HFSPlusOpenedVolume opened;
    std::unique_ptr<VZDefragError> error;
};

/** A file whose runs all end at byte 1000, inside a block, although it goes on. */
class FileWithBrokenRuns : public HFSPlusFile {
public:
    using HFSPlusFile::HFSPlusFile;
    uint64_t translateOffset(uint64_t& offset, VZDefragErrorSlot) override
    {
        offset = uint64_t{100} * kBlockSize;
        return 1000;
    }
};

}  // namespace

TEST_F(HFSPlusFileTest, AlignedReadAcrossThreeExtentsMakesThreeDeviceReads)
{
    HFSPlusFile file(*opened, kMovie);
    std::vector<uint8_t> bytes(5 * kBlockSize);

    ASSERT_TRUE(file.read(bytes.data(), bytes.size(), 0, &error));

    EXPECT_EQ(bytes, contents(0, 5));
    EXPECT_EQ(opened.operations(),
              (std::vector<Operation>{readOf(100, 2), readOf(200, 1), readOf(300, 2)}));
}

TEST_F(HFSPlusFileTest, UnalignedReadInsideABlockReadsThatBlockAndCopiesItsPart)
{
    HFSPlusFile file(*opened, kMovie);
    std::array<uint8_t, 12> bytes = {};
    bytes.fill(0xEE);

    ASSERT_TRUE(file.read(bytes.data() + 1, 10, kBlockSize + 100, &error));

    const std::vector<uint8_t> block = contents(1, 1);
    EXPECT_TRUE(std::equal(bytes.begin() + 1, bytes.begin() + 11, block.begin() + 100));
    EXPECT_EQ(bytes.front(), 0xEE);
    EXPECT_EQ(bytes.back(), 0xEE);
    EXPECT_EQ(opened.operations(), (std::vector<Operation>{readOf(101, 1)}));
}

TEST_F(HFSPlusFileTest, UnalignedReadAcrossExtentsReadsWholeBlocksOfEach)
{
    HFSPlusFile file(*opened, kMovie);
    std::vector<uint8_t> bytes(2 * kBlockSize);

    ASSERT_TRUE(file.read(bytes.data(), bytes.size(), kBlockSize + 16, &error));

    const std::vector<uint8_t> blocks = contents(1, 3);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), blocks.begin() + 16));
    EXPECT_EQ(opened.operations(),
              (std::vector<Operation>{readOf(101, 1), readOf(200, 1), readOf(300, 1)}));
}

TEST_F(HFSPlusFileTest, LastBytesOfAForkThatEndsInsideABlockAreRead)
{
    HFSPlusFile file(*opened, kMovie);
    std::vector<uint8_t> bytes(2000);

    ASSERT_TRUE(file.read(bytes.data(), bytes.size(), 8 * kBlockSize, &error));

    const std::vector<uint8_t> block = contents(8, 1);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), block.begin()));
    EXPECT_EQ(opened.operations(), (std::vector<Operation>{readOf(305, 1)}));
}

TEST_F(HFSPlusFileTest, WritingNothingAtTheStartSucceedsWithoutIO)
{
    HFSPlusFile file(*opened, kMovie);

    EXPECT_TRUE(file.write(nullptr, 0, 0, &error));
    EXPECT_TRUE(opened.operations().empty());
    EXPECT_FALSE(opened->needsFlush());
}

TEST_F(HFSPlusFileTest, WritingNothingAtTheLogicalEndFails)
{
    HFSPlusFile file(*opened, kMovie);

    EXPECT_FALSE(file.write(nullptr, 0, kSize, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(),
              "Write of file ID 20 at offset 34768 and size 0 was out of range.");
}

TEST_F(HFSPlusFileTest, ReadingNothingAtTheLogicalEndFails)
{
    HFSPlusFile file(*opened, kMovie);

    EXPECT_FALSE(file.read(nullptr, 0, kSize, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(),
              "Read of file ID 20 at offset 34768 and size 0 was out of range.");
}

TEST_F(HFSPlusFileTest, ReadOneByteBeyondTheEndFailsWithTheWholeRequest)
{
    HFSPlusFile file(*opened, kMovie);
    std::vector<uint8_t> bytes(kSize + 1);

    EXPECT_FALSE(file.read(bytes.data(), kSize, 1, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(),
              "Read of file ID 20 at offset 1 and size 34768 was out of range.");
    EXPECT_TRUE(opened.operations().empty());
}

TEST_F(HFSPlusFileTest, SumOfOffsetAndCountDoesNotWrap)
{
    HFSPlusFile file(*opened, kMovie);
    uint8_t byte = 0;

    EXPECT_FALSE(file.read(&byte, ~uint64_t{0}, 10, &error));
    EXPECT_FALSE(file.write(&byte, ~uint64_t{0}, 10, nullptr));
    EXPECT_TRUE(opened.operations().empty());
}

TEST_F(HFSPlusFileTest, WriteAcrossExtentsReachesEachAndNothingElse)
{
    opened.beginChanges();
    HFSPlusFile file(*opened, kMovie);
    std::vector<uint8_t> bytes(2 * kBlockSize);
    std::iota(bytes.begin(), bytes.end(), uint8_t{3});
    std::vector<uint8_t> expected = contents(0, 9);
    std::copy(bytes.begin(), bytes.end(), expected.begin() + kBlockSize);

    ASSERT_TRUE(file.write(bytes.data(), bytes.size(), kBlockSize, &error));

    EXPECT_EQ(opened.operations(),
              (std::vector<Operation>{{Operation::Kind::kWrite, 101 * kBlockSize, kBlockSize},
                                      {Operation::Kind::kWrite, 200 * kBlockSize, kBlockSize}}));
    std::vector<uint8_t> held(kSize);
    ASSERT_TRUE(file.read(held.data(), held.size(), 0, &error));
    expected.resize(kSize);
    EXPECT_EQ(held, expected);
}

TEST_F(HFSPlusFileTest, FollowsTheForkDataAsItChanges)
{
    HFSPlusFile file(*opened, kMovie);
    HFSPlusHostForkData* const forkData = opened->hostForkData(kMovie);
    forkData->extents[0] = {.startBlock = 300, .blockCount = 2};
    forkData->logicalSize = 2 * kBlockSize;
    std::vector<uint8_t> bytes(2 * kBlockSize);

    ASSERT_TRUE(file.read(bytes.data(), bytes.size(), 0, &error));

    EXPECT_EQ(file.logicalSize(), 2 * kBlockSize);
    EXPECT_EQ(bytes, contents(3, 2));
}

TEST_F(HFSPlusFileTest, ErrorOfTheTranslationPassesThrough)
{
    opened->hostForkData(kMovie)->extents[1] = {};
    opened->hostForkData(kMovie)->extents[2] = {};
    HFSPlusFile file(*opened, kMovie);
    std::vector<uint8_t> bytes(5 * kBlockSize);

    EXPECT_FALSE(file.read(bytes.data(), bytes.size(), 0, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Offset 8192 is out of range for file ID 20.");
}

TEST_F(HFSPlusFileTest, ErrorOfTheDevicePassesThrough)
{
    HFSPlusFile file(*opened, kMovie);
    std::vector<uint8_t> bytes(kBlockSize);
    opened.faults().fail(FaultyBlockDevice::Operation::kRead, 1, EIO);

    EXPECT_FALSE(file.read(bytes.data(), bytes.size(), 0, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Read failed with an error 5 at offset 409600 and size 4096.");
}

TEST_F(HFSPlusFileTest, ReadWithoutMemoryForItsBufferFails)
{
    HFSPlusFile file(*opened, kMovie);
    uint8_t byte = 0;
    NothrowAllocations allocations;
    allocations.failAfter(0);

    EXPECT_FALSE(file.read(&byte, 1, 1, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Out of memory.");
}

TEST_F(HFSPlusFileTest, PieceBehindARunThatEndsInsideABlockIsAnInternalError)
{
    FileWithBrokenRuns file(*opened, kMovie);
    std::vector<uint8_t> bytes(2 * kBlockSize);

    EXPECT_FALSE(file.read(bytes.data(), bytes.size() - 1, 0, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Internal error: HFSPlus/HFSPlusFile.cpp:97");
}

TEST_F(HFSPlusFileTest, WriteThatFailedOnItsWayEndsAllWriting)
{
    opened.beginChanges();
    HFSPlusFile file(*opened, kMovie);
    const std::vector<uint8_t> bytes(kBlockSize);
    opened.faults().fail(FaultyBlockDevice::Operation::kWrite, 1, EIO);

    EXPECT_FALSE(file.write(bytes.data(), bytes.size(), 0, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Write failed with an error 5 at offset 409600 and size 4096.");

    std::unique_ptr<VZDefragError> later;
    EXPECT_FALSE(file.write(bytes.data(), bytes.size(), 0, &later));
    ASSERT_NE(later, nullptr);
    EXPECT_EQ(later->description(), "Write failure.");
    EXPECT_FALSE(opened->flush(nullptr));
    EXPECT_EQ(opened.memory().writeCount(), 0u);
}

TEST_F(HFSPlusFileTest, OpeningAFileThatTheVolumeDoesNotKnowAborts)
{
    EXPECT_DEATH(HFSPlusFile(*opened, 22), "file ID 22 has no fork data in the volume");
}

TEST_F(HFSPlusFileTest, AReadThatIsBegunTakesTheBlocksOfEachRunToTheirPlaces)
{
    HFSPlusFile file(*opened, kMovie);
    std::vector<uint8_t> bytes(7 * kBlockSize);

    const std::unique_ptr<VZDefragTransferQueue> queue = file.makeTransferQueue();
    ASSERT_TRUE(file.beginRead(*queue, bytes.data(), bytes.size(), kBlockSize));
    ASSERT_TRUE(queue->finish(&error));

    EXPECT_EQ(bytes, contents(1, 7));
}

TEST_F(HFSPlusFileTest, OnlyReadsOfWholeBlocksInsideTheFileCanBeBegun)
{
    HFSPlusFile file(*opened, kMovie);
    std::vector<uint8_t> bytes(9 * kBlockSize);
    const std::unique_ptr<VZDefragTransferQueue> queue = file.makeTransferQueue();

    EXPECT_FALSE(file.beginRead(*queue, bytes.data(), kBlockSize, 100));
    EXPECT_FALSE(file.beginRead(*queue, bytes.data(), 100, 0));
    EXPECT_FALSE(file.beginRead(*queue, bytes.data(), kBlockSize, 9 * kBlockSize));
    EXPECT_FALSE(file.beginRead(*queue, bytes.data(), 9 * kBlockSize, 0));

    EXPECT_TRUE(queue->finish(&error));
    EXPECT_TRUE(opened.operations().empty());
}
