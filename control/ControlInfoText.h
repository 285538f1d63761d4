#pragma once

#include <cstddef>
#include <string>

#include "ControlFigures.h"
#include "ControlText.h"

/** All figures of a volume for people to read, in lines of at most @p columns where that can be. */
[[nodiscard]] std::string controlInfoText(const ControlFigures& figures,
                                          ControlCharacters characters, size_t columns);

/** What a run changed, as a table of the figures before, after, and their differences. */
[[nodiscard]] std::string controlComparisonText(const ControlFigures& before,
                                                const ControlFigures& after);

/** Whether DEFRAG and COMPACT can work on the volume, and why not, in a sentence or more. */
[[nodiscard]] std::string controlReadinessText(const ControlFigures& figures);
