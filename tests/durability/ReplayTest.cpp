#include <gtest/gtest.h>

#include <iostream>
#include <map>

#include "durability/ReplayStates.h"

// Every moment at which the power may go: what the disk then holds, and what opening it again makes
// of that.

namespace {

const HFSPlusCheckOptions kWhileChanging = {.demandsUnmounted = false};

/** Opens what @p device and @p file hold, and says what is wrong with what is then there; empty
 *  where nothing is. */
std::string faultAfterRecovery(const ReplayCase& given, const MemoryBlockDevice& device,
                               const RecordingFile& file,
                               const std::shared_ptr<Recording>& recording)
{
    const std::string error = openRecorded(device, file, recording);
    if (!error.empty()) {
        return " not opened, " + error;
    }
    const HFSPlusCheckResult result = judged(device);
    if (std::string problems = given.expected.newProblems(result); !problems.empty()) {
        return problems;
    }
    if (!file.isEmpty()) {
        return " the file is not empty";
    }
    return given.expected.losses(device, result);
}

void expectRecovered(const ReplayCase& given, CrashState state, ReplayCount& count)
{
    const auto recording = std::make_shared<Recording>();
    const RecordingFile file(recording, std::move(state.file));
    count.add(given, state.description, faultAfterRecovery(given, *state.device, file, recording));
}

/** Recovers @p state, and again from @p cuts moments at which that was cut off itself. */
void expectRecoveredAgain(const ReplayCase& given, const CrashState& state, uint64_t cuts,
                          uint64_t seed, ReplayCount& count)
{
    const auto recording = std::make_shared<Recording>();
    const std::unique_ptr<MemoryBlockDevice> whole = state.device->clone();
    const RecordingFile file(recording, state.file);
    const std::string fault = faultAfterRecovery(given, *whole, file, recording);
    if (!fault.empty()) {
        count.add(given, state.description, fault);
        return;
    }
    const CrashStates states(*state.device, state.file, recording->events());
    for (uint64_t turn = 0; turn < cuts; ++turn) {
        const bool isPrefix = turn % 2 == 0;
        CrashState cut = isPrefix ? states.stateAfter((seed + turn) % (states.events().size() + 1))
                                  : states.stateFromSeed(seed + turn);
        const RecordingFile again(recording, std::move(cut.file));
        std::string difference = faultAfterRecovery(given, *cut.device, again, recording);
        if (difference.empty() && !cut.device->hasSameBytesAs(*whole)) {
            difference = " other bytes than after a recovery that was not cut off";
        }
        count.add(given, state.description + ", recovery: " + cut.description, difference);
    }
}

/** Judges states of a run without a rollback file. */
class MarkJudge {
public:
    explicit MarkJudge(ReplayCount& count) : _count(count) {}

    void judge(const ReplayCase& given, const CrashState& state)
    {
        const HFSPlusCheckResult result = judged(*state.device, kWhileChanging);
        const std::string losses = given.expected.losses(*state.device, result);
        const std::string problems = given.expected.newProblems(result);
        std::string fault;
        if (problems.empty()) {
            fault = losses;
        } else if (!isMarked(result)) {
            fault = " no mark, but" + problems;
        }
        _repairs += problems.empty() ? 0 : 1;
        if (!losses.empty() && fault.empty()) {
            ++_outOfReach;
            _casesOutOfReach[given.name]++;
        }
        _count.add(given, state.description, fault);
    }

    [[nodiscard]] uint64_t repairs() const { return _repairs; }

    /** Prints how many states need repair, and on how many of them contents cannot be reached. */
    void print() const
    {
        std::cout << "need repair: " << _repairs
                  << ", of these with contents out of the catalog's reach: " << _outOfReach
                  << std::endl;
        for (const auto& [name, states] : _casesOutOfReach) {
            std::cout << "  " << states << " of " << name << std::endl;
        }
    }

private:
    ReplayCount& _count;
    uint64_t _repairs = 0;
    uint64_t _outOfReach = 0;
    std::map<std::string, uint64_t> _casesOutOfReach;
};

}  // namespace

TEST(Replay, WithoutARollbackFileWhatNeedsRepairIsMarkedWhereverTheRunIsCutOff)
{
    ReplayCount count("prefixes without a rollback file");
    MarkJudge mark(count);
    forEachReplay(600, false, count, [&](const ReplayCase& given, uint64_t states, uint64_t seed) {
        forPrefixes(given.states.events().size(), states, seed,
                    [&](uint64_t place) { mark.judge(given, given.states.stateAfter(place)); });
    });
    mark.print();
    EXPECT_EQ(count.lost(), 0U);
    EXPECT_GT(mark.repairs(), 0U);
}

TEST(Replay, WithoutARollbackFileWhatNeedsRepairIsMarkedWhateverWritesAreLostTornOrReordered)
{
    ReplayCount count("reordered without a rollback file");
    MarkJudge mark(count);
    forEachReplay(600, false, count, [&](const ReplayCase& given, uint64_t states, uint64_t seed) {
        for (uint64_t turn = 0; turn < states; ++turn) {
            mark.judge(given, given.states.stateFromSeed(seed + turn));
        }
    });
    mark.print();
    EXPECT_EQ(count.lost(), 0U);
    EXPECT_GT(mark.repairs(), 0U);
}

TEST(Replay, WithARollbackFileNothingIsLostWhereverTheRunIsCutOff)
{
    ReplayCount count("prefixes with a rollback file");
    forEachReplay(600, true, count, [&](const ReplayCase& given, uint64_t states, uint64_t seed) {
        forPrefixes(given.states.events().size(), states, seed, [&](uint64_t place) {
            expectRecovered(given, given.states.stateAfter(place), count);
        });
    });
    EXPECT_EQ(count.lost(), 0U);
}

TEST(Replay, WithARollbackFileNothingIsLostWhateverWritesAreLostTornOrReordered)
{
    ReplayCount count("reordered with a rollback file");
    forEachReplay(600, true, count, [&](const ReplayCase& given, uint64_t states, uint64_t seed) {
        for (uint64_t turn = 0; turn < states; ++turn) {
            expectRecovered(given, given.states.stateFromSeed(seed + turn), count);
        }
    });
    EXPECT_EQ(count.lost(), 0U);
}

TEST(Replay, ARecoveryThatIsCutOffAnywhereIsRepeatedWithTheSameResult)
{
    ReplayCount count("recoveries cut off");
    forEachReplay(600, true, count, [&](const ReplayCase& given, uint64_t states, uint64_t seed) {
        constexpr uint64_t kCuts = 6;
        for (uint64_t turn = 0; turn < states; turn += kCuts) {
            const bool isPrefix = (seed + turn) % 4 < 2;
            const size_t place = (seed + turn) % (given.states.events().size() + 1);
            const CrashState state =
                isPrefix ? given.states.stateAfter(place) : given.states.stateFromSeed(seed + turn);
            expectRecoveredAgain(given, state, kCuts, seed + turn, count);
        }
    });
    EXPECT_EQ(count.lost(), 0U);
}

TEST(Replay, AfterARecoveryTheNextRunComesToItsEndAndNothingIsLost)
{
    ReplayCount count("runs after a recovery");
    forEachReplay(200, true, count, [&](const ReplayCase& given, uint64_t states, uint64_t seed) {
        for (uint64_t turn = 0; turn < states; ++turn) {
            CrashState state = given.states.stateFromSeed(seed + turn);
            const auto recording = std::make_shared<Recording>();
            const RecordingFile file(recording, std::move(state.file));
            const char* command = (seed + turn) % 2 == 0 ? "DEFRAG" : "COMPACT";
            std::string error;
            const std::vector<std::string> lines =
                runOn(*state.device, &file, recording, given.volume, {{command}}, error);
            const HFSPlusCheckResult result = judged(*state.device);
            std::string fault =
                given.expected.newProblems(result) + given.expected.losses(*state.device, result);
            if (lines.empty() || lines.back() != std::string(command) + ",DONE") {
                fault += " no end, " + error;
            }
            count.add(given, state.description + ", then " + command, fault);
        }
    });
    EXPECT_EQ(count.lost(), 0U);
}

TEST(Replay, AnUndisturbedRunLeavesTheSameBytesWithARollbackFileAndWithout)
{
    for (const ReplayVolume& volume : replayVolumes()) {
        for (const char* command : {"DEFRAG", "COMPACT"}) {
            SCOPED_TRACE(volume.name + ", " + command);
            const ReplayRun with = runRecorded(volume, {{command}}, true);
            const ReplayRun without = runRecorded(volume, {{command}}, false);

            ASSERT_NE(with.after, nullptr) << with.error;
            EXPECT_TRUE(with.after->hasSameBytesAs(*without.after));
            EXPECT_EQ(with.lines, without.lines);
            EXPECT_TRUE(!with.fileAfter || with.fileAfter->empty());
            EXPECT_FALSE(isMarked(judged(*with.after)));
        }
    }
}
