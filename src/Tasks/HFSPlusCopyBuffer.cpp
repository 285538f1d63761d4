#include "Tasks/HFSPlusCopyBuffer.h"

#include <algorithm>

#include "HFSPlus/HFSPlusBTreeFormat.h"
#include "Platform/PlatformSystem.h"

namespace {

constexpr uint64_t kLargestBuffer = 64ull << 20;           // bytes
constexpr uint64_t kBufferForUnknownMemory = 16ull << 20;  // bytes
constexpr uint64_t kMemoryShare = 16;
constexpr uint64_t kAlignment = 4096;  // what direct transfers ask for at most

}  // namespace

std::unique_ptr<HFSPlusCopyBuffer> HFSPlusCopyBuffer::initWithBlockSize(uint32_t blockSize,
                                                                        VZDefragErrorSlot error)
{
    const uint64_t memory = PlatformPhysicalMemory();
    const uint64_t size =
        memory == 0 ? kBufferForUnknownMemory : std::min(memory / kMemoryShare, kLargestBuffer);
    return initWithSize(size, blockSize, error);
}

std::unique_ptr<HFSPlusCopyBuffer> HFSPlusCopyBuffer::initWithSize(uint64_t size,
                                                                   uint32_t blockSize,
                                                                   VZDefragErrorSlot error)
{
    const uint64_t allocated = (size + kBTMaxNodeSize + kAlignment - 1) / kAlignment * kAlignment;
    std::unique_ptr<HFSPlusCopyBuffer> buffer(new HFSPlusCopyBuffer);
    buffer->_data.reset(static_cast<uint8_t*>(std::aligned_alloc(kAlignment, allocated)));
    if (buffer->_data == nullptr) {
        VZDefragFail(error, "Out of memory.");
        return nullptr;
    }
    buffer->_blocks = static_cast<uint32_t>(size / blockSize);
    buffer->_capacity = static_cast<uint32_t>(allocated / blockSize);
    return buffer;
}
