#include "ControlEventsDisplay.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "control/SampleFigures.h"

namespace {

using Document = nlohmann::ordered_json;

/** A stream that knows what of it had been flushed. */
class FlushCounter : public std::stringbuf {
public:
    size_t flushed = 0;

protected:
    int sync() override
    {
        flushed = str().size();
        return 0;
    }
};

class ControlEventsDisplayTest : public testing::Test {
protected:
    /** What was written since the last call, one document a line. */
    std::vector<Document> events()
    {
        std::vector<Document> documents;
        const std::string text = _buffer.str();
        EXPECT_EQ(_buffer.flushed, text.size());
        EXPECT_TRUE(std::ranges::all_of(
            text, [](char byte) { return byte == '\n' || (byte >= ' ' && byte < 0x7F); }));
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            documents.push_back(Document::parse(line));
        }
        _buffer.str("");
        return documents;
    }

    double _now = 100;
    FlushCounter _buffer;
    std::ostream _output{&_buffer};
    ControlEventsDisplay _display{_output, [this] { return _now; }};
};

TEST_F(ControlEventsDisplayTest, EveryEventHasItsNameAndTheSecondsSinceTheBegin)
{
    _now = 200;
    _display.runWillBegin(ControlJob::kCompact, ControlFigures());
    _now = 201.5;
    _display.phaseDidChange("Hashing files", 40);
    _display.blocksDidMove({.source = 1, .destination = 2, .count = 3});
    _display.progressDidChange({});
    _display.runWillStop("why");
    _display.showMessage("what");
    _now = 203;
    _display.runDidEnd({});

    std::vector<std::string> names;
    std::vector<double> times;
    for (const Document& event : events()) {
        names.push_back(event["event"]);
        times.push_back(event["time"]);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"begin", "phase", "move", "progress", "stopping",
                                               "message", "end"}));
    EXPECT_EQ(times, (std::vector<double>{0, 1.5, 1.5, 1.5, 1.5, 1.5, 3}));
}

TEST_F(ControlEventsDisplayTest, TheBeginTellsTheJobAndTheFigures)
{
    const SampleVolume volume = sampleVolume();

    _display.runWillBegin(ControlJob::kDefrag, volume.figures);

    const Document event = events().at(0);
    EXPECT_EQ(event["job"], "defrag");
    EXPECT_EQ(event["version"], kControlEventsVersion);
    EXPECT_EQ(event["image"], volume.figures.image);
    EXPECT_EQ(event["before"]["volume"]["totalBlocks"], volume.figures.totalBlocks);
    EXPECT_EQ(event["before"]["fragmentation"]["files"], volume.figures.fragmentation.files);
    EXPECT_EQ(event["before"]["freeSpace"]["runs"], volume.figures.freeSpace.runs);
}

TEST_F(ControlEventsDisplayTest, AMoveTellsItsBlocks)
{
    _display.blocksDidMove({.source = 4294967295U, .destination = 7, .count = 12});

    EXPECT_EQ(events().at(0), (Document{{"event", "move"},
                                        {"time", 0.0},
                                        {"source", 4294967295U},
                                        {"destination", 7},
                                        {"count", 12}}));
}

TEST_F(ControlEventsDisplayTest, WhatIsNotKnownIsNull)
{
    _display.progressDidChange({.percent = 5, .movedBlocks = 9, .movedBytes = 36864});
    _display.progressDidChange({.bytesPerSecond = std::numeric_limits<double>::infinity(),
                                .secondsLeft = 1.23456,
                                .elapsed = 2});
    _display.phaseDidChange("Waiting", std::nullopt);
    _display.runDidEnd({});

    const std::vector<Document> documents = events();
    EXPECT_EQ(documents.at(0)["percent"], 5);
    EXPECT_EQ(documents.at(0)["movedBlocks"], 9);
    EXPECT_EQ(documents.at(0)["movedBytes"], 36864);
    EXPECT_EQ(documents.at(0)["secondsLeft"], nullptr);
    EXPECT_EQ(documents.at(1)["secondsLeft"], 1.235);
    EXPECT_EQ(documents.at(1)["bytesPerSecond"], nullptr);
    EXPECT_EQ(documents.at(2)["percent"], nullptr);
    EXPECT_EQ(documents.at(3)["after"], nullptr);
}

TEST_F(ControlEventsDisplayTest, TheEndTellsWhetherAndWhyItCameEarly)
{
    const SampleVolume after = tidySampleVolume();

    _display.runDidEnd(
        {.isComplete = true, .message = "", .progress = {}, .after = &after.figures});
    _display.runDidEnd({.isComplete = false, .message = "no", .progress = {.percent = 8}});

    const std::vector<Document> documents = events();
    EXPECT_EQ(documents.at(0)["status"], "complete");
    EXPECT_EQ(documents.at(0)["reason"], "");
    EXPECT_EQ(documents.at(0)["after"]["fragmentation"]["files"], 0);
    EXPECT_EQ(documents.at(1)["status"], "stopped");
    EXPECT_EQ(documents.at(1)["reason"], "no");
    EXPECT_EQ(documents.at(1)["percent"], 8);
}

TEST_F(ControlEventsDisplayTest, NamesOfAnyBytesMakeValidLines)
{
    ControlFigures figures;
    figures.image = "a\xFF\"\\\n\x1b\xED\xA0\x80é\u202E";

    _display.runWillBegin(ControlJob::kDefrag, figures);
    _display.showMessage(figures.image);
    _display.runWillStop(figures.image);
    _display.phaseDidChange(figures.image, 1);

    const std::vector<Document> documents = events();
    ASSERT_EQ(documents.size(), 4U);
    const std::string image = documents[0]["image"];
    EXPECT_TRUE(image.starts_with("a\uFFFD\"\\\n\x1b"));
    EXPECT_TRUE(image.ends_with("é\u202E"));
    EXPECT_EQ(documents[1]["message"], image);
    EXPECT_EQ(documents[2]["reason"], image);
    EXPECT_EQ(documents[3]["phase"], image);
}

}  // namespace
