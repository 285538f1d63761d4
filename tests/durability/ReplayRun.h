#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "durability/ReplayVolumes.h"
#include "support/HFSPlusVolumeChecker.h"
#include "support/MemoryBlockDevice.h"
#include "support/Recording.h"
#include "support/RecordingFile.h"

/** What is done with a volume between its opening and its closing. */
struct ReplayCommands {
    std::vector<std::string> names;  // DEFRAG and COMPACT, one after the other
    size_t abortAfter = 0;           // events, after which the last is told to end; 0: never

    [[nodiscard]] std::string description() const;
};

/** Commands on a volume in memory, with everything that they wrote. */
struct ReplayRun {
    std::unique_ptr<MemoryBlockDevice> before;
    std::unique_ptr<MemoryBlockDevice> after;
    RecordedFileBytes fileAfter;
    std::vector<RecordedEvent> events;  // from the opening to the closing of the volume
    std::vector<std::string> lines;
    std::string error;  // of the last command
};

/** Builds @p volume and does @p commands on it, with a rollback file or without. */
[[nodiscard]] ReplayRun runRecorded(ReplayVolume volume, const ReplayCommands& commands,
                                    bool hasRollbackFile);

/** Opens the volume on @p device as the program does, with the rollback file @p file unless that is
 *  null, does @p commands in the way of @p volume, and closes it; what was printed. */
[[nodiscard]] std::vector<std::string> runOn(const MemoryBlockDevice& device,
                                             const RecordingFile* file,
                                             const std::shared_ptr<Recording>& recording,
                                             const ReplayVolume& volume,
                                             const ReplayCommands& commands, std::string& error);

/** Opens and closes the volume on @p device as the program does, with the rollback file @p file,
 *  and records it; the reason where the volume could not be opened. */
[[nodiscard]] std::string openRecorded(const MemoryBlockDevice& device, const RecordingFile& file,
                                       const std::shared_ptr<Recording>& recording);

/** The bytes of all forks of a volume, by CNID and fork type. */
using ReplayContents = std::map<std::pair<uint32_t, uint8_t>, std::vector<uint8_t>>;

/** What is to be found again on a volume, whatever happened to it. */
class ReplayExpectation {
public:
    explicit ReplayExpectation(const MemoryBlockDevice& device);

    /** A fork that may also be found empty. */
    void allowEmpty(uint32_t cnid) { _mayBeEmpty = cnid; }

    /** What is wrong in the state @p result and was not before; empty when nothing is. */
    [[nodiscard]] std::string newProblems(const HFSPlusCheckResult& result) const;

    /** The forks of the state @p result on @p device that are not as they were; empty when all
     *  are. */
    [[nodiscard]] std::string losses(const MemoryBlockDevice& device,
                                     const HFSPlusCheckResult& result) const;

private:
    ReplayContents _contents;
    std::set<std::string> _problems;
    uint32_t _mayBeEmpty = 0;  // CNID
};

/** What the checker says of the volume on @p device. */
[[nodiscard]] HFSPlusCheckResult judged(const MemoryBlockDevice& device,
                                        const HFSPlusCheckOptions& options = {});

/** Whether the primary header says that the volume was not cleanly unmounted. */
[[nodiscard]] inline bool isMarked(const HFSPlusCheckResult& result)
{
    return (result.attributes & 0x100) == 0;
}
