#pragma once

#include <compare>
#include <cstdint>

/** Consecutive bytes of a file, a volume or a device. */
struct HFSPlusByteRange {
    uint64_t offset = 0;  // bytes
    uint64_t nbyte = 0;

    auto operator<=>(const HFSPlusByteRange&) const = default;
};
