#include "ControlInfoText.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <utility>
#include <vector>

#include "ControlInfoFigures.h"
#include "ControlTextTable.h"

namespace {

using Side = ControlTextTable::Side;

constexpr size_t kLongestBar = 30;
constexpr size_t kLeastBar = 4;  // below, there is none
/** Where numbers and sizes are never cut. */
constexpr size_t kAnyWidth = SIZE_MAX;

std::string blocksText(const ControlFigures& figures, uint64_t blocks)
{
    return grouped(blocks) + (blocks == 1 ? " block, " : " blocks, ") +
           readableSize(figures.bytes(blocks));
}

std::string partText(uint64_t part, uint64_t whole)
{
    return grouped(part) + " of " + grouped(whole) + " (" + readablePercent(part, whole) + "%)";
}

std::string shareText(uint64_t part, uint64_t whole)
{
    return " (" + readablePercent(part, whole) + "%)";
}

/** Lines of a name and what there is to say of it, below a heading. */
std::string section(std::string_view heading,
                    const std::vector<std::pair<std::string, std::string>>& lines)
{
    ControlTextTable table({Side::kLeft, Side::kLeft});
    for (const auto& [name, value] : lines) {
        // One width for all sections, so that their values are below each other.
        std::string label = name;
        label.resize(std::max<size_t>(label.size(), 18), ' ');
        table.addRow({label, value});
    }
    return std::string(heading) + '\n' + table.text(kAnyWidth, ControlCharacters::kASCII) + '\n';
}

std::string volumeSection(const ControlFigures& figures)
{
    const std::string fixed = blocksText(figures, figures.ownBlocks());
    return section(
        "Volume",
        {{"Format", figures.format + (figures.isJournaled ? ", journaled" : ", not journaled")},
         {"Size", readableSize(figures.bytes(figures.totalBlocks)) + " in " +
                      grouped(figures.totalBlocks) + " blocks of " +
                      readableSize(figures.blockSize)},
         {"In use", blocksText(figures, figures.usedBlocks()) +
                        shareText(figures.usedBlocks(), figures.totalBlocks)},
         {"Files", grouped(figures.fileCount) + " in " + blocksText(figures, figures.fileBlocks)},
         {"Own structures", fixed}});
}

std::string fragmentationSection(const ControlFigures& figures)
{
    const ControlFragmentation& fragmentation = figures.fragmentation;
    return section("Fragmentation",
                   {{"Files in pieces", partText(fragmentation.files, figures.fileCount)},
                    {"Forks in pieces", readableForks(fragmentation)},
                    {"Extents", grouped(fragmentation.extents)},
                    {"Blocks in pieces",
                     partText(fragmentation.fragmentedBlocks, fragmentation.consideredBlocks)}});
}

std::string bar(uint64_t part, uint64_t most, size_t width, ControlCharacters characters)
{
    if (part == 0 || width == 0) {
        return {};
    }
    // The longest bar fills the width, and what there is shows.
    const auto share = static_cast<double>(part) / static_cast<double>(most);
    const size_t length =
        std::max<size_t>(1, static_cast<size_t>(std::lround(share * static_cast<double>(width))));
    std::string text;
    for (size_t index = 0; index < length; index++) {
        text += characters == ControlCharacters::kUnicode ? "█" : "#";
    }
    return text;
}

std::string histogram(const ControlFigures& figures, ControlCharacters characters, size_t columns)
{
    const ControlFreeSpace& freeSpace = figures.freeSpace;
    const auto last = std::find_if(freeSpace.classes.rbegin(), freeSpace.classes.rend(),
                                   [](const ControlRunClass& runs) { return runs.runs > 0; });
    const auto count = static_cast<size_t>(freeSpace.classes.rend() - last);
    uint64_t most = 0;
    for (const ControlRunClass& runs : freeSpace.classes) {
        most = std::max(most, runs.blocks);
    }
    const std::vector<Side> sides{Side::kRight, Side::kRight, Side::kRight, Side::kLeft};
    ControlTextTable numbers(sides);
    ControlTextTable bars(sides);
    const auto addRows = [&](ControlTextTable& table, size_t width) {
        table.addRow({"Run of blocks", "Runs", "Blocks"});
        for (size_t index = 0; index < count; index++) {
            const ControlRunClass& runs = freeSpace.classes.at(index);
            table.addRow({readableRunClass(index), grouped(runs.runs), grouped(runs.blocks),
                          bar(runs.blocks, most, width, characters)});
        }
    };
    addRows(numbers, 0);
    // The bars get what the numbers leave of the line.
    const size_t taken = numbers.widthBeforeLast() + 2;
    const size_t width = std::min(columns > taken ? columns - taken : 0, kLongestBar);
    addRows(bars, width >= kLeastBar ? width : 0);
    return bars.text(kAnyWidth, characters);
}

std::string freeSpaceSection(const ControlFigures& figures, ControlCharacters characters,
                             size_t columns)
{
    const ControlFreeSpace& freeSpace = figures.freeSpace;
    std::string text =
        section("Free space", {{"Free", blocksText(figures, freeSpace.blocks) +
                                            shareText(freeSpace.blocks, figures.totalBlocks)},
                               {"Free runs", grouped(freeSpace.runs)},
                               {"Largest run", blocksText(figures, freeSpace.largestRun)}});
    if (freeSpace.runs > 0) {
        text += histogram(figures, characters, columns) + '\n';
    }
    return text;
}

std::string filesSection(const ControlFigures& figures, ControlCharacters characters,
                         size_t columns)
{
    if (figures.worst.empty()) {
        return {};
    }
    ControlTextTable table({Side::kRight, Side::kRight, Side::kRight, Side::kLeft});
    table.addRow({"Extents", "Blocks", "Size", "Path"});
    for (const ControlFile& file : figures.worst) {
        table.addRow({grouped(file.extents.size()), grouped(file.blockCount()),
                      readableSize(figures.bytes(file.blockCount())),
                      escapedForTerminal(file.path, characters)});
    }
    return "Worst files\n" + table.text(columns, characters) + '\n';
}

/** @p text in lines of at most @p columns, each behind two spaces. */
std::string wrapped(const std::string& text, size_t columns)
{
    const size_t room = std::max<size_t>(columns, 22) - 2;
    std::string lines;
    std::string line;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find(' ', start), text.size());
        const std::string word = text.substr(start, end - start);
        if (!line.empty() && line.size() + 1 + word.size() > room) {
            lines += "  " + line + '\n';
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
        start = end + 1;
    }
    return lines + "  " + line + '\n';
}

}  // namespace

std::string controlReadinessText(const ControlFigures& figures)
{
    const std::string needed = readableSize(figures.bytes(figures.readiness.neededBlocks));
    const std::string free = readableSize(figures.bytes(figures.freeSpace.blocks));
    if (figures.readiness.isEnough) {
        return "Defragmenting and compacting can work here: they need about " + needed +
               " of free space, and " + free + " are free.";
    }
    return "Defragmenting and compacting may fail here: they need about " + needed +
           " of free space, twice the buffer that they copy with, and only " + free +
           " are free. A run that ends for lack of free space can leave files in more pieces than "
           "before.";
}

std::string controlInfoText(const ControlFigures& figures, ControlCharacters characters,
                            size_t columns)
{
    std::string text = fitted(escapedForTerminal(figures.image, characters),
                              std::max<size_t>(columns, 12), characters) +
                       "\n\n";
    text += volumeSection(figures);
    text += fragmentationSection(figures);
    text += freeSpaceSection(figures, characters, columns);
    text += filesSection(figures, characters, columns);
    text += "Readiness\n" + wrapped(controlReadinessText(figures), columns);
    return text;
}

std::string controlComparisonText(const ControlFigures& before, const ControlFigures& after)
{
    ControlTextTable table({Side::kLeft, Side::kRight, Side::kRight, Side::kRight});
    table.addRow({"", "Before", "After", "Change"});
    for (const ControlComparedFigure& figure : comparedFigures(before, after)) {
        table.addRow({figure.name, figure.before, figure.after, figure.change});
    }
    return table.text(kAnyWidth, ControlCharacters::kASCII);
}
