// Walking the runs of a large bitmap with few used blocks, as the free map and the cross-check do,
// against copying as many bytes in memory.

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <vector>

#include "HFSPlus/HFSPlusAllocation.h"
#include "support/HFSPlusOpenedVolume.h"

namespace {

constexpr uint32_t kBlocks = 1U << 27;
constexpr uint32_t kBitmapBytes = kBlocks / 8;
constexpr uint32_t kFirstUsed = 1U << 20;
constexpr uint32_t kUsedDistance = 99991;  // blocks from one used run to the next
constexpr uint32_t kUsedBlocks = 37;

/** A sparse volume of 64 GiB with a used run every so often. */
const HFSPlusOpenedVolume& openedVolume()
{
    static const HFSPlusOpenedVolume volume = [] {
        HFSPlusOpenedVolume opened(
            HFSPlusVolumeBuilder{}.blockSize(512).totalBlocks(kBlocks).contents(false));
        for (uint32_t block = kFirstUsed; block < kBlocks - kUsedDistance; block += kUsedDistance) {
            std::ignore = opened->allocation().set(block, kUsedBlocks, nullptr);
        }
        std::ignore = opened->flush(nullptr);
        return opened;
    }();
    return volume;
}

void AllocationRuns(benchmark::State& state)
{
    HFSPlusAllocation& allocation = openedVolume()->allocation();
    for (auto _ : state) {
        uint64_t free = 0;
        uint32_t block = 0;
        while (block < kBlocks) {
            uint32_t clear = 0;
            uint32_t set = 0;
            if (!allocation.isClear(block, kBlocks - block, clear, nullptr) ||
                !allocation.isSet(block + clear, kBlocks - block - clear, set, nullptr) ||
                clear + set == 0) {
                state.SkipWithError("the bitmap cannot be walked");
                return;
            }
            free += clear;
            block += clear + set;
        }
        if (free != openedVolume()->hostVolumeHeader().freeBlocks) {
            state.SkipWithError("the runs do not add up to the free blocks");
            return;
        }
    }
    state.SetBytesProcessed(state.iterations() * int64_t{kBitmapBytes});
}

void MemoryCopy(benchmark::State& state)
{
    const std::vector<uint8_t> from(kBitmapBytes, 1);
    std::vector<uint8_t> to(kBitmapBytes);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), kBitmapBytes);
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * int64_t{kBitmapBytes});
}

BENCHMARK(AllocationRuns)->Unit(benchmark::kMillisecond);
BENCHMARK(MemoryCopy)->Unit(benchmark::kMillisecond);

}  // namespace
