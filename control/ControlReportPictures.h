#pragma once

#include <string>

#include "ControlFigures.h"
#include "ControlReportCells.h"

/** The map of a report as an SVG element: a cell is a rectangle with what lies there as its title.
 *
 *  @p files, which may be null, are the names; each takes at most @p nameLimit bytes. @p label says
 *  what the picture shows.
 */
[[nodiscard]] std::string reportMap(const ControlFigures& figures, const ControlReportCells* files,
                                    size_t nameLimit, const std::string& label);

/** The kinds of the map with their colours as a list, and with their shares unless @p totals is
 * null.
 */
[[nodiscard]] std::string reportLegend(const ControlKindCounts* totals);

/** How the bars of free-space histograms are drawn, so that two of them compare. */
struct ControlHistogramScale {
    size_t classCount = 0;    // classes that have a row
    uint64_t mostBlocks = 0;  // what the longest bar stands for

    /** Makes room for the free space of @p figures. */
    void include(const ControlFigures& figures);
};

/** The free space of @p figures by length of runs, as an SVG element. */
[[nodiscard]] std::string reportHistogram(const ControlFigures& figures,
                                          const ControlHistogramScale& scale,
                                          const std::string& label);
