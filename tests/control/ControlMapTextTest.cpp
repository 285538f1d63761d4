#include "ControlMapText.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

using enum ControlKind;

/** 240 blocks: fixed, used, in pieces and free ones, 60 of each. */
ControlMap quarters()
{
    ControlMap map(240);
    map.change(0, 60, kFree, kFixed);
    map.change(60, 60, kFree, kUsed);
    map.change(120, 60, kFree, kFragmented);
    return map;
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> pictureOf(const ControlMap& map, ControlMapTextOptions options)
{
    return linesOf(mapAsText(map, 4096, options));
}

TEST(ControlMapText, TheDiskGoesFromTheLeftToTheRightAndThenDown)
{
    EXPECT_EQ(pictureOf(quarters(), {.columns = 40, .rows = 6}),
              (std::vector<std::string>{
                  std::string(40, '='),
                  std::string(20, '=') + std::string(20, '#'),
                  std::string(40, '#'),
                  std::string(40, 'x'),
                  std::string(20, 'x') + std::string(20, '.'),
                  std::string(40, '.'),
                  ". free  # used  x fragmented  = fixed",
                  "One cell is 1 block, 4.00 KiB.",
              }));
}

TEST(ControlMapText, UnicodeTakesItsOwnCharacters)
{
    const auto lines = pictureOf(
        quarters(), {.columns = 20, .rows = 6, .characters = ControlCharacters::kUnicode});

    EXPECT_EQ(lines[0], "▒▒▒▒▒▒▒▒▒▒▒▒▒▒▒▒▒▒▒▒");
    EXPECT_EQ(lines[1], "▒▒▒▒▒▒▒▒▒▒██████████");
    EXPECT_EQ(lines[6], "░free █use ▚frg ▒fix");
}

TEST(ControlMapText, AColourIsGivenOnceForARunOfCellsAndTakenBackWithTheLine)
{
    ControlMap map(40);
    map.change(0, 10, kFree, kUsed);

    const auto lines = pictureOf(map, {.columns = 20, .rows = 2, .isColored = true});

    EXPECT_EQ(lines[0], "\x1b[0;36m##########\x1b[0;2m..........\x1b[0m");
    EXPECT_EQ(lines[1], "\x1b[0;2m....................\x1b[0m");
    EXPECT_EQ(lines[2],
              "\x1b[0;2m.\x1b[0mfree \x1b[0;36m#\x1b[0muse \x1b[0;31mx\x1b[0mfrg "
              "\x1b[0;35m=\x1b[0mfix");
}

TEST(ControlMapText, WithoutColourThereIsNoEscape)
{
    EXPECT_EQ(mapAsText(quarters(), 4096, {.columns = 100, .rows = 30}).find('\x1b'),
              std::string::npos);
}

TEST(ControlMapText, APictureHasTheSizeAskedFor)
{
    for (const size_t columns : {20U, 33U, 80U, 200U}) {
        for (const size_t rows : {6U, 24U, 50U}) {
            const auto lines = pictureOf(quarters(), {.columns = columns, .rows = rows});

            ASSERT_EQ(lines.size(), rows + kControlMapTextLinesBelow);
            for (size_t row = 0; row < lines.size(); row++) {
                EXPECT_LE(lines[row].size(), columns);
                EXPECT_TRUE(row >= rows || lines[row].size() == columns);
            }
        }
    }
}

TEST(ControlMapText, TheScaleSaysWhatACellStandsFor)
{
    const auto scale = [](uint32_t blocks, size_t cells, size_t columns = 80) {
        return scaleOfMap(ControlMap(blocks), 4096, cells, columns);
    };
    EXPECT_EQ(scale(120000, 120), "One cell is 1,000 blocks, 3.91 MiB.");
    EXPECT_EQ(scale(120001, 120), "One cell is about 1,000 blocks, 3.91 MiB.");
    EXPECT_EQ(scale(120000, 120, 20), "1 cell = 3.91 MiB");
    EXPECT_EQ(scale(120000, 120, 10), "3.91 MiB");
    EXPECT_EQ(scale(120000, 120, 3), "");
    EXPECT_EQ(scale(10, 120), "One block, 4.00 KiB, is about 12 cells.");
    EXPECT_EQ(scale(0, 120), "The volume has no blocks.");
}

TEST(ControlMapText, ColourIsForTerminalsThatCanAndUsersWhoDoNotMind)
{
    EXPECT_TRUE(wantsColor(true, "xterm", nullptr));
    EXPECT_TRUE(wantsColor(true, "xterm", ""));
    EXPECT_FALSE(wantsColor(true, "xterm", "0"));
    EXPECT_FALSE(wantsColor(true, "dumb", nullptr));
    EXPECT_FALSE(wantsColor(true, nullptr, nullptr));
    EXPECT_FALSE(wantsColor(false, "xterm", nullptr));
}

}  // namespace
