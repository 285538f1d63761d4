#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/HFSPlusVolumeBuilder.h"
#include "support/MemoryBlockDevice.h"

/** A small volume, and how DEFRAG and COMPACT run on it. */
struct ReplayVolume {
    std::string name;
    HFSPlusVolumeBuilder builder;
    uint32_t deviceBlockSize = 512;  // bytes
    uint64_t bufferSize = 0;         // bytes carried in a cycle
    uint64_t spanMemory = 0;         // bytes of a map while it is filled; 0: as it is
    uint32_t nodeCacheSize = 0;      // bytes of each tree's cache; 0: as it is
    std::string profiles;            // DEFRAG's, between commas; empty: none
};

/** The volumes that every replay goes through: 1 to 6 forks of 1 to 20 extents, blocks of 512 bytes
 *  to 64 KiB, trees that split and collapse, special files that move, and everything that stays. */
[[nodiscard]] std::vector<ReplayVolume> replayVolumes();

/** Volumes whose bitmap does not know of all blocks in use, which a run repairs. */
[[nodiscard]] std::vector<ReplayVolume> volumesWithAWrongBitmap();

/** Runs on @p volume in another way: other buffer, caches and maps. */
void varyReplay(ReplayVolume& volume, std::mt19937& random);

/** A volume of any layout, of no more than 2 MiB. */
[[nodiscard]] ReplayVolume randomReplayVolume(std::mt19937& random);
