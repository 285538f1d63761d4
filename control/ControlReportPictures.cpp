#include "ControlReportPictures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>
#include <vector>

#include "ControlInfoFigures.h"
#include "ControlMapSVG.h"
#include "ControlText.h"

namespace {

struct KindName {
    std::string_view cssClass;
    std::string_view text;
    std::string_view meaning;
};

/** In the order of ControlKind. */
constexpr std::array kKindNames = {
    KindName{.cssClass = "free", .text = "free", .meaning = "Free"},
    KindName{.cssClass = "used", .text = "in whole files", .meaning = "Files in one piece"},
    KindName{.cssClass = "fragmented", .text = "in files in pieces", .meaning = "Files in pieces"},
    KindName{.cssClass = "fixed", .text = "own structures", .meaning = "Own structures"},
};

// The histogram's measures, in its own units.
constexpr size_t kWidth = 560;
constexpr size_t kRowHeight = 24;
constexpr size_t kBarLeft = 84;
constexpr size_t kBarWidth = 270;
constexpr size_t kNumbersLeft = kBarLeft + kBarWidth + 12;

const KindName& nameOf(size_t kind)
{
    return kKindNames.at(kind);
}

std::string attribute(std::string_view name, uint64_t value)
{
    return ' ' + std::string(name) + "=\"" + std::to_string(value) + '"';
}

/** "Blocks 24 to 35: 3 free, 9 in whole files". */
std::string blocksOfCell(const ControlBlockRange& range, const ControlKindCounts& counts)
{
    if (range.start >= range.end) {
        return "No blocks";
    }
    std::string text = "Blocks " + grouped(range.start) + " to " + grouped(range.end - 1);
    const char* separator = ": ";
    for (size_t kind = 0; kind < kControlKindCount; kind++) {
        const uint64_t blocks = counts.of(static_cast<ControlKind>(kind));
        if (blocks > 0) {
            text += separator + grouped(blocks) + ' ' + std::string(nameOf(kind).text);
            separator = ", ";
        }
    }
    return text;
}

/** A line for each file that is known in the cell, in markup. */
std::string filesOfCell(const ControlReportCells::Cell& cell, size_t nameLimit)
{
    std::string text;
    for (const ControlReportCells::File& file : cell.files) {
        text += '\n' + grouped(file.blocks) + (file.blocks == 1 ? " block of " : " blocks of ") +
                escapedForMarkup(shortenedForMarkup(file.path, nameLimit));
    }
    const uint64_t others = cell.fileCount - cell.files.size();
    if (others > 0) {
        text += "\nand " + grouped(others) + (others == 1 ? " more file" : " more files");
    }
    return text;
}

std::string shortSize(uint64_t bytes)
{
    std::string text = readableSize(bytes);
    // A power of two has nothing behind the point, and is told from its neighbours without.
    for (const std::string_view zeros : {".00 ", ".0 "}) {
        if (const size_t place = text.find(zeros); place != std::string::npos) {
            text.replace(place, zeros.size(), " ");
        }
    }
    return text;
}

std::string histogramRow(const ControlFigures& figures, size_t index, size_t row,
                         uint64_t mostBlocks)
{
    const ControlRunClass& runs = figures.freeSpace.classes.at(index);
    const double share =
        mostBlocks == 0 ? 0 : static_cast<double>(runs.blocks) / static_cast<double>(mostBlocks);
    const auto length = static_cast<uint64_t>(std::lround(share * kBarWidth));
    const uint64_t shown = runs.blocks == 0 ? 0 : std::max<uint64_t>(length, 2);
    const size_t top = row * kRowHeight;
    const size_t baseline = top + 16;
    std::string text = "<g><title>Runs of " + readableRunClass(index) +
                       " blocks: " + grouped(runs.runs) + ", with " + grouped(runs.blocks) +
                       " blocks</title>";
    text += "<text class=\"size\"" + attribute("x", kBarLeft - 10) + attribute("y", baseline) +
            '>' + shortSize(figures.bytes(uint64_t{1} << index)) + "</text>";
    text += "<rect class=\"track\"" + attribute("x", kBarLeft) + attribute("y", top + 4) +
            attribute("width", kBarWidth) + attribute("height", kRowHeight - 8) + " rx=\"3\"/>";
    if (shown > 0) {
        text += "<rect class=\"bar\"" + attribute("x", kBarLeft) + attribute("y", top + 4) +
                attribute("width", shown) + attribute("height", kRowHeight - 8) + " rx=\"3\"/>";
    }
    text += "<text" + attribute("x", kNumbersLeft) + attribute("y", baseline) + '>';
    if (runs.runs > 0) {
        text += readableSize(figures.bytes(runs.blocks)) + " in " + grouped(runs.runs) +
                (runs.runs == 1 ? " run" : " runs");
    }
    return text + "</text></g>\n";
}

}  // namespace

std::string reportMap(const ControlFigures& figures, const ControlReportCells* files,
                      size_t nameLimit, const std::string& label)
{
    const size_t count = kControlReportMap.cells();
    const std::vector<ControlKindCounts> cells = figures.map.cells(count);
    std::string text = "<svg class=\"map\" viewBox=\"0 0 " +
                       std::to_string(kControlReportMap.columns * kControlMapSVGCell) + ' ' +
                       std::to_string(kControlReportMap.rows * kControlMapSVGCell) + '"' +
                       attribute("data-columns", kControlReportMap.columns) +
                       " role=\"group\" aria-label=\"" + escapedForMarkup(label) + "\">\n";
    for (size_t index = 0; index < count; index++) {
        const auto kind = static_cast<size_t>(cells[index].shownKind());
        text += "<rect class=\"" + std::string(nameOf(kind).cssClass) + '"' +
                attribute("x", index % kControlReportMap.columns * kControlMapSVGCell) +
                attribute("y", index / kControlReportMap.columns * kControlMapSVGCell) +
                attribute("width", kControlMapSVGCell - 1) +
                attribute("height", kControlMapSVGCell - 1) + " role=\"img\"><title>" +
                blocksOfCell(figures.map.blocksOfCell(index, count), cells[index]);
        if (files != nullptr) {
            text += filesOfCell(files->cell(index), nameLimit);
        }
        text += "</title></rect>\n";
    }
    return text + "</svg>\n";
}

std::string reportLegend(const ControlKindCounts* totals)
{
    std::string text = "<ul class=\"legend\">\n";
    for (size_t kind = 0; kind < kControlKindCount; kind++) {
        text += "<li><svg viewBox=\"0 0 16 16\" aria-hidden=\"true\"><rect class=\"" +
                std::string(nameOf(kind).cssClass) +
                "\" width=\"16\" height=\"16\" rx=\"3\"/></svg>" +
                std::string(nameOf(kind).meaning);
        if (totals != nullptr) {
            text += ", " +
                    readablePercent(totals->of(static_cast<ControlKind>(kind)), totals->total()) +
                    '%';
        }
        text += "</li>\n";
    }
    return text + "</ul>\n";
}

void ControlHistogramScale::include(const ControlFigures& figures)
{
    for (size_t index = 0; index < figures.freeSpace.classes.size(); index++) {
        const ControlRunClass& runs = figures.freeSpace.classes.at(index);
        mostBlocks = std::max(mostBlocks, runs.blocks);
        if (runs.runs > 0) {
            classCount = std::max(classCount, index + 1);
        }
    }
}

std::string reportHistogram(const ControlFigures& figures, const ControlHistogramScale& scale,
                            const std::string& label)
{
    const size_t height = (scale.classCount + 1) * kRowHeight;
    std::string text = "<svg class=\"histogram\" viewBox=\"0 0 " + std::to_string(kWidth) + ' ' +
                       std::to_string(height) + "\" role=\"group\" aria-label=\"" +
                       escapedForMarkup(label) + "\">\n";
    text += "<text class=\"size\"" + attribute("x", kBarLeft - 10) +
            " y=\"16\">Runs from</text><text" + attribute("x", kNumbersLeft) +
            " y=\"16\">Free space</text>\n";
    for (size_t index = 0; index < scale.classCount; index++) {
        text += histogramRow(figures, index, index + 1, scale.mostBlocks);
    }
    return text + "</svg>\n";
}
