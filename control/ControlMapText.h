#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "ControlMap.h"
#include "ControlText.h"

/** How a picture of the disk is to look on a terminal. */
struct ControlMapTextOptions {
    size_t columns = 80;  // cells of the map
    size_t rows = 20;
    ControlCharacters characters = ControlCharacters::kASCII;
    bool isColored = false;
};

/** The smallest map that is of use. */
constexpr size_t kControlMapLeastColumns = 20;
constexpr size_t kControlMapLeastRows = 6;

/** How many lines mapAsText() adds below the map: the legend, and what one cell stands for. */
constexpr size_t kControlMapTextLinesBelow = 2;

/** @p map as lines of text, none wider than the map's columns.
 *
 *  The disk goes from the left to the right and then down, like text. Colours are SGR sequences,
 *  which end with each line.
 */
[[nodiscard]] std::string mapAsText(const ControlMap& map, uint32_t blockSize,
                                    const ControlMapTextOptions& options);

/** What one of @p cells cells of a map stands for, in at most @p columns cells of a terminal. */
[[nodiscard]] std::string scaleOfMap(const ControlMap& map, uint32_t blockSize, size_t cells,
                                     size_t columns);

/** Whether output is to have colours where nobody says so: @p noColor and @p term are the variables
 * NO_COLOR and TERM of the environment, null when they are not set.
 */
[[nodiscard]] bool wantsColor(bool isTerminal, const char* term, const char* noColor);

/** The same for this process's standard output and environment. */
[[nodiscard]] bool standardOutputWantsColor();
