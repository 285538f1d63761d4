#include "ControlMapSVG.h"

#include <algorithm>
#include <array>
#include <vector>

#include "ControlMapText.h"
#include "ControlText.h"

namespace {

struct KindStyle {
    std::string_view name;
    std::string_view light;
    std::string_view dark;
};

/** In the order of ControlKind. Blue, red and grey stay apart whichever colours an eye confuses. */
constexpr std::array kKindStyles = {
    KindStyle{.name = "free", .light = "#e3e7ec", .dark = "#2b323b"},
    KindStyle{.name = "used", .light = "#2f7fb5", .dark = "#4f9fd6"},
    KindStyle{.name = "fragmented", .light = "#d1492e", .dark = "#f0714f"},
    KindStyle{.name = "fixed", .light = "#454d59", .dark = "#c9d0da"},
};

constexpr size_t kMargin = 16;
constexpr size_t kLineHeight = 22;
constexpr size_t kTextLines = 4;  // the title, and below the map two of legend and the scale

std::string_view nameOfKind(ControlKind kind)
{
    return kKindStyles.at(static_cast<size_t>(kind)).name;
}

std::string attribute(std::string_view name, size_t value)
{
    return " " + std::string(name) + "=\"" + std::to_string(value) + "\"";
}

/** @p text, in which nothing is left but what markup gives a meaning. */
std::string quotedForMarkup(std::string_view text)
{
    std::string escaped;
    for (const char character : text) {
        switch (character) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            case '\'':
                escaped += "&#39;";
                break;
            default:
                escaped += character;
        }
    }
    return escaped;
}

std::string rectangle(ControlKind kind, size_t x, size_t y, std::string_view title)
{
    // A gap of one unit parts the cells.
    return "<rect class=\"" + std::string(nameOfKind(kind)) + "\"" + attribute("x", x) +
           attribute("y", y) + attribute("width", kControlMapSVGCell - 1) +
           attribute("height", kControlMapSVGCell - 1) + "><title>" + escapedForMarkup(title) +
           "</title></rect>\n";
}

std::string textLine(size_t x, size_t y, std::string_view text)
{
    return "<text" + attribute("x", x) + attribute("y", y) + ">" + quotedForMarkup(text) +
           "</text>\n";
}

/** "12 blocks: 3 free, 9 used". */
std::string describedCounts(const ControlKindCounts& counts)
{
    std::string text = grouped(counts.total()) + (counts.total() == 1 ? " block" : " blocks");
    std::string separator = ": ";
    for (size_t index = 0; index < kControlKindCount; index++) {
        const auto kind = static_cast<ControlKind>(index);
        if (counts.of(kind) != 0) {
            text += separator + grouped(counts.of(kind)) + " " + std::string(nameOfKind(kind));
            separator = ", ";
        }
    }
    return text;
}

/** "Blocks 24 to 35. 12 blocks: 3 free, 9 used" for the cell of that index. */
std::string titleOfCell(const ControlBlockRange& range, const ControlKindCounts& counts)
{
    if (range.end <= range.start) {
        return "No blocks";
    }
    return "Blocks " + grouped(range.start) + " to " + grouped(range.end - 1) + ". " +
           describedCounts(counts);
}

/** The kinds with their shares, two in a line. */
std::string legendAt(const ControlKindCounts& totals, uint32_t blockSize, size_t y, size_t width)
{
    std::string legend;
    for (size_t index = 0; index < kControlKindCount; index++) {
        const auto kind = static_cast<ControlKind>(index);
        const size_t x = kMargin + (index % 2) * (width / 2);
        const size_t baseline = y + (index / 2) * kLineHeight;
        legend += rectangle(kind, x, baseline - kControlMapSVGCell + 1, nameOfKind(kind));
        legend += textLine(x + 2 * kControlMapSVGCell, baseline,
                           std::string(nameOfKind(kind)) + " " +
                               readablePercent(totals.of(kind), totals.total()) + "%, " +
                               readableSize(totals.of(kind) * blockSize));
    }
    return legend;
}

std::string openedDocument(size_t width, size_t height)
{
    const std::string size = std::to_string(width) + " " + std::to_string(height);
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " +
           size + "\"" + attribute("width", width) + attribute("height", height) +
           " role=\"img\" aria-labelledby=\"title description\">\n";
}

/** What the picture shows, for those who cannot see it. */
std::string description(const ControlKindCounts& totals)
{
    return "The volume's allocation blocks from the first, at the top left, to the last, row by "
           "row. " +
           describedCounts(totals) + ".";
}

}  // namespace

std::string escapedForMarkup(std::string_view text)
{
    return quotedForMarkup(escapedForTerminal(text, ControlCharacters::kUnicode));
}

std::string mapSVGStyle()
{
    const auto rules = [](std::string_view KindStyle::*color) {
        std::string text;
        for (const KindStyle& style : kKindStyles) {
            text +=
                "." + std::string(style.name) + " { fill: " + std::string(style.*color) + "; }\n";
        }
        return text;
    };
    return rules(&KindStyle::light) + "@media (prefers-color-scheme: dark) {\n" +
           rules(&KindStyle::dark) + "}\n";
}

std::string mapSVGCells(const ControlMap& map, ControlMapSVGSize size,
                        const std::function<std::string(size_t)>& titleOf)
{
    const std::vector<ControlKindCounts> cells = map.cells(size.cells());
    std::string text;
    for (size_t index = 0; index < cells.size(); index++) {
        text += rectangle(cells[index].shownKind(), index % size.columns * kControlMapSVGCell,
                          index / size.columns * kControlMapSVGCell, titleOf(index));
    }
    return text;
}

std::string mapAsSVG(const ControlMap& map, uint32_t blockSize, std::string_view name,
                     ControlMapSVGSize size)
{
    const size_t mapWidth = size.columns * kControlMapSVGCell;
    const size_t mapHeight = size.rows * kControlMapSVGCell;
    const size_t width = mapWidth + 2 * kMargin;
    const size_t mapTop = kMargin + kLineHeight;
    const size_t legendTop = mapTop + mapHeight + kLineHeight;
    const ControlKindCounts totals = map.totals();
    const std::vector<ControlKindCounts> cells = map.cells(size.cells());
    std::string text = openedDocument(width, mapHeight + kTextLines * kLineHeight + 2 * kMargin);
    text += "<title id=\"title\">Map of " + escapedForMarkup(name) + "</title>\n";
    text += "<desc id=\"description\">" + escapedForMarkup(description(totals)) + "</desc>\n";
    text +=
        "<style>\n.page { fill: #ffffff; }\ntext { font: 14px sans-serif; fill: #1d232a; }\n"
        "@media (prefers-color-scheme: dark) {\n.page { fill: #14181d; }\n"
        "text { fill: #e6e9ed; }\n}\n" +
        mapSVGStyle() + "</style>\n<rect class=\"page\" width=\"100%\" height=\"100%\"/>\n";
    text += textLine(kMargin, kMargin + kControlMapSVGCell,
                     fitted(escapedForTerminal(name, ControlCharacters::kUnicode), mapWidth / 10,
                            ControlCharacters::kUnicode));
    text += "<g transform=\"translate(" + std::to_string(kMargin) + " " + std::to_string(mapTop) +
            ")\">\n" +
            mapSVGCells(map, size,
                        [&](size_t index) {
                            return titleOfCell(map.blocksOfCell(index, size.cells()), cells[index]);
                        }) +
            "</g>\n";
    text += legendAt(totals, blockSize, legendTop, mapWidth);
    text += textLine(kMargin, legendTop + 2 * kLineHeight,
                     scaleOfMap(map, blockSize, size.cells(), mapWidth / 8));
    return text + "</svg>\n";
}
