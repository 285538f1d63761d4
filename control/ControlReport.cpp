#include "ControlReport.h"

#include <algorithm>
#include <ctime>
#include <string_view>
#include <utility>
#include <vector>

#include "ControlFileText.h"
#include "ControlInfoFigures.h"
#include "ControlInfoText.h"
#include "ControlMapSVG.h"
#include "ControlOutputFile.h"
#include "ControlPageTemplate.h"
#include "ControlReportPictures.h"
#include "ControlText.h"

namespace {

// With these bounds two maps whose every cell has the longest names fit the page.
constexpr size_t kNameLimit = 112;
constexpr size_t kNameLimitOfTwo = 48;
constexpr size_t kPathLimit = 400;
constexpr size_t kMostWorstFiles = 100;

std::string element(std::string_view name, std::string_view content)
{
    return '<' + std::string(name) + '>' + std::string(content) + "</" +
           std::string(name.substr(0, name.find(' '))) + '>';
}

std::string numberCell(uint64_t value, const std::string& text)
{
    return element("td data-value=\"" + std::to_string(value) + '"', text);
}

std::string tile(std::string_view name, const std::string& value, const std::string& note)
{
    return "<div class=\"tile\">" + element("div class=\"name\"", name) +
           element("div class=\"value\"", value) + element("div class=\"note\"", note) + "</div>\n";
}

std::string sizeText(const ControlFigures& figures, uint64_t blocks)
{
    return grouped(blocks) + (blocks == 1 ? " block, " : " blocks, ") +
           readableSize(figures.bytes(blocks));
}

std::string percentText(uint64_t part, uint64_t whole)
{
    return readablePercent(part, whole) + "%";
}

std::string tilesOf(const ControlFigures& now, const ControlFigures* before)
{
    const auto percentOf = [](const ControlFigures& figures) {
        return percentText(figures.fragmentation.fragmentedBlocks,
                           figures.fragmentation.consideredBlocks);
    };
    const auto largestOf = [](const ControlFigures& figures) {
        return readableSize(figures.bytes(figures.freeSpace.largestRun));
    };
    const auto note = [&](auto textOf, const std::string& alone) {
        return before == nullptr ? alone : "before: " + textOf(*before);
    };
    const auto filesOf = [](const ControlFigures& figures) {
        return grouped(figures.fragmentation.files);
    };
    const auto freeOf = [](const ControlFigures& figures) {
        return readableSize(figures.bytes(figures.freeSpace.blocks));
    };
    return tile("Blocks in pieces", percentOf(now),
                note(percentOf, grouped(now.fragmentation.fragmentedBlocks) + " of " +
                                    grouped(now.fragmentation.consideredBlocks))) +
           tile("Files in pieces", filesOf(now), note(filesOf, "of " + grouped(now.fileCount))) +
           tile("Free space", freeOf(now),
                note(freeOf, percentText(now.freeSpace.blocks, now.totalBlocks) + " of " +
                                 readableSize(now.bytes(now.totalBlocks)))) +
           tile("Largest free run", largestOf(now),
                note(largestOf, "of " + grouped(now.freeSpace.runs) + " runs"));
}

/** The figures of one state in a table. */
std::string figuresTable(const ControlFigures& figures)
{
    const ControlFragmentation& fragmentation = figures.fragmentation;
    const std::vector<std::pair<std::string_view, std::string>> lines = {
        {"In use", sizeText(figures, figures.usedBlocks())},
        {"Files", grouped(figures.fileCount) + " in " + sizeText(figures, figures.fileBlocks)},
        {"Own structures", sizeText(figures, figures.ownBlocks())},
        {"Files in pieces", grouped(fragmentation.files)},
        {"Forks in pieces", readableForks(fragmentation)},
        {"Extents of all files", grouped(fragmentation.extents)},
        {"Blocks in pieces", grouped(fragmentation.fragmentedBlocks) + " of " +
                                 grouped(fragmentation.consideredBlocks)},
        {"Free", sizeText(figures, figures.freeSpace.blocks)},
        {"Free runs", grouped(figures.freeSpace.runs)},
        {"Largest free run", sizeText(figures, figures.freeSpace.largestRun)},
    };
    std::string text = "<table class=\"facts\">\n<tbody>\n";
    for (const auto& [name, value] : lines) {
        text += "<tr>" + element("th scope=\"row\" class=\"text\"", name) + element("td", value) +
                "</tr>\n";
    }
    return text + "</tbody>\n</table>\n";
}

/** Two states in a table. */
std::string comparisonTable(const ControlFigures& before, const ControlFigures& now)
{
    std::string text =
        "<table>\n<thead><tr><th scope=\"col\" class=\"text\">Figure</th><th scope=\"col\">Before"
        "</th><th scope=\"col\">After</th><th scope=\"col\">Change</th></tr></thead>\n<tbody>\n";
    for (const ControlComparedFigure& figure : comparedFigures(before, now)) {
        const std::string_view cell = figure.trend == ControlTrend::kBetter  ? "td class=\"better\""
                                      : figure.trend == ControlTrend::kWorse ? "td class=\"worse\""
                                                                             : "td";
        text += "<tr>" + element("th scope=\"row\" class=\"text\"", figure.name) +
                element("td", figure.before) + element("td", figure.after) +
                element(cell, figure.change) + "</tr>\n";
    }
    return text + "</tbody>\n</table>\n";
}

std::string fileRow(const ControlFigures& figures, const ControlFile& file)
{
    const uint64_t blocks = file.blockCount();
    return "<tr>" +
           element("td class=\"text path\"",
                   escapedForMarkup(shortenedForMarkup(file.path, kPathLimit))) +
           numberCell(file.extents.size(), grouped(file.extents.size())) +
           numberCell(blocks, grouped(blocks)) +
           numberCell(blocks, readableSize(figures.bytes(blocks))) +
           numberCell(file.fileID, std::to_string(file.fileID)) + "</tr>\n";
}

}  // namespace

ControlReport::ControlReport(const ControlFigures& figures, const ControlReportCells* files)
    : _now{.figures = &figures, .files = files}
{
}

void ControlReport::setBaseline(const ControlFigures& figures, const ControlReportCells* files)
{
    _before = {.figures = &figures, .files = files};
}

template <typename Part>
std::string ControlReport::_sideBySide(Part part) const
{
    if (_before.figures == nullptr) {
        return "<figure>\n" + part(_now, std::string()) + "</figure>\n";
    }
    return "<figure>\n<figcaption>Before</figcaption>\n" + part(_before, ", before") +
           "</figure>\n<figure>\n<figcaption>After</figcaption>\n" + part(_now, ", after") +
           "</figure>\n";
}

std::string ControlReport::_figures() const
{
    return _before.figures == nullptr ? figuresTable(*_now.figures)
                                      : comparisonTable(*_before.figures, *_now.figures);
}

std::string ControlReport::_maps() const
{
    const size_t nameLimit = _before.files == nullptr ? kNameLimit : kNameLimitOfTwo;
    return _sideBySide([&](const Side& side, const std::string& which) {
        return reportMap(*side.figures, side.files, nameLimit, "Map of the volume" + which);
    });
}

std::string ControlReport::_histograms() const
{
    ControlHistogramScale scale;
    scale.include(*_now.figures);
    if (_before.figures != nullptr) {
        scale.include(*_before.figures);
    }
    return _sideBySide([&](const Side& side, const std::string& which) {
        return reportHistogram(*side.figures, scale, "Free space by length of runs" + which);
    });
}

std::string ControlReport::_files() const
{
    const std::vector<ControlFile>& files = _now.figures->worst;
    if (files.empty()) {
        return "<p class=\"none\">No file is listed.</p>\n";
    }
    std::string text =
        "<div class=\"scroll\">\n<table class=\"sortable\">\n<thead><tr>"
        "<th scope=\"col\" class=\"text\">Path</th><th scope=\"col\">Extents</th>"
        "<th scope=\"col\">Blocks</th><th scope=\"col\">Size</th><th scope=\"col\">File ID</th>"
        "</tr></thead>\n<tbody>\n";
    for (size_t index = 0; index < std::min(files.size(), kMostWorstFiles); index++) {
        text += fileRow(*_now.figures, files[index]);
    }
    return text + "</tbody>\n</table>\n</div>\n";
}

std::string ControlReport::page() const
{
    const ControlFigures& now = *_now.figures;
    const ControlKindCounts totals = now.map.totals();
    const std::string image = escapedForMarkup(shortenedForMarkup(now.image, kPathLimit));
    return filledReportPage(
        {{"title", "Volume report: " + image},
         {"image", image},
         {"summary", escapedForMarkup(now.format) +
                         (now.isJournaled ? ", journaled, " : ", not journaled, ") +
                         readableSize(now.bytes(now.totalBlocks)) + " in " +
                         grouped(now.totalBlocks) + " blocks of " + readableSize(now.blockSize)},
         {"date", readableDate(std::time(nullptr))},
         {"tiles", tilesOf(now, _before.figures)},
         {"legend", reportLegend(_before.figures == nullptr ? &totals : nullptr)},
         {"maps", _maps()},
         {"figures", _figures()},
         {"histograms", _histograms()},
         {"files", _files()},
         {"readiness", controlReadinessText(now)}});
}

bool ControlReport::mayWrite(const std::string& path, ControlErrorSlot error)
{
    return mayWriteOutputFile(path, "<!DOCTYPE html>", error);
}

bool ControlReport::write(const std::string& path, ControlErrorSlot error) const
{
    return writeOutputFile(path, page(), error);
}
