#include "Tasks/WatchedDefrag.h"

#include <memory>

#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "support/WatchedBlockDevice.h"

namespace {

constexpr uint64_t kMostOperations = 200000;

}  // namespace

WatchedDefrag watchDefrag(const MemoryBlockDevice& memory, const WatchedDefragOptions& options)
{
    WatchedDefrag result;
    FaultyBlockDevice faults(memory.share());
    const auto watch = std::make_shared<WatchedBlockDevice::Watch>();
    watch->mostOperations = kMostOperations;
    const auto device = VZDefragVolume::initWithBlockDevice(
        "/dev/memory", std::make_unique<WatchedBlockDevice>(faults.share(), watch));
    std::unique_ptr<VZDefragError> failure;
    bool valid = false;
    if (!HFSPlusVolume::probe(*device, valid, &failure) || !valid) {
        result.openError = failure != nullptr ? failure->description() : "not valid";
        return result;
    }
    const auto volume = HFSPlusVolume::initWithVolume(*device, &failure);
    if (volume == nullptr) {
        result.openError = failure->description();
        return result;
    }
    result.opened = true;
    if (options.nodeCacheSize != 0) {
        volume->catalog().setNodeCacheSize(options.nodeCacheSize);
        volume->extents().setNodeCacheSize(options.nodeCacheSize);
    }
    if (options.faults != nullptr) {
        options.faults(faults);
    }
    result.output = runDefrag(*volume, options.bufferSize, {options.command}, [&](auto& task) {
        if (options.spanMemory != 0) {
            task.setSpanMemory(options.spanMemory);
        }
        if (options.abortAfter != 0) {
            watch->call = [&task] { task.abort(); };
            watch->callAt = watch->operations + options.abortAfter;
        }
    });
    result.faultReached = faults.faultReached();
    result.isEndless = watch->isEndless();
    return result;
}
