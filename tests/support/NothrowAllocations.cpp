#include "support/NothrowAllocations.h"

#include <atomic>
#include <cstddef>
#include <limits>
#include <new>

namespace {

constexpr uint64_t kUnlimited = std::numeric_limits<uint64_t>::max();

std::atomic<uint64_t> allocationCount = 0;
std::atomic<uint64_t> allocationBytes = 0;
std::atomic<uint64_t> allocationLimit = kUnlimited;

bool mayAllocate(size_t size)
{
    if (allocationCount.fetch_add(1) >= allocationLimit.load()) {
        return false;
    }
    allocationBytes.fetch_add(size);
    return true;
}

}  // namespace

// The replaced forms go through the ordinary ones, so that a sanitizer still sees pairs that match.
void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    try {
        return mayAllocate(size) ? ::operator new(size) : nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept
{
    try {
        return mayAllocate(size) ? ::operator new[](size) : nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

NothrowAllocations::NothrowAllocations()
{
    allocationLimit = kUnlimited;
    allocationCount = 0;
    allocationBytes = 0;
}

NothrowAllocations::~NothrowAllocations()
{
    allocationLimit = kUnlimited;
}

void NothrowAllocations::failAfter(uint64_t count)
{
    allocationLimit = allocationCount + count;
}

uint64_t NothrowAllocations::count() const
{
    return allocationCount;
}

uint64_t NothrowAllocations::bytes() const
{
    return allocationBytes;
}
