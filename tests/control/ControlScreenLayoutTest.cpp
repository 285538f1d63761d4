#include "ControlScreenLayout.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <vector>

namespace {

using Row = std::optional<size_t>;

TEST(ControlScreenLayout, AUsualWindowHasAllLines)
{
    const ControlScreenLayout layout(80, 24);

    EXPECT_EQ(layout.title, Row(0));
    EXPECT_EQ(layout.mapTop, 1U);
    EXPECT_EQ(layout.mapRows, 17U);
    EXPECT_EQ(layout.legend, Row(18));
    EXPECT_EQ(layout.scale, Row(19));
    EXPECT_EQ(layout.bar, Row(21));
    EXPECT_EQ(layout.figures, Row(22));
    EXPECT_EQ(layout.status, Row(23));
}

TEST(ControlScreenLayout, TheSmallestWindowOfUseStillHasMapLegendAndBar)
{
    const ControlScreenLayout layout(20, 6);

    EXPECT_EQ(layout.title, Row(0));
    EXPECT_EQ(layout.mapRows, 2U);
    EXPECT_EQ(layout.legend, Row(3));
    EXPECT_EQ(layout.bar, Row(4));
    EXPECT_EQ(layout.figures, Row(5));
    EXPECT_EQ(layout.status, layout.figures);
    EXPECT_EQ(layout.scale, std::nullopt);
}

TEST(ControlScreenLayout, TheBarGoesLast)
{
    EXPECT_EQ(ControlScreenLayout(20, 1).bar, Row(0));
    EXPECT_EQ(ControlScreenLayout(20, 1).figures, std::nullopt);
    EXPECT_EQ(ControlScreenLayout(20, 0).bar, std::nullopt);
}

TEST(ControlScreenLayout, NoTwoLinesShareARowAndNoneIsOutside)
{
    for (size_t rows = 0; rows < 60; rows++) {
        const ControlScreenLayout layout(80, rows);
        std::vector<size_t> taken;
        for (const Row& row :
             {layout.title, layout.legend, layout.scale, layout.bar, layout.figures}) {
            if (row) {
                taken.push_back(*row);
            }
        }
        if (layout.status && layout.status != layout.figures) {
            taken.push_back(*layout.status);
        }
        for (size_t row = 0; row < layout.mapRows; row++) {
            taken.push_back(layout.mapTop + row);
        }
        std::ranges::sort(taken);

        EXPECT_EQ(std::ranges::adjacent_find(taken), taken.end()) << rows;
        EXPECT_TRUE(taken.empty() || taken.back() < rows) << rows;
        EXPECT_GE(taken.size() + 1, rows) << "more than the gap is left empty";
    }
}

}  // namespace
