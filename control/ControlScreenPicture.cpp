#include "ControlScreenPicture.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "ControlMapText.h"
#include "ControlRunText.h"

namespace {

/** In narrower windows words are shortened. */
constexpr size_t kWideColumns = 60;

/** Draws one screen. */
class Painter {
public:
    Painter(const ControlScreenState& state, const ControlScreenLayout& layout,
            ControlCharacters characters)
        : _state(state), _layout(layout), _characters(characters), _lines(layout.rows)
    {
    }

    [[nodiscard]] std::vector<ControlScreenLine> painted()
    {
        _paintTitle();
        _paintMap();
        _paintLegend();
        _paintScale();
        _paintBar();
        // The status comes later, for it hides the figures where both share a row.
        _paintFigures();
        _paintStatus();
        return std::move(_lines);
    }

private:
    [[nodiscard]] bool _isUnicode() const { return _characters == ControlCharacters::kUnicode; }

    /** @p text, its line's end left out where it is too wide. */
    void _paintText(std::optional<size_t> row, std::string_view text, ControlScreenStyle style)
    {
        if (row) {
            _lines[*row] = {{.text = fitted(text, _layout.columns, _characters), .style = style}};
        }
    }

    /** The first of @p forms that fits. */
    template <size_t count>
    [[nodiscard]] std::string _fitting(const std::array<std::string, count>& forms) const
    {
        for (const std::string& form : forms) {
            if (cellsOf(form) <= _layout.columns) {
                return form;
            }
        }
        return forms.back();
    }

    void _paintTitle();
    void _paintMap();
    void _paintLegend();
    void _paintScale();
    void _paintBar();
    void _paintFigures();
    void _paintStatus();
    [[nodiscard]] std::vector<ControlMark> _marks() const;

    const ControlScreenState& _state;
    const ControlScreenLayout& _layout;
    ControlCharacters _characters;
    std::vector<ControlScreenLine> _lines;
};

void Painter::_paintTitle()
{
    const size_t columns = _layout.columns;
    std::string left(columns < kWideColumns
                         ? (_state.job == ControlJob::kDefrag ? "Defrag" : "Compact")
                         : titleOfJob(_state.job));
    left += " ";
    left += fitted(escapedForTerminal(_state.image, _characters),
                   columns > left.size() ? columns - left.size() : 0, _characters);
    const std::string right =
        _state.format + ", " + readableSize(uint64_t{_state.map.totalBlocks()} * _state.blockSize);
    const size_t taken = cellsOf(left);
    if (taken + 2 + right.size() <= columns) {
        left += std::string(columns - taken - right.size(), ' ') + right;
    } else if (taken < columns) {
        left += std::string(columns - taken, ' ');
    }
    _paintText(_layout.title, left, ControlScreenStyle::kTitle);
}

std::vector<ControlMark> Painter::_marks() const
{
    const size_t cells = _layout.mapCells();
    std::vector<ControlMark> marks;
    marks.reserve(cells);
    for (const ControlKindCounts& counts : _state.map.cells(cells)) {
        marks.push_back(markOfCounts(counts));
    }
    const auto mark = [&](uint32_t start, uint32_t count, ControlMark with) {
        if (count == 0 || start >= _state.map.totalBlocks()) {
            return;
        }
        const uint64_t last =
            std::min<uint64_t>(uint64_t{start} + count, _state.map.totalBlocks()) - 1;
        const size_t end = _state.map.cellOfBlock(static_cast<uint32_t>(last), cells);
        for (size_t cell = _state.map.cellOfBlock(start, cells); cell <= end; cell++) {
            marks[cell] = with;
        }
    };
    for (const ControlMove& move : _state.recentMoves) {
        mark(move.source, move.count, ControlMark::kRead);
    }
    for (const ControlMove& move : _state.recentMoves) {
        mark(move.destination, move.count, ControlMark::kWritten);
    }
    return marks;
}

void Painter::_paintMap()
{
    if (_layout.mapCells() == 0) {
        return;
    }
    const std::vector<ControlMark> marks = _marks();
    for (size_t row = 0; row < _layout.mapRows; row++) {
        ControlScreenLine& line = _lines[_layout.mapTop + row];
        for (size_t column = 0; column < _layout.columns; column++) {
            const ControlMark mark = marks[row * _layout.columns + column];
            if (line.empty() || line.back().mark != mark) {
                line.push_back({.text = "", .style = ControlScreenStyle::kMark, .mark = mark});
            }
            line.back().text += glyphOfMark(mark, _characters);
        }
    }
}

void Painter::_paintLegend()
{
    if (!_layout.legend) {
        return;
    }
    const ControlLegend legend =
        legendFor(_state.map.totals(), _layout.columns, ControlLegendMarks::kKindsAndMoves);
    ControlScreenLine& line = _lines[*_layout.legend];
    for (const ControlLegendEntry& entry : legend.entries) {
        if (!line.empty()) {
            line.push_back({.text = legend.gap});
        }
        line.push_back({.text = std::string(glyphOfMark(entry.mark, _characters)),
                        .style = ControlScreenStyle::kMark,
                        .mark = entry.mark});
        line.push_back({.text = entry.text});
    }
}

void Painter::_paintScale()
{
    _paintText(_layout.scale,
               scaleOfMap(_state.map, _state.blockSize, _layout.mapCells(), _layout.columns),
               ControlScreenStyle::kFaint);
}

void Painter::_paintBar()
{
    if (!_layout.bar) {
        return;
    }
    const auto percent = static_cast<size_t>(std::clamp(_state.progress.percent, 0, 100));
    const std::string digits = std::to_string(percent);
    const std::string number = std::string(4 - digits.size(), ' ') + digits + "%";
    const size_t frame = _isUnicode() ? 0 : 2;
    if (_layout.columns < number.size() + frame + 1) {
        _paintText(_layout.bar, digits + "%", ControlScreenStyle::kStrong);
        return;
    }
    const size_t width = _layout.columns - number.size() - frame;
    // Only the whole is shown as the whole.
    const size_t done = width * percent / 100;
    std::string parts[2];
    for (size_t index = 0; index < width; index++) {
        parts[index < done ? 0 : 1] +=
            _isUnicode() ? (index < done ? "━" : "─") : (index < done ? "=" : "-");
    }
    ControlScreenLine& line = _lines[*_layout.bar];
    line.push_back({.text = _isUnicode() ? "" : "["});
    line.push_back({.text = parts[0], .style = ControlScreenStyle::kDone});
    line.push_back({.text = parts[1], .style = ControlScreenStyle::kFaint});
    line.push_back({.text = _isUnicode() ? "" : "]"});
    line.push_back({.text = number, .style = ControlScreenStyle::kStrong});
}

void Painter::_paintFigures()
{
    const ControlProgress& progress = _state.progress;
    const std::string moved = readableSize(progress.movedBytes);
    const std::string elapsed = readableDuration(progress.elapsed);
    const std::string left =
        progress.secondsLeft ? readableDuration(*progress.secondsLeft) + " left" : "";
    const std::string whole = progressAsText(progress);
    _paintText(_layout.figures,
               _fitting(std::array<std::string, 4>{
                   whole + ", " + elapsed + " elapsed",
                   whole,
                   moved + (left.empty() ? ", " + elapsed : ", " + left),
                   left.empty() ? moved : left,
               }),
               ControlScreenStyle::kPlain);
}

void Painter::_paintStatus()
{
    const bool isShared = _layout.status == _layout.figures;
    if (!_state.status.empty()) {
        _paintText(_layout.status, escapedForTerminal(_state.status, _characters),
                   _state.isUrgent ? ControlScreenStyle::kStrong : ControlScreenStyle::kPlain);
    } else if (!isShared) {
        _paintText(_layout.status,
                   _fitting(std::array<std::string, 3>{"Ctrl-C stops safely, Ctrl-Z pauses.",
                                                       "Ctrl-C stops safely", "Ctrl-C stops"}),
                   ControlScreenStyle::kFaint);
    }
}

}  // namespace

std::vector<ControlScreenLine> pictureOfScreen(const ControlScreenState& state,
                                               const ControlScreenLayout& layout,
                                               ControlCharacters characters)
{
    return Painter(state, layout, characters).painted();
}
