#include "ControlInfoJSON.h"

#include <nlohmann/json.hpp>

#include "ControlFileText.h"

namespace {

using Document = nlohmann::ordered_json;

Document volumeOf(const ControlFigures& figures)
{
    Document volume = {{"format", figures.format},
                       {"journaled", figures.isJournaled},
                       {"blockSize", figures.blockSize},
                       {"totalBlocks", figures.totalBlocks},
                       {"totalBytes", figures.bytes(figures.totalBlocks)},
                       {"usedBlocks", figures.usedBlocks()},
                       {"firstFreeBlock", figures.firstFreeBlock},
                       {"lastUsedBlock", figures.lastUsedBlock}};
    if (figures.firstFreeBlock == UINT32_MAX) {
        volume["firstFreeBlock"] = nullptr;
    }
    return volume;
}

Document fragmentationOf(const ControlFragmentation& fragmentation)
{
    return {{"files", fragmentation.files},
            {"leastForks", fragmentation.leastForks},
            {"mostForks", fragmentation.mostForks},
            {"extents", fragmentation.extents},
            {"fragmentedBlocks", fragmentation.fragmentedBlocks},
            {"consideredBlocks", fragmentation.consideredBlocks},
            {"percent", fragmentation.percent}};
}

Document freeSpaceOf(const ControlFreeSpace& freeSpace)
{
    Document classes = Document::array();
    for (size_t index = 0; index < freeSpace.classes.size(); index++) {
        const uint64_t least = uint64_t{1} << index;
        classes.push_back({{"leastBlocks", least},
                           {"mostBlocks", 2 * least - 1},
                           {"runs", freeSpace.classes.at(index).runs},
                           {"blocks", freeSpace.classes.at(index).blocks}});
    }
    return {{"blocks", freeSpace.blocks},
            {"runs", freeSpace.runs},
            {"largestRun", freeSpace.largestRun},
            {"classes", std::move(classes)}};
}

Document fileOf(const ControlFile& file)
{
    return {{"id", file.fileID},
            {"folderID", file.folderID},
            {"path", file.path},
            {"blocks", file.blockCount()},
            {"extents", file.extents.size()},
            {"fragmented", file.isFragmented},
            {"created", file.created},
            {"changed", file.changed},
            {"read", file.read},
            {"type", readableCode(file.type)},
            {"creator", readableCode(file.creator)}};
}

Document mapOf(const ControlMap& map)
{
    const ControlMap coarse = map.coarsened(kControlInfoCells);
    Document cells = Document::array();
    for (const ControlKindCounts& slice : coarse.slices()) {
        cells.push_back(
            Document::array({slice.of(ControlKind::kFree), slice.of(ControlKind::kUsed),
                             slice.of(ControlKind::kFragmented), slice.of(ControlKind::kFixed)}));
    }
    return {{"blocksPerCell", coarse.blocksPerSlice()},
            {"kinds", {"free", "used", "fragmented", "fixed"}},
            {"cells", std::move(cells)}};
}

}  // namespace

std::string controlInfoJSON(const ControlFigures& figures)
{
    Document worst = Document::array();
    for (const ControlFile& file : figures.worst) {
        worst.push_back(fileOf(file));
    }
    const Document document = {
        {"version", kControlInfoVersion},
        {"image", figures.image},
        {"volume", volumeOf(figures)},
        {"files", {{"count", figures.fileCount}, {"blocks", figures.fileBlocks}}},
        {"fragmentation", fragmentationOf(figures.fragmentation)},
        {"freeSpace", freeSpaceOf(figures.freeSpace)},
        {"readiness",
         {{"neededBlocks", figures.readiness.neededBlocks},
          {"enough", figures.readiness.isEnough}}},
        {"worstFiles", std::move(worst)},
        {"map", mapOf(figures.map)}};
    return document.dump(-1, ' ', true, Document::error_handler_t::replace) + '\n';
}
