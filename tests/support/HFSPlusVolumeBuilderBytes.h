#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "support/HFSPlusVolumeBuilderModel.h"

/** Stores the lowest @p size bytes of @p value at @p target, big-endian. */
inline void putBigEndian(uint8_t* target, uint64_t value, size_t size)
{
    for (size_t index = 0; index < size; index++) {
        target[index] = static_cast<uint8_t>(value >> (8 * (size - 1 - index)));
    }
}

/** The big-endian number of @p size bytes at @p source. */
[[nodiscard]] inline uint64_t getBigEndian(const uint8_t* source, size_t size)
{
    uint64_t value = 0;
    for (size_t index = 0; index < size; index++) {
        value = value << 8 | source[index];
    }
    return value;
}

/** Collects the bytes of a structure in the order of the disk. */
class HFSPlusVolumeBuilderBytes {
public:
    void put8(uint8_t value) { _bytes.push_back(value); }
    void put16(uint16_t value) { put(value, 2); }
    void put32(uint32_t value) { put(value, 4); }
    void put64(uint64_t value) { put(value, 8); }

    void put(uint64_t value, size_t size)
    {
        for (size_t index = size; index > 0; index--) {
            _bytes.push_back(static_cast<uint8_t>(value >> (8 * (index - 1))));
        }
    }

    void zeros(size_t count) { _bytes.insert(_bytes.end(), count, 0); }

    void units(const std::u16string& name)
    {
        for (const char16_t unit : name) {
            put16(unit);
        }
    }

    /** The length of @p name in units, and its units. */
    void name(const std::u16string& name)
    {
        put16(static_cast<uint16_t>(name.size()));
        units(name);
    }

    /** Eight extent descriptors, beginning with extent @p first of @p extents. */
    void extentRecord(const HFSPlusBuilderExtents& extents, size_t first)
    {
        for (size_t index = first; index < first + 8; index++) {
            put32(index < extents.size() ? extents[index].startBlock : 0);
            put32(index < extents.size() ? extents[index].blockCount : 0);
        }
    }

    /** The 80 bytes of a fork's data (TN1150, "Fork Data Structure"). */
    void forkData(const HFSPlusBuilderExtents& extents, uint64_t logicalSize, uint32_t clumpSize)
    {
        uint64_t blocks = 0;
        for (const HFSPlusBuilderExtent& extent : extents) {
            blocks += extent.blockCount;
        }
        put64(logicalSize);
        put32(clumpSize);
        put32(static_cast<uint32_t>(blocks));
        extentRecord(extents, 0);
    }

    void clear() { _bytes.clear(); }
    [[nodiscard]] size_t size() const { return _bytes.size(); }
    [[nodiscard]] std::span<const uint8_t> bytes() const { return _bytes; }
    [[nodiscard]] uint8_t* data() { return _bytes.data(); }

private:
    std::vector<uint8_t> _bytes;
};
