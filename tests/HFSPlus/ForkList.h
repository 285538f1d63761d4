#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "HFSPlus/HFSPlusFileForkSet.h"

using ForkList = std::vector<std::pair<uint32_t, uint8_t>>;

/** The forks of @p set in their order. */
[[nodiscard]] inline ForkList forksOf(const HFSPlusFileForkSet& set)
{
    ForkList forks(set.count());
    for (size_t index = 0; index < forks.size(); ++index) {
        set.fileAtIndex(forks[index].first, forks[index].second, index);
    }
    return forks;
}
