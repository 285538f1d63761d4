#include "ControlBaseline.h"

#include <bit>
#include <exception>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <tuple>
#include <utility>
#include <vector>

#include "ControlInfoJSON.h"

namespace {

using Document = nlohmann::json;

constexpr uint64_t kMost32 = UINT32_MAX;
/** Above all counts of files, forks and extents that a volume can have. */
constexpr uint64_t kMostItems = uint64_t{1} << 40U;
constexpr size_t kLongestText = 4096;
/** The documents that we write have three levels. */
constexpr int kDeepest = 8;

/** Stands for all that is not there. */
const Document& nothing()
{
    static const Document array = Document::array();
    return array;
}

/** Reads members of one object and remembers the first that is not as it must be. */
class Members {
public:
    /** The members of @p object, of which messages speak as @p name. */
    Members(const Document& object, std::string name, std::string& fault)
        : _object(object), _name(std::move(name)), _fault(fault)
    {
    }

    /** The members of the object that is the member @p name. */
    Members object(const char* name)
    {
        const Document& value = _member(name);
        if (!value.is_object()) {
            _refuse(name, "is no object");
        }
        return {value, _named(name), _fault};
    }

    uint64_t number(const char* name, uint64_t most)
    {
        const Document& value = _member(name);
        if (!value.is_number_unsigned() || value.get<uint64_t>() > most) {
            _refuse(name, "is no whole number from 0 to " + std::to_string(most));
            return 0;
        }
        return value.get<uint64_t>();
    }
    uint32_t number32(const char* name) { return static_cast<uint32_t>(number(name, kMost32)); }

    bool truth(const char* name)
    {
        const Document& value = _member(name);
        if (!value.is_boolean()) {
            _refuse(name, "is neither true nor false");
            return false;
        }
        return value.get<bool>();
    }

    /** The items of an array of @p least to @p most. */
    const Document& items(const char* name, size_t least, size_t most)
    {
        const Document& value = _member(name);
        if (!value.is_array() || value.size() < least || value.size() > most) {
            _refuse(name, "is no list of the right length");
            return nothing();
        }
        return value;
    }

    std::string text(const char* name)
    {
        const Document& value = _member(name);
        if (!value.is_string() || value.get_ref<const std::string&>().size() > kLongestText) {
            _refuse(name, "is no text of the right length");
            return {};
        }
        return value.get<std::string>();
    }

    /** The members of @p value, an item of the list @p name. */
    Members item(const Document& value, const char* name) { return {value, _named(name), _fault}; }

    /** Whether the member @p name is there as null. */
    [[nodiscard]] bool isNull(const char* name) const
    {
        return _object.is_object() && _object.contains(name) && _object[name].is_null();
    }

    /** Says @p what of the member @p name unless @p isRight. */
    void expect(bool isRight, const char* name, const char* what)
    {
        if (!isRight) {
            _refuse(name, what);
        }
    }

private:
    const Document& _member(const char* name)
    {
        if (_object.is_object() && _object.contains(name)) {
            return _object[name];
        }
        _refuse(name, "is missing");
        return nothing();
    }

    [[nodiscard]] std::string _named(const char* name) const
    {
        return _name.empty() ? name : _name + '.' + name;
    }

    void _refuse(const char* name, const std::string& what)
    {
        if (_fault.empty()) {
            _fault = '"' + _named(name) + "\" " + what;
        }
    }

    const Document& _object;
    std::string _name;
    std::string& _fault;
};

void readVolume(Members& document, ControlFigures& figures)
{
    Members volume = document.object("volume");
    figures.format = volume.text("format");
    volume.expect(figures.format == "HFS Plus" || figures.format == "HFSX", "format",
                  "is no known format");
    figures.isJournaled = volume.truth("journaled");
    figures.blockSize = volume.number32("blockSize");
    volume.expect(std::has_single_bit(figures.blockSize) && figures.blockSize >= 512, "blockSize",
                  "is no power of two from 512 on");
    figures.totalBlocks = volume.number32("totalBlocks");
    figures.firstFreeBlock =
        volume.isNull("firstFreeBlock") ? UINT32_MAX : volume.number32("firstFreeBlock");
    figures.lastUsedBlock = volume.number32("lastUsedBlock");
}

void readFiles(Members& document, ControlFigures& figures)
{
    Members files = document.object("files");
    figures.fileCount = files.number("count", kMostItems);
    figures.fileBlocks = files.number("blocks", kMostItems);

    ControlFragmentation& fragmentation = figures.fragmentation;
    Members members = document.object("fragmentation");
    fragmentation.files = members.number("files", figures.fileCount);
    fragmentation.mostForks = members.number("mostForks", kMostItems);
    fragmentation.leastForks = members.number("leastForks", fragmentation.mostForks);
    fragmentation.extents = members.number("extents", kMostItems);
    fragmentation.consideredBlocks = members.number32("consideredBlocks");
    fragmentation.fragmentedBlocks = members.number32("fragmentedBlocks");
    fragmentation.percent = static_cast<uint32_t>(members.number("percent", 100));
}

void readFreeSpace(Members& document, ControlFigures& figures)
{
    ControlFreeSpace& freeSpace = figures.freeSpace;
    Members members = document.object("freeSpace");
    freeSpace.blocks = members.number("blocks", figures.totalBlocks);
    freeSpace.runs = members.number("runs", freeSpace.blocks);
    freeSpace.largestRun = static_cast<uint32_t>(members.number("largestRun", freeSpace.blocks));
    const Document& classes =
        members.items("classes", freeSpace.classes.size(), freeSpace.classes.size());
    uint64_t runs = 0;
    uint64_t blocks = 0;
    for (size_t index = 0; index < classes.size(); index++) {
        Members runClass = members.item(classes[index], "classes");
        ControlRunClass& into = freeSpace.classes.at(index);
        into.runs = runClass.number("runs", freeSpace.runs);
        into.blocks = runClass.number("blocks", freeSpace.blocks);
        runClass.expect(into.blocks >= into.runs << index &&
                            into.blocks <= into.runs * ((uint64_t{2} << index) - 1),
                        "blocks", "is not in keeping with the number of runs");
        runs += into.runs;
        blocks += into.blocks;
    }
    members.expect(runs == freeSpace.runs && blocks == freeSpace.blocks, "classes",
                   "do not add up to all free runs");

    Members readiness = document.object("readiness");
    figures.readiness.neededBlocks = readiness.number("neededBlocks", kMostItems);
    figures.readiness.isEnough = readiness.truth("enough");
}

void readMap(Members& document, ControlFigures& figures)
{
    Members map = document.object("map");
    const uint32_t blocksPerCell = map.number32("blocksPerCell");
    std::vector<ControlKindCounts> slices;
    for (const Document& cell : map.items("cells", 0, kControlInfoCells)) {
        ControlKindCounts& counts = slices.emplace_back();
        for (size_t kind = 0; kind < kControlKindCount; kind++) {
            const bool isThere = cell.is_array() && cell.size() == kControlKindCount &&
                                 cell[kind].is_number_unsigned();
            map.expect(isThere, "cells", "hold something other than four numbers each");
            counts.of(static_cast<ControlKind>(kind)) = isThere ? cell[kind].get<uint64_t>() : 0;
        }
    }
    auto made = ControlMap::withSlices(figures.totalBlocks, blocksPerCell, std::move(slices));
    map.expect(made.has_value(), "cells", "do not add up to the volume");
    if (made.has_value()) {
        figures.map = *std::move(made);
    }
}

/** Fills @p figures; what was wrong first, or nothing. */
std::string readFigures(const Document& document, ControlFigures& figures)
{
    std::string fault;
    Members members(document, "", fault);
    const uint64_t version = members.number("version", kMostItems);
    members.expect(version == kControlInfoVersion, "version", "is not one that this program reads");
    figures.image = members.text("image");
    readVolume(members, figures);
    readFiles(members, figures);
    readFreeSpace(members, figures);
    readMap(members, figures);
    std::ignore = members.items("worstFiles", 0, kControlBaselineLimit);
    return fault;
}

Document parsed(std::string_view text)
{
    // What is nested deeper is left out while it is read: it would only take memory.
    const auto isWanted = [](int depth, Document::parse_event_t, Document&) {
        return depth <= kDeepest;
    };
    return Document::parse(text.begin(), text.end(), isWanted, false);
}

}  // namespace

std::optional<ControlFigures> figuresOfDocument(std::string_view document, const std::string& name,
                                                ControlErrorSlot error)
{
    const std::string refusal = "The saved figures in " + name + " cannot be used: ";
    if (document.size() > kControlBaselineLimit) {
        ControlFail(error, ControlStatus::kUsage, refusal + "the file is larger than 8 MiB.");
        return std::nullopt;
    }
    try {
        const Document root = parsed(document);
        if (!root.is_object()) {
            ControlFail(error, ControlStatus::kUsage, refusal + "this is no JSON object.");
            return std::nullopt;
        }
        ControlFigures figures;
        const std::string fault = readFigures(root, figures);
        if (!fault.empty()) {
            ControlFail(error, ControlStatus::kUsage, refusal + fault + '.');
            return std::nullopt;
        }
        return figures;
    } catch (const std::exception& exception) {
        // The library's own failures, such as lack of memory.
        ControlFail(error, ControlStatus::kUsage, refusal + exception.what());
        return std::nullopt;
    }
}

std::optional<ControlFigures> figuresOfDocumentFile(const std::string& path, ControlErrorSlot error)
{
    std::ifstream file(path, std::ios::binary);
    // One byte more than is read tells a file that is too large, or one without end.
    std::string document(kControlBaselineLimit + 1, '\0');
    file.read(document.data(), static_cast<std::streamsize>(document.size()));
    if (!file.is_open() || file.bad()) {
        ControlFail(error, ControlStatus::kUsage,
                    "The saved figures in " + path + " cannot be read.");
        return std::nullopt;
    }
    document.resize(static_cast<size_t>(file.gcount()));
    return figuresOfDocument(document, path, error);
}
