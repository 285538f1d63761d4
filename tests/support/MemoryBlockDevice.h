#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "Platform/PlatformBlockDevice.h"

/** A block device in memory that notes every transfer.
 *
 *  Only pages that were ever written take memory, so a device may be terabytes long. Duplicates
 *  share bytes, counters and log; any thread may use any of them. Like a raw device it refuses
 *  transfers that are no whole device blocks with -EINVAL, reads short at its end and answers a
 *  write beyond it with -ENOSPC.
 */
class MemoryBlockDevice final : public PlatformBlockDevice {
public:
    /** One entry of the log. */
    struct Operation {
        enum class Kind : uint8_t { kRead, kWrite, kSynchronize };
        Kind kind = Kind::kRead;
        uint64_t offset = 0;  // bytes
        size_t nbyte = 0;
        bool operator==(const Operation&) const = default;
    };

    /** A device of @p size zero bytes; a tail shorter than a device block cannot be reached. */
    explicit MemoryBlockDevice(uint64_t size, uint32_t blockSize = 512);
    ~MemoryBlockDevice() override;

    [[nodiscard]] int64_t readAt(void* buffer, size_t nbyte, uint64_t offset) override;
    [[nodiscard]] int64_t writeAt(const void* buffer, size_t nbyte, uint64_t offset) override;
    [[nodiscard]] int synchronize() override;
    [[nodiscard]] uint32_t blockSize() const override;
    [[nodiscard]] uint64_t blockCount() const override;
    [[nodiscard]] bool isWritable() const override;
    [[nodiscard]] std::unique_ptr<PlatformBlockDevice> duplicate() const override;

    /** A device of its own with the bytes of now, an empty log and counters of 0. */
    [[nodiscard]] std::unique_ptr<MemoryBlockDevice> clone() const;

    /** Makes clones cost no more than what changes from now on, here or there. */
    void freeze();

    /** Another handle as duplicate() gives it, for a test that keeps looking at the device. */
    [[nodiscard]] std::unique_ptr<MemoryBlockDevice> share() const;

    /** Reads any bytes without a trace; what lies beyond the end reads as zeros. */
    void peek(void* buffer, size_t nbyte, uint64_t offset) const;

    /** Changes any bytes without a trace; the device grows when @p offset + @p nbyte asks for it.
     */
    void poke(const void* buffer, size_t nbyte, uint64_t offset);

    /** Makes the device @p size bytes long. */
    void setSize(uint64_t size);

    /** Whether later writes succeed or give -EROFS. */
    void setWritable(bool writable);

    /** Whether both devices hold the same bytes. */
    [[nodiscard]] bool hasSameBytesAs(const MemoryBlockDevice& other) const;

    [[nodiscard]] uint64_t size() const;
    [[nodiscard]] uint64_t readCount() const;
    [[nodiscard]] uint64_t writeCount() const;
    [[nodiscard]] uint64_t synchronizeCount() const;

    /** Every transfer so far, in the order in which they came. */
    [[nodiscard]] std::vector<Operation> operations() const;

    /** Empties the log and sets the counters to 0. */
    void clearOperations();

private:
    static constexpr size_t kPageSize = 4096;
    using Page = std::array<uint8_t, kPageSize>;
    struct Store;

    MemoryBlockDevice(std::shared_ptr<Store> store, uint32_t blockSize);
    [[nodiscard]] bool _isWhole(size_t nbyte, uint64_t offset) const;

    std::shared_ptr<Store> _store;
    uint32_t _blockSize;  // bytes
};
