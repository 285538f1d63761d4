#include <gtest/gtest.h>

#include <chrono>
#include <clocale>
#include <string>

#include "ControlText.h"
#include "control/TmuxTerminal.h"

namespace {

using Lines = TmuxTerminal::Lines;

struct WindowSize {
    size_t columns;
    size_t rows;
};

void PrintTo(const WindowSize& size, std::ostream* stream)
{
    *stream << size.columns << "x" << size.rows;
}

std::string demo(const std::string& arguments = "--percent 37")
{
    return std::string(CONTROLSCREENDEMO_PROGRAM) + " " + arguments;
}

/** How many of @p lines from @p first on are rows of a map of @p columns cells. */
size_t mapRows(const Lines& lines, size_t first, size_t columns)
{
    size_t rows = 0;
    for (; first + rows < lines.size(); rows++) {
        const std::string& line = lines[first + rows];
        if (cellsOf(line) != columns ||
            line.find_first_of("abcdefghijklmnopqrstuvwxyz") != std::string::npos) {
            break;
        }
    }
    return rows;
}

/** Waits for a screen of the demo that fills a window of @p size. */
Lines shownScreen(const TmuxTerminal& window, const WindowSize& size)
{
    const std::string percent = "─  37%";
    return window.waitUntil([&](const Lines& lines) {
        for (size_t row = lines.size() < size.rows ? lines.size() : 0; row < lines.size(); row++) {
            if (lines[row].ends_with(percent) && cellsOf(lines[row]) == size.columns) {
                return lines.back() != "";
            }
        }
        return false;
    });
}

/** Types Ctrl-Z until the shell says that the job was stopped.
 *
 *  On a machine that is very busy a first one may leave the job running; Ctrl-Z is ignored by the
 *  shell, so that another one does no harm.
 */
Lines stoppedJob(TmuxTerminal& window)
{
    constexpr int kAttempts = 5;
    Lines lines;
    for (int attempt = 0; attempt < kAttempts && !holdsText(lines, "Stopped"); attempt++) {
        window.type("C-z");
        lines = window.waitFor("Stopped", std::chrono::seconds(4));
    }
    return lines;
}

class ControlScreenWindow : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr); }
    void TearDown() override { std::setlocale(LC_ALL, "C"); }
};

class ControlScreenWindowOfSize : public ControlScreenWindow,
                                  public testing::WithParamInterface<WindowSize> {};

TEST_P(ControlScreenWindowOfSize, IsFilledByTheMapAndShowsWhereTheRunStands)
{
    const WindowSize size = GetParam();
    const TmuxTerminal window(size.columns, size.rows, demo());

    const Lines lines = shownScreen(window, size);

    ASSERT_EQ(lines.size(), size.rows);
    for (const std::string& line : lines) {
        EXPECT_LE(cellsOf(line), size.columns) << line;
    }
    EXPECT_TRUE(lines[0].starts_with("Defrag")) << lines[0];
    const size_t map = mapRows(lines, 1, size.columns);
    EXPECT_GE(map, 2U);
    EXPECT_GE(map + 7, size.rows) << "the map does not fill the window";
    EXPECT_TRUE(lines[1 + map].starts_with("░")) << "no legend in " << lines[1 + map];
    EXPECT_TRUE(holdsText(lines, "━"));
    EXPECT_TRUE(holdsText(lines, "0:41 left"));
    EXPECT_EQ(holdsText(lines, "Ctrl-C stops safely"), size.rows >= 8);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ControlScreenWindowOfSize,
                         testing::Values(WindowSize{20, 6}, WindowSize{40, 12}, WindowSize{80, 24},
                                         WindowSize{200, 50}));

TEST_F(ControlScreenWindow, AnotherSizeIsFilledAtOnce)
{
    TmuxTerminal window(80, 24, demo());
    ASSERT_EQ(mapRows(shownScreen(window, {80, 24}), 1, 80), 17U);

    window.resize(40, 12);
    const Lines narrow = shownScreen(window, {40, 12});
    EXPECT_EQ(mapRows(narrow, 1, 40), 7U);
    EXPECT_TRUE(narrow[0].starts_with("Defrag /images/sample.img")) << narrow[0];

    window.resize(120, 30);
    const Lines wide = shownScreen(window, {120, 30});
    EXPECT_EQ(mapRows(wide, 1, 120), 23U);
    EXPECT_TRUE(holdsText(wide, "Ctrl-Z pauses."));
}

TEST_F(ControlScreenWindow, VariablesThatTellAnotherSizeDoNotMatter)
{
    const TmuxTerminal window(80, 24, "export LINES=50 COLUMNS=200; " + demo());

    EXPECT_EQ(mapRows(shownScreen(window, {80, 24}), 1, 80), 17U);
}

TEST_F(ControlScreenWindow, WhatWasOnTheTerminalIsBackAfterwardsWithTheSummaryBelow)
{
    // The last command keeps the window as it is, which tmux would scroll when all have ended.
    TmuxTerminal window(80, 24, "echo as it was; " + demo() + "; cat");
    EXPECT_FALSE(holdsText(shownScreen(window, {80, 24}), "as it was"));

    window.type("C-c");
    EXPECT_TRUE(holdsText(window.waitFor("Stopping safely"), "Stopping safely"));
    window.type("C-c");

    const Lines lines = window.waitFor("Processor");
    EXPECT_EQ(lines.at(0), "as it was");
    EXPECT_TRUE(lines.at(1).starts_with("Stopped early at 37%")) << lines.at(1);
}

TEST_F(ControlScreenWindow, ASuspendedJobLeavesTheShellAndComesBack)
{
    TmuxTerminal window(80, 24, "env PS1='ready> ' bash --norc --noprofile");
    ASSERT_TRUE(holdsText(window.waitFor("ready>"), "ready>"));
    window.type(demo());
    window.type("Enter");
    ASSERT_EQ(mapRows(shownScreen(window, {80, 24}), 1, 80), 17U);

    const Lines shell = stoppedJob(window);
    EXPECT_TRUE(holdsText(shell, "Stopped")) << testing::PrintToString(shell);
    EXPECT_FALSE(holdsText(shell, "░"));

    window.type("fg");
    window.type("Enter");
    const Lines screen = shownScreen(window, {80, 24});
    EXPECT_EQ(mapRows(screen, 1, 80), 17U) << testing::PrintToString(screen);
}

TEST_F(ControlScreenWindow, AJobInTheBackgroundWaitsForTheTerminal)
{
    TmuxTerminal window(80, 24, "env PS1='ready> ' bash --norc --noprofile");
    ASSERT_TRUE(holdsText(window.waitFor("ready>"), "ready>"));
    window.type(demo());
    window.type("Enter");
    ASSERT_EQ(mapRows(shownScreen(window, {80, 24}), 1, 80), 17U);
    const Lines shell = stoppedJob(window);
    ASSERT_TRUE(holdsText(shell, "Stopped")) << testing::PrintToString(shell);

    // It runs on, neither stopped again for touching the terminal nor seen.
    window.type("bg; sleep 0.5; jobs");
    window.type("Enter");
    EXPECT_TRUE(holdsText(window.waitFor("Running"), "Running"));
    EXPECT_FALSE(holdsText(window.lines(), "░"));

    window.type("fg %1");
    window.type("Enter");
    EXPECT_EQ(mapRows(shownScreen(window, {80, 24}), 1, 80), 17U);
}

}  // namespace
