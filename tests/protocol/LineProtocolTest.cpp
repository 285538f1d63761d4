#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>

#include "protocol/ToolProcess.h"
#include "protocol/VolumeImage.h"

namespace {

/** The tool on a small volume, ready for commands. */
class LineProtocol : public testing::Test {
protected:
    LineProtocol() { EXPECT_EQ(process.readLine(), "READY"); }

    /** Sends @p input and the end of input, and gives what the tool prints until it ends. */
    std::string outputFor(const std::string& input)
    {
        process.write(input);
        process.closeInput();
        std::string output = process.readToEnd();
        EXPECT_EQ(process.readErrorsToEnd(), "");
        EXPECT_EQ(process.wait(), 0);
        return output;
    }

    VolumeImage image;
    ToolProcess process{{.program = VZDEFRAG_PROGRAM, .arguments = {image.path()}}};
};

/** What the tool prints with its standard input from @p inputPath. */
std::string outputForInputFile(const std::string& inputPath)
{
    const VolumeImage image;
    ToolProcess process(
        {.program = VZDEFRAG_PROGRAM, .arguments = {image.path()}, .inputPath = inputPath});
    std::string output = process.readToEnd();
    EXPECT_EQ(process.wait(), 0);
    return output;
}

/** The same with a file that holds @p content. */
std::string outputForInputContent(const std::string& content)
{
    const std::string path = uniqueTemporaryPath("commands.txt");
    std::ofstream(path, std::ios::binary) << content;
    std::string output = outputForInputFile(path);
    std::filesystem::remove(path);
    return output;
}

TEST_F(LineProtocol, EndOfInputWithNoCommandEndsTheToolCleanly)
{
    EXPECT_EQ(outputFor(""), "");
}

TEST_F(LineProtocol, QuitEndsTheToolInAnyCaseOfItsLetters)
{
    process.write("qUiT\n");

    EXPECT_EQ(process.readToEnd(), "");
    EXPECT_EQ(process.wait(), 0);
}

TEST_F(LineProtocol, QuitMayHaveBlanksAndWordsAroundIt)
{
    process.write(" \t QUIT\tnow please\n");

    EXPECT_EQ(process.readToEnd(), "");
    EXPECT_EQ(process.wait(), 0);
}

TEST_F(LineProtocol, LinesAfterQuitAreIgnored)
{
    EXPECT_EQ(outputFor("QUIT\nQUIT\nbogus\nDEFRAG\n"), "");
}

TEST_F(LineProtocol, ABlankLineProducesNoOutput)
{
    EXPECT_EQ(outputFor("\n   \n\t\n \t \n"), "");
}

TEST_F(LineProtocol, AnUnknownCommandIsNamedAsItWasTyped)
{
    EXPECT_EQ(outputFor("Frobnicate -x\nQUITE\n"),
              "ERROR,Frobnicate is not a recognized command.\n"
              "ERROR,QUITE is not a recognized command.\n");
}

TEST_F(LineProtocol, AnUnknownCommandIsEscaped)
{
    EXPECT_EQ(outputFor(std::string("a,b\\c\0d\n", 8)),
              "ERROR,a\\,b\\\\c\\xC0\\x80d is not a recognized command.\n");
}

TEST_F(LineProtocol, AnUnknownCommandIsAnsweredAtOnce)
{
    process.write("one\n");
    EXPECT_EQ(process.readLine(), "ERROR,one is not a recognized command.");

    process.write("two\n");
    EXPECT_EQ(process.readLine(), "ERROR,two is not a recognized command.");
}

TEST_F(LineProtocol, ALineEndedByCarriageReturnAndNewlineIsNotRecognized)
{
    EXPECT_EQ(outputFor("SCAN\r\n"), "ERROR,SCAN\r is not a recognized command.\n");
}

TEST_F(LineProtocol, OnlySpacesAndTabsSeparateWords)
{
    EXPECT_EQ(outputFor("QUIT\vnow\n"), "ERROR,QUIT\vnow is not a recognized command.\n");
}

TEST_F(LineProtocol, ALineThatIsNotUTF8IsIgnored)
{
    EXPECT_EQ(outputFor("QUIT\xFF\nnext\n"), "ERROR,next is not a recognized command.\n");
}

TEST_F(LineProtocol, CommandWordsAreTakenInAnyCaseAndAnsweredUnderTheirOwnName)
{
    const std::pair<std::string, std::string> words[] = {
        {"scan", "SCAN"},         {"Scan", "SCAN"}, {"SCAN", "SCAN"},
        {"fragInfo", "FRAGINFO"}, {"map", "MAP"},   {"Bitmap", "BITMAP"},
    };
    for (const auto& [word, name] : words) {
        process.write(word + "\n");
        EXPECT_EQ(process.readLine(), name + ",START");
        std::optional<std::string> line;
        do {
            line = process.readLine();
        } while (line && *line != name + ",DONE");
        EXPECT_TRUE(line) << word;
    }
}

TEST_F(LineProtocol, ALineWithoutItsNewlineAtTheEndOfInputIsNoCommand)
{
    EXPECT_EQ(outputFor("one\ntwo"), "ERROR,one is not a recognized command.\n");
}

TEST_F(LineProtocol, ManyLinesInOneChunkAreAnsweredInOrder)
{
    std::string input;
    std::string expected;
    for (int line = 0; line < 2000; ++line) {
        input += "line" + std::to_string(line) + "\n";
        expected += "ERROR,line" + std::to_string(line) + " is not a recognized command.\n";
    }

    EXPECT_EQ(outputFor(input), expected);
}

TEST_F(LineProtocol, AHangUpHasNoEffect)
{
    process.sendSignal(SIGHUP);

    EXPECT_EQ(outputFor("next\n"), "ERROR,next is not a recognized command.\n");
}

TEST_F(LineProtocol, TheTerminateSignalActsLikeQuit)
{
    process.sendSignal(SIGTERM);

    EXPECT_EQ(process.readToEnd(), "");
    EXPECT_EQ(process.wait(), 0);
}

TEST_F(LineProtocol, TheInterruptSignalActsLikeQuit)
{
    process.sendSignal(SIGINT);

    EXPECT_EQ(process.readToEnd(), "");
    EXPECT_EQ(process.wait(), 0);
}

TEST_F(LineProtocol, TheQuitSignalActsLikeQuit)
{
    process.sendSignal(SIGQUIT);

    EXPECT_EQ(process.readToEnd(), "");
    EXPECT_EQ(process.wait(), 0);
}

TEST_F(LineProtocol, AReaderThatGoesAwayEndsTheTool)
{
    process.closeOutput();

    process.write("bogus\n");

    EXPECT_EQ(process.wait(), 0);
}

TEST(LineProtocolInput, CommandsMayComeFromAFileWithAndWithoutAFinalNewline)
{
    const std::string answer = "ERROR,one is not a recognized command.\n";

    EXPECT_EQ(outputForInputContent("one\n"), "READY\n" + answer);
    EXPECT_EQ(outputForInputContent("one\ntwo"), "READY\n" + answer);
    EXPECT_EQ(outputForInputContent("one\nQUIT\nthree\n"), "READY\n" + answer);
    EXPECT_EQ(outputForInputContent(""), "READY\n");
}

TEST(LineProtocolInput, InputMayBeTheNullDevice)
{
    EXPECT_EQ(outputForInputFile("/dev/null"), "READY\n");
}

TEST(LineProtocolInput, AClosedStandardInputIsTheEndOfInput)
{
    const VolumeImage image;
    ToolProcess process(
        {.program = VZDEFRAG_PROGRAM, .arguments = {image.path()}, .inputClosed = true});

    EXPECT_EQ(process.readToEnd(), "READY\n");
    EXPECT_EQ(process.wait(), 0);
}

TEST(LineProtocolInput, LinesThatArriveBeforeTheToolIsReadyWait)
{
    const VolumeImage image;
    ToolProcess process({.program = VZDEFRAG_PROGRAM, .arguments = {image.path()}});

    process.write("early\nQUIT\n");

    EXPECT_EQ(process.readToEnd(), "READY\nERROR,early is not a recognized command.\n");
    EXPECT_EQ(process.wait(), 0);
}

}  // namespace
