#pragma once

#include <cstdint>
#include <memory>

#include "VZDefragError.h"

class HFSPlusAllocation;

/** One chunk of the allocation bitmap in memory, in disk order. */
class HFSPlusAllocationChunk {
public:
    [[nodiscard]] static std::shared_ptr<HFSPlusAllocationChunk> initWithAllocation(
        HFSPlusAllocation& allocation, uint32_t index, VZDefragErrorSlot error);

    [[nodiscard]] uint32_t index() const { return _index; }
    [[nodiscard]] uint32_t size() const { return _size; }  // bytes
    [[nodiscard]] uint8_t* data() { return _data.get(); }
    [[nodiscard]] bool dirty() const { return _dirty; }
    void setDirty(bool dirty) { _dirty = dirty; }
    /** Writes the chunk if it is dirty; clean afterwards even when the write failed. */
    [[nodiscard]] bool flush();

private:
    HFSPlusAllocationChunk(HFSPlusAllocation& allocation, uint32_t index)
        : _allocation(allocation), _index(index)
    {
    }

    HFSPlusAllocation& _allocation;
    uint32_t _index;
    uint32_t _size = 0;
    std::unique_ptr<uint8_t[]> _data;
    bool _dirty = false;
};
