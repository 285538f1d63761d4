#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/TemporaryFolder.h"
#include "protocol/DefragSession.h"
#include "protocol/VolumeJudgement.h"

namespace {

constexpr uint32_t kBlockSize = 4096;
constexpr uint32_t kFiles = 12;
constexpr uint32_t kPieceBlocks = 32;
constexpr uint32_t kFirstBlock = 2000;  // of the files
constexpr std::chrono::seconds kTimeAllowed(60);
constexpr std::chrono::microseconds kStep(200);
constexpr uint64_t kMiB = uint64_t{1} << 20;

/** A moment of a run: so much of the data of a copy list has been transferred. */
struct Moment {
    const char* name;
    bool clearing;     // while the front is cleared; otherwise while data are placed there
    bool reading;      // counts bytes read; otherwise bytes written
    uint32_t percent;  // of what the copy list carries
    const char* command = "DEFRAG";
};

std::ostream& operator<<(std::ostream& stream, const Moment& moment)
{
    return stream << moment.name;
}

/** What one copy list carries on this machine, in bytes: the program's own share of memory. */
uint64_t copyListBytes()
{
    const uint64_t memory = static_cast<uint64_t>(::sysconf(_SC_PHYS_PAGES)) *
                            static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
    return std::min(memory / 16, 64 * kMiB);
}

void buildVolume(const std::string& path)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(kBlockSize).totalBlocks(80000);
    addInterleavedFiles(
        builder,
        {.firstBlock = kFirstBlock, .files = kFiles, .pieces = 50, .pieceBlocks = kPieceBlocks},
        kBlockSize);
    EXPECT_TRUE(builder.buildFile(path)) << builder.error();
}

/** Stops the process; false when it has ended. */
bool stopProcess(pid_t process)
{
    int status = 0;
    return ::kill(process, SIGSTOP) == 0 && ::waitpid(process, &status, WUNTRACED) == process &&
           WIFSTOPPED(status);
}

/** Reads so many lines of the first copy list that the others find room in the pipe.
 *
 *  The list has a line for each piece that it clears away; the blocks before the first piece may
 *  be free and then take the place of some.
 */
void readFirstList(DefragSession& session, DefragTranscript& run)
{
    const uint64_t most = copyListBytes() / (kPieceBlocks * kBlockSize);
    while (run.moves().size() + kFirstBlock / kPieceBlocks + 1 < most) {
        ASSERT_TRUE(session.readToFirstMove(run));
    }
}

/** Kills a run on the image at @p path at the @p moment; false when the moment has passed. */
bool killRunAt(const std::string& path, const Moment& moment)
{
    DefragTranscript run;
    DefragSession session(path);
    const auto transferred = [&] {
        return moment.reading ? session.bytesRead() : session.bytesWritten();
    };
    uint64_t base = 0;
    session.command(moment.command);
    if (!moment.clearing) {
        // The first list is on disk, and the program stands still until its lines are read.
        EXPECT_TRUE(session.readToFirstMove(run));
        base = transferred();
        readFirstList(session, run);
    }
    const uint64_t wanted = base + copyListBytes() * moment.percent / 100;
    const auto deadline = std::chrono::steady_clock::now() + kTimeAllowed;
    // In short steps, so that a busy machine does not let the moment pass unseen.
    const pid_t process = session.process().processID();
    bool stopped = stopProcess(process);
    while (stopped && transferred() < wanted && std::chrono::steady_clock::now() < deadline) {
        session.process().sendSignal(SIGCONT);
        std::this_thread::sleep_for(kStep);
        stopped = stopProcess(process);
    }
    EXPECT_TRUE(stopped);
    EXPECT_GE(transferred(), wanted);
    // Far from the last piece: what follows it is no longer the data's phase.
    const bool inTime = transferred() < base + copyListBytes() * 95 / 100;
    session.process().sendSignal(SIGKILL);
    EXPECT_EQ(session.process().wait(), -SIGKILL);
    return inTime;
}

class KilledRun : public testing::TestWithParam<Moment> {};

TEST_P(KilledRun, LeavesEveryByteOfEveryFork)
{
    constexpr int kAttempts = 100;
    const TemporaryFolder folder;
    const std::string path = folder.path("volume.img");
    bool inTime = false;
    VolumeState before;

    // A busy machine may show the moment only when it is over: then there is another run.
    for (int attempt = 0; attempt < kAttempts && !inTime && !HasFailure(); ++attempt) {
        buildVolume(path);
        before = readVolumeState(path);
        inTime = killRunAt(path, GetParam());
    }

    ASSERT_TRUE(inTime);
    ASSERT_TRUE(before.check.consistent) << before.check.description();
    ASSERT_EQ(before.hashes.size(), kFiles);
    EXPECT_EQ(readVolumeState(path).hashes, before.hashes);
}

INSTANTIATE_TEST_SUITE_P(
    Program, KilledRun,
    testing::Values(Moment{"AtOnce", true, false, 0}, Moment{"WhileTheFrontIsRead", true, true, 50},
                    Moment{"WithTheFirstPieceWritten", true, false, 1},
                    Moment{"WithHalfTheFrontCleared", true, false, 50},
                    Moment{"WithMostOfTheFrontCleared", true, false, 80},
                    Moment{"WithTheFirstPiecePlaced", false, false, 1},
                    Moment{"WithHalfTheForksPlaced", false, false, 50},
                    Moment{"WithMostOfTheForksPlaced", false, false, 80},
                    Moment{"WithHalfTheFrontClearedToCompact", true, false, 50, "COMPACT"},
                    Moment{"WithTheFirstDataSlid", false, false, 1, "COMPACT"}),
    [](const auto& instance) { return std::string(instance.param.name); });

/** Runs whose output nobody reads any further stand still behind a copy list's flush. */
class KilledBehindALine : public testing::TestWithParam<std::pair<const char*, size_t>> {};

TEST_P(KilledBehindALine, LeavesAVolumeThatLacksNothingButTheMarkOfAnOrderlyEnd)
{
    const TemporaryFolder folder;
    const std::string path = folder.path("volume.img");
    buildVolume(path);
    const VolumeState before = readVolumeState(path);

    DefragTranscript run;
    DefragSession session(path);
    const auto [command, moves] = GetParam();
    session.command(command);
    while (run.moves().size() < moves) {
        ASSERT_TRUE(session.readToFirstMove(run));
    }
    session.process().sendSignal(SIGKILL);

    EXPECT_EQ(session.process().wait(), -SIGKILL);
    const VolumeState after = readVolumeState(path);
    EXPECT_EQ(after.check.problems,
              (std::vector<std::string>{"the volume was not unmounted cleanly",
                                        "attributes 0x80000800 call the volume inconsistent"}));
    EXPECT_TRUE(isAcceptedByFsck(path));
    EXPECT_EQ(after.hashes, before.hashes);
}

INSTANTIATE_TEST_SUITE_P(Program, KilledBehindALine,
                         testing::Values(std::pair("DEFRAG", 1), std::pair("DEFRAG", 100),
                                         std::pair("DEFRAG", 520), std::pair("DEFRAG", 620),
                                         std::pair("COMPACT", 620)),
                         [](const auto& instance) {
                             return instance.param.first + std::to_string(instance.param.second);
                         });

}  // namespace
