#include "support/HFSPlusVolumeCheckerTree.h"

#include <algorithm>
#include <bit>

namespace {

constexpr size_t kDescriptorSize = 14;
constexpr uint32_t kMaximumDepth = 16;
constexpr uint8_t kLeafKind = 0xFF;
constexpr uint8_t kIndexKind = 0;
constexpr uint8_t kHeaderKind = 1;
constexpr uint8_t kMapKind = 2;
constexpr uint32_t kBigKeys = 2;

bool isZero(const std::vector<uint8_t>& bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

}  // namespace

std::span<const uint8_t> HFSPlusCheckTree::Level::keyAt(size_t index) const
{
    const size_t start = index == 0 ? 0 : keyEnds[index - 1];
    return std::span(keys).subspan(start, keyEnds[index] - start);
}

HFSPlusCheckTree::HFSPlusCheckTree(const HFSPlusCheckedVolume& volume,
                                   const HFSPlusCheckKeyRule& rule, const HFSPlusCheckedFork& fork)
    : _volume(volume),
      _problems(volume.problems),
      _rule(rule),
      _fork(fork),
      _name(rule.treeName()),
      _stream(volume, fork)
{
}

uint32_t HFSPlusCheckTree::_offsetAt(size_t index) const
{
    return checkedUInt16(_node.data() + _node.size() - 2 - 2 * index);
}

bool HFSPlusCheckTree::_readNode(uint32_t number)
{
    if (_stream.read(_node.data(), _node.size(), uint64_t{number} * _header.nodeSize)) {
        return true;
    }
    _problems.report("%s tree: node %u cannot be read", _name, number);
    return false;
}

bool HFSPlusCheckTree::_readHeader()
{
    // The node size is in the first 512 bytes of node 0, whatever it is.
    uint8_t start[512];
    if (!_stream.read(start, sizeof(start), 0)) {
        _problems.report("%s tree: the header record cannot be read", _name);
        return false;
    }
    _header.treeDepth = checkedUInt16(start + 14);
    _header.rootNode = checkedUInt32(start + 16);
    _header.leafRecords = checkedUInt32(start + 20);
    _header.firstLeafNode = checkedUInt32(start + 24);
    _header.lastLeafNode = checkedUInt32(start + 28);
    _header.nodeSize = checkedUInt16(start + 32);
    _header.totalNodes = checkedUInt32(start + 36);
    _header.freeNodes = checkedUInt32(start + 40);
    if (checkedUInt16(start + 34) != _rule.maxKeyLength()) {
        _problems.report("%s tree: maxKeyLength is %u, not %u", _name, checkedUInt16(start + 34),
                         _rule.maxKeyLength());
    }
    if (start[50] != 0) {
        _problems.report("%s tree: btreeType is %u", _name, start[50]);
    }
    const uint32_t attributes = checkedUInt32(start + 52);
    if ((attributes & (_rule.treeAttributes() | kBigKeys)) != _rule.treeAttributes()) {
        _problems.report("%s tree: attributes are 0x%X", _name, attributes);
        return false;
    }
    return _checkSizes();
}

bool HFSPlusCheckTree::_checkSizes()
{
    const uint32_t nodeSize = _header.nodeSize;
    if (!std::has_single_bit(nodeSize) || nodeSize < _rule.minimumNodeSize() || nodeSize > 32768) {
        _problems.report("%s tree: nodeSize is %u", _name, nodeSize);
        return false;
    }
    const uint64_t size = uint64_t{_header.totalNodes} * nodeSize;
    if (_header.totalNodes == 0 || size != _fork.logicalSize) {
        _problems.report("%s tree: %u nodes of %u bytes are not its logicalSize %llu", _name,
                         _header.totalNodes, nodeSize,
                         static_cast<unsigned long long>(_fork.logicalSize));
    }
    // Sizes the memory of the walk, so it must not exceed what the fork's blocks can hold.
    uint64_t blockCount = 0;
    for (const HFSPlusCheckedExtent& extent : _fork.extents) {
        blockCount += extent.blockCount;
    }
    if (_header.totalNodes == 0 || size > blockCount * _volume.blockSize || size > _volume.size) {
        _problems.report("%s tree: %u nodes of %u bytes do not fit its blocks", _name,
                         _header.totalNodes, nodeSize);
        return false;
    }
    if (_header.treeDepth > kMaximumDepth) {
        _problems.report("%s tree: treeDepth is %u", _name, _header.treeDepth);
        return false;
    }
    return true;
}

void HFSPlusCheckTree::check(HFSPlusCheckLeafVisitor& visitor)
{
    if (!_readHeader()) {
        return;
    }
    _node.resize(_header.nodeSize);
    _visited.assign(_header.totalNodes, false);
    _visited[0] = true;
    _checkHeaderNode();
    _checkExtentsHoldWholeNodes();
    if (_header.treeDepth == 0) {
        _checkEmpty();
    } else {
        Level level;
        level.nodes.push_back(_header.rootNode);
        // The heights fall to 1, which ends the walk.
        for (uint32_t height = _header.treeDepth; height > 0; --height) {
            Level children;
            _lastKey.clear();
            _checkLevel(level, height, children, visitor);
            level = std::move(children);
        }
        if (_leafRecords != _header.leafRecords) {
            _problems.report("%s tree: leafRecords is %u, the leaves hold %llu", _name,
                             _header.leafRecords, static_cast<unsigned long long>(_leafRecords));
        }
    }
    _checkMap();
}

void HFSPlusCheckTree::_checkHeaderNode()
{
    if (!_readNode(0)) {
        return;
    }
    const uint8_t* node = _node.data();
    if (node[8] != kHeaderKind || node[9] != 0 || checkedUInt16(node + 10) != 3 ||
        checkedUInt32(node + 4) != 0) {
        _problems.report("%s tree: node 0 is no header node", _name);
    }
    if (_offsetAt(0) != 14 || _offsetAt(1) != 120 || _offsetAt(2) != 248 ||
        _offsetAt(3) != _header.nodeSize - 8) {
        _problems.report("%s tree: the record offsets of the header node are wrong", _name);
    }
}

void HFSPlusCheckTree::_checkEmpty()
{
    if (_header.rootNode != 0 || _header.leafRecords != 0 || _header.firstLeafNode != 0 ||
        _header.lastLeafNode != 0) {
        _problems.report("%s tree: its depth is 0 but it is not empty", _name);
    }
}

void HFSPlusCheckTree::_checkExtentsHoldWholeNodes()
{
    if (!_volume.isJournaled || _header.nodeSize <= _volume.blockSize) {
        return;
    }
    const uint32_t nodeBlocks = _header.nodeSize / _volume.blockSize;
    for (const HFSPlusCheckedExtent& extent : _fork.extents) {
        if (extent.blockCount % nodeBlocks != 0) {
            _problems.report("%s tree: a node is split at the end of extent %u+%u", _name,
                             extent.startBlock, extent.blockCount);
        }
    }
}

void HFSPlusCheckTree::_checkLevel(const Level& level, uint32_t height, Level& children,
                                   HFSPlusCheckLeafVisitor& visitor)
{
    for (size_t index = 0; index < level.nodes.size(); ++index) {
        const uint32_t number = level.nodes[index];
        if (number == 0 || number >= _header.totalNodes) {
            _problems.report("%s tree: node number %u on level %u is out of range", _name, number,
                             height);
            continue;
        }
        if (_visited[number]) {
            _problems.report("%s tree: node %u is reached twice", _name, number);
            continue;
        }
        _visited[number] = true;
        if (!_readNode(number)) {
            continue;
        }
        if (_node[8] != (height == 1 ? kLeafKind : kIndexKind) || _node[9] != height) {
            _problems.report("%s tree: node %u on level %u has kind 0x%02X and height %u", _name,
                             number, height, _node[8], _node[9]);
            continue;
        }
        _checkLinks(level, index);
        if (_checkOffsets(number)) {
            _checkRecords(level, index, height, children, visitor);
        }
    }
    if (height == 1 && !level.nodes.empty() &&
        (_header.firstLeafNode != level.nodes.front() ||
         _header.lastLeafNode != level.nodes.back())) {
        _problems.report("%s tree: the leaves run from node %u to %u, the header says %u to %u",
                         _name, level.nodes.front(), level.nodes.back(), _header.firstLeafNode,
                         _header.lastLeafNode);
    }
}

void HFSPlusCheckTree::_checkLinks(const Level& level, size_t index)
{
    const uint32_t number = level.nodes[index];
    const uint32_t next = index + 1 < level.nodes.size() ? level.nodes[index + 1] : 0;
    const uint32_t previous = index > 0 ? level.nodes[index - 1] : 0;
    if (checkedUInt32(_node.data()) != next) {
        _problems.report("%s tree: fLink of node %u is %u, not %u", _name, number,
                         checkedUInt32(_node.data()), next);
    }
    if (checkedUInt32(_node.data() + 4) != previous) {
        _problems.report("%s tree: bLink of node %u is %u, not %u", _name, number,
                         checkedUInt32(_node.data() + 4), previous);
    }
}

bool HFSPlusCheckTree::_checkOffsets(uint32_t number)
{
    const size_t count = checkedUInt16(_node.data() + 10);
    if (count == 0) {
        _problems.report("%s tree: node %u holds no record", _name, number);
        return false;
    }
    if (kDescriptorSize + 2 * (count + 1) > _node.size()) {
        _problems.report("%s tree: node %u cannot hold %zu records", _name, number, count);
        return false;
    }
    const size_t limit = _node.size() - 2 * (count + 1);
    bool sound = _offsetAt(0) == kDescriptorSize && _offsetAt(count) <= limit;
    for (size_t index = 0; index < count; ++index) {
        sound = sound && _offsetAt(index + 1) > _offsetAt(index) && _offsetAt(index + 1) % 2 == 0;
    }
    if (!sound) {
        _problems.report("%s tree: the record offsets of node %u are wrong", _name, number);
    }
    return sound;
}

size_t HFSPlusCheckTree::_keySize(std::span<const uint8_t> record) const
{
    // Records have at least two bytes: their offsets are even and ascend.
    const size_t size = size_t{2} + checkedUInt16(record.data());
    if (size > record.size() || size - 2 > _rule.maxKeyLength() || size % 2 != 0 ||
        !_rule.isValid(record.first(size))) {
        return 0;
    }
    return size;
}

void HFSPlusCheckTree::_checkRecords(const Level& level, size_t index, uint32_t height,
                                     Level& children, HFSPlusCheckLeafVisitor& visitor)
{
    const uint32_t number = level.nodes[index];
    const size_t count = checkedUInt16(_node.data() + 10);
    const std::span<const uint8_t> node(_node);
    for (size_t record = 0; record < count; ++record) {
        const size_t start = _offsetAt(record);
        const auto bytes = node.subspan(start, _offsetAt(record + 1) - start);
        const size_t keySize = _keySize(bytes);
        if (height == 1) {
            ++_leafRecords;
        }
        if (keySize == 0) {
            _problems.report("%s tree: the key of record %zu in node %u is malformed", _name,
                             record, number);
            continue;
        }
        const auto key = bytes.first(keySize);
        if (record == 0 && !level.keyEnds.empty() && _rule.compare(key, level.keyAt(index)) != 0) {
            _problems.report("%s tree: the index key of node %u is not its first key", _name,
                             number);
        }
        _checkKeyOrder(key, number, record);
        if (height > 1) {
            _addChild(bytes, keySize, number, children);
        } else {
            visitor.visitRecord(key, bytes.subspan(keySize));
        }
    }
}

void HFSPlusCheckTree::_checkKeyOrder(std::span<const uint8_t> key, uint32_t number, size_t record)
{
    if (!_lastKey.empty() && _rule.compare(_lastKey, key) >= 0) {
        _problems.report("%s tree: the key of record %zu in node %u does not ascend", _name, record,
                         number);
    }
    _lastKey.assign(key.begin(), key.end());
}

void HFSPlusCheckTree::_addChild(std::span<const uint8_t> record, size_t keySize, uint32_t number,
                                 Level& children)
{
    if (record.size() != keySize + 4) {
        _problems.report("%s tree: an index record of node %u has %zu bytes", _name, number,
                         record.size());
        return;
    }
    children.nodes.push_back(checkedUInt32(record.data() + keySize));
    children.keys.insert(children.keys.end(), record.begin(),
                         record.begin() + static_cast<std::ptrdiff_t>(keySize));
    children.keyEnds.push_back(children.keys.size());
}

void HFSPlusCheckTree::_readMapNodes(std::vector<uint8_t>& map)
{
    uint32_t number = checkedUInt32(_node.data());
    // A node is taken once, so the chain ends.
    while (number != 0) {
        if (number >= _header.totalNodes || _visited[number]) {
            _problems.report("%s tree: the map nodes lead to node %u", _name, number);
            return;
        }
        _visited[number] = true;
        if (!_readNode(number)) {
            return;
        }
        const uint8_t* node = _node.data();
        const size_t mapSize = _node.size() - 20;
        if (node[8] != kMapKind || node[9] != 0 || checkedUInt32(node + 4) != 0 ||
            checkedUInt16(node + 10) != 1 || _offsetAt(0) != kDescriptorSize ||
            _offsetAt(1) != kDescriptorSize + mapSize) {
            _problems.report("%s tree: node %u is no sound map node", _name, number);
            return;
        }
        map.insert(map.end(), node + kDescriptorSize, node + kDescriptorSize + mapSize);
        number = checkedUInt32(node);
    }
}

void HFSPlusCheckTree::_checkMap()
{
    if (!_readNode(0)) {
        return;
    }
    std::vector<uint8_t> map(_node.begin() + 248,
                             _node.begin() + static_cast<std::ptrdiff_t>(_node.size() - 8));
    _readMapNodes(map);
    if (map.size() * 8 < _header.totalNodes) {
        _problems.report("%s tree: the map covers %zu of %u nodes", _name, map.size() * 8,
                         _header.totalNodes);
        return;
    }
    uint32_t freeCount = 0;
    for (size_t number = 0; number < map.size() * 8; ++number) {
        const bool isMarked = (map[number / 8] >> (7 - number % 8) & 1) != 0;
        const bool isUsed = number < _header.totalNodes && _visited[number];
        if (isMarked != isUsed) {
            _problems.report("%s tree: node %zu is %s but marked %s", _name, number,
                             isUsed ? "in use" : "not in use", isMarked ? "used" : "free");
        }
        if (!isMarked && number < _header.totalNodes) {
            ++freeCount;
            _checkUnusedNode(static_cast<uint32_t>(number));
        }
    }
    if (freeCount != _header.freeNodes) {
        _problems.report("%s tree: freeNodes is %u, the map says %u", _name, _header.freeNodes,
                         freeCount);
    }
}

void HFSPlusCheckTree::_checkUnusedNode(uint32_t number)
{
    if (_volume.unusedNodesAreZero && !_visited[number] && _readNode(number) && !isZero(_node)) {
        _problems.report("%s tree: unused node %u is not zero", _name, number);
    }
}
