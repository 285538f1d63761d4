#include "HFSPlus/HFSPlusUnicode.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iomanip>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Row = std::vector<std::string>;

/** The rows of a table below its headings. */
std::vector<Row> rowsOfTable(const std::string& name)
{
    std::ifstream file(std::string(VZ_UNICODE_DATA_DIR) + "/" + name);
    std::vector<Row> rows;
    std::string line;
    std::getline(file, line);
    while (std::getline(file, line)) {
        const size_t comma = line.find(',');
        rows.push_back({line.substr(0, comma), line.substr(comma + 1)});
    }
    return rows;
}

uint32_t number(const std::string& text, int base = 16)
{
    return static_cast<uint32_t>(std::stoul(text, nullptr, base));
}

std::u16string unitsOf(const std::string& text)
{
    std::istringstream stream(text);
    std::u16string units;
    std::string part;
    while (stream >> part) {
        units.push_back(static_cast<char16_t>(number(part)));
    }
    return units;
}

std::vector<uint8_t> onDisk(std::u16string_view name)
{
    std::vector<uint8_t> bytes;
    for (const char16_t unit : name) {
        bytes.push_back(static_cast<uint8_t>(unit >> 8));
        bytes.push_back(static_cast<uint8_t>(unit & 0xFF));
    }
    return bytes;
}

int sign(int value)
{
    return (value > 0) - (value < 0);
}

int folded(std::u16string_view left, std::u16string_view right)
{
    return sign(HFSPlusFastUnicodeCompare(onDisk(left), onDisk(right)));
}

int binary(std::u16string_view left, std::u16string_view right)
{
    return sign(HFSPlusBinaryUnicodeCompare(onDisk(left), onDisk(right)));
}

/** The comparison of the technical note, said once more over a map of the table. */
int plainlyFolded(const std::map<char16_t, char16_t>& table, std::u16string_view left,
                  std::u16string_view right)
{
    const auto fold = [&table](std::u16string_view name) {
        std::u16string result;
        for (const char16_t unit : name) {
            const auto row = table.find(unit);
            const char16_t value = row == table.end() ? unit : row->second;
            if (value != 0) {
                result.push_back(value);
            }
        }
        return result;
    };
    return sign(fold(left).compare(fold(right)));
}

TEST(HFSPlusUnicode, EveryUnitFoldsAsItsRowSaysAndAllOthersToThemselves)
{
    std::vector<uint32_t> expected(0x10000);
    for (uint32_t unit = 0; unit < expected.size(); ++unit) {
        expected[unit] = unit;
    }
    const std::vector<Row> rows = rowsOfTable("case-folding.csv");
    for (const Row& row : rows) {
        expected[number(row[0])] = number(row[1]);
    }

    ASSERT_EQ(rows.size(), 329U);
    for (uint32_t unit = 0; unit < expected.size(); ++unit) {
        ASSERT_EQ(HFSPlusFoldedUnit(static_cast<uint16_t>(unit)), expected[unit]) << unit;
    }
}

TEST(HFSPlusUnicode, EveryRowIsDecomposedAndAllOtherUnitsStay)
{
    std::map<uint32_t, std::u16string> expected;
    for (const Row& row : rowsOfTable("decomposition.csv")) {
        expected[number(row[0])] = unitsOf(row[1]);
    }

    ASSERT_EQ(expected.size(), 970U);
    for (uint32_t unit = 0; unit < 0x10000; ++unit) {
        if (unit >= 0xAC00 && unit <= 0xD7A3) {
            continue;
        }
        const std::u16string name(1, static_cast<char16_t>(unit));
        const auto row = expected.find(unit);
        ASSERT_EQ(HFSPlusDecomposedName(name), row == expected.end() ? name : row->second) << unit;
    }
}

TEST(HFSPlusUnicode, EveryHangulSyllableBecomesItsJamos)
{
    uint32_t syllable = 0xAC00;
    for (uint32_t lead = 0x1100; lead <= 0x1112; ++lead) {
        for (uint32_t vowel = 0x1161; vowel <= 0x1175; ++vowel) {
            for (uint32_t trail = 0x11A7; trail <= 0x11C2; ++trail) {
                std::u16string jamos = {static_cast<char16_t>(lead), static_cast<char16_t>(vowel)};
                if (trail != 0x11A7) {
                    jamos.push_back(static_cast<char16_t>(trail));
                }
                const std::u16string name(1, static_cast<char16_t>(syllable++));
                ASSERT_EQ(HFSPlusDecomposedName(name), jamos) << syllable;
            }
        }
    }
    EXPECT_EQ(syllable, 0xD7A4U);
}

TEST(HFSPlusUnicode, TwoMarksStandInTheOrderOfTheClassesOfTheirRows)
{
    std::map<char16_t, uint32_t> classes;
    for (const Row& row : rowsOfTable("combining-classes.csv")) {
        const uint32_t code = number(row[0]);
        const std::u16string mark(1, static_cast<char16_t>(code));
        // A mark that is itself replaced shows the classes of its parts instead.
        if (code <= 0xFFFF && HFSPlusDecomposedName(mark) == mark) {
            classes[mark[0]] = number(row[1], 10);
        }
    }

    ASSERT_EQ(classes.size(), 293U);
    for (const auto& [first, firstClass] : classes) {
        for (const auto& [second, secondClass] : classes) {
            const std::u16string name = {u'a', first, second};
            const std::u16string swapped = {u'a', second, first};
            ASSERT_EQ(HFSPlusDecomposedName(name), secondClass < firstClass ? swapped : name)
                << uint32_t{first} << " " << uint32_t{second};
        }
    }
}

TEST(HFSPlusUnicode, UnitsWithoutAClassKeepMarksApart)
{
    std::vector<bool> hasClass(0x10000);
    for (const Row& row : rowsOfTable("combining-classes.csv")) {
        if (number(row[0]) < hasClass.size()) {
            hasClass[number(row[0])] = true;
        }
    }

    for (uint32_t unit = 1; unit < 0x10000; ++unit) {
        const auto base = static_cast<char16_t>(unit);
        if (!hasClass[unit] &&
            HFSPlusDecomposedName(std::u16string(1, base)) == std::u16string(1, base)) {
            const std::u16string name = {u'\u0301', base, u'\u0323'};
            ASSERT_EQ(HFSPlusDecomposedName(name), name) << unit;
        }
    }
}

/** Units as four digits each. */
std::string digitsOf(std::u16string_view units)
{
    std::ostringstream text;
    for (const char16_t unit : units) {
        text << (text.tellp() > 0 ? "-" : "") << std::hex << std::uppercase << std::setw(4)
             << std::setfill('0') << uint32_t{unit};
    }
    return units.empty() ? "nothing" : text.str();
}

struct DecompositionCase {
    std::u16string_view input;
    std::u16string_view stored;
};

void PrintTo(const DecompositionCase& names, std::ostream* stream)
{
    *stream << digitsOf(names.input);
}

class HFSPlusUnicodeDecomposition : public testing::TestWithParam<DecompositionCase> {};

TEST_P(HFSPlusUnicodeDecomposition, GivesTheStoredForm)
{
    EXPECT_EQ(HFSPlusDecomposedName(GetParam().input), GetParam().stored);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, HFSPlusUnicodeDecomposition,
    testing::Values(DecompositionCase{u"\u00E9", u"e\u0301"},
                    DecompositionCase{u"\u1E69", u"s\u0323\u0307"},
                    DecompositionCase{u"s\u0307\u0323", u"s\u0323\u0307"},
                    DecompositionCase{u"\u0344", u"\u0308\u0301"},
                    DecompositionCase{u"\u037E", u";"}, DecompositionCase{u"\u1FEF", u"`"},
                    DecompositionCase{u"\u0622", u"\u0627\u0653"},
                    DecompositionCase{u"\u1F82", u"\u03B1\u0313\u0300\u0345"},
                    DecompositionCase{u"\uAC00", u"\u1100\u1161"},
                    DecompositionCase{u"\uAC01", u"\u1100\u1161\u11A8"},
                    DecompositionCase{u"\uD7A3", u"\u1112\u1175\u11C2"},
                    DecompositionCase{u"\xD7A4", u"\xD7A4"},
                    DecompositionCase{u"\u212B\u2126\uF900", u"\u212B\u2126\uF900"},
                    DecompositionCase{u"\U0001D15E", u"\U0001D15E"}));

struct ComparisonCase {
    std::u16string left;
    std::u16string right;
    int order;
};

void PrintTo(const ComparisonCase& names, std::ostream* stream)
{
    *stream << digitsOf(names.left) << " and " << digitsOf(names.right);
}

class HFSPlusUnicodeComparison : public testing::TestWithParam<ComparisonCase> {};

TEST_P(HFSPlusUnicodeComparison, OrdersNamesByTheirFoldedUnits)
{
    const ComparisonCase& names = GetParam();

    EXPECT_EQ(folded(names.left, names.right), names.order);
    EXPECT_EQ(folded(names.right, names.left), -names.order);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, HFSPlusUnicodeComparison,
    testing::Values(
        ComparisonCase{u"Readme", u"README", 0}, ComparisonCase{u"a\u200Db", u"ab", 0},
        ComparisonCase{u"\u200D", u"", 0}, ComparisonCase{std::u16string(1, u'\0'), u"\xFFFF", 0},
        ComparisonCase{u"ab", u"abc", -1}, ComparisonCase{std::u16string(1, u'\0'), u"\xFFFE", 1},
        ComparisonCase{u"E\u0301", u"e\u0301", 0}, ComparisonCase{u"\u00C9", u"\u00E9", -1},
        ComparisonCase{u"\u00DF", u"ss", 1}, ComparisonCase{u"_", u"A", -1},
        ComparisonCase{u"\u01C5", u"\u01C6", 0}, ComparisonCase{u"\u0410", u"\u0430", 0},
        ComparisonCase{u"", u"", 0}, ComparisonCase{u"", u"a", -1}));

TEST(HFSPlusUnicode, BinaryComparisonNeitherFoldsNorIgnores)
{
    EXPECT_EQ(binary(u"Readme", u"README"), 1);
    EXPECT_EQ(binary(u"\u200D", u""), 1);
    EXPECT_EQ(binary(u"a\u200Db", u"ab"), 1);
    EXPECT_EQ(binary(std::u16string(1, u'\0'), u"\xFFFF"), -1);
    EXPECT_EQ(binary(u"name", u"name"), 0);
}

TEST(HFSPlusUnicode, BinaryComparisonPutsTheShorterNameFirst)
{
    EXPECT_EQ(binary(u"ab", u"abc"), -1);
    EXPECT_EQ(binary(u"abc", u"ab"), 1);
    EXPECT_EQ(binary(u"", u"a"), -1);
    EXPECT_EQ(binary(u"b", u"ab"), 1);
    EXPECT_EQ(binary(u"", u""), 0);
}

TEST(HFSPlusUnicode, BinaryComparisonOrdersWholeUnits)
{
    EXPECT_EQ(binary(u"\u0100", u"\u00FF"), 1);
    EXPECT_EQ(binary(u"\u1234", u"\u1243"), -1);
}

TEST(HFSPlusUnicode, RandomNamesCompareAsTheirWhollyFoldedForms)
{
    std::map<char16_t, char16_t> table;
    std::vector<char16_t> units = {u'a', u'b', u'_', u'\u00DF', u'\xFFFF', u'\xD834'};
    for (const Row& row : rowsOfTable("case-folding.csv")) {
        table[static_cast<char16_t>(number(row[0]))] = static_cast<char16_t>(number(row[1]));
        units.push_back(static_cast<char16_t>(number(row[0])));
        units.push_back(static_cast<char16_t>(number(row[1])));
    }
    constexpr uint32_t kSeed = 20;
    std::mt19937 random(kSeed);

    for (int round = 0; round < 20000; ++round) {
        std::u16string left;
        std::u16string right;
        for (size_t unit = 0; unit < 4; ++unit) {
            if (random() % 4 != 0) {
                left.push_back(units[random() % units.size()]);
            }
            right.push_back(random() % 2 != 0 && !left.empty() ? left.back()
                                                               : units[random() % units.size()]);
        }
        ASSERT_EQ(folded(left, right), plainlyFolded(table, left, right)) << "seed " << kSeed;
    }
}

}  // namespace
