#include "HFSPlus/HFSPlusAllocationChunk.h"

#include <new>

#include "HFSPlus/HFSPlusAllocation.h"
#include "KLKit/KLDebug.h"

std::shared_ptr<HFSPlusAllocationChunk> HFSPlusAllocationChunk::initWithAllocation(
    HFSPlusAllocation& allocation, uint32_t index, VZDefragErrorSlot error)
{
    std::shared_ptr<HFSPlusAllocationChunk> chunk(new HFSPlusAllocationChunk(allocation, index));
    chunk->_size = allocation.chunkSizeFromChunkIndex(index, error);
    if (chunk->_size == 0) {
        return nullptr;
    }
    chunk->_data.reset(new (std::nothrow) uint8_t[chunk->_size]);
    if (chunk->_data == nullptr) {
        std::ignore = VZDefragFail(error, "Out of memory.");
        return nullptr;
    }
    if (!allocation.readChunk(index, chunk->data(), error)) {
        return nullptr;
    }
    return chunk;
}

bool HFSPlusAllocationChunk::flush()
{
    if (!_dirty) {
        return true;
    }
    std::unique_ptr<VZDefragError> failure;
    const bool written = _allocation.writeChunk(_index, data(), &failure);
    _dirty = false;
    if (!written && failure != nullptr) {
        KLDebugLog(KLDebugLevel::kWarning, "%@\n", failure->description());
    }
    return written;
}
