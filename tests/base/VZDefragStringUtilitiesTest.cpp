#include "VZDefragStringUtilities.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace std::string_view_literals;

/** A name as on disk: big-endian length and units. */
std::vector<uint8_t> diskName(const std::vector<uint16_t>& units, size_t length)
{
    std::vector<uint8_t> bytes = {static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)};
    for (const uint16_t unit : units) {
        bytes.push_back(static_cast<uint8_t>(unit >> 8));
        bytes.push_back(static_cast<uint8_t>(unit));
    }
    return bytes;
}

std::string nameOf(const std::vector<uint16_t>& units)
{
    return stringWithHFSUniStr255(diskName(units, units.size()));
}

TEST(VZDefragStringUtilities, TextWithoutSpecialCharactersIsUnchanged)
{
    EXPECT_EQ(outputSafeString(""), "");
    EXPECT_EQ(outputSafeString("a b/c\"d\n\xC3\xA4"), "a b/c\"d\n\xC3\xA4");
}

TEST(VZDefragStringUtilities, BackslashCommaAndNulAreEscaped)
{
    EXPECT_EQ(outputSafeString("a,b\\c"), "a\\,b\\\\c");
    EXPECT_EQ(outputSafeString("a\0b"sv), "a\\xC0\\x80b");
    EXPECT_EQ(outputSafeString("\\,\0,\\"sv), "\\\\\\,\\xC0\\x80\\,\\\\");
}

TEST(VZDefragStringUtilities, BackslashesOfTheLaterStepsAreNotDoubledAgain)
{
    EXPECT_EQ(outputSafeString(","), "\\,");
    EXPECT_EQ(outputSafeString("\0"sv), "\\xC0\\x80");
}

TEST(VZDefragStringUtilities, ANameOnDiskContainingASlashReadsBackWithAColonInItsPlace)
{
    EXPECT_EQ(nameOf({'a', '/', 'b'}), "a:b");
    EXPECT_EQ(nameOf({'a', ':', 'b'}), "a:b");
}

TEST(VZDefragStringUtilities, NamesAreNotNormalized)
{
    EXPECT_EQ(nameOf({'a', 0x0308}), "a\xCC\x88");
    EXPECT_EQ(nameOf({0x00E4}), "\xC3\xA4");
}

TEST(VZDefragStringUtilities, NamesOfEveryLengthOfUTF8AreConverted)
{
    EXPECT_EQ(nameOf({0x7F, 0x80, 0x7FF, 0x800, 0xFFFF}),
              "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF");
    EXPECT_EQ(nameOf({0xD83D, 0xDE00}), "\xF0\x9F\x98\x80");
    EXPECT_EQ(nameOf({0xDBFF, 0xDFFF}), "\xF4\x8F\xBF\xBF");
    EXPECT_EQ(nameOf({'a', 0, 'b'}), "a\0b"sv);
}

TEST(VZDefragStringUtilities, UnpairedSurrogatesBecomeReplacementCharacters)
{
    EXPECT_EQ(nameOf({0xD83D}), "\xEF\xBF\xBD");
    EXPECT_EQ(nameOf({0xDE00, 'x'}), "\xEF\xBF\xBDx");
    EXPECT_EQ(nameOf({0xD83D, 0xD83D, 0xDE00}), "\xEF\xBF\xBD\xF0\x9F\x98\x80");
}

TEST(VZDefragStringUtilities, ANameLongerThanItsRecordIsCut)
{
    EXPECT_EQ(stringWithHFSUniStr255(diskName({'a', 'b'}, 65535)), "ab");
    EXPECT_EQ(stringWithHFSUniStr255(diskName({'a', 'b'}, 1)), "a");
    EXPECT_EQ(stringWithHFSUniStr255(std::vector<uint8_t>{0, 2, 0, 'a', 0}), "a");
    EXPECT_EQ(stringWithHFSUniStr255(std::vector<uint8_t>{0}), "");
    EXPECT_EQ(stringWithHFSUniStr255({}), "");
}

TEST(VZDefragStringUtilities, TheLongestNameHas255Units)
{
    EXPECT_EQ(nameOf(std::vector<uint16_t>(255, 'x')), std::string(255, 'x'));
}

TEST(VZDefragStringUtilities, UTF8BecomesUTF16)
{
    std::u16string units;

    EXPECT_TRUE(unicodeUnitsOfString("", units));
    EXPECT_EQ(units, u"");
    EXPECT_TRUE(unicodeUnitsOfString("\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF", units));
    EXPECT_EQ(units, u"\x7F\x80\x7FF\x800\xFFFF");
    EXPECT_TRUE(unicodeUnitsOfString("\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF", units));
    EXPECT_EQ(units, u"\xD83D\xDE00\xDBFF\xDFFF");
    EXPECT_TRUE(unicodeUnitsOfString("a\0b"sv, units));
    EXPECT_EQ(units, u"a\0b"sv);
}

TEST(VZDefragStringUtilities, IllFormedUTF8IsRefused)
{
    const std::vector<std::string_view> texts = {
        "\x80",              // no lead byte
        "\xC0\x80",          // overlong
        "\xC1\xBF",          // overlong
        "\xE0\x9F\xBF",      // overlong
        "\xF0\x8F\xBF\xBF",  // overlong
        "\xED\xA0\x80",      // a surrogate
        "\xED\xBF\xBF",      // a surrogate
        "\xF4\x90\x80\x80",  // beyond Unicode
        "\xF5\x80\x80\x80",  // beyond Unicode
        "\xFF",              // never a lead byte
        "\xE2\x82",          // cut off
        "\xE2\x28\xA1",      // no continuation
        "abc\xC3",           // cut off after good text
    };
    for (const std::string_view text : texts) {
        std::u16string units;
        EXPECT_FALSE(unicodeUnitsOfString(text, units)) << testing::PrintToString(text);
    }
}

TEST(VZDefragStringUtilities, EveryCodePointSurvivesTheWayToUTF16AndBack)
{
    for (uint32_t code = 0; code <= 0x10FFFF; code += code < 0x3000 ? 1 : 251) {
        std::vector<uint16_t> units;
        if (code >= 0xD800 && code <= 0xDFFF) {
            continue;
        }
        if (code < 0x10000) {
            units = {static_cast<uint16_t>(code)};
        } else {
            units = {static_cast<uint16_t>(0xD7C0 + (code >> 10)),
                     static_cast<uint16_t>(0xDC00 + (code & 0x3FF))};
        }
        std::u16string back;
        ASSERT_TRUE(unicodeUnitsOfString(stringWithUnicodeUnits(units), back)) << code;
        ASSERT_EQ(back, std::u16string(units.begin(), units.end())) << code;
    }
}

}  // namespace
