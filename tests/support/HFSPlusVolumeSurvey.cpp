#include "support/HFSPlusVolumeSurvey.h"

#include <algorithm>

#include "support/HFSPlusVolumeBuilderBytes.h"

namespace {

using Group = HFSPlusFieldGroup;

/** Offset and size in bytes of a field within its structure. */
struct FieldPlace {
    uint32_t offset;
    uint32_t size;
};

// TN1150, without the fields that nothing is computed from.
constexpr FieldPlace kHeaderFields[] = {{0, 2},  {2, 2},  {4, 4},  {12, 4}, {32, 4}, {36, 4},
                                        {40, 4}, {44, 4}, {48, 4}, {52, 4}, {64, 4}, {68, 4}};
constexpr FieldPlace kMasterDirectoryFields[] = {{0, 2},   {20, 4},  {28, 2},
                                                 {124, 2}, {126, 2}, {128, 2}};
constexpr FieldPlace kJournalInfoFields[] = {{0, 4}, {36, 8}, {44, 8}};
constexpr FieldPlace kJournalFields[] = {{0, 4}, {4, 4}, {8, 8}, {16, 8}, {24, 8}, {32, 4}};
constexpr FieldPlace kTreeHeaderFields[] = {{14, 2}, {16, 4}, {20, 4}, {24, 4}, {28, 4}, {32, 2},
                                            {34, 2}, {36, 4}, {40, 4}, {50, 1}, {51, 1}, {52, 4}};
constexpr FieldPlace kDescriptorFields[] = {{0, 4}, {4, 4}, {8, 1}, {9, 1}, {10, 2}};
constexpr FieldPlace kFolderFields[] = {{0, 2}, {2, 2}, {4, 4}, {8, 4}};
constexpr FieldPlace kFileFields[] = {{0, 2}, {2, 2}, {8, 4}, {42, 2}, {44, 4}, {48, 4}};
constexpr FieldPlace kThreadFields[] = {{0, 2}, {4, 4}, {8, 2}, {10, 2}};

constexpr uint32_t kSectorSize = 512;
constexpr uint64_t kHeaderOffset = 1024;
constexpr uint32_t kForkFields = 112;  // the first of five forks in the header
constexpr uint32_t kForkSize = 80;
constexpr uint64_t kHeaderUserData = 120;
constexpr uint64_t kHeaderMap = 248;
constexpr uint64_t kMostBitmapBytes = 2048;  // at the front; the rest is like these
constexpr uint64_t kMostNumbers = 256;
constexpr size_t kMostSectors = 1 << 16;

bool isName(const std::vector<uint8_t>& units, const std::string& name)
{
    return units.size() == 2 * name.size() &&
           std::ranges::all_of(name, [&, index = size_t{0}](char letter) mutable {
               const uint64_t unit = getBigEndian(&units[2 * index++], 2);
               return unit == static_cast<uint8_t>(letter);
           });
}

}  // namespace

HFSPlusVolumeSurvey::HFSPlusVolumeSurvey(const MemoryBlockDevice& memory) : _memory(memory)
{
    const auto copy = memory.clone();
    HFSPlusCheckDeviceReader reader(*copy);
    _result = checkHFSPlusVolume(reader);
    if (!isSound()) {
        return;
    }
    _surveyHeader(Group::kHeader, Group::kHeaderFork, _result.volumeOffset + kHeaderOffset);
    _surveyHeader(Group::kAlternate, Group::kAlternate,
                  _result.volumeOffset + _result.volumeSize - 1024);
    _surveyWrapper();
    _surveyJournal();
    _surveyBitmap();
    _surveyTree(Tree::kExtents, 3);
    _surveyTree(Tree::kCatalog, 4);
    _surveyTree(Tree::kAttributes, 8);
    _surveyNamedFiles();
}

uint64_t HFSPlusVolumeSurvey::_number(uint64_t place, uint32_t size) const
{
    std::array<uint8_t, 8> bytes{};
    _memory.peek(bytes.data(), size, place);
    return getBigEndian(bytes.data(), size);
}

uint64_t HFSPlusVolumeSurvey::_number(const Place& node, uint64_t offset, uint32_t size) const
{
    uint64_t value = 0;
    for (uint64_t index = offset; index < offset + size; ++index) {
        value = value << 8 | _number((*node.sectors)[index / kSectorSize] + index % kSectorSize, 1);
    }
    return value;
}

void HFSPlusVolumeSurvey::_add(Group group, uint64_t place, uint32_t size)
{
    _fields[static_cast<size_t>(group)].push_back({place, size});
}

/** A field that an extent's end parts is left out. */
void HFSPlusVolumeSurvey::_add(Group group, const Place& node, uint64_t offset, uint32_t size)
{
    if (offset + size > node.size) {
        return;
    }
    const uint64_t first = (*node.sectors)[offset / kSectorSize] + offset % kSectorSize;
    const uint64_t end = offset + size - 1;
    if ((*node.sectors)[end / kSectorSize] + end % kSectorSize == first + size - 1) {
        _add(group, first, size);
    }
}

HFSPlusVolumeSurvey::Node HFSPlusVolumeSurvey::_sectorsOf(uint32_t cnid) const
{
    Node sectors;
    const HFSPlusCheckedFork* const fork = _result.forkWithCNID(cnid);
    for (size_t index = 0; fork != nullptr && index < fork->extents.size(); ++index) {
        const uint64_t start =
            _result.volumeOffset + uint64_t{fork->extents[index].startBlock} * _result.blockSize;
        const uint64_t size = uint64_t{fork->extents[index].blockCount} * _result.blockSize;
        for (uint64_t offset = 0; offset < size; offset += kSectorSize) {
            sectors.push_back(start + offset);
        }
    }
    return sectors;
}

void HFSPlusVolumeSurvey::_keepSectors(const Node& sectors)
{
    const size_t count =
        std::min(sectors.size(), kMostSectors - std::min(_sectors.size(), kMostSectors));
    _sectors.insert(_sectors.end(), sectors.begin(), sectors.begin() + static_cast<int64_t>(count));
}

void HFSPlusVolumeSurvey::_surveyHeader(Group group, Group forkGroup, uint64_t place)
{
    for (const FieldPlace& field : kHeaderFields) {
        _add(group, place + field.offset, field.size);
    }
    for (uint32_t fork = kForkFields; fork < kForkFields + 5 * kForkSize; fork += kForkSize) {
        _add(forkGroup, place + fork, 8);
        for (uint32_t offset = 8; offset < kForkSize; offset += 4) {
            _add(forkGroup, place + fork + offset, 4);
        }
    }
    _keepSectors({place / kSectorSize * kSectorSize});
}

void HFSPlusVolumeSurvey::_surveyWrapper()
{
    if (_result.volumeOffset != 0) {
        for (const FieldPlace& field : kMasterDirectoryFields) {
            _add(Group::kWrapper, kHeaderOffset + field.offset, field.size);
        }
        _keepSectors({kHeaderOffset});
    }
}

void HFSPlusVolumeSurvey::_surveyJournal()
{
    constexpr uint32_t kJournaled = 0x2000;
    if ((_result.attributes & kJournaled) == 0) {
        return;
    }
    const uint64_t info =
        _result.volumeOffset + uint64_t{_result.journalInfoBlock} * _result.blockSize;
    for (const FieldPlace& field : kJournalInfoFields) {
        _add(Group::kJournal, info + field.offset, field.size);
    }
    const uint64_t journal = _result.volumeOffset + _number(info + 36, 8);
    for (const FieldPlace& field : kJournalFields) {
        _add(Group::kJournal, journal + field.offset, field.size);
    }
    _keepSectors({info, journal});
}

void HFSPlusVolumeSurvey::_surveyBitmap()
{
    const Node sectors = _sectorsOf(6);
    const uint64_t bytes = (uint64_t{_result.totalBlocks} + 7) / 8;
    for (uint64_t index = 0; index < bytes; ++index) {
        if (index < kMostBitmapBytes || index + 8 > bytes) {
            _add(Group::kBitmap, sectors[index / kSectorSize] + index % kSectorSize, 1);
        }
    }
    _keepSectors({sectors.begin(),
                  sectors.begin() + static_cast<int64_t>(std::min<size_t>(sectors.size(), 16))});
}

void HFSPlusVolumeSurvey::_surveyTree(Tree tree, uint32_t cnid)
{
    const Node sectors = _sectorsOf(cnid);
    if (sectors.empty()) {
        return;
    }
    _keepSectors(sectors);
    const auto nodeSize = static_cast<uint32_t>(_number(sectors[0] + 32, 2));
    const uint64_t totalNodes = _number(sectors[0] + 36, 4);
    const uint64_t mapped = std::min<uint64_t>(totalNodes, 8 * (uint64_t{nodeSize} - 256));
    const size_t perNode = nodeSize / kSectorSize;
    const auto nodeWith = [&](uint64_t number) {
        const auto first = sectors.begin() + static_cast<int64_t>(number * perNode);
        return Node(first, first + static_cast<int64_t>(perNode));
    };
    if (sectors.size() < totalNodes * perNode) {
        return;
    }
    const Node header = nodeWith(0);
    for (uint64_t number = 0; number < mapped; ++number) {
        const uint64_t bits = _number({tree, &header, nodeSize}, kHeaderMap + number / 8, 1);
        if ((bits & (0x80U >> (number % 8))) != 0) {
            _nodes.push_back(nodeWith(number));
            const Place node{tree, &_nodes.back(), nodeSize};
            number == 0 ? _surveyTreeHeader(node) : _surveyNode(node);
        }
    }
    for (uint64_t byte = 0; byte <= mapped / 8; ++byte) {
        _add(Group::kNodeMap, {tree, &header, nodeSize}, kHeaderMap + byte, 1);
    }
}

void HFSPlusVolumeSurvey::_surveyTreeHeader(const Place& node)
{
    for (const FieldPlace& field : kTreeHeaderFields) {
        _add(Group::kTreeHeader, node, field.offset, field.size);
    }
    for (const FieldPlace& field : kDescriptorFields) {
        _add(Group::kDescriptor, node, field.offset, field.size);
    }
    for (uint64_t index = 0; index < 4; ++index) {
        _add(Group::kRecordOffset, node, node.size - 2 * (index + 1), 2);
    }
    if (node.tree == Tree::kHotFiles) {
        for (uint64_t offset = 0; offset < 32; offset += 4) {
            _add(Group::kFileOfNumbers, node, kHeaderUserData + offset, 4);
        }
    }
}

void HFSPlusVolumeSurvey::_surveyNode(const Place& node)
{
    for (const FieldPlace& field : kDescriptorFields) {
        _add(Group::kDescriptor, node, field.offset, field.size);
    }
    constexpr uint64_t kLeaf = 0xFF;
    const uint64_t kind = _number(node, 8, 1);
    const uint64_t records = _number(node, 10, 2);
    for (uint64_t index = 0; index <= records; ++index) {
        _add(Group::kRecordOffset, node, node.size - 2 * (index + 1), 2);
    }
    for (uint64_t index = 0; index < records && (kind == kLeaf || kind == 0); ++index) {
        _surveyRecord(node, kind == kLeaf, _number(node, node.size - 2 * (index + 1), 2),
                      _number(node, node.size - 2 * (index + 2), 2));
    }
}

void HFSPlusVolumeSurvey::_surveyRecord(const Place& node, bool isLeaf, uint64_t start,
                                        uint64_t end)
{
    _add(Group::kKeyLength, node, start, 2);
    if (node.tree == Tree::kCatalog) {
        _add(Group::kKey, node, start + 2, 4);  // parent
        _add(Group::kKey, node, start + 6, 2);  // length of the name
        _add(Group::kKey, node, start + 8, 2);
    } else {
        _add(Group::kKey, node, start + 2, 2);  // fork type
        _add(Group::kKey, node, start + 4, 4);  // file, or temperature
        _add(Group::kKey, node, start + 8, 4);  // first block, or file
        if (node.tree == Tree::kAttributes) {
            _add(Group::kKey, node, start + 12, 2);
        }
    }
    const uint64_t data = start + 2 + _number(node, start, 2);
    if (!isLeaf) {
        _add(Group::kChild, node, data, 4);
    } else if (node.tree == Tree::kCatalog) {
        _surveyCatalogRecord(node, start, data, end);
    } else if (node.tree == Tree::kExtents) {
        _addExtents(Group::kOverflow, node, data, end);
    } else if (node.tree == Tree::kAttributes) {
        _surveyAttribute(node, data, end);
    }
}

void HFSPlusVolumeSurvey::_surveyCatalogRecord(const Place& node, uint64_t key, uint64_t data,
                                               uint64_t end)
{
    const auto add = [&](std::span<const FieldPlace> fields) {
        for (const FieldPlace& field : fields) {
            _add(Group::kRecord, node, data + field.offset, field.size);
        }
    };
    constexpr uint64_t kFolder = 1;
    constexpr uint64_t kFile = 2;
    const uint64_t type = _number(node, data, 2);
    if (type == kFolder) {
        add(kFolderFields);
    } else if (type != kFile) {
        add(kThreadFields);
    } else if (data + 248 <= end) {
        add(kFileFields);
        for (const uint64_t fork : {data + 88, data + 168}) {
            _add(Group::kFileFork, node, fork, 8);
            _add(Group::kFileFork, node, fork + 12, 4);
            _addExtents(Group::kFileFork, node, fork + 16, fork + kForkSize);
        }
        _noteNamedFile(node, key, static_cast<uint32_t>(_number(node, data + 8, 4)));
    }
}

void HFSPlusVolumeSurvey::_surveyAttribute(const Place& node, uint64_t data, uint64_t end)
{
    _add(Group::kRecord, node, data, 4);
    constexpr uint64_t kInline = 0x10;
    if (_number(node, data, 4) == kInline) {
        _add(Group::kRecord, node, data + 12, 4);
    } else {
        _addExtents(Group::kRecord, node, data + 8, end);
    }
}

void HFSPlusVolumeSurvey::_addExtents(Group group, const Place& node, uint64_t offset, uint64_t end)
{
    for (uint64_t word = 0; word < 16 && offset + 4 * (word + 1) <= end; ++word) {
        _add(group, node, offset + 4 * word, 4);
    }
}

void HFSPlusVolumeSurvey::_noteNamedFile(const Place& node, uint64_t key, uint32_t cnid)
{
    const uint64_t units = _number(node, key + 6, 2);
    std::vector<uint8_t> name;
    for (uint64_t index = 0; index < 2 * units; ++index) {
        name.push_back(static_cast<uint8_t>(_number(node, key + 8 + index, 1)));
    }
    if (isName(name, "BootCache.playlist")) {
        _playlist = cnid;
    } else if (isName(name, ".hotfiles.btree")) {
        _hotFiles = cnid;
    }
}

void HFSPlusVolumeSurvey::_surveyNamedFiles()
{
    if (_hotFiles != 0) {
        _surveyTree(Tree::kHotFiles, _hotFiles);
    }
    const Node playlist = _playlist != 0 ? _sectorsOf(_playlist) : Node();
    // The magic stays: anything else there is not a playlist.
    for (uint64_t offset = 4; offset < std::min(playlist.size() * kSectorSize, 4 * kMostNumbers);
         offset += 4) {
        _add(Group::kFileOfNumbers, playlist[offset / kSectorSize] + offset % kSectorSize, 4);
    }
}
