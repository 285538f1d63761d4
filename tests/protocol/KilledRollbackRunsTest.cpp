#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <string>
#include <thread>

#include "Platform/TemporaryFolder.h"
#include "protocol/RealFilesVolume.h"
#include "protocol/ToolProcess.h"
#include "protocol/VolumeJudgement.h"
#include "support/TestSeed.h"

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::microseconds;

constexpr uint64_t kMiB = uint64_t{1} << 20;
constexpr uint32_t kQuickKills = 20;
constexpr uint32_t kKillsBetweenCounts = 50;  // a sign of life in a long hunt
// The image is sparse; what counts is what the files hold.
constexpr uint32_t kQuickMegabytes = 16;
constexpr uint64_t kLeastFreeSpace = 160 * kMiB;  // twice the copy buffer and more
constexpr Microseconds kLongestStart(20000);      // about what opening a volume takes

/** A volume of real files whose runs, with a rollback file, are killed over and over. */
class KilledRollbackRuns : public testing::Test {
protected:
    KilledRollbackRuns() : _random(testSeed())
    {
        const uint64_t filesSize =
            testNumber("VZDEFRAG_TEST_MEGABYTES", kQuickMegabytes) * kMiB / 2;
        makeRealFilesVolume(_original, {.volumeSize = std::max(2 * filesSize, kLeastFreeSpace),
                                        .filesSize = filesSize,
                                        .seed = static_cast<uint32_t>(_random())});
        _before = readVolumeStateWithoutHashes(_original);
        EXPECT_TRUE(_before.check.consistent) << _before.check.description();
        EXPECT_FALSE(_before.fragments.empty());
        _restore();
    }

    [[nodiscard]] bool _below(uint32_t share, uint32_t of) { return _random() % of < share; }

    void _restore()
    {
        copyImage(_original, _image);
        std::filesystem::remove(_rollback);
    }

    [[nodiscard]] ToolProcess::Setup _setup(bool quits = false) const
    {
        ToolProcess::Setup setup = {.program = VZDEFRAG_PROGRAM,
                                    .arguments = {_image},
                                    .environment = {{"VZDefragRollbackFile", _rollback}}};
        if (quits) {
            setup.arguments.emplace_back("--quit");
        }
        return setup;
    }

    /** Runs @p command to its end; its time counts for the moments of the kills. */
    void runToTheEnd(const std::string& command)
    {
        ToolProcess process(_setup());
        EXPECT_EQ(process.readLine(), "READY");
        const auto begin = Clock::now();
        process.write(command + "\n");
        std::string line;
        do {
            line = process.readLine().value_or("the end");
            EXPECT_EQ(line.find(",ERROR,"), std::string::npos) << line;
        } while (!line.ends_with(",DONE") && line != "the end");
        _duration = std::chrono::duration_cast<Microseconds>(Clock::now() - begin);
        process.write("QUIT\n");
        EXPECT_EQ(process.wait(), 0);
    }

    /** Kills a run at a moment that chance chooses, and a few of the openings that follow. */
    void killAndRecover()
    {
        const std::string command = _below(1, 3) ? "COMPACT -q" : "DEFRAG -q";
        if (_isDone || _below(1, 2)) {
            _restore();
        }
        ToolProcess process(_setup());
        ASSERT_EQ(process.readLine(), "READY");
        process.write(command + "\n");
        ASSERT_TRUE(process.readLine());
        _awaitMoment();
        process.sendSignal(SIGKILL);
        _isDone = process.readToEnd().find(",DONE") != std::string::npos;
        EXPECT_EQ(process.wait(), -SIGKILL);
        _keepWhatTheKillLeft();
        while (_below(1, 3)) {
            ToolProcess opening(_setup());
            std::this_thread::sleep_for(kLongestStart * (_random() % 1000) / 1000);
            opening.sendSignal(SIGKILL);
            EXPECT_EQ(opening.wait(), -SIGKILL);
        }
        ToolProcess opening(_setup(true));
        EXPECT_EQ(opening.readToEnd(), "");
        EXPECT_EQ(opening.wait(), 0);
    }

    /** Everything that is wrong with the volume now. */
    [[nodiscard]] std::string faults() const
    {
        const HFSPlusCheckResult check = readVolumeStateWithoutHashes(_image).check;
        std::string found = check.consistent ? "" : check.description();
        if (check.attributes != _before.check.attributes ||
            check.freeBlocks != _before.check.freeBlocks) {
            found += "\nthe header is not as it was";
        }
        if (!isAcceptedByFsck(_image)) {
            found += "\nnot accepted by fsck";
        }
        const std::string difference = differenceOfForks(_image, _original);
        if (!difference.empty()) {
            found += "\n" + difference;
        }
        if (std::filesystem::exists(_rollback) && std::filesystem::file_size(_rollback) != 0) {
            found += "\nthe rollback file is not empty";
        }
        return found;
    }

    [[nodiscard]] uint32_t killsWithRecords() const { return _killsWithRecords; }

private:
    /** Any moment of the run, or one in which the rollback file holds something. */
    void _awaitMoment()
    {
        const auto now = Clock::now();
        const double share = static_cast<double>(_random()) / static_cast<double>(_random.max());
        const auto moment = now + std::chrono::duration_cast<Clock::duration>(_duration * share);
        std::this_thread::sleep_until(moment);
        if (_below(1, 2)) {
            while (!_holdsRecords() && Clock::now() < now + 2 * _duration) {
                std::this_thread::yield();
            }
            std::this_thread::sleep_for(Microseconds(_random() % 2000));
        }
    }

    [[nodiscard]] bool _holdsRecords() const
    {
        constexpr uint64_t kHeader = 512;  // bytes
        std::error_code missing;
        const auto size = std::filesystem::file_size(_rollback, missing);
        return !missing && size > kHeader;
    }

    void _keepWhatTheKillLeft()
    {
        _killsWithRecords += _holdsRecords() ? 1 : 0;
        const char* const folder = std::getenv("VZDEFRAG_TEST_KEEP");
        if (folder != nullptr) {
            copyImage(_image, std::string(folder) + "/volume.img");
            const std::string kept = std::string(folder) + "/rollback";
            std::filesystem::remove(kept);
            // A run that was killed at its very start has not made the file.
            if (std::filesystem::exists(_rollback)) {
                std::filesystem::copy_file(_rollback, kept);
            }
        }
    }

    std::mt19937 _random;
    const TemporaryFolder _folder;
    const std::string _original = _folder.path("original.img");
    const std::string _image = _folder.path("volume.img");
    const std::string _rollback = _folder.path("rollback");
    VolumeState _before;
    Microseconds _duration{0};
    bool _isDone = false;
    uint32_t _killsWithRecords = 0;
};

TEST_F(KilledRollbackRuns, LoseNothingOnceTheVolumeWasOpenedAgain)
{
    ASSERT_FALSE(HasFailure());
    runToTheEnd("DEFRAG -q");
    EXPECT_EQ(faults(), "");
    _restore();

    const uint32_t kills = testRounds(kQuickKills);
    const auto end =
        Clock::now() + std::chrono::seconds(testNumber("VZDEFRAG_TEST_SECONDS", 86400));
    uint32_t lost = 0;
    uint32_t kill = 0;
    // Stops at the first loss, so that what led to it is kept.
    while (kill < kills && Clock::now() < end && lost == 0 && !HasFailure()) {
        killAndRecover();
        const std::string found = faults();
        ++kill;
        if (kill % kKillsBetweenCounts == 0) {
            std::cout << "kill " << kill << std::endl;
        }
        EXPECT_EQ(found, "") << "after kill " << kill;
        lost += found.empty() ? 0 : 1;
    }

    std::cout << "KILLS cases=" << kill << " lost=" << lost
              << " with-records=" << killsWithRecords() << std::endl;
    if (!HasFailure()) {
        runToTheEnd("DEFRAG -q");
        EXPECT_EQ(faults(), "");
    }
}

}  // namespace
