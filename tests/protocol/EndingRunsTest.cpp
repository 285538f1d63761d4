#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "Platform/TemporaryFolder.h"
#include "protocol/DefragSession.h"
#include "protocol/VolumeJudgement.h"

namespace {

/** A way to end a run. */
struct Ending {
    const char* name;
    std::function<void(ToolProcess&)> end;
    bool keepsReader = true;

    /** Ends the run that @p process is in the middle of, which goes on when this returns. */
    void perform(ToolProcess& process) const
    {
        end(process);
        // A lost reader is found out by writing, the rest while the run stands still.
        if (keepsReader) {
            process.awaitSleep();
        }
    }
};

std::ostream& operator<<(std::ostream& stream, const Ending& ending)
{
    return stream << ending.name;
}

const std::vector<Ending>& endings()
{
    static const std::vector<Ending> kEndings = {
        {"QUIT", [](ToolProcess& process) { process.write("QUIT\n"); }},
        {"EndOfInput", [](ToolProcess& process) { process.closeInput(); }},
        {"SIGTERM", [](ToolProcess& process) { process.sendSignal(SIGTERM); }},
        {"KilledReader", [](ToolProcess& process) { process.closeOutput(); }, false},
        {"SIGINT", [](ToolProcess& process) { process.sendSignal(SIGINT); }},
        {"SIGQUIT", [](ToolProcess& process) { process.sendSignal(SIGQUIT); }},
    };
    return kEndings;
}

/** A volume whose run takes several copy lists, however much memory there is. */
void buildLongVolume(const std::string& path)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(131072);
    addInterleavedFiles(
        builder,
        {.firstBlock = 2000, .files = 16, .pieces = 72, .pieceBlocks = 32, .slackBytes = 1000},
        4096);
    EXPECT_TRUE(builder.buildFile(path)) << builder.error();
}

/** An image by the name of its volume. */
class RunImage {
public:
    explicit RunImage(const std::string& volume)
    {
        if (volume == "long") {
            buildLongVolume(path());
        } else {
            copyImage(std::string(VZ_SAMPLE_VOLUMES_DIR) + "/" + volume + ".img", path());
        }
    }

    [[nodiscard]] const std::string& path() const { return _path; }

private:
    TemporaryFolder _folder;
    std::string _path = _folder.path("volume.img");
};

/** Expects that one more run does what an ended one has left undone. */
void expectThatANewRunFinishes(const std::string& path, const VolumeState& before)
{
    const DefragTranscript run = defragImage(path);

    EXPECT_EQ(run.errors(), std::vector<std::string>());
    EXPECT_EQ(readVolumeStateWithoutHashes(path).fragments, std::vector<HFSPlusCheckedFork>());
    expectUnharmed(path, before);
}

class EndedRun : public testing::TestWithParam<std::tuple<const char*, Ending>> {};

TEST_P(EndedRun, LeavesASoundVolumeThatANewRunFinishes)
{
    const auto& [volume, ending] = GetParam();
    const RunImage image(volume);
    const VolumeState before = readVolumeState(image.path());

    DefragTranscript run;
    DefragSession session(image.path());
    session.command("DEFRAG");
    ASSERT_TRUE(session.readToFirstMove(run));
    ending.perform(session.process());
    session.readToEnd(run);

    EXPECT_EQ(session.process().wait(), 0);
    EXPECT_EQ(run.errors(), std::vector<std::string>());
    EXPECT_EQ(run.lines.back() == "DEFRAG,DONE", ending.keepsReader);
    EXPECT_FALSE(readVolumeStateWithoutHashes(image.path()).fragments.empty());
    expectUnharmed(image.path(), before);
    expectThatANewRunFinishes(image.path(), before);
}

std::string nameOfEndedRun(const testing::TestParamInfo<EndedRun::ParamType>& instance)
{
    return std::get<1>(instance.param).name;
}

INSTANTIATE_TEST_SUITE_P(LongVolume, EndedRun,
                         testing::Combine(testing::Values("long"), testing::ValuesIn(endings())),
                         nameOfEndedRun);

// Both signals take SIGTERM's way, so the longer volume is enough for them.
INSTANTIATE_TEST_SUITE_P(SampleVolume, EndedRun,
                         testing::Combine(testing::Values("journaled"),
                                          testing::ValuesIn(endings().begin(),
                                                            endings().begin() + 4)),
                         nameOfEndedRun);

TEST(EndingRuns, ASignalEndsAScanThatHasMuchLeftToSay)
{
    const RunImage image("blk1k");

    DefragTranscript scan;
    DefragSession session(image.path());
    session.command("SCAN");
    ASSERT_EQ(session.process().readLine(), "SCAN,START");
    // More than pipe and buffer hold: the scan stands still until somebody reads on.
    ASSERT_TRUE(session.process().readLine());
    session.process().sendSignal(SIGTERM);
    session.process().awaitSleep();
    session.readToEnd(scan);

    EXPECT_EQ(session.process().wait(), 0);
    EXPECT_EQ(scan.lines.back(), "SCAN,DONE");
    EXPECT_LT(scan.lines.size(), 800U);
    EXPECT_TRUE(std::ranges::none_of(
        scan.lines, [](const std::string& line) { return line.starts_with("SCAN,ERROR"); }));
}

TEST(EndingRuns, WhatIsTypedAfterQuitIsIgnored)
{
    const RunImage image("long");
    const VolumeState before = readVolumeState(image.path());

    DefragTranscript run;
    DefragSession session(image.path());
    session.command("DEFRAG");
    ASSERT_TRUE(session.readToFirstMove(run));
    session.command("QUIT\nQUIT\nDEFRAG\nbogus");
    session.process().awaitSleep();
    session.readToEnd(run);

    EXPECT_EQ(session.process().wait(), 0);
    EXPECT_EQ(run.errors(), std::vector<std::string>());
    EXPECT_EQ(run.count("DEFRAG,START"), 1U);
    EXPECT_EQ(run.count("DEFRAG,DONE"), 1U);
    EXPECT_EQ(run.lines.back(), "DEFRAG,DONE");
    EXPECT_FALSE(readVolumeStateWithoutHashes(image.path()).fragments.empty());
    expectUnharmed(image.path(), before);
}

TEST(EndingRuns, AHangupChangesNothing)
{
    const RunImage image("attrs");
    const VolumeState before = readVolumeState(image.path());

    DefragTranscript run;
    DefragSession session(image.path());
    session.command("DEFRAG");
    ASSERT_TRUE(session.readToFirstMove(run));
    session.process().sendSignal(SIGHUP);
    session.readToDone(run);
    session.command("bogus");

    EXPECT_EQ(session.process().readLine(), "ERROR,bogus is not a recognized command.");
    EXPECT_EQ(run.errors(), std::vector<std::string>());
    session.command("QUIT");
    EXPECT_EQ(session.process().wait(), 0);
    EXPECT_EQ(readVolumeStateWithoutHashes(image.path()).fragments,
              std::vector<HFSPlusCheckedFork>());
    expectUnharmed(image.path(), before);
}

TEST(EndingRuns, OfTwoRunsAtOnceBothEndAndNothingIsLost)
{
    const RunImage image("attrs");
    const VolumeState before = readVolumeState(image.path());

    DefragTranscript run;
    DefragSession session(image.path());
    session.command("DEFRAG\nDEFRAG");
    session.readToDone(run, 2);
    session.command("QUIT");
    session.readToEnd(run);

    EXPECT_EQ(session.process().wait(), 0);
    EXPECT_EQ(run.errors(), std::vector<std::string>());
    EXPECT_EQ(run.count("DEFRAG,START"), 2U);
    EXPECT_EQ(run.count("DEFRAG,DONE"), 2U);
    EXPECT_EQ(readVolumeStateWithoutHashes(image.path()).fragments,
              std::vector<HFSPlusCheckedFork>());
    expectUnharmed(image.path(), before);
}

TEST(EndingRuns, QuitEndsTheRunAndTheOneThatWaitsForIt)
{
    const RunImage image("long");
    const VolumeState before = readVolumeState(image.path());

    DefragTranscript run;
    DefragSession session(image.path());
    session.command("DEFRAG\nDEFRAG");
    ASSERT_TRUE(session.readToFirstMove(run));
    session.command("QUIT");
    session.process().awaitSleep();
    session.readToEnd(run);

    EXPECT_EQ(session.process().wait(), 0);
    EXPECT_EQ(run.errors(), std::vector<std::string>());
    EXPECT_EQ(run.count("DEFRAG,DONE"), 2U);
    EXPECT_FALSE(readVolumeStateWithoutHashes(image.path()).fragments.empty());
    expectUnharmed(image.path(), before);
}

class EndedCompact : public testing::TestWithParam<Ending> {};

TEST_P(EndedCompact, LeavesASoundVolumeThatANewRunFinishes)
{
    const RunImage image("long");
    const VolumeState before = readVolumeState(image.path());
    ASSERT_FALSE(before.gaps.empty());

    DefragTranscript run;
    DefragSession session(image.path());
    session.command("COMPACT");
    ASSERT_TRUE(session.readToFirstMove(run));
    GetParam().perform(session.process());
    session.readToEnd(run);

    EXPECT_EQ(session.process().wait(), 0);
    EXPECT_EQ(run.errors(), std::vector<std::string>());
    EXPECT_EQ(run.lines.back() == "COMPACT,DONE", GetParam().keepsReader);
    EXPECT_FALSE(readVolumeStateWithoutHashes(image.path()).gaps.empty());
    expectUnharmed(image.path(), before);
    EXPECT_EQ(defragImage(image.path(), "COMPACT").errors(), std::vector<std::string>());
    const VolumeState after = readVolumeStateWithoutHashes(image.path());
    EXPECT_EQ(after.gaps, std::vector<HFSPlusCheckedExtent>());
    expectSoundAsBefore(image.path(), after, before);
}

INSTANTIATE_TEST_SUITE_P(LongVolume, EndedCompact,
                         testing::Values(endings()[0], endings()[3]),  // QUIT, nobody reads
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST(EndingRuns, ACompactAndADefragAtOnceFollowOneAnother)
{
    const RunImage image("attrs");
    const VolumeState before = readVolumeState(image.path());

    DefragTranscript run;
    DefragSession session(image.path());
    session.command("DEFRAG\nCOMPACT");
    session.readToDone(run, 2);
    session.command("QUIT");
    session.readToEnd(run);

    EXPECT_EQ(session.process().wait(), 0);
    EXPECT_EQ(run.errors(), std::vector<std::string>());
    // Whichever began, its moves are all told before the other's first.
    std::vector<std::string> movers;
    for (const std::string& line : run.lines) {
        const std::string name = line.substr(0, line.find(','));
        if (line.find(",PROGRESS,") != std::string::npos &&
            (movers.empty() || movers.back() != name)) {
            movers.push_back(name);
        }
    }
    EXPECT_LE(movers.size(), 2U);
    EXPECT_EQ(run.count("DEFRAG,DONE"), 1U);
    EXPECT_EQ(run.count("COMPACT,DONE"), 1U);
    EXPECT_EQ(readVolumeStateWithoutHashes(image.path()).fragments,
              std::vector<HFSPlusCheckedFork>());
    expectUnharmed(image.path(), before);
}

TEST(EndingRuns, ASecondProgramFindsTheImageBusyWhileTheFirstRuns)
{
    const RunImage image("attrs");
    const VolumeState before = readVolumeState(image.path());

    DefragTranscript run;
    DefragSession session(image.path());
    session.command("DEFRAG");
    ASSERT_TRUE(session.readToFirstMove(run));
    ToolProcess second({.program = VZDEFRAG_PROGRAM, .arguments = {image.path()}});

    EXPECT_EQ(second.readToEnd(), "ERROR,The device is busy.\n");
    EXPECT_EQ(second.wait(), 0);
    session.readToDone(run);
    EXPECT_EQ(run.errors(), std::vector<std::string>());
    session.command("QUIT");
    EXPECT_EQ(session.process().wait(), 0);
    expectUnharmed(image.path(), before);
}

}  // namespace
