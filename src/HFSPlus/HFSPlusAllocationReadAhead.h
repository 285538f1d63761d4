#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

class HFSPlusAllocation;

/** Lets the chunks of a bitmap come from large reads for as long as it lives, which serves a pass
 *  in ascending order.
 *
 *  The cache is as it is without: only what it asks to be read comes from here, and a chunk that
 *  is written takes everything read ahead with it. Lives within one closing of the volume's gate.
 */
class HFSPlusAllocationReadAhead {
public:
    explicit HFSPlusAllocationReadAhead(HFSPlusAllocation& allocation);
    HFSPlusAllocationReadAhead(const HFSPlusAllocationReadAhead&) = delete;
    HFSPlusAllocationReadAhead& operator=(const HFSPlusAllocationReadAhead&) = delete;
    ~HFSPlusAllocationReadAhead();

    /** Copies @p nbyte bytes at @p offset of the bitmap; false when only a read of their own will
     *  do, which then tells what is wrong. */
    [[nodiscard]] bool copy(uint8_t* buffer, uint64_t nbyte, uint64_t offset);
    /** Forgets what was read. */
    void drop() { _size = 0; }

private:
    struct Free {
        void operator()(uint8_t* data) const { std::free(data); }
    };

    [[nodiscard]] bool _fill(uint64_t offset);

    HFSPlusAllocation& _allocation;
    std::unique_ptr<uint8_t, Free> _data;  // null when there is no memory, or after a failure
    uint64_t _offset = 0;                  // within the bitmap, in bytes
    uint64_t _size = 0;                    // bytes that are there
};
