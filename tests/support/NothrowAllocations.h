#pragma once

#include <cstdint>

/** Counts the allocations made without throwing while it lives, and lets them fail.
 *
 *  One at a time. It counts those of all threads; everything is allowed again when it goes.
 */
class NothrowAllocations {
public:
    NothrowAllocations();
    ~NothrowAllocations();
    NothrowAllocations(const NothrowAllocations&) = delete;
    NothrowAllocations& operator=(const NothrowAllocations&) = delete;

    /** Lets the next @p count succeed; those after them return null. */
    void failAfter(uint64_t count);

    [[nodiscard]] uint64_t count() const;
    [[nodiscard]] uint64_t bytes() const;
};
