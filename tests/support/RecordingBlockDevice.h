#pragma once

#include <memory>

#include "Platform/PlatformBlockDevice.h"
#include "support/Recording.h"

/** A device that does what the device behind it does, and records its writes and barriers.
 *
 *  Duplicates share the recording. Any thread may use it.
 */
class RecordingBlockDevice final : public PlatformBlockDevice {
public:
    RecordingBlockDevice(std::unique_ptr<PlatformBlockDevice> device,
                         std::shared_ptr<Recording> recording);

    [[nodiscard]] int64_t readAt(void* buffer, size_t nbyte, uint64_t offset) override;
    [[nodiscard]] int64_t writeAt(const void* buffer, size_t nbyte, uint64_t offset) override;
    [[nodiscard]] int synchronize() override;
    [[nodiscard]] uint32_t blockSize() const override;
    [[nodiscard]] uint64_t blockCount() const override;
    [[nodiscard]] bool isWritable() const override;
    [[nodiscard]] std::unique_ptr<PlatformBlockDevice> duplicate() const override;

private:
    std::unique_ptr<PlatformBlockDevice> _device;
    std::shared_ptr<Recording> _recording;
};
