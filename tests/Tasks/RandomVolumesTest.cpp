#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "Tasks/WatchedDefrag.h"
#include "support/HFSPlusDataOrder.h"
#include "support/RandomVolume.h"
#include "support/TestSeed.h"

// DEFRAG and COMPACT on sound volumes of any layout, to the end, told to end early, and on devices
// that fail.

namespace {

constexpr uint64_t kBytesPerRun = 32;  // of a map's memory

/** What a checker of its own finds on a device. */
struct Finding {
    explicit Finding(const MemoryBlockDevice& memory, const HFSPlusCheckOptions& options = {})
    {
        const auto copy = memory.clone();
        HFSPlusCheckDeviceReader reader(*copy);
        result = checkHFSPlusVolume(reader, options);
        hashes = hashForks(reader, result);
        order = dataOrder(movableForks(reader, result));
        gaps = gapsAmongData(reader, result, 0);
    }

    [[nodiscard]] size_t mostExtents() const
    {
        size_t most = 0;
        for (const HFSPlusCheckedFork& fork : result.forks) {
            most = std::max(most, fork.extents.size());
        }
        return most;
    }

    HFSPlusCheckResult result;
    HFSPlusForkHashes hashes;
    std::vector<HFSPlusDataRun> order;
    std::vector<HFSPlusCheckedExtent> gaps;
};

void expectSameVolume(const Finding& before, const MemoryBlockDevice& memory,
                      const HFSPlusCheckOptions& options = {})
{
    const Finding after(memory, options);
    EXPECT_TRUE(after.result.consistent) << after.result.description();
    EXPECT_EQ(after.result.freeBlocks, before.result.freeBlocks);
    EXPECT_TRUE(after.hashes == before.hashes);
}

/** Whether a whole run may end with @p error on a sound volume: there is not room for everything.
 */
bool saysTooLittleRoom(const std::string& error)
{
    return error == "The amount of free space is insufficient." ||
           error == "Volume is too congested, unable to continue." ||
           error == "Overflow extents file is too congested, unable to continue.";
}

/** One volume, and the buffer and caches to run on it with. */
struct Case {
    explicit Case(uint32_t seed) : random(seed), volume(random)
    {
        // A layout may leave no room for what the builder places itself.
        for (uint32_t attempt = 0; attempt < 50 && memory == nullptr; ++attempt) {
            HFSPlusVolumeBuilder builder = volume.make();
            memory = builder.build(volume.deviceBlockSize());
        }
        const uint32_t most = random() % 3 != 0 ? 60 : volume.totalBlocks() / 3;
        options.bufferSize = uint64_t{1 + random() % most} * volume.blockSize();
        options.nodeCacheSize = random() % 4 == 0 ? 8192 : 0;
        options.spanMemory = random() % 3 == 0 ? kBytesPerRun * (25 + random() % 60) : 0;
    }

    std::mt19937 random;
    RandomVolume volume;
    std::unique_ptr<MemoryBlockDevice> memory;
    WatchedDefragOptions options;
};

/** Does @p tryCase with the case of every round until one fails. */
template <typename TryCase>
void forEachCase(uint32_t quickRounds, const TryCase& tryCase)
{
    const uint32_t seed = testSeed(1);
    const uint32_t rounds = testRounds(quickRounds);
    for (uint32_t round = seed; round != seed + rounds && !testing::Test::HasFailure(); ++round) {
        Case given(round);
        ASSERT_NE(given.memory, nullptr) << "seed " << round;
        const Finding before(*given.memory);
        EXPECT_TRUE(before.result.consistent) << before.result.description();
        if (!testing::Test::HasFailure()) {
            tryCase(given, before);
        }
        EXPECT_FALSE(testing::Test::HasFailure())
            << "seed " << round << ": " << given.volume.description() << ", buffer "
            << given.options.bufferSize << ", span memory " << given.options.spanMemory;
    }
}

/** Expects what a run without an error has brought about. */
void expectWorkDone(const std::string& command, const Case& given)
{
    const Finding after(*given.memory);
    if (command == "COMPACT") {
        EXPECT_EQ(after.gaps, std::vector<HFSPlusCheckedExtent>());
    } else if (!given.volume.hasObstacles()) {
        EXPECT_LE(after.mostExtents(), 1u);
    }
}

/** Runs @p command whole on volumes of any layout; @p expectDone judges those with room for it. */
template <typename ExpectDone>
void tryWholeRuns(const std::string& command, uint32_t rounds, const ExpectDone& expectDone)
{
    uint32_t moving = 0;
    uint32_t complete = 0;
    forEachCase(rounds, [&](Case& given, const Finding& before) {
        given.options.command = command;
        const WatchedDefrag run = watchDefrag(*given.memory, given.options);

        moving += run.output.moves().empty() ? 0 : 1;
        complete += run.error().empty() ? 1 : 0;
        EXPECT_TRUE(run.opened) << run.openError;
        EXPECT_TRUE(run.output.isWhole());
        EXPECT_FALSE(run.isEndless);
        EXPECT_TRUE(run.error().empty() || saysTooLittleRoom(run.error())) << run.error();
        expectSameVolume(before, *given.memory);
        if (run.error().empty()) {
            expectDone(given, before);
        }
    });
    EXPECT_GT(moving, testRounds(rounds) / 2);
    EXPECT_GT(complete, testRounds(rounds) / 2);
}

void tryRunsToldToEnd(const std::string& command, uint32_t rounds)
{
    forEachCase(rounds, [&](Case& given, const Finding& before) {
        given.options.command = command;
        given.options.abortAfter = 1 + given.random() % (given.random() % 2 != 0 ? 40 : 600);
        const WatchedDefrag ended = watchDefrag(*given.memory, given.options);

        EXPECT_TRUE(ended.output.isWhole());
        EXPECT_FALSE(ended.isEndless);
        expectSameVolume(before, *given.memory);

        given.options.abortAfter = 0;
        const WatchedDefrag next = watchDefrag(*given.memory, given.options);

        EXPECT_TRUE(next.error().empty() || saysTooLittleRoom(next.error())) << next.error();
        expectSameVolume(before, *given.memory);
        if (next.error().empty()) {
            expectWorkDone(command, given);
        }
    });
}

void tryFailingReads(const std::string& command, uint32_t rounds)
{
    uint32_t failures = 0;
    forEachCase(rounds, [&](Case& given, const Finding& before) {
        given.options.command = command;
        const uint64_t ordinal = 1 + given.random() % 150;
        const bool isLasting = given.random() % 2 != 0;
        const bool isShort = given.random() % 4 == 0;
        given.options.faults = [=](FaultyBlockDevice& faults) {
            const auto lasting = isLasting ? FaultyBlockDevice::Lasting::kFromThenOn
                                           : FaultyBlockDevice::Lasting::kOnce;
            if (isShort) {
                faults.cutShort(FaultyBlockDevice::Operation::kRead, ordinal, 100, lasting);
            } else {
                faults.fail(FaultyBlockDevice::Operation::kRead, ordinal, EIO, lasting);
            }
        };
        const WatchedDefrag run = watchDefrag(*given.memory, given.options);

        EXPECT_TRUE(run.output.isWhole());
        EXPECT_FALSE(run.isEndless);
        failures += run.faultReached ? 1 : 0;
        // On larger device blocks every write of a part of one begins with a read: its failure is
        // that of the write, and may leave metadata half written.
        if (given.volume.deviceBlockSize() == 512) {
            expectSameVolume(before, *given.memory);
        }
    });
    EXPECT_GT(failures, testRounds(rounds) / 4);
}

void tryFailingWrites(const std::string& command, uint32_t rounds)
{
    uint32_t dataFailures = 0;
    forEachCase(rounds, [&](Case& given, const Finding& before) {
        given.options.command = command;
        const uint64_t ordinal = 1 + given.random() % 60;
        const auto operation = given.random() % 4 != 0 ? FaultyBlockDevice::Operation::kWrite
                                                       : FaultyBlockDevice::Operation::kSynchronize;
        given.options.faults = [=](FaultyBlockDevice& faults) {
            faults.fail(operation, ordinal, EIO, FaultyBlockDevice::Lasting::kFromThenOn);
        };
        const WatchedDefrag run = watchDefrag(*given.memory, given.options);

        EXPECT_TRUE(run.output.isWhole());
        EXPECT_FALSE(run.isEndless);
        if (run.error().starts_with("Write failed")) {  // the text of data, not of metadata
            dataFailures++;
            // The alternate header is the last thing written before, and may be missing too; the
            // mark cannot be taken away any more.
            expectSameVolume(before, *given.memory,
                             {.demandsUnmounted = false, .demandsAlternate = false});
        }
    });
    EXPECT_GT(dataFailures, 0u);
}

}  // namespace

TEST(RandomVolumes, AWholeDefragLeavesASoundVolumeOfTheSameContents)
{
    tryWholeRuns("DEFRAG", 60, [](const Case& given, const Finding& /*before*/) {
        expectWorkDone("DEFRAG", given);
    });
}

TEST(RandomVolumes, AWholeCompactKeepsContentsAndOrderAndClosesEveryGap)
{
    tryWholeRuns("COMPACT", 60, [](const Case& given, const Finding& before) {
        const Finding after(*given.memory);
        EXPECT_EQ(after.order, before.order);
        EXPECT_EQ(after.gaps, std::vector<HFSPlusCheckedExtent>());

        const WatchedDefrag again = watchDefrag(*given.memory, given.options);

        // A span that ends before the next data does not tell that a hole is too small for them:
        // what follows may then go out and come back.
        if (given.options.spanMemory == 0) {
            EXPECT_EQ(again.output.lines,
                      (std::vector<std::string>{"COMPACT,START", "COMPACT,DONE"}));
        }
        EXPECT_EQ(Finding(*given.memory).result.forks, after.result.forks);
    });
}

TEST(RandomVolumes, ADefragToldToEndLeavesASoundVolumeAndTheNextOneDoesTheRest)
{
    tryRunsToldToEnd("DEFRAG", 40);
}

TEST(RandomVolumes, ACompactToldToEndLeavesASoundVolumeAndTheNextOneDoesTheRest)
{
    tryRunsToldToEnd("COMPACT", 40);
}

TEST(RandomVolumes, AReadThatFailsUnderDefragLeavesASoundVolumeOfTheSameContents)
{
    tryFailingReads("DEFRAG", 40);
}

TEST(RandomVolumes, AReadThatFailsUnderCompactLeavesASoundVolumeOfTheSameContents)
{
    tryFailingReads("COMPACT", 40);
}

TEST(RandomVolumes, AWriteOfDataThatFailsUnderDefragLeavesASoundVolumeOfTheSameContents)
{
    tryFailingWrites("DEFRAG", 60);
}

TEST(RandomVolumes, AWriteOfDataThatFailsUnderCompactLeavesASoundVolumeOfTheSameContents)
{
    tryFailingWrites("COMPACT", 60);
}
