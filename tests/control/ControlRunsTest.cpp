#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "control/ControlCommand.h"
#include "control/FakeTool.h"
#include "protocol/VolumeImage.h"
#include "protocol/VolumeJudgement.h"
#include "support/HFSPlusVolumeBuilder.h"

namespace {

/** A volume of 320 MiB, sparse in the image: twelve files of twenty pieces each, and one whole. */
class Volume {
public:
    Volume() : _image(_built()) {}

    [[nodiscard]] const std::string& path() const { return _image.path(); }

private:
    HFSPlusVolumeBuilder& _built()
    {
        _builder.blockSize(4096).totalBlocks(81920).file("/whole", 100).data({{60000, 40}});
        for (uint32_t file = 0; file < 12; file++) {
            HFSPlusBuilderExtents extents;
            for (uint32_t piece = 0; piece < 20; piece++) {
                extents.push_back({4000 + 24 * piece + 2 * file, 1});
            }
            _builder.file("/folder/pieces " + std::to_string(file), 101 + file).data(extents);
        }
        return _builder;
    }

    HFSPlusVolumeBuilder _builder;
    VolumeImage _image;
};

/** 160 MiB of files in pieces of 64 KiB on 1 GiB: several cycles of the copy engine. */
HFSPlusVolumeBuilder& largeVolume(HFSPlusVolumeBuilder& builder)
{
    constexpr uint32_t kFiles = 8;
    constexpr uint32_t kPieces = 320;
    builder.blockSize(4096).totalBlocks(262144);
    for (uint32_t file = 0; file < kFiles; file++) {
        HFSPlusBuilderExtents extents;
        for (uint32_t piece = 0; piece < kPieces; piece++) {
            extents.push_back({100000 + 16 * (kFiles * piece + file), 16});
        }
        builder.file("/large " + std::to_string(file), 100 + file).data(extents);
    }
    return builder;
}

/** What a tool does that begins a run, waits for @p next, and then ends as it was asked to. */
std::string beginAndRead(const std::string& next)
{
    return "echo \"$word,START\"; echo \"$word,PROGRESS,25,24,40,8,40\"; " + next +
           "; echo end >> \"$journal\"; echo \"$word,DONE\"; exit 0";
}

/** Reads lines of output until one holds @p text; false at the end. */
bool awaitOutput(ToolProcess& process, const std::string& text)
{
    while (const std::optional<std::string> line = process.readLine()) {
        if (line->find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

bool awaitMessage(ToolProcess& process, const std::string& text)
{
    while (const std::optional<std::string> line = process.readErrorLine()) {
        if (line->find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

TEST(ControlRuns, DefragPutsEveryFileInOnePieceAndKeepsItsBytes)
{
    const Volume volume;
    const ControlCommand control;

    const ControlResult before = control.run({"info", volume.path(), "--json"});
    const ControlResult run = control.run({"defrag", volume.path(), "--verify"});
    const ControlResult after = control.run({"info", volume.path(), "--json"});

    EXPECT_EQ(run.status, 0) << run.messages;
    ASSERT_EQ(before.status, 0) << before.messages;
    EXPECT_EQ(nlohmann::json::parse(before.output)["fragmentation"]["files"], 12);
    EXPECT_EQ(nlohmann::json::parse(after.output)["fragmentation"]["files"], 0);
    EXPECT_NE(run.output.find("Hashing files before"), std::string::npos);
    EXPECT_NE(run.output.find("Hashing files after"), std::string::npos);
    // The rollback file is kept where it belongs, and empty after an orderly end.
    ASSERT_EQ(control.stateFiles().size(), 1U);
    EXPECT_EQ(control.stateFiles().begin()->second, 0U);
}

TEST(ControlRuns, CompactLeavesOneFreeRun)
{
    const Volume volume;
    const ControlCommand control;

    EXPECT_EQ(control.run({"compact", volume.path(), "--no-rollback", "--verify"}).status, 0);

    const ControlResult after = control.run({"info", volume.path(), "--json"});
    EXPECT_EQ(nlohmann::json::parse(after.output)["freeSpace"]["runs"], 1);
    EXPECT_TRUE(control.stateFiles().empty());
}

TEST(ControlRuns, CtrlCBeforeTheMovesChangesNothing)
{
    // The tool answers the first command only after the signal.
    const FakeTool tool({.asked = "[ -e \"$journal.go\" ] || { echo waiting >&2; "
                                  "while ! [ -e \"$journal.go\" ]; do sleep 0.05; done; }"});
    ControlCommand control;
    control.setTool(tool.path());
    ToolProcess process(control.setup({"defrag", tool.image(), "--force"}));

    ASSERT_TRUE(awaitMessage(process, "waiting"));
    process.sendSignal(SIGINT);
    std::ofstream(tool.goPath()) << "go";

    EXPECT_NE(process.readErrorsToEnd().find("Ctrl-C: stopped before anything was changed."),
              std::string::npos);
    EXPECT_EQ(process.wait(), 1);
    EXPECT_EQ(tool.journal().find("DEFRAG"), std::string::npos);
    EXPECT_NE(tool.journal().find("QUIT"), std::string::npos);
}

TEST(ControlRuns, CtrlCWhileBlocksMoveStopsSafelyAndSaysWhatItWaitsFor)
{
    const FakeTool tool({.moving = beginAndRead("read -r next; echo \"$next\" >> \"$journal\"")});
    ControlCommand control;
    control.setTool(tool.path());
    ToolProcess process(control.setup({"compact", tool.image(), "--force"}));

    ASSERT_TRUE(awaitOutput(process, "25%"));
    process.sendSignal(SIGINT);

    EXPECT_TRUE(awaitMessage(process, "Ctrl-C: stopping safely, once the blocks"));
    EXPECT_NE(process.readErrorsToEnd().find("stopped early; the volume is consistent"),
              std::string::npos);
    EXPECT_EQ(process.wait(), 1);
    EXPECT_NE(tool.journal().find("COMPACT\nQUIT\n"), std::string::npos) << tool.journal();
}

TEST(ControlRuns, WhoAsksThreeTimesNeedNotWait)
{
    const FakeTool tool({.moving = beginAndRead("while ! [ -e \"$journal.go\" ]; do sleep 0.05; "
                                                "done; echo late >> \"$journal\"")});
    ControlCommand control;
    control.setTool(tool.path());
    ToolProcess process(control.setup({"defrag", tool.image(), "--force"}));

    ASSERT_TRUE(awaitOutput(process, "25%"));
    process.sendSignal(SIGINT);
    EXPECT_TRUE(awaitMessage(process, "stopping safely"));
    process.sendSignal(SIGINT);
    EXPECT_TRUE(awaitMessage(process, "still waiting"));
    process.sendSignal(SIGINT);
    EXPECT_TRUE(awaitMessage(process, "no longer waiting"));
    EXPECT_EQ(process.wait(), 1);
    // The tool was not harmed: it goes on to its own end.
    std::ofstream(tool.goPath()) << "go";
    for (int attempt = 0; attempt < 200 && tool.journal().find("end") == std::string::npos;
         attempt++) {
        ::usleep(50000);
    }
    EXPECT_NE(tool.journal().find("late"), std::string::npos) << tool.journal();
}

TEST(ControlRuns, CtrlCWhileFilesAreHashedStops)
{
    const Volume volume;
    const ControlCommand control;
    for (const char* const phase : {"Hashing files before", "Hashing files after"}) {
        ToolProcess process(control.setup({"defrag", volume.path(), "--verify", "--no-rollback"}));
        ASSERT_TRUE(awaitOutput(process, phase));
        process.sendSignal(SIGSTOP);
        process.sendSignal(SIGTERM);
        process.sendSignal(SIGCONT);
        const std::string output = process.readToEnd();
        const int status = process.wait();
        // The last file may have been hashed before the signal came.
        EXPECT_TRUE(status == 1 || output.find("100%") != std::string::npos) << status << output;
    }
}

TEST(ControlRuns, TheTimeLimitStopsSafely)
{
    const FakeTool tool({.moving = beginAndRead("read -r next; echo \"$next\" >> \"$journal\"")});
    ControlCommand control;
    control.setTool(tool.path());

    const ControlResult result =
        control.run({"defrag", tool.image(), "--force", "--time-limit", "0.5s"});

    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.messages.find("The time limit is over: stopped early"), std::string::npos)
        << result.messages;
    EXPECT_NE(tool.journal().find("DEFRAG\nQUIT\n"), std::string::npos) << tool.journal();
}

TEST(ControlRuns, TheToolEndsByItselfWhenVzdefragctlIsKilled)
{
    const FakeTool tool({.moving = beginAndRead("read -r next || true")});
    ControlCommand control;
    control.setTool(tool.path());
    {
        ToolProcess process(control.setup({"defrag", tool.image(), "--force"}));
        ASSERT_TRUE(awaitOutput(process, "25%"));
        process.sendSignal(SIGKILL);
        EXPECT_EQ(process.wait(), -SIGKILL);
    }

    for (int attempt = 0; attempt < 200 && tool.journal().find("end") == std::string::npos;
         attempt++) {
        ::usleep(50000);
    }
    EXPECT_NE(tool.journal().find("end\n"), std::string::npos) << tool.journal();
}

/** The process that @p parent has started; 0 when there is none. */
pid_t childOf(pid_t parent)
{
    const std::string process = std::to_string(parent);
    std::ifstream children("/proc/" + process + "/task/" + process + "/children");
    pid_t child = 0;
    children >> child;
    return child;
}

/** Runs a defrag of @p path whose vzdefrag is killed between two flushes. */
ControlResult runKilled(const ControlCommand& control, const std::string& path)
{
    ToolProcess process(control.setup({"defrag", path, "--plain"}));
    EXPECT_TRUE(awaitOutput(process, "MiB moved"));
    const pid_t tool = childOf(process.processID());
    EXPECT_GT(tool, 0);
    ::kill(tool, SIGKILL);
    ControlResult result;
    result.messages = process.readErrorsToEnd();
    result.status = process.wait();
    return result;
}

TEST(ControlRuns, AnInterruptedRunIsRolledBackByTheNextCommandOrByRecover)
{
    const std::vector<std::vector<std::string>> commands = {
        {"recover"}, {"info", "--json"}, {"defrag", "--verify", "--no-rollback"}};
    for (const std::vector<std::string>& command : commands) {
        HFSPlusVolumeBuilder builder;
        const VolumeImage volume(largeVolume(builder));
        const ControlCommand control;
        const VolumeState before = readVolumeState(volume.path());
        const ControlResult killed = runKilled(control, volume.path());
        ASSERT_EQ(killed.status, 7) << killed.messages;
        EXPECT_NE(killed.messages.find("ended by a signal: Killed"), std::string::npos);
        EXPECT_NE(killed.messages.find("vzdefragctl recover"), std::string::npos);
        ASSERT_EQ(control.stateFiles().size(), 1U);
        ASSERT_GT(control.stateFiles().begin()->second, 0U);

        std::vector<std::string> line = {command[0], volume.path()};
        line.insert(line.end(), command.begin() + 1, command.end());
        const ControlResult result = control.run(line);

        EXPECT_EQ(result.status, 0) << command[0] << result.messages;
        EXPECT_NE(result.messages.find("An interrupted run was rolled back"), std::string::npos)
            << result.messages;
        EXPECT_EQ(control.stateFiles().begin()->second, 0U);
        const VolumeState after = readVolumeState(volume.path());
        EXPECT_TRUE(after.check.consistent) << after.check.description();
        EXPECT_EQ(after.hashes, before.hashes) << command[0];
    }
}

TEST(ControlRuns, AnInterruptedRunIsNotForgottenWhenTheImageHasAnotherName)
{
    HFSPlusVolumeBuilder builder;
    const VolumeImage volume(largeVolume(builder));
    const ControlCommand control;
    const VolumeState before = readVolumeState(volume.path());
    ASSERT_EQ(runKilled(control, volume.path()).status, 7);
    const std::string rollback = control.stateFiles().begin()->first;
    const uintmax_t size = control.stateFiles().begin()->second;
    ASSERT_GT(size, 0U);
    const std::string other = volume.path() + ".link";
    std::filesystem::create_hard_link(volume.path(), other);

    // Nothing is written, nothing is lost, and people are told where the records are.
    for (const std::vector<std::string>& line : std::vector<std::vector<std::string>>{
             {"info", other},
             {"defrag", other},
             {"compact", other, "--no-rollback"},
             {"defrag", volume.path(), "--rollback", rollback + ".other"},
             {"recover", other}}) {
        const ControlResult result = control.run(line);
        EXPECT_EQ(result.status, line[0] == "recover" ? 0 : 4) << testing::PrintToString(line);
        EXPECT_NE(result.messages.find(rollback), std::string::npos) << result.messages;
        EXPECT_EQ(control.stateFiles().at(rollback), size);
    }

    const ControlResult result = control.run({"recover", other, "--rollback", rollback});
    EXPECT_EQ(result.status, 0) << result.messages;
    EXPECT_EQ(control.stateFiles().at(rollback), 0U);
    EXPECT_EQ(readVolumeState(volume.path()).hashes, before.hashes);
    std::filesystem::remove(other);
}

TEST(ControlRuns, ALinkToAnImageLeadsToItsInterruptedRun)
{
    HFSPlusVolumeBuilder builder;
    const VolumeImage volume(largeVolume(builder));
    const ControlCommand control;
    ASSERT_EQ(runKilled(control, volume.path()).status, 7);
    const std::string link = volume.path() + ".symlink";
    std::filesystem::create_symlink(volume.path(), link);

    const ControlResult result = control.run({"compact", link, "--no-rollback", "--force"});

    EXPECT_EQ(result.status, 0) << result.messages;
    EXPECT_NE(result.messages.find("An interrupted run was rolled back"), std::string::npos);
    EXPECT_EQ(control.stateFiles().begin()->second, 0U);
    std::filesystem::remove(link);
}

TEST(ControlRuns, WithoutALookAtTheRollbackFileNothingIsMoved)
{
    const FakeTool tool({.moving = "echo \"$word,START\"; echo \"$word,DONE\""});
    ControlCommand control;
    control.setTool(tool.path());
    // A folder that nobody can look into, not even root.
    const std::string loop = tool.image() + ".loop";
    std::filesystem::create_symlink(loop, loop);
    control.setVariable("XDG_STATE_HOME", loop);

    for (const std::vector<std::string>& line : std::vector<std::vector<std::string>>{
             {"recover", tool.image()},
             {"defrag", tool.image(), "--force"},
             {"defrag", tool.image(), "--force", "--no-rollback"}}) {
        const ControlResult result = control.run(line);
        EXPECT_EQ(result.status, 5) << result.messages;
        EXPECT_NE(result.messages.find(loop), std::string::npos) << result.messages;
    }
    EXPECT_EQ(tool.journal(), "");
    EXPECT_EQ(control.run({"info", tool.image()}).status, 0);
    std::filesystem::remove(loop);
}

TEST(ControlRuns, OfTwoOnOneImageTheSecondIsRefused)
{
    HFSPlusVolumeBuilder builder;
    const VolumeImage volume(largeVolume(builder));
    const ControlCommand control;
    ToolProcess first(control.setup({"defrag", volume.path(), "--plain"}));
    ASSERT_TRUE(awaitOutput(first, "MiB moved"));
    first.sendSignal(SIGTSTP);  // and the tool with it

    for (const char* const command : {"defrag", "compact", "info", "recover"}) {
        const ControlResult second = control.run({command, volume.path()});
        EXPECT_EQ(second.status, 3) << command << second.messages;
        EXPECT_NE(second.messages.find("busy"), std::string::npos) << second.messages;
    }

    first.sendSignal(SIGCONT);
    std::ignore = first.readToEnd();
    EXPECT_EQ(first.wait(), 0);
    EXPECT_TRUE(readVolumeState(volume.path()).check.consistent);
}

TEST(ControlRuns, RecoverWithoutRecordsSaysSo)
{
    const Volume volume;
    const ControlCommand control;

    const ControlResult result = control.run({"recover", volume.path()});

    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.messages.find("nothing to recover"), std::string::npos);
}

}  // namespace
