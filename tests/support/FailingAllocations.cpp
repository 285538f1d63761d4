#include "support/FailingAllocations.h"

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> isCounting = false;
pthread_t spared;  // set before isCounting
std::atomic<uint64_t> allocationCount = 0;
std::atomic<uint64_t> firstFailure = 0;  // an ordinal; 0: none
std::atomic<uint64_t> failureCount = 0;
std::atomic<bool> failed = false;

bool mayAllocate()
{
    if (!isCounting || pthread_equal(pthread_self(), spared) != 0) {
        return true;
    }
    const uint64_t ordinal = ++allocationCount;
    const uint64_t first = firstFailure;
    if (first == 0 || ordinal < first || ordinal - first >= failureCount) {
        return true;
    }
    failed = true;
    return false;
}

void* allocate(size_t size)
{
    return mayAllocate() ? std::malloc(size != 0 ? size : 1) : nullptr;
}

void* allocate(size_t size, std::align_val_t alignment)
{
    const auto unit = static_cast<size_t>(alignment);
    return mayAllocate() ? std::aligned_alloc(unit, (size + unit - 1) / unit * unit) : nullptr;
}

void* orThrow(void* memory)
{
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

void* operator new(size_t size)
{
    return orThrow(allocate(size));
}

void* operator new[](size_t size)
{
    return orThrow(allocate(size));
}

void* operator new(size_t size, std::align_val_t alignment)
{
    return orThrow(allocate(size, alignment));
}

void* operator new[](size_t size, std::align_val_t alignment)
{
    return orThrow(allocate(size, alignment));
}

void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, size_t) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, size_t, std::align_val_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, size_t, std::align_val_t) noexcept
{
    std::free(memory);
}

FailingAllocations::FailingAllocations()
{
    firstFailure = 0;
    spared = pthread_self();
    isCounting = true;
}

FailingAllocations::~FailingAllocations()
{
    isCounting = false;
}

void FailingAllocations::fail(uint64_t ordinal, uint64_t count)
{
    firstFailure = 0;
    allocationCount = 0;
    failureCount = count;
    failed = false;
    firstFailure = ordinal;
}

void FailingAllocations::allow()
{
    firstFailure = 0;
}

uint64_t FailingAllocations::count() const
{
    return allocationCount;
}

bool FailingAllocations::hasFailed() const
{
    return failed;
}
