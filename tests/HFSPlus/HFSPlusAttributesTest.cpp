#include "HFSPlus/HFSPlusAttributes.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/HFSPlusOpenedVolume.h"

namespace {

std::vector<uint8_t> rawKey(uint32_t fileID, std::u16string_view name, uint32_t startBlock)
{
    std::vector<uint8_t> bytes;
    const auto append = [&bytes](uint32_t value, unsigned size) {
        for (unsigned shift = 8 * size; shift > 0; shift -= 8) {
            bytes.push_back(static_cast<uint8_t>(value >> (shift - 8) & 0xFF));
        }
    };
    append(static_cast<uint32_t>(12 + 2 * name.size()), 2);
    append(0, 2);
    append(fileID, 4);
    append(startBlock, 4);
    append(static_cast<uint32_t>(name.size()), 2);
    for (const char16_t unit : name) {
        append(unit, 2);
    }
    return bytes;
}

/** Two files with an attribute each. */
HFSPlusVolumeBuilder twoAttributes()
{
    HFSPlusVolumeBuilder builder;
    builder.file("/one", 20).attribute("note", "1").file("/two", 21).attribute("note", "2");
    return builder;
}

TEST(HFSPlusAttributes, KeysCompareByFileThenNameThenStartBlock)
{
    const auto compare = [](const std::vector<uint8_t>& left, const std::vector<uint8_t>& right) {
        return HFSPlusAttributes::compare(left, right);
    };

    EXPECT_LT(compare(rawKey(4, u"z", 9), rawKey(0x80000000, u"a", 0)), 0);
    EXPECT_GT(compare(rawKey(5, u"b", 0), rawKey(5, u"a", 9)), 0);
    EXPECT_LT(compare(rawKey(5, u"a", 1), rawKey(5, u"a", 0x80000000)), 0);
    EXPECT_EQ(compare(rawKey(5, u"a", 1), rawKey(5, u"a", 1)), 0);
}

TEST(HFSPlusAttributes, OfTwoNamesTheSmallerUnitDecidesBeforeTheLength)
{
    EXPECT_GT(HFSPlusAttributes::compare(rawKey(5, u"b", 0), rawKey(5, u"ab", 0)), 0);
    EXPECT_LT(HFSPlusAttributes::compare(rawKey(5, u"ab", 0), rawKey(5, u"b", 0)), 0);
}

TEST(HFSPlusAttributes, ANameSortsBeforeThoseThatItBegins)
{
    EXPECT_LT(HFSPlusAttributes::compare(rawKey(5, u"a", 9), rawKey(5, u"ab", 0)), 0);
    EXPECT_LT(HFSPlusAttributes::compare(rawKey(5, u"", 9), rawKey(5, u"a", 0)), 0);
}

TEST(HFSPlusAttributes, NamesAreNotFolded)
{
    EXPECT_LT(HFSPlusAttributes::compare(rawKey(5, u"NOTE", 0), rawKey(5, u"note", 0)), 0);
    EXPECT_GT(HFSPlusAttributes::compare(rawKey(5, u"a\u200D", 0), rawKey(5, u"a", 0)), 0);
}

TEST(HFSPlusAttributes, AVolumeWithAnAttributesFileOpensIt)
{
    HFSPlusOpenedVolume volume(twoAttributes());
    ASSERT_TRUE(volume) << volume.error();

    ASSERT_NE(volume->attributes(), nullptr);
    EXPECT_EQ(volume->attributes()->fileID(), 8U);
    EXPECT_EQ(volume->attributes()->headerRecord().leafRecords, 2U);
}

TEST(HFSPlusAttributes, FlushingSucceedsAndWritesNothing)
{
    HFSPlusOpenedVolume volume(twoAttributes());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusAttributes& attributes = *volume->attributes();
    attributes.cachedNodeWithIndex(attributes.firstLeafNode(), {}, nullptr)->setFLink(1);

    EXPECT_TRUE(attributes.flush());

    EXPECT_EQ(volume.memory().writeCount(), 0U);
}

TEST(HFSPlusAttributes, LogsItsSizesAndNodesWhenOpened)
{
    HFSPlusVolumeBuilder builder = twoAttributes().attributesNodeSize(4096).freeAttributesNodes(14);
    const auto openThenEnd = [&builder] {
        const HFSPlusOpenedVolume volume(builder);
        std::_Exit(volume ? 0 : 1);
    };
    // The level is read once in a process, so the opening gets a process of its own.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ASSERT_EQ(setenv("KLDebugLevel", "info", 1), 0);

    EXPECT_EXIT(openThenEnd(), testing::ExitedWithCode(0),
                "Attributes size     = 64KiB \\(node size = 4KiB, total nodes = 16\\)\n"
                ".*Attributes root node = 1 \\(first leaf node = 1, last leaf node = 1\\)\n");
}

}  // namespace
