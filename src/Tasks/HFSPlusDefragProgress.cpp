#include "Tasks/HFSPlusDefragProgress.h"

#include <limits>

#include "KLKit/KLFormat.h"
#include "VZDefragOutput.h"
#include "VZDefragTask.h"

HFSPlusDefragProgress::HFSPlusDefragProgress(VZDefragTask& task, uint32_t allocatedBlocks)
    : _task(task),
      _progressPrefix(KLFormatString("%s,PROGRESS", task.name())),
      _allocatedBlocks(allocatedBlocks)
{
}

void HFSPlusDefragProgress::setBlocksTotal(uint32_t blocks)
{
    _progressBlocksTotal = blocks;
    _progressBlocksProcessed = 0;
    _progressBlocksPercentage = UINT32_MAX;
}

int32_t HFSPlusDefragProgress::percentage() const
{
    if (_progressBlocksTotal == 0) {
        return 100;
    }
    const double percent = static_cast<double>(_progressBlocksProcessed) * 100.0 /
                           static_cast<double>(_progressBlocksTotal);
    if (percent >= static_cast<double>(std::numeric_limits<int32_t>::max())) {
        return std::numeric_limits<int32_t>::max();
    }
    return static_cast<int32_t>(percent);
}

void HFSPlusDefragProgress::reportMove(uint32_t source, uint32_t destination, uint32_t count,
                                       bool counted)
{
    if (counted) {
        _progressBlocksProcessed += count;
    }
    const int32_t percent = percentage();
    if (_verbose) {
        VZDefragWriteOutput(KLFormatString("%s,%d,%u,%u,%u,%u\n", _progressPrefix, percent, source,
                                           destination, count, _allocatedBlocks));
    } else if (static_cast<uint32_t>(percent) != _progressBlocksPercentage) {
        _progressBlocksPercentage = static_cast<uint32_t>(percent);
        _task.updateTaskProgress(percent);
    }
}
