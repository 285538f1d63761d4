#pragma once

#include <cstdint>
#include <iosfwd>
#include <vector>

#include "support/HFSPlusVolumeChecker.h"

/** Blocks of one fork that lie in one run, or in several with nothing movable between them. */
struct HFSPlusDataRun {
    uint32_t cnid = 0;
    uint8_t forkType = kHFSPlusCheckDataFork;
    uint32_t forkBlock = 0;   // the first of the blocks, counted in the fork
    uint32_t blockCount = 0;  // allocation blocks

    bool operator==(const HFSPlusDataRun&) const = default;
};

/** The forks of @p result that a run may move: all but the bad blocks, the start-up file and the
 *  journal with its info block. */
[[nodiscard]] std::vector<HFSPlusCheckedFork> movableForks(HFSPlusCheckReader& reader,
                                                           const HFSPlusCheckResult& result);

/** The blocks of @p forks in the order in which they lie on disk, wherever they do. */
[[nodiscard]] std::vector<HFSPlusDataRun> dataOrder(const std::vector<HFSPlusCheckedFork>& forks);

/** The free runs from @p firstBlock on with movable data behind them.
 *
 *  Not those that end at something fixed and have no room for a node that may not be parted.
 */
[[nodiscard]] std::vector<HFSPlusCheckedExtent> gapsAmongData(HFSPlusCheckReader& reader,
                                                              const HFSPlusCheckResult& result,
                                                              uint32_t firstBlock);

std::ostream& operator<<(std::ostream& stream, const HFSPlusDataRun& run);
