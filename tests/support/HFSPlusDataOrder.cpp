#include "support/HFSPlusDataOrder.h"

#include <algorithm>
#include <array>
#include <ostream>

namespace {

constexpr uint32_t kBadBlocksFile = 5;
constexpr uint32_t kAllocationFile = 6;
constexpr uint32_t kStartupFile = 7;
constexpr uint32_t kJournaled = 1 << 13;        // of the volume's attributes
constexpr uint64_t kJournalOffsetInBlock = 36;  // TN1150, "Journal Info Block"

uint64_t endOf(const HFSPlusCheckedExtent& extent)
{
    return uint64_t{extent.startBlock} + extent.blockCount;
}

bool holdsBlock(const HFSPlusCheckedFork& fork, uint64_t block)
{
    return std::ranges::any_of(fork.extents, [&](const HFSPlusCheckedExtent& extent) {
        return extent.startBlock <= block && block < endOf(extent);
    });
}

/** The blocks by which the files of the journal are known. */
std::vector<uint64_t> journalBlocks(HFSPlusCheckReader& reader, const HFSPlusCheckResult& result)
{
    if ((result.attributes & kJournaled) == 0 || result.blockSize == 0) {
        return {};
    }
    const uint64_t info = result.journalInfoBlock;
    std::array<uint8_t, 8> bytes = {};
    if (!reader.read(bytes.data(), bytes.size(),
                     result.volumeOffset + info * result.blockSize + kJournalOffsetInBlock)) {
        return {info};
    }
    uint64_t offset = 0;
    for (const uint8_t byte : bytes) {
        offset = offset << 8 | byte;
    }
    return {info, offset / result.blockSize};
}

/** The runs of clear bits in the bitmap. */
std::vector<HFSPlusCheckedExtent> freeRuns(HFSPlusCheckReader& reader,
                                           const HFSPlusCheckResult& result)
{
    std::vector<HFSPlusCheckedExtent> runs;
    const HFSPlusCheckedFork* const bitmap = result.forkWithCNID(kAllocationFile);
    uint32_t block = 0;
    for (size_t index = 0; bitmap != nullptr && index < bitmap->extents.size(); ++index) {
        const HFSPlusCheckedExtent& extent = bitmap->extents[index];
        std::vector<uint8_t> bytes(uint64_t{extent.blockCount} * result.blockSize);
        if (!reader.read(bytes.data(), bytes.size(),
                         result.volumeOffset + uint64_t{extent.startBlock} * result.blockSize)) {
            return {};
        }
        for (size_t bit = 0; bit < bytes.size() * 8 && block < result.totalBlocks; ++bit, ++block) {
            if ((bytes[bit / 8] & (0x80U >> bit % 8)) != 0) {
                continue;
            }
            if (!runs.empty() && endOf(runs.back()) == block) {
                ++runs.back().blockCount;
            } else {
                runs.push_back({block, 1});
            }
        }
    }
    return runs;
}

/** The blocks of the largest thing on the volume that may not be parted. */
uint32_t largestUnit(const HFSPlusCheckResult& result)
{
    const uint32_t largestNode = std::max(
        {result.catalog.nodeSize, result.extents.nodeSize, result.attributesTree.nodeSize});
    return (result.attributes & kJournaled) == 0
               ? 1
               : std::max(largestNode / std::max(result.blockSize, 1U), 1U);
}

}  // namespace

std::vector<HFSPlusCheckedFork> movableForks(HFSPlusCheckReader& reader,
                                             const HFSPlusCheckResult& result)
{
    const std::vector<uint64_t> journal = journalBlocks(reader, result);
    std::vector<HFSPlusCheckedFork> movable;
    for (const HFSPlusCheckedFork& fork : result.forks) {
        const bool isFixed =
            fork.cnid == kBadBlocksFile || fork.cnid == kStartupFile ||
            std::ranges::any_of(journal, [&](uint64_t block) { return holdsBlock(fork, block); });
        if (!isFixed) {
            movable.push_back(fork);
        }
    }
    return movable;
}

std::vector<HFSPlusDataRun> dataOrder(const std::vector<HFSPlusCheckedFork>& forks)
{
    std::vector<std::pair<uint32_t, HFSPlusDataRun>> runs;  // with their places
    for (const HFSPlusCheckedFork& fork : forks) {
        uint32_t forkBlock = 0;
        for (const HFSPlusCheckedExtent& extent : fork.extents) {
            runs.push_back(
                {extent.startBlock, {fork.cnid, fork.forkType, forkBlock, extent.blockCount}});
            forkBlock += extent.blockCount;
        }
    }
    std::ranges::sort(runs, {}, [](const auto& run) { return run.first; });
    std::vector<HFSPlusDataRun> order;
    for (const auto& [place, run] : runs) {
        HFSPlusDataRun* const last = order.empty() ? nullptr : &order.back();
        if (last != nullptr && last->cnid == run.cnid && last->forkType == run.forkType &&
            last->forkBlock + last->blockCount == run.forkBlock) {
            last->blockCount += run.blockCount;
        } else {
            order.push_back(run);
        }
    }
    return order;
}

std::vector<HFSPlusCheckedExtent> gapsAmongData(HFSPlusCheckReader& reader,
                                                const HFSPlusCheckResult& result,
                                                uint32_t firstBlock)
{
    uint64_t dataEnd = 0;
    std::vector<bool> isData(uint64_t{result.totalBlocks} + 1);
    for (const HFSPlusCheckedFork& fork : movableForks(reader, result)) {
        for (const HFSPlusCheckedExtent& extent : fork.extents) {
            dataEnd = std::max(dataEnd, endOf(extent));
            if (endOf(extent) <= result.totalBlocks) {
                std::fill_n(isData.begin() + extent.startBlock, extent.blockCount, true);
            }
        }
    }
    const uint32_t unit = largestUnit(result);
    std::vector<HFSPlusCheckedExtent> gaps;
    for (const HFSPlusCheckedExtent& run : freeRuns(reader, result)) {
        if (run.startBlock >= firstBlock && endOf(run) < dataEnd &&
            (isData[endOf(run)] || run.blockCount >= unit)) {
            gaps.push_back(run);
        }
    }
    return gaps;
}

std::ostream& operator<<(std::ostream& stream, const HFSPlusDataRun& run)
{
    return stream << "file " << run.cnid << " fork " << int{run.forkType} << " blocks "
                  << run.forkBlock << ":" << run.blockCount;
}
