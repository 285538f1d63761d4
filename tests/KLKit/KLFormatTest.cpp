#include "KLKit/KLFormat.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

namespace {

TEST(KLFormat, TextWithoutPlaceholdersStaysAsItIs)
{
    EXPECT_EQ(KLFormatString("No device specified."), "No device specified.");
    EXPECT_EQ(KLFormatString(""), "");
}

TEST(KLFormat, TwoPercentSignsAreOne)
{
    EXPECT_EQ(KLFormatString("100%% of %u%%", 7), "100% of 7%");
}

TEST(KLFormat, PlaceholdersTakeTheirArgumentsInOrder)
{
    EXPECT_EQ(KLFormatString("%s,%d,%u,%@", "DEFRAG", -1, 2U, std::string("x")), "DEFRAG,-1,2,x");
}

TEST(KLFormat, PositionsPickTheirArgumentWhereverTheyStand)
{
    EXPECT_EQ(KLFormatString("%2$llu%1$s", "KiB", uint64_t{4}), "4KiB");
}

TEST(KLFormat, ADoubledPositionPrintsItsArgumentTwice)
{
    EXPECT_EQ(KLFormatString("%1$@ and %1$@", "a"), "a and a");
}

TEST(KLFormat, LengthModifiersDoNotCutNumbers)
{
    const uint64_t large = std::numeric_limits<uint64_t>::max();
    EXPECT_EQ(KLFormatString("%hhu %u %lu %llu %qu %ju %zu", large, large, large, large, large,
                             large, large),
              "18446744073709551615 18446744073709551615 18446744073709551615 "
              "18446744073709551615 18446744073709551615 18446744073709551615 "
              "18446744073709551615");
    EXPECT_EQ(KLFormatString("%lld", std::numeric_limits<int64_t>::min()), "-9223372036854775808");
}

TEST(KLFormat, WidthAndFlagsAlignAsInC)
{
    EXPECT_EQ(KLFormatString("[%5d][%-5d][%05d][%+d][% d]", 42, 42, -42, 42, 42),
              "[   42][42   ][-0042][+42][ 42]");
    EXPECT_EQ(KLFormatString("[%*s][%-*s]", 3, "a", 3, "b"), "[  a][b  ]");
    EXPECT_EQ(KLFormatString("[%*s]", -3, "a"), "[a  ]");
    EXPECT_EQ(KLFormatString("%2$*1$s", 4, "a"), "   a");
}

TEST(KLFormat, HexadecimalNumbersFillWithZeros)
{
    EXPECT_EQ(KLFormatString("%016lX %x %#x %#o %p", 0xABCU, 255, 255, 8, 16),
              "0000000000000ABC ff 0xff 010 0x10");
    EXPECT_EQ(KLFormatString("%x", -1), "ffffffffffffffff");
}

TEST(KLFormat, PrecisionBoundsTextsAndDigits)
{
    EXPECT_EQ(KLFormatString("%.*s|%.2s|%.5s", 3, "abcdef", "abc", "ab"), "abc|ab|ab");
    EXPECT_EQ(KLFormatString("%.3d|%03u", 7, 7), "007|007");
    EXPECT_EQ(KLFormatString("%.*s", -1, "abc"), "abc");
}

TEST(KLFormat, PrecisionNeverCutsACharacterInTwo)
{
    const std::string text =
        "a\xC3\xA4\xF0\x9F\x92\xBE"
        "b";

    EXPECT_EQ(KLFormatString("%1$.2@|%1$.3@|%1$.6s|%1$.7s", text),
              "a|a\xC3\xA4|a\xC3\xA4|a\xC3\xA4\xF0\x9F\x92\xBE");
    EXPECT_EQ(KLFormatString("%.1@", "\xC3\xA4"), "");
}

TEST(KLFormat, DoublesPrintAsInC)
{
    EXPECT_EQ(KLFormatString("%.03f %f %e %g %G", 1.5, 0.25, 1500.0, 0.0001, 1e300),
              "1.500 0.250000 1.500000e+03 0.0001 1E+300");
    EXPECT_EQ(KLFormatString("[%08.2f][%-8.2f][%+.1f]", -1.5, 1.5, 1.5),
              "[-0001.50][1.50    ][+1.5]");
    EXPECT_EQ(KLFormatString("[%05f]", std::numeric_limits<double>::infinity()), "[  inf]");
}

TEST(KLFormat, TheLargestDoubleWithTheLargestPrecisionFits)
{
    const std::string text = KLFormatString("%.1000000000f", -std::numeric_limits<double>::max());

    EXPECT_TRUE(text.starts_with("-17976931348623157"));
    EXPECT_EQ(text.size(), 1U + 309U + 1U + 512U);
}

TEST(KLFormat, CharactersPrintAsThemselves)
{
    EXPECT_EQ(KLFormatString("%c%c", 'a', 66), "aB");
    EXPECT_EQ(KLFormatString("%c", 1000), "1000");
    EXPECT_EQ(KLFormatString("%c", 10), "10");
    EXPECT_EQ(KLFormatString("%c", 127), "127");
}

TEST(KLFormat, AnEnormousWidthIsBounded)
{
    EXPECT_EQ(KLFormatString("%1000000000d", 1).size(), 1024U);
    EXPECT_EQ(KLFormatString("%99999999999999999999999999d", 1).size(), 1024U);
    EXPECT_EQ(KLFormatString("%*d", std::numeric_limits<int64_t>::min(), 1).size(), 1024U);
    EXPECT_EQ(KLFormatString("%.1000000000d", 1).size(), 512U);
}

TEST(KLFormat, CountingBytesDoesNothing)
{
    EXPECT_EQ(KLFormatString("a%nb%1$nc%d", 5), "abc5");
}

TEST(KLFormat, APlaceholderWithoutAnArgumentIsCopiedOut)
{
    EXPECT_EQ(KLFormatString("%s and %d", "one"), "one and %d");
    EXPECT_EQ(KLFormatString("%3$s %0$s %1$s", "one"), "%3$s %0$s one");
    EXPECT_EQ(KLFormatString("%*d", 3), "%*d");
    EXPECT_EQ(KLFormatString("%18446744073709551617$s", "one"), "%18446744073709551617$s");
}

TEST(KLFormat, AnArgumentOfAnotherTypeIsPrintedInItsOwnForm)
{
    EXPECT_EQ(KLFormatString("%d", "text"), "text");
    EXPECT_EQ(KLFormatString("%s", 7), "7");
    EXPECT_EQ(KLFormatString("%@", 2.5), "2.5");
    EXPECT_EQ(KLFormatString("%d", 2.5), "2.5");
    EXPECT_EQ(KLFormatString("%f", 3), "3");
    EXPECT_EQ(KLFormatString("%u", -1), "-1");
}

TEST(KLFormat, AWidthThatIsNoIntegerIsCopiedOut)
{
    EXPECT_EQ(KLFormatString("%*d|%s", "x", 5), "%*d|x");
}

TEST(KLFormat, UnknownAndUnfinishedPlaceholdersAreCopiedOut)
{
    EXPECT_EQ(KLFormatString("%y %d", 1), "%y 1");
    EXPECT_EQ(KLFormatString("%", 1), "%");
    EXPECT_EQ(KLFormatString("%5", 1), "%5");
    EXPECT_EQ(KLFormatString("%1$", 1), "%1$");
    EXPECT_EQ(KLFormatString("%-", 1), "%-");
    EXPECT_EQ(KLFormatString("%5%d", 1), "%51");
    EXPECT_EQ(KLFormatString("%.", 1), "%.");
}

TEST(KLFormat, ArgumentsAreNeverTakenForFormats)
{
    EXPECT_EQ(KLFormatString("%@", "%s%n%1$@"), "%s%n%1$@");
}

TEST(KLFormat, TextsKeepTheirNulBytes)
{
    const std::string text("a\0b", 3);

    EXPECT_EQ(KLFormatString("%s", text), text);
}

TEST(KLFormat, ALongArgumentRepeatedDoesNotFillTheMemory)
{
    const std::string word(1 << 20, 'x');
    std::string format;
    for (int repeat = 0; repeat < 2000; ++repeat) {
        format += "%1$@";
    }

    EXPECT_EQ(KLFormatString("%1$@", word), word);
    EXPECT_EQ(KLFormatString(format, word).size(), size_t{4} << 20);
}

}  // namespace
