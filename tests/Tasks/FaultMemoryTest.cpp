#include <gtest/gtest.h>

#include <future>
#include <iostream>
#include <sstream>
#include <thread>

#include "HFSPlus/HFSPlusVolumeProber.h"
#include "KLKit/KLMemory.h"
#include "KLKit/KLNotificationCenter.h"
#include "Tasks/FaultVolumes.h"
#include "VZDefragOutput.h"
#include "base/ManualServices.h"
#include "base/StandardOutputCapture.h"
#include "support/FailingAllocations.h"
#include "support/TestSeed.h"

// Every allocation of every command fails in turn, once or from then on until the command is done.
// The program goes on, the command ends in its own words, and the volume is safe.

namespace {

constexpr const char* kOutOfMemory = "Out of memory.";

/** One command with one failure of memory. */
struct ShortRun {
    std::vector<std::string> lines;
    bool hasFailed = false;
};

/** Runs @p task to its end while the @p ordinal-th allocation fails, and those after it until
 *  @p count have failed or the command is done. */
ShortRun runShort(KLToolTask& task, uint64_t ordinal, uint64_t count)
{
    std::promise<void> ended;
    KLNotificationCenter::defaultCenter().addObserver(
        KLToolTaskDidTerminateNotification,
        [&](const std::shared_ptr<KLToolTask>& /*object*/) { ended.set_value(); });
    ShortRun run;
    std::string text;
    {
        const StandardOutputCapture capture;
        FailingAllocations allocations;
        allocations.fail(ordinal, count);
        task.start();
        std::future<void> end = ended.get_future();
        // What follows the done line waits for memory.
        while (end.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
            if (capture.text().ends_with(",DONE\n")) {
                allocations.allow();
            }
        }
        run.hasFailed = allocations.hasFailed();
        text = capture.text();
    }
    KLNotificationCenter::defaultCenter().removeAllObservers();
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        run.lines.push_back(line);
    }
    return run;
}

std::unique_ptr<HFSPlusVolume> opened(const MemoryBlockDevice& memory)
{
    std::unique_ptr<VZDefragError> error;
    const auto device = VZDefragVolume::initWithBlockDevice("/dev/memory", memory.share());
    auto volume = HFSPlusVolume::initWithVolume(*device, &error);
    EXPECT_NE(volume, nullptr) << error->description();
    return volume;
}

/** What is counted over all cases of a test. */
struct Tally {
    uint64_t cases = 0;
    uint64_t tolerated = 0;  // ended without an error
    uint64_t marked = 0;
    uint64_t lost = 0;

    ~Tally()
    {
        std::cout << "FAULTS cases=" << cases << " tolerated=" << tolerated << " marked=" << marked
                  << " lost=" << lost << std::endl;
    }
};

/** Whether @p error is what there is to say: a transfer that there is no memory for has failed with
 *  ENOMEM, a change that cannot be written ends all writing, and a journal that could not be looked
 *  up is met where it lies. */
bool saysWhy(const std::string& error)
{
    return error == kOutOfMemory || error == "Write failure." ||
           error.starts_with("Invalid overlapping extent with start block") ||
           error.find(" failed with an error 12 at ") != std::string::npos;
}

/** Whether the next command gets the volume, whatever became of the one before. */
void expectNextCommandRuns(HFSPlusVolume& volume)
{
    const auto next = makeFaultTask(volume, "FRAGINFO", 0);
    const ShortRun run = runShort(*next, 1, 0);
    EXPECT_TRUE(isFramed(run.lines)) << testing::PrintToString(run.lines);
    EXPECT_EQ(errorOf(run.lines), "");
}

/** One case; whether the allocation was reached. */
bool tryCase(const FaultVolume& kind, const std::string& command, uint64_t ordinal, uint64_t count,
             Tally& tally)
{
    const auto memory = kind.memory->clone();
    ShortRun run;
    {
        const auto volume = opened(*memory);
        const auto task = makeFaultTask(*volume, command, kind.bufferSize);
        run = runShort(*task, ordinal, count);
        EXPECT_TRUE(isFramed(run.lines)) << testing::PrintToString(run.lines);
        expectNextCommandRuns(*volume);
    }
    if (!run.hasFailed) {
        return false;
    }
    const std::string error = errorOf(run.lines);
    const FaultVerdict verdict = judge(kind, *memory);
    ++tally.cases;
    tally.tolerated += error.empty() ? 1 : 0;
    tally.marked += verdict.isMarked ? 1 : 0;
    EXPECT_TRUE(error.empty() || saysWhy(error)) << error;
    if (verdict.isMarked) {
        tally.lost += verdict.hasAllData ? 0 : 1;
    } else {
        EXPECT_TRUE(verdict.isSound()) << verdict.problems;
    }
    return true;
}

void tryCommand(const std::string& command, uint64_t count, uint64_t step)
{
    Tally tally;
    step = testRounds(0) != 0 ? 1 : step;
    for (const FaultVolume& kind : faultVolumes()) {
        uint64_t ordinal = 1;
        while (!testing::Test::HasFailure() && tryCase(kind, command, ordinal, count, tally)) {
            // The first few of a run, where it begins, one by one.
            ordinal += ordinal < 40 ? 1 : step;
        }
        EXPECT_FALSE(testing::Test::HasFailure())
            << kind.name << ", " << command << ", allocation " << ordinal << ", count " << count;
    }
    EXPECT_GT(tally.cases, 30u);
}

/** Opens what @p memory holds as the program does; why it could not be, or nothing. */
std::string open(const MemoryBlockDevice& memory)
{
    class Opener final : public PlatformDeviceOpener {
    public:
        explicit Opener(const MemoryBlockDevice& device) : _device(device) {}
        std::unique_ptr<PlatformBlockDevice> openDevice(const std::string& /*path*/, Mode /*mode*/,
                                                        int& /*errorNumber*/) override
        {
            return _device.share();
        }
        MountState mountState(const std::string& /*path*/) override { return {}; }

    private:
        const MemoryBlockDevice& _device;
    };
    Opener opener(memory);
    HFSPlusVolumeProber prober;
    std::unique_ptr<VZDefragError> error;
    std::unique_ptr<VZDefragVolume> volume;
    const bool hadMemory = KLWithinMemory(
        [&] { volume = VZDefragVolume::initWithDevice("/dev/memory", opener, prober, &error); });
    if (!hadMemory) {
        return kOutOfMemory;
    }
    return error != nullptr ? error->description() : "";
}

}  // namespace

class FaultMemory : public testing::Test {
protected:
    FaultMemory()
    {
        // Before "READY" the program has made what prints lines.
        VZDefragFlushOutput();
    }

    ManualServices _services;
};

TEST_F(FaultMemory, AScanThatRunsOutOfMemorySaysSoAndIsDone)
{
    tryCommand("SCAN --full-paths", 1, 1);
    tryCommand("SCAN --full-paths", FailingAllocations::kFromThenOn, 1);
}

TEST_F(FaultMemory, AFragInfoThatRunsOutOfMemorySaysSoAndIsDone)
{
    tryCommand("FRAGINFO", 1, 1);
    tryCommand("FRAGINFO", FailingAllocations::kFromThenOn, 1);
}

TEST_F(FaultMemory, AMapThatRunsOutOfMemorySaysSoAndIsDone)
{
    tryCommand("MAP -p /folder/song -i 20", 1, 3);
    tryCommand("MAP -p /folder/song -i 20", FailingAllocations::kFromThenOn, 1);
}

TEST_F(FaultMemory, ABitmapThatRunsOutOfMemorySaysSoAndIsDone)
{
    tryCommand("BITMAP 1", 1, 1);
    tryCommand("BITMAP 1", FailingAllocations::kFromThenOn, 1);
}

TEST_F(FaultMemory, ADefragThatRunsOutOfMemorySaysSoAndLeavesTheVolumeSound)
{
    tryCommand("DEFRAG", 1, 31);
}

TEST_F(FaultMemory, ADefragThatGetsNoMemoryAnyMoreSaysSoAndLeavesTheVolumeSound)
{
    tryCommand("DEFRAG", FailingAllocations::kFromThenOn, 31);
}

TEST_F(FaultMemory, ACompactThatRunsOutOfMemorySaysSoAndLeavesTheVolumeSound)
{
    tryCommand("COMPACT", 1, 31);
}

TEST_F(FaultMemory, ACompactThatGetsNoMemoryAnyMoreSaysSoAndLeavesTheVolumeSound)
{
    tryCommand("COMPACT", FailingAllocations::kFromThenOn, 31);
}

TEST_F(FaultMemory, ADefragByProfilesThatRunsOutOfMemorySaysSoAndLeavesTheVolumeSound)
{
    tryCommand("DEFRAG --profile boot,app", 1, 31);
}

TEST_F(FaultMemory, AnOpeningThatRunsOutOfMemoryLeavesTheVolumeAsItWas)
{
    Tally tally;
    for (const FaultVolume& kind : faultVolumes()) {
        bool hasFailed = true;
        for (uint64_t ordinal = 1; hasFailed && !HasFailure(); ++ordinal) {
            const auto memory = kind.memory->clone();
            std::string reason;
            {
                FailingAllocations allocations;
                allocations.fail(ordinal);
                std::thread([&] { reason = open(*memory); }).join();
                hasFailed = allocations.hasFailed();
            }
            tally.cases += hasFailed ? 1 : 0;
            tally.tolerated += hasFailed && reason.empty() ? 1 : 0;
            EXPECT_TRUE(reason.empty() || (hasFailed && saysWhy(reason))) << reason;
            EXPECT_TRUE(memory->hasSameBytesAs(*kind.memory));
        }
    }
    EXPECT_GT(tally.cases, 30u);
    EXPECT_GT(tally.cases / 10, tally.tolerated);
}
