#include "ControlFigures.h"

#include <numeric>

uint64_t ControlFile::blockCount() const
{
    return std::accumulate(
        extents.begin(), extents.end(), uint64_t{0},
        [](uint64_t sum, const ControlExtent& extent) { return sum + extent.count; });
}
