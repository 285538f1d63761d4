#include "ControlMapText.h"

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "ControlMark.h"

namespace {

/** A line of cells, with a colour sequence only where the mark changes. */
class LineWriter {
public:
    explicit LineWriter(const ControlMapTextOptions& options) : _options(options) {}

    void addMark(ControlMark mark)
    {
        if (_options.isColored && (!_isStyled || mark != _mark)) {
            _addStyle(mark);
        }
        _line += glyphOfMark(mark, _options.characters);
    }

    void addText(std::string_view text)
    {
        _endStyle();
        _line += text;
    }

    /** The line with its end. */
    [[nodiscard]] std::string finished()
    {
        _endStyle();
        return _line + "\n";
    }

private:
    void _addStyle(ControlMark mark)
    {
        const int weight = weightOfMark(mark);
        std::string codes = weight > 0 ? "0;1" : weight < 0 ? "0;2" : "0";
        if (colorOfMark(mark) >= 0) {
            codes += ";3" + std::to_string(colorOfMark(mark));
        }
        _line += "\x1b[" + codes + "m";
        _mark = mark;
        _isStyled = true;
    }

    void _endStyle()
    {
        if (_isStyled) {
            _line += "\x1b[0m";
            _isStyled = false;
        }
    }

    const ControlMapTextOptions& _options;
    std::string _line;
    ControlMark _mark = ControlMark::kFree;
    bool _isStyled = false;
};

std::string legendLine(const ControlMap& map, const ControlMapTextOptions& options)
{
    const ControlLegend legend =
        legendFor(map.totals(), options.columns, ControlLegendMarks::kKinds);
    LineWriter line(options);
    for (size_t index = 0; index < legend.entries.size(); index++) {
        if (index > 0) {
            line.addText(legend.gap);
        }
        line.addMark(legend.entries[index].mark);
        line.addText(legend.entries[index].text);
    }
    return line.finished();
}

}  // namespace

std::string mapAsText(const ControlMap& map, uint32_t blockSize,
                      const ControlMapTextOptions& options)
{
    const size_t cells = options.columns * options.rows;
    const std::vector<ControlKindCounts> counts = map.cells(cells);
    std::string text;
    for (size_t row = 0; row < options.rows; row++) {
        LineWriter line(options);
        for (size_t column = 0; column < options.columns; column++) {
            line.addMark(markOfCounts(counts[row * options.columns + column]));
        }
        text += line.finished();
    }
    text += legendLine(map, options);
    text += scaleOfMap(map, blockSize, cells, options.columns) + "\n";
    return text;
}

std::string scaleOfMap(const ControlMap& map, uint32_t blockSize, size_t cells, size_t columns)
{
    const uint64_t total = map.totalBlocks();
    std::array<std::string, 3> forms;
    if (total == 0 || cells == 0) {
        forms = {"The volume has no blocks.", "No blocks.", ""};
    } else if (total >= cells) {
        // Cells differ by a block at most; the rounded number is meant.
        const bool isExact = total % cells == 0;
        const uint64_t blocks = (total + cells / 2) / cells;
        const std::string size = readableSize(total * blockSize / cells);
        const std::string unit = blocks == 1 ? " block, " : " blocks, ";
        forms = {std::string("One cell is ") + (isExact ? "" : "about ") + grouped(blocks) + unit +
                     size + ".",
                 "1 cell = " + size, size};
    } else {
        const std::string size = readableSize(blockSize);
        const std::string many = grouped((cells + total / 2) / total);
        forms = {"One block, " + size + ", is about " + many + (many == "1" ? " cell." : " cells."),
                 "1 block = " + many + (many == "1" ? " cell" : " cells"), size};
    }
    for (const std::string& form : forms) {
        if (form.size() <= columns) {
            return form;
        }
    }
    return "";
}

bool wantsColor(bool isTerminal, const char* term, const char* noColor)
{
    const bool isRefused = noColor != nullptr && *noColor != '\0';
    const bool isCapable = term != nullptr && *term != '\0' && std::string_view(term) != "dumb";
    return isTerminal && isCapable && !isRefused;
}

bool standardOutputWantsColor()
{
    return wantsColor(::isatty(STDOUT_FILENO) == 1, std::getenv("TERM"), std::getenv("NO_COLOR"));
}
