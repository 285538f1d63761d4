#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "support/HFSPlusVolumeChecker.h"

/** What the parts of the checker share: big-endian loads, the list of problems, the volume. */

inline uint16_t checkedUInt16(const uint8_t* bytes)
{
    return static_cast<uint16_t>((bytes[0] << 8) | bytes[1]);
}

inline uint32_t checkedUInt32(const uint8_t* bytes)
{
    return (uint32_t{checkedUInt16(bytes)} << 16) | checkedUInt16(bytes + 2);
}

inline uint64_t checkedUInt64(const uint8_t* bytes)
{
    return (uint64_t{checkedUInt32(bytes)} << 32) | checkedUInt32(bytes + 4);
}

constexpr size_t kHFSPlusCheckExtentDensity = 8;  // descriptors in one extent record

/** The problems found so far. The first ones are listed, the others only counted. */
class HFSPlusCheckProblems {
public:
    HFSPlusCheckProblems(std::vector<std::string>& list, size_t limit) : _list(list), _limit(limit)
    {
    }

    void report(const char* format, ...) __attribute__((format(printf, 2, 3)));

    /** Adds how many were not listed. */
    void finish();

    [[nodiscard]] size_t count() const { return _count; }

private:
    std::vector<std::string>& _list;
    size_t _limit;
    size_t _count = 0;
};

/** The volume under examination, as every part of the checker needs it. */
struct HFSPlusCheckedVolume {
    HFSPlusCheckReader& reader;
    HFSPlusCheckProblems& problems;
    uint64_t offset = 0;  // bytes before the volume on the device
    uint64_t size = 0;    // bytes
    uint32_t blockSize = 0;
    uint32_t totalBlocks = 0;
    uint32_t attributes = 0;
    bool isHFSX = false;
    bool isJournaled = false;
    bool unusedNodesAreZero = false;
};

/** The bytes of a fork, read through its extents. */
class HFSPlusCheckForkStream {
public:
    HFSPlusCheckForkStream(const HFSPlusCheckedVolume& volume, const HFSPlusCheckedFork& fork);

    /** Reads bytes that lie in the fork's blocks; false when an extent or the bytes are missing. */
    [[nodiscard]] bool read(void* buffer, size_t nbyte, uint64_t offset);

private:
    HFSPlusCheckReader& _reader;
    uint64_t _volumeOffset;
    uint64_t _volumeSize;
    uint64_t _blockSize;
    std::vector<HFSPlusCheckedExtent> _extents;
    std::vector<uint64_t> _ends;  // fork byte after each extent
};

/** How a fork is named in a problem: "the data fork of file 20". */
[[nodiscard]] std::string checkedForkName(uint32_t cnid, uint8_t forkType);
