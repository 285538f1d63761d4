#pragma once

#include "HFSPlus/HFSPlusAllocation.h"

/** Takes back what was changed in the bitmap since, unless it was kept or flushed meanwhile. */
class HFSPlusBitmapDraft {
public:
    explicit HFSPlusBitmapDraft(HFSPlusAllocation& allocation) : _allocation(allocation)
    {
        _allocation.beginDraft();
    }
    HFSPlusBitmapDraft(const HFSPlusBitmapDraft&) = delete;
    HFSPlusBitmapDraft& operator=(const HFSPlusBitmapDraft&) = delete;
    ~HFSPlusBitmapDraft() { _allocation.dropDraft(); }

private:
    HFSPlusAllocation& _allocation;
};
