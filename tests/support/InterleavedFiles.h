#pragma once

#include <cstdint>
#include <string>

#include "support/HFSPlusVolumeBuilder.h"

/** Files in interleaved pieces of one or two blocks, each with a resource fork in two. */
inline void addInterleavedFiles(HFSPlusVolumeBuilder& builder, uint32_t files, uint32_t pieces,
                                uint32_t firstBlock)
{
    const uint32_t row = files * 3;
    for (uint32_t file = 0; file < files; ++file) {
        HFSPlusBuilderExtents extents;
        for (uint32_t piece = 0; piece < pieces; ++piece) {
            extents.push_back({firstBlock + piece * row + file * 3, 1 + (file + piece) % 2});
        }
        const uint32_t end = firstBlock + pieces * row;
        builder.file("/folder " + std::to_string(file % 3) + "/file " + std::to_string(file))
            .data(extents)
            .resource({{end + 5 * file + 2, 1}, {end + 5 * file, 1}});
    }
}
