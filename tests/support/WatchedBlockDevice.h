#pragma once

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <utility>

#include "Platform/PlatformBlockDevice.h"

/** A device that takes no request beyond a certain count, so that a walk without an end
 *  shows as a failure, and calls back once at another.
 */
class WatchedBlockDevice final : public PlatformBlockDevice {
public:
    /** What all duplicates share. */
    struct Watch {
        std::atomic<uint64_t> operations = 0;
        std::atomic<uint64_t> callAt = 0;  // 0: never
        std::function<void()> call;        // set before callAt
        uint64_t mostOperations = 100000;  // set before the first

        [[nodiscard]] bool isEndless() const { return operations > mostOperations; }
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
        return operation <= _watch->mostOperations;
    }

    std::unique_ptr<PlatformBlockDevice> _device;
    std::shared_ptr<Watch> _watch;
};
