#include "KLKit/KLToolApplication.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include "protocol/ToolProcess.h"

namespace {

ToolProcess::Setup fixture(const std::string& mode)
{
    return {.program = KLTOOLFIXTURE_PROGRAM, .arguments = {mode}};
}

/** What the fixture echoes when its standard input is a file with @p content. */
std::string outputForFile(const std::string& content)
{
    const std::string path =
        testing::TempDir() + "kltoolfixture-" + std::to_string(::getpid()) + ".txt";
    std::ofstream(path, std::ios::binary) << content;
    ToolProcess::Setup setup = fixture("echo");
    setup.inputPath = path;
    ToolProcess process(setup);
    std::string output = process.readToEnd();
    EXPECT_EQ(process.wait(), 0);
    std::filesystem::remove(path);
    return output;
}

/** Expects the fixture to abort in @p mode with @p message first in its log. */
void expectPanic(const std::string& mode, const std::string& message)
{
    ToolProcess process(fixture(mode));
    const std::string first = process.readErrorLine().value_or("");

    EXPECT_TRUE(first.ends_with("]: PANIC: " + message)) << first;
    EXPECT_EQ(process.wait(), -SIGABRT);
}

/** A terminal that the test holds on both sides. */
class Terminal {
public:
    Terminal() : _controller(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        EXPECT_EQ(::grantpt(_controller), 0);
        EXPECT_EQ(::unlockpt(_controller), 0);
        _terminal = ::open(path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_GE(_terminal, 0);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;
    ~Terminal()
    {
        ::close(_terminal);
        ::close(_controller);
    }

    [[nodiscard]] std::string path() const { return ::ptsname(_controller); }

    void type(const std::string& keys)
    {
        EXPECT_EQ(::write(_controller, keys.data(), keys.size()),
                  static_cast<ssize_t>(keys.size()));
    }

    /** Whether all of @p flags are on. */
    [[nodiscard]] bool has(tcflag_t flags) const { return (_settings().c_lflag & flags) == flags; }
    void switchOff(tcflag_t flags)
    {
        termios settings = _settings();
        settings.c_lflag &= ~flags;
        EXPECT_EQ(::tcsetattr(_terminal, TCSANOW, &settings), 0);
    }

private:
    [[nodiscard]] termios _settings() const
    {
        termios settings = {};
        EXPECT_EQ(::tcgetattr(_terminal, &settings), 0);
        return settings;
    }

    int _controller;
    int _terminal = -1;
};

ToolProcess::Setup fixtureOnTerminal(const std::string& mode, const Terminal& terminal)
{
    ToolProcess::Setup setup = fixture(mode);
    setup.inputPath = terminal.path();
    return setup;
}

TEST(KLToolApplication, TheArgumentsEventComesFirst)
{
    ToolProcess process(fixture("echo"));

    process.write("early\n");

    EXPECT_EQ(process.readLine(), "ARGUMENTS 2");
    EXPECT_EQ(process.readLine(), "LINE early");
}

TEST(KLToolApplication, TwoCommandsInOneChunkAreCutOneAfterTheOthersCompletion)
{
    ToolProcess process(fixture("hold"));
    EXPECT_EQ(process.readLine(), "ARGUMENTS 2");

    process.write("one\ntwo\n");
    EXPECT_EQ(process.readLine(), "LINE one");
    process.sendSignal(SIGUSR1);

    EXPECT_EQ(process.readLine(), "COMPLETE");
    EXPECT_EQ(process.readLine(), "LINE two");
}

TEST(KLToolApplication, InputIsNotReadWhileAnEventIsInFlight)
{
    ToolProcess process(fixture("hold"));
    EXPECT_EQ(process.readLine(), "ARGUMENTS 2");
    process.write("one\n");
    EXPECT_EQ(process.readLine(), "LINE one");

    process.write("two\n");
    process.closeInput();
    process.sendSignal(SIGUSR1);

    // The end of input stands behind the second line, which has to be cut and completed first.
    EXPECT_EQ(process.readLine(), "COMPLETE");
    EXPECT_EQ(process.readLine(), "LINE two");
    process.sendSignal(SIGUSR1);
    EXPECT_EQ(process.readLine(), "COMPLETE");
    EXPECT_EQ(process.readLine(), "TERMINATE");
    EXPECT_EQ(process.wait(), 0);
}

TEST(KLToolApplication, ALineLongerThanAReadIsOneEvent)
{
    ToolProcess process(fixture("echo"));
    EXPECT_EQ(process.readLine(), "ARGUMENTS 2");

    process.write(std::string(5000, 'x'));
    process.write(std::string(5000, 'y') + "\nnext\n");

    EXPECT_EQ(process.readLine(), "LONG LINE 10000");
    EXPECT_EQ(process.readLine(), "LINE next");
}

TEST(KLToolApplication, ALineThatIsNotUTF8GivesAnEventWithoutAString)
{
    ToolProcess process(fixture("echo"));
    EXPECT_EQ(process.readLine(), "ARGUMENTS 2");

    process.write("a\xFF\nok\n");

    EXPECT_EQ(process.readLine(), "NO STRING");
    EXPECT_EQ(process.readLine(), "LINE ok");
}

TEST(KLToolApplication, AnEmptyLineIsAnEventToo)
{
    ToolProcess process(fixture("echo"));
    EXPECT_EQ(process.readLine(), "ARGUMENTS 2");

    process.write("\n");

    EXPECT_EQ(process.readLine(), "LINE ");
}

TEST(KLToolApplication, EndOfInputEndsTheLoop)
{
    ToolProcess process(fixture("echo"));

    process.closeInput();

    EXPECT_EQ(process.readToEnd(), "ARGUMENTS 2\nTERMINATE\n");
    EXPECT_EQ(process.wait(), 0);
}

TEST(KLToolApplication, EndOfInputWhileAnEventIsInFlightTerminatesAtOnce)
{
    ToolProcess process(fixture("hold-arguments"));

    process.closeInput();

    EXPECT_EQ(process.readToEnd(), "ARGUMENTS 2\nTERMINATE\n");
    EXPECT_EQ(process.wait(), 0);
}

TEST(KLToolApplication, ALineWithoutNewlineAtTheEndOfInputIsNoEvent)
{
    ToolProcess process(fixture("echo"));

    process.write("whole\npart");
    process.closeInput();

    EXPECT_EQ(process.readToEnd(), "ARGUMENTS 2\nLINE whole\nTERMINATE\n");
    EXPECT_EQ(process.wait(), 0);
}

TEST(KLToolApplication, InputMayBeARegularFile)
{
    EXPECT_EQ(outputForFile("one\ntwo\n"), "ARGUMENTS 2\nLINE one\nLINE two\nTERMINATE\n");
    EXPECT_EQ(outputForFile("one\ntwo"), "ARGUMENTS 2\nLINE one\nTERMINATE\n");
    EXPECT_EQ(outputForFile(""), "ARGUMENTS 2\nTERMINATE\n");
}

TEST(KLToolApplication, InputMayBeTheNullDevice)
{
    ToolProcess::Setup setup = fixture("echo");
    setup.inputPath = "/dev/null";
    ToolProcess process(setup);

    EXPECT_EQ(process.readToEnd(), "ARGUMENTS 2\nTERMINATE\n");
    EXPECT_EQ(process.wait(), 0);
}

TEST(KLToolApplication, InputThatCannotBeReadIsFatal)
{
    ToolProcess::Setup setup = fixture("echo");
    setup.inputPath = "/";
    ToolProcess process(setup);
    const std::string first = process.readErrorLine().value_or("");

    EXPECT_TRUE(first.ends_with("]: PANIC: reading input failed, error 21")) << first;
    EXPECT_EQ(process.wait(), -SIGABRT);
}

TEST(KLToolApplication, LinesTypedOnATerminalAreEvents)
{
    Terminal terminal;
    ToolProcess process(fixtureOnTerminal("echo", terminal));
    EXPECT_EQ(process.readLine(), "ARGUMENTS 2");

    terminal.type("SCANN\x7F -f\n");
    EXPECT_EQ(process.readLine(), "LINE SCAN -f");

    terminal.type("\x04");
    EXPECT_EQ(process.readToEnd(), "TERMINATE\n");
    EXPECT_EQ(process.wait(), 0);
}

TEST(KLToolApplication, CharactersTypedOnATerminalComeAtOnceWithoutEcho)
{
    Terminal terminal;
    ToolProcess process(fixtureOnTerminal("characters", terminal));
    EXPECT_EQ(process.readLine(), "ARGUMENTS 2");

    EXPECT_FALSE(terminal.has(ICANON));
    EXPECT_FALSE(terminal.has(ECHO));
    terminal.type("a");
    EXPECT_EQ(process.readLine(), "CHARACTER a");
}

TEST(KLToolApplication, TheTerminalIsAsItWasWhenTheProcessHasEnded)
{
    Terminal terminal;
    ToolProcess process(fixtureOnTerminal("characters-then-exit", terminal));

    EXPECT_EQ(process.readToEnd(), "ARGUMENTS 2\nTERMINATE\n");
    EXPECT_EQ(process.wait(), 0);

    EXPECT_TRUE(terminal.has(ICANON | ECHO));
}

TEST(KLToolApplication, ReturningToLinesKeepsTheEchoThatTheTerminalHad)
{
    Terminal echoing;
    ToolProcess first(fixtureOnTerminal("characters-then-lines", echoing));
    EXPECT_EQ(first.readLine(), "ARGUMENTS 2");
    EXPECT_TRUE(echoing.has(ICANON | ECHO));

    Terminal silent;
    silent.switchOff(ECHO);
    ToolProcess second(fixtureOnTerminal("characters-then-lines", silent));
    EXPECT_EQ(second.readLine(), "ARGUMENTS 2");
    EXPECT_TRUE(silent.has(ICANON));
    EXPECT_FALSE(silent.has(ECHO));
}

TEST(KLToolApplication, ASignalRegisteredTwiceKeepsTheSecondHandler)
{
    ToolProcess process(fixture("echo"));
    EXPECT_EQ(process.readLine(), "ARGUMENTS 2");

    process.sendSignal(SIGUSR2);

    EXPECT_EQ(process.readLine(), "SECOND");
    process.closeInput();
    EXPECT_EQ(process.readToEnd(), "TERMINATE\n");
}

TEST(KLToolApplication, RingingManyTimesWakesTheLoopAndNeverHoldsTheRinger)
{
    ToolProcess process(fixture("doorbell"));

    // The loop does not run while the ringer rings, so a ring that waits would wait for ever.
    EXPECT_EQ(process.readLine(), "RUNG");
    EXPECT_EQ(process.readLine(), "ARGUMENTS 2");
    EXPECT_EQ(process.readLine(), "TERMINATE");
    EXPECT_EQ(process.wait(), 0);
}

TEST(KLToolApplication, EventsPostedByAnotherThreadReachTheResponderAndUnknownOnesAreCompleted)
{
    ToolProcess process(fixture("posting"));
    EXPECT_EQ(process.readLine(), "ARGUMENTS 2");
    EXPECT_EQ(process.readLine(), "LINE posted");

    process.write("typed\n");

    EXPECT_EQ(process.readLine(), "LINE typed");
    process.closeInput();
    EXPECT_EQ(process.readToEnd(), "TERMINATE\n");
    EXPECT_EQ(process.wait(), 0);
}

TEST(KLToolApplication, WorkForTheMainThreadRunsInPostingOrder)
{
    ToolProcess process(fixture("work-in-order"));

    EXPECT_EQ(process.readToEnd(), "ARGUMENTS 2\nTERMINATE\nIN ORDER\n");
    EXPECT_EQ(process.wait(), 0);
}

TEST(KLToolApplication, AnEventCompletedByAnotherThreadIsCompletedOnTheMainThread)
{
    ToolProcess process(fixture("thread"));
    EXPECT_EQ(process.readLine(), "ARGUMENTS 2");

    process.write("one\ntwo\n");

    EXPECT_EQ(process.readLine(), "LINE one");
    EXPECT_EQ(process.readLine(), "STILL IN FLIGHT 1");
    EXPECT_EQ(process.readLine(), "LINE two");
    EXPECT_EQ(process.readLine(), "STILL IN FLIGHT 1");
}

TEST(KLToolApplication, CharactersAreCutByTheirLeadBytes)
{
    ToolProcess process(fixture("characters"));
    EXPECT_EQ(process.readLine(), "ARGUMENTS 2");

    process.write("a\xC3");
    EXPECT_EQ(process.readLine(), "CHARACTER a");
    process.write("\xA9\xF0\x9F\x93\x81");

    EXPECT_EQ(process.readLine(), "CHARACTER \xC3\xA9");
    EXPECT_EQ(process.readLine(), "CHARACTER \xF0\x9F\x93\x81");
}

TEST(KLToolApplication, ABadSequenceOfCharactersComesByteByByte)
{
    ToolProcess process(fixture("characters"));
    EXPECT_EQ(process.readLine(), "ARGUMENTS 2");

    process.write("\xE0\x80\x80z");

    EXPECT_EQ(process.readLine(), "CHARACTER \xE0");
    EXPECT_EQ(process.readLine(), "CHARACTER \x80");
    EXPECT_EQ(process.readLine(), "CHARACTER \x80");
    EXPECT_EQ(process.readLine(), "CHARACTER z");
}

TEST(KLToolApplication, AnythingButTheMainThreadMayNeitherMakeNorRunIt)
{
    expectPanic("construct-on-thread", "not on the main thread");
    expectPanic("run-on-thread", "not on the main thread");
}

TEST(KLToolApplication, AnIllegalInputTypeIsFatal)
{
    expectPanic("illegal-type", "illegal event type: KLToolEventMouseType");
}

TEST(KLToolApplication, AnIllegalSignalIsFatal)
{
    expectPanic("illegal-signal", "illegal signal: 32");
}

TEST(KLToolApplication, DestroyingTheApplicationIsFatal)
{
    expectPanic("destroy", "unexpected deallocation");
}

TEST(KLToolApplication, CompletingAnEventThatIsNotInFlightIsFatal)
{
    expectPanic("complete-wrong", "completing an event that is not in flight");
}

}  // namespace
