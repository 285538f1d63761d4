#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

/** An open block device or image file, transferring whole device blocks.
 *
 *  Fixed after opening; transfers keep no position, so several threads may call them at once.
 *  Results of transfers are the bytes transferred or a negative errno value.
 */
class PlatformBlockDevice {
public:
    PlatformBlockDevice() = default;
    PlatformBlockDevice(const PlatformBlockDevice&) = delete;
    PlatformBlockDevice& operator=(const PlatformBlockDevice&) = delete;
    virtual ~PlatformBlockDevice() = default;

    /** Reads @p nbyte bytes at byte @p offset; both are multiples of blockSize().
     *
     *  Makes one attempt: a short count and -EINTR are the caller's to judge.
     */
    [[nodiscard]] virtual int64_t readAt(void* buffer, size_t nbyte, uint64_t offset) = 0;

    /** Writes @p nbyte bytes at byte @p offset; both are multiples of blockSize(). One attempt. */
    [[nodiscard]] virtual int64_t writeAt(const void* buffer, size_t nbyte, uint64_t offset) = 0;

    /** Returns 0 once every earlier write is durable, else an errno value. */
    [[nodiscard]] virtual int synchronize() = 0;

    /** Device block size in bytes. */
    [[nodiscard]] virtual uint32_t blockSize() const = 0;

    /** Number of whole device blocks. */
    [[nodiscard]] virtual uint64_t blockCount() const = 0;

    /** Whether the device takes writes. */
    [[nodiscard]] virtual bool isWritable() const = 0;

    /** A second handle on the same open device, closed on its own; null with errno set. */
    [[nodiscard]] virtual std::unique_ptr<PlatformBlockDevice> duplicate() const = 0;
};
