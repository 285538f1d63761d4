#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "protocol/ToolProcess.h"
#include "protocol/VolumeImage.h"
#include "support/HFSPlusVolumeBuilder.h"

namespace {

// How often a run is repeated whose main thread got no turn in it, as a busy machine may have it.
constexpr int kAttempts = 20;

/** A volume whose files lie in alternating single blocks. */
HFSPlusVolumeBuilder fragmentedVolume()
{
    constexpr uint32_t kFiles = 40;
    constexpr uint32_t kPieces = 8;
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(100000);
    for (uint32_t file = 0; file < kFiles; ++file) {
        HFSPlusBuilderExtents extents;
        for (uint32_t piece = 0; piece < kPieces; ++piece) {
            extents.push_back({2000 + piece * 2 * kFiles + file * 2, 1});
        }
        builder.file("/file" + std::to_string(file), 100 + file).data(extents);
    }
    return builder;
}

/** The lines of a DEFRAG from its start to its end, and the seconds that it took. */
struct Transcript {
    std::vector<std::string> lines;
    double seconds = 0;

    [[nodiscard]] std::vector<std::string> progress() const
    {
        std::vector<std::string> values;
        for (const std::string& line : lines) {
            if (line.starts_with("DEFRAG,PROGRESS,")) {
                values.push_back(line);
            }
        }
        return values;
    }
};

Transcript defragWithInterval(const std::string& interval)
{
    HFSPlusVolumeBuilder builder = fragmentedVolume();
    const VolumeImage image(builder);
    ToolProcess process(
        {.program = VZDEFRAG_PROGRAM, .arguments = {"--interval", interval, image.path()}});
    EXPECT_EQ(process.readLine(), "READY");

    Transcript run;
    const auto start = std::chrono::steady_clock::now();
    // Quiet, since moves are printed in the place of progress otherwise.
    process.write("DEFRAG -q\n");
    while (const auto line = process.readLine()) {
        run.lines.push_back(*line);
        if (*line == "DEFRAG,DONE") {
            break;
        }
    }
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    process.closeInput();
    EXPECT_EQ(process.readToEnd(), "");
    EXPECT_EQ(process.wait(), 0);
    return run;
}

TEST(DefragProtocol, ARunBeginsWithItsStartLineAndEndsWithItsDoneLine)
{
    const Transcript run = defragWithInterval("1");

    ASSERT_GE(run.lines.size(), 2U);
    EXPECT_EQ(run.lines.front(), "DEFRAG,START");
    EXPECT_EQ(run.lines.back(), "DEFRAG,DONE");
    for (const std::string& line : run.lines) {
        EXPECT_FALSE(line.starts_with("DEFRAG,ERROR")) << line;
    }
}

TEST(DefragProtocol, AQuarterSecondBetweenProgressLinesMakesAtMostFourASecond)
{
    Transcript busy = defragWithInterval("0.000001");
    for (int attempt = 1; attempt < kAttempts && busy.progress().empty(); ++attempt) {
        busy = defragWithInterval("0.000001");
    }
    const Transcript calm = defragWithInterval("0.25");

    // There is progress to report. How many lines of it depends on how often the main thread gets
    // its turn, since each prints the latest value.
    EXPECT_GT(busy.progress().size(), 0U);
    EXPECT_LE(static_cast<double>(calm.progress().size()), calm.seconds * 4);
}

/** Whether another command's answer comes before the end of a run that was asked for before. */
bool isAnsweredWithinARun()
{
    HFSPlusVolumeBuilder builder = fragmentedVolume();
    const VolumeImage image(builder);
    ToolProcess process({.program = VZDEFRAG_PROGRAM, .arguments = {image.path()}});
    EXPECT_EQ(process.readLine(), "READY");

    // Both in one chunk. The answer comes from the main thread and may overtake the start line of
    // the task's thread.
    process.write("defrag\nbogus\n");
    bool started = false;
    bool answered = false;
    while (const auto line = process.readLine()) {
        started = started || *line == "DEFRAG,START";
        answered = answered || *line == "ERROR,bogus is not a recognized command.";
        if (*line == "DEFRAG,DONE") {
            return started && answered;
        }
    }
    ADD_FAILURE() << "the run does not end";
    return false;
}

TEST(DefragProtocol, ACommandIsAnsweredWhileADefragRuns)
{
    bool answered = false;
    for (int attempt = 0; attempt < kAttempts && !answered && !HasFailure(); ++attempt) {
        answered = isAnsweredWithinARun();
    }

    EXPECT_TRUE(answered);
}

}  // namespace
