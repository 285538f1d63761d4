#include "Tasks/WatchedDefrag.h"

#include <atomic>
#include <cerrno>
#include <memory>

#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusVolume.h"

namespace {

constexpr uint64_t kMostOperations = 200000;

/** Counts the operations of all duplicates, refuses those beyond a limit and calls back once. */
class WatchedBlockDevice final : public PlatformBlockDevice {
public:
    struct Watch {
        std::atomic<uint64_t> operations = 0;
        std::atomic<uint64_t> callAt = 0;  // 0: never
        std::function<void()> call;        // set before callAt
    };

    WatchedBlockDevice(std::unique_ptr<PlatformBlockDevice> device, std::shared_ptr<Watch> watch)
        : _device(std::move(device)), _watch(std::move(watch))
    {
    }

    [[nodiscard]] int64_t readAt(void* buffer, size_t nbyte, uint64_t offset) override
    {
        return _count() ? _device->readAt(buffer, nbyte, offset) : -EIO;
    }
    [[nodiscard]] int64_t writeAt(const void* buffer, size_t nbyte, uint64_t offset) override
    {
        return _count() ? _device->writeAt(buffer, nbyte, offset) : -EIO;
    }
    [[nodiscard]] int synchronize() override { return _count() ? _device->synchronize() : EIO; }
    [[nodiscard]] uint32_t blockSize() const override { return _device->blockSize(); }
    [[nodiscard]] uint64_t blockCount() const override { return _device->blockCount(); }
    [[nodiscard]] bool isWritable() const override { return _device->isWritable(); }
    [[nodiscard]] std::unique_ptr<PlatformBlockDevice> duplicate() const override
    {
        return std::make_unique<WatchedBlockDevice>(_device->duplicate(), _watch);
    }

private:
    [[nodiscard]] bool _count()
    {
        const uint64_t operation = ++_watch->operations;
        if (operation == _watch->callAt) {
            _watch->call();
        }
        return operation <= kMostOperations;
    }

    std::unique_ptr<PlatformBlockDevice> _device;
    std::shared_ptr<Watch> _watch;
};

}  // namespace

WatchedDefrag watchDefrag(const MemoryBlockDevice& memory, const WatchedDefragOptions& options)
{
    WatchedDefrag result;
    FaultyBlockDevice faults(memory.share());
    const auto watch = std::make_shared<WatchedBlockDevice::Watch>();
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
    result.isEndless = watch->operations > kMostOperations;
    return result;
}
