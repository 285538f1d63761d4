#include "Tasks/FaultRun.h"

#include <array>
#include <cerrno>
#include <iostream>

#include "HFSPlus/HFSPlusVolumeProber.h"
#include "Tasks/FaultLog.h"
#include "Tasks/FaultVolumes.h"
#include "Tasks/TaskRun.h"

namespace {

using Operation = FaultyBlockDevice::Operation;
using Lasting = FaultyBlockDevice::Lasting;

constexpr size_t kShortCount = 700;  // bytes; ends inside a device block

class Opener final : public PlatformDeviceOpener {
public:
    explicit Opener(const PlatformBlockDevice& device) : _device(device) {}
    std::unique_ptr<PlatformBlockDevice> openDevice(const std::string& /*path*/, Mode /*mode*/,
                                                    int& /*errorNumber*/) override
    {
        return _device.duplicate();
    }
    MountState mountState(const std::string& /*path*/) override { return {}; }

private:
    const PlatformBlockDevice& _device;
};

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Fault& fault)
{
    constexpr std::array<const char*, 3> kNames = {"read", "write", "barrier"};
    return stream << kNames[static_cast<size_t>(fault.operation)] << " error " << fault.errorNumber
                  << (fault.lasting == Lasting::kOnce ? " once" : " from then on");
}

std::vector<Fault> faultsOf(Operation operation)
{
    std::vector<int> errorNumbers = {EIO, EINTR};
    if (operation != Operation::kSynchronize) {
        errorNumbers.push_back(0);
    }
    if (operation == Operation::kWrite) {
        errorNumbers.push_back(ENOSPC);
    }
    std::vector<Fault> faults;
    for (const int errorNumber : errorNumbers) {
        for (const Lasting lasting : {Lasting::kOnce, Lasting::kFromThenOn}) {
            faults.push_back({operation, errorNumber, lasting});
        }
    }
    return faults;
}

std::unique_ptr<VZDefragVolume> openFaultVolume(
    const PlatformBlockDevice& device, const std::shared_ptr<HFSPlusRollbackFile>& rollbackFile,
    std::string& error)
{
    Opener opener(device);
    HFSPlusVolumeProber prober;
    prober.setRollbackFile(rollbackFile);
    std::unique_ptr<VZDefragError> failure;
    auto volume = VZDefragVolume::initWithDevice("/dev/memory", opener, prober, &failure);
    error = failure != nullptr ? failure->description() : volume == nullptr ? "?" : "";
    return volume;
}

FaultyRun runWithFault(const FaultVolume& kind, const MemoryBlockDevice& memory,
                       const std::string& command, const Fault& fault, uint64_t ordinal,
                       const std::shared_ptr<HFSPlusRollbackFile>& rollbackFile)
{
    FaultyBlockDevice faults(memory.share());
    const FaultLog log(faults.share());
    if (fault.errorNumber != 0) {
        faults.fail(fault.operation, ordinal, fault.errorNumber, fault.lasting);
    } else {
        faults.cutShort(fault.operation, ordinal, kShortCount, fault.lasting);
    }
    FaultyRun run;
    {
        const auto volume = openFaultVolume(log, rollbackFile, run.openError);
        if (volume != nullptr) {
            run.lines = runTask(
                *makeFaultTask(static_cast<HFSPlusVolume&>(*volume), command, kind.bufferSize));
        }
        // It is closed while the device still fails.
    }
    run.isReached = faults.faultReached();
    run.isEndless = log.isEndless();
    run.complaint = log.complaint();
    return run;
}

bool isTransferError(const std::string& error)
{
    // Not looking up the journal is no error; it is then met where it lies.
    for (const char* beginning :
         {"Read failed", "Write failed", "Write failure.", "Catalog file is inconsistent.",
          "Invalid overlapping extent with start block"}) {
        if (error.starts_with(beginning)) {
            return true;
        }
    }
    return false;
}

FaultTally::~FaultTally()
{
    std::cout << "FAULTS cases=" << cases << " refused=" << refused << " tolerated=" << tolerated
              << " marked=" << marked << " lost=" << lost << std::endl;
}
