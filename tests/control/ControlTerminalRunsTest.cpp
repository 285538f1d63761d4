#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "control/ControlCommand.h"
#include "control/FakeTool.h"
#include "control/PseudoTerminal.h"
#include "protocol/VolumeImage.h"

namespace {

/** A run that moves once and then waits for QUIT, or for the file "$journal.go". */
constexpr const char* kWaiting =
    "echo \"$word,START\"; echo \"$word,PROGRESS,25,24,40,8,40\"; "
    "if [ -e \"$journal.go\" ]; then echo \"$word,PROGRESS,100,32,48,8,40\"; "
    "else read -r next; echo \"$next\" >> \"$journal\"; fi; echo \"$word,DONE\"; "
    "[ -e \"$journal.go\" ] || exit 0";

/** vzdefragctl on a terminal of its own, with a tool that a script plays. */
class ControlTerminalRuns : public testing::Test {
protected:
    [[nodiscard]] PseudoTerminal::Setup setup(const std::vector<std::string>& arguments) const
    {
        const ToolProcess::Setup plain = _control.setup(arguments);
        PseudoTerminal::Setup setup{.command = {plain.program}, .environment = plain.environment};
        setup.command.insert(setup.command.end(), plain.arguments.begin(), plain.arguments.end());
        setup.environment["TERM"] = "xterm-256color";
        setup.environment["NO_COLOR"] = "";
        return setup;
    }

    ControlTerminalRuns() : _tool({.moving = kWaiting}) { _control.setTool(_tool.path()); }

    FakeTool _tool;
    ControlCommand _control;
};

TEST_F(ControlTerminalRuns, CtrlCStopsTheToolSafelyAndGivesTheTerminalBack)
{
    PseudoTerminal terminal(setup({"defrag", _tool.image(), "--force"}));
    const std::string modes = terminal.modes();
    ASSERT_TRUE(terminal.waitFor("32.0 KiB moved"));

    terminal.type("\x03");

    EXPECT_TRUE(terminal.waitFor("stopped early; the volume is consistent"));
    EXPECT_EQ(terminal.wait(), 1);
    EXPECT_EQ(terminal.modes(), modes);
    EXPECT_NE(_tool.journal().find("DEFRAG\nQUIT\n"), std::string::npos) << _tool.journal();
}

TEST_F(ControlTerminalRuns, CtrlZPausesTheToolTooAndTheRunGoesOnAfterwards)
{
    PseudoTerminal terminal(setup({"defrag", _tool.image(), "--force"}));
    ASSERT_TRUE(terminal.waitFor("32.0 KiB moved"));

    terminal.type("\x1a");
    ASSERT_TRUE(terminal.waitUntilStopped());
    const std::string children = "/proc/" + std::to_string(terminal.processID()) + "/task/" +
                                 std::to_string(terminal.processID()) + "/children";
    pid_t tool = 0;
    std::ifstream(children) >> tool;
    ASSERT_GT(tool, 0);
    std::string state;
    std::ifstream stat("/proc/" + std::to_string(tool) + "/stat");
    std::string word;
    stat >> word >> word >> state;
    EXPECT_EQ(state, "T");
    const size_t before = terminal.output().size();
    terminal.goOn();
    // The screen is drawn again, all of it.
    EXPECT_TRUE(terminal.waitFor("32.0 KiB moved", before));

    terminal.type("\x03");
    EXPECT_EQ(terminal.wait(), 1);
    EXPECT_NE(_tool.journal().find("DEFRAG\nQUIT\n"), std::string::npos) << _tool.journal();
}

TEST_F(ControlTerminalRuns, AResizedWindowIsFilledAnew)
{
    PseudoTerminal terminal(setup({"defrag", _tool.image(), "--force"}));
    ASSERT_TRUE(terminal.waitFor("32.0 KiB moved"));
    const size_t before = terminal.output().size();

    terminal.resize(40, 12);

    EXPECT_TRUE(terminal.waitFor("32.0 KiB moved", before));
    terminal.type("\x03");
    EXPECT_EQ(terminal.wait(), 1);
}

TEST_F(ControlTerminalRuns, ADumbTerminalGetsLines)
{
    std::ofstream(_tool.goPath()) << "go";
    PseudoTerminal::Setup dumb = setup({"defrag", _tool.image(), "--force"});
    dumb.environment["TERM"] = "dumb";
    PseudoTerminal terminal(dumb);

    EXPECT_EQ(terminal.wait(), 0);
    EXPECT_EQ(terminal.output().find('\033'), std::string::npos);
    EXPECT_NE(terminal.output().find("Done: 64.0 KiB moved"), std::string::npos);
}

TEST_F(ControlTerminalRuns, WithoutColoursNoneAreWritten)
{
    for (const char* const command : {"map", "info"}) {
        PseudoTerminal::Setup plain = setup({command, _tool.image()});
        plain.environment["NO_COLOR"] = "1";
        PseudoTerminal terminal(plain);
        EXPECT_EQ(terminal.wait(), 0);
        EXPECT_EQ(terminal.output().find('\033'), std::string::npos) << terminal.output();
    }
    PseudoTerminal colored(setup({"map", _tool.image()}));
    EXPECT_EQ(colored.wait(), 0);
    EXPECT_NE(colored.output().find("\033["), std::string::npos);
}

TEST_F(ControlTerminalRuns, APlainLocaleGetsPlainCharacters)
{
    for (const char* const command : {"map", "info"}) {
        PseudoTerminal::Setup plain = setup({command, _tool.image()});
        plain.environment["LC_ALL"] = "C";
        PseudoTerminal terminal(plain);
        EXPECT_EQ(terminal.wait(), 0);
        EXPECT_TRUE(std::ranges::all_of(terminal.output(), [](char character) {
            return character > 0;
        })) << terminal.output();
    }
}

/** A block device that nothing reads: its node is all that is looked at. */
class ControlQuestions : public ControlTerminalRuns {
protected:
    void SetUp() override
    {
        _device = uniqueTemporaryPath("device");
        constexpr unsigned kLoopDevices = 7;
        constexpr unsigned kUnused = 251;
        if (::mknod(_device.c_str(), S_IFBLK | 0600, ::makedev(kLoopDevices, kUnused)) != 0) {
            GTEST_SKIP() << "Only the superuser can make a block device's node.";
        }
    }
    void TearDown() override { std::filesystem::remove(_device); }

    std::string _device;
};

TEST_F(ControlQuestions, WithoutATerminalABlockDeviceIsRefusedUnlessToldOtherwise)
{
    std::ofstream(_tool.goPath()) << "go";

    const ControlResult refused = _control.run({"defrag", _device, "--force"});
    EXPECT_EQ(refused.status, 3);
    EXPECT_NE(refused.messages.find("--yes"), std::string::npos) << refused.messages;
    EXPECT_EQ(_tool.journal(), "");

    EXPECT_EQ(_control.run({"defrag", _device, "--force", "--yes"}).status, 0);
    EXPECT_NE(_tool.journal().find("DEFRAG"), std::string::npos);
    // Nothing is written, so nothing is asked.
    EXPECT_EQ(_control.run({"info", _device}).status, 0);
}

TEST_F(ControlQuestions, OnATerminalOnlyYesBeginsARun)
{
    std::ofstream(_tool.goPath()) << "go";
    for (const std::string answer : {"n\r", "\r", "maybe\r", "\x04"}) {
        PseudoTerminal terminal(setup({"compact", _device, "--force"}));
        ASSERT_TRUE(terminal.waitFor("is a block device. Write to it? [y/N]"));
        terminal.type(answer);
        EXPECT_EQ(terminal.wait(), 3);
        EXPECT_EQ(_tool.journal(), "");
    }
    PseudoTerminal terminal(setup({"compact", _device, "--force"}));
    ASSERT_TRUE(terminal.waitFor("[y/N]"));
    terminal.type("y\r");
    EXPECT_EQ(terminal.wait(), 0);
    EXPECT_NE(_tool.journal().find("COMPACT"), std::string::npos);
}

}  // namespace
