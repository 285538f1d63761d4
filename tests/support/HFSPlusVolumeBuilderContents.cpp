#include "support/HFSPlusVolumeBuilderContents.h"

#include <bit>
#include <cstring>

namespace {

uint64_t storedBigEndian(uint64_t value)
{
    static_assert(std::endian::native == std::endian::little);
    return __builtin_bswap64(value);
}

}  // namespace

void fillForkContents(std::span<uint8_t> bytes, uint32_t cnid, uint8_t forkType,
                      uint64_t forkOffset, uint32_t blockSize)
{
    uint64_t block = forkOffset / blockSize;
    uint64_t cell = forkOffset % blockSize / 16;
    const uint64_t cellsPerBlock = blockSize / 16;
    for (size_t index = 0; index < bytes.size(); index += 16) {
        const uint64_t sum = (uint64_t{cnid} * 0x9E3779B1 + block * 0x85EBCA6B + cell) >> 16;
        const uint64_t words[2] = {
            storedBigEndian(uint64_t{cnid} << 32 | (block & 0xFFFFFFFF)),
            storedBigEndian(cell << 32 | uint64_t{forkType} << 24 | (sum & 0xFFFFFF)),
        };
        std::memcpy(&bytes[index], words, sizeof(words));
        if (++cell == cellsPerBlock) {
            cell = 0;
            block++;
        }
    }
}
