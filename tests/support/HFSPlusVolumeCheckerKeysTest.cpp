#include "support/HFSPlusVolumeCheckerKeys.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

std::vector<uint8_t> catalogKey(uint32_t parentID, const std::vector<uint16_t>& name)
{
    std::vector<uint8_t> key;
    const auto append16 = [&key](size_t value) {
        key.push_back(static_cast<uint8_t>(value >> 8));
        key.push_back(static_cast<uint8_t>(value));
    };
    append16(6 + 2 * name.size());
    append16(parentID >> 16);
    append16(parentID & 0xFFFF);
    append16(name.size());
    for (const uint16_t unit : name) {
        append16(unit);
    }
    return key;
}

int foldedOrder(const std::vector<uint16_t>& left, const std::vector<uint16_t>& right)
{
    return HFSPlusCheckCatalogKeyRule(false).compare(catalogKey(20, left), catalogKey(20, right));
}

}  // namespace

TEST(HFSPlusVolumeCheckerKeys, FoldingIsThePublishedTable)
{
    std::vector<uint16_t> folded(65536);
    for (uint32_t unit = 0; unit < folded.size(); ++unit) {
        folded[unit] = static_cast<uint16_t>(unit);
    }
    std::ifstream table(VZ_TEST_DATA_DIR "/tn1150-case-folding.csv");
    std::string line;
    size_t rowCount = 0;
    while (std::getline(table, line)) {
        unsigned unit = 0;
        unsigned value = 0;
        if (std::sscanf(line.c_str(), "%4X,%4X", &unit, &value) == 2) {
            folded[unit] = static_cast<uint16_t>(value);
            ++rowCount;
        }
    }
    ASSERT_EQ(rowCount, 329U);

    for (uint32_t unit = 0; unit < folded.size(); ++unit) {
        EXPECT_EQ(checkedFoldedUnit(static_cast<uint16_t>(unit)), folded[unit]) << unit;
    }
}

TEST(HFSPlusVolumeCheckerKeys, FoldedNamesCompareAsTheTechnicalNoteSays)
{
    EXPECT_EQ(foldedOrder({'R', 'e', 'a', 'd'}, {'r', 'E', 'A', 'D'}), 0);
    EXPECT_EQ(foldedOrder({'a', 0x200D, 'b'}, {'a', 'b'}), 0);
    EXPECT_EQ(foldedOrder({0x200D}, {}), 0);
    EXPECT_EQ(foldedOrder({0}, {0xFFFF}), 0);
    EXPECT_LT(foldedOrder({'a', 'b'}, {'a', 'b', 'c'}), 0);
    EXPECT_GT(foldedOrder({0}, {'z'}), 0);
    EXPECT_LT(foldedOrder({0x00C9}, {0x00E9}), 0);
    EXPECT_GT(foldedOrder({0x00DF}, {'s', 's'}), 0);
    EXPECT_LT(foldedOrder({'_'}, {'A'}), 0);
    EXPECT_EQ(foldedOrder({0x01C5}, {0x01C6}), 0);
}

TEST(HFSPlusVolumeCheckerKeys, BinaryNamesCompareByTheirUnits)
{
    const HFSPlusCheckCatalogKeyRule rule(true);

    EXPECT_LT(rule.compare(catalogKey(20, {'A'}), catalogKey(20, {'a'})), 0);
    EXPECT_LT(rule.compare(catalogKey(20, {'B'}), catalogKey(20, {'a'})), 0);
    EXPECT_GT(rule.compare(catalogKey(20, {0x200D}), catalogKey(20, {})), 0);
    EXPECT_GT(rule.compare(catalogKey(0x10000, {}), catalogKey(20, {'a'})), 0);
}

TEST(HFSPlusVolumeCheckerKeys, ACatalogKeyMustBeAsLongAsItsName)
{
    const HFSPlusCheckCatalogKeyRule rule(false);
    std::vector<uint8_t> key = catalogKey(20, {'a', 'b'});
    EXPECT_TRUE(rule.isValid(key));

    key[7] = 3;

    EXPECT_FALSE(rule.isValid(key));
}

TEST(HFSPlusVolumeCheckerKeys, ExtentsSortByFileThenForkThenBlock)
{
    const HFSPlusCheckExtentsKeyRule rule;
    using Key = std::array<uint8_t, 12>;
    const Key data = {0, 10, 0, 0, 0, 0, 0, 20, 0, 0, 0, 9};
    const Key laterData = {0, 10, 0, 0, 0, 0, 0, 20, 0, 0, 1, 0};
    const Key resource = {0, 10, 0xFF, 0, 0, 0, 0, 20, 0, 0, 0, 1};
    const Key nextFile = {0, 10, 0, 0, 0, 0, 0, 21, 0, 0, 0, 0};

    EXPECT_LT(rule.compare(data, laterData), 0);
    EXPECT_LT(rule.compare(laterData, resource), 0);
    EXPECT_LT(rule.compare(resource, nextFile), 0);
    EXPECT_EQ(rule.compare(data, data), 0);
}
