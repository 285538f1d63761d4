#pragma once

#include <cstdint>

#include "Tasks/HFSPlusReportTask.h"

/** The command BITMAP: a scaled picture of the allocation bitmap, then the first unused block and
 *  the last used one. */
class HFSPlusBitmapTask : public HFSPlusReportTask {
public:
    HFSPlusBitmapTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event);

private:
    void _bitmap(std::unique_ptr<VZDefragError>& error);
    /** Reads the arguments; @p scale is at least 1 on success. */
    [[nodiscard]] bool _parseArguments(int32_t& scale, VZDefragErrorSlot error);
    [[nodiscard]] bool _parseAllocationWithScale(int32_t scale, VZDefragErrorSlot error);
    /** The first block that does not count when the last used one is looked for. */
    [[nodiscard]] uint32_t _lastUsedLimit() const;

    bool _maskMD = false;  // what lies before the first data block counts as used
};
