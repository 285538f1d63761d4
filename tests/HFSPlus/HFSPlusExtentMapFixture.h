#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <vector>

#include "HFSPlus/HFSPlusExtentMap.h"
#include "support/HFSPlusOpenedVolume.h"

namespace extentmaptest {

inline constexpr uint32_t kBlocks = 1000;
inline constexpr uint32_t kFixed = HFSPlusExtentInfo(kHFSPlusExtentImmutable, 0);
inline constexpr uint32_t kFree = HFSPlusExtentInfo(kHFSPlusExtentUnalloced, 0);
inline constexpr uint32_t kData = HFSPlusExtentInfo(kHFSPlusExtentAllocated, 0);
inline constexpr uint32_t kResource = HFSPlusExtentInfo(kHFSPlusExtentAllocated, 0xFF);

struct BlockRun {
    uint32_t start;
    uint32_t count;
    uint32_t cnid;
    uint32_t info;
    bool operator==(const BlockRun&) const = default;
};
using BlockRuns = std::vector<BlockRun>;

inline std::ostream& operator<<(std::ostream& stream, const BlockRun& run)
{
    return stream << run.start << '+' << run.count << " of " << run.cnid << " info " << std::hex
                  << run.info << std::dec;
}

inline BlockRuns runsOf(const HFSPlusExtentMap& map)
{
    BlockRuns runs;
    uint32_t count = 0;
    for (const auto* entry = map.firstEntry(&count); entry != nullptr;
         entry = map.nextEntryAfter(&count, entry)) {
        runs.push_back(
            {.start = entry->start, .count = count, .cnid = entry->cnid, .info = entry->info});
    }
    return runs;
}

/** A volume of kBlocks blocks and a map over the whole of it. */
class Fixture : public testing::Test {
protected:
    std::unique_ptr<HFSPlusExtentMap> mapFrom(uint32_t startBlock)
    {
        return HFSPlusExtentMap::initWithVolume(*_volume, startBlock);
    }

    HFSPlusOpenedVolume _volume = HFSPlusOpenedVolume(HFSPlusVolumeBuilder{}
                                                          .blockSize(4096)
                                                          .totalBlocks(kBlocks)
                                                          .file("/movie", 20)
                                                          .data({{100, 30}}));
    std::unique_ptr<HFSPlusExtentMap> _map = mapFrom(0);
    std::unique_ptr<VZDefragError> _error;
};

}  // namespace extentmaptest
