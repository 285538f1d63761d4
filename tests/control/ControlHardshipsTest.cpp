#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "control/ControlCommand.h"
#include "control/FakeTool.h"
#include "protocol/VolumeImage.h"

namespace {

/** Runs vzdefragctl with @p arguments and the tool at @p tool, from a shell that does @p
 * redirection to it, such as "2>&-".
 */
ControlResult runRedirected(const std::string& redirection, const std::string& tool,
                            const std::string& arguments)
{
    const ControlCommand control;
    ToolProcess::Setup setup = control.setup({});
    setup.program = "/bin/sh";
    setup.arguments = {"-c",
                       "\"$0\" " + arguments + " --tool \"$1\" " + redirection + "; echo $? >&3",
                       VZDEFRAGCTL_PROGRAM, tool};
    const std::string statusPath = uniqueTemporaryPath("status");
    setup.arguments[1] = "exec 3>" + statusPath + "; " + setup.arguments[1];
    ToolProcess process(setup);
    process.closeInput();
    ControlResult result;
    result.output = process.readToEnd();
    result.messages = process.readErrorsToEnd();
    std::ignore = process.wait();
    std::ifstream(statusPath) >> result.status;
    std::filesystem::remove(statusPath);
    return result;
}

/** The most memory that the process @p id has had, in KiB. */
size_t peakMemoryOf(pid_t id)
{
    std::ifstream status("/proc/" + std::to_string(id) + "/status");
    for (std::string word; status >> word;) {
        if (word == "VmHWM:") {
            size_t size = 0;
            status >> size;
            return size;
        }
    }
    return 0;
}

/** A tool that answers BITMAP with @p answer, and goes on as it likes. */
FakeTool::Script answeringBitmap(const std::string& answer)
{
    return {.asked = "case $line in BITMAP*) " + answer + " ;; esac"};
}

/** Waits until the file @p path is there. */
bool awaitFile(const std::string& path)
{
    for (int attempt = 0; attempt < 2400; attempt++) {
        if (std::filesystem::exists(path)) {
            return true;
        }
        ::usleep(25000);
    }
    return false;
}

/** What a script does to stay until the test has seen it, whatever it is asked or sent. */
const std::string kStay =
    "trap '' TERM INT PIPE; echo > \"$journal.go\"; while [ -e \"$journal.go\" ]; do sleep 0.05; "
    "done; exit 0";

TEST(ControlHardships, AToolThatDoesNotEndNeedNotBeWaitedFor)
{
    const std::vector<FakeTool::Script> scripts = {
        {.opening = "echo 'ERROR,Volume is inconsistent.'; " + kStay},
        {.opening = "exec >&- 2>&-; " + kStay},
        answeringBitmap("echo BITMAP,nonsense; " + kStay),
        answeringBitmap("exec >&- 2>&-; " + kStay),
        answeringBitmap(kStay),
    };
    for (const FakeTool::Script& script : scripts) {
        const FakeTool tool(script);
        ControlCommand control;
        control.setTool(tool.path());
        ToolProcess process(control.setup({"info", tool.image()}));
        ASSERT_TRUE(awaitFile(tool.goPath()));
        ::usleep(100000);
        for (int signal = 0; signal < 3; signal++) {
            process.sendSignal(SIGINT);
            ::usleep(100000);
        }
        const std::string messages = process.readErrorsToEnd();
        const int status = process.wait();
        // It went on while the tool still lived.
        EXPECT_TRUE(std::filesystem::exists(tool.goPath())) << script.opening << script.asked;
        EXPECT_TRUE(status == 1 || status == 4 || status == 7) << status << messages;
        std::filesystem::remove(tool.goPath());
    }
}

TEST(ControlHardships, OutputWithoutEndTakesLittleMemory)
{
    const std::string line(10000, 'x');
    const std::vector<std::string> floods = {"tr '\\0' x < /dev/zero",
                                             "echo SCAN,ERROR,; yes " + line,
                                             "yes BITMAP,FILE,2,16,/a" + line};
    for (const std::string& flood : floods) {
        // About 400 MB, then peace.
        const FakeTool tool(answeringBitmap("{ " + flood +
                                            "; } | head -c 400000000; echo > \"$journal.go\"; "
                                            "while [ -e \"$journal.go\" ]; do sleep 0.05; done"));
        ControlCommand control;
        control.setTool(tool.path());
        // A sanitizer would keep what was freed.
        control.setVariable("ASAN_OPTIONS", "quarantine_size_mb=16");
        ToolProcess process(control.setup({"info", tool.image()}));
        ASSERT_TRUE(awaitFile(tool.goPath())) << flood;
        EXPECT_LT(peakMemoryOf(process.processID()), size_t{300} << 10) << flood;
        process.sendSignal(SIGKILL);
        std::ignore = process.wait();
        std::filesystem::remove(tool.goPath());
    }
}

TEST(ControlHardships, AClosedStandardFileIsTakenByNoOther)
{
    const FakeTool tool({.moving = "echo \"$word,START\"; echo \"$word,DONE\""});
    for (const std::string command : {"info", "map", "info --json", "defrag --force --verify"}) {
        const std::string line = command + " " + tool.image();
        const ControlResult usual = runRedirected("", tool.path(), line);
        ASSERT_EQ(usual.status, 0) << usual.messages;

        const ControlResult withoutInput = runRedirected("<&-", tool.path(), line);
        EXPECT_EQ(withoutInput.status, 0) << withoutInput.messages;
        EXPECT_EQ(withoutInput.output.size(), usual.output.size()) << line;

        const ControlResult withoutMessages = runRedirected("<&- 2>&-", tool.path(), line);
        EXPECT_EQ(withoutMessages.status, 0);
        EXPECT_EQ(withoutMessages.output.size(), usual.output.size()) << line;

        const ControlResult withoutOutput = runRedirected(">&-", tool.path(), line);
        EXPECT_EQ(withoutOutput.status, 5);
        EXPECT_NE(withoutOutput.messages.find("standard output"), std::string::npos) << line;

        EXPECT_EQ(runRedirected("<&- >&- 2>&-", tool.path(), line).status, 5) << line;
    }
    // The tool was told nothing but commands.
    std::istringstream lines(tool.journal());
    for (std::string line; std::getline(lines, line);) {
        const std::string word = line.substr(0, line.find(' '));
        EXPECT_TRUE(word == "BITMAP" || word == "FRAGINFO" || word == "SCAN" || word == "DEFRAG" ||
                    word == "QUIT")
            << line;
    }
}

TEST(ControlHardships, AMessageIsNeverACommandOfTheTool)
{
    // Without the three standard files, the tool's input would get their numbers.
    const FakeTool tool({.opening = "tell 'WARNING: DEFRAG'; echo READY"});

    std::ignore = runRedirected("<&- >&- 2>&-", tool.path(), "info " + tool.image());

    EXPECT_EQ(tool.journal(), "BITMAP 1\nFRAGINFO\nSCAN --frag-only\nSCAN -f\nQUIT\n");
}

TEST(ControlHardships, ARunOutlivesItsTerminalOnlyWithNohup)
{
    // Whoever runs the tests may have used nohup as well.
    const auto previous = std::signal(SIGHUP, SIG_DFL);
    for (const bool isHeld : {true, false}) {
        const FakeTool tool(
            {.moving =
                 "echo \"$word,START\"; echo > \"$journal.go\"; sleep 1; echo \"$word,DONE\""});
        const ControlCommand control;
        ToolProcess::Setup setup = control.setup({});
        setup.program = "/bin/sh";
        setup.arguments = {"-c",
                           std::string(isHeld ? "trap '' HUP; " : "") +
                               "exec \"$0\" defrag \"$1\" --tool \"$2\" --force",
                           VZDEFRAGCTL_PROGRAM, tool.image(), tool.path()};
        ToolProcess process(setup);
        ASSERT_TRUE(awaitFile(tool.goPath()));
        process.sendSignal(SIGHUP);
        const std::string messages = process.readErrorsToEnd();
        EXPECT_EQ(process.wait(), isHeld ? 0 : 1) << messages;
    }
    std::signal(SIGHUP, previous);
}

TEST(ControlHardships, HelpThatCannotBeWrittenEndsWith5)
{
    ToolProcess::Setup setup{.program = "/bin/sh"};
    setup.arguments = {"-c", "exec \"$0\" --help >/dev/full", VZDEFRAGCTL_PROGRAM};
    EXPECT_EQ(ToolProcess(setup).wait(), 5);
}

TEST(ControlHardships, ImagesMayBeNamedLikeAnything)
{
    const FakeTool tool({.moving = "echo \"$word,START\"; echo \"$word,DONE\""});
    const std::string folder = uniqueTemporaryPath("names");
    std::filesystem::create_directory(folder);
    for (const std::string name : {"-q", "--help", "-", "map", "defrag", "[a,b]", "a,b", "a\\b",
                                   "'q'", "a\nERROR,b", "\x1B[31m", "\xFF", " "}) {
        std::filesystem::copy_file(tool.image(), folder + "/" + name);
        for (const char* const command : {"info", "defrag --force --plain"}) {
            ToolProcess::Setup setup{.program = "/bin/sh"};
            setup.arguments = {"-c",
                               std::string("cd \"$1\" && exec \"$0\" ") + command +
                                   " --tool \"$2\" --no-rollback -- \"$3\"",
                               VZDEFRAGCTL_PROGRAM,
                               folder,
                               tool.path(),
                               name};
            if (std::string(command) == "info") {
                setup.arguments[1] = "cd \"$1\" && exec \"$0\" info --tool \"$2\" -- \"$3\"";
            }
            ToolProcess process(setup);
            process.closeInput();
            const std::string output = process.readToEnd();
            EXPECT_EQ(process.wait(), 0) << name << process.readErrorsToEnd();
            EXPECT_EQ(output.find('\x1B'), std::string::npos);
            EXPECT_EQ(output.find("\nERROR"), std::string::npos);
        }
    }
    std::filesystem::remove_all(folder);
}

TEST(ControlHardships, AThresholdIsANumber)
{
    const FakeTool tool({});
    ControlCommand control;
    control.setTool(tool.path());
    for (const char* const threshold : {"nan", "inf", "-1", "100.1", "5%", ""}) {
        EXPECT_EQ(control.run({"defrag", tool.image(), "--force", "--threshold", threshold}).status,
                  2)
            << threshold;
    }
    for (const char* const limit : {"0", "-1", "nan", "inf", "1e3", "99999999999h", "1m1h"}) {
        EXPECT_EQ(control.run({"defrag", tool.image(), "--force", "--time-limit", limit}).status, 2)
            << limit;
    }
    EXPECT_EQ(tool.journal(), "");
}

TEST(ControlHardships, NoFileThatIsWrittenMayBeTheVolume)
{
    // Whoever made the volume could have put the beginning of a page there.
    const FakeTool tool({.moving = "echo \"$word,START\"; echo \"$word,DONE\""});
    std::ofstream(tool.image()) << "<!DOCTYPE html>\n<svg>" << std::string(size_t{64} * 4096, 'x');
    const auto size = std::filesystem::file_size(tool.image());
    const std::string link = uniqueTemporaryPath("link");
    std::filesystem::create_hard_link(tool.image(), link);
    ControlCommand control;
    control.setTool(tool.path());
    const std::vector<std::vector<std::string>> lines = {
        {"report", tool.image(), "-o", link},
        {"map", tool.image(), "--svg", link},
        {"defrag", tool.image(), "--force", "--report", link},
        {"defrag", tool.image(), "--force", "--rollback", link},
        {"recover", tool.image(), "--rollback", link},
    };
    for (const std::vector<std::string>& line : lines) {
        const ControlResult result = control.run(line);
        EXPECT_EQ(result.status, 3) << testing::PrintToString(line);
        EXPECT_NE(result.messages.find("is the volume itself"), std::string::npos)
            << result.messages;
    }
    EXPECT_EQ(tool.journal(), "");
    EXPECT_EQ(std::filesystem::file_size(link), size);
    EXPECT_EQ(std::filesystem::hard_link_count(link), 2U);
    std::filesystem::remove(link);
}

}  // namespace
