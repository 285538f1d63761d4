#pragma once

#include <cstdint>

/** Lets allocations fail: those of all threads but the one that made this object.
 *
 *  Only in a program that is linked with it, for all forms of operator new: those that may return
 *  null do, the others throw. One at a time.
 */
class FailingAllocations {
public:
    static constexpr uint64_t kFromThenOn = UINT64_MAX;

    FailingAllocations();
    ~FailingAllocations();
    FailingAllocations(const FailingAllocations&) = delete;
    FailingAllocations& operator=(const FailingAllocations&) = delete;

    /** The @p ordinal-th from now on fails, counted from 1, and so do those after it until
     *  @p count have failed. */
    void fail(uint64_t ordinal, uint64_t count = 1);
    /** Fails nothing more. */
    void allow();

    /** How many there were since fail(). */
    [[nodiscard]] uint64_t count() const;
    [[nodiscard]] bool hasFailed() const;
};
