#include "ControlReportCells.h"

#include <algorithm>

#include "ControlText.h"

namespace {

constexpr size_t kFilesInCell = 3;
/** Bytes that a path that is kept takes on the page. */
constexpr size_t kPathLimit = 112;

}  // namespace

std::string shortenedForMarkup(const std::string& path, size_t limit)
{
    // No byte becomes less than one, so what is behind the first and the last of these goes.
    const std::string ends =
        path.size() <= 2 * limit ? path : path.substr(0, limit) + path.substr(path.size() - limit);
    std::string shortened = ends;
    // Characters take one byte to six of a page, and marks none of a line's cells.
    for (size_t cells = limit; escapedForMarkup(shortened).size() > limit; cells -= cells / 4) {
        if (cells < 4) {
            return "…";
        }
        shortened = fitted(ends, cells, ControlCharacters::kUnicode);
    }
    return shortened;
}

ControlReportCells::ControlReportCells(uint32_t totalBlocks)
    : _map(totalBlocks), _cells(kControlReportMap.cells()), _blocks(kControlReportMap.cells())
{
}

const ControlReportCells::Cell& ControlReportCells::cell(size_t index) const
{
    // On a small volume more cells than one show the same blocks; the first of them knows whose.
    const ControlBlockRange range = _map.blocksOfCell(index, _cells.size());
    return _cells.at(_map.cellOfBlock(
        static_cast<uint32_t>(std::min<uint64_t>(range.start, UINT32_MAX)), _cells.size()));
}

void ControlReportCells::addFile(const ControlFile& file)
{
    for (const ControlExtent& extent : file.extents) {
        const uint64_t end =
            std::min<uint64_t>(uint64_t{extent.start} + extent.count, _map.totalBlocks());
        for (uint64_t block = extent.start; block < end;) {
            const size_t index = _map.cellOfBlock(static_cast<uint32_t>(block), _cells.size());
            const uint64_t cellEnd = std::min(_map.blocksOfCell(index, _cells.size()).end, end);
            if (_blocks[index] == 0) {
                _touched.push_back(index);
            }
            _blocks[index] += cellEnd - block;
            block = cellEnd;
        }
    }
    std::string path;
    for (const size_t index : _touched) {
        _offer(index, file, _blocks[index], path);
        _blocks[index] = 0;
    }
    _touched.clear();
}

void ControlReportCells::_offer(size_t index, const ControlFile& file, uint64_t blocks,
                                std::string& path)
{
    Cell& cell = _cells[index];
    cell.fileCount++;
    if (cell.files.size() == kFilesInCell && cell.files.back().blocks >= blocks) {
        return;
    }
    if (path.empty()) {
        path = shortenedForMarkup(file.path, kPathLimit);
    }
    if (cell.files.size() == kFilesInCell) {
        cell.files.pop_back();
    }
    const auto place =
        std::ranges::find_if(cell.files, [&](const File& other) { return other.blocks < blocks; });
    cell.files.insert(place, File{.blocks = blocks, .path = path});
}
