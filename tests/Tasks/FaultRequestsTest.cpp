#include <gtest/gtest.h>

#include <cerrno>

#include "Tasks/FaultRun.h"
#include "Tasks/FaultVolumes.h"
#include "base/ManualServices.h"
#include "support/TestSeed.h"

// Every request of every command fails in turn, once or from then on, in every way in which a disk
// can fail it. The command ends in its own words, what failed is not tried again, and the volume is
// sound or says that it has to be checked.

namespace {

using Operation = FaultyBlockDevice::Operation;
using Lasting = FaultyBlockDevice::Lasting;

void judgeRun(const FaultVolume& kind, const Fault& fault, const FaultyRun& run,
              const MemoryBlockDevice& memory, FaultTally& tally)
{
    EXPECT_FALSE(run.isEndless);
    EXPECT_EQ(run.complaint, "");
    const FaultVerdict verdict = judge(kind, memory);
    ++tally.cases;
    tally.marked += verdict.isMarked ? 1 : 0;
    tally.lost += verdict.hasAllData ? 0 : 1;
    EXPECT_TRUE(verdict.isMarked || verdict.isSound()) << verdict.problems;
    if (!run.openError.empty()) {
        ++tally.refused;
        EXPECT_TRUE(isTransferError(run.openError)) << run.openError;
        EXPECT_TRUE(memory.hasSameBytesAs(*kind.memory));
        return;
    }
    EXPECT_TRUE(isFramed(run.lines));
    const std::string error = errorOf(run.lines);
    tally.tolerated += error.empty() ? 1 : 0;
    EXPECT_TRUE(error.empty() || isTransferError(error)) << error;
    if (fault.errorNumber == EINTR && fault.lasting == Lasting::kOnce) {
        // Nothing has failed: the attempt was repeated.
        EXPECT_EQ(error, "");
        EXPECT_FALSE(verdict.isMarked);
    }
}

/** Makes every request of @p command fail; every @p step-th where that would take long. */
void tryCommand(const std::string& command, Operation operation, uint64_t step)
{
    FaultTally tally;
    step = testRounds(0) != 0 ? 1 : step;
    for (const FaultVolume& kind : faultVolumes()) {
        uint64_t first = 1;
        for (const Fault& fault : faultsOf(operation)) {
            bool isReached = true;
            // Each way of failing begins at another request, so that all of them get some.
            for (uint64_t ordinal = first++ % step + 1; isReached; ordinal += step) {
                const auto memory = kind.memory->clone();
                const FaultyRun ended = runWithFault(kind, *memory, command, fault, ordinal);
                isReached = ended.isReached;
                if (isReached) {
                    judgeRun(kind, fault, ended, *memory, tally);
                }
                ASSERT_FALSE(testing::Test::HasFailure())
                    << kind.name << ", " << command << ", " << fault << ", number " << ordinal
                    << ", " << testing::PrintToString(ended.lines);
            }
        }
    }
    EXPECT_GT(tally.cases, 0u);
}

}  // namespace

class FaultRequests : public testing::Test {
protected:
    ManualServices _services;
};

TEST_F(FaultRequests, AReadThatFailsUnderAReportEndsItAndChangesNothing)
{
    for (const std::string& command : faultCommands()) {
        if (!movesData(command)) {
            tryCommand(command, Operation::kRead, 1);
        }
    }
}

TEST_F(FaultRequests, AReadThatFailsUnderDefragEndsItAndLosesNothing)
{
    tryCommand("DEFRAG", Operation::kRead, 7);
}

TEST_F(FaultRequests, AReadThatFailsUnderCompactEndsItAndLosesNothing)
{
    tryCommand("COMPACT", Operation::kRead, 7);
}

TEST_F(FaultRequests, AReadThatFailsUnderDefragByProfilesEndsItAndLosesNothing)
{
    tryCommand("DEFRAG --profile boot,app", Operation::kRead, 7);
}

TEST_F(FaultRequests, AWriteThatFailsUnderDefragEndsItAndIsNotTriedAgain)
{
    tryCommand("DEFRAG", Operation::kWrite, 5);
}

TEST_F(FaultRequests, AWriteThatFailsUnderCompactEndsItAndIsNotTriedAgain)
{
    tryCommand("COMPACT", Operation::kWrite, 5);
}

TEST_F(FaultRequests, AWriteThatFailsUnderDefragByProfilesEndsItAndIsNotTriedAgain)
{
    tryCommand("DEFRAG --profile boot,app", Operation::kWrite, 5);
}

TEST_F(FaultRequests, ABarrierThatFailsEndsAllWriting)
{
    for (const std::string& command : faultCommands()) {
        if (movesData(command)) {
            tryCommand(command, Operation::kSynchronize, 1);
        }
    }
}
