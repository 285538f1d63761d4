#include "HFSPlus/HFSPlusHotFiles.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "HFSPlus/ForkList.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HotFilesTree.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"

namespace {

constexpr uint32_t kHotFilesID = 50;
constexpr uint32_t kLookupTemperature = 0xFFFFFFFF;
constexpr const char* kInconsistent = "The hotfiles.btree file is inconsistent.";

/** What merging the hot files of @p volume adds, or the message with which it fails. */
struct Merged {
    ForkList forks;
    std::string error;
};

Merged merged(HFSPlusVolume& volume)
{
    std::unique_ptr<VZDefragError> error;
    const auto hotFiles = HFSPlusHotFiles::initWithVolume(volume, &error);
    if (hotFiles == nullptr) {
        return {{}, error != nullptr ? error->description() : "no hot files"};
    }
    HFSPlusFileForkSet set(volume);
    const bool succeeded = hotFiles->mergeFileIDs(set, &error);
    EXPECT_EQ(succeeded, error == nullptr);
    return {forksOf(set), error != nullptr ? error->description() : ""};
}

Merged merged(HFSPlusVolumeBuilder builder)
{
    const HFSPlusOpenedVolume volume(std::move(builder));
    EXPECT_TRUE(volume) << volume.error();
    return volume ? merged(*volume) : Merged{{}, "not opened"};
}

/** A small volume with one empty file, which is hot in a tree that was then damaged. */
Merged mergedWithTree(const std::string& tree)
{
    HFSPlusVolumeBuilder builder;
    builder.file("/empty", 20);
    addHotFilesTree(builder, tree);
    return merged(std::move(builder));
}

}  // namespace

TEST(HFSPlusHotFiles, AVolumeWithoutTheFileHasNoneAndNoError)
{
    const HFSPlusOpenedVolume volume{HFSPlusVolumeBuilder()};
    std::unique_ptr<VZDefragError> error;

    EXPECT_EQ(HFSPlusHotFiles::initWithVolume(*volume, &error), nullptr);

    EXPECT_EQ(error, nullptr);
}

TEST(HFSPlusHotFiles, AFolderOfThatNameIsNoTreeAndNoError)
{
    const HFSPlusOpenedVolume volume(HFSPlusVolumeBuilder().folder("/.hotfiles.btree", 50));
    std::unique_ptr<VZDefragError> error;

    EXPECT_EQ(HFSPlusHotFiles::initWithVolume(*volume, &error), nullptr);

    EXPECT_EQ(error, nullptr);
}

TEST(HFSPlusHotFiles, AFailedLookupIsTheErrorOfOpening)
{
    const HFSPlusOpenedVolume volume{HFSPlusVolumeBuilder()};
    volume.faults().fail(FaultyBlockDevice::Operation::kRead, 1, EIO);
    std::unique_ptr<VZDefragError> error;

    EXPECT_EQ(HFSPlusHotFiles::initWithVolume(*volume, &error), nullptr);

    EXPECT_NE(error, nullptr);
}

TEST(HFSPlusHotFiles, AFileThatIsNoTreeIsRefused)
{
    EXPECT_EQ(mergedWithTree(std::string(4096, 'x')).error, "B-Tree header is inconsistent.");
}

TEST(HFSPlusHotFiles, AForkThatEndsAtTheFirstDataBlockIsAddedAndOneABlockFurtherIsNot)
{
    const uint32_t end = metadataZoneEnd();
    HFSPlusVolumeBuilder builder = volumeWithMetadataZone();
    builder.file("/inside", 20).data({{end - 4, 4}});
    addHotFilesTree(builder, hotFilesTree({{0, 7, 20}}));
    HFSPlusVolumeBuilder further = volumeWithMetadataZone();
    further.file("/beyond", 20).data({{end - 4, 5}});
    addHotFilesTree(further, hotFilesTree({{0, 7, 20}}));

    EXPECT_EQ(merged(builder).forks, (ForkList{{20, 0}}));
    EXPECT_EQ(merged(further).forks, ForkList{});
}

TEST(HFSPlusHotFiles, AForkInTwoExtentsInsideTheZoneIsNotAdded)
{
    const uint32_t end = metadataZoneEnd();
    HFSPlusVolumeBuilder builder = volumeWithMetadataZone();
    builder.file("/two", 20).data({{end - 20, 4}, {end - 10, 4}});
    addHotFilesTree(builder, hotFilesTree({{0, 7, 20}}));

    EXPECT_EQ(merged(builder).forks, ForkList{});
}

TEST(HFSPlusHotFiles, AnEmptyForkIsAdded)
{
    EXPECT_EQ(mergedWithTree(hotFilesTree({{0, 7, 20}})).forks, (ForkList{{20, 0}}));
}

TEST(HFSPlusHotFiles, ARecordOfAResourceForkChecksTheResourceFork)
{
    const uint32_t end = metadataZoneEnd();
    HFSPlusVolumeBuilder builder = volumeWithMetadataZone();
    builder.file("/resource", 20).data({{end + 90, 4}}).resource({{end - 4, 4}});
    builder.file("/data", 21).data({{end - 14, 4}}).resource({{end + 80, 4}});
    addHotFilesTree(builder, hotFilesTree({{0xFF, 7, 20}, {0xFF, 7, 21}}));

    EXPECT_EQ(merged(builder).forks, (ForkList{{20, 0xFF}}));
}

TEST(HFSPlusHotFiles, LookupRecordsOtherForkTypesFoldersAndUnknownFilesAreSkipped)
{
    HFSPlusVolumeBuilder builder;
    builder.file("/empty", 20).file("/other", 21).folder("/folder", 22);
    addHotFilesTree(builder, hotFilesTree({{0, 7, 21},
                                           {0, 7, 22},
                                           {0, 7, 999},
                                           {0, kLookupTemperature, 20},
                                           {1, 7, 20},
                                           {0xFE, 7, 20}}));

    EXPECT_EQ(merged(builder).forks, (ForkList{{21, 0}}));
}

TEST(HFSPlusHotFiles, AnExtentWhoseEndLeaves32BitsIsNotInsideTheZone)
{
    HFSPlusVolumeBuilder builder = volumeWithMetadataZone();
    builder.file("/wrapped", 20).data({{2'600'000, 1}});
    builder.damage(damagedCatalogRecord(20, "dataFork.extents[0].startBlock", 0xFFFFFFF0));
    builder.damage(damagedCatalogRecord(20, "dataFork.extents[0].blockCount", 0x20));
    addHotFilesTree(builder, hotFilesTree({{0, 7, 20}}));

    EXPECT_EQ(merged(builder).forks, ForkList{});
}

TEST(HFSPlusHotFiles, AllLeavesAreWalked)
{
    HFSPlusVolumeBuilder builder;
    std::vector<HotFileRecord> records;
    ForkList expected;
    for (uint32_t fileID = 20; fileID < 40; ++fileID) {
        builder.file("/empty" + std::to_string(fileID), fileID);
        records.push_back({0, fileID, fileID});
        expected.emplace_back(fileID, 0);
    }
    addHotFilesTree(builder, hotFilesTree(records, 3));

    EXPECT_EQ(merged(builder).forks, expected);
}

TEST(HFSPlusHotFiles, ATreeWithoutALeafAddsNothing)
{
    std::string tree = hotFilesTree({{0, 7, 20}});
    damageHotFilesTree(tree, 0, 14 + 10, 0, 4);  // firstLeafNode

    const Merged result = mergedWithTree(tree);

    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.forks, ForkList{});
}

TEST(HFSPlusHotFiles, ATreeInManyPiecesIsReadThroughItsOverflowRecords)
{
    HFSPlusVolumeBuilder builder;
    std::vector<HotFileRecord> records;
    ForkList expected;
    for (uint32_t fileID = 20; fileID < 32; ++fileID) {
        builder.file("/empty" + std::to_string(fileID), fileID);
        records.push_back({0, fileID, fileID});
        expected.emplace_back(fileID, 0);
    }
    const std::string tree = hotFilesTree(records, 1);
    HFSPlusBuilderExtents extents;
    for (uint32_t piece = 0; piece < tree.size() / kHotFilesNodeSize; ++piece) {
        extents.push_back({900 - 2 * piece, 1});
    }
    addHotFilesTree(builder, tree, extents);

    // The leaves are nodes 1 to 12, the catalog record has the places of the first eight.
    EXPECT_EQ(merged(builder).forks, expected);
}

TEST(HFSPlusHotFiles, ANodeOfTheChainThatIsNoLeafIsInconsistent)
{
    std::string tree = hotFilesTree({{0, 7, 20}, {0, 8, 20}}, 1);
    damageHotFilesTree(tree, 2, 8, 0, 1);  // kind of the second leaf

    const Merged result = mergedWithTree(tree);

    EXPECT_EQ(result.error, kInconsistent);
    EXPECT_EQ(result.forks, (ForkList{{20, 0}}));
}

TEST(HFSPlusHotFiles, AChainThatLeadsBackIsInconsistent)
{
    std::string tree = hotFilesTree({{0, 7, 20}, {0, 8, 20}}, 1);
    damageHotFilesTree(tree, 2, 0, 1, 4);  // fLink of the second leaf

    EXPECT_EQ(mergedWithTree(tree).error, kInconsistent);
}

TEST(HFSPlusHotFiles, AKeyOfAnotherLengthIsInconsistent)
{
    std::string tree = hotFilesTree({{0, 7, 20}});
    damageHotFilesTree(tree, 1, 14, 9, 2);

    EXPECT_EQ(mergedWithTree(tree).error, kInconsistent);
}

TEST(HFSPlusHotFiles, ARecordTooShortForItsKeyIsInconsistent)
{
    std::string tree = hotFilesTree({{0, 7, 20}});
    damageHotFilesTree(tree, 1, kHotFilesNodeSize - 4, 14 + 10, 2);  // where the record ends

    EXPECT_EQ(mergedWithTree(tree).error, kInconsistent);
}

TEST(HFSPlusHotFiles, ALinkOutOfTheTreeIsInconsistent)
{
    std::string tree = hotFilesTree({{0, 7, 20}});
    damageHotFilesTree(tree, 1, 0, 70000, 4);  // fLink

    EXPECT_EQ(mergedWithTree(tree).error, kInconsistent);
}

TEST(HFSPlusHotFiles, AFailedReadOfALeafIsTheErrorOfMerging)
{
    HFSPlusVolumeBuilder builder;
    builder.file("/empty", 20);
    addHotFilesTree(builder, hotFilesTree({{0, 7, 20}}));
    const HFSPlusOpenedVolume volume(builder);
    const auto hotFiles = HFSPlusHotFiles::initWithVolume(*volume, nullptr);
    ASSERT_NE(hotFiles, nullptr);
    volume.faults().fail(FaultyBlockDevice::Operation::kRead, 1, EIO);
    HFSPlusFileForkSet set(*volume);
    std::unique_ptr<VZDefragError> error;

    EXPECT_FALSE(hotFiles->mergeFileIDs(set, &error));

    ASSERT_NE(error, nullptr);
    EXPECT_TRUE(volume.faults().faultReached());
    EXPECT_NE(error->description(), kInconsistent);
}

TEST(HFSPlusHotFiles, TheCachedForkDataGoWithTheirLastUser)
{
    HFSPlusVolumeBuilder builder;
    builder.file("/empty", 20);
    addHotFilesTree(builder, hotFilesTree({{0, 7, 20}}));
    const HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();

    auto first = HFSPlusHotFiles::initWithVolume(*volume, nullptr);
    const auto second = HFSPlusHotFiles::initWithVolume(*volume, nullptr);
    first.reset();

    EXPECT_NE(volume->hostForkData(kHotFilesID), nullptr);
    HFSPlusFileForkSet set(*volume);
    EXPECT_TRUE(second->mergeFileIDs(set, nullptr));
    EXPECT_EQ(forksOf(set), (ForkList{{20, 0}}));
}

TEST(HFSPlusHotFiles, AfterwardsTheVolumeCachesNoForkData)
{
    HFSPlusVolumeBuilder builder;
    addHotFilesTree(builder, hotFilesTree({}));
    const HFSPlusOpenedVolume volume(builder);

    EXPECT_NE(HFSPlusHotFiles::initWithVolume(*volume, nullptr), nullptr);

    EXPECT_EQ(volume->hostForkData(kHotFilesID), nullptr);
}

TEST(HFSPlusHotFiles, AFileWithTheIDOfASpecialFileIsNoTreeAndLeavesThatFileAlone)
{
    for (const uint32_t claimed : {3U, 4U, 5U, 6U, 8U, 15U}) {
        HFSPlusVolumeBuilder builder;
        builder.file("/empty", 20);
        addHotFilesTree(builder, hotFilesTree({{0, 7, 20}}));
        builder.damage(damagedCatalogRecord(kHotFilesID, "fileID", claimed));
        const HFSPlusOpenedVolume volume(builder);
        ASSERT_TRUE(volume) << volume.error();

        EXPECT_EQ(merged(*volume).error, "no hot files") << claimed;

        HFSPlusCatalogLookupRecord record;
        EXPECT_TRUE(volume->catalog().copyRecordForCNID(record, 20, nullptr)) << claimed;
        EXPECT_TRUE(record.isFile()) << claimed;
    }
}

TEST(HFSPlusHotFiles, ImmutableForksTakeTheHotOnesInOnlyWhenAsked)
{
    HFSPlusVolumeBuilder builder;
    builder.file("/.journal", 19).file("/empty", 20);
    addHotFilesTree(builder, hotFilesTree({{0, 7, 20}}));
    const HFSPlusOpenedVolume volume(builder);

    EXPECT_EQ(forksOf(*volume->immutableForkIDs(true, nullptr)), (ForkList{{19, 0}, {20, 0}}));
    EXPECT_EQ(forksOf(*volume->immutableForkIDs(false, nullptr)), (ForkList{{19, 0}}));
}

TEST(HFSPlusHotFiles, ImmutableForksStayWhatTheyAreWhereTheTreeCannotBeOpened)
{
    HFSPlusVolumeBuilder builder;
    builder.file("/.journal", 19);
    addHotFilesTree(builder, std::string(4096, 'x'));
    const HFSPlusOpenedVolume volume(builder);
    std::unique_ptr<VZDefragError> error;

    const auto forks = volume->immutableForkIDs(true, &error);

    ASSERT_NE(forks, nullptr);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(forksOf(*forks), (ForkList{{19, 0}}));
}

TEST(HFSPlusHotFiles, ImmutableForksFailWithAnUnsoundTree)
{
    std::string tree = hotFilesTree({{0, 7, 20}});
    damageHotFilesTree(tree, 1, 0, 1, 4);  // the leaf leads to itself
    HFSPlusVolumeBuilder builder;
    addHotFilesTree(builder, tree);
    const HFSPlusOpenedVolume volume(builder);
    std::unique_ptr<VZDefragError> error;

    EXPECT_EQ(volume->immutableForkIDs(true, &error), nullptr);

    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), kInconsistent);
}
