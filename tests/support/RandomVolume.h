#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "support/HFSPlusVolumeBuilder.h"

/** Lays out sound volumes at random: every kind of file in any number of pieces anywhere.
 *
 *  All chance comes from the generator it is given, so that a seed says everything.
 */
class RandomVolume {
public:
    explicit RandomVolume(std::mt19937& random) : _random(random) {}

    /** The next volume, not yet built. */
    [[nodiscard]] HFSPlusVolumeBuilder make();

    /** Of the volume made last: what a failing test prints. */
    [[nodiscard]] std::string description() const;

    /** Of the volume made last: whether something in its middle stays where it is. */
    [[nodiscard]] bool hasObstacles() const { return _hasObstacles; }
    [[nodiscard]] uint32_t blockSize() const { return _blockSize; }              // bytes
    [[nodiscard]] uint32_t deviceBlockSize() const { return _deviceBlockSize; }  // bytes
    [[nodiscard]] uint32_t totalBlocks() const { return _totalBlocks; }

private:
    [[nodiscard]] uint32_t _below(uint64_t limit)
    {
        return limit == 0 ? 0 : static_cast<uint32_t>(_random() % limit);
    }
    [[nodiscard]] bool _chance(uint32_t percent) { return _below(100) < percent; }
    void _chooseGeometry();
    [[nodiscard]] std::optional<uint32_t> _take(uint32_t count);
    [[nodiscard]] HFSPlusBuilderExtents _pieces(uint64_t blocks, uint32_t most, uint32_t unit);
    [[nodiscard]] uint32_t _unitFor(uint32_t nodeSize) const;
    void _addJournal(HFSPlusVolumeBuilder& builder);
    void _addSpecialFiles(HFSPlusVolumeBuilder& builder);
    void _addObstacles(HFSPlusVolumeBuilder& builder);
    void _addFiles(HFSPlusVolumeBuilder& builder);
    void _addFile(HFSPlusVolumeBuilder& builder, uint32_t number, uint32_t blocks);

    std::mt19937& _random;
    uint32_t _blockSize = 0;        // bytes
    uint32_t _deviceBlockSize = 0;  // bytes
    uint32_t _totalBlocks = 0;
    uint32_t _fileCount = 0;
    uint32_t _usedLimit = 0;  // blocks that may be taken in all
    uint32_t _usedBlocks = 0;
    uint32_t _overflowLimit = 0;  // records that may still be needed
    bool _isHFSX = false;
    bool _isJournaled = false;
    bool _hasObstacles = false;
    std::vector<bool> _used;
};
