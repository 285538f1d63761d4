#pragma once

#include <cstddef>
#include <optional>

/** Which row of a terminal holds what while a run is shown. Rows count from 0 at the top.
 *
 *  The map gets what the lines of text leave. In low windows lines go, the least needed first; the
 *  bar goes last.
 */
struct ControlScreenLayout {
    size_t columns = 0;
    size_t rows = 0;
    std::optional<size_t> title;
    size_t mapTop = 0;
    size_t mapRows = 0;
    std::optional<size_t> legend;
    std::optional<size_t> scale;  // what a cell stands for
    std::optional<size_t> bar;
    std::optional<size_t> figures;
    std::optional<size_t> status;  // the same row as the figures where there is no other

    /** For a terminal of @p columns by @p rows cells. */
    ControlScreenLayout(size_t columns, size_t rows);

    [[nodiscard]] size_t mapCells() const { return columns * mapRows; }
};
