#include "ControlMapSVG.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

constexpr std::string_view kNastyName = "a<b>&\"c'\x1b[2J\xFF\xEF\xBF\xBF]]>--\\";

size_t countOf(const std::string& text, std::string_view part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        count++;
    }
    return count;
}

/** Whether a parser of XML takes @p text. */
bool isWellFormed(const std::string& text)
{
    const std::string path =
        testing::TempDir() + "/vzcontrol-map-" + std::to_string(::getpid()) + ".svg";
    std::ofstream(path) << text;
    const std::string command =
        "python3 -c 'import sys, xml.dom.minidom; xml.dom.minidom.parse(sys.argv[1])' '" + path +
        "' 2>/dev/null";
    const bool isTaken = std::system(command.c_str()) == 0;
    std::filesystem::remove(path);
    return isTaken;
}

ControlMap someMap()
{
    ControlMap map(2048);
    map.change(0, 512, ControlKind::kFree, ControlKind::kFixed);
    map.change(512, 256, ControlKind::kFree, ControlKind::kUsed);
    map.change(768, 1, ControlKind::kFree, ControlKind::kFragmented);
    return map;
}

TEST(ControlMapSVG, WhatMarkupTakesForItsOwnIsEscaped)
{
    EXPECT_EQ(escapedForMarkup(kNastyName),
              "a&lt;b&gt;&amp;&quot;c&#39;\\x1B[2J\\xFF\\u{FFFF}]]&gt;--\\\\");
}

TEST(ControlMapSVG, TheDocumentIsWellFormedWhateverTheNameHolds)
{
    ASSERT_FALSE(isWellFormed("<svg><a></svg>"));

    EXPECT_TRUE(isWellFormed(mapAsSVG(someMap(), 4096, kNastyName, {})));
    EXPECT_TRUE(isWellFormed(mapAsSVG(ControlMap(), 4096, "", {.columns = 1, .rows = 1})));
}

TEST(ControlMapSVG, EveryCellIsARectangleOfItsKindWithATitle)
{
    const std::string cells = mapSVGCells(someMap(), {.columns = 64, .rows = 32}, [](size_t index) {
        return "cell <" + std::to_string(index) + ">";
    });

    EXPECT_EQ(countOf(cells, "<rect "), 2048U);
    EXPECT_EQ(countOf(cells, "class=\"fixed\""), 512U);
    EXPECT_EQ(countOf(cells, "class=\"used\""), 256U);
    EXPECT_EQ(countOf(cells, "class=\"fragmented\""), 1U);
    EXPECT_EQ(countOf(cells, "class=\"free\""), 2048U - 769U);
    EXPECT_NE(cells.find("<rect class=\"fragmented\" x=\"0\" y=\"120\" width=\"9\" height=\"9\">"
                         "<title>cell &lt;768&gt;</title></rect>"),
              std::string::npos);
}

TEST(ControlMapSVG, TheDocumentExplainsItself)
{
    const std::string text = mapAsSVG(someMap(), 4096, "/dev/sda2", {});

    EXPECT_NE(text.find("<title id=\"title\">Map of /dev/sda2</title>"), std::string::npos);
    EXPECT_NE(text.find("role=\"img\" aria-labelledby=\"title description\""), std::string::npos);
    EXPECT_NE(text.find("2,048 blocks: 1,279 free, 256 used, 1 fragmented, 512 fixed."),
              std::string::npos);
    EXPECT_NE(text.find("<title>Blocks 768 to 768. 1 block: 1 fragmented</title>"),
              std::string::npos);
    EXPECT_NE(text.find(">used 12.5%, 1.00 MiB</text>"), std::string::npos);
    EXPECT_NE(text.find(">One cell is 1 block, 4.00 KiB.</text>"), std::string::npos);
}

TEST(ControlMapSVG, DarkPagesHaveTheirOwnColours)
{
    const std::string style = mapSVGStyle();
    const size_t dark = style.find("@media (prefers-color-scheme: dark)");

    ASSERT_NE(dark, std::string::npos);
    EXPECT_EQ(countOf(style, ".fragmented {"), 2U);
    EXPECT_LT(style.find(".fragmented {"), dark);
    EXPECT_GT(style.rfind(".fragmented {"), dark);
}

}  // namespace
