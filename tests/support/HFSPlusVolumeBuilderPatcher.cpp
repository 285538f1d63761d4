#include "support/HFSPlusVolumeBuilderPatcher.h"

#include <algorithm>
#include <vector>

#include "support/HFSPlusVolumeBuilderBytes.h"
#include "support/HFSPlusVolumeBuilderFields.h"

namespace {

constexpr uint32_t kHeaderMapOffset = 248;
constexpr size_t kLeastRecord = 18;  // bytes: the shortest catalog record
constexpr size_t kFolderRecord = 1;
constexpr size_t kFileRecord = 2;

/** The index in a name like "offset[3]". */
std::optional<uint32_t> indexedOffset(std::string_view field)
{
    if (!field.starts_with("offset[") || !field.ends_with("]")) {
        return std::nullopt;
    }
    uint32_t index = 0;
    for (const char digit : field.substr(7, field.size() - 8)) {
        if (digit < '0' || digit > '9') {
            return std::nullopt;
        }
        index = index * 10 + static_cast<uint32_t>(digit - '0');
    }
    return index;
}

}  // namespace

bool HFSPlusVolumeBuilderPatcher::number(uint64_t offset, uint64_t value, size_t size)
{
    std::array<uint8_t, 8> stored{};
    putBigEndian(stored.data(), value, size);
    return bytes(offset, std::span(stored).first(size));
}

bool HFSPlusVolumeBuilderPatcher::bytes(uint64_t offset, std::span<const uint8_t> bytes)
{
    return _sink.writeAt(bytes.data(), bytes.size(), _plan.volumeOffset + offset);
}

bool HFSPlusVolumeBuilderPatcher::header(std::string_view field, uint64_t value)
{
    const auto found = fieldWithName(HFSPlusBuilderStructure::kVolumeHeader, field);
    return found.has_value() && number(1024 + found->offset, value, found->size);
}

bool HFSPlusVolumeBuilderPatcher::alternateHeader(std::string_view field, uint64_t value)
{
    const auto found = fieldWithName(HFSPlusBuilderStructure::kVolumeHeader, field);
    return found.has_value() && number(_plan.volumeSize - 1024 + found->offset, value, found->size);
}

bool HFSPlusVolumeBuilderPatcher::wrapper(std::string_view field, uint64_t value)
{
    const auto found = fieldWithName(HFSPlusBuilderStructure::kMasterDirectoryBlock, field);
    if (!found.has_value() || !_plan.spec.wrapper.has_value()) {
        return false;
    }
    std::array<uint8_t, 8> stored{};
    putBigEndian(stored.data(), value, found->size);
    return _sink.writeAt(stored.data(), found->size, 1024 + found->offset);
}

bool HFSPlusVolumeBuilderPatcher::journalInfo(std::string_view field, uint64_t value)
{
    const auto found = fieldWithName(HFSPlusBuilderStructure::kJournalInfoBlock, field);
    if (!found.has_value() || !_plan.spec.journal.has_value()) {
        return false;
    }
    const uint64_t base = uint64_t{_plan.spec.journal->infoBlock} * _plan.spec.blockSize;
    return number(base + found->offset, value, found->size);
}

bool HFSPlusVolumeBuilderPatcher::bitmap(uint32_t block, bool used)
{
    return _bit(_offsetOf(_plan.allocationExtents, block / 8), block, used);
}

bool HFSPlusVolumeBuilderPatcher::treeHeader(uint32_t treeID, std::string_view field,
                                             uint64_t value)
{
    const auto found = fieldWithName(HFSPlusBuilderStructure::kHeaderRecord, field);
    return found.has_value() &&
           nodeBytes(treeID, 0, static_cast<uint32_t>(found->offset), value, found->size);
}

bool HFSPlusVolumeBuilderPatcher::treeMap(uint32_t treeID, uint32_t node, bool used)
{
    const HFSPlusBuilderTreePlan* tree = _tree(treeID);
    if (tree == nullptr || node / 8 >= tree->nodeSize - 256) {
        return false;
    }
    return _bit(_offsetOf(tree->extents, kHeaderMapOffset + node / 8), node, used);
}

bool HFSPlusVolumeBuilderPatcher::node(uint32_t treeID, uint32_t node, std::string_view field,
                                       uint64_t value)
{
    const HFSPlusBuilderTreePlan* tree = _tree(treeID);
    if (tree == nullptr) {
        return false;
    }
    const std::optional<uint32_t> index = indexedOffset(field);
    if (index.has_value()) {
        const uint64_t distance = 2 + 2 * uint64_t{*index};
        return distance <= tree->nodeSize &&
               nodeBytes(treeID, node, static_cast<uint32_t>(tree->nodeSize - distance), value, 2);
    }
    const auto found = fieldWithName(HFSPlusBuilderStructure::kNodeDescriptor, field);
    return found.has_value() &&
           nodeBytes(treeID, node, static_cast<uint32_t>(found->offset), value, found->size);
}

bool HFSPlusVolumeBuilderPatcher::nodeBytes(uint32_t treeID, uint32_t node, uint32_t offset,
                                            uint64_t value, size_t size)
{
    const HFSPlusBuilderTreePlan* tree = _tree(treeID);
    if (tree == nullptr || offset + size > tree->nodeSize || node >= tree->totalNodes) {
        return false;
    }
    for (size_t index = 0; index < size; index++) {  // a node may lie in several extents
        const uint64_t forkOffset = uint64_t{node} * tree->nodeSize + offset + index;
        const std::optional<uint64_t> place = _offsetOf(tree->extents, forkOffset);
        if (!place.has_value() || !number(*place, value >> (8 * (size - 1 - index)), 1)) {
            return false;
        }
    }
    return true;
}

bool HFSPlusVolumeBuilderPatcher::catalogRecord(uint32_t cnid, std::string_view field,
                                                uint64_t value)
{
    const auto found = fieldWithName(HFSPlusBuilderStructure::kCatalogRecord, field);
    const auto place = _findRecord(kHFSPlusBuilderCatalogID, [&](std::span<const uint8_t> record) {
        const size_t data = 2 + getBigEndian(record.data(), 2);
        if (data + 12 > record.size()) {
            return false;
        }
        const uint64_t type = getBigEndian(&record[data], 2);
        return (type == kFileRecord || type == kFolderRecord) &&
               getBigEndian(&record[data + 8], 4) == cnid;
    });
    if (!found.has_value() || !place.has_value()) {
        return false;
    }
    std::array<uint8_t, 2> keyLength{};
    if (!_sink.readAt(keyLength.data(), 2, _plan.volumeOffset + place->offset)) {
        return false;
    }
    const uint64_t data = place->offset + 2 + getBigEndian(keyLength.data(), 2);
    return number(data + found->offset, value, found->size);
}

bool HFSPlusVolumeBuilderPatcher::overflowRecord(uint32_t fileID, uint8_t forkType,
                                                 uint32_t startBlock, std::string_view field,
                                                 uint64_t value)
{
    const auto found = fieldWithName(HFSPlusBuilderStructure::kOverflowRecord, field);
    const auto place = _findRecord(kHFSPlusBuilderExtentsID, [&](std::span<const uint8_t> record) {
        return record[2] == forkType && getBigEndian(&record[4], 4) == fileID &&
               getBigEndian(&record[8], 4) == startBlock;
    });
    return found.has_value() && place.has_value() &&
           number(place->offset + found->offset, value, found->size);
}

std::optional<uint32_t> HFSPlusVolumeBuilderPatcher::leafWithRecord(uint32_t treeID, uint32_t index)
{
    uint32_t passed = 0;
    const auto place =
        _findRecord(treeID, [&](std::span<const uint8_t>) { return passed++ == index; });
    return place.has_value() ? std::optional(place->node) : std::nullopt;
}

const HFSPlusBuilderTreePlan* HFSPlusVolumeBuilderPatcher::_tree(uint32_t treeID) const
{
    switch (treeID) {
        case kHFSPlusBuilderExtentsID:
            return &_plan.extentsTree;
        case kHFSPlusBuilderCatalogID:
            return &_plan.catalogTree;
        case kHFSPlusBuilderAttributesID:
            return _plan.spec.hasAttributesFile ? &_plan.attributesTree : nullptr;
        default:
            return nullptr;
    }
}

std::optional<uint64_t> HFSPlusVolumeBuilderPatcher::_offsetOf(const HFSPlusBuilderExtents& extents,
                                                               uint64_t forkOffset) const
{
    for (const HFSPlusBuilderExtent& extent : extents) {
        const uint64_t size = uint64_t{extent.blockCount} * _plan.spec.blockSize;
        if (forkOffset < size) {
            return uint64_t{extent.startBlock} * _plan.spec.blockSize + forkOffset;
        }
        forkOffset -= size;
    }
    return std::nullopt;
}

std::optional<HFSPlusVolumeBuilderPatcher::Place> HFSPlusVolumeBuilderPatcher::_findRecord(
    uint32_t treeID, const Match& match)
{
    const HFSPlusBuilderTreePlan* tree = _tree(treeID);
    if (tree == nullptr) {
        return std::nullopt;
    }
    std::vector<uint8_t> bytes(tree->nodeSize);
    for (uint32_t sequence = 0; sequence < tree->leafNodes; sequence++) {
        const uint32_t number = tree->nodeNumber(sequence);
        for (uint32_t done = 0; done < tree->nodeSize; done += 512) {
            const auto place = _offsetOf(tree->extents, uint64_t{number} * tree->nodeSize + done);
            if (!place.has_value() ||
                !_sink.readAt(&bytes[done], 512, _plan.volumeOffset + *place)) {
                return std::nullopt;
            }
        }
        const uint64_t records =
            std::min<uint64_t>(getBigEndian(&bytes[10], 2), bytes.size() / 2 - 2);
        for (size_t index = 0; index < records; index++) {
            const size_t start = getBigEndian(&bytes[bytes.size() - 2 - 2 * index], 2);
            const size_t end = getBigEndian(&bytes[bytes.size() - 4 - 2 * index], 2);
            // An earlier damage may have broken this node.
            if (end > bytes.size() || start + kLeastRecord > end) {
                continue;
            }
            if (match(std::span(bytes).subspan(start, end - start))) {
                const auto node =
                    _offsetOf(tree->extents, uint64_t{number} * tree->nodeSize + start);
                return node.has_value() ? std::optional(Place{*node, number}) : std::nullopt;
            }
        }
    }
    return std::nullopt;
}

bool HFSPlusVolumeBuilderPatcher::_bit(std::optional<uint64_t> offset, uint32_t number, bool used)
{
    uint8_t byte = 0;
    if (!offset.has_value() || !_sink.readAt(&byte, 1, _plan.volumeOffset + *offset)) {
        return false;
    }
    const uint8_t mask = static_cast<uint8_t>(0x80U >> (number % 8));
    byte = static_cast<uint8_t>(used ? byte | mask : byte & ~mask);
    return _sink.writeAt(&byte, 1, _plan.volumeOffset + *offset);
}
