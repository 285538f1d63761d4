#include "support/HFSPlusVolumeBuilderTree.h"

#include <algorithm>
#include <cstring>
#include <numeric>

#include "support/HFSPlusVolumeBuilderBytes.h"

namespace {

constexpr uint16_t kDescriptorSize = 14;
constexpr uint8_t kLeafKind = 0xFF;
constexpr uint8_t kIndexKind = 0;
constexpr uint8_t kHeaderKind = 1;
constexpr uint8_t kMapKind = 2;
constexpr uint32_t kLeastFreeNodes = 8;

uint64_t headerMapBits(uint32_t nodeSize)
{
    return (uint64_t{nodeSize} - 256) * 8;
}

uint64_t mapNodeBits(uint32_t nodeSize)
{
    return (uint64_t{nodeSize} - 20) * 8;
}

uint32_t mapNodesFor(uint64_t totalNodes, uint32_t nodeSize)
{
    const uint64_t covered = headerMapBits(nodeSize);
    if (totalNodes <= covered) {
        return 0;
    }
    return static_cast<uint32_t>((totalNodes - covered + mapNodeBits(nodeSize) - 1) /
                                 mapNodeBits(nodeSize));
}

void putDescriptor(std::vector<uint8_t>& node, uint32_t fLink, uint32_t bLink, uint8_t kind,
                   uint8_t height, size_t numRecords)
{
    putBigEndian(&node[0], fLink, 4);
    putBigEndian(&node[4], bLink, 4);
    node[8] = kind;
    node[9] = height;
    putBigEndian(&node[10], numRecords, 2);
}

void putOffset(std::vector<uint8_t>& node, size_t index, size_t offset)
{
    putBigEndian(&node[node.size() - 2 - 2 * index], offset, 2);
}

}  // namespace

uint32_t HFSPlusBuilderTreePlan::nodeNumber(uint32_t sequence) const
{
    const uint32_t first = 1 + mapNodes;
    if (!shuffled || totalNodes <= first + 1) {
        return first + sequence;
    }
    // A stride without a common factor visits every node once.
    const uint64_t span = totalNodes - first;
    uint64_t stride = span * 5 / 8 + 1;
    while (std::gcd(stride, span) != 1) {
        stride++;
    }
    return static_cast<uint32_t>(first + (sequence + 1) * stride % span);
}

bool HFSPlusBuilderTreePlan::plan(const HFSPlusBuilderTree& shape, uint32_t blockSize)
{
    uint64_t capacity = 0;
    for (const HFSPlusBuilderExtent& extent : shape.extents) {
        capacity += uint64_t{extent.blockCount} * blockSize;
    }
    capacity /= nodeSize;
    const uint64_t total = _totalFor(shape, blockSize, capacity);
    const uint64_t used = uint64_t{1} + mapNodes + treeNodes;
    if (total > UINT32_MAX || used > total || (capacity != 0 && total > capacity)) {
        return false;
    }
    totalNodes = static_cast<uint32_t>(total);
    freeNodes = static_cast<uint32_t>(total - used);
    shuffled = shape.shuffled;
    if (treeNodes != 0) {
        firstLeafNode = nodeNumber(0);
        lastLeafNode = nodeNumber(leafNodes - 1);
        rootNode = nodeNumber(treeNodes - 1);
    }
    return true;
}

uint64_t HFSPlusBuilderTreePlan::_totalFor(const HFSPlusBuilderTree& shape, uint32_t blockSize,
                                           uint64_t capacity)
{
    const uint32_t wishedFree = shape.freeNodes.value_or(std::max(kLeastFreeNodes, treeNodes / 4));
    uint64_t total = shape.totalNodes.value_or(0);
    if (total == 0 && !shape.freeNodes.has_value()) {
        total = capacity;
    }
    if (total != 0) {
        mapNodes = mapNodesFor(total, nodeSize);
    } else {
        const uint64_t nodesPerBlock = std::max(1U, blockSize / nodeSize);
        // The map grows with the nodes it covers, its own included; each turn adds at least one.
        uint64_t settled = 0;
        do {
            settled = total;
            mapNodes = mapNodesFor(settled, nodeSize);
            total = uint64_t{1} + mapNodes + treeNodes + wishedFree;
            if (!shape.freeNodes.has_value()) {
                total = (total + nodesPerBlock - 1) / nodesPerBlock * nodesPerBlock;
            }
        } while (total != settled);
    }
    return total;
}

HFSPlusVolumeBuilderTree::HFSPlusVolumeBuilderTree(const HFSPlusBuilderTree& shape,
                                                   HFSPlusBuilderTreePlan& plan, NodeOutput output)
    : _shape(shape), _plan(plan), _output(std::move(output)), _node(plan.nodeSize)
{
    _plan.leafRecords = 0;
}

bool HFSPlusVolumeBuilderTree::add(std::span<const uint8_t> key, std::span<const uint8_t> data)
{
    _plan.leafRecords++;
    const bool isLone = _sequence <= _shape.loneLeafRecords;
    return _put(key, data, isLone ? 1 : _shape.maximumLeafRecords);
}

bool HFSPlusVolumeBuilderTree::finish()
{
    if (_sequence == 0) {
        _plan.treeNodes = 0;
        _plan.leafNodes = 0;
        return true;
    }
    _plan.firstLeafNode = _plan.nodeNumber(0);
    _plan.lastLeafNode = _plan.nodeNumber(_sequence - 1);
    _plan.leafNodes = _sequence;
    if (!_endNode(true)) {
        return false;
    }
    while (_firstKeys.size() > 1) {  // each level has fewer nodes than the one below
        const auto children = std::move(_firstKeys);
        _firstKeys.clear();
        _height++;
        _previous = 0;
        for (const auto& [key, child] : children) {
            std::array<uint8_t, 4> number{};
            putBigEndian(number.data(), child, 4);
            const std::span bytes(reinterpret_cast<const uint8_t*>(key.data()), key.size());
            if (!_put(bytes, number, std::max(2U, _shape.maximumIndexRecords))) {
                return false;
            }
        }
        if (!_endNode(true) || _firstKeys.size() >= children.size()) {
            return false;
        }
    }
    _plan.treeNodes = _sequence;
    _plan.rootNode = _plan.nodeNumber(_sequence - 1);
    _plan.treeDepth = _height;
    return true;
}

bool HFSPlusVolumeBuilderTree::writeHeader(const HFSPlusBuilderTreeKind& kind)
{
    const std::vector<uint8_t> map = _map();
    const size_t headerBytes = _plan.nodeSize - 256;
    std::vector<uint8_t> node(_plan.nodeSize);
    putDescriptor(node, _plan.mapNodes != 0 ? 1 : 0, 0, kHeaderKind, 0, 3);
    HFSPlusVolumeBuilderBytes record;
    record.put16(_plan.treeDepth);
    record.put32(_plan.rootNode);
    record.put32(_plan.leafRecords);
    record.put32(_plan.firstLeafNode);
    record.put32(_plan.lastLeafNode);
    record.put16(static_cast<uint16_t>(_plan.nodeSize));
    record.put16(kind.maxKeyLength);
    record.put32(_plan.totalNodes);
    record.put32(_plan.freeNodes);
    record.put16(0);
    record.put32(0);  // clumpSize is not used
    record.put8(0);
    record.put8(kind.keyCompareType);
    record.put32(kind.attributes);
    std::ranges::copy(record.bytes(), node.begin() + kDescriptorSize);
    const size_t count = std::min(map.size(), headerBytes);
    std::copy_n(map.begin(), count, node.begin() + 248);
    putOffset(node, 0, kDescriptorSize);
    putOffset(node, 1, 120);
    putOffset(node, 2, 248);
    putOffset(node, 3, node.size() - 8);
    return _output(0, node) && _writeMapNodes(std::span(map).subspan(count));
}

bool HFSPlusVolumeBuilderTree::_put(std::span<const uint8_t> key, std::span<const uint8_t> data,
                                    uint32_t maximumRecords)
{
    const size_t size = (key.size() + data.size() + 1) / 2 * 2;
    const size_t start = _nodeOpen ? _offsets.back() : 0;
    // Behind the record an offset for it and one for the free space must still fit.
    const size_t end = start + size + 2 * (_offsets.size() + 1);
    if (_nodeOpen && (end > _plan.nodeSize || _offsets.size() > maximumRecords)) {
        if (!_endNode(false)) {
            return false;
        }
    }
    if (!_nodeOpen) {
        _startNode(key);
    }
    const size_t target = _offsets.back();
    if (target + size + 2 * (_offsets.size() + 1) > _plan.nodeSize) {
        return false;
    }
    std::ranges::copy(key, _node.begin() + static_cast<ptrdiff_t>(target));
    std::ranges::copy(data, _node.begin() + static_cast<ptrdiff_t>(target + key.size()));
    _offsets.push_back(static_cast<uint16_t>(target + size));
    return true;
}

void HFSPlusVolumeBuilderTree::_startNode(std::span<const uint8_t> key)
{
    _node.assign(_plan.nodeSize, 0);
    _offsets.assign(1, kDescriptorSize);
    _firstKeys.emplace_back(std::string(key.begin(), key.end()), _plan.nodeNumber(_sequence));
    _sequence++;
    _nodeOpen = true;
}

bool HFSPlusVolumeBuilderTree::_endNode(bool isLast)
{
    const uint32_t number = _plan.nodeNumber(_sequence - 1);
    putDescriptor(_node, isLast ? 0 : _plan.nodeNumber(_sequence), _previous,
                  _height == 1 ? kLeafKind : kIndexKind, _height, _offsets.size() - 1);
    for (size_t index = 0; index < _offsets.size(); index++) {
        putOffset(_node, index, _offsets[index]);
    }
    _previous = number;
    _nodeOpen = false;
    return _output == nullptr || _output(number, _node);
}

std::vector<uint8_t> HFSPlusVolumeBuilderTree::_map() const
{
    const uint64_t bits =
        headerMapBits(_plan.nodeSize) + _plan.mapNodes * mapNodeBits(_plan.nodeSize);
    std::vector<uint8_t> map(bits / 8);
    const auto use = [&](uint32_t node) {
        map[node / 8] = static_cast<uint8_t>(map[node / 8] | 0x80U >> (node % 8));
    };
    for (uint32_t node = 0; node <= _plan.mapNodes; node++) {
        use(node);
    }
    for (uint32_t sequence = 0; sequence < _plan.treeNodes; sequence++) {
        use(_plan.nodeNumber(sequence));
    }
    return map;
}

bool HFSPlusVolumeBuilderTree::_writeMapNodes(std::span<const uint8_t> map)
{
    const size_t bytes = _plan.nodeSize - 20;
    for (uint32_t number = 1; number <= _plan.mapNodes; number++) {
        std::vector<uint8_t> node(_plan.nodeSize);
        putDescriptor(node, number < _plan.mapNodes ? number + 1 : 0, 0, kMapKind, 0, 1);
        std::ranges::copy(map.subspan((number - 1) * bytes, bytes), node.begin() + kDescriptorSize);
        putOffset(node, 0, kDescriptorSize);
        putOffset(node, 1, kDescriptorSize + bytes);
        if (!_output(number, node)) {
            return false;
        }
    }
    return true;
}
