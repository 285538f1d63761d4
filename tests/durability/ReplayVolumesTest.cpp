#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "durability/ReplayRun.h"
#include "support/CrashStates.h"

// What the volumes are that every replay goes through, and where runs on them write.

namespace {

const HFSPlusCheckOptions kWhileChanging = {.demandsUnmounted = false};

/** The sectors of a device that hold what a run never rewrites: all but free blocks and metadata.
 */
class ProtectedSectors {
public:
    ProtectedSectors(const MemoryBlockDevice& device, const HFSPlusCheckResult& result)
        : _protected(device.size() / CrashStates::kSectorSize)
    {
        for (const auto* forks : {&result.forks, &result.attributeForks}) {
            for (const HFSPlusCheckedFork& fork : *forks) {
                const bool isRewritten = fork.isSpecial && kRewritten.contains(fork.cnid);
                for (const HFSPlusCheckedExtent& extent : fork.extents) {
                    _set(result, extent, !isRewritten);
                }
            }
        }
    }

    /** Whether @p event touches any of them. */
    [[nodiscard]] bool isTouchedBy(const RecordedEvent& event) const
    {
        const uint64_t first = event.offset / CrashStates::kSectorSize;
        const uint64_t end = first + event.bytes.size() / CrashStates::kSectorSize;
        for (uint64_t sector = first; sector < end; ++sector) {
            if (_protected.at(sector)) {
                return true;
            }
        }
        return false;
    }

private:
    static const inline std::set<uint32_t> kRewritten = {3, 4, 6, 8};  // CNIDs of special files

    void _set(const HFSPlusCheckResult& result, const HFSPlusCheckedExtent& extent, bool value)
    {
        const uint64_t sectors = result.blockSize / CrashStates::kSectorSize;
        const uint64_t first = result.volumeOffset / CrashStates::kSectorSize;
        for (uint64_t sector = 0; sector < sectors * extent.blockCount; ++sector) {
            _protected.at(first + extent.startBlock * sectors + sector) = value;
        }
    }

    std::vector<bool> _protected;
};

/** What a number of runs had to do with. */
struct Variety {
    std::set<uint32_t> blockSizes;
    std::set<size_t> forkCounts;
    std::set<size_t> extentCounts;
    std::map<uint32_t, uint32_t> moved;  // runs that moved a special file, by its CNID
    uint32_t splits = 0;                 // flushes after which the overflow records fill more nodes
    uint32_t collapses = 0;              // or fewer

    void add(const ReplayRun& run)
    {
        const HFSPlusCheckResult before = judged(*run.before);
        const HFSPlusCheckResult after = judged(*run.after);
        EXPECT_TRUE(before.consistent) << before.description();
        EXPECT_TRUE(after.consistent) << after.description();
        blockSizes.insert(before.blockSize);
        size_t forks = 0;
        for (const HFSPlusCheckedFork& fork : before.forks) {
            const HFSPlusCheckedFork* const now = after.forkWithCNID(fork.cnid, fork.forkType);
            if (fork.isSpecial) {
                moved[fork.cnid] += now != nullptr && now->extents != fork.extents ? 1 : 0;
            } else if (fork.totalBlocks != 0) {
                ++forks;
                extentCounts.insert(fork.extents.size());
            }
        }
        forkCounts.insert(forks);
        _addNodes(run, before.extents);
    }

private:
    void _addNodes(const ReplayRun& run, const HFSPlusCheckedTree& tree)
    {
        const CrashStates states(*run.before, std::nullopt, run.events);
        uint32_t nodes = tree.totalNodes - tree.freeNodes;
        for (size_t index = 0; index < run.events.size(); ++index) {
            if (run.events[index].kind != RecordedEvent::Kind::kSynchronize) {
                continue;
            }
            const CrashState state = states.stateAfter(index + 1);
            const HFSPlusCheckResult now = judged(*state.device, kWhileChanging);
            if (now.consistent) {
                const uint32_t used = now.extents.totalNodes - now.extents.freeNodes;
                splits += used > nodes ? 1 : 0;
                collapses += used < nodes ? 1 : 0;
                nodes = used;
            }
        }
    }
};

}  // namespace

TEST(ReplayVolumes, TheVolumesAreOfEveryKindThatIsToBeCutOff)
{
    const std::vector<ReplayVolume> volumes = replayVolumes();
    Variety variety;
    for (const ReplayVolume& volume : volumes) {
        for (const char* command : {"DEFRAG", "COMPACT"}) {
            SCOPED_TRACE(volume.name + ", " + command);
            const ReplayRun run = runRecorded(volume, {{command}}, false);
            ASSERT_NE(run.before, nullptr) << run.error;
            EXPECT_EQ(run.error, "");
            variety.add(run);
        }
    }
    EXPECT_GE(volumes.size(), 60U);
    EXPECT_EQ(variety.blockSizes.size(), 8U);
    for (size_t count = 1; count <= 6; ++count) {
        EXPECT_TRUE(variety.forkCounts.contains(count)) << count << " forks";
    }
    EXPECT_TRUE(variety.extentCounts.contains(1));
    EXPECT_TRUE(variety.extentCounts.contains(20));
    EXPECT_GT(variety.splits, 3U);
    EXPECT_GT(variety.collapses, 10U);
    for (const uint32_t cnid : {3U, 4U, 6U}) {
        EXPECT_GT(variety.moved[cnid], 10U) << cnid;
    }
}

TEST(ReplayVolumes, NothingIsWrittenOverWhatTheLastCompleteFlushHolds)
{
    for (const ReplayVolume& volume : replayVolumes()) {
        for (const char* command : {"DEFRAG", "COMPACT"}) {
            const ReplayRun run = runRecorded(volume, {{command}}, false);
            ASSERT_NE(run.before, nullptr) << volume.name << ": " << run.error;
            const CrashStates states(*run.before, std::nullopt, run.events);
            ProtectedSectors held(*run.before, judged(*run.before));
            for (size_t index = 0; index < run.events.size(); ++index) {
                const RecordedEvent& event = run.events[index];
                if (event.kind == RecordedEvent::Kind::kWrite) {
                    EXPECT_FALSE(held.isTouchedBy(event))
                        << volume.name << ", " << command << ": event " << index << " at "
                        << event.offset;
                    continue;
                }
                // Only a barrier behind a complete flush leaves a volume without a fault.
                const CrashState state = states.stateAfter(index + 1);
                const HFSPlusCheckResult result = judged(*state.device, kWhileChanging);
                if (result.consistent) {
                    held = ProtectedSectors(*state.device, result);
                }
            }
        }
    }
}
