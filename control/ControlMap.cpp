#include "ControlMap.h"

#include <algorithm>
#include <numeric>
#include <utility>

uint64_t ControlKindCounts::total() const
{
    return std::accumulate(_blocks.begin(), _blocks.end(), uint64_t{0});
}

ControlKind ControlKindCounts::shownKind() const
{
    const uint64_t inUse = total() - of(ControlKind::kFree);
    if (inUse == 0 || of(ControlKind::kFree) > inUse) {
        return ControlKind::kFree;
    }
    // Of equals the kind that asks for attention is shown.
    ControlKind shown = ControlKind::kFragmented;
    for (const ControlKind kind : {ControlKind::kFixed, ControlKind::kUsed}) {
        if (of(kind) > of(shown)) {
            shown = kind;
        }
    }
    return shown;
}

void ControlKindCounts::add(const ControlKindCounts& other)
{
    for (size_t index = 0; index < kControlKindCount; index++) {
        _blocks[index] += other._blocks[index];
    }
}

ControlMap::ControlMap(uint32_t totalBlocks, size_t sliceLimit)
    : _totalBlocks(totalBlocks),
      _blocksPerSlice(std::max<uint32_t>(
          1, static_cast<uint32_t>((totalBlocks + uint64_t{sliceLimit} - 1) / sliceLimit)))
{
    _slices.resize((uint64_t{totalBlocks} + _blocksPerSlice - 1) / _blocksPerSlice);
    for (size_t index = 0; index < _slices.size(); index++) {
        _slices[index].of(ControlKind::kFree) = _sliceStart(index + 1) - _sliceStart(index);
    }
}

std::optional<ControlMap> ControlMap::withSlices(uint32_t totalBlocks, uint32_t blocksPerSlice,
                                                 std::vector<ControlKindCounts> slices)
{
    if (blocksPerSlice == 0 ||
        slices.size() != (uint64_t{totalBlocks} + blocksPerSlice - 1) / blocksPerSlice) {
        return std::nullopt;
    }
    ControlMap map;
    map._totalBlocks = totalBlocks;
    map._blocksPerSlice = blocksPerSlice;
    for (size_t index = 0; index < slices.size(); index++) {
        uint64_t left = map._sliceStart(index + 1) - map._sliceStart(index);
        // One after the other, since a sum of numbers from elsewhere might wrap.
        for (size_t kind = 0; kind < kControlKindCount; kind++) {
            const uint64_t blocks = slices[index].of(static_cast<ControlKind>(kind));
            if (blocks > left) {
                return std::nullopt;
            }
            left -= blocks;
        }
        if (left != 0) {
            return std::nullopt;
        }
    }
    map._slices = std::move(slices);
    return map;
}

uint64_t ControlMap::_sliceStart(size_t index) const
{
    return std::min<uint64_t>(uint64_t{index} * _blocksPerSlice, _totalBlocks);
}

template <typename Body>
void ControlMap::_forEachSlice(uint32_t start, uint32_t count, Body body)
{
    const uint64_t end = std::min<uint64_t>(uint64_t{start} + count, _totalBlocks);
    for (uint64_t block = start; block < end;) {
        const size_t index = block / _blocksPerSlice;
        const uint64_t sliceEnd = std::min(_sliceStart(index + 1), end);
        body(_slices[index], sliceEnd - block);
        block = sliceEnd;
    }
}

ControlKindCounts ControlMap::totals() const
{
    ControlKindCounts sum;
    for (const ControlKindCounts& slice : _slices) {
        sum.add(slice);
    }
    return sum;
}

void ControlMap::change(uint32_t start, uint32_t count, ControlKind from, ControlKind to)
{
    _forEachSlice(start, count, [&](ControlKindCounts& slice, uint64_t blocks) {
        const uint64_t changed = std::min(blocks, slice.of(from));
        slice.of(from) -= changed;
        slice.of(to) += changed;
    });
}

void ControlMap::move(uint32_t source, uint32_t destination, uint32_t count, bool becomesWhole)
{
    ControlKindCounts moved;
    _forEachSlice(source, count, [&](ControlKindCounts& slice, uint64_t blocks) {
        for (const ControlKind kind :
             {ControlKind::kFragmented, ControlKind::kUsed, ControlKind::kFixed}) {
            const uint64_t taken = std::min(blocks, slice.of(kind));
            slice.of(kind) -= taken;
            slice.of(ControlKind::kFree) += taken;
            moved.of(kind) += taken;
            blocks -= taken;
        }
    });
    if (becomesWhole) {
        moved.of(ControlKind::kUsed) += moved.of(ControlKind::kFragmented);
        moved.of(ControlKind::kFragmented) = 0;
    }
    _forEachSlice(destination, count, [&](ControlKindCounts& slice, uint64_t blocks) {
        blocks = std::min(blocks, slice.of(ControlKind::kFree));
        for (const ControlKind kind :
             {ControlKind::kUsed, ControlKind::kFragmented, ControlKind::kFixed}) {
            const uint64_t given = std::min(blocks, moved.of(kind));
            slice.of(ControlKind::kFree) -= given;
            slice.of(kind) += given;
            moved.of(kind) -= given;
            blocks -= given;
        }
    });
}

ControlMap ControlMap::coarsened(size_t sliceLimit) const
{
    const size_t limit = std::max<size_t>(sliceLimit, 1);
    const size_t merged = std::max<size_t>((_slices.size() + limit - 1) / limit, 1);
    ControlMap map;
    map._totalBlocks = _totalBlocks;
    map._blocksPerSlice =
        static_cast<uint32_t>(std::min<uint64_t>(uint64_t{_blocksPerSlice} * merged, UINT32_MAX));
    map._slices.resize((_slices.size() + merged - 1) / merged);
    for (size_t index = 0; index < _slices.size(); index++) {
        map._slices[index / merged].add(_slices[index]);
    }
    return map;
}

std::vector<ControlKindCounts> ControlMap::cells(size_t count) const
{
    std::vector<ControlKindCounts> cells(count);
    if (count == 0 || _slices.empty()) {
        return cells;
    }
    if (count >= _slices.size()) {
        // More cells than slices: each shows the slice that it lies in.
        for (size_t index = 0; index < count; index++) {
            cells[index] = _slices[index * _slices.size() / count];
        }
        return cells;
    }
    for (size_t index = 0; index < _slices.size(); index++) {
        cells[index * count / _slices.size()].add(_slices[index]);
    }
    return cells;
}

size_t ControlMap::cellOfBlock(uint32_t block, size_t count) const
{
    if (_slices.empty() || count == 0) {
        return 0;
    }
    const size_t slice = std::min<size_t>(block / _blocksPerSlice, _slices.size() - 1);
    if (count >= _slices.size()) {
        // The first cell that shows the slice.
        return (slice * count + _slices.size() - 1) / _slices.size();
    }
    return slice * count / _slices.size();
}

ControlBlockRange ControlMap::blocksOfCell(size_t index, size_t count) const
{
    if (index >= count) {
        return {};
    }
    if (count >= _slices.size()) {
        const size_t slice = index * _slices.size() / count;
        return {.start = _sliceStart(slice), .end = _sliceStart(slice + 1)};
    }
    // The first slice of a cell is the least that cells() adds to it.
    const auto firstSlice = [&](size_t cell) {
        return (cell * _slices.size() + count - 1) / count;
    };
    return {.start = _sliceStart(firstSlice(index)), .end = _sliceStart(firstSlice(index + 1))};
}
