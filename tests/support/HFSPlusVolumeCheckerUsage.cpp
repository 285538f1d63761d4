#include "support/HFSPlusVolumeCheckerUsage.h"

#include <algorithm>
#include <bit>

namespace {

constexpr uint64_t kChunkSize = uint64_t{1} << 20;  // bytes of the bitmap looked at together

uint64_t endOf(const HFSPlusCheckUsage::Run& run)
{
    return uint64_t{run.startBlock} + run.blockCount;
}

std::string nameOf(const HFSPlusCheckUsage::Run& run)
{
    switch (run.owner) {
        case HFSPlusCheckOwner::kReserved:
            return "the reserved blocks";
        case HFSPlusCheckOwner::kAttribute:
            return "an attribute of file " + std::to_string(run.cnid);
        case HFSPlusCheckOwner::kFork:
            break;
    }
    return checkedForkName(run.cnid, run.forkType);
}

bool bitAt(const std::vector<uint8_t>& bits, uint64_t index)
{
    return (bits[index / 8] >> (7 - index % 8) & 1) != 0;
}

void setBits(std::vector<uint8_t>& bits, uint64_t first, uint64_t end)
{
    while (first < end && first % 8 != 0) {
        bits[first / 8] = static_cast<uint8_t>(bits[first / 8] | (0x80 >> first % 8));
        ++first;
    }
    if (end - first >= 8) {
        std::memset(bits.data() + first / 8, 0xFF, (end - first) / 8);
        first += (end - first) / 8 * 8;
    }
    while (first < end) {
        bits[first / 8] = static_cast<uint8_t>(bits[first / 8] | (0x80 >> first % 8));
        ++first;
    }
}

}  // namespace

void HFSPlusCheckUsage::addReserved()
{
    const uint32_t blockSize = _volume.blockSize;
    const uint32_t frontCount = (1536 + blockSize - 1) / blockSize;
    const uint32_t backCount = blockSize == 512 ? 2 : 1;
    add({0, frontCount}, 0, 0, HFSPlusCheckOwner::kReserved);
    add({_volume.totalBlocks - backCount, backCount}, 0, 0, HFSPlusCheckOwner::kReserved);
}

void HFSPlusCheckUsage::add(const HFSPlusCheckedExtent& extent, uint32_t cnid, uint8_t forkType,
                            HFSPlusCheckOwner owner)
{
    const Run run = {extent.startBlock, extent.blockCount, cnid, forkType, owner};
    if (extent.blockCount == 0 || endOf(run) > _volume.totalBlocks) {
        _volume.problems.report("extent %u+%u of %s is not on the volume", extent.startBlock,
                                extent.blockCount, nameOf(run).c_str());
        return;
    }
    _runs.push_back(run);
}

void HFSPlusCheckUsage::checkOverlaps()
{
    std::sort(_runs.begin(), _runs.end(), [](const Run& left, const Run& right) {
        return left.startBlock != right.startBlock ? left.startBlock < right.startBlock
                                                   : left.blockCount < right.blockCount;
    });
    // The run reaching furthest is the one that a later run can meet.
    size_t furthest = 0;
    for (size_t index = 1; index < _runs.size(); ++index) {
        const Run& run = _runs[index];
        const Run& other = _runs[furthest];
        if (run.startBlock < endOf(other)) {
            _volume.problems.report("extent %u+%u of %s overlaps %u+%u of %s", run.startBlock,
                                    run.blockCount, nameOf(run).c_str(), other.startBlock,
                                    other.blockCount, nameOf(other).c_str());
        }
        if (endOf(run) > endOf(other)) {
            furthest = index;
        }
    }
}

const HFSPlusCheckUsage::Run* HFSPlusCheckUsage::runWithBlock(uint32_t block) const
{
    auto after =
        std::upper_bound(_runs.begin(), _runs.end(), block,
                         [](uint32_t value, const Run& run) { return value < run.startBlock; });
    if (after == _runs.begin() || block >= endOf(*std::prev(after))) {
        return nullptr;
    }
    return &*std::prev(after);
}

void HFSPlusCheckUsage::_fill(std::vector<uint8_t>& bits, uint64_t firstBlock, size_t& next) const
{
    const uint64_t endBlock = firstBlock + bits.size() * 8;
    while (next < _runs.size() && _runs[next].startBlock < endBlock) {
        const uint64_t start = std::max<uint64_t>(_runs[next].startBlock, firstBlock);
        const uint64_t end = std::min(endOf(_runs[next]), endBlock);
        if (start < end) {
            setBits(bits, start - firstBlock, end - firstBlock);
        }
        if (endOf(_runs[next]) > endBlock) {
            break;  // it goes on in the next chunk
        }
        ++next;
    }
}

uint32_t HFSPlusCheckUsage::checkBitmap(const HFSPlusCheckedFork& allocationFile)
{
    const uint64_t size = allocationFile.logicalSize;
    const uint64_t neededSize = (uint64_t{_volume.totalBlocks} + 7) / 8;
    if (size < neededSize) {
        _volume.problems.report("the allocation file has %llu bytes for %u blocks",
                                static_cast<unsigned long long>(size), _volume.totalBlocks);
    }
    HFSPlusCheckForkStream stream(_volume, allocationFile);
    uint64_t usedCount = 0;
    size_t next = 0;
    std::vector<uint8_t> found;
    std::vector<uint8_t> expected;
    // A read beyond the fork's blocks fails, so the loop ends with them at the latest.
    for (uint64_t offset = 0; offset < size; offset += found.size()) {
        found.resize(static_cast<size_t>(std::min(kChunkSize, size - offset)));
        if (!stream.read(found.data(), found.size(), offset)) {
            _volume.problems.report("the bitmap cannot be read at byte %llu",
                                    static_cast<unsigned long long>(offset));
            break;
        }
        expected.assign(found.size(), 0);
        _fill(expected, offset * 8, next);
        if (found != expected) {
            _reportDifferences(found, expected, offset * 8);
        }
        for (uint64_t index = 0; index < found.size(); ++index) {
            if (found[index] != 0 && offset + index < neededSize) {
                usedCount += static_cast<uint64_t>(std::popcount(found[index]));
            }
        }
    }
    return static_cast<uint32_t>(_volume.totalBlocks -
                                 std::min<uint64_t>(usedCount, _volume.totalBlocks));
}

void HFSPlusCheckUsage::_reportDifferences(const std::vector<uint8_t>& found,
                                           const std::vector<uint8_t>& expected,
                                           uint64_t firstBlock)
{
    const uint64_t count = uint64_t{found.size()} * 8;
    uint64_t index = 0;
    while (index < count) {
        if (index % 8 == 0 && found[index / 8] == expected[index / 8]) {
            index += 8;
            continue;
        }
        const bool isSet = bitAt(found, index);
        if (isSet == bitAt(expected, index)) {
            ++index;
            continue;
        }
        const uint64_t start = index;
        while (index < count && bitAt(found, index) == isSet && bitAt(expected, index) != isSet) {
            ++index;
        }
        const unsigned long long block = firstBlock + start;
        const unsigned long long run = index - start;
        if (firstBlock + start >= _volume.totalBlocks) {
            _volume.problems.report("the bitmap marks %llu bits beyond the volume from %llu", run,
                                    block);
        } else if (isSet) {
            _volume.problems.report("the bitmap marks blocks %llu+%llu that nothing uses", block,
                                    run);
        } else {
            const Run* owner = runWithBlock(static_cast<uint32_t>(block));
            _volume.problems.report("the bitmap shows blocks %llu+%llu free that %s uses", block,
                                    run, owner != nullptr ? nameOf(*owner).c_str() : "something");
        }
    }
}
