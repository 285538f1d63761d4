#include "HFSPlus/HFSPlusCatalog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "HFSPlusCatalogTesting.h"

namespace {

constexpr const char* kComponentTooLong =
    "Unicode path conversion failed. A path component exceeded the maximum allowed length.";

/** @p text @p count times. */
std::string repeated(std::string_view text, size_t count)
{
    std::string result;
    for (size_t index = 0; index < count; ++index) {
        result += text;
    }
    return result;
}

// The order of keys.

TEST(HFSPlusCatalog, ReadmeInAnyCaseIsOneKeyOnHFSPlus)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(volume->catalog().compare(rawKey(2, u"Readme"), rawKey(2, u"README")), 0);
    EXPECT_EQ(lookUp(volume->catalog(), "/README").record.cnid(), 20U);
}

TEST(HFSPlusCatalog, ReadmeInTwoCasesIsTwoKeysOnHFSXWithBinaryComparison)
{
    HFSPlusVolumeBuilder builder;
    builder.hfsx(true).file("/Readme", 20).file("/README", 21);
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_GT(volume->catalog().compare(rawKey(2, u"Readme"), rawKey(2, u"README")), 0);
    EXPECT_EQ(lookUp(volume->catalog(), "/Readme").record.cnid(), 20U);
    EXPECT_EQ(lookUp(volume->catalog(), "/README").record.cnid(), 21U);
    EXPECT_EQ(lookUp(volume->catalog(), "/readme").record.recordType, 0);
}

TEST(HFSPlusCatalog, HFSXWithoutBinaryComparisonFoldsCase)
{
    HFSPlusOpenedVolume volume(smallCatalog().hfsx(false));
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(volume->catalog().compare(rawKey(2, u"Readme"), rawKey(2, u"README")), 0);
    EXPECT_EQ(lookUp(volume->catalog(), "/LIBRARY/fonts/aRIAL").record.cnid(), 32U);
}

TEST(HFSPlusCatalog, TheComparisonFieldMeansNothingOnHFSPlus)
{
    HFSPlusOpenedVolume volume(
        smallCatalog().damage(damagedTreeHeader(kHFSCatalogFileID, "keyCompareType", 0xBC)));
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(lookUp(volume->catalog(), "/README").record.cnid(), 20U);
}

TEST(HFSPlusCatalog, ParentsAreComparedAsUnsignedNumbersBeforeNames)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusCatalog& catalog = volume->catalog();

    EXPECT_LT(catalog.compare(rawKey(1, u"z"), rawKey(0x80000000, u"")), 0);
    EXPECT_GT(catalog.compare(rawKey(0xFFFFFFFF, u""), rawKey(2, u"z")), 0);
    EXPECT_LT(catalog.compare(rawKey(2, u""), rawKey(2, u"a")), 0);
    EXPECT_LT(catalog.compare(rawKey(2, u"ab"), rawKey(2, u"abc")), 0);
}

// Opening.

TEST(HFSPlusCatalog, HoldsThirtyTwoMebibytesOfNodes)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(volume->catalog().nodeCacheSize(), 33554432U);
}

TEST(HFSPlusCatalog, LogsItsSizesAndNodesWhenOpened)
{
    HFSPlusVolumeBuilder builder = smallCatalog().catalogNodeSize(4096).freeCatalogNodes(6);
    const auto openThenEnd = [&builder] {
        const HFSPlusOpenedVolume volume(builder);
        std::_Exit(volume ? 0 : 1);
    };
    // The level is read once in a process, so the opening gets a process of its own.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ASSERT_EQ(setenv("KLDebugLevel", "info", 1), 0);

    EXPECT_EXIT(openThenEnd(), testing::ExitedWithCode(0),
                "Catalog size        = 32KiB \\(node size = 4KiB, total nodes = 8, free nodes = 6"
                "\\)\n.*Catalog root node   = 1 \\(first leaf node = 1, last leaf node = 1\\)\n");
}

// By CNID.

TEST(HFSPlusCatalog, AFileIsFoundByItsCNIDInHostOrder)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    const HFSPlusCatalogAnswer answer = lookUp(volume->catalog(), 20);

    ASSERT_TRUE(answer.succeeded) << answer.error;
    const HFSPlusCatalogLookupRecord& record = answer.record;
    EXPECT_EQ(record.recordType, kHFSPlusFileRecord);
    EXPECT_EQ(record.keyLength, 18);
    EXPECT_EQ(record.parentID, 2U);
    ASSERT_EQ(record.nameLength, 6);
    EXPECT_EQ(std::u16string(record.name.begin(), record.name.begin() + 6), u"Readme");
    EXPECT_EQ(record.file.fileID, 20U);
    EXPECT_EQ(record.file.dataFork.totalBlocks, 10U);
    EXPECT_EQ(record.file.dataFork.logicalSize, 40960U);
    EXPECT_EQ(record.file.dataFork.extents[0].startBlock, 600U);
    EXPECT_EQ(record.file.resourceFork.extents[0].startBlock, 700U);
    EXPECT_EQ(record.file.resourceFork.extents[0].blockCount, 5U);
}

TEST(HFSPlusCatalog, FoldersAndTheRootFolderAreFoundByTheirCNID)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    const HFSPlusCatalogAnswer library = lookUp(volume->catalog(), 30);
    const HFSPlusCatalogAnswer root = lookUp(volume->catalog(), 2);

    EXPECT_EQ(library.record.recordType, kHFSPlusFolderRecord);
    EXPECT_EQ(library.record.folder.folderID, 30U);
    EXPECT_EQ(library.record.folder.valence, 1U);
    EXPECT_EQ(root.record.recordType, kHFSPlusFolderRecord);
    EXPECT_EQ(root.record.parentID, 1U);
    EXPECT_EQ(root.record.cnid(), 2U);
}

TEST(HFSPlusCatalog, AnUnknownCNIDSucceedsWithRecordTypeZero)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    for (const uint32_t cnid : {0U, 1U, 5U, 25U, 99U, 0xFFFFFFFFU}) {
        const HFSPlusCatalogAnswer answer = lookUp(volume->catalog(), cnid);
        EXPECT_TRUE(answer.succeeded) << answer.error;
        EXPECT_EQ(answer.record.recordType, 0) << cnid;
    }
}

TEST(HFSPlusCatalog, AThreadWithoutItsRecordSucceedsWithRecordTypeZero)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory(volume->catalog(), 20, u"").setData32(4, 30);

    const HFSPlusCatalogAnswer answer = lookUp(volume->catalog(), 20);

    EXPECT_TRUE(answer.succeeded) << answer.error;
    EXPECT_EQ(answer.record.recordType, 0);
}

TEST(HFSPlusCatalog, ARecordOfAnotherTypeUnderAThreadsKeyCountsAsNone)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory(volume->catalog(), 20, u"").setData16(0, 77);

    const HFSPlusCatalogAnswer answer = lookUp(volume->catalog(), 20);

    EXPECT_TRUE(answer.succeeded) << answer.error;
    EXPECT_EQ(answer.record.recordType, 0);
}

TEST(HFSPlusCatalog, EveryFileOfATreeOfManyLevelsIsFound)
{
    HFSPlusVolumeBuilder builder;
    builder.manyFiles(500, nullptr, "/many", 1000);
    builder.catalogTree().maximumLeafRecords = 4;
    builder.catalogTree().maximumIndexRecords = 5;
    builder.catalogTree().shuffled = true;
    HFSPlusOpenedVolume volume(builder.totalBlocks(4000));
    ASSERT_TRUE(volume) << volume.error();
    ASSERT_GE(volume->catalog().headerRecord().treeDepth, 4);

    for (uint32_t cnid = 1000; cnid < 1500; ++cnid) {
        const HFSPlusCatalogAnswer byID = lookUp(volume->catalog(), cnid);
        ASSERT_TRUE(byID.record.isFile()) << cnid << byID.error;
        ASSERT_EQ(byID.record.cnid(), cnid);
        const HFSPlusCatalogAnswer path = pathOf(volume->catalog(), cnid);
        ASSERT_TRUE(path.path.starts_with("/many/")) << path.path;
        ASSERT_EQ(lookUp(volume->catalog(), path.path).record.cnid(), cnid);
    }
}

// By path.

TEST(HFSPlusCatalog, APathLeadsThroughFolders)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(lookUp(volume->catalog(), "/Readme").record.cnid(), 20U);
    EXPECT_EQ(lookUp(volume->catalog(), "/Library").record.cnid(), 30U);
    EXPECT_EQ(lookUp(volume->catalog(), "/Library/Fonts/Arial").record.cnid(), 32U);
}

TEST(HFSPlusCatalog, EmptyComponentsAreSkipped)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(lookUp(volume->catalog(), "//Library///Fonts/").record.cnid(), 31U);
    EXPECT_EQ(lookUp(volume->catalog(), "Library/Fonts").record.cnid(), 31U);
}

TEST(HFSPlusCatalog, LookingUpAMissingFileInTheRootFolderSucceedsWithRecordTypeZero)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    const HFSPlusCatalogAnswer answer = lookUp(volume->catalog(), "/nonexistent");

    EXPECT_TRUE(answer.succeeded) << answer.error;
    EXPECT_EQ(answer.record.recordType, 0);
}

TEST(HFSPlusCatalog, LookingUpASlashAloneNeverGivesTheRootFolder)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    for (const char* const path : {"/", "", "///"}) {
        const HFSPlusCatalogAnswer answer = lookUp(volume->catalog(), path);
        EXPECT_TRUE(answer.succeeded) << answer.error;
        EXPECT_EQ(answer.record.recordType, 0) << path;
    }
}

TEST(HFSPlusCatalog, LookingUpAMissingFileInAFolderGivesTheFolder)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    const HFSPlusCatalogAnswer answer = lookUp(volume->catalog(), "/Library/nonexistent");
    const HFSPlusCatalogAnswer deeper = lookUp(volume->catalog(), "/Library/Fonts/no/more");

    EXPECT_TRUE(answer.succeeded) << answer.error;
    EXPECT_EQ(answer.record.recordType, kHFSPlusFolderRecord);
    EXPECT_EQ(answer.record.cnid(), 30U);
    EXPECT_EQ(deeper.record.cnid(), 31U);
}

TEST(HFSPlusCatalog, LookingUpAnythingBelowAFileGivesTheFile)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    const HFSPlusCatalogAnswer answer = lookUp(volume->catalog(), "/Readme/data");

    EXPECT_EQ(answer.record.recordType, kHFSPlusFileRecord);
    EXPECT_EQ(answer.record.cnid(), 20U);
}

TEST(HFSPlusCatalog, AComponentWithAColonFindsANameWithASlash)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    const HFSPlusCatalogAnswer answer = lookUp(volume->catalog(), "/a:b");

    EXPECT_EQ(answer.record.cnid(), 40U);
    ASSERT_EQ(answer.record.nameLength, 3);
    EXPECT_EQ(answer.record.name[1], u'/');
}

TEST(HFSPlusCatalog, AComponentWithAColonPrefersANameWithAColon)
{
    HFSPlusOpenedVolume volume(smallCatalog().file("/a:c", 41));
    ASSERT_TRUE(volume) << volume.error();
    // The keys are a/b and a/c; the second becomes a:b, which still comes after the first.
    HFSPlusCatalogRecordInMemory record(volume->catalog(), 2, u"a/c");
    record.setKey16(10, u':');
    record.setKey16(12, u'b');

    EXPECT_EQ(lookUp(volume->catalog(), "/a:b").record.cnid(), 41U);
}

TEST(HFSPlusCatalog, AComponentWithAColonThatIsStillMissingLeavesRecordTypeZero)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    for (const char* const path : {"/x:y", "/Library/x:y", "/Library/x:y/Fonts"}) {
        const HFSPlusCatalogAnswer answer = lookUp(volume->catalog(), path);
        EXPECT_TRUE(answer.succeeded) << answer.error;
        EXPECT_EQ(answer.record.recordType, 0) << path;
    }
}

TEST(HFSPlusCatalog, AComposedPathFindsADecomposedName)
{
    HFSPlusVolumeBuilder builder;
    builder.file("/cafe\xCC\x81", 20);
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(lookUp(volume->catalog(), "/caf\xC3\xA9").record.cnid(), 20U);
    EXPECT_EQ(pathOf(volume->catalog(), 20).path, "/cafe\xCC\x81");
}

TEST(HFSPlusCatalog, AComponentOfMoreThan255UnitsIsRefused)
{
    const std::string longest(255, 'x');
    HFSPlusVolumeBuilder builder;
    builder.file("/" + longest, 20);
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(lookUp(volume->catalog(), "/" + longest).record.cnid(), 20U);
    EXPECT_EQ(lookUp(volume->catalog(), "/" + longest + "x").error, kComponentTooLong);
    // Characters beyond 16 bits take two units each.
    EXPECT_EQ(lookUp(volume->catalog(), "/" + repeated("\xF0\x9F\x98\x80", 127)).error, "");
    EXPECT_EQ(lookUp(volume->catalog(), "/" + repeated("\xF0\x9F\x98\x80", 128)).error,
              kComponentTooLong);
}

TEST(HFSPlusCatalog, AComponentOfMoreThan510BytesOnceDecomposedIsRefused)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    const HFSPlusCatalogAnswer answer = lookUp(volume->catalog(), "/" + repeated("\xC3\xA9", 128));

    EXPECT_FALSE(answer.succeeded);
    EXPECT_EQ(answer.error, "Unicode path conversion failed. An error 7 occurred.");
    EXPECT_EQ(lookUp(volume->catalog(), "/" + repeated("\xC3\xA9", 127)).error, "");
}

TEST(HFSPlusCatalog, AComponentThatIsNotUTF8IsRefused)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    const HFSPlusCatalogAnswer answer = lookUp(volume->catalog(), "/Library/\xFF");

    EXPECT_FALSE(answer.succeeded);
    EXPECT_EQ(answer.error, "Unicode path conversion failed. An error 84 occurred.");
}

// Paths of CNIDs.

TEST(HFSPlusCatalog, SpecialFilesHaveFixedPathsWithoutALookUp)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(pathOf(volume->catalog(), 3).path, "(HFS+ Extents File)");
    EXPECT_EQ(pathOf(volume->catalog(), 4).path, "(HFS+ Catalog File)");
    EXPECT_EQ(pathOf(volume->catalog(), 5).path, "(HFS+ Bad Block File)");
    EXPECT_EQ(pathOf(volume->catalog(), 6).path, "(HFS+ Allocation File)");
    EXPECT_EQ(pathOf(volume->catalog(), 7).path, "(HFS+ Startup File)");
    EXPECT_EQ(pathOf(volume->catalog(), 8).path, "(HFS+ Attributes File)");
    EXPECT_TRUE(volume.operations().empty());
}

TEST(HFSPlusCatalog, TheRootFolderAndTheIDsBelowItHaveEmptyPaths)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    for (const uint32_t cnid : {0U, 1U, 2U}) {
        const HFSPlusCatalogAnswer answer = pathOf(volume->catalog(), cnid);
        EXPECT_TRUE(answer.succeeded) << answer.error;
        EXPECT_EQ(answer.path, "") << cnid;
    }
    EXPECT_TRUE(volume.operations().empty());
}

TEST(HFSPlusCatalog, PathsBeginWithASlashAndShowSlashesInNamesAsColons)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(pathOf(volume->catalog(), 20).path, "/Readme");
    EXPECT_EQ(pathOf(volume->catalog(), 32).path, "/Library/Fonts/Arial");
    EXPECT_EQ(pathOf(volume->catalog(), 40).path, "/a:b");
}

TEST(HFSPlusCatalog, ACNIDThatDoesNotLeadToTheRootFolderSucceedsWithoutAPath)
{
    HFSPlusOpenedVolume volume(smallCatalog());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory(volume->catalog(), 31, u"").setData32(4, 777);

    for (const uint32_t cnid : {9U, 99U, 31U, 32U}) {
        const HFSPlusCatalogAnswer answer = pathOf(volume->catalog(), cnid);
        EXPECT_TRUE(answer.succeeded) << answer.error;
        EXPECT_EQ(answer.path, "") << cnid;
    }
}

TEST(HFSPlusCatalog, APathOfMoreThan1024UnitsIsRefused)
{
    const std::string longest = "/" + std::string(255, 'x');
    HFSPlusVolumeBuilder builder;
    builder.file(repeated(longest, 4), 20).file(repeated(longest, 3) + "/y/z", 21);
    builder.folder(repeated(longest, 3) + "/" + std::string(254, 'y'), 30);
    builder.file(repeated(longest, 3) + "/" + std::string(254, 'y') + "/z", 31);
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_EQ(pathOf(volume->catalog(), 20).path, repeated(longest, 4));
    EXPECT_EQ(pathOf(volume->catalog(), 21).path, repeated(longest, 3) + "/y/z");
    EXPECT_EQ(pathOf(volume->catalog(), 31).error, kComponentTooLong);
}

}  // namespace
