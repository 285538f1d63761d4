#include "ControlText.h"

#include <gtest/gtest.h>

#include <clocale>
#include <string>

namespace {

using enum ControlCharacters;

/** A locale that knows how wide the characters of Unicode are. */
class ControlTextInUTF8 : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr); }
    void TearDown() override { std::setlocale(LC_ALL, "C"); }
};

TEST(ControlText, PlainTextIsNotEscaped)
{
    EXPECT_EQ(escapedForTerminal("/Users/a b~", kASCII), "/Users/a b~");
    EXPECT_EQ(escapedForTerminal("/Büro/é 日本", kUnicode), "/Büro/é 日本");
}

TEST(ControlText, ControlCharactersAreEscaped)
{
    EXPECT_EQ(escapedForTerminal("a\x1b[2Jb\r\n\t\x7f", kUnicode),
              "a\\x1B[2Jb\\x0D\\x0A\\x09\\x7F");
    EXPECT_EQ(escapedForTerminal(std::string_view("\0x", 2), kUnicode), "\\x00x");
    EXPECT_EQ(escapedForTerminal("\xC2\x9B", kUnicode), "\\u{009B}");
}

TEST(ControlText, MarksThatTurnOrHideTextAreEscaped)
{
    EXPECT_EQ(escapedForTerminal("a\u202Eb", kUnicode), "a\\u{202E}b");
    EXPECT_EQ(escapedForTerminal("\u2028\u200B\uFEFF\u2066", kUnicode),
              "\\u{2028}\\u{200B}\\u{FEFF}\\u{2066}");
    EXPECT_EQ(escapedForTerminal("\U000E0041", kUnicode), "\\u{E0041}");
    EXPECT_EQ(escapedForTerminal("\xEF\xBF\xBE\xEF\xBF\xBF", kUnicode), "\\u{FFFE}\\u{FFFF}");
}

TEST(ControlText, BytesThatAreNoUTF8AreEscapedOneByOne)
{
    EXPECT_EQ(escapedForTerminal("\xFFz", kUnicode), "\\xFFz");
    EXPECT_EQ(escapedForTerminal("\xC3", kUnicode), "\\xC3");
    EXPECT_EQ(escapedForTerminal("\xC3(", kUnicode), "\\xC3(");
    EXPECT_EQ(escapedForTerminal("\xC0\xAF", kUnicode), "\\xC0\\xAF");
    EXPECT_EQ(escapedForTerminal("\xED\xA0\x80", kUnicode), "\\xED\\xA0\\x80");
    EXPECT_EQ(escapedForTerminal("\xF4\x90\x80\x80", kUnicode), "\\xF4\\x90\\x80\\x80");
    EXPECT_EQ(escapedForTerminal("\xE0\x80\xAF", kUnicode), "\\xE0\\x80\\xAF");
}

TEST(ControlText, ABackslashBecomesTwoSoThatEscapesAreUnambiguous)
{
    EXPECT_EQ(escapedForTerminal("\\x1B", kUnicode), "\\\\x1B");
}

TEST(ControlText, OnlyASCIIIsLeftWhereOnlyThatCanBeShown)
{
    EXPECT_EQ(escapedForTerminal("é", kASCII), "\\u{00E9}");
    EXPECT_EQ(escapedForTerminal("😀", kASCII), "\\u{1F600}");
}

TEST_F(ControlTextInUTF8, TheLocaleAllowsUnicode)
{
    EXPECT_EQ(charactersOfLocale(), kUnicode);
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(charactersOfLocale(), kASCII);
}

TEST_F(ControlTextInUTF8, WideCharactersTakeTwoCellsAndCombiningOnesNone)
{
    EXPECT_EQ(cellsOf("abc"), 3U);
    EXPECT_EQ(cellsOf("日本"), 4U);
    EXPECT_EQ(cellsOf("e\u0301"), 1U);
    EXPECT_EQ(cellsOf(""), 0U);
}

TEST_F(ControlTextInUTF8, FittedTextLosesItsMiddle)
{
    EXPECT_EQ(fitted("abcdefghij", 10, kUnicode), "abcdefghij");
    EXPECT_EQ(fitted("abcdefghij", 7, kUnicode), "abc…hij");
    EXPECT_EQ(fitted("abcdefghij", 7, kASCII), "ab...ij");
    EXPECT_EQ(fitted("abcdefghij", 3, kASCII), "abc");
    EXPECT_EQ(fitted("abcdefghij", 0, kUnicode), "");
}

TEST_F(ControlTextInUTF8, FittedTextIsNeverTooWide)
{
    const std::string text = "日本語/e\u0301e\u0301/\xFF end of a 名";
    for (size_t cells = 0; cells < 30; cells++) {
        EXPECT_LE(cellsOf(fitted(text, cells, kUnicode)), cells);
        EXPECT_LE(cellsOf(fitted(text, cells, kASCII)), cells);
    }
}

TEST_F(ControlTextInUTF8, AMarkOfACharacterThatWasCutOffGoesWithIt)
{
    EXPECT_EQ(fitted("abcde\u0301f", 4, kUnicode), "a…\u0065\u0301f");
    EXPECT_EQ(fitted("abcde\u0301f", 3, kUnicode), "a…f");
}

TEST(ControlText, LongNumbersAreGrouped)
{
    EXPECT_EQ(grouped(0), "0");
    EXPECT_EQ(grouped(999), "999");
    EXPECT_EQ(grouped(1000), "1,000");
    EXPECT_EQ(grouped(1234567), "1,234,567");
    EXPECT_EQ(grouped(UINT64_MAX), "18,446,744,073,709,551,615");
}

TEST(ControlText, SizesHaveThreeDigitsAndAUnit)
{
    EXPECT_EQ(readableSize(0), "0 B");
    EXPECT_EQ(readableSize(1023), "1023 B");
    EXPECT_EQ(readableSize(1024), "1.00 KiB");
    EXPECT_EQ(readableSize(1536), "1.50 KiB");
    EXPECT_EQ(readableSize(uint64_t{12} << 30U), "12.0 GiB");
    EXPECT_EQ(readableSize(uint64_t{999} << 20U), "999 MiB");
    EXPECT_EQ(readableSize(uint64_t{1000} << 20U), "0.98 GiB");
    EXPECT_EQ(readableSize(UINT64_MAX), "16.0 EiB");
}

TEST(ControlText, DurationsHaveHoursOnlyWhenTheyLastOne)
{
    EXPECT_EQ(readableDuration(0), "0:00");
    EXPECT_EQ(readableDuration(7.9), "0:07");
    EXPECT_EQ(readableDuration(754), "12:34");
    EXPECT_EQ(readableDuration(3600), "1:00:00");
    EXPECT_EQ(readableDuration(11045), "3:04:05");
}

TEST(ControlText, WhatIsNoDurationIsUnknown)
{
    EXPECT_EQ(readableDuration(-1), "?");
    EXPECT_EQ(readableDuration(0.0 / 0.0), "?");
    EXPECT_EQ(readableDuration(1e300), "?");
}

TEST(ControlText, PercentsHaveOneDecimalAndNothingOfNothingIsNone)
{
    EXPECT_EQ(readablePercent(1, 3), "33.3");
    EXPECT_EQ(readablePercent(3, 3), "100.0");
    EXPECT_EQ(readablePercent(0, 0), "0.0");
}

}  // namespace
