#include "Tasks/FaultLog.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

namespace {

/** An interrupted request may be repeated a thousand times before it counts as failed. */
constexpr uint64_t kMostRequests = 2000000;

constexpr uint32_t kNodeSize = 512;  // the smallest, in bytes

struct Range {
    uint64_t offset;  // bytes
    size_t nbyte;
    size_t contents = 0;  // a hash

    [[nodiscard]] bool overlaps(const Range& other) const
    {
        return offset < other.offset + other.nbyte && other.offset < offset + nbyte;
    }
    bool operator==(const Range&) const = default;
};

std::string described(const Range& range)
{
    return std::to_string(range.nbyte) + " bytes at " + std::to_string(range.offset);
}

}  // namespace

struct FaultLog::Log {
    std::mutex lock;  // guards what follows
    uint64_t requests = 0;
    std::vector<Range> failedWrites;       // not those that were interrupted
    std::vector<Range> interruptedWrites;  // and not yet repeated
    bool barrierFailed = false;
    std::string complaint;

    [[nodiscard]] bool count()
    {
        const std::lock_guard guard(lock);
        return ++requests <= kMostRequests;
    }
    void complain(std::string text)
    {
        if (complaint.empty()) {
            complaint = std::move(text);
        }
    }
    void writeDidBegin(const Range& range, bool sharesBlocks)
    {
        const std::lock_guard guard(lock);
        if (barrierFailed) {
            complain("after a barrier that failed, written: " + described(range));
        }
        if (const auto found = std::ranges::find(interruptedWrites, range);
            found != interruptedWrites.end()) {
            interruptedWrites.erase(found);
            return;
        }
        for (const Range& failed : failedWrites) {
            // A device block may be that of a neighbour as well, which gets its turn.
            if (failed.overlaps(range) && (!sharesBlocks || failed == range)) {
                complain("failed: " + described(failed) + ", written: " + described(range));
            }
        }
    }
    void writeDidEnd(const Range& range, int64_t result)
    {
        const std::lock_guard guard(lock);
        if (result == -EINTR) {
            interruptedWrites.push_back(range);
        } else if (std::cmp_not_equal(result, range.nbyte)) {
            failedWrites.push_back(range);
        }
    }
    void barrierDidBegin()
    {
        const std::lock_guard guard(lock);
        if (barrierFailed) {
            complain("a barrier after one that failed");
        }
    }
    void barrierDidEnd(int result)
    {
        const std::lock_guard guard(lock);
        barrierFailed = barrierFailed || (result != 0 && result != EINTR);
    }
};

FaultLog::FaultLog(std::unique_ptr<PlatformBlockDevice> device)
    : FaultLog(std::move(device), std::make_shared<Log>())
{
}

FaultLog::FaultLog(std::unique_ptr<PlatformBlockDevice> device, std::shared_ptr<Log> log)
    : _device(std::move(device)), _log(std::move(log))
{
}

FaultLog::~FaultLog() = default;

int64_t FaultLog::readAt(void* buffer, size_t nbyte, uint64_t offset)
{
    return _log->count() ? _device->readAt(buffer, nbyte, offset) : -EIO;
}

int64_t FaultLog::writeAt(const void* buffer, size_t nbyte, uint64_t offset)
{
    if (!_log->count()) {
        return -EIO;
    }
    const std::string_view bytes(static_cast<const char*>(buffer), nbyte);
    const Range range{offset, nbyte, std::hash<std::string_view>{}(bytes)};
    _log->writeDidBegin(range, _device->blockSize() > kNodeSize);
    const int64_t result = _device->writeAt(buffer, nbyte, offset);
    _log->writeDidEnd(range, result);
    return result;
}

int FaultLog::synchronize()
{
    if (!_log->count()) {
        return EIO;
    }
    _log->barrierDidBegin();
    const int result = _device->synchronize();
    _log->barrierDidEnd(result);
    return result;
}

uint32_t FaultLog::blockSize() const
{
    return _device->blockSize();
}

uint64_t FaultLog::blockCount() const
{
    return _device->blockCount();
}

bool FaultLog::isWritable() const
{
    return _device->isWritable();
}

std::unique_ptr<PlatformBlockDevice> FaultLog::duplicate() const
{
    return share();
}

std::unique_ptr<FaultLog> FaultLog::share() const
{
    std::unique_ptr<PlatformBlockDevice> device = _device->duplicate();
    return device == nullptr ? nullptr
                             : std::unique_ptr<FaultLog>(new FaultLog(std::move(device), _log));
}

std::string FaultLog::complaint() const
{
    const std::lock_guard guard(_log->lock);
    return _log->complaint;
}

bool FaultLog::isEndless() const
{
    const std::lock_guard guard(_log->lock);
    return _log->requests > kMostRequests;
}
