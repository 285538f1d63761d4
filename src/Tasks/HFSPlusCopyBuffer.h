#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "VZDefragError.h"

/** The memory that carries one cycle's data, aligned for direct transfers. */
class HFSPlusCopyBuffer {
public:
    /** A sixteenth of physical memory, at most 64 MiB; null with "Out of memory.". */
    [[nodiscard]] static std::unique_ptr<HFSPlusCopyBuffer> initWithBlockSize(
        uint32_t blockSize, VZDefragErrorSlot error);
    /** A buffer of @p size bytes; null with "Out of memory.". */
    [[nodiscard]] static std::unique_ptr<HFSPlusCopyBuffer> initWithSize(uint64_t size,
                                                                         uint32_t blockSize,
                                                                         VZDefragErrorSlot error);

    [[nodiscard]] uint8_t* data() { return _data.get(); }
    [[nodiscard]] uint32_t blocks() const { return _blocks; }  // whole allocation blocks
    /** Blocks that fit all the same: what a cycle takes beyond blocks() to keep a node whole. */
    [[nodiscard]] uint32_t capacity() const { return _capacity; }

private:
    struct Free {
        void operator()(uint8_t* data) const { std::free(data); }
    };

    HFSPlusCopyBuffer() = default;

    std::unique_ptr<uint8_t[], Free> _data;
    uint32_t _blocks = 0;
    uint32_t _capacity = 0;
};
