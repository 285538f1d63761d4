#include "HFSPlus/HFSPlusAllocationReadAhead.h"

#include <algorithm>
#include <cstring>

#include "HFSPlus/HFSPlusAllocation.h"

namespace {

constexpr uint64_t kCapacity = 1 << 20;  // bytes
constexpr uint64_t kAlignment = 4096;    // what direct transfers ask for at most

}  // namespace

HFSPlusAllocationReadAhead::HFSPlusAllocationReadAhead(HFSPlusAllocation& allocation)
    : _allocation(allocation),
      _data(static_cast<uint8_t*>(std::aligned_alloc(kAlignment, kCapacity)))
{
    _allocation.setReadAhead(this);
}

HFSPlusAllocationReadAhead::~HFSPlusAllocationReadAhead()
{
    _allocation.setReadAhead(nullptr);
}

bool HFSPlusAllocationReadAhead::copy(uint8_t* buffer, uint64_t nbyte, uint64_t offset)
{
    if (nbyte > kCapacity) {
        return false;
    }
    const bool isHere = offset >= _offset && offset - _offset < _size;
    if (_data == nullptr || (!isHere && !_fill(offset)) || nbyte > _size - (offset - _offset)) {
        return false;
    }
    std::memcpy(buffer, _data.get() + (offset - _offset), nbyte);
    return true;
}

bool HFSPlusAllocationReadAhead::_fill(uint64_t offset)
{
    const uint64_t size = std::min(kCapacity, _allocation.logicalSize() - offset);
    if (!_allocation.read(_data.get(), size, offset, nullptr)) {
        // Once is enough: a device that fails may take its time over every attempt.
        _data.reset();
        _size = 0;
        return false;
    }
    _offset = offset;
    _size = size;
    return true;
}
