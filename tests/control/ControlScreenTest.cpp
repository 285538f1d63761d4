#include "ControlScreen.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "control/PseudoTerminal.h"

namespace {

/** What is painted last of the first screen. */
constexpr std::string_view kLastLine = "Ctrl-Z pauses.";

using Environment = std::map<std::string, std::string>;

PseudoTerminal::Setup demo(const std::vector<std::string>& arguments,
                           const Environment& others = {})
{
    PseudoTerminal::Setup setup{.command = {CONTROLSCREENDEMO_PROGRAM}};
    setup.command.insert(setup.command.end(), arguments.begin(), arguments.end());
    setup.environment = {{"TERM", "xterm-256color"},
                         {"LC_ALL", "C.UTF-8"},
                         {"NO_COLOR", ""},
                         {"LINES", ""},
                         {"COLUMNS", ""}};
    for (const auto& [name, value] : others) {
        setup.environment[name] = value;
    }
    return setup;
}

/** All that a short run to the end writes. */
std::string outputOfRun(const Environment& environment = {})
{
    PseudoTerminal terminal(demo({"--run", "0.4"}, environment));
    EXPECT_EQ(terminal.wait(), 0);
    return terminal.output();
}

bool hasColors(const std::string& output)
{
    static const std::regex colors("\x1b\\[([0-9]+;)*[349][0-7](;[0-9]+)*m");
    return std::regex_search(output, colors);
}

bool isASCII(const std::string& output)
{
    return std::ranges::none_of(output, [](char byte) { return byte < 0; });
}

/** The number that follows @p name in @p output. */
double numberAfter(const std::string& name, const std::string& output)
{
    const size_t at = output.find(name);
    EXPECT_NE(at, std::string::npos) << name << " is not in " << output;
    return at == std::string::npos ? -1 : std::atof(output.c_str() + at + name.size());
}

TEST(ControlScreen, TheTerminalIsGivenBackAsItWas)
{
    PseudoTerminal terminal(demo({"--percent", "37"}));
    const std::string modesBefore = terminal.modes();
    ASSERT_TRUE(terminal.waitFor(kLastLine));
    EXPECT_NE(terminal.modes(), modesBefore);

    terminal.type("\x03");
    ASSERT_TRUE(terminal.waitFor("Stopping safely"));
    terminal.type("\x03");

    EXPECT_EQ(terminal.wait(), 1);
    EXPECT_EQ(terminal.modes(), modesBefore);
    const std::string& output = terminal.output();
    const size_t entered = output.find("\x1b[?1049h");
    const size_t left = output.find("\x1b[?1049l");
    ASSERT_NE(entered, std::string::npos);
    ASSERT_NE(left, std::string::npos);
    EXPECT_LT(entered, left);
    EXPECT_GT(output.find("Stopped early at 37%"), left);
    EXPECT_GT(output.rfind("\x1b[?25h"), output.rfind("\x1b[?25l")) << "the cursor stays hidden";
}

TEST(ControlScreen, SignalsFromTheKeyboardDiscardNoPartOfTheScreen)
{
    PseudoTerminal terminal(demo({"--percent", "37"}));
    ASSERT_TRUE(terminal.signalsDiscardOutput());
    ASSERT_TRUE(terminal.waitFor(kLastLine));
    EXPECT_FALSE(terminal.signalsDiscardOutput());

    terminal.type("\x1a");
    ASSERT_TRUE(terminal.waitUntilStopped());
    EXPECT_TRUE(terminal.signalsDiscardOutput());

    const size_t before = terminal.output().size();
    terminal.goOn();
    ASSERT_TRUE(terminal.waitFor(kLastLine, before));
    EXPECT_FALSE(terminal.signalsDiscardOutput());
}

TEST(ControlScreen, WhatIsTypedMeanwhileIsNotLeftForTheShell)
{
    PseudoTerminal terminal(demo({"--percent", "37"}));
    ASSERT_TRUE(terminal.waitFor(kLastLine));
    const size_t before = terminal.output().size();

    terminal.type("rm -r x\n");
    terminal.type("\x03");
    ASSERT_TRUE(terminal.waitFor("Stopping safely"));
    terminal.type("\x03");
    ASSERT_EQ(terminal.wait(), 1);

    EXPECT_EQ(terminal.output().find("rm -r", before), std::string::npos);
    EXPECT_EQ(terminal.unreadBytes(), 0);
}

TEST(ControlScreen, SuspensionGivesTheTerminalBackUntilTheRunGoesOn)
{
    PseudoTerminal terminal(demo({"--percent", "37"}));
    const std::string modesBefore = terminal.modes();
    ASSERT_TRUE(terminal.waitFor(kLastLine));
    const std::string modesOfScreen = terminal.modes();

    terminal.type("\x1a");
    ASSERT_TRUE(terminal.waitUntilStopped());

    EXPECT_EQ(terminal.modes(), modesBefore);
    EXPECT_TRUE(terminal.waitFor("\x1b[?1049l"));

    const size_t before = terminal.output().size();
    terminal.goOn();
    ASSERT_TRUE(terminal.waitFor(" 37%", before));
    EXPECT_EQ(terminal.modes(), modesOfScreen);
    EXPECT_LT(terminal.output().find("\x1b[?1049h", before),
              terminal.output().find(" 37%", before));
}

TEST(ControlScreen, AWindowThatChangedWhileTheRunWasSuspendedIsDrawnInItsNewSize)
{
    PseudoTerminal terminal(demo({"--percent", "37"}));
    ASSERT_TRUE(terminal.waitFor(kLastLine));
    terminal.type("\x1a");
    ASSERT_TRUE(terminal.waitUntilStopped());
    const size_t before = terminal.output().size();

    terminal.resize(20, 6);
    terminal.goOn();

    EXPECT_TRUE(terminal.waitFor("use ", before)) << "the legend of narrow windows";
}

TEST(ControlScreen, ColoursAreLeftOutForUsersWhoMindAndTerminalsThatCannot)
{
    EXPECT_TRUE(hasColors(outputOfRun()));
    EXPECT_TRUE(hasColors(outputOfRun({{"TERM", "linux"}})));

    EXPECT_FALSE(hasColors(outputOfRun({{"NO_COLOR", "1"}})));
    EXPECT_FALSE(hasColors(outputOfRun({{"TERM", "vt100"}})));
}

TEST(ControlScreen, OnlyTheCharactersOfTheLocaleAreWritten)
{
    EXPECT_FALSE(isASCII(outputOfRun()));
    EXPECT_TRUE(isASCII(outputOfRun({{"LC_ALL", "C"}})));
}

TEST(ControlScreen, TerminalsThatCannotShowItAreDeclinedWithoutAByte)
{
    for (const std::string term : {"dumb", "no-such-terminal", ""}) {
        const std::string output = outputOfRun({{"TERM", term}});

        EXPECT_EQ(output.find('\x1b'), std::string::npos) << term;
        EXPECT_TRUE(output.starts_with("Defragmenting /images/sample.img\r\n")) << output;
        EXPECT_NE(output.find("\n 100%  "), std::string::npos) << output;
    }
}

TEST(ControlScreen, MessagesAreRepeatedOnceTheScreenIsGone)
{
    PseudoTerminal terminal(demo({"--run", "0.3", "--message", "Be\x1b[2Jware"}));

    ASSERT_EQ(terminal.wait(), 0);

    const size_t left = terminal.output().find("\x1b[?1049l");
    EXPECT_NE(terminal.output().find("Be\\x1B[2Jware\r\n", left), std::string::npos);
}

TEST(ControlScreen, HandlersOfSignalsAreLeftToTheCaller)
{
    EXPECT_NE(outputOfRun().find("Handlers of signals: kept"), std::string::npos);
}

TEST(ControlScreen, HoweverManyMovesComeItIsDrawnTenTimesASecond)
{
    PseudoTerminal terminal(demo({"--run", "2", "--moves", "100000"}));

    ASSERT_EQ(terminal.wait(), 0);

    const double seconds = numberAfter("s of ", terminal.output());
    const double draws = numberAfter("Drawn: ", terminal.output());
    EXPECT_LE(draws, 10 * seconds + 2);
    EXPECT_GE(draws, 3);
}

TEST(ControlScreen, ItCostsLittle)
{
    PseudoTerminal terminal(demo({"--run", "3", "--moves", "60000"}));

    ASSERT_EQ(terminal.wait(), 0);

    const double processor = numberAfter("Processor: ", terminal.output());
    const double seconds = numberAfter("s of ", terminal.output());
#if defined(__OPTIMIZE__) && !defined(__SANITIZE_THREAD__) && !defined(__clang__)
    constexpr double kMost = 0.05;
#else
    // Neither the compiler's help nor the sanitizers' burden tell what it costs.
    constexpr double kMost = 0.5;
#endif
    EXPECT_LE(processor, kMost * seconds);
}

}  // namespace
