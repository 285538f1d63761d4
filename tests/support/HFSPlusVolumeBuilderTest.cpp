#include "support/HFSPlusVolumeBuilder.h"

#include <gtest/gtest.h>

#include <set>

#include "support/HFSPlusVolumeBuilderBytes.h"
#include "support/HFSPlusVolumeBuilderContents.h"
#include "support/HFSPlusVolumeBuilderNames.h"
#include "support/HFSPlusVolumeBuilderTesting.h"

namespace {

using CheckedExtents = std::vector<HFSPlusCheckedExtent>;

uint64_t numberAt(const MemoryBlockDevice& device, uint64_t offset, size_t size)
{
    std::array<uint8_t, 8> bytes{};
    device.peek(bytes.data(), size, offset);
    return getBigEndian(bytes.data(), size);
}

TEST(HFSPlusVolumeBuilder, AFileHasTheExtentsItWasGiven)
{
    auto builder = HFSPlusVolumeBuilder{}.totalBlocks(1000).file("/movie", 20).data({{100, 30}});
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    const HFSPlusCheckResult result = checked(*device);
    const HFSPlusCheckedFork* fork = result.forkWithCNID(20);
    ASSERT_NE(fork, nullptr);
    EXPECT_EQ(fork->extents, (CheckedExtents{{100, 30}}));
    EXPECT_EQ(fork->logicalSize, 30U * 4096);
    EXPECT_EQ(result.fileCount, 1U);
    EXPECT_EQ(result.folderCount, 0U);
}

TEST(HFSPlusVolumeBuilder, TheVolumeHeaderLiesInFrontAndAtTheBack)
{
    auto builder = HFSPlusVolumeBuilder{}.blockSize(1024).totalBlocks(2000);
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    EXPECT_EQ(device->size(), 2000U * 1024);
    for (const uint64_t header : {uint64_t{1024}, device->size() - 1024}) {
        EXPECT_EQ(numberAt(*device, header, 2), 0x482BU);
        EXPECT_EQ(numberAt(*device, header + 2, 2), 4U);
        EXPECT_EQ(numberAt(*device, header + 40, 4), 1024U);
        EXPECT_EQ(numberAt(*device, header + 44, 4), 2000U);
    }
}

TEST(HFSPlusVolumeBuilder, EveryBlockOfAForkNamesItsPlace)
{
    auto builder = HFSPlusVolumeBuilder{}.blockSize(512).file("/a", 20).data({{200, 2}, {100, 3}});
    builder.totalBlocks(2000).resource({{300, 1}});
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    EXPECT_EQ(numberAt(*device, 100 * 512, 4), 20U);      // the file
    EXPECT_EQ(numberAt(*device, 100 * 512 + 4, 4), 2U);   // its third block
    EXPECT_EQ(numberAt(*device, 100 * 512 + 24, 4), 1U);  // the second 16 bytes of that
    EXPECT_EQ(numberAt(*device, 200 * 512 + 4, 4), 0U);
    EXPECT_EQ(numberAt(*device, 300 * 512 + 12, 1), 0xFFU);
}

TEST(HFSPlusVolumeBuilder, NoTwoCellsOfContentsAreAlike)
{
    std::set<std::string> cells;
    size_t count = 0;
    for (const uint32_t cnid : {16U, 17U}) {
        for (const uint8_t forkType : {kHFSPlusBuilderDataFork, kHFSPlusBuilderResourceFork}) {
            std::vector<uint8_t> bytes(4096);
            fillForkContents(bytes, cnid, forkType, 0, 512);
            for (size_t index = 0; index < bytes.size(); index += 16, count++) {
                cells.emplace(&bytes[index], &bytes[index] + 16);
            }
        }
    }

    EXPECT_EQ(cells.size(), count);
}

TEST(HFSPlusVolumeBuilder, ContentsDoNotDependOnThePiecesTheyAreWrittenIn)
{
    std::vector<uint8_t> whole(8192);
    std::vector<uint8_t> pieces(8192);
    fillForkContents(whole, 30, 0, 4096, 1024);

    fillForkContents(std::span(pieces).first(1008), 30, 0, 4096, 1024);
    fillForkContents(std::span(pieces).subspan(1008), 30, 0, 4096 + 1008, 1024);

    EXPECT_EQ(pieces, whole);
}

TEST(HFSPlusVolumeBuilder, WithoutContentsDataBlocksStayZero)
{
    auto builder = HFSPlusVolumeBuilder{}.contents(false).file("/a", 20).data({{200, 2}});
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    EXPECT_EQ(numberAt(*device, 200 * 4096, 8), 0U);
}

TEST(HFSPlusVolumeBuilder, TheNinthExtentGoesToTheOverflowFile)
{
    auto builder = HFSPlusVolumeBuilder{}.file("/a", 20).data(comb(100, 17, 2, 3));
    builder.resource(comb(300, 9, 1, 2));
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    const HFSPlusCheckResult result = checked(*device);
    EXPECT_EQ(result.extents.leafRecords, 3U);
    ASSERT_NE(result.forkWithCNID(20), nullptr);
    EXPECT_EQ(result.forkWithCNID(20)->extents.size(), 17U);
    EXPECT_EQ(result.forkWithCNID(20)->extents[16], (HFSPlusCheckedExtent{148, 2}));
    EXPECT_EQ(result.forkWithCNID(20, 0xFF)->extents.size(), 9U);
    ASSERT_EQ(builder.plan().overflow.size(), 3U);
    EXPECT_EQ(builder.plan().overflow[1].startBlock, 32U);
}

TEST(HFSPlusVolumeBuilder, ParentsAreMadeAndCNIDsChosenAroundTheGivenOnes)
{
    auto builder = HFSPlusVolumeBuilder{}.file("/a/b/c", 17).file("/a/d").folder("/e", 16);
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    const HFSPlusCheckResult result = checked(*device);
    EXPECT_EQ(result.fileCount, 2U);
    EXPECT_EQ(result.folderCount, 3U);
    EXPECT_EQ(result.nextCatalogID, 21U);
}

TEST(HFSPlusVolumeBuilder, AKnownPathIsSelectedAgain)
{
    auto builder = HFSPlusVolumeBuilder{}.file("/a", 20).file("/b", 21).data({{300, 1}});
    builder.file("/a").data({{200, 5}}).dataSize(12345);
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    const HFSPlusCheckResult result = checked(*device);
    EXPECT_EQ(result.fileCount, 2U);
    EXPECT_EQ(result.forkWithCNID(20)->logicalSize, 12345U);
    EXPECT_EQ(result.forkWithCNID(20)->extents, (CheckedExtents{{200, 5}}));
}

TEST(HFSPlusVolumeBuilder, OverlapsAndTheLastBlockAreRefused)
{
    auto overlap = HFSPlusVolumeBuilder{}.file("/a").data({{100, 9}}).file("/b").data({{108, 1}});
    auto last = HFSPlusVolumeBuilder{}.totalBlocks(1000).file("/a").data({{990, 10}});
    auto twice = HFSPlusVolumeBuilder{}.file("/a", 20).file("/b", 20);
    auto equal = HFSPlusVolumeBuilder{}.file("/readme").file("/README");

    EXPECT_EQ(overlap.build(), nullptr);
    EXPECT_NE(overlap.error().find("(108, 1)"), std::string::npos) << overlap.error();
    EXPECT_EQ(last.build(), nullptr);
    EXPECT_EQ(twice.build(), nullptr);
    EXPECT_EQ(equal.build(), nullptr);
}

TEST(HFSPlusVolumeBuilder, UncheckedTakesOverlapsThatACheckerFinds)
{
    auto builder = HFSPlusVolumeBuilder{}.unchecked();
    builder.file("/a").data({{100, 9}}).file("/b").data({{108, 1}});
    const auto device = builder.build();
    ASSERT_NE(device, nullptr) << builder.error();

    EXPECT_FALSE(checked(*device).consistent);
}

TEST(HFSPlusVolumeBuilder, NamesSortByFoldingOrByUnits)
{
    EXPECT_EQ(compareNames(u"Readme", u"README", false), 0);
    EXPECT_NE(compareNames(u"Readme", u"README", true), 0);
    EXPECT_EQ(compareNames(u"a\u200Db", u"ab", false), 0);
    EXPECT_LT(compareNames(u"_", u"A", false), 0);
    EXPECT_GT(compareNames(u"_", u"A", true), 0);
    EXPECT_LT(compareNames(u"ab", u"abc", false), 0);
    EXPECT_LT(compareNames(u"\u00C9", u"\u00E9", false), 0);
    EXPECT_EQ(compareNames(u"\u0410", u"\u0430", false), 0);
    EXPECT_EQ(compareNames(std::u16string(1, u'\0'), u"\uFFFF", false), 0);
}

TEST(HFSPlusVolumeBuilder, PathsKeepNulsAndTurnColonsIntoSlashes)
{
    const std::vector<std::u16string> expected = {std::u16string(u"a\0b", 3), u"c/d"};

    EXPECT_EQ(unitsOfPath(std::string_view("/a\0b//c:d/", 10)), expected);
    EXPECT_EQ(unitsOfText("\xF0\x9D\x84\x9E"), u"\xD834\xDD1E");
    EXPECT_EQ(unitsOfText("\x80x"), u"\xFFFDx");
}

TEST(HFSPlusVolumeBuilder, ASymbolicLinkHoldsItsTarget)
{
    auto builder = HFSPlusVolumeBuilder{}.symbolicLink("/link", 20, "a/b");
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    const HFSPlusCheckResult result = checked(*device);
    const uint64_t offset = uint64_t{result.forkWithCNID(20)->extents[0].startBlock} * 4096;
    std::string target(3, ' ');
    device->peek(target.data(), 3, offset);
    EXPECT_EQ(target, "a/b");
    EXPECT_EQ(result.forkWithCNID(20)->logicalSize, 3U);
}

TEST(HFSPlusVolumeBuilder, ManyFilesMixWithOthersOfTheirFolder)
{
    const auto generator = [](uint64_t index, HFSPlusBuilderBulkFile& file) {
        file.name = "m" + std::to_string(1000 + index);
        file.data.extents = {{static_cast<uint32_t>(500 + 2 * index), 1}};
    };
    auto builder = HFSPlusVolumeBuilder{}.totalBlocks(2000).manyFiles(300, generator, "/x", 100);
    builder.file("/x/a").file("/x/m1100b").folder("/x/z").file("/later", 5000);
    const auto device = builtSound(builder);
    ASSERT_NE(device, nullptr);

    const HFSPlusCheckResult result = checked(*device);
    EXPECT_EQ(result.fileCount, 303U);
    EXPECT_EQ(result.forkWithCNID(399)->extents, (CheckedExtents{{1098, 1}}));
    EXPECT_EQ(result.nextCatalogID, 5001U);
}

TEST(HFSPlusVolumeBuilder, ManyFilesOutOfOrderAreRefused)
{
    const auto generator = [](uint64_t index, HFSPlusBuilderBulkFile& file) {
        file.name = std::to_string(20 - index);
    };
    auto builder = HFSPlusVolumeBuilder{}.manyFiles(5, generator);

    EXPECT_EQ(builder.build(), nullptr);
    EXPECT_NE(builder.error().find("order"), std::string::npos);
}

TEST(HFSPlusVolumeBuilder, AHundredThousandFilesMakeACatalogOfThreeLevels)
{
    auto builder = HFSPlusVolumeBuilder{}.totalBlocks(100000).manyFiles(100000);
    const auto device = builder.build();
    ASSERT_NE(device, nullptr) << builder.error();

    const HFSPlusCheckResult result = checked(*device);
    EXPECT_TRUE(result.consistent) << result.description();
    EXPECT_EQ(result.catalog.treeDepth, 3U);
    EXPECT_EQ(result.catalog.leafRecords, 200004U);
}

}  // namespace
