#pragma once

#include "HFSPlus/HFSPlusFormat.h"
#include "VZDefragError.h"

class HFSPlusVolume;

/** Where a volume keeps its journal (TN1150, "Journal"); what is in it is no concern of ours. */
class HFSPlusJournal {
public:
    /** The blocks of the journal of a journaled volume; no blocks when it lies elsewhere.
     *
     *  Fails with "Volume is inconsistent." where it would leave the volume.
     */
    [[nodiscard]] static bool copyExtent(HFSPlusHostExtentDescriptor& extent, HFSPlusVolume& volume,
                                         VZDefragErrorSlot error);
};
