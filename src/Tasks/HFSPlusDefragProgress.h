#pragma once

#include <cstdint>
#include <string>

class VZDefragTask;

/** Counts moved blocks and tells the reader of them: a line a move, or the percentage. */
class HFSPlusDefragProgress {
public:
    HFSPlusDefragProgress(VZDefragTask& task, uint32_t allocatedBlocks);

    /** Whether every move is printed; otherwise only the percentage, when it changes. */
    void setVerbose(bool verbose) { _verbose = verbose; }
    /** Starts counting towards @p blocks blocks. */
    void setBlocksTotal(uint32_t blocks);
    [[nodiscard]] uint32_t blocksTotal() const { return _progressBlocksTotal; }

    /** Reports that @p count blocks from @p source on now lie at @p destination. Moves that only
     *  make room are reported without being counted. */
    void reportMove(uint32_t source, uint32_t destination, uint32_t count, bool counted);

    /** Blocks moved so far in percent of the total; above 100 when more were moved than expected.
     *  With nothing expected it is 100. */
    [[nodiscard]] int32_t percentage() const;

private:
    VZDefragTask& _task;
    std::string _progressPrefix;
    uint32_t _allocatedBlocks;
    bool _verbose = true;
    uint32_t _progressBlocksTotal = 0;
    uint64_t _progressBlocksProcessed = 0;
    uint32_t _progressBlocksPercentage = UINT32_MAX;  // last one reported
};
