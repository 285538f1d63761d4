#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLToolTask.h"
#include "support/HFSPlusVolumeChecker.h"
#include "support/MemoryBlockDevice.h"

/** A small volume on which every request of every command is made to fail in turn. */
struct FaultVolume {
    std::string name;
    std::unique_ptr<MemoryBlockDevice> memory;  // as it was built; never changed
    uint64_t bufferSize = 0;                    // bytes of a cycle: several to a run
    HFSPlusForkHashes hashes;
};

/** Three of them: one with overflow records, one journaled in a wrapper, one on device blocks of
 *  4096 bytes. Each has applications and a playlist. */
[[nodiscard]] std::vector<FaultVolume> faultVolumes();

/** Every command, and DEFRAG with both profiles. */
[[nodiscard]] const std::vector<std::string>& faultCommands();

[[nodiscard]] bool movesData(const std::string& command);

/** The task of the command line @p command, not yet started. */
[[nodiscard]] std::shared_ptr<KLToolTask> makeFaultTask(HFSPlusVolume& volume,
                                                        const std::string& command,
                                                        uint64_t bufferSize);

/** Whether @p lines are those of a whole command. */
[[nodiscard]] bool isFramed(const std::vector<std::string>& lines);
/** The reason on the command's error line; empty without one, "?" with more than one. */
[[nodiscard]] std::string errorOf(const std::vector<std::string>& lines);

/** What a checker of its own finds after a fault. */
struct FaultVerdict {
    bool isMarked = false;      // the header says "not cleanly unmounted"
    bool isConsistent = false;  // apart from that mark
    bool hasAllData = false;
    std::string problems = {};

    [[nodiscard]] bool isSound() const { return isConsistent && hasAllData; }
};
[[nodiscard]] FaultVerdict judge(const FaultVolume& volume, const MemoryBlockDevice& memory);
