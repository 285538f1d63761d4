#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ControlFileSink.h"
#include "ControlMap.h"
#include "ControlMapSVG.h"

/** The cells of the map on a report's page. */
constexpr ControlMapSVGSize kControlReportMap = {.columns = 64, .rows = 32};

/** Keeps, for each cell of a report's map, the few files that have most blocks there.
 *
 *  What it keeps does not grow with the number of files, nor with the length of their names.
 */
class ControlReportCells : public ControlFileSink {
public:
    struct File {
        uint64_t blocks = 0;  // in the cell
        std::string path;     // as on disk, the middle left out where it is long
    };
    struct Cell {
        uint64_t fileCount = 0;   // with a block in the cell
        std::vector<File> files;  // most blocks first
    };

    /** For a volume of @p totalBlocks blocks. */
    explicit ControlReportCells(uint32_t totalBlocks);

    void addFile(const ControlFile& file) override;

    /** What cell @p index of the map shows. */
    [[nodiscard]] const Cell& cell(size_t index) const;

private:
    /** Adds @p blocks of @p file in cell @p index; makes @p path when it is needed first. */
    void _offer(size_t index, const ControlFile& file, uint64_t blocks, std::string& path);

    ControlMap _map;  // only tells which block lies in which cell
    std::vector<Cell> _cells;
    std::vector<uint64_t> _blocks;  // of the file at hand in each cell; 0 between files
    std::vector<size_t> _touched;   // cells where it has blocks
};

/** @p path cut in the middle so that escapedForMarkup() makes at most @p limit bytes of it. */
[[nodiscard]] std::string shortenedForMarkup(const std::string& path, size_t limit);
