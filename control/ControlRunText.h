#pragma once

#include <string>
#include <string_view>

#include "ControlRunDisplay.h"

/** "Defragmenting" or "Compacting". */
[[nodiscard]] std::string_view titleOfJob(ControlJob job);

/** "1.23 GiB moved, 210 MiB/s, 0:41 left"; what is not known is left out. */
[[nodiscard]] std::string progressAsText(const ControlProgress& progress);

/** How a run ended, in lines for people; with the volume's figures before and after where both are
 * known. Why it ended early is a message of its own.
 */
[[nodiscard]] std::string summaryOfRun(const ControlFigures& before, const ControlRunEnd& end);
