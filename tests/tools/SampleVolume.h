#pragma once

#include <cstdint>
#include <string>

/** What a sample volume is to be like. */
struct SampleVolumeOptions {
    uint64_t size = 256 << 20;  // bytes
    uint32_t blockSize = 4096;  // bytes
    uint32_t fill = 50;         // percent of the blocks that hold files
    uint32_t fragments = 2000;  // extents of all forks together, roughly
    uint32_t files = 500;
    uint64_t seed = 1;
    uint32_t nodeSize = 0;  // bytes; 0: the usual ones
    bool journal = false;
    bool hfsx = false;
    bool resourceForks = false;
    bool attributes = false;
    bool contents = true;
};

/** Writes a fragmented volume to @p path; false with the reason in @p error.
 *
 *  The same options give the same bytes. Files are of mixed sizes and interleaved with each other
 *  and with free space; half of them are in one piece, some have more than eight extents.
 */
[[nodiscard]] bool makeSampleVolume(const SampleVolumeOptions& options, const std::string& path,
                                    std::string& error);
