#include <gtest/gtest.h>

#include <cerrno>

#include "Tasks/FaultRun.h"
#include "Tasks/FaultVolumes.h"
#include "Tasks/FaultyFile.h"
#include "Tasks/TaskRun.h"
#include "base/ManualServices.h"
#include "support/RecordingFile.h"
#include "support/TestSeed.h"

// The same faults while old bytes are kept in a file, and faults of that file. However a run ends,
// the volume is sound once it was opened with the file on a device that works again.

namespace {

using Operation = FaultyBlockDevice::Operation;
using Lasting = FaultyBlockDevice::Lasting;

std::shared_ptr<HFSPlusRollbackFile> rollbackFile(const PlatformWritableFileOpener& opener)
{
    return std::make_shared<HFSPlusRollbackFile>("/var/rollback", opener);
}

/** Opens the volume on the device as it is now and expects all that there was on it. */
void expectRecovered(const FaultVolume& kind, const MemoryBlockDevice& memory,
                     const RecordingFile& file, FaultTally& tally)
{
    std::string error;
    EXPECT_NE(openFaultVolume(memory, rollbackFile(file.opener()), error), nullptr) << error;
    const FaultVerdict verdict = judge(kind, memory);
    EXPECT_FALSE(verdict.isMarked);
    EXPECT_TRUE(verdict.isSound()) << verdict.problems;
    EXPECT_TRUE(file.isEmpty());
    tally.lost += verdict.isSound() ? 0 : 1;
}

/** Every @p step-th request of the device fails in every way, with old bytes kept. */
void tryDeviceFaults(const std::string& command, Operation operation, uint64_t step)
{
    FaultTally tally;
    step = testRounds(0) != 0 ? 1 : step;
    for (const FaultVolume& kind : faultVolumes()) {
        uint64_t first = 1;
        for (const Fault& fault : faultsOf(operation)) {
            bool isReached = true;
            for (uint64_t ordinal = first++ % step + 1; isReached; ordinal += step) {
                const auto memory = kind.memory->clone();
                const RecordingFile file(std::make_shared<Recording>());
                const FaultyRun run = runWithFault(kind, *memory, command, fault, ordinal,
                                                   rollbackFile(file.opener()));
                isReached = run.isReached;
                tally.cases += isReached ? 1 : 0;
                tally.refused += run.openError.empty() ? 0 : 1;
                tally.marked += judge(kind, *memory).isMarked ? 1 : 0;
                EXPECT_FALSE(run.isEndless);
                EXPECT_EQ(run.complaint, "");
                EXPECT_TRUE(!run.openError.empty() || isFramed(run.lines));
                expectRecovered(kind, *memory, file, tally);
                ASSERT_FALSE(testing::Test::HasFailure())
                    << kind.name << ", " << command << ", " << fault << ", number " << ordinal
                    << ", " << testing::PrintToString(run.lines);
            }
        }
    }
    EXPECT_GT(tally.cases, 0u);
}

/** A way for a request to the file to fail. */
struct FileFault {
    FaultyFile::Operation operation;
    int errorNumber;  // 0: a short count
    bool lasts;
};

const std::vector<FileFault> kFileFaults = {
    {FaultyFile::Operation::kWrite, ENOSPC, false},
    {FaultyFile::Operation::kWrite, ENOSPC, true},
    {FaultyFile::Operation::kWrite, EIO, false},
    {FaultyFile::Operation::kWrite, 0, false},
    {FaultyFile::Operation::kWrite, 0, true},
    {FaultyFile::Operation::kWrite, EINTR, false},
    {FaultyFile::Operation::kSynchronize, EIO, false},
    {FaultyFile::Operation::kSynchronize, EIO, true},
    {FaultyFile::Operation::kSynchronize, EINTR, false},
    {FaultyFile::Operation::kSetSize, EIO, false},
    {FaultyFile::Operation::kSetSize, EIO, true},
};

void tryFileFault(const FaultVolume& kind, const std::string& command, const FileFault& fault,
                  FaultTally& tally)
{
    bool isReached = true;
    for (uint64_t ordinal = 1; isReached && !testing::Test::HasFailure(); ++ordinal) {
        const auto memory = kind.memory->clone();
        const RecordingFile file(std::make_shared<Recording>());
        FaultyFile faulty(file.opener());
        faulty.fail(fault.operation, ordinal, fault.errorNumber, fault.lasts);
        const FaultyRun run =
            runWithFault(kind, *memory, command, {}, UINT64_MAX, rollbackFile(faulty.opener()));
        isReached = faulty.isReached();
        const std::string error = errorOf(run.lines);
        tally.cases += isReached ? 1 : 0;
        tally.tolerated += isReached && error.empty() ? 1 : 0;
        EXPECT_TRUE(isFramed(run.lines));
        const bool mayEnd = isReached && fault.errorNumber != EINTR;
        const bool says = error.starts_with("Unable to write rollback file /var/rollback.");
        if (fault.operation == FaultyFile::Operation::kSetSize) {
            // A cut after a flush may fail; records that cannot be forgotten keep the mark.
            EXPECT_TRUE(error.empty() || (mayEnd && says)) << error;
        } else if (mayEnd && ordinal == 1) {
            EXPECT_TRUE(says) << error;
            EXPECT_TRUE(judge(kind, *memory).isSound());
        } else if (!mayEnd) {
            EXPECT_EQ(error, "");
        }
        // What the file could not keep was not overwritten: without recovery, all data are there.
        EXPECT_TRUE(judge(kind, *memory).hasAllData);
        expectRecovered(kind, *memory, file, tally);
        EXPECT_FALSE(testing::Test::HasFailure())
            << kind.name << ", " << command << ", file operation "
            << static_cast<int>(fault.operation) << " error " << fault.errorNumber << ", number "
            << ordinal << ", " << testing::PrintToString(run.lines);
    }
}

/** A device whose plug was pulled after @p writes writes of a DEFRAG, and the file beside it. */
void cutOff(const FaultVolume& kind, const MemoryBlockDevice& memory, const RecordingFile& file,
            uint64_t writes)
{
    FaultyBlockDevice faults(memory.share());
    std::string error;
    const auto volume = openFaultVolume(faults, rollbackFile(file.opener()), error);
    ASSERT_NE(volume, nullptr) << error;
    faults.stopAfterWrites(writes);
    const auto task =
        makeFaultTask(static_cast<HFSPlusVolume&>(*volume), "DEFRAG", kind.bufferSize);
    std::ignore = runTask(*task);
}

}  // namespace

class FaultRollback : public testing::Test {
protected:
    ManualServices _services;
};

TEST_F(FaultRollback, AfterAReadThatFailedAllIsThereAgain)
{
    for (const std::string& command : faultCommands()) {
        if (movesData(command)) {
            tryDeviceFaults(command, Operation::kRead, 17);
        }
    }
}

TEST_F(FaultRollback, AfterAWriteThatFailedUnderDefragAllIsThereAgain)
{
    tryDeviceFaults("DEFRAG", Operation::kWrite, 5);
}

TEST_F(FaultRollback, AfterAWriteThatFailedUnderCompactAllIsThereAgain)
{
    tryDeviceFaults("COMPACT", Operation::kWrite, 5);
}

TEST_F(FaultRollback, AfterAWriteThatFailedUnderDefragByProfilesAllIsThereAgain)
{
    tryDeviceFaults("DEFRAG --profile boot,app", Operation::kWrite, 5);
}

TEST_F(FaultRollback, AfterABarrierThatFailedAllIsThereAgain)
{
    for (const std::string& command : faultCommands()) {
        if (movesData(command)) {
            tryDeviceFaults(command, Operation::kSynchronize, 2);
        }
    }
}

TEST_F(FaultRollback, AFileThatCannotKeepTheOldBytesEndsTheRunBeforeTheyAreOverwritten)
{
    FaultTally tally;
    for (const FaultVolume& kind : faultVolumes()) {
        for (const FileFault& fault : kFileFaults) {
            tryFileFault(kind, "DEFRAG", fault, tally);
        }
    }
    EXPECT_GT(tally.cases, 50u);
}

TEST_F(FaultRollback, ARecoveryThatFailsRefusesTheVolumeAndCanBeRepeated)
{
    FaultTally tally;
    for (const FaultVolume& kind : faultVolumes()) {
        const auto torn = kind.memory->clone();
        RecordingFile kept(std::make_shared<Recording>());
        // Somewhere in the flush of the first cycle; the search ends at a volume that is torn.
        for (uint64_t writes = 1; kept.isEmpty() || judge(kind, *torn).isSound(); ++writes) {
            ASSERT_LT(writes, 200u);
            std::vector<uint8_t> bytes(kind.memory->size());
            kind.memory->peek(bytes.data(), bytes.size(), 0);
            torn->poke(bytes.data(), bytes.size(), 0);
            kept = RecordingFile(std::make_shared<Recording>());
            cutOff(kind, *torn, kept, writes);
        }
        for (const auto& [operation, errorNumber] :
             {std::pair{FaultyFile::Operation::kRead, EIO}, {FaultyFile::Operation::kRead, 0}}) {
            bool isReached = true;
            for (uint64_t ordinal = 1; isReached && !HasFailure(); ++ordinal) {
                const auto memory = torn->clone();
                const RecordingFile file(std::make_shared<Recording>(), kept.bytes());
                FaultyFile faulty(file.opener());
                faulty.fail(operation, ordinal, errorNumber, false);
                std::string error;
                const bool isOpened =
                    openFaultVolume(*memory, rollbackFile(faulty.opener()), error) != nullptr;
                isReached = faulty.isReached();
                tally.cases += isReached ? 1 : 0;
                tally.refused += isOpened ? 0 : 1;
                EXPECT_EQ(isOpened, !isReached) << error;
                expectRecovered(kind, *memory, file, tally);
            }
        }
        for (const Operation operation :
             {Operation::kRead, Operation::kWrite, Operation::kSynchronize}) {
            bool isReached = true;
            for (uint64_t ordinal = 1; isReached && !HasFailure(); ++ordinal) {
                const auto memory = torn->clone();
                const RecordingFile file(std::make_shared<Recording>(), kept.bytes());
                const FaultyRun run =
                    runWithFault(kind, *memory, "FRAGINFO", {operation, EIO, Lasting::kOnce},
                                 ordinal, rollbackFile(file.opener()));
                isReached = run.isReached;
                tally.cases += isReached ? 1 : 0;
                tally.refused += run.openError.empty() ? 0 : 1;
                expectRecovered(kind, *memory, file, tally);
            }
        }
    }
    EXPECT_GT(tally.cases, 50u);
    EXPECT_GT(tally.refused, 20u);
}
