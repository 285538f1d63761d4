#pragma once

#include "support/MemoryBlockDevice.h"
#include "support/SparseSink.h"

/** Writes a volume into a device in memory, leaving no trace in the device's log. */
class SparseMemorySink final : public SparseSink {
public:
    explicit SparseMemorySink(MemoryBlockDevice& device) : _device(device) {}

    [[nodiscard]] bool setSize(uint64_t size) override
    {
        _device.setSize(size);
        return true;
    }

    [[nodiscard]] bool writeAt(const void* buffer, size_t nbyte, uint64_t offset) override
    {
        _device.poke(buffer, nbyte, offset);
        return true;
    }

    [[nodiscard]] bool readAt(void* buffer, size_t nbyte, uint64_t offset) override
    {
        _device.peek(buffer, nbyte, offset);
        return true;
    }

private:
    MemoryBlockDevice& _device;
};
