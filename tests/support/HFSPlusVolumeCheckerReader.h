#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Platform/PlatformBlockDevice.h"

/** Where the checker gets its bytes from: whatever holds a volume, addressed by byte.
 *
 *  The checker does not mind alignment and reads nothing beyond size().
 */
class HFSPlusCheckReader {
public:
    HFSPlusCheckReader() = default;
    HFSPlusCheckReader(const HFSPlusCheckReader&) = delete;
    HFSPlusCheckReader& operator=(const HFSPlusCheckReader&) = delete;
    virtual ~HFSPlusCheckReader() = default;

    /** Fills @p buffer with @p nbyte bytes from byte @p offset; false when any is missing. */
    [[nodiscard]] virtual bool read(void* buffer, size_t nbyte, uint64_t offset) = 0;

    /** Size in bytes, a multiple of 512. */
    [[nodiscard]] virtual uint64_t size() const = 0;
};

/** Reads an image file or a block device by its path. */
class HFSPlusCheckFileReader final : public HFSPlusCheckReader {
public:
    /** Opens @p path for reading; null with errno set when that fails. */
    [[nodiscard]] static std::unique_ptr<HFSPlusCheckFileReader> initWithPath(
        const std::string& path);
    ~HFSPlusCheckFileReader() override;

    [[nodiscard]] bool read(void* buffer, size_t nbyte, uint64_t offset) override;
    [[nodiscard]] uint64_t size() const override { return _size; }

private:
    HFSPlusCheckFileReader(int descriptor, uint64_t size);

    int _descriptor;
    uint64_t _size;
};

/** Reads an open block device, which it borrows, in whole device blocks. */
class HFSPlusCheckDeviceReader final : public HFSPlusCheckReader {
public:
    explicit HFSPlusCheckDeviceReader(PlatformBlockDevice& device) : _device(device) {}

    [[nodiscard]] bool read(void* buffer, size_t nbyte, uint64_t offset) override;
    [[nodiscard]] uint64_t size() const override;

private:
    PlatformBlockDevice& _device;
};
