#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "control/ControlCommand.h"
#include "control/FakeTool.h"
#include "protocol/VolumeImage.h"

namespace {

constexpr const char* kMoves =
    "echo \"$word,START\"; echo \"$word,PROGRESS,50,24,40,8,40\"; "
    "echo \"$word,PROGRESS,100,32,48,8,40\"; echo \"$word,DONE\"";

/** Runs vzdefragctl with a tool that follows @p script. */
ControlResult runWith(const FakeTool::Script& script, const std::string& command,
                      std::vector<std::string> options = {})
{
    const FakeTool tool(script);
    ControlCommand control;
    control.setTool(tool.path());
    options.insert(options.begin(), {command, tool.image()});
    return control.run(options);
}

FakeTool::Script failingToOpen(const std::string& message)
{
    return {.opening = "echo 'ERROR," + message + "'; exit 0"};
}

FakeTool::Script failingToMove(const std::string& message)
{
    return {.moving =
                "echo \"$word,START\"; echo \"$word,ERROR," + message + "\"; echo \"$word,DONE\""};
}

TEST(ControlStatuses, ARunThatIsDoneEndsWith0)
{
    const ControlResult result = runWith({.moving = kMoves}, "defrag", {"--force"});

    EXPECT_EQ(result.status, 0) << result.messages;
    EXPECT_EQ(result.messages, "");
    EXPECT_NE(result.output.find("100%"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("Done: 64.0 KiB moved"), std::string::npos) << result.output;
}

TEST(ControlStatuses, ReadingCommandsEndWith0)
{
    for (const char* const command : {"info", "map"}) {
        const ControlResult result = runWith({}, command);
        EXPECT_EQ(result.status, 0) << result.messages;
        EXPECT_EQ(result.messages, "");
        EXPECT_NE(result.output, "");
    }
}

TEST(ControlStatuses, ARunThatEndsForLackOfSpaceEndsWith1)
{
    for (const char* const message :
         {"The amount of free space is insufficient.",
          "Volume is too congested, unable to continue.",
          "Overflow extents file is too congested, unable to continue."}) {
        const ControlResult result = runWith(failingToMove(message), "compact", {"--force"});
        EXPECT_EQ(result.status, 1) << result.messages;
        EXPECT_NE(result.messages.find(message), std::string::npos) << result.messages;
    }
}

TEST(ControlStatuses, WrongUsageEndsWith2)
{
    const VolumeImage volume;
    const ControlCommand control;
    const std::vector<std::vector<std::string>> lines = {
        {},
        {"frobnicate", volume.path()},
        {"info"},
        {"info", volume.path(), "--unknown"},
        {"info", volume.path(), "--sort", "size"},
        {"info", volume.path(), "--top", "-1"},
        {"info", volume.path(), "--json", "--csv"},
        {"map", volume.path(), "--width", "19"},
        {"map", volume.path(), "--height", "5"},
        {"map", volume.path(), "--color", "sometimes"},
        {"defrag", volume.path(), "--profile", "boot,boots"},
        {"defrag", volume.path(), "--time-limit", "soon"},
        {"defrag", volume.path(), "--threshold", "101"},
        {"defrag", volume.path(), "--plain", "--json-events"},
        {"compact", volume.path(), "--profile", "boot"},
        {"report", volume.path()},
        {"info", "/nonexistent/image"},
        {"info", "/dev/null"},
    };
    for (const std::vector<std::string>& line : lines) {
        const ControlResult result = control.run(line);
        EXPECT_EQ(result.status, 2) << testing::PrintToString(line) << result.messages;
        EXPECT_EQ(result.output, "") << testing::PrintToString(line);
        EXPECT_NE(result.messages, "") << testing::PrintToString(line);
    }
}

TEST(ControlStatuses, WhatIsRefusedEndsWith3)
{
    for (const char* const message :
         {"The device is busy.", "Permission was denied.", "Volume is mounted.",
          "Rollback file /a is in use.", "Rollback file /a belongs to another volume.",
          "Rollback file /a is damaged."}) {
        const ControlResult result = runWith(failingToOpen(message), "info");
        EXPECT_EQ(result.status, 3) << message;
        EXPECT_EQ(result.messages, std::string("vzdefragctl: ") + message + "\n");
    }
    EXPECT_EQ(runWith({.access = "read-only"}, "defrag", {"--force"}).status, 3);
    EXPECT_EQ(runWith(failingToMove("Volume is mounted."), "defrag", {"--force"}).status, 3);
}

TEST(ControlStatuses, TooLittleFreeSpaceEndsWith3UnlessForced)
{
    const FakeTool tool({.moving = kMoves});
    ControlCommand control;
    control.setTool(tool.path());

    const ControlResult refused = control.run({"compact", tool.image()});
    EXPECT_EQ(refused.status, 3);
    EXPECT_NE(refused.messages.find("more pieces than before"), std::string::npos);
    EXPECT_EQ(tool.journal().find("COMPACT"), std::string::npos);

    EXPECT_EQ(control.run({"compact", tool.image(), "--force"}).status, 0);
    EXPECT_NE(tool.journal().find("COMPACT\n"), std::string::npos);
}

TEST(ControlStatuses, BrokenVolumesEndWith4)
{
    for (const char* const message :
         {"Unsupported volume format.", "Volume is inconsistent.", "Catalog file is inconsistent.",
          "Volume was changed after rollback file /a was written."}) {
        EXPECT_EQ(runWith(failingToOpen(message), "map").status, 4) << message;
    }
    EXPECT_EQ(
        runWith(failingToMove("Overflow extent record missing."), "defrag", {"--force"}).status, 4);
}

TEST(ControlStatuses, FailingDisksEndWith5)
{
    for (const char* const message : {"Read failed with an error 5 at offset 0 and size 512.",
                                      "Unable to open a. An error 5 occurred.",
                                      "Unable to write rollback file /a. An error 28 occurred."}) {
        EXPECT_EQ(runWith(failingToOpen(message), "info").status, 5) << message;
    }
    EXPECT_EQ(runWith(failingToMove("Write failure."), "compact", {"--force"}).status, 5);
}

TEST(ControlStatuses, OutputThatCannotBeWrittenEndsWith5)
{
    const FakeTool tool({});
    const ControlCommand control;
    ToolProcess::Setup setup{.program = "/bin/sh"};
    setup.arguments = {"-c", std::string("exec \"$0\" info \"$1\" --tool \"$2\" >/dev/full"),
                       VZDEFRAGCTL_PROGRAM, tool.image(), tool.path()};
    ToolProcess process(setup);

    EXPECT_NE(process.readErrorsToEnd().find("standard output"), std::string::npos);
    EXPECT_EQ(process.wait(), 5);
}

TEST(ControlStatuses, FilesThatDifferAfterTheRunEndWith6)
{
    // The run writes into block 24, which belongs to file 17 and does not move.
    const FakeTool tool({.moving = std::string("printf changed | dd of=\"$image\" bs=4096 seek=24 "
                                               "conv=notrunc 2>/dev/null; ") +
                                   "echo \"$word,START\"; echo \"$word,DONE\""});
    ControlCommand control;
    control.setTool(tool.path());

    const ControlResult result = control.run({"defrag", tool.image(), "--force", "--verify"});
    EXPECT_EQ(result.status, 6);
    EXPECT_NE(result.messages.find("1 files differ"), std::string::npos) << result.messages;
    EXPECT_NE(result.messages.find("file IDs 17."), std::string::npos) << result.messages;
    EXPECT_EQ(control.run({"defrag", tool.image(), "--force"}).status, 0);
}

TEST(ControlStatuses, AToolThatFailsEndsWith7)
{
    EXPECT_EQ(runWith({.opening = "exit 1"}, "info").status, 7);
    EXPECT_EQ(runWith({.opening = "kill -9 $$"}, "info").status, 7);
    EXPECT_EQ(runWith({.size = "0"}, "info").status, 7);
    EXPECT_EQ(runWith({.moving = "echo \"$word,START\"; kill -6 $$"}, "defrag", {"--force"}).status,
              7);
    EXPECT_EQ(runWith({.moving = "echo \"$word,PROGRESS,nonsense\""}, "defrag", {"--force"}).status,
              7);
    EXPECT_EQ(runWith(failingToMove("Out of memory."), "defrag", {"--force"}).status, 7);
    EXPECT_EQ(runWith({.asked = "case $line in BITMAP*) echo BITMAP,START; echo BITMAP,DONE; "
                                "continue ;; esac"},
                      "info")
                  .status,
              7);

    const VolumeImage volume;
    ControlCommand control;
    control.setTool("/nonexistent/vzdefrag");
    EXPECT_EQ(control.run({"info", volume.path()}).status, 7);
}

TEST(ControlStatuses, BelowTheThresholdNothingIsDone)
{
    const FakeTool tool({.moving = kMoves});
    ControlCommand control;
    control.setTool(tool.path());

    // Half of the blocks are in pieces.
    const ControlResult result =
        control.run({"defrag", tool.image(), "--force", "--threshold", "50.1"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(tool.journal().find("DEFRAG"), std::string::npos);
    EXPECT_NE(result.messages.find("below the threshold"), std::string::npos);

    EXPECT_EQ(control.run({"defrag", tool.image(), "--force", "--threshold", "50"}).status, 0);
    EXPECT_NE(tool.journal().find("DEFRAG"), std::string::npos);
}

TEST(ControlStatuses, ProfilesReachTheTool)
{
    const FakeTool tool({.moving = kMoves});
    ControlCommand control;
    control.setTool(tool.path());

    EXPECT_EQ(control.run({"defrag", tool.image(), "--force", "--profile", "app,boot"}).status, 0);
    EXPECT_NE(tool.journal().find("DEFRAG -p app,boot\n"), std::string::npos);
}

TEST(ControlStatuses, EventsAreOneObjectALine)
{
    const ControlResult result =
        runWith({.moving = kMoves}, "defrag", {"--force", "--json-events"});

    EXPECT_EQ(result.status, 0);
    std::istringstream lines(result.output);
    std::vector<std::string> events;
    for (std::string line; std::getline(lines, line);) {
        const nlohmann::json event = nlohmann::json::parse(line, nullptr, false);
        ASSERT_TRUE(event.is_object()) << line;
        events.push_back(event.value("event", ""));
    }
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.front(), "begin");
    EXPECT_EQ(events.back(), "end");
    EXPECT_EQ(std::ranges::count(events, "move"), 2);
}

TEST(ControlStatuses, TheLogIsShownToWhoAsksForIt)
{
    const FakeTool tool({});
    ControlCommand control;
    control.setTool(tool.path());
    EXPECT_EQ(control.run({"info", tool.image()}).messages, "");

    control.setVariable("KLDebugLevel", "info");
    const ControlResult result = control.run({"info", tool.image()});
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.messages.find("Volume size         = 256KiB"), std::string::npos)
        << result.messages;
}

TEST(ControlStatuses, NamesFromTheDiskAreEscapedInMessages)
{
    const ControlResult result = runWith(
        {.opening = "printf 'ERROR,Unable to open \\033[31m. An error 5 occurred.\\n'; exit 0"},
        "info");

    EXPECT_EQ(result.status, 5);
    EXPECT_EQ(result.messages.find('\033'), std::string::npos);
    EXPECT_NE(result.messages.find("\\x1B[31m"), std::string::npos);
}

}  // namespace
