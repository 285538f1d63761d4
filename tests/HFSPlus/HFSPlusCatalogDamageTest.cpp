#include <gtest/gtest.h>

#include <cerrno>

#include "HFSPlusCatalogTesting.h"

// Catalogs that no sound volume has: what is refused, and that nothing goes on for ever.

namespace {

class NothingExpected final : public HFSPlusCatalogFolderDelegate {
public:
    bool iterateFolderFile(const HFSPlusCatalogFile& /*file*/, std::span<const uint8_t> /*key*/,
                           VZDefragErrorSlot /*error*/) override
    {
        ++calls;
        return true;
    }
    bool iterateFolderFolder(const HFSPlusCatalogFolder& /*folder*/,
                             std::span<const uint8_t> /*key*/, VZDefragErrorSlot /*error*/) override
    {
        ++calls;
        return true;
    }

    uint64_t calls = 0;
};

std::string errorOfIterating(HFSPlusCatalog& catalog, uint32_t folderID)
{
    NothingExpected delegate;
    std::unique_ptr<VZDefragError> error;
    const bool iterated = catalog.iterateFolderID(folderID, delegate, &error);
    EXPECT_NE(iterated, error != nullptr);
    return error != nullptr ? error->description() : "";
}

/** A hundred files in one folder, a few records to a node. */
HFSPlusVolumeBuilder tallCatalog()
{
    HFSPlusVolumeBuilder builder;
    builder.manyFiles(100, nullptr, "/many", 1000);
    builder.catalogTree().maximumLeafRecords = 3;
    builder.catalogTree().maximumIndexRecords = 4;
    return builder;
}

TEST(HFSPlusCatalog, ARootThatIsNeitherIndexNorLeafIsInconsistent)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalog& catalog = volume->catalog();
    catalog.cachedNodeWithIndex(catalog.rootNode(), {}, nullptr)->setKind(kBTMapNode);

    EXPECT_EQ(lookUp(catalog, 20).error, kCatalogInconsistent);
    EXPECT_EQ(lookUp(catalog, "/Readme").error, kCatalogInconsistent);
    EXPECT_EQ(pathOf(catalog, 20).error, kCatalogInconsistent);
    EXPECT_EQ(errorOfIterating(catalog, 30), kCatalogInconsistent);
}

TEST(HFSPlusCatalog, ARootOutsideTheTreeIsInconsistent)
{
    for (const uint32_t root : {0U, 0xFFFFFFU}) {
        HFSPlusOpenedVolume volume(
            smallCatalog().damage(damagedTreeHeader(kHFSCatalogFileID, "rootNode", root)));
        ASSERT_TRUE(volume) << volume.error();

        EXPECT_EQ(lookUp(volume->catalog(), 20).error, kCatalogInconsistent) << root;
    }
}

TEST(HFSPlusCatalog, ANodeThatIsItsOwnChildEndsTheSearch)
{
    HFSPlusOpenedVolume volume(tallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalog& catalog = volume->catalog();
    const HFSPlusCachedNode root = catalog.cachedNodeWithIndex(catalog.rootNode(), {}, nullptr);
    ASSERT_EQ(root->kind(), kBTIndexNode);
    for (uint32_t index = 0; index < root->recordCount(); ++index) {
        uint8_t* const end = root->recordDataAtIndex(index) + root->recordSizeAtIndex(index);
        const HFSPlusDiskOrder::UInt32 child = root->index();
        std::memcpy(end - sizeof child, &child, sizeof child);
    }

    EXPECT_EQ(lookUp(catalog, 1000).error, kCatalogInconsistent);
}

TEST(HFSPlusCatalog, AnIndexNodeWithoutRecordsIsInconsistent)
{
    HFSPlusOpenedVolume volume(tallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalog& catalog = volume->catalog();
    catalog.cachedNodeWithIndex(catalog.rootNode(), {}, nullptr)->setupNewNode(kBTIndexNode);

    EXPECT_EQ(lookUp(catalog, 1000).error, kCatalogInconsistent);
}

TEST(HFSPlusCatalog, AKeyThatDoesNotFitItsRecordIsInconsistent)
{
    struct Damage {
        size_t offset;
        uint16_t value;
    };
    // Too short for a name length, too long for a name, longer than the record, name beyond the
    // key.
    for (const Damage damage :
         {Damage{0, 4}, Damage{0, 518}, Damage{0, 510}, Damage{6, 7}, Damage{6, 0x8003}}) {
        HFSPlusOpenedVolume volume(smallCatalog());
        ASSERT_TRUE(volume) << volume.error();
        HFSPlusCatalogRecordInMemory(volume->catalog(), 2, u"Readme")
            .setKey16(damage.offset, damage.value);

        EXPECT_EQ(lookUp(volume->catalog(), "/Readme").error, kCatalogInconsistent);
        EXPECT_EQ(errorOfIterating(volume->catalog(), 2), kCatalogInconsistent);
    }
}

TEST(HFSPlusCatalog, ANodeWithRecordsOutsideItIsInconsistent)
{
    HFSPlusOpenedVolume volume(
        smallCatalog().damage(damagedNode(kHFSCatalogFileID, 1, "offset[3]", 0xFFF0)));
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(lookUp(volume->catalog(), 20).error, kCatalogInconsistent);
}

TEST(HFSPlusCatalog, AFolderRecordTooShortForAFileIsNotReadAsOne)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory(volume->catalog(), 2, u"Library").setData16(0, kHFSPlusFileRecord);

    EXPECT_EQ(lookUp(volume->catalog(), 30).error, kCatalogInconsistent);
    EXPECT_EQ(lookUp(volume->catalog(), "/Library").error, kCatalogInconsistent);
    EXPECT_EQ(errorOfIterating(volume->catalog(), 2), kCatalogInconsistent);
}

TEST(HFSPlusCatalog, AThreadRecordTooShortForAFolderIsNotReadAsOne)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory(volume->catalog(), 31, u"").setData16(0, kHFSPlusFolderRecord);
    // The thread of the file leads to that record.
    HFSPlusCatalogRecordInMemory thread(volume->catalog(), 32, u"");
    thread.setData32(4, 31);
    thread.setData16(8, 0);

    EXPECT_EQ(lookUp(volume->catalog(), 32).error, kCatalogInconsistent);
    EXPECT_EQ(errorOfIterating(volume->catalog(), 31), kCatalogInconsistent);
}

TEST(HFSPlusCatalog, AThreadWhoseNameGoesBeyondItsRecordIsInconsistent)
{
    for (const uint16_t length : {uint16_t{7}, uint16_t{256}, uint16_t{0xFFFF}}) {
        HFSPlusOpenedVolume volume(smallCatalog());
        ASSERT_TRUE(volume) << volume.error();
        HFSPlusCatalogRecordInMemory(volume->catalog(), 20, u"").setData16(8, length);

        EXPECT_EQ(lookUp(volume->catalog(), 20).error, kCatalogInconsistent) << length;
        EXPECT_EQ(pathOf(volume->catalog(), 20).error, kCatalogInconsistent) << length;
    }
}

TEST(HFSPlusCatalog, ParentsInALoopEndWithTheFullPathBuffer)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory(volume->catalog(), 30, u"").setData32(4, 31);

    EXPECT_EQ(pathOf(volume->catalog(), 32).error,
              "Unicode path conversion failed. A path component exceeded the maximum allowed "
              "length.");
}

TEST(HFSPlusCatalog, ParentsWithoutNamesInALoopEndAsWell)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory thread(volume->catalog(), 30, u"");
    thread.setData32(4, 30);
    thread.setData16(8, 0);

    EXPECT_EQ(pathOf(volume->catalog(), 30).error,
              "Unicode path conversion failed. A path component exceeded the maximum allowed "
              "length.");
}

TEST(HFSPlusCatalog, ErrorsOfReadingNodesPassThrough)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    std::unique_ptr<VZDefragError> expected;
    std::vector<uint8_t> node(volume->catalog().nodeSize());
    using enum FaultyBlockDevice::Operation;
    volume.faults().fail(kRead, 1, EIO, FaultyBlockDevice::Lasting::kFromThenOn);
    ASSERT_FALSE(volume->catalog().readNode(volume->catalog().rootNode(), node.data(), &expected));

    EXPECT_EQ(lookUp(volume->catalog(), 20).error, expected->description());
    EXPECT_EQ(lookUp(volume->catalog(), "/Readme").error, expected->description());
    EXPECT_EQ(pathOf(volume->catalog(), 20).error, expected->description());
    EXPECT_EQ(errorOfIterating(volume->catalog(), 30), expected->description());
}

/** A leaf of tallCatalog() with no records but those of "/many". */
HFSPlusCachedNode leafInsideFolder(HFSPlusCatalog& catalog)
{
    HFSPlusCachedNode leaf = catalog.cachedNodeWithIndex(catalog.firstLeafNode(), {}, nullptr);
    for (int step = 0; step < 5; ++step) {
        leaf = catalog.cachedNodeWithIndex(leaf->fLink(), {}, nullptr);
    }
    return leaf;
}

TEST(HFSPlusCatalog, ALeafChainThatLeadsToAnotherKindOfNodeIsInconsistent)
{
    HFSPlusOpenedVolume volume(tallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalog& catalog = volume->catalog();
    const uint32_t folderID = lookUp(catalog, "/many").record.cnid();
    leafInsideFolder(catalog)->setFLink(catalog.rootNode());

    EXPECT_EQ(errorOfIterating(catalog, folderID), kCatalogInconsistent);
}

TEST(HFSPlusCatalog, ALeafChainThatIsACircleEndsTheWalk)
{
    HFSPlusOpenedVolume volume(tallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalog& catalog = volume->catalog();
    const uint32_t folderID = lookUp(catalog, "/many").record.cnid();
    const HFSPlusCachedNode leaf = leafInsideFolder(catalog);
    leaf->setFLink(leaf->index());

    EXPECT_EQ(errorOfIterating(catalog, folderID), kCatalogInconsistent);
}

}  // namespace
