#include "KLKit/KLStringUtilities.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

constexpr const char* kBlanks = " \t";

using Words = std::vector<std::string>;

TEST(KLStringUtilities, ALineWithSpacesAroundItsWordsSplitsIntoTheWords)
{
    EXPECT_EQ(trimmedComponentsSeparatedByCharactersInSet("  SCAN   -f  ", kBlanks),
              (Words{"SCAN", "-f"}));
    EXPECT_EQ(firstComponentSeparatedByCharactersInSet("  SCAN   -f  ", kBlanks), "SCAN");
}

TEST(KLStringUtilities, AnEmptyOrBlankLineHasNoWords)
{
    EXPECT_EQ(trimmedComponentsSeparatedByCharactersInSet("", kBlanks), Words{});
    EXPECT_EQ(trimmedComponentsSeparatedByCharactersInSet(" \t ", kBlanks), Words{});
    EXPECT_EQ(firstComponentSeparatedByCharactersInSet("", kBlanks), "");
    EXPECT_EQ(firstComponentSeparatedByCharactersInSet(" \t ", kBlanks), "");
}

TEST(KLStringUtilities, ALineWithoutSeparatorsIsOneWord)
{
    EXPECT_EQ(trimmedComponentsSeparatedByCharactersInSet("SCAN", kBlanks), Words{"SCAN"});
    EXPECT_EQ(firstComponentSeparatedByCharactersInSet("SCAN", kBlanks), "SCAN");
}

TEST(KLStringUtilities, ACarriageReturnBelongsToTheWord)
{
    EXPECT_EQ(firstComponentSeparatedByCharactersInSet("SCAN\r", kBlanks), "SCAN\r");
    EXPECT_EQ(trimmedComponentsSeparatedByCharactersInSet("SCAN -f\r", kBlanks),
              (Words{"SCAN", "-f\r"}));
}

TEST(KLStringUtilities, OtherSetsSeparateToo)
{
    EXPECT_EQ(trimmedComponentsSeparatedByCharactersInSet(",boot,,app,", ","),
              (Words{"boot", "app"}));
}

TEST(KLStringUtilities, SmallSizesPrintInBytes)
{
    EXPECT_EQ(stringWithPrettySize(0), "0B");
    EXPECT_EQ(stringWithPrettySize(512), "512B");
    EXPECT_EQ(stringWithPrettySize(1023), "1023B");
}

TEST(KLStringUtilities, WholeUnitsPrintWithoutFraction)
{
    EXPECT_EQ(stringWithPrettySize(1024), "1KiB");
    EXPECT_EQ(stringWithPrettySize(4096), "4KiB");
    EXPECT_EQ(stringWithPrettySize(1048576), "1MiB");
    EXPECT_EQ(stringWithPrettySize(uint64_t{1} << 30), "1GiB");
    EXPECT_EQ(stringWithPrettySize(uint64_t{1} << 40), "1024GiB");
}

TEST(KLStringUtilities, OneAndAHalfKibibytesPrintOneDigit)
{
    EXPECT_EQ(stringWithPrettySize(1536), "1.5KiB");
    EXPECT_EQ(stringWithPrettySize(1280), "1.25KiB");
    EXPECT_EQ(stringWithPrettySize(1152), "1.125KiB");
}

TEST(KLStringUtilities, FractionsPrintWithoutTheirLeadingZeros)
{
    EXPECT_EQ(stringWithPrettySize(1075), "1.49KiB");
    EXPECT_EQ(stringWithPrettySize(1076), "1.5KiB");
}

TEST(KLStringUtilities, AFractionBelowAThousandthIsDropped)
{
    EXPECT_EQ(stringWithPrettySize(1048577), "1MiB");
}

TEST(KLStringUtilities, TheLargestSizePrints)
{
    EXPECT_EQ(stringWithPrettySize(UINT64_MAX), "17179869183.999GiB");
}

TEST(KLStringUtilities, LeadBytesTellTheSizeOfTheirCharacter)
{
    EXPECT_EQ(sizeOfUTF8CharacterWithLeadByte('\x00'), 1U);
    EXPECT_EQ(sizeOfUTF8CharacterWithLeadByte('\xBF'), 1U);
    EXPECT_EQ(sizeOfUTF8CharacterWithLeadByte('\xC0'), 2U);
    EXPECT_EQ(sizeOfUTF8CharacterWithLeadByte('\xDF'), 2U);
    EXPECT_EQ(sizeOfUTF8CharacterWithLeadByte('\xE0'), 3U);
    EXPECT_EQ(sizeOfUTF8CharacterWithLeadByte('\xF0'), 4U);
    EXPECT_EQ(sizeOfUTF8CharacterWithLeadByte('\xF7'), 4U);
    EXPECT_EQ(sizeOfUTF8CharacterWithLeadByte('\xF8'), 5U);
    EXPECT_EQ(sizeOfUTF8CharacterWithLeadByte('\xFF'), 5U);
}

TEST(KLStringUtilities, OnlyShortestFormsAreWellFormed)
{
    EXPECT_TRUE(isWellFormedUTF8Character("a"));
    EXPECT_TRUE(isWellFormedUTF8Character("\xC2\x80"));
    EXPECT_TRUE(isWellFormedUTF8Character("\xE0\xA0\x80"));
    EXPECT_TRUE(isWellFormedUTF8Character("\xF0\x90\x80\x80"));
    EXPECT_TRUE(isWellFormedUTF8Character("\xF4\x8F\xBF\xBF"));

    EXPECT_FALSE(isWellFormedUTF8Character(""));
    EXPECT_FALSE(isWellFormedUTF8Character("\x80"));
    EXPECT_FALSE(isWellFormedUTF8Character("\xC1\xBF"));
    EXPECT_FALSE(isWellFormedUTF8Character("\xC2"));
    EXPECT_FALSE(isWellFormedUTF8Character("\xC2\x41"));
    EXPECT_FALSE(isWellFormedUTF8Character("\xE0\x9F\xBF"));
    EXPECT_FALSE(isWellFormedUTF8Character("\xF0\x8F\xBF\xBF"));
    EXPECT_FALSE(isWellFormedUTF8Character("\xF4\x90\x80\x80"));
    EXPECT_FALSE(isWellFormedUTF8Character("\xF5\x80\x80\x80"));
}

TEST(KLStringUtilities, ATextIsValidOnlyThroughout)
{
    EXPECT_TRUE(isValidUTF8(""));
    EXPECT_TRUE(isValidUTF8("d\xC3\xA9j\xC3\xA0 \xF0\x9F\x93\x81"));
    EXPECT_FALSE(isValidUTF8("d\xC3\xA9j\xC3"));
    EXPECT_FALSE(isValidUTF8("\xFF"));
    EXPECT_FALSE(isValidUTF8("a\xED\xA0\x80"));
}

TEST(KLStringUtilities, AnIntegerIsReadFromTheStartWhateverFollows)
{
    EXPECT_EQ(integerAtStart("12"), 12);
    EXPECT_EQ(integerAtStart("12abc"), 12);
    EXPECT_EQ(integerAtStart(" \t\v12 13"), 12);
    EXPECT_EQ(integerAtStart("+7"), 7);
    EXPECT_EQ(integerAtStart("-7"), -7);
    EXPECT_EQ(integerAtStart("007"), 7);
}

TEST(KLStringUtilities, AnIntegerTooLargeIsTheNearestOf64Bits)
{
    EXPECT_EQ(integerAtStart("9223372036854775807"), INT64_MAX);
    EXPECT_EQ(integerAtStart("9223372036854775808"), INT64_MAX);
    EXPECT_EQ(integerAtStart("-99999999999999999999"), INT64_MIN);
}

TEST(KLStringUtilities, WithoutADigitThereIsNoInteger)
{
    for (const char* text : {"", " ", "abc", "+", "-", "+-5", "-+5", "--5", "- 5", ".5"}) {
        EXPECT_EQ(integerAtStart(text), std::nullopt) << text;
    }
}

}  // namespace
