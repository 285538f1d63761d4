#include "KLKit/KLDebug.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "protocol/ToolProcess.h"

namespace {

const std::string kHead = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} kltoolfixture\[\d+\]: )";

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/** The log of the fixture in a mode, checked for the head of every line and without it. */
std::vector<std::string> logOf(const std::vector<std::string>& arguments,
                               const std::string& level = {})
{
    ToolProcess::Setup setup{.program = KLTOOLFIXTURE_PROGRAM, .arguments = arguments};
    if (!level.empty()) {
        setup.environment = {{"KLDebugLevel", level}};
    }
    ToolProcess process(setup);
    const std::string errors = process.readErrorsToEnd();
    EXPECT_EQ(process.readToEnd(), "");
    EXPECT_TRUE(errors.empty() || errors.ends_with("\n"));

    std::vector<std::string> messages;
    const std::regex head("^" + kHead);
    for (const std::string& line : linesOf(errors)) {
        std::smatch match;
        EXPECT_TRUE(std::regex_search(line, match, head)) << line;
        messages.push_back(match.suffix());
    }
    return messages;
}

using Messages = std::vector<std::string>;

TEST(KLDebug, PanicErrorAndWarningLinesAppearByDefaultAndDebugTextsDoNot)
{
    EXPECT_EQ(logOf({"log-levels"}),
              (Messages{"PANIC: at panic", "ERROR: at err", "WARNING: at warn"}));
}

TEST(KLDebug, DebugTextsAppearWithTheLevelInAnyCase)
{
    const Messages expected = {"PANIC: at panic", "ERROR: at err", "WARNING: at warn", "at info",
                               "SCAN,DEBUG,at debug"};

    EXPECT_EQ(logOf({"log-levels"}, "DEBUG"), expected);
    EXPECT_EQ(logOf({"log-levels"}, "debug"), expected);
    EXPECT_EQ(logOf({"log-levels"}, "Debug"), expected);
}

TEST(KLDebug, EveryLevelNameShowsItsLevelAndThoseMoreSevere)
{
    EXPECT_EQ(logOf({"log-levels"}, "panic").size(), 1U);
    EXPECT_EQ(logOf({"log-levels"}, "err").size(), 2U);
    EXPECT_EQ(logOf({"log-levels"}, "warn").size(), 3U);
    EXPECT_EQ(logOf({"log-levels"}, "info").size(), 4U);
    EXPECT_EQ(logOf({"log-levels"}, "debug").size(), 5U);
    EXPECT_EQ(logOf({"log-levels"}, "debug_more").size(), 6U);
}

TEST(KLDebug, AnUnknownLevelNameLeavesTheDefault)
{
    EXPECT_EQ(logOf({"log-levels"}, "loud").size(), 3U);
    EXPECT_EQ(logOf({"log-levels"}, "debug ").size(), 3U);
}

TEST(KLDebug, ALineWaitsForItsNewlineAnotherLevelOrTheEndOfItsThread)
{
    EXPECT_EQ(logOf({"log-unfinished"}),
              (Messages{"ERROR: one line", "ERROR: ended by another level",
                        "ERROR: ended by the end of its thread", "WARNING: ended by the thread"}));
}

TEST(KLDebug, AMessageWithTwoNewlinesIsTwoLinesEachWithItsHead)
{
    EXPECT_EQ(logOf({"log-two-lines"}), (Messages{"ERROR: first", "ERROR: second"}));
}

TEST(KLDebug, AnEmptyLineStillHasItsHead)
{
    EXPECT_EQ(logOf({"log-empty-line"}), Messages{"ERROR: "});
}

TEST(KLDebug, LinesOfDifferentThreadsNeverMix)
{
    EXPECT_EQ(logOf({"log-threads"}), Messages(800, "ERROR: a piece, and its end"));
}

TEST(KLDebug, ABacktraceNamesTheCallersFromTheOutermostInwards)
{
    const Messages lines = logOf({"backtrace", "3"});

    ASSERT_GE(lines.size(), 7U);
    EXPECT_EQ(lines[0], "PANIC:    Frame             Caller");
    const std::regex known(R"(^PANIC:   [0-9A-F]{16}  [0-9A-F]{16}  [^ ]+\+[0-9A-F]+$)");
    const std::regex unknown(R"(^PANIC:   [0-9A-F]{16}  [0-9A-F]{16}  \(unknown\)$)");
    std::vector<size_t> recursions;
    size_t entry = 0;
    for (size_t index = 1; index < lines.size(); ++index) {
        const std::string& line = lines[index];
        EXPECT_TRUE(std::regex_match(line, known) || std::regex_match(line, unknown)) << line;
        if (line.find("fixtureRecursion") != std::string::npos) {
            recursions.push_back(index);
        } else if (line.find("  main+") != std::string::npos) {
            entry = index;
        }
    }
    EXPECT_EQ(recursions.size(), 4U);
    EXPECT_GT(entry, 0U);
    EXPECT_LT(entry, recursions.front());
}

TEST(KLDebug, ABacktraceDeeperThanFiftyFramesPrintsFifty)
{
    const Messages lines = logOf({"backtrace", "200"});

    EXPECT_EQ(lines.size(), 51U);
    EXPECT_NE(lines[1].find("fixtureRecursion"), std::string::npos);
}

TEST(KLDebug, APanicLogsItsTextAndTheStackAndAborts)
{
    ToolProcess process({.program = KLTOOLFIXTURE_PROGRAM, .arguments = {"panic"}});
    const Messages lines = linesOf(process.readErrorsToEnd());

    EXPECT_EQ(process.wait(), -SIGABRT);
    ASSERT_GE(lines.size(), 3U);
    EXPECT_TRUE(lines[0].ends_with("]: PANIC: rule 7 of the fixture is broken"));
    EXPECT_TRUE(lines[1].ends_with("]: PANIC:    Frame             Caller"));
}

TEST(KLDebug, APanicInTheMiddleOfALineLosesNeither)
{
    ToolProcess process({.program = KLTOOLFIXTURE_PROGRAM, .arguments = {"panic-in-line"}});
    const Messages lines = linesOf(process.readErrorsToEnd());

    EXPECT_EQ(process.wait(), -SIGABRT);
    ASSERT_GE(lines.size(), 3U);
    EXPECT_TRUE(lines[0].ends_with("]: WARNING: begun"));
    EXPECT_TRUE(lines[1].ends_with("]: PANIC: without newline"));
}

}  // namespace
