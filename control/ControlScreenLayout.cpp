#include "ControlScreenLayout.h"

namespace {

/** The least height at which a line of the screen is shown. */
constexpr size_t kRowsForFigures = 2;
constexpr size_t kRowsForTitle = 3;
constexpr size_t kRowsForLegend = 6;
constexpr size_t kRowsForStatus = 8;  // of its own
constexpr size_t kRowsForScale = 16;
constexpr size_t kRowsForGap = 20;  // above the bar

}  // namespace

ControlScreenLayout::ControlScreenLayout(size_t wantedColumns, size_t wantedRows)
    : columns(wantedColumns), rows(wantedRows)
{
    // From the bottom upwards; the map ends above what was taken.
    size_t bottom = rows;
    const auto takeRow = [&](std::optional<size_t>& row, size_t leastRows) {
        if (rows >= leastRows) {
            row = --bottom;
        }
    };
    takeRow(status, kRowsForStatus);
    takeRow(figures, kRowsForFigures);
    if (!status) {
        status = figures;
    }
    takeRow(bar, 1);
    std::optional<size_t> gap;
    takeRow(gap, kRowsForGap);
    takeRow(scale, kRowsForScale);
    takeRow(legend, kRowsForLegend);
    if (rows >= kRowsForTitle) {
        title = 0;
        mapTop = 1;
    }
    mapRows = columns == 0 ? 0 : bottom - mapTop;
}
