#include "HFSPlus/HFSPlusRollbackFormat.h"

#include <bit>

namespace {

constexpr uint32_t kPolynomial = 0x82F63B78;  // CRC-32C, reflected

constexpr std::array<uint32_t, 256> makeTable()
{
    std::array<uint32_t, 256> table = {};
    for (uint32_t index = 0; index < table.size(); ++index) {
        uint32_t value = index;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 1) != 0 ? (value >> 1) ^ kPolynomial : value >> 1;
        }
        table[index] = value;
    }
    return table;
}

constexpr std::array<uint32_t, 256> kTable = makeTable();

template <typename Structure>
uint32_t checksumOf(const Structure& structure)
{
    return HFSPlusRollbackChecksum(
        std::bit_cast<std::array<uint8_t, sizeof(Structure)>>(structure));
}

}  // namespace

uint32_t HFSPlusRollbackChecksum(std::span<const uint8_t> bytes, uint32_t checksum)
{
    uint32_t value = ~checksum;
    for (const uint8_t byte : bytes) {
        value = (value >> 8) ^ kTable[(value ^ byte) & 0xFF];
    }
    return ~value;
}

uint32_t HFSPlusRollbackChecksum(HFSPlusRollbackHeader header)
{
    header.checksum = 0;
    return checksumOf(header);
}

uint32_t HFSPlusRollbackChecksum(HFSPlusRollbackRecord record, std::span<const uint8_t> bytes)
{
    record.checksum = 0;
    return HFSPlusRollbackChecksum(bytes, checksumOf(record));
}
