#pragma once

#include <cstddef>
#include <cstdint>

/** Where a volume is written to: any bytes in any order, what is left out stays zero. */
class SparseSink {
public:
    SparseSink() = default;
    SparseSink(const SparseSink&) = delete;
    SparseSink& operator=(const SparseSink&) = delete;
    virtual ~SparseSink() = default;

    /** Makes the sink @p size zero bytes long; the first call of all. */
    [[nodiscard]] virtual bool setSize(uint64_t size) = 0;

    [[nodiscard]] virtual bool writeAt(const void* buffer, size_t nbyte, uint64_t offset) = 0;

    /** Reads back what was written; what lies beyond the end reads as zeros. */
    [[nodiscard]] virtual bool readAt(void* buffer, size_t nbyte, uint64_t offset) = 0;
};
