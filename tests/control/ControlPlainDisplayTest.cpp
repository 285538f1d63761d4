#include "ControlPlainDisplay.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

class ControlPlainDisplayTest : public testing::Test {
protected:
    void begin(const std::string& image = "disk.img")
    {
        ControlFigures figures;
        figures.image = image;
        _display.runWillBegin(ControlJob::kDefrag, figures);
        _output.str("");
    }

    void progress(int percent, uint64_t movedBytes)
    {
        _display.progressDidChange({.percent = percent, .movedBytes = movedBytes});
    }

    std::ostringstream _output;
    std::ostringstream _messages;
    ControlPlainDisplay _display{_output, _messages, ControlCharacters::kASCII};
};

TEST_F(ControlPlainDisplayTest, ALineIsWrittenOnlyWhenThePercentRises)
{
    begin();

    progress(0, 0);
    progress(0, 1024);
    progress(9, 2048);
    progress(9, 3072);
    progress(8, 3072);
    progress(100, 4096);

    EXPECT_EQ(_output.str(), "   0%  0 B moved\n   9%  2.00 KiB moved\n 100%  4.00 KiB moved\n");
    EXPECT_EQ(_messages.str(), "");
}

TEST_F(ControlPlainDisplayTest, MessagesAndReasonsToStopAreNotMixedWithTheProgress)
{
    begin();

    _display.showMessage("Be\x1bware");
    _display.runWillStop("Stopping safely.");

    EXPECT_EQ(_output.str(), "");
    EXPECT_EQ(_messages.str(), "Be\\x1Bware\nStopping safely.\n");
}

TEST_F(ControlPlainDisplayTest, ThePlaceOfTheJobIsEscaped)
{
    ControlFigures figures;
    figures.image = "a\x1b[2Jé";

    _display.runWillBegin(ControlJob::kCompact, figures);

    EXPECT_EQ(_output.str(), "Compacting a\\x1B[2J\\u{00E9}\n");
}

TEST_F(ControlPlainDisplayTest, APhaseWritesALineForEveryTenPercent)
{
    begin();

    _display.phaseDidChange("Hashing files", 0);
    _display.phaseDidChange("Hashing files", 7);
    _display.phaseDidChange("Hashing files", 13);
    _display.phaseDidChange("Reading the volume", std::nullopt);

    EXPECT_EQ(_output.str(), "Hashing files: 0%\nHashing files: 10%\nReading the volume\n");
}

TEST_F(ControlPlainDisplayTest, MovesWriteNothing)
{
    begin();

    _display.blocksDidMove({.source = 1, .destination = 2, .count = 3});

    EXPECT_EQ(_output.str() + _messages.str(), "");
}

TEST_F(ControlPlainDisplayTest, TheEndIsASummary)
{
    begin();

    _display.runDidEnd({.isComplete = false, .message = "No\nmore", .progress = {.percent = 4}});

    EXPECT_EQ(_output.str(), "Stopped early at 4%: 0 B moved in 0:00.\n");
}

}  // namespace
