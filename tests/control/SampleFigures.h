#pragma once

#include <vector>

#include "ControlFigures.h"

/** A volume as a survey would describe it, with the files that SCAN would list. */
struct SampleVolume {
    ControlFigures figures;
    std::vector<ControlFile> files;
};

/** A volume of @p totalBlocks blocks of 4096 bytes with @p files laid out on it.
 *
 *  The first 2% hold the volume's own structures. All figures follow from the layout.
 */
[[nodiscard]] SampleVolume volumeOfFiles(uint32_t totalBlocks, std::vector<ControlFile> files);

/** A volume of 200,000 blocks with about 600 files, a third of them in pieces, some with names that
 *  hold markup, control characters, marks that turn the direction of writing, and broken UTF-8.
 */
[[nodiscard]] SampleVolume sampleVolume();

/** The same files after a run: each in one piece, one after the other. */
[[nodiscard]] SampleVolume tidySampleVolume();

/** A file of @p extents with ID @p fileID. */
[[nodiscard]] ControlFile sampleFile(uint32_t fileID, std::string path,
                                     std::vector<ControlExtent> extents);
