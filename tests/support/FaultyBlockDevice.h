#pragma once

#include <cstdint>
#include <memory>

#include "Platform/PlatformBlockDevice.h"

/** A device that does what the device behind it does, except where a fault was asked for.
 *
 *  Operations of one kind are counted from 1 over all duplicates together, failed ones included.
 *  A failing operation leaves the device behind untouched. Any thread may use it.
 */
class FaultyBlockDevice final : public PlatformBlockDevice {
public:
    enum class Operation : uint8_t { kRead, kWrite, kSynchronize };
    enum class Lasting : uint8_t { kOnce, kFromThenOn };

    explicit FaultyBlockDevice(std::unique_ptr<PlatformBlockDevice> device);
    ~FaultyBlockDevice() override;

    /** The @p ordinal-th operation of this kind from now on fails with @p errorNumber. */
    void fail(Operation operation, uint64_t ordinal, int errorNumber,
              Lasting lasting = Lasting::kOnce);

    /** The @p ordinal-th transfer from now on moves at most @p nbyte bytes; 0 reads as the end. */
    void cutShort(Operation operation, uint64_t ordinal, size_t nbyte,
                  Lasting lasting = Lasting::kOnce);

    /** After @p count more writes, writes and synchronizations fail with EIO: the plug is out.
     *
     *  Reads go on, so the process under test may come to its end in its own way.
     */
    void stopAfterWrites(uint64_t count);

    /** Withdraws every fault and starts counting anew. */
    void heal();

    /** Whether any fault has struck since it was asked for. */
    [[nodiscard]] bool faultReached() const;

    /** A second handle with the same faults and counts, to steer them from outside. */
    [[nodiscard]] std::unique_ptr<FaultyBlockDevice> share() const;

    [[nodiscard]] int64_t readAt(void* buffer, size_t nbyte, uint64_t offset) override;
    [[nodiscard]] int64_t writeAt(const void* buffer, size_t nbyte, uint64_t offset) override;
    [[nodiscard]] int synchronize() override;
    [[nodiscard]] uint32_t blockSize() const override;
    [[nodiscard]] uint64_t blockCount() const override;
    [[nodiscard]] bool isWritable() const override;
    [[nodiscard]] std::unique_ptr<PlatformBlockDevice> duplicate() const override;

private:
    struct Plan;
    struct Verdict;

    FaultyBlockDevice(std::unique_ptr<PlatformBlockDevice> device, std::shared_ptr<Plan> plan);
    [[nodiscard]] Verdict _judge(Operation operation, size_t nbyte);

    std::unique_ptr<PlatformBlockDevice> _device;
    std::shared_ptr<Plan> _plan;
};
