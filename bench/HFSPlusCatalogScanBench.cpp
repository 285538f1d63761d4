// Scanning every file record of a catalog, against reading the catalog file's bytes from the same
// device in memory without looking at them.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusCatalogScanDelegate.h"
#include "support/HFSPlusOpenedVolume.h"

namespace {

constexpr uint64_t kFiles = 200000;
constexpr uint64_t kPieceBytes = 1 << 20;

const HFSPlusOpenedVolume& openedVolume()
{
    static const HFSPlusOpenedVolume volume(
        HFSPlusVolumeBuilder{}.blockSize(4096).totalBlocks(1 << 20).contents(false).manyFiles(
            kFiles));
    return volume;
}

class Counter : public HFSPlusCatalogScanDelegate {
public:
    bool scanCatalogFile(const HFSPlusCatalogFile& file, std::span<const uint8_t> key,
                         VZDefragErrorSlot error) override
    {
        benchmark::DoNotOptimize(uint32_t{file.fileID});
        std::ignore = key;
        std::ignore = error;
        ++count;
        return true;
    }

    uint64_t count = 0;
};

void CatalogScan(benchmark::State& state)
{
    const HFSPlusOpenedVolume& volume = openedVolume();  // built before the clock starts
    for (auto _ : state) {
        Counter counter;
        if (!volume->scanCatalogFiles(counter, nullptr) || counter.count != kFiles) {
            state.SkipWithError("the scan did not meet every file");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * int64_t{kFiles});
    state.SetBytesProcessed(state.iterations() *
                            static_cast<int64_t>(volume->catalog().logicalSize()));
}

void CatalogBytes(benchmark::State& state)
{
    HFSPlusCatalog& catalog = openedVolume()->catalog();
    const uint64_t size = catalog.logicalSize();
    std::vector<uint8_t> buffer(kPieceBytes);
    for (auto _ : state) {
        for (uint64_t offset = 0; offset < size; offset += kPieceBytes) {
            const uint64_t piece = std::min(kPieceBytes, size - offset);
            if (!catalog.read(buffer.data(), piece, offset, nullptr)) {
                state.SkipWithError("the catalog cannot be read");
                return;
            }
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

BENCHMARK(CatalogScan)->Unit(benchmark::kMillisecond);
BENCHMARK(CatalogBytes)->Unit(benchmark::kMillisecond);

}  // namespace
