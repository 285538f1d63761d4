#include "ControlTextTable.h"

#include <algorithm>
#include <utility>

namespace {

constexpr size_t kGap = 2;  // before each column
constexpr size_t kLeastLastWidth = 12;

}  // namespace

ControlTextTable::ControlTextTable(std::vector<Side> sides) : _sides(std::move(sides)) {}

void ControlTextTable::addRow(std::vector<std::string> cells)
{
    cells.resize(_sides.size());
    _rows.push_back(std::move(cells));
}

size_t ControlTextTable::_widthOf(size_t column) const
{
    size_t width = 0;
    for (const std::vector<std::string>& row : _rows) {
        width = std::max(width, cellsOf(row[column]));
    }
    return width;
}

size_t ControlTextTable::widthBeforeLast() const
{
    size_t width = 0;
    for (size_t column = 0; column + 1 < _sides.size(); column++) {
        width += kGap + _widthOf(column);
    }
    return width;
}

std::string ControlTextTable::text(size_t columns, ControlCharacters characters) const
{
    const size_t before = widthBeforeLast() + kGap;
    const size_t room = std::max(columns > before ? columns - before : 0, kLeastLastWidth);
    std::vector<size_t> widths;
    for (size_t column = 0; column < _sides.size(); column++) {
        widths.push_back(_widthOf(column));
    }
    widths.back() = std::min(widths.back(), room);

    std::string text;
    for (const std::vector<std::string>& row : _rows) {
        std::string line;
        for (size_t column = 0; column < _sides.size(); column++) {
            const std::string cell = fitted(row[column], widths[column], characters);
            const std::string padding(widths[column] - cellsOf(cell), ' ');
            line.append(kGap, ' ');
            line += _sides[column] == Side::kLeft ? cell + padding : padding + cell;
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + '\n';
    }
    return text;
}
