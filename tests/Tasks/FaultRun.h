#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusRollbackFile.h"
#include "Tasks/FaultVolumes.h"
#include "VZDefragVolume.h"
#include "support/FaultyBlockDevice.h"
#include "support/MemoryBlockDevice.h"

/** A way for a request to fail. */
struct Fault {
    FaultyBlockDevice::Operation operation = FaultyBlockDevice::Operation::kRead;
    int errorNumber = 0;  // 0: a short count
    FaultyBlockDevice::Lasting lasting = FaultyBlockDevice::Lasting::kOnce;
};
std::ostream& operator<<(std::ostream& stream, const Fault& fault);

/** Every way in which a disk can fail @p operation, once or from then on. */
[[nodiscard]] std::vector<Fault> faultsOf(FaultyBlockDevice::Operation operation);

/** A command on a device that fails one request. */
struct FaultyRun {
    std::string openError;  // of a volume that was refused
    std::vector<std::string> lines;
    bool isReached = false;
    bool isEndless = false;
    std::string complaint;  // FaultLog's
};

/** Opens the volume on @p device as the program does; null with the reason in @p error. */
[[nodiscard]] std::unique_ptr<VZDefragVolume> openFaultVolume(
    const PlatformBlockDevice& device, const std::shared_ptr<HFSPlusRollbackFile>& rollbackFile,
    std::string& error);

/** Opens the volume of kind @p volume on @p memory, runs @p command and closes it, while the @p
 * ordinal-th request of the fault's kind fails. */
[[nodiscard]] FaultyRun runWithFault(
    const FaultVolume& volume, const MemoryBlockDevice& memory, const std::string& command,
    const Fault& fault, uint64_t ordinal,
    const std::shared_ptr<HFSPlusRollbackFile>& rollbackFile = nullptr);

/** Whether @p error is what there is to say of a request that has failed. */
[[nodiscard]] bool isTransferError(const std::string& error);

/** What is counted over all cases of a test, and printed in the end. */
struct FaultTally {
    FaultTally() = default;
    FaultTally(const FaultTally&) = delete;
    FaultTally& operator=(const FaultTally&) = delete;
    ~FaultTally();

    uint64_t cases = 0;
    uint64_t refused = 0;    // volumes that were not opened
    uint64_t tolerated = 0;  // commands without an error
    uint64_t marked = 0;     // volumes that say that they have to be checked
    uint64_t lost = 0;
};
