#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "support/HFSPlusVolumeCheckerBase.h"

/** Who says that blocks are in use. */
enum class HFSPlusCheckOwner : uint8_t { kReserved, kFork, kAttribute };

/** All runs of blocks that something claims, to be compared with each other and the bitmap.
 *
 *  Holds 16 bytes for each extent and nothing for each block.
 */
class HFSPlusCheckUsage {
public:
    struct Run {
        uint32_t startBlock;
        uint32_t blockCount;
        uint32_t cnid;
        uint8_t forkType;
        HFSPlusCheckOwner owner;
    };

    explicit HFSPlusCheckUsage(const HFSPlusCheckedVolume& volume) : _volume(volume) {}

    /** Claims the areas that belong to no file: boot blocks and headers. */
    void addReserved();

    /** Claims @p extent; one that is empty or leaves the volume becomes a problem instead. */
    void add(const HFSPlusCheckedExtent& extent, uint32_t cnid, uint8_t forkType,
             HFSPlusCheckOwner owner);

    /** Sorts the runs and reports each that meets another. Nothing is added after this. */
    void checkOverlaps();

    /** Compares the runs with the bitmap; returns the number of clear bits. After checkOverlaps. */
    uint32_t checkBitmap(const HFSPlusCheckedFork& allocationFile);

    /** The run that holds @p block, or null. After checkOverlaps. */
    [[nodiscard]] const Run* runWithBlock(uint32_t block) const;

private:
    void _fill(std::vector<uint8_t>& bits, uint64_t firstBlock, size_t& next) const;
    void _reportDifferences(const std::vector<uint8_t>& found, const std::vector<uint8_t>& expected,
                            uint64_t firstBlock);

    const HFSPlusCheckedVolume& _volume;
    std::vector<Run> _runs;
};
