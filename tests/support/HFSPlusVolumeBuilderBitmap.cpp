#include "support/HFSPlusVolumeBuilderBitmap.h"

#include <algorithm>
#include <bit>

bool HFSPlusVolumeBuilderBitmap::isFree(uint32_t start, uint32_t count) const
{
    const uint64_t end = uint64_t{start} + count;
    if (end > _totalBlocks) {
        return false;
    }
    uint64_t block = start;
    while (block < end) {
        bool used = false;
        const uint32_t length = _runAt(static_cast<uint32_t>(block), end, used);
        if (used) {
            return false;
        }
        block += length;
    }
    return true;
}

void HFSPlusVolumeBuilderBitmap::use(uint32_t start, uint32_t count)
{
    const uint64_t end = std::min<uint64_t>(uint64_t{start} + count, _totalBlocks);
    uint64_t block = start;
    while (block < end) {
        std::vector<uint8_t>& page = _pages[static_cast<uint32_t>(block / kPageBlocks)];
        page.resize(kPageBytes);
        const uint64_t pageEnd = std::min(end, (block / kPageBlocks + 1) * kPageBlocks);
        while (block < pageEnd) {
            uint8_t& byte = page[block % kPageBlocks / 8];
            if (block % 8 == 0 && pageEnd - block >= 8) {
                byte = 0xFF;
                block += 8;
            } else {
                byte = static_cast<uint8_t>(byte | 0x80U >> (block % 8));
                block++;
            }
        }
    }
}

std::optional<uint32_t> HFSPlusVolumeBuilderBitmap::findRun(uint32_t count, uint32_t from) const
{
    uint64_t start = from;
    uint64_t block = from;
    while (block < _totalBlocks && block - start < count) {
        bool used = false;
        block += _runAt(static_cast<uint32_t>(block), _totalBlocks, used);
        if (used) {
            start = block;
        }
    }
    if (start + count > _totalBlocks) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(start);
}

uint32_t HFSPlusVolumeBuilderBitmap::freeBlocks() const
{
    uint32_t used = 0;
    for (const auto& [number, page] : _pages) {
        for (const uint8_t byte : page) {
            used += static_cast<uint32_t>(std::popcount(byte));
        }
    }
    return _totalBlocks - used;
}

bool HFSPlusVolumeBuilderBitmap::visit(const Visitor& visitor) const
{
    return std::ranges::all_of(_pages, [&](const auto& item) {
        const uint64_t offset = uint64_t{item.first} * kPageBytes;
        const uint64_t size =
            std::min<uint64_t>(kPageBytes, (uint64_t{_totalBlocks} + 7) / 8 - offset);
        return visitor(offset, std::span(item.second).first(size));
    });
}

uint32_t HFSPlusVolumeBuilderBitmap::_runAt(uint32_t block, uint64_t limit, bool& used) const
{
    const uint64_t pageEnd = (uint64_t{block} / kPageBlocks + 1) * kPageBlocks;
    const uint64_t end = std::min(pageEnd, limit);
    const auto found = _pages.find(block / kPageBlocks);
    if (found == _pages.end()) {
        used = false;
        return static_cast<uint32_t>(end - block);
    }
    const auto isUsed = [&](uint64_t number) {
        return (found->second[number % kPageBlocks / 8] & 0x80U >> (number % 8)) != 0;
    };
    used = isUsed(block);
    const uint8_t whole = used ? 0xFF : 0;
    uint64_t next = uint64_t{block} + 1;
    while (next < end) {
        if (next % 8 == 0 && end - next >= 8 && found->second[next % kPageBlocks / 8] == whole) {
            next += 8;
        } else if (isUsed(next) == used) {
            next++;
        } else {
            break;
        }
    }
    return static_cast<uint32_t>(next - block);
}
