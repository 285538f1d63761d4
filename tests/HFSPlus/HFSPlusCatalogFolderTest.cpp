#include <gtest/gtest.h>

#include <limits>

#include "HFSPlusCatalogTesting.h"

// Listing folders and rewriting extents.

namespace {

/** Notes what it is told and may stop. */
class Listing final : public HFSPlusCatalogFolderDelegate {
public:
    void iterateFolderWillStart() override { told += "start "; }
    bool iterateFolderFile(const HFSPlusCatalogFile& file, std::span<const uint8_t> key,
                           VZDefragErrorSlot error) override
    {
        told += "file" + std::to_string(file.fileID) + nameOf(key) + " ";
        return ++children < stopAfter || VZDefragFail(error, "Enough.");
    }
    bool iterateFolderFolder(const HFSPlusCatalogFolder& folder, std::span<const uint8_t> key,
                             VZDefragErrorSlot error) override
    {
        told += "folder" + std::to_string(folder.folderID) + nameOf(key) + " ";
        return ++children < stopAfter || VZDefragFail(error, "Enough.");
    }
    void iterateFolderDidFinish() override { told += "finish"; }

    static std::string nameOf(std::span<const uint8_t> key)
    {
        std::string name = "=";
        for (size_t index = 9; index < key.size(); index += 2) {
            name.push_back(static_cast<char>(key[index]));
        }
        return name;
    }

    std::string told;
    uint64_t children = 0;
    uint64_t stopAfter = std::numeric_limits<uint64_t>::max();
};

HFSPlusHostExtentRecord someExtents()
{
    HFSPlusHostExtentRecord extents = {};
    for (uint32_t index = 0; index < 8; ++index) {
        extents[index] = {800 + 3 * index, index + 1};
    }
    return extents;
}

std::string errorOfUpdating(HFSPlusCatalog& catalog, uint32_t fileID, uint8_t forkType,
                            bool setZeroLength = false)
{
    std::unique_ptr<VZDefragError> error;
    const bool updated =
        catalog.updateForkExtents(someExtents(), fileID, forkType, setZeroLength, &error);
    EXPECT_NE(updated, error != nullptr);
    return error != nullptr ? error->description() : "";
}

TEST(HFSPlusCatalog, AFolderListsItsFilesAndFoldersInKeyOrderWithoutThreads)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    Listing listing;

    ASSERT_TRUE(volume->catalog().iterateFolderID(2, listing, nullptr));

    EXPECT_EQ(listing.told, "start file40=a/b folder30=Library file20=Readme finish");
}

TEST(HFSPlusCatalog, AFolderWithoutChildrenListsNothing)
{
    HFSPlusOpenedVolume volume(smallCatalog().folder("/empty", 35));
    ASSERT_TRUE(volume) << volume.error();
    Listing listing;

    ASSERT_TRUE(volume->catalog().iterateFolderID(35, listing, nullptr));

    EXPECT_EQ(listing.told, "start finish");
}

TEST(HFSPlusCatalog, AnIDThatIsNoFolderListsNothing)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    Listing listing;

    ASSERT_TRUE(volume->catalog().iterateFolderID(25, listing, nullptr));

    EXPECT_EQ(listing.told, "start finish");
}

TEST(HFSPlusCatalog, AFolderIsListedAcrossManyLeaves)
{
    HFSPlusVolumeBuilder builder;
    builder.manyFiles(300, nullptr, "/many", 1000).folder("/zeta", 3000);
    builder.catalogTree().maximumLeafRecords = 3;
    builder.catalogTree().shuffled = true;
    HFSPlusOpenedVolume volume(builder.totalBlocks(4000));
    ASSERT_TRUE(volume) << volume.error();
    Listing listing;

    const uint32_t folderID = lookUp(volume->catalog(), "/many").record.cnid();
    ASSERT_TRUE(volume->catalog().iterateFolderID(folderID, listing, nullptr));

    EXPECT_EQ(listing.children, 300U);
    for (uint32_t cnid = 1000; cnid < 1300; ++cnid) {
        EXPECT_NE(listing.told.find("file" + std::to_string(cnid)), std::string::npos);
    }
}

TEST(HFSPlusCatalog, ADelegateEndsTheListingWithItsOwnError)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    Listing listing;
    listing.stopAfter = 2;
    std::unique_ptr<VZDefragError> error;

    EXPECT_FALSE(volume->catalog().iterateFolderID(2, listing, &error));

    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Enough.");
    EXPECT_EQ(listing.told, "start file40=a/b folder30=Library finish");
}

TEST(HFSPlusCatalog, AFolderThatEndsTheCatalogIsInconsistent)
{
    HFSPlusVolumeBuilder builder;
    builder.folder("/last", 100).file("/last/one", 20);
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    Listing listing;
    std::unique_ptr<VZDefragError> error;

    EXPECT_FALSE(volume->catalog().iterateFolderID(100, listing, &error));

    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), kCatalogInconsistent);
    EXPECT_EQ(listing.told, "start file20=one finish");
}

TEST(HFSPlusCatalog, UpdatingAForkTypeOfOneIsInconsistent)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(errorOfUpdating(volume->catalog(), 20, 1), kVolumeInconsistent);
    EXPECT_EQ(errorOfUpdating(volume->catalog(), 20, 0xFE), kVolumeInconsistent);
    EXPECT_FALSE(volume->catalog().isDirty());
}

TEST(HFSPlusCatalog, UpdatedExtentsOfOneForkReachTheDiskWithTheFlush)
{
    for (const uint8_t forkType : {kHFSDataForkType, kHFSResourceForkType}) {
        HFSPlusOpenedVolume volume(smallCatalog());
        ASSERT_TRUE(volume) << volume.error();
        const HFSPlusHostCatalogFile before = lookUp(volume->catalog(), 20).record.file;

        ASSERT_EQ(errorOfUpdating(volume->catalog(), 20, forkType), "");
        EXPECT_TRUE(volume->catalog().isDirty());
        EXPECT_TRUE(volume.operations().empty() ||
                    volume.operations().back().kind == MemoryBlockDevice::Operation::Kind::kRead);
        ASSERT_TRUE(volume->catalog().flush());
        volume.reopen();

        const HFSPlusHostCatalogFile after = lookUp(volume->catalog(), 20).record.file;
        const bool isData = forkType == kHFSDataForkType;
        const HFSPlusHostForkData& changed = isData ? after.dataFork : after.resourceFork;
        const HFSPlusHostForkData& old = isData ? before.dataFork : before.resourceFork;
        const HFSPlusHostForkData& kept = isData ? after.resourceFork : after.dataFork;
        const HFSPlusHostForkData& same = isData ? before.resourceFork : before.dataFork;
        for (size_t index = 0; index < 8; ++index) {
            EXPECT_EQ(changed.extents[index].startBlock, someExtents()[index].startBlock);
            EXPECT_EQ(changed.extents[index].blockCount, someExtents()[index].blockCount);
            EXPECT_EQ(kept.extents[index].startBlock, same.extents[index].startBlock);
            EXPECT_EQ(kept.extents[index].blockCount, same.extents[index].blockCount);
        }
        EXPECT_EQ(changed.logicalSize, old.logicalSize);
        EXPECT_EQ(changed.totalBlocks, old.totalBlocks);
        EXPECT_EQ(kept.totalBlocks, same.totalBlocks);
    }
}

TEST(HFSPlusCatalog, SettingZeroLengthKeepsTheClumpSize)
{
    HFSPlusOpenedVolume volume(
        smallCatalog().damage(damagedCatalogRecord(20, "resourceFork.clumpSize", 4711)));
    ASSERT_TRUE(volume) << volume.error();

    ASSERT_EQ(errorOfUpdating(volume->catalog(), 20, kHFSResourceForkType, true), "");

    const HFSPlusHostCatalogFile file = lookUp(volume->catalog(), 20).record.file;
    EXPECT_EQ(file.resourceFork.logicalSize, 0U);
    EXPECT_EQ(file.resourceFork.totalBlocks, 0U);
    EXPECT_EQ(file.resourceFork.clumpSize, 4711U);
    EXPECT_EQ(file.resourceFork.extents[7].startBlock, 821U);
    EXPECT_EQ(file.dataFork.totalBlocks, 10U);
}

TEST(HFSPlusCatalog, UpdatingAFileWithoutAThreadIsInconsistent)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(errorOfUpdating(volume->catalog(), 25, kHFSDataForkType), kVolumeInconsistent);
    EXPECT_EQ(errorOfUpdating(volume->catalog(), 99, kHFSDataForkType), kVolumeInconsistent);
}

TEST(HFSPlusCatalog, UpdatingAFolderIsInconsistent)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(errorOfUpdating(volume->catalog(), 30, kHFSDataForkType), kVolumeInconsistent);
    EXPECT_FALSE(volume->catalog().isDirty());
}

TEST(HFSPlusCatalog, UpdatingAMissingRecordBeforeAGreaterKeySucceedsWithoutAChange)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory(volume->catalog(), 20, u"").setData32(4, 30);

    EXPECT_EQ(errorOfUpdating(volume->catalog(), 20, kHFSDataForkType), "");

    EXPECT_FALSE(volume->catalog().isDirty());
    EXPECT_EQ(lookUp(volume->catalog(), "/Readme").record.file.dataFork.extents[0].startBlock,
              600U);
}

TEST(HFSPlusCatalog, UpdatingAMissingRecordBehindAllKeysIsInconsistent)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory(volume->catalog(), 20, u"").setData32(4, 0xFFFFFFFF);

    EXPECT_EQ(errorOfUpdating(volume->catalog(), 20, kHFSDataForkType), kVolumeInconsistent);
}

TEST(HFSPlusCatalog, AThreadThatLeadsToAnotherFileLeavesThatFileAlone)
{
    HFSPlusOpenedVolume volume(smallCatalog().file("/Readmf", 21).data({{650, 2}}));
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory(volume->catalog(), 21, u"").setData16(20, u'e');

    EXPECT_EQ(errorOfUpdating(volume->catalog(), 21, kHFSDataForkType), kVolumeInconsistent);

    EXPECT_FALSE(volume->catalog().isDirty());
    EXPECT_EQ(lookUp(volume->catalog(), "/Readme").record.file.dataFork.extents[0].startBlock,
              600U);
}

}  // namespace
