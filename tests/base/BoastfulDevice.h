#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "Platform/PlatformBlockDevice.h"

/** Claims to have transferred more than it was asked for. */
class BoastfulDevice final : public PlatformBlockDevice {
public:
    int64_t readAt(void*, size_t nbyte, uint64_t) override
    {
        return static_cast<int64_t>(nbyte) + 1;
    }
    int64_t writeAt(const void*, size_t nbyte, uint64_t) override
    {
        return static_cast<int64_t>(nbyte) + 1;
    }
    int synchronize() override { return 0; }
    [[nodiscard]] uint32_t blockSize() const override { return bytesPerBlock; }
    [[nodiscard]] uint64_t blockCount() const override { return blocks; }
    [[nodiscard]] bool isWritable() const override { return true; }
    [[nodiscard]] std::unique_ptr<PlatformBlockDevice> duplicate() const override
    {
        return nullptr;
    }

    uint32_t bytesPerBlock = 512;
    uint64_t blocks = 8;
};
