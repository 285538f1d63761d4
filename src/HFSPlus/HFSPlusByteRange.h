#pragma once

#include <cstdint>
#include <tuple>

/** Consecutive bytes of a file, a volume or a device. */
struct HFSPlusByteRange {
    uint64_t offset = 0;  // bytes
    uint64_t nbyte = 0;

    bool operator==(const HFSPlusByteRange&) const = default;
    bool operator<(const HFSPlusByteRange& other) const
    {
        return std::tie(offset, nbyte) < std::tie(other.offset, other.nbyte);
    }
};
