#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlusExtentsFixture.h"

namespace {

constexpr uint32_t kFileID = 20;
constexpr std::string_view kMissing = "Overflow extent record missing.";

/** What a walk over a fork met, "start+count" each, and why it ended. */
struct Visit {
    std::vector<std::string> extents;
    std::string error;
};

Visit visit(const ExtentsVolume& volume, uint8_t forkType = kHFSDataForkType)
{
    HFSPlusCatalogLookupRecord record;
    EXPECT_TRUE(volume->catalog().copyRecordForCNID(record, kFileID, nullptr) && record.isFile());
    const HFSPlusForkData fork =
        diskOrder(forkType == kHFSDataForkType ? record.file.dataFork : record.file.resourceFork);
    Visit visit;
    std::unique_ptr<VZDefragError> error;
    const bool visited = volume.tree().visitForkExtents(
        fork, kFileID, forkType,
        [&visit](const HFSPlusHostExtentDescriptor& extent) {
            visit.extents.push_back(std::to_string(extent.startBlock) + "+" +
                                    std::to_string(extent.blockCount));
        },
        &error);
    EXPECT_EQ(visited, error == nullptr);
    visit.error = error == nullptr ? "" : error->description();
    return visit;
}

/** The extents of scattered(), as a visit tells them. */
std::vector<std::string> told(uint32_t start, uint32_t count, uint32_t length, uint32_t distance)
{
    std::vector<std::string> extents;
    for (const HFSPlusBuilderExtent& extent : scattered(start, count, length, distance)) {
        extents.push_back(std::to_string(extent.startBlock) + "+" +
                          std::to_string(extent.blockCount));
    }
    return extents;
}

/** A file with twenty extents of two blocks: eight in its record, then eight, then four. */
HFSPlusVolumeBuilder twentyExtents()
{
    HFSPlusVolumeBuilder builder = ExtentsVolume::builder(4);
    builder.file("/fragmented", kFileID).data(scattered(8000, 20, 2, 4));
    return builder;
}

ExtentsVolume twentyExtentsWith(HFSPlusBuilderDamage damage)
{
    HFSPlusVolumeBuilder builder = twentyExtents();
    builder.damage(std::move(damage));
    return ExtentsVolume(std::move(builder));
}

}  // namespace

TEST(HFSPlusExtentsVisit, MeetsTheRecordsExtentsAndThenThoseOfTheOverflowFileInForkOrder)
{
    const ExtentsVolume volume(twentyExtents());
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(visit(volume).extents, told(8000, 20, 2, 4));
    EXPECT_EQ(visit(volume).error, "");
    EXPECT_TRUE(visit(volume, kHFSResourceForkType).extents.empty());
}

TEST(HFSPlusExtentsVisit, TheForksOfAFileAreKeptApart)
{
    HFSPlusVolumeBuilder builder = twentyExtents();
    builder.resource(scattered(10000, 10, 3, 5));
    const ExtentsVolume volume(std::move(builder));
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(visit(volume).extents, told(8000, 20, 2, 4));
    EXPECT_EQ(visit(volume, kHFSResourceForkType).extents, told(10000, 10, 3, 5));
}

TEST(HFSPlusExtentsVisit, ExtentsWithAZeroNumberAreNotMetAndDoNotCount)
{
    HFSPlusVolumeBuilder builder = ExtentsVolume::builder(4);
    builder.file("/file", kFileID).data({{8000, 1}, {8010, 5}, {8020, 2}});
    builder.damage(damagedCatalogRecord(kFileID, "dataFork.extents[1].startBlock", 0));
    builder.damage(damagedCatalogRecord(kFileID, "dataFork.totalBlocks", 3));
    const ExtentsVolume volume(std::move(builder));
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(visit(volume).extents, (std::vector<std::string>{"8000+1", "8020+2"}));
    EXPECT_EQ(visit(volume).error, "");
}

TEST(HFSPlusExtentsVisit, TheRecordsOwnExtentsAreAllMetEvenBeyondTheForksBlocks)
{
    HFSPlusVolumeBuilder builder = ExtentsVolume::builder(4);
    builder.file("/file", kFileID).data(scattered(8000, 4, 2, 4));
    builder.damage(damagedCatalogRecord(kFileID, "dataFork.totalBlocks", 3));
    const ExtentsVolume volume(std::move(builder));
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(visit(volume).extents, told(8000, 4, 2, 4));
}

TEST(HFSPlusExtentsVisit, OfAnOverflowRecordOnlyWhatTheForkNeedsIsMet)
{
    const ExtentsVolume volume =
        twentyExtentsWith(damagedCatalogRecord(kFileID, "dataFork.totalBlocks", 35));
    ASSERT_TRUE(volume) << volume.error();

    // 36 blocks cover 35.
    EXPECT_EQ(visit(volume).extents, told(8000, 18, 2, 4));
    EXPECT_EQ(visit(volume).error, "");
}

TEST(HFSPlusExtentsVisit, ARecordThatIsNotThereIsMissing)
{
    const ExtentsVolume volume =
        twentyExtentsWith(damagedCatalogRecord(kFileID, "dataFork.totalBlocks", 41));
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(visit(volume).extents, told(8000, 20, 2, 4));
    EXPECT_EQ(visit(volume).error, kMissing);
}

TEST(HFSPlusExtentsVisit, ARecordThatBeginsAtAnotherBlockIsNotTaken)
{
    // The lookup answers with the record at 16.
    const ExtentsVolume volume =
        twentyExtentsWith(damagedOverflowRecord(kFileID, kHFSDataForkType, 32, "startBlock", 33));
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(visit(volume).extents, told(8000, 16, 2, 4));
    EXPECT_EQ(visit(volume).error, kMissing);
}

TEST(HFSPlusExtentsVisit, ARecordWhoseFirstExtentBeginsAt0IsMissing)
{
    const ExtentsVolume volume = twentyExtentsWith(
        damagedOverflowRecord(kFileID, kHFSDataForkType, 16, "extents[0].startBlock", 0));
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(visit(volume).extents, told(8000, 8, 2, 4));
    EXPECT_EQ(visit(volume).error, kMissing);
}

TEST(HFSPlusExtentsVisit, ARecordWithoutABlockDoesNotKeepTheVisitGoingForEver)
{
    HFSPlusVolumeBuilder builder = twentyExtents();
    for (int index = 0; index < 8; ++index) {
        builder.damage(damagedOverflowRecord(
            kFileID, kHFSDataForkType, 16, "extents[" + std::to_string(index) + "].blockCount", 0));
    }
    const ExtentsVolume volume(std::move(builder));
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(visit(volume).extents, told(8000, 8, 2, 4));
    EXPECT_EQ(visit(volume).error, kMissing);
}

TEST(HFSPlusExtentsVisit, BlocksAreSummedInMoreThan32Bits)
{
    HFSPlusVolumeBuilder builder = twentyExtents();
    builder.damage(damagedCatalogRecord(kFileID, "dataFork.extents[0].blockCount", 0xFFFFFFFF));
    builder.damage(damagedCatalogRecord(kFileID, "dataFork.totalBlocks", 0xFFFFFFFF));
    const ExtentsVolume volume(std::move(builder));
    ASSERT_TRUE(volume) << volume.error();

    // The eight cover the fork, although their sum is only 13 in 32 bits.
    EXPECT_EQ(visit(volume).extents.size(), 8u);
    EXPECT_EQ(visit(volume).error, "");
}

TEST(HFSPlusExtentsVisit, AnErrorOfTheOverflowFileEndsTheVisit)
{
    const ExtentsVolume volume = twentyExtentsWith([](HFSPlusVolumeBuilderPatcher& patcher) {
        return patcher.node(3, patcher.plan().extentsTree.rootNode, "numRecords", 0xFFFF);
    });
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(visit(volume).extents, told(8000, 8, 2, 4));
    EXPECT_EQ(visit(volume).error, "Overflow extents file is inconsistent.");
}
