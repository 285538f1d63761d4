#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "HFSPlusVolumeTestFixture.h"

namespace {

using Faults = FaultyBlockDevice::Operation;
using Changes = std::vector<std::string>;

constexpr uint32_t kMovie = 20;
constexpr uint64_t kBlockSize = 4096;

/** A volume with a file of nine pieces, so that every special file has something to change. */
HFSPlusVolumeBuilder flushVolume()
{
    HFSPlusBuilderExtents extents;
    for (uint32_t piece = 0; piece < 9; ++piece) {
        extents.push_back({.startBlock = 200 + piece * 10, .blockCount = 1});
    }
    return plainVolume().attributesFile().file("/movie", kMovie).data(extents);
}

std::string write(uint64_t offset)
{
    return "write " + std::to_string(offset);
}

const std::string kSync = "sync";
const std::string kHeader = write(1024);

class HFSPlusVolumeFlushTest : public testing::Test {
protected:
    explicit HFSPlusVolumeFlushTest(HFSPlusVolumeBuilder builder = flushVolume())
        : opened(std::move(builder))
    {
        EXPECT_TRUE(opened) << opened.error();
        opened.beginChanges();
        alternate = write(opened.plan().volumeSize - 1024);
        bitmap = write(opened.plan().allocationExtents.at(0).startBlock * kBlockSize);
        catalogLeaf = nodePlace(opened.plan().catalogTree);
        overflowLeaf = nodePlace(opened.plan().extentsTree);
    }

    /** Where the first leaf of a tree is written. */
    static std::string nodePlace(const HFSPlusBuilderTreePlan& tree)
    {
        return write(tree.extents.at(0).startBlock * kBlockSize +
                     uint64_t{tree.firstLeafNode} * tree.nodeSize);
    }

    void writeData()
    {
        const std::vector<uint8_t> bytes(kBlockSize, 0x5A);
        EXPECT_TRUE(opened->write(bytes.data(), bytes.size(), 900 * kBlockSize, nullptr));
    }

    /** Changes the bitmap, and the header's free count with it. */
    void changeBitmap() { EXPECT_TRUE(opened->allocation().set(700, 1, nullptr)); }

    void changeCatalog()
    {
        HFSPlusHostExtentRecord extents = {};
        extents[0] = {.startBlock = 800, .blockCount = 8};
        EXPECT_TRUE(opened->catalog().updateForkExtents(extents, kMovie, 0, false, nullptr));
    }

    void changeOverflow()
    {
        HFSPlusExtentRecord extents = {};
        extents[0].startBlock = 810u;
        extents[0].blockCount = 1u;
        EXPECT_TRUE(opened->extents().updateExtentRecord(extents, 8, kMovie, 0, nullptr));
    }

    void expectWriteFailure()
    {
        std::unique_ptr<VZDefragError> error;
        EXPECT_FALSE(opened->flush(&error));
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->description(), "Write failure.");
    }

    HFSPlusOpenedVolume opened;
    std::string alternate;
    std::string bitmap;
    std::string catalogLeaf;
    std::string overflowLeaf;
};

}  // namespace

TEST_F(HFSPlusVolumeFlushTest, NothingChangedWritesNothingAndNeedsNoBarrier)
{
    EXPECT_FALSE(opened->needsFlush());
    EXPECT_TRUE(opened->flush(nullptr));
    EXPECT_TRUE(opened.operations().empty());
}

TEST_F(HFSPlusVolumeFlushTest, SpecialFilesAreDurableBeforeTheHeaderAndTheHeaderBeforeTheEnd)
{
    writeData();
    ASSERT_TRUE(opened->synchronize(nullptr));
    changeOverflow();
    changeCatalog();
    changeBitmap();
    EXPECT_TRUE(opened->needsFlush());

    ASSERT_TRUE(opened->flush(nullptr));

    EXPECT_EQ(changesOf(opened), (Changes{write(900 * kBlockSize), kSync, bitmap, catalogLeaf,
                                          overflowLeaf, kSync, kHeader, alternate, kSync}));
    EXPECT_FALSE(opened->needsFlush());
}

TEST_F(HFSPlusVolumeFlushTest, SecondFlushWithoutChangesDoesNothing)
{
    changeBitmap();
    ASSERT_TRUE(opened->flush(nullptr));
    opened.memory().clearOperations();

    ASSERT_TRUE(opened->flush(nullptr));
    EXPECT_TRUE(opened.operations().empty());
}

TEST_F(HFSPlusVolumeFlushTest, TwoFlushesAfterOneWriteRaiseTheWriteCountByOne)
{
    const uint64_t before = HeaderOnDevice::primary(opened).writeCount;
    writeData();

    ASSERT_TRUE(opened->flush(nullptr));
    EXPECT_EQ(HeaderOnDevice::primary(opened).writeCount, before + 1);
    ASSERT_TRUE(opened->flush(nullptr));
    EXPECT_EQ(HeaderOnDevice::primary(opened).writeCount, before + 1);
}

TEST_F(HFSPlusVolumeFlushTest, WriteCountRisesOnceHoweverManyFlushesFollow)
{
    const uint64_t before = HeaderOnDevice::primary(opened).writeCount;
    for (int round = 0; round < 3; ++round) {
        writeData();
        opened->updateFreeBlocks(-1);
        ASSERT_TRUE(opened->flush(nullptr));
    }
    EXPECT_EQ(HeaderOnDevice::primary(opened).writeCount, before + 1);
    EXPECT_EQ(HeaderOnDevice::alternate(opened).writeCount, before + 1);
}

TEST_F(HFSPlusVolumeFlushTest, FlushThatOnlyBumpsTheWriteCountLeavesTheAlternateHeaderAlone)
{
    writeData();
    ASSERT_TRUE(opened->flush(nullptr));

    EXPECT_EQ(changesOf(opened), (Changes{write(900 * kBlockSize), kSync, kHeader, kSync}));
}

TEST_F(HFSPlusVolumeFlushTest, FlushAfterOnlyAFreeBlocksUpdateWritesBothHeaders)
{
    const uint32_t freeBlocks = opened->hostVolumeHeader().freeBlocks;
    opened->updateFreeBlocks(5);

    ASSERT_TRUE(opened->flush(nullptr));

    EXPECT_EQ(changesOf(opened), (Changes{kHeader, alternate, kSync}));
    EXPECT_EQ(HeaderOnDevice::primary(opened).freeBlocks, freeBlocks + 5);
    EXPECT_EQ(HeaderOnDevice::alternate(opened).freeBlocks, freeBlocks + 5);
}

TEST_F(HFSPlusVolumeFlushTest, EverySpecialFileIsTriedWhenAnEarlierOneFails)
{
    changeOverflow();
    changeCatalog();
    changeBitmap();
    opened.faults().fail(Faults::kWrite, 1, EIO);

    expectWriteFailure();

    EXPECT_EQ(changesOf(opened), (Changes{catalogLeaf, overflowLeaf}));
}

TEST_F(HFSPlusVolumeFlushTest, HeaderIsNotWrittenOverASpecialFileThatFailed)
{
    for (uint64_t ordinal = 1; ordinal <= 3; ++ordinal) {
        HFSPlusVolumeFlushTest_HeaderIsNotWrittenOverASpecialFileThatFailed_Test fresh;
        fresh.changeOverflow();
        fresh.changeCatalog();
        fresh.changeBitmap();
        fresh.opened.faults().fail(Faults::kWrite, ordinal, EIO);

        fresh.expectWriteFailure();

        EXPECT_EQ(changesOf(fresh.opened).size(), 2u) << "write " << ordinal;
    }
}

TEST_F(HFSPlusVolumeFlushTest, AfterAFailedFlushNothingIsWrittenAnyMore)
{
    changeBitmap();
    opened.faults().fail(Faults::kWrite, 1, EIO);
    expectWriteFailure();
    opened.faults().heal();
    changeCatalog();
    changeBitmap();

    expectWriteFailure();
    std::unique_ptr<VZDefragError> error;
    const uint8_t byte = 0;
    EXPECT_FALSE(opened->write(&byte, 1, 900 * kBlockSize, &error));
    opened.close();

    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Write failure.");
    EXPECT_TRUE(changesOf(opened).empty());
    const HFSPlusCheckResult left = opened.check({.demandsUnmounted = false});
    EXPECT_TRUE(left.consistent) << left.description();
    EXPECT_EQ(left.attributes & kHFSVolumeUnmountedMask, 0u);
}

TEST_F(HFSPlusVolumeFlushTest, HeaderIsNotWrittenWhenTheBarrierBeforeItFails)
{
    changeBitmap();
    opened.faults().fail(Faults::kSynchronize, 1, EIO);

    expectWriteFailure();

    EXPECT_EQ(changesOf(opened), (Changes{bitmap}));
    expectWriteFailure();
    EXPECT_EQ(changesOf(opened), (Changes{bitmap}));
}

TEST_F(HFSPlusVolumeFlushTest, FailedLastBarrierIsAWriteFailure)
{
    changeBitmap();
    opened.faults().fail(Faults::kSynchronize, 2, EIO);

    expectWriteFailure();
    opened.memory().clearOperations();
    changeBitmap();
    expectWriteFailure();
    EXPECT_TRUE(changesOf(opened).empty());
}

TEST_F(HFSPlusVolumeFlushTest, FailedHeaderWriteIsLoggedAndIsNoPartOfTheVerdict)
{
    writeData();
    opened.faults().fail(Faults::kWrite, 1, EIO);
    testing::internal::CaptureStderr();

    EXPECT_TRUE(opened->flush(nullptr));

    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "]: WARNING: Write failed with an error 5 at offset 1024 and size 512.\n"),
              std::string::npos);
}

TEST_F(HFSPlusVolumeFlushTest, AlternateHeaderIsNotWrittenWhenThePrimaryFailed)
{
    opened->updateFreeBlocks(5);
    opened.faults().fail(Faults::kWrite, 1, EIO);

    EXPECT_TRUE(opened->flush(nullptr));

    EXPECT_EQ(changesOf(opened), Changes{kSync});
}

TEST_F(HFSPlusVolumeFlushTest, NothingIsWrittenWhileTheHeaderOnDiskNamesOldPlaces)
{
    // The header's changes did not reach the disk: blocks that it still counts as a special file's
    // must not be given to anybody.
    HFSPlusHostExtentRecord extents = {};
    extents[0] = {.startBlock = 900, .blockCount = 1};
    ASSERT_TRUE(opened->updateForkExtents(extents, kHFSStartupFileID, nullptr));
    opened.faults().fail(Faults::kWrite, 1, EIO);
    EXPECT_TRUE(opened->flush(nullptr));

    const uint8_t byte = 0;
    EXPECT_FALSE(opened->write(&byte, 1, 0, nullptr));
    expectWriteFailure();
    EXPECT_EQ(opened.memory().writeCount(), 0u);
}

TEST_F(HFSPlusVolumeFlushTest, FailedAlternateHeaderIsLoggedAndNothingIsWrittenAfterIt)
{
    opened->updateFreeBlocks(5);
    opened.faults().fail(Faults::kWrite, 2, EIO);
    testing::internal::CaptureStderr();

    EXPECT_TRUE(opened->flush(nullptr));

    EXPECT_NE(testing::internal::GetCapturedStderr().find("]: WARNING: Write failed"),
              std::string::npos);
    EXPECT_EQ(changesOf(opened), (Changes{kHeader, kSync}));
    const uint8_t byte = 0;
    EXPECT_FALSE(opened->write(&byte, 1, 0, nullptr));
    expectWriteFailure();
}

TEST_F(HFSPlusVolumeFlushTest, FlushEndsInOneOfTwoVerdictsWhicheverWriteFails)
{
    // Whatever fails, what is on disk before the header is written stays described by it.
    for (uint64_t ordinal = 1;; ++ordinal) {
        HFSPlusOpenedVolume fresh(flushVolume());
        ASSERT_TRUE(fresh) << fresh.error();
        ASSERT_TRUE(fresh->allocation().set(700, 1, nullptr));
        ASSERT_TRUE(fresh->allocation().clear(700, 1, nullptr));
        fresh->updateFreeBlocks(1);
        fresh->updateFreeBlocks(-1);
        fresh.faults().fail(Faults::kWrite, ordinal, EIO);

        std::unique_ptr<VZDefragError> error;
        const bool flushed = fresh->flush(&error);
        EXPECT_EQ(flushed, error == nullptr);
        fresh.close();
        const bool reached = fresh.faults().faultReached();

        // Where a write was lost, the mark may stay: somebody has to look at the volume.
        EXPECT_TRUE(
            fresh.check({.demandsUnmounted = !reached, .demandsAlternate = false}).consistent)
            << "write " << ordinal << ": " << fresh.check().description();
        if (!reached) {
            EXPECT_EQ(ordinal, 6u);  // mark, bitmap, header, alternate, the mark's end
            break;
        }
    }
}

TEST_F(HFSPlusVolumeFlushTest, WrappedVolumeGetsItsHeadersInsideTheWrapper)
{
    HFSPlusOpenedVolume wrapped(plainVolume().wrapper());
    ASSERT_TRUE(wrapped) << wrapped.error();
    wrapped.beginChanges();
    const uint64_t start = wrapped.plan().volumeOffset;
    wrapped->updateFreeBlocks(1);
    wrapped->updateFreeBlocks(-1);

    ASSERT_TRUE(wrapped->flush(nullptr));

    EXPECT_EQ(
        changesOf(wrapped),
        (Changes{write(start + 1024), write(start + wrapped.plan().volumeSize - 1024), kSync}));
    EXPECT_TRUE(wrapped.check().consistent) << wrapped.check().description();
}

TEST(HFSPlusVolumeFlush, ATreeWhoseHeaderStaysBehindEndsAllWriting)
{
    HFSPlusVolumeBuilder builder;
    HFSPlusBuilderExtents extents;
    for (uint32_t piece = 0; piece < 20; ++piece) {
        extents.push_back({500 + 3 * piece, 1});
    }
    builder.blockSize(4096).totalBlocks(1000).file("/f", 20).data(extents);
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    // With room for one node the header node is gone from the cache and has to be read again.
    volume->extents().setNodeCacheSize(volume->extents().nodeSize());
    ASSERT_TRUE(volume->extents().deleteExtentRecord(16, 20, 0, nullptr));
    volume.beginChanges();
    volume.faults().fail(FaultyBlockDevice::Operation::kRead, 1, 5,
                         FaultyBlockDevice::Lasting::kFromThenOn);

    std::unique_ptr<VZDefragError> failure;
    EXPECT_FALSE(volume->flush(&failure));

    EXPECT_EQ(failure->description(), "Write failure.");
    for (const MemoryBlockDevice::Operation& operation : volume.operations()) {
        EXPECT_FALSE(operation.kind == MemoryBlockDevice::Operation::Kind::kWrite &&
                     operation.offset == 1024);
    }
}
