#include "support/HFSPlusVolumeMutator.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "support/HFSPlusVolumeBuilderBytes.h"

namespace {

/** Offset and size in bytes of a field within its structure. */
struct FieldPlace {
    uint32_t offset;
    uint32_t size;
};

// TN1150, "Volume Header", without the fields that nothing is computed from.
constexpr FieldPlace kHeaderFields[] = {{0, 2},  {2, 2},  {4, 4},  {12, 4}, {32, 4}, {36, 4},
                                        {40, 4}, {44, 4}, {48, 4}, {52, 4}, {64, 4}, {68, 4}};
constexpr FieldPlace kMasterDirectoryFields[] = {{0, 2},   {20, 4},  {28, 2},
                                                 {124, 2}, {126, 2}, {128, 2}};
constexpr FieldPlace kJournalInfoFields[] = {{0, 4}, {36, 8}, {44, 8}};
constexpr FieldPlace kTreeHeaderFields[] = {{14, 2}, {16, 4}, {20, 4}, {24, 4}, {28, 4}, {32, 2},
                                            {34, 2}, {36, 4}, {40, 4}, {50, 1}, {51, 1}, {52, 4}};
constexpr FieldPlace kNodeFields[] = {{0, 4}, {4, 4}, {8, 1}, {9, 1}, {10, 2}};
constexpr uint32_t kForkFields = 112;  // the first of five forks in the header
constexpr uint32_t kForkSize = 80;
constexpr uint32_t kHeaderMap = 248;
constexpr uint64_t kHeaderOffset = 1024;

}  // namespace

void HFSPlusVolumeMutator::mutate()
{
    const uint64_t choice = _below(100);
    if (choice < 22) {
        _mutateHeader();
    } else if (choice < 28) {
        _mutateWrapperOrJournal();
    } else if (choice < 36) {
        _mutateBitmap();
    } else if (choice < 48) {
        _mutateTreeHeader();
    } else if (choice < 62) {
        _mutateNode();
    } else if (choice < 86) {
        _mutateRecord();
    } else if (choice < 94) {
        _mutateWholeNode();
    } else {
        _mutateBytes();
    }
}

/** The byte of the device where byte @p index of @p field lies; its end when it lies nowhere. */
uint64_t HFSPlusVolumeMutator::_place(const Field& field, uint32_t index) const
{
    if (field.extents == nullptr) {
        return field.offset + index;
    }
    uint64_t rest = field.offset + index;
    for (const HFSPlusBuilderExtent& extent : *field.extents) {
        const uint64_t size = uint64_t{extent.blockCount} * _plan.spec.blockSize;
        if (rest < size) {
            return _plan.volumeOffset + uint64_t{extent.startBlock} * _plan.spec.blockSize + rest;
        }
        rest -= size;
    }
    return _plan.deviceSize;
}

uint64_t HFSPlusVolumeMutator::_value(const Field& field) const
{
    std::array<uint8_t, 8> bytes{};
    for (uint32_t index = 0; index < field.size; index++) {
        _memory.peek(&bytes[index], 1, _place(field, index));
    }
    return getBigEndian(bytes.data(), field.size);
}

void HFSPlusVolumeMutator::_setValue(const Field& field, uint64_t value)
{
    std::array<uint8_t, 8> bytes{};
    putBigEndian(bytes.data(), value, field.size);
    for (uint32_t index = 0; index < field.size; index++) {
        const uint64_t place = _place(field, index);
        if (place < _plan.deviceSize) {
            _memory.poke(&bytes[index], 1, place);
        }
    }
}

uint64_t HFSPlusVolumeMutator::_newValue(const Field& field)
{
    const uint64_t old = _value(field);
    const uint64_t sign = uint64_t{1} << (8 * field.size - 1);
    const FieldPlace other = kHeaderFields[_below(std::size(kHeaderFields))];
    switch (_below(16)) {
        case 0:
            return 0;
        case 1:
            return 1;
        case 2:
            return UINT64_MAX;
        case 3:
            return UINT64_MAX - 1;
        case 4:
            return sign;
        case 5:
            return sign - 1;
        case 6:
            return old + 1;
        case 7:
            return old - 1;
        case 8:
            return old * 2;
        case 9:
            return old / 2;
        case 10:
            return old ^ (uint64_t{1} << _below(8 * field.size));
        case 11:
            return _plan.spec.totalBlocks - _below(3);
        case 12:
            return _below(_plan.spec.totalBlocks);
        case 13:
            return _below(40);
        case 14:
            return _value({nullptr, _plan.volumeOffset + kHeaderOffset + other.offset, other.size});
        default:
            return uint64_t{_random()} << 32 | _random();
    }
}

void HFSPlusVolumeMutator::_damage(const Field& field, const char* what)
{
    const uint64_t old = _value(field);
    _setValue(field, _newValue(field));
    _story += std::string(what) + " at " + std::to_string(field.offset) + ": " +
              std::to_string(old) + " becomes " + std::to_string(_value(field)) + "; ";
}

const HFSPlusBuilderTreePlan& HFSPlusVolumeMutator::_tree()
{
    const uint64_t choice = _below(8);
    if (choice < 3) {
        return _plan.extentsTree;
    }
    return choice == 3 && _plan.spec.hasAttributesFile ? _plan.attributesTree : _plan.catalogTree;
}

uint32_t HFSPlusVolumeMutator::_usedNode(const HFSPlusBuilderTreePlan& tree)
{
    return tree.treeNodes == 0 ? 0 : tree.nodeNumber(static_cast<uint32_t>(_below(tree.treeNodes)));
}

HFSPlusVolumeMutator::Field HFSPlusVolumeMutator::_nodeField(const HFSPlusBuilderTreePlan& tree,
                                                             uint32_t node, uint64_t offset,
                                                             uint32_t size) const
{
    return {&tree.extents, uint64_t{node} * tree.nodeSize + offset, size};
}

void HFSPlusVolumeMutator::_mutateHeader()
{
    FieldPlace place = kHeaderFields[_below(std::size(kHeaderFields))];
    if (_below(2) == 0) {
        const auto fork = static_cast<uint32_t>(_below(5));
        const auto part = static_cast<uint32_t>(_below(7));
        // Logical size, clump size, total blocks, and the extents, of which the first counts most.
        place = part == 0 ? FieldPlace{0, 8}
                : part <= 2
                    ? FieldPlace{12, 4}
                    : FieldPlace{16 + 4 * static_cast<uint32_t>(_below(part <= 4 ? 2 : 16)), 4};
        place.offset += kForkFields + fork * kForkSize;
    }
    const Field field{nullptr, _plan.volumeOffset + kHeaderOffset + place.offset, place.size};
    _damage(field, "volume header");
    if (_below(4) == 0) {
        const uint64_t alternate = _plan.volumeOffset + _plan.volumeSize - 1024;
        _setValue({nullptr, alternate + place.offset, place.size}, _value(field));
    }
}

void HFSPlusVolumeMutator::_mutateWrapperOrJournal()
{
    if (_plan.spec.wrapper.has_value()) {
        const FieldPlace place = kMasterDirectoryFields[_below(std::size(kMasterDirectoryFields))];
        _damage({nullptr, kHeaderOffset + place.offset, place.size}, "master directory block");
    } else if (_plan.spec.journal.has_value()) {
        const FieldPlace place = kJournalInfoFields[_below(std::size(kJournalInfoFields))];
        const uint64_t block = uint64_t{_plan.spec.journal->infoBlock} * _plan.spec.blockSize;
        _damage({nullptr, _plan.volumeOffset + block + place.offset, place.size}, "journal info");
    } else {
        _mutateRecord();
    }
}

void HFSPlusVolumeMutator::_mutateBitmap()
{
    const uint64_t first = _below(_plan.spec.totalBlocks);
    const uint64_t count = _below(3) == 0 ? 1 + _below(64) : 1;
    const bool used = _below(2) == 0;
    for (uint64_t block = first; block < first + count; block++) {
        const Field field{&_plan.allocationExtents, block / 8, 1};
        const uint64_t mask = 0x80U >> (block % 8);
        _setValue(field, used ? _value(field) | mask : _value(field) & ~mask);
    }
    _story += std::string(used ? "set" : "clear") + " bits " + std::to_string(first) + " + " +
              std::to_string(count) + "; ";
}

void HFSPlusVolumeMutator::_mutateTreeHeader()
{
    const HFSPlusBuilderTreePlan& tree = _tree();
    if (_below(6) == 0) {
        const uint64_t byte = _below(tree.totalNodes / 8 + 1);
        _damage(_nodeField(tree, 0, kHeaderMap + byte, 1), "node map");
        return;
    }
    const FieldPlace place = kTreeHeaderFields[_below(std::size(kTreeHeaderFields))];
    _damage(_nodeField(tree, 0, place.offset, place.size), "tree header");
}

void HFSPlusVolumeMutator::_mutateNode()
{
    const HFSPlusBuilderTreePlan& tree = _tree();
    const uint32_t node = _below(5) == 0 ? 0 : _usedNode(tree);
    const FieldPlace place = kNodeFields[_below(std::size(kNodeFields))];
    if (_below(3) == 0) {
        const uint64_t records = _value(_nodeField(tree, node, 10, 2));
        const uint64_t distance = 2 * (_below(records + 1) + 1);
        if (distance <= tree.nodeSize) {
            _damage(_nodeField(tree, node, tree.nodeSize - distance, 2), "record offset");
        }
        return;
    }
    _damage(_nodeField(tree, node, place.offset, place.size), "node descriptor");
}

void HFSPlusVolumeMutator::_mutateRecord()
{
    const HFSPlusBuilderTreePlan& tree = _tree();
    const uint32_t node = _usedNode(tree);
    const uint64_t records = _value(_nodeField(tree, node, 10, 2));
    const uint64_t record = _below(records);
    if (records == 0 || 2 * (record + 2) > tree.nodeSize) {
        return;
    }
    const uint64_t start = _value(_nodeField(tree, node, tree.nodeSize - 2 * (record + 1), 2));
    const uint64_t end = _value(_nodeField(tree, node, tree.nodeSize - 2 * (record + 2), 2));
    if (start >= end || end > tree.nodeSize) {
        return;
    }
    const uint64_t data = start + 2 + _value(_nodeField(tree, node, start, 2));
    const uint64_t where = _below(6);
    if (where == 0) {
        _damage(_nodeField(tree, node, start, 2), "key length");
    } else if (where == 1) {
        _damage(_nodeField(tree, node, start + 2 + 2 * _below(6), 2), "key");
    } else if (data + 4 <= end) {
        // Forks fill most of a file record, and extents all of an overflow record.
        const uint64_t places = (end - data) / 4;
        _damage(_nodeField(tree, node, data + 4 * _below(places), where == 2 ? 2 : 4), "record");
    }
}

void HFSPlusVolumeMutator::_mutateWholeNode()
{
    const HFSPlusBuilderTreePlan& tree = _tree();
    const uint32_t target = _below(4) == 0 ? 0 : _usedNode(tree);
    const auto source = static_cast<uint32_t>(_below(tree.totalNodes));
    const uint64_t kind = _below(3);
    for (uint32_t offset = 0; offset < tree.nodeSize; offset++) {
        uint64_t value = 0;
        if (kind == 1) {
            value = _value(_nodeField(tree, source, offset, 1));
        } else if (kind == 2) {
            value = _random();
        }
        _setValue(_nodeField(tree, target, offset, 1), value);
    }
    _story += "node " + std::to_string(target) + " becomes " +
              (kind == 0   ? "zeros"
               : kind == 1 ? "node " + std::to_string(source)
                           : "noise") +
              "; ";
}

void HFSPlusVolumeMutator::_mutateBytes()
{
    const HFSPlusBuilderTreePlan& tree = _tree();
    const uint64_t count = 1 + _below(16);
    for (uint64_t index = 0; index < count; index++) {
        _damage(_nodeField(tree, _usedNode(tree), _below(tree.nodeSize), 1), "byte");
    }
}
