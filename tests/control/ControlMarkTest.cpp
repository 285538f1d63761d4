#include "ControlMark.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

constexpr size_t kMarks = 6;

ControlKindCounts someCounts()
{
    ControlKindCounts counts;
    counts.of(ControlKind::kFree) = 1000;
    counts.of(ControlKind::kUsed) = 997;
    counts.of(ControlKind::kFragmented) = 3;
    return counts;
}

std::string lineOf(const ControlLegend& legend)
{
    std::string line;
    for (const ControlLegendEntry& entry : legend.entries) {
        line += line.empty() ? "" : legend.gap;
        line += glyphOfMark(entry.mark, ControlCharacters::kASCII);
        line += entry.text;
    }
    return line;
}

std::string legendOf(size_t columns, ControlLegendMarks marks = ControlLegendMarks::kKinds)
{
    return lineOf(legendFor(someCounts(), columns, marks));
}

TEST(ControlMark, MarksAreToldApartWithoutColour)
{
    for (const ControlCharacters characters :
         {ControlCharacters::kASCII, ControlCharacters::kUnicode}) {
        std::set<std::string_view> glyphs;
        for (size_t index = 0; index < kMarks; index++) {
            glyphs.insert(glyphOfMark(static_cast<ControlMark>(index), characters));
        }
        EXPECT_EQ(glyphs.size(), kMarks);
    }
}

TEST(ControlMark, ACellIsMarkedByTheKindThatItShows)
{
    ControlKindCounts counts;
    EXPECT_EQ(markOfCounts(counts), ControlMark::kFree);
    counts.of(ControlKind::kFragmented) = 1;
    EXPECT_EQ(markOfCounts(counts), ControlMark::kFragmented);
    counts.of(ControlKind::kUsed) = 2;
    EXPECT_EQ(markOfCounts(counts), ControlMark::kUsed);
    counts.of(ControlKind::kFixed) = 3;
    EXPECT_EQ(markOfCounts(counts), ControlMark::kFixed);
}

TEST(ControlMark, AWideLegendHasNamesAndShares)
{
    EXPECT_EQ(legendOf(80), ". free 50%  # used 50%  x fragmented <1%  = fixed 0%");
}

TEST(ControlMark, ALegendShortensWithItsWidth)
{
    EXPECT_EQ(legendOf(40), ". free  # used  x fragmented  = fixed");
    EXPECT_EQ(legendOf(30), ".free #used xfrag =fixed");
    EXPECT_EQ(legendOf(20), ".free #use xfrg =fix");
    EXPECT_EQ(legendOf(12), ".free #use");
    EXPECT_EQ(legendOf(3), "");
}

TEST(ControlMark, MovesAreExplainedWhereThereIsRoom)
{
    using enum ControlLegendMarks;
    EXPECT_EQ(legendOf(80, kKindsAndMoves),
              ". free 50%  # used 50%  x fragmented <1%  = fixed 0%  r read  W written");
    EXPECT_EQ(legendOf(40, kKindsAndMoves), ".free #used xfrag =fixed rread Wwrite");
    EXPECT_EQ(legendOf(20, kKindsAndMoves), ".free #use xfrg =fix");
}

TEST(ControlMark, NoLegendIsTooWide)
{
    for (size_t columns = 0; columns < 120; columns++) {
        for (const auto marks : {ControlLegendMarks::kKinds, ControlLegendMarks::kKindsAndMoves}) {
            const ControlLegend legend = legendFor(someCounts(), columns, marks);
            EXPECT_LE(lineOf(legend).size(), columns);
            EXPECT_EQ(legend.cells(), lineOf(legend).size());
        }
    }
}

}  // namespace
