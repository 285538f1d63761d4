#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "durability/ReplayVolumes.h"
#include "support/HFSPlusVolumeChecker.h"
#include "support/MemoryBlockDevice.h"
#include "support/Recording.h"
#include "support/RecordingFile.h"

/** A whole command on a volume in memory, with everything that it wrote. */
struct ReplayRun {
    std::unique_ptr<MemoryBlockDevice> before;
    std::unique_ptr<MemoryBlockDevice> after;
    RecordedFileBytes fileAfter;
    std::vector<RecordedEvent> events;  // from the opening to the closing of the volume
    std::vector<std::string> lines;
    std::string error;
};

/** Builds @p volume and runs @p command on it, DEFRAG or COMPACT; with a rollback file, or without.
 */
[[nodiscard]] ReplayRun runRecorded(ReplayVolume volume, const std::string& command,
                                    bool hasRollbackFile);

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

    /** The forks of the state @p result on @p device that are not as they were; empty when all
     *  are. */
    [[nodiscard]] std::string losses(const MemoryBlockDevice& device,
                                     const HFSPlusCheckResult& result) const;

private:
    ReplayContents _contents;
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
