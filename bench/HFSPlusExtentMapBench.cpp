// Filling an extent map to its default capacity, and finding blocks in it, against std::map doing
// the same: runs of one block go into the free space in random order, each with a free block on
// both sides, until 262,144 entries are held.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "HFSPlus/HFSPlusExtentMap.h"
#include "support/HFSPlusOpenedVolume.h"

namespace {

constexpr uint32_t kEntries = 262144;
constexpr uint32_t kRuns = kEntries / 2;
constexpr uint32_t kBlocks = kEntries;
constexpr uint32_t kInfo = HFSPlusExtentInfo(kHFSPlusExtentAllocated, 0);

const HFSPlusOpenedVolume& openedVolume()
{
    static const HFSPlusOpenedVolume volume(
        HFSPlusVolumeBuilder{}.blockSize(4096).totalBlocks(kBlocks).contents(false));
    return volume;
}

/** The odd blocks in random order, the same in every run. */
const std::vector<uint32_t>& shuffledBlocks()
{
    static const std::vector<uint32_t> blocks = [] {
        std::vector<uint32_t> odd(kRuns);
        for (uint32_t index = 0; index < kRuns; ++index) {
            odd[index] = 2 * index + 1;
        }
        std::shuffle(odd.begin(), odd.end(), std::mt19937(1));
        return odd;
    }();
    return blocks;
}

/** The least that std::map needs to tile a span in the same way. */
class Peer {
public:
    struct Owner {
        uint32_t cnid = 0;
        uint32_t info = HFSPlusExtentInfo(kHFSPlusExtentUnalloced, 0);
    };

    explicit Peer(uint32_t blocks) : _end(blocks) { _entries.emplace(0, Owner{}); }

    bool insert(uint32_t start, uint32_t count, const Owner& owner)
    {
        const auto found = containing(start);
        const auto next = std::next(found);
        const uint32_t foundEnd = next != _entries.end() ? next->first : _end;
        if (found->second.info != Owner{}.info || start + count > foundEnd) {
            return false;
        }
        if (start + count < foundEnd) {
            _entries.emplace_hint(next, start + count, found->second);
        }
        if (found->first == start) {
            found->second = owner;
        } else {
            _entries.emplace_hint(std::next(found), start, owner);
        }
        return true;
    }
    [[nodiscard]] std::map<uint32_t, Owner>::iterator containing(uint32_t block)
    {
        return std::prev(_entries.upper_bound(block));
    }
    [[nodiscard]] size_t count() const { return _entries.size(); }

private:
    std::map<uint32_t, Owner> _entries;
    uint32_t _end;
};

std::unique_ptr<HFSPlusExtentMap> filledMap()
{
    auto map = HFSPlusExtentMap::initWithVolume(*openedVolume(), 0);
    for (const uint32_t block : shuffledBlocks()) {
        if (!map->insert(block, 1, 20, kInfo)) {
            return nullptr;
        }
    }
    return map;
}

std::unique_ptr<Peer> filledPeer()
{
    auto peer = std::make_unique<Peer>(kBlocks);
    for (const uint32_t block : shuffledBlocks()) {
        if (!peer->insert(block, 1, {.cnid = 20, .info = kInfo})) {
            return nullptr;
        }
    }
    return peer;
}

void ExtentMapInsertion(benchmark::State& state)
{
    for (auto _ : state) {
        const auto map = filledMap();
        if (map == nullptr || map->extentCount() != kEntries) {
            state.SkipWithError("the map is not filled");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * kRuns);
}

void StdMapInsertion(benchmark::State& state)
{
    for (auto _ : state) {
        const auto peer = filledPeer();
        if (peer == nullptr || peer->count() != kEntries) {
            state.SkipWithError("the peer is not filled");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * kRuns);
}

void ExtentMapLookup(benchmark::State& state)
{
    const auto map = filledMap();
    for (auto _ : state) {
        for (const uint32_t block : shuffledBlocks()) {
            benchmark::DoNotOptimize(map->findEntry(block));
        }
    }
    state.SetItemsProcessed(state.iterations() * kRuns);
}

void StdMapLookup(benchmark::State& state)
{
    const auto peer = filledPeer();
    for (auto _ : state) {
        for (const uint32_t block : shuffledBlocks()) {
            benchmark::DoNotOptimize(peer->containing(block));
        }
    }
    state.SetItemsProcessed(state.iterations() * kRuns);
}

BENCHMARK(ExtentMapInsertion)->Unit(benchmark::kMillisecond);
BENCHMARK(StdMapInsertion)->Unit(benchmark::kMillisecond);
BENCHMARK(ExtentMapLookup)->Unit(benchmark::kMillisecond);
BENCHMARK(StdMapLookup)->Unit(benchmark::kMillisecond);

}  // namespace
