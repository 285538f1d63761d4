#pragma once

#include <cstddef>

/** Columns and rows of a terminal. */
struct ControlTerminalSize {
    size_t columns = 80;
    size_t rows = 24;
};

/** The size of the terminal that standard output is, else what COLUMNS and LINES say, else 80
 * by 24.
 */
[[nodiscard]] ControlTerminalSize terminalSize();
