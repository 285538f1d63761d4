#include "support/FaultyBlockDevice.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <mutex>
#include <optional>
#include <vector>

/** The faults asked for and the counts they are measured by, shared by all duplicates. */
struct FaultyBlockDevice::Plan {
    struct Fault {
        Operation operation;
        uint64_t ordinal;
        Lasting lasting;
        int errorNumber;  // 0: a short transfer
        size_t nbyte;
    };
    std::vector<Fault> faults;
    std::array<uint64_t, 3> counts{};  // by operation
    std::optional<uint64_t> lastWrite;
    bool reached = false;
    std::mutex mutex;  // guards every field above
};

/** What becomes of one operation. */
struct FaultyBlockDevice::Verdict {
    int errorNumber = 0;
    size_t nbyte = 0;
};

FaultyBlockDevice::FaultyBlockDevice(std::unique_ptr<PlatformBlockDevice> device)
    : FaultyBlockDevice(std::move(device), std::make_shared<Plan>())
{
}

FaultyBlockDevice::FaultyBlockDevice(std::unique_ptr<PlatformBlockDevice> device,
                                     std::shared_ptr<Plan> plan)
    : _device(std::move(device)), _plan(std::move(plan))
{
}

FaultyBlockDevice::~FaultyBlockDevice() = default;

void FaultyBlockDevice::fail(Operation operation, uint64_t ordinal, int errorNumber,
                             Lasting lasting)
{
    const std::lock_guard lock(_plan->mutex);
    const uint64_t start = _plan->counts[static_cast<size_t>(operation)];
    _plan->faults.push_back({operation, start + ordinal, lasting, errorNumber, 0});
    _plan->reached = false;
}

void FaultyBlockDevice::cutShort(Operation operation, uint64_t ordinal, size_t nbyte,
                                 Lasting lasting)
{
    const std::lock_guard lock(_plan->mutex);
    const uint64_t start = _plan->counts[static_cast<size_t>(operation)];
    _plan->faults.push_back({operation, start + ordinal, lasting, 0, nbyte});
    _plan->reached = false;
}

void FaultyBlockDevice::stopAfterWrites(uint64_t count)
{
    const std::lock_guard lock(_plan->mutex);
    _plan->lastWrite = _plan->counts[static_cast<size_t>(Operation::kWrite)] + count;
    _plan->reached = false;
}

void FaultyBlockDevice::heal()
{
    const std::lock_guard lock(_plan->mutex);
    _plan->faults.clear();
    _plan->counts.fill(0);
    _plan->lastWrite.reset();
    _plan->reached = false;
}

bool FaultyBlockDevice::faultReached() const
{
    const std::lock_guard lock(_plan->mutex);
    return _plan->reached;
}

int64_t FaultyBlockDevice::readAt(void* buffer, size_t nbyte, uint64_t offset)
{
    const Verdict verdict = _judge(Operation::kRead, nbyte);
    if (verdict.errorNumber != 0) {
        return -verdict.errorNumber;
    }
    // A device reads whole blocks: the caller's buffer may well be filled beyond a short count.
    const int64_t count = _device->readAt(buffer, nbyte, offset);
    return std::min(count, static_cast<int64_t>(verdict.nbyte));
}

int64_t FaultyBlockDevice::writeAt(const void* buffer, size_t nbyte, uint64_t offset)
{
    const Verdict verdict = _judge(Operation::kWrite, nbyte);
    if (verdict.errorNumber != 0) {
        return -verdict.errorNumber;
    }
    const size_t whole = verdict.nbyte / blockSize() * blockSize();
    const int64_t count = _device->writeAt(buffer, std::min(whole, nbyte), offset);
    return count < 0 ? count : std::min(count, static_cast<int64_t>(verdict.nbyte));
}

int FaultyBlockDevice::synchronize()
{
    const Verdict verdict = _judge(Operation::kSynchronize, 0);
    return verdict.errorNumber != 0 ? verdict.errorNumber : _device->synchronize();
}

uint32_t FaultyBlockDevice::blockSize() const
{
    return _device->blockSize();
}

uint64_t FaultyBlockDevice::blockCount() const
{
    return _device->blockCount();
}

bool FaultyBlockDevice::isWritable() const
{
    return _device->isWritable();
}

std::unique_ptr<PlatformBlockDevice> FaultyBlockDevice::duplicate() const
{
    return share();
}

std::unique_ptr<FaultyBlockDevice> FaultyBlockDevice::share() const
{
    std::unique_ptr<PlatformBlockDevice> device = _device->duplicate();
    if (device == nullptr) {
        return nullptr;
    }
    return std::unique_ptr<FaultyBlockDevice>(new FaultyBlockDevice(std::move(device), _plan));
}

FaultyBlockDevice::Verdict FaultyBlockDevice::_judge(Operation operation, size_t nbyte)
{
    const std::lock_guard lock(_plan->mutex);
    const uint64_t ordinal = ++_plan->counts[static_cast<size_t>(operation)];
    const uint64_t writes = _plan->counts[static_cast<size_t>(Operation::kWrite)];
    const bool changes = operation != Operation::kRead;
    // A write counts itself, a synchronization belongs after the writes before it.
    const bool stopped =
        changes && _plan->lastWrite.has_value() &&
        (operation == Operation::kWrite ? writes > *_plan->lastWrite : writes >= *_plan->lastWrite);
    if (stopped) {
        _plan->reached = true;
        return {EIO, 0};
    }
    for (const Plan::Fault& fault : _plan->faults) {
        const bool strikes =
            fault.lasting == Lasting::kOnce ? ordinal == fault.ordinal : ordinal >= fault.ordinal;
        if (fault.operation == operation && strikes) {
            _plan->reached = true;
            return {fault.errorNumber, std::min(fault.nbyte, nbyte)};
        }
    }
    return {0, nbyte};
}
