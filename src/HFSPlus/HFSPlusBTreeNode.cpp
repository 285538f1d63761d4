#include "HFSPlus/HFSPlusBTreeNode.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "HFSPlus/HFSPlusBTreeFile.h"
#include "KLKit/KLDebug.h"

namespace {

constexpr std::string_view kSource = "HFSPlus/HFSPlusBTreeNode.cpp";

// Lines that internal errors of this class carry; people quote them, so they never move.
constexpr unsigned kSetIndexLine = 323;
constexpr unsigned kSetSizeLine = 324;
constexpr unsigned kSetKeyLine = 330;
constexpr unsigned kInsertIndexLine = 356;
constexpr unsigned kInsertSpaceLine = 357;
constexpr unsigned kDeleteIndexLine = 407;

constexpr uint16_t kFirstRecordOffset = sizeof(BTNodeDescriptor);
constexpr uint32_t kOffsetSize = 2;  // bytes of an entry of the offsets table

}  // namespace

HFSPlusBTreeNode::HFSPlusBTreeNode(HFSPlusBTreeFile& btree, uint32_t index)
    : _btree(btree), _index(index), _size(btree.nodeSize())
{
}

std::unique_ptr<HFSPlusBTreeNode> HFSPlusBTreeNode::initWithBTree(HFSPlusBTreeFile& btree,
                                                                  uint32_t index,
                                                                  std::span<const uint8_t> data,
                                                                  VZDefragErrorSlot error)
{
    std::unique_ptr<HFSPlusBTreeNode> node(new (std::nothrow) HFSPlusBTreeNode(btree, index));
    if (node != nullptr) {
        node->_data.reset(new (std::nothrow) uint8_t[node->_size]);
    }
    if (node == nullptr || node->_data == nullptr) {
        std::ignore = VZDefragFail(error, "Out of memory.");
        return nullptr;
    }
    if (data.empty()) {
        if (!btree.readNode(index, node->_data.get(), error)) {
            return nullptr;
        }
        return node;
    }
    if (data.size() != node->_size) {
        KLPanic("node %lu of %lu bytes given as %lu\n", index, node->_size, data.size());
    }
    std::memcpy(node->_data.get(), data.data(), node->_size);
    return node;
}

const BTNodeDescriptor& HFSPlusBTreeNode::_descriptor() const
{
    return *reinterpret_cast<const BTNodeDescriptor*>(_data.get());
}

BTNodeDescriptor& HFSPlusBTreeNode::_descriptor()
{
    return *reinterpret_cast<BTNodeDescriptor*>(_data.get());
}

void HFSPlusBTreeNode::setFLink(uint32_t index)
{
    _descriptor().fLink = index;
    _dirty = true;
}

void HFSPlusBTreeNode::setBLink(uint32_t index)
{
    _descriptor().bLink = index;
    _dirty = true;
}

void HFSPlusBTreeNode::setKind(int8_t kind)
{
    _descriptor().kind = kind;
    _dirty = true;
}

void HFSPlusBTreeNode::setHeight(uint8_t height)
{
    _descriptor().height = height;
    _dirty = true;
}

uint16_t HFSPlusBTreeNode::_offsetAtIndex(uint32_t index) const
{
    HFSPlusDiskOrder::UInt16 offset;
    std::memcpy(&offset, _data.get() + _size - size_t{kOffsetSize} * (index + 1), sizeof offset);
    return offset;
}

void HFSPlusBTreeNode::_setOffsetAtIndex(uint32_t index, uint16_t offset)
{
    const HFSPlusDiskOrder::UInt16 value(offset);
    std::memcpy(_data.get() + _size - size_t{kOffsetSize} * (index + 1), &value, sizeof value);
}

bool HFSPlusBTreeNode::hasSoundRecords() const
{
    const uint32_t count = recordCount();
    const uint32_t tableSize = kOffsetSize * (count + 1);
    if (kFirstRecordOffset + tableSize > _size || _offsetAtIndex(0) != kFirstRecordOffset) {
        return false;
    }
    uint16_t previous = kFirstRecordOffset;
    for (uint32_t index = 1; index <= count; ++index) {
        const uint16_t offset = _offsetAtIndex(index);
        if (offset <= previous || offset % 2 != 0) {
            return false;
        }
        previous = offset;
    }
    return previous <= _size - tableSize;
}

uint8_t* HFSPlusBTreeNode::recordDataAtIndex(uint32_t index)
{
    if (index >= recordCount()) {
        KLPanic("record %lu of node %lu is out of range\n", index, _index);
    }
    return _data.get() + _offsetAtIndex(index);
}

uint16_t HFSPlusBTreeNode::recordSizeAtIndex(uint32_t index) const
{
    if (index >= recordCount()) {
        KLPanic("record %lu of node %lu is out of range\n", index, _index);
    }
    return static_cast<uint16_t>(_offsetAtIndex(index + 1) - _offsetAtIndex(index));
}

std::span<const uint8_t> HFSPlusBTreeNode::recordAtIndex(uint32_t index) const
{
    const uint32_t size = recordSizeAtIndex(index);
    const uint32_t offset = _offsetAtIndex(index);
    if (offset > _size || size > _size - offset) {
        return {};
    }
    return {_data.get() + offset, size};
}

uint32_t HFSPlusBTreeNode::freeSpace() const
{
    const uint32_t count = recordCount();
    const uint32_t table = kOffsetSize * (count + 1);
    if (table > _size) {
        return 0;
    }
    const uint32_t end = _offsetAtIndex(count);
    return end < _size - table ? _size - table - end : 0;
}

void HFSPlusBTreeNode::setupNewNode(int8_t kind)
{
    zero();
    setKind(kind);
    switch (kind) {
        case kBTLeafNode:
            setHeight(1);
            break;
        case kBTIndexNode:
            setHeight(2);  // the least it can be; whoever places the node knows better
            break;
        default:
            setHeight(0);
            break;
    }
    _setOffsetAtIndex(0, kFirstRecordOffset);
}

void HFSPlusBTreeNode::zero()
{
    std::memset(_data.get(), 0, _size);
    _dirty = true;
    _checked = Checked::kNothing;
}

bool HFSPlusBTreeNode::setRecordData(std::span<const uint8_t> record, uint32_t index,
                                     VZDefragErrorSlot error)
{
    if (index >= recordCount()) {
        return VZDefragFailInternal(error, kSource, kSetIndexLine);
    }
    const std::span<const uint8_t> old = recordAtIndex(index);
    HFSPlusDiskOrder::UInt16 keyLength;
    if (record.size() != old.size() || record.size() < sizeof keyLength) {
        return VZDefragFailInternal(error, kSource, kSetSizeLine);
    }
    std::memcpy(&keyLength, old.data(), sizeof keyLength);
    const size_t keySize = std::min(sizeof keyLength + keyLength, old.size());
    if (std::memcmp(old.data(), record.data(), keySize) != 0) {
        return VZDefragFailInternal(error, kSource, kSetKeyLine);
    }
    std::memcpy(recordDataAtIndex(index), record.data(), record.size());
    _dirty = true;
    return true;
}

bool HFSPlusBTreeNode::insertRecordData(std::span<const uint8_t> record, uint32_t index,
                                        VZDefragErrorSlot error)
{
    const uint16_t count = recordCount();
    if (index > count) {
        return VZDefragFailInternal(error, kSource, kInsertIndexLine);
    }
    if (record.size() + kOffsetSize >= freeSpace()) {
        return VZDefragFailInternal(error, kSource, kInsertSpaceLine);
    }
    const auto size = static_cast<uint16_t>(record.size());
    const uint16_t start = _offsetAtIndex(index);
    std::memmove(_data.get() + start + size, _data.get() + start, _offsetAtIndex(count) - start);
    std::memcpy(_data.get() + start, record.data(), size);
    // From the top down: each entry is written over the one above it, which is no longer needed.
    for (uint32_t moved = count + 1u; moved > index; --moved) {
        _setOffsetAtIndex(moved, static_cast<uint16_t>(_offsetAtIndex(moved - 1) + size));
    }
    _descriptor().numRecords = static_cast<uint16_t>(count + 1);
    _dirty = true;
    return kind() != kBTLeafNode || _btree.incrementLeafRecordCount(error);
}

bool HFSPlusBTreeNode::deleteRecordAtIndex(uint32_t index, VZDefragErrorSlot error)
{
    const uint16_t count = recordCount();
    if (index >= count) {
        return VZDefragFailInternal(error, kSource, kDeleteIndexLine);
    }
    const uint16_t start = _offsetAtIndex(index);
    const uint16_t next = _offsetAtIndex(index + 1);
    std::memmove(_data.get() + start, _data.get() + next, _offsetAtIndex(count) - next);
    // The offsets table stays as it is: every record here has one size, so the entries left over
    // already point where the moved records begin.
    _descriptor().numRecords = static_cast<uint16_t>(count - 1);
    _dirty = true;
    return kind() != kBTLeafNode || _btree.decrementLeafRecordCount(error);
}

bool HFSPlusBTreeNode::flush()
{
    if (!_dirty) {
        return true;
    }
    std::unique_ptr<VZDefragError> failure;
    const bool written = _btree.writeNode(_index, _data.get(), &failure);
    _dirty = false;
    if (!written) {
        KLDebugLog(KLDebugLevel::kWarning, "%@\n", failure->description());
    }
    return written;
}
