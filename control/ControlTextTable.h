#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ControlText.h"

/** Rows of cells below each other, in columns as wide as their widest cell. */
class ControlTextTable {
public:
    enum class Side { kLeft, kRight };

    /** A table of as many columns as @p sides, each line behind two spaces. */
    explicit ControlTextTable(std::vector<Side> sides);

    /** Cells are safe text in UTF-8; those that are left out are empty. */
    void addRow(std::vector<std::string> cells);

    /** How many cells of a terminal the columns before the last take. */
    [[nodiscard]] size_t widthBeforeLast() const;
    /** The rows as lines. The last column is cut to end at @p columns, but not below 12 cells. */
    [[nodiscard]] std::string text(size_t columns, ControlCharacters characters) const;

private:
    [[nodiscard]] size_t _widthOf(size_t column) const;

    std::vector<Side> _sides;
    std::vector<std::vector<std::string>> _rows;
};
