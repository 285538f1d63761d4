#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Platform/PlatformBlockDevice.h"

/** A device that notes how every request ended, and judges what followed one that had failed.
 *
 *  Shared by all duplicates; any thread may use it. Beyond a count of requests that no volume of a
 *  test needs it refuses everything, so that a walk without an end shows.
 */
class FaultLog final : public PlatformBlockDevice {
public:
    explicit FaultLog(std::unique_ptr<PlatformBlockDevice> device);
    ~FaultLog() override;

    [[nodiscard]] int64_t readAt(void* buffer, size_t nbyte, uint64_t offset) override;
    [[nodiscard]] int64_t writeAt(const void* buffer, size_t nbyte, uint64_t offset) override;
    [[nodiscard]] int synchronize() override;
    [[nodiscard]] uint32_t blockSize() const override;
    [[nodiscard]] uint64_t blockCount() const override;
    [[nodiscard]] bool isWritable() const override;
    [[nodiscard]] std::unique_ptr<PlatformBlockDevice> duplicate() const override;

    /** A second handle, for a test that keeps looking. */
    [[nodiscard]] std::unique_ptr<FaultLog> share() const;

    /** What was done that must not be: a write over one that failed, anything written or any
     *  barrier after a barrier that failed, a write repeated that was not interrupted. Empty when
     *  all was well. */
    [[nodiscard]] std::string complaint() const;
    [[nodiscard]] bool isEndless() const;

private:
    struct Log;

    FaultLog(std::unique_ptr<PlatformBlockDevice> device, std::shared_ptr<Log> log);

    std::unique_ptr<PlatformBlockDevice> _device;
    std::shared_ptr<Log> _log;
};
