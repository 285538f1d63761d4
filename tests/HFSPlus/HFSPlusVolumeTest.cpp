#include "HFSPlus/HFSPlusVolume.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusFileForkSet.h"
#include "HFSPlusVolumeTestFixture.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"

namespace {

constexpr uint32_t kMovie = 20;

HFSPlusHostForkData forkDataOf(uint64_t logicalSize, const HFSPlusBuilderExtents& extents)
{
    HFSPlusHostForkData forkData = {};
    forkData.logicalSize = logicalSize;
    for (size_t index = 0; index < extents.size(); ++index) {
        forkData.totalBlocks += extents[index].blockCount;
        if (index < forkData.extents.size()) {
            forkData.extents[index] = {.startBlock = extents[index].startBlock,
                                       .blockCount = extents[index].blockCount};
        }
    }
    return forkData;
}

/** @p count pieces of two blocks each. */
HFSPlusBuilderExtents pieces(uint32_t count)
{
    HFSPlusBuilderExtents extents;
    for (uint32_t piece = 0; piece < count; ++piece) {
        extents.push_back({.startBlock = 100 + piece * 10, .blockCount = 2});
    }
    return extents;
}

}  // namespace

TEST(HFSPlusVolume, SpecialFilesAreThoseOfTheHeader)
{
    HFSPlusOpenedVolume opened(plainVolume());
    ASSERT_TRUE(opened) << opened.error();
    std::vector<uint32_t> special;
    for (uint32_t fileID = 0; fileID < 20; ++fileID) {
        if (opened->isSpecialFile(fileID)) {
            special.push_back(fileID);
        }
    }
    EXPECT_EQ(special, (std::vector<uint32_t>{3, 4, 6, 7, 8}));
}

TEST(HFSPlusVolume, BadBlocksAreNotSpecialAndTheirForkDataIsLookedUpInTheCache)
{
    HFSPlusOpenedVolume opened(plainVolume());
    ASSERT_TRUE(opened) << opened.error();

    EXPECT_FALSE(opened->isSpecialFile(kHFSBadBlockFileID));
    EXPECT_EQ(opened->hostForkData(kHFSBadBlockFileID), nullptr);

    opened->cacheHostForkData(forkDataOf(4096, {{50, 1}}), kHFSBadBlockFileID);
    ASSERT_NE(opened->hostForkData(kHFSBadBlockFileID), nullptr);
    EXPECT_EQ(opened->hostForkData(kHFSBadBlockFileID)->extents[0].startBlock, 50u);
}

TEST(HFSPlusVolume, ForkDataOfSpecialFilesIsTheHeadersOwn)
{
    HFSPlusOpenedVolume opened(plainVolume());
    ASSERT_TRUE(opened) << opened.error();
    const HFSPlusHostVolumeHeader& header = opened->hostVolumeHeader();

    EXPECT_EQ(opened->hostForkData(3), &header.extentsFile);
    EXPECT_EQ(opened->hostForkData(4), &header.catalogFile);
    EXPECT_EQ(opened->hostForkData(6), &header.allocationFile);
    EXPECT_EQ(opened->hostForkData(7), &header.startupFile);
    EXPECT_EQ(opened->hostForkData(8), &header.attributesFile);
}

TEST(HFSPlusVolume, CachedForkDataIsACopyThatIsOverwrittenInPlaceAndForgotten)
{
    HFSPlusOpenedVolume opened(plainVolume());
    ASSERT_TRUE(opened) << opened.error();

    opened->cacheHostForkData(forkDataOf(1, {{50, 1}}), kMovie);
    HFSPlusHostForkData* const entry = opened->hostForkData(kMovie);
    opened->cacheHostForkData(forkDataOf(2, {{60, 1}}), kMovie);
    EXPECT_EQ(opened->hostForkData(kMovie), entry);
    EXPECT_EQ(entry->logicalSize, 2u);

    opened->uncacheHostForkData(kMovie);
    opened->uncacheHostForkData(kMovie);
    EXPECT_EQ(opened->hostForkData(kMovie), nullptr);
}

TEST(HFSPlusVolume, CachedForkDataStayUntilTheyWereUncachedAsOftenAsCached)
{
    HFSPlusOpenedVolume opened(plainVolume());
    ASSERT_TRUE(opened) << opened.error();
    opened->cacheHostForkData(forkDataOf(1, {{50, 1}}), kMovie);
    opened->cacheHostForkData(forkDataOf(1, {{50, 1}}), kMovie);
    const HFSPlusHostForkData* const entry = opened->hostForkData(kMovie);

    opened->uncacheHostForkData(kMovie);
    EXPECT_EQ(opened->hostForkData(kMovie), entry);

    opened->uncacheHostForkData(kMovie);
    EXPECT_EQ(opened->hostForkData(kMovie), nullptr);
    opened->uncacheHostForkData(kMovie);  // without an entry there is nothing to do
}

TEST(HFSPlusVolume, UpdatingForkExtentsReplacesThoseOfTheHeader)
{
    HFSPlusOpenedVolume opened(plainVolume());
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusHostExtentRecord extents = {};
    extents[0] = {.startBlock = 900, .blockCount = 3};

    ASSERT_TRUE(opened->updateForkExtents(extents, kHFSStartupFileID, nullptr));

    EXPECT_EQ(opened->hostVolumeHeader().startupFile.extents[0].startBlock, 900u);
    EXPECT_TRUE(opened->needsFlush());
}

TEST(HFSPlusVolume, UpdatingForkExtentsOfAnOrdinaryFileIsAnInternalError)
{
    HFSPlusOpenedVolume opened(plainVolume());
    ASSERT_TRUE(opened) << opened.error();
    std::unique_ptr<VZDefragError> error;

    EXPECT_FALSE(opened->updateForkExtents({}, kMovie, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Internal error: HFSPlus/HFSPlusVolume.cpp:327");
    EXPECT_FALSE(opened->needsFlush());
}

TEST(HFSPlusVolume, UpdatingForkExtentsOfAReadOnlyVolumeIsAnInternalError)
{
    HFSPlusOpenedVolume opened(plainVolume().damage(damagedHeader("attributes", 0x8100)));
    ASSERT_TRUE(opened) << opened.error();
    std::unique_ptr<VZDefragError> error;

    EXPECT_FALSE(opened->updateForkExtents({}, kHFSCatalogFileID, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Internal error: HFSPlus/HFSPlusVolume.cpp:327");
}

TEST(HFSPlusVolume, FreeBlocksUpdateOfZeroDoesNotMakeTheHeaderDirty)
{
    HFSPlusOpenedVolume opened(plainVolume());
    ASSERT_TRUE(opened) << opened.error();
    const uint32_t freeBlocks = opened->hostVolumeHeader().freeBlocks;

    opened->updateFreeBlocks(0);
    EXPECT_FALSE(opened->needsFlush());
    EXPECT_TRUE(opened->flush(nullptr));
    EXPECT_TRUE(changesOf(opened).empty());

    opened->updateFreeBlocks(-3);
    EXPECT_TRUE(opened->needsFlush());
    EXPECT_EQ(opened->hostVolumeHeader().freeBlocks, freeBlocks - 3);
}

TEST(HFSPlusVolume, SmallVolumeWithoutJournalBeginsItsDataBehindTheHeader)
{
    HFSPlusOpenedVolume kilobytes(HFSPlusVolumeBuilder{}.blockSize(1024).totalBlocks(4000));
    HFSPlusOpenedVolume pages(plainVolume());
    HFSPlusOpenedVolume sectors(HFSPlusVolumeBuilder{}.blockSize(512).totalBlocks(8000));
    ASSERT_TRUE(kilobytes && pages && sectors);

    EXPECT_FALSE(pages->hasMetadataZone());
    EXPECT_EQ(sectors->firstDataBlock(), 3u);
    EXPECT_EQ(kilobytes->firstDataBlock(), 2u);
    EXPECT_EQ(pages->firstDataBlock(), 1u);
}

TEST(HFSPlusVolume, LargeVolumeWithoutJournalHasNoMetadataZone)
{
    HFSPlusOpenedVolume opened(
        HFSPlusVolumeBuilder{}.blockSize(4096).totalBlocks(4000000).contents(false));
    ASSERT_TRUE(opened) << opened.error();

    EXPECT_FALSE(opened->hasMetadataZone());
    EXPECT_EQ(opened->firstDataBlock(), 1u);
}

TEST(HFSPlusVolume, JournaledVolumeJustUnderTenGiBHasNoMetadataZone)
{
    constexpr uint32_t kTenGiB = 2621440;  // blocks
    HFSPlusOpenedVolume opened(
        HFSPlusVolumeBuilder{}.blockSize(4096).totalBlocks(kTenGiB - 1).journal().contents(false));
    ASSERT_TRUE(opened) << opened.error();

    EXPECT_TRUE(opened->isJournaled());
    EXPECT_FALSE(opened->hasMetadataZone());
}

TEST(HFSPlusVolume, JournaledVolumeOfTenGiBHasAMetadataZone)
{
    constexpr uint32_t kTenGiB = 2621440;  // blocks
    HFSPlusOpenedVolume opened(
        HFSPlusVolumeBuilder{}.blockSize(4096).totalBlocks(kTenGiB).journal().contents(false));
    ASSERT_TRUE(opened) << opened.error();

    // In bytes: bitmap 327,680, extents 4 MiB, journal 8 MiB, catalog 104,857,600, hot files
    // 52,428,800, user quotas 262,208, group quotas 131,136; 170,590,336 in all, which is rounded
    // up to two units of 134,217,728 or 65,536 blocks.
    EXPECT_TRUE(opened->hasMetadataZone());
    EXPECT_EQ(opened->firstDataBlock(), 65536u);
}

TEST(HFSPlusVolume, MetadataEstimateFollowsSizeAndBlockSize)
{
    // Worked out with integers of any size.
    EXPECT_EQ(HFSPlusVolume::estimatedMetadataBlocks(4096, 2621439u), 0u);
    EXPECT_EQ(HFSPlusVolume::estimatedMetadataBlocks(4096, 2621440u), 65536u);
    EXPECT_EQ(HFSPlusVolume::estimatedMetadataBlocks(4096, 65536000u), 425984u);
    EXPECT_EQ(HFSPlusVolume::estimatedMetadataBlocks(4096, 268435456u), 458752u);
    EXPECT_EQ(HFSPlusVolume::estimatedMetadataBlocks(8192, 4294967295u), 393216u);
    EXPECT_EQ(HFSPlusVolume::estimatedMetadataBlocks(512, 83886080u), 1277952u);
    EXPECT_EQ(HFSPlusVolume::estimatedMetadataBlocks(65536, 163840u), 524288u);
}

TEST(HFSPlusVolume, MetadataEstimateOfHugeBlocksStaysWithin32Bits)
{
    // One unit of rounding is more blocks than a volume can have, and 2^65 bytes.
    EXPECT_EQ(HFSPlusVolume::estimatedMetadataBlocks(uint64_t{1} << 31, 64), 0xFFFFFFFFu);
}

TEST(HFSPlusVolume, AttributeBitsAreTold)
{
    HFSPlusOpenedVolume plain(plainVolume());
    HFSPlusOpenedVolume marked(plainVolume().hfsx().journal().badBlocks({{700, 2}}));
    ASSERT_TRUE(plain && marked) << plain.error() << marked.error();

    EXPECT_FALSE(plain->isHFSX() || plain->isJournaled() || plain->hasSparedBlocks());
    EXPECT_TRUE(marked->isHFSX() && marked->isJournaled() && marked->hasSparedBlocks());
}

TEST(HFSPlusVolume, AttributesFileIsOpenedOnlyWhereThereIsOne)
{
    HFSPlusOpenedVolume without(plainVolume());
    HFSPlusOpenedVolume with(plainVolume().attributesFile());
    ASSERT_TRUE(without && with);

    EXPECT_EQ(without->attributes(), nullptr);
    EXPECT_NE(with->attributes(), nullptr);
}

TEST(HFSPlusVolume, JournalFilesAreImmutable)
{
    HFSPlusOpenedVolume opened(plainVolume().file("/movie", kMovie).data({{500, 1}}).journal());
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusCatalogLookupRecord infoBlock;
    HFSPlusCatalogLookupRecord journal;
    ASSERT_TRUE(opened->catalog().copyRecordForPath(infoBlock, "/.journal_info_block", nullptr));
    ASSERT_TRUE(opened->catalog().copyRecordForPath(journal, "/.journal", nullptr));

    const std::unique_ptr<HFSPlusFileForkSet> forks = opened->immutableForkIDs(false, nullptr);

    ASSERT_NE(forks, nullptr);
    EXPECT_EQ(forks->count(), 2u);
    EXPECT_TRUE(forks->contains(infoBlock.cnid(), 0));
    EXPECT_TRUE(forks->contains(journal.cnid(), 0));
    EXPECT_FALSE(forks->contains(kMovie, 0));
}

TEST(HFSPlusVolume, FolderWithTheJournalsNameIsNotImmutable)
{
    HFSPlusOpenedVolume opened(plainVolume().folder("/.journal", 30));
    ASSERT_TRUE(opened) << opened.error();

    const std::unique_ptr<HFSPlusFileForkSet> forks = opened->immutableForkIDs(false, nullptr);

    ASSERT_NE(forks, nullptr);
    EXPECT_EQ(forks->count(), 0u);
}

TEST(HFSPlusVolume, LastByteOfAForkShorterThanItsLastExtentIsOneByteLong)
{
    HFSPlusOpenedVolume opened(plainVolume());
    ASSERT_TRUE(opened) << opened.error();
    uint64_t offset = 4096 + 99;

    EXPECT_EQ(
        opened->translateOffset(offset, kMovie, 0, forkDataOf(4096 + 100, {{100, 5}}), nullptr),
        1u);
    EXPECT_EQ(offset, 101 * 4096u + 99);
}

TEST(HFSPlusVolume, OffsetInAMiddleExtentIsContiguousToItsEnd)
{
    HFSPlusOpenedVolume opened(plainVolume());
    ASSERT_TRUE(opened) << opened.error();
    const HFSPlusHostForkData forkData = forkDataOf(10 * 4096, {{100, 2}, {200, 3}, {300, 5}});
    uint64_t offset = 3 * 4096 + 10;

    EXPECT_EQ(opened->translateOffset(offset, kMovie, 0, forkData, nullptr), 2 * 4096u - 10);
    EXPECT_EQ(offset, 201 * 4096u + 10);
}

TEST(HFSPlusVolume, EmptyDescriptorsBetweenExtentsAreSkipped)
{
    HFSPlusOpenedVolume opened(plainVolume());
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusHostForkData forkData = forkDataOf(4 * 4096, {{100, 2}, {0, 7}, {300, 0}, {400, 2}});
    forkData.totalBlocks = 4;
    uint64_t offset = 2 * 4096;

    EXPECT_EQ(opened->translateOffset(offset, kMovie, 0, forkData, nullptr), 2 * 4096u);
    EXPECT_EQ(offset, 400 * 4096u);
}

TEST(HFSPlusVolume, OffsetBehindTheEightExtentsIsFoundInTheOverflowFile)
{
    const HFSPlusBuilderExtents extents = pieces(20);
    HFSPlusOpenedVolume opened(plainVolume().file("/movie", kMovie).data(extents));
    ASSERT_TRUE(opened) << opened.error();
    const HFSPlusHostForkData forkData = forkDataOf(40 * 4096, extents);
    for (uint64_t block = 0; block < 40; ++block) {
        uint64_t offset = block * 4096 + 1;
        const uint64_t start = 100 + block / 2 * 10 + block % 2;

        EXPECT_EQ(opened->translateOffset(offset, kMovie, 0, forkData, nullptr),
                  (2 - block % 2) * 4096 - 1);
        EXPECT_EQ(offset, start * 4096 + 1);
    }
}

TEST(HFSPlusVolume, OverflowRecordOfTheOtherForkIsNotTaken)
{
    const HFSPlusBuilderExtents extents = pieces(9);
    HFSPlusOpenedVolume opened(plainVolume().file("/movie", kMovie).data(extents));
    ASSERT_TRUE(opened) << opened.error();
    uint64_t offset = 16 * 4096;

    EXPECT_EQ(
        opened->translateOffset(offset, kMovie, 0xFF, forkDataOf(18 * 4096, extents), nullptr), 0u);
    EXPECT_EQ(offset, 16 * 4096u);
}

TEST(HFSPlusVolume, OffsetPastTheEndOrUnmappedIsOutOfRange)
{
    HFSPlusOpenedVolume opened(plainVolume().file("/movie", 30).data(pieces(9)));
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusHostForkData forkData = forkDataOf(4 * 4096, {{100, 2}});
    std::unique_ptr<VZDefragError> behindBlocks;
    std::unique_ptr<VZDefragError> behindSize;
    std::unique_ptr<VZDefragError> unmapped;

    uint64_t offset = 2 * 4096;
    EXPECT_EQ(opened->translateOffset(offset, kMovie, 0, forkData, &behindBlocks), 0u);
    offset = 4 * 4096;
    EXPECT_EQ(opened->translateOffset(offset, kMovie, 0, forkData, &behindSize), 0u);
    forkData.totalBlocks = 4;
    offset = 3 * 4096;
    EXPECT_EQ(opened->translateOffset(offset, kMovie, 0, forkData, &unmapped), 0u);

    ASSERT_TRUE(behindBlocks && behindSize && unmapped);
    EXPECT_EQ(behindBlocks->description(), "Offset 8192 is out of range for file ID 20.");
    EXPECT_EQ(behindSize->description(), "Offset 16384 is out of range for file ID 20.");
    EXPECT_EQ(unmapped->description(), "Offset 12288 is out of range for file ID 20.");
    EXPECT_EQ(offset, 3 * 4096u);
}

TEST(HFSPlusVolume, ErrorOfTheOverflowLookupPassesThrough)
{
    HFSPlusOpenedVolume opened(plainVolume());  // with an empty overflow file
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusHostForkData forkData = forkDataOf(4 * 4096, {{100, 2}});
    forkData.totalBlocks = 4;
    std::unique_ptr<VZDefragError> error;
    uint64_t offset = 3 * 4096;

    EXPECT_EQ(opened->translateOffset(offset, kMovie, 0, forkData, &error), 0u);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Overflow extents file is inconsistent.");
}

TEST(HFSPlusVolume, OverflowFileNeverLooksItselfUp)
{
    HFSPlusOpenedVolume opened(plainVolume());
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusHostForkData forkData = forkDataOf(4 * 4096, {{100, 2}});
    forkData.totalBlocks = 4;
    std::unique_ptr<VZDefragError> error;
    uint64_t offset = 3 * 4096;

    EXPECT_EQ(opened->translateOffset(offset, kHFSExtentsFileID, 0, forkData, &error), 0u);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Offset 12288 is out of range for file ID 3.");
}

TEST(HFSPlusVolume, ExtentThatLeavesTheVolumeIsNotTranslated)
{
    HFSPlusOpenedVolume opened(plainVolume());
    ASSERT_TRUE(opened) << opened.error();
    uint64_t inside = 0;
    uint64_t outside = 0;
    uint64_t wrapping = 0;

    EXPECT_EQ(opened->translateOffset(inside, 3, 0, forkDataOf(4096, {{998, 2}}), nullptr), 4096u);
    EXPECT_EQ(opened->translateOffset(outside, 3, 0, forkDataOf(4096, {{998, 3}}), nullptr), 0u);
    EXPECT_EQ(opened->translateOffset(wrapping, 3, 0, forkDataOf(4096, {{0xFFFFFFFF, 2}}), nullptr),
              0u);
}

TEST(HFSPlusVolume, ReadsAndWritesStayInsideTheVolume)
{
    HFSPlusOpenedVolume opened(plainVolume().wrapper());
    ASSERT_TRUE(opened) << opened.error();
    const uint64_t size = opened->volumeSizeBytes();
    ASSERT_LT(opened.plan().volumeOffset + size, opened.memory().size());
    std::vector<uint8_t> bytes(1024);
    std::unique_ptr<VZDefragError> reading;
    std::unique_ptr<VZDefragError> writing;

    EXPECT_TRUE(opened->read(bytes.data(), 512, size - 512, nullptr));
    EXPECT_FALSE(opened->read(bytes.data(), 1024, size - 512, &reading));
    EXPECT_FALSE(opened->write(bytes.data(), 1024, size - 512, &writing));
    EXPECT_FALSE(opened->read(bytes.data(), 512, ~uint64_t{0} - 100, nullptr));

    const std::string place = std::to_string(opened.plan().volumeOffset + size - 512);
    ASSERT_TRUE(reading && writing);
    EXPECT_EQ(reading->description(),
              "Out of range read failed at offset " + place + " and size 1024.");
    EXPECT_EQ(writing->description(),
              "Out of range write failed at offset " + place + " and size 1024.");
    EXPECT_EQ(opened.memory().writeCount(), 0u);
}

TEST(HFSPlusVolume, WrappedVolumeIsReadAndWrittenWhereItLies)
{
    HFSPlusOpenedVolume opened(plainVolume().wrapper().file("/movie", kMovie).data({{500, 1}}));
    ASSERT_TRUE(opened) << opened.error();
    const uint64_t place = opened.plan().volumeOffset + 500 * 4096;
    std::vector<uint8_t> onDevice(4096);
    std::vector<uint8_t> read(4096);
    opened.memory().peek(onDevice.data(), onDevice.size(), place);

    ASSERT_TRUE(opened->read(read.data(), read.size(), 500 * 4096, nullptr));
    EXPECT_EQ(read, onDevice);
    ASSERT_TRUE(opened->write(read.data(), read.size(), 600 * 4096, nullptr));
    ASSERT_TRUE(opened->flush(nullptr));

    EXPECT_EQ(numberOnDevice(opened, place + 100 * 4096, 8), numberOnDevice(opened, place, 8));
    EXPECT_TRUE(opened.check().consistent) << opened.check().description();
}
