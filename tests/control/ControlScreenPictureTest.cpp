#include "ControlScreenPicture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <string>
#include <vector>

#include "ControlText.h"

namespace {

using enum ControlCharacters;

/** A run over 1000 blocks: 100 fixed, 300 used and as many in pieces, the others free. */
ControlScreenState someState()
{
    ControlScreenState state;
    state.image = "/dev/sda2";
    state.format = "HFSX";
    state.blockSize = 4096;
    state.map = ControlMap(1000);
    state.map.change(0, 100, ControlKind::kFree, ControlKind::kFixed);
    state.map.change(100, 300, ControlKind::kFree, ControlKind::kUsed);
    state.map.change(400, 300, ControlKind::kFree, ControlKind::kFragmented);
    state.progress = {.percent = 37,
                      .movedBlocks = 0,
                      .movedBytes = uint64_t{1320} << 20U,
                      .bytesPerSecond = 210.0 * (1U << 20U),
                      .secondsLeft = 41,
                      .elapsed = 67};
    return state;
}

std::vector<std::string> textOf(const ControlScreenState& state, size_t columns, size_t rows,
                                ControlCharacters characters = kASCII)
{
    std::vector<std::string> lines;
    for (const ControlScreenLine& line :
         pictureOfScreen(state, ControlScreenLayout(columns, rows), characters)) {
        std::string text;
        for (const ControlScreenRun& run : line) {
            text += run.text;
        }
        lines.push_back(text);
    }
    return lines;
}

class ControlScreenPicture : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr); }
    void TearDown() override { std::setlocale(LC_ALL, "C"); }
};

TEST_F(ControlScreenPicture, ASmallWindowShowsWhatMatters)
{
    EXPECT_EQ(textOf(someState(), 20, 6), (std::vector<std::string>{
                                              "Defrag /dev/sda2    ",
                                              "====############xxxx",
                                              "xxxxxxxx............",
                                              ".free #use xfrg =fix",
                                              "[====---------]  37%",
                                              "1.29 GiB, 0:41 left",
                                          }));
}

TEST_F(ControlScreenPicture, AWiderWindowShowsMore)
{
    const auto lines = textOf(someState(), 80, 24, kUnicode);

    EXPECT_EQ(lines[0], "Defragmenting /dev/sda2" + std::string(43, ' ') + "HFSX, 3.91 MiB");
    EXPECT_EQ(lines[18],
              "░ free 30%  █ used 30%  ▚ fragmented 30%  ▒ fixed 10%  ◇ read  ◆ written");
    EXPECT_EQ(lines[19], "One block, 4.00 KiB, is about 1 cell.");
    EXPECT_EQ(lines[20], "");
    EXPECT_TRUE(lines[21].starts_with("━━━") && lines[21].ends_with("───  37%")) << lines[21];
    EXPECT_EQ(lines[22], "1.29 GiB moved, 210 MiB/s, 0:41 left, 1:07 elapsed");
    EXPECT_EQ(lines[23], "Ctrl-C stops safely, Ctrl-Z pauses.");
}

TEST_F(ControlScreenPicture, NoLineIsTooWideInAnyWindow)
{
    ControlScreenState state = someState();
    state.image = "/日本語\x1b[2J/very/long/name/that/does/not/fit/into/many/windows/at/all\xFF";
    state.recentMoves = {{.source = 990, .destination = 0, .count = 100}};
    for (const std::string& status : {std::string(), std::string(300, 'w')}) {
        state.status = status;
        for (size_t columns = 0; columns < 130; columns += columns < 30 ? 1 : 7) {
            for (size_t rows = 0; rows < 26; rows++) {
                for (const ControlCharacters characters : {kASCII, kUnicode}) {
                    const auto lines = textOf(state, columns, rows, characters);
                    ASSERT_EQ(lines.size(), rows);
                    for (const std::string& line : lines) {
                        EXPECT_LE(cellsOf(line), columns) << rows << " rows: " << line;
                        EXPECT_EQ(line.find('\x1b'), std::string::npos);
                    }
                }
            }
        }
    }
}

TEST_F(ControlScreenPicture, ASCIIIsAllThatIsUsedWhereOnlyThatCanBeShown)
{
    ControlScreenState state = someState();
    state.image = "é";
    state.status = "naïve";
    state.recentMoves = {{.source = 0, .destination = 100, .count = 10}};

    for (const std::string& line : textOf(state, 80, 24)) {
        EXPECT_TRUE(std::ranges::all_of(line, [](char byte) { return byte >= ' ' && byte < 0x7F; }))
            << line;
    }
}

TEST_F(ControlScreenPicture, BlocksThatMovedAreMarkedWhereTheyWereAndWhereTheyAre)
{
    ControlScreenState state = someState();
    state.recentMoves = {{.source = 100, .destination = 900, .count = 50},
                         {.source = 999, .destination = 200, .count = 1000}};

    const auto lines = textOf(state, 20, 6);

    EXPECT_EQ(lines[1], "====rr##WWWWWWWWWWWW");
    EXPECT_EQ(lines[2], "WWWWWWWWWWWWWWWWWWWW");
}

TEST_F(ControlScreenPicture, MovesOutsideTheVolumeMarkNothing)
{
    ControlScreenState state = someState();
    const auto lines = textOf(state, 20, 6);
    state.recentMoves = {{.source = 1000, .destination = UINT32_MAX, .count = UINT32_MAX},
                         {.source = 5, .destination = 6, .count = 0}};

    EXPECT_EQ(textOf(state, 20, 6), lines);
}

TEST_F(ControlScreenPicture, TheBarIsFullOnlyAtTheEnd)
{
    ControlScreenState state = someState();
    state.progress.percent = 99;
    EXPECT_EQ(textOf(state, 20, 6)[4], "[============-]  99%");

    state.progress.percent = 100;
    EXPECT_EQ(textOf(state, 20, 6)[4], "[=============] 100%");

    state.progress.percent = 0;
    EXPECT_EQ(textOf(state, 20, 6)[4], "[-------------]   0%");
}

TEST_F(ControlScreenPicture, AMessageTakesTheStatusLineAndInLowWindowsTheFiguresLine)
{
    ControlScreenState state = someState();
    state.status = "Wait\x07";

    EXPECT_EQ(textOf(state, 80, 24)[23], "Wait\\x07");
    EXPECT_EQ(textOf(state, 20, 6)[5], "Wait\\x07");
}

TEST_F(ControlScreenPicture, WhatIsNotKnownIsLeftOut)
{
    ControlScreenState state = someState();
    state.progress.secondsLeft = std::nullopt;
    state.progress.bytesPerSecond = 0;

    EXPECT_EQ(textOf(state, 80, 24)[22], "1.29 GiB moved, 1:07 elapsed");
    EXPECT_EQ(textOf(state, 20, 6)[5], "1.29 GiB moved");
}

TEST_F(ControlScreenPicture, AVolumeWithoutBlocksIsDrawnAsEmpty)
{
    EXPECT_EQ(textOf(ControlScreenState(), 20, 6)[1], "....................");
}

}  // namespace
