#include "HFSPlus/HFSPlusVolumeProber.h"

#include "HFSPlus/HFSPlusChangeMark.h"
#include "HFSPlus/HFSPlusVolume.h"

bool HFSPlusVolumeProber::probe(VZDefragVolume& volume, bool& valid, VZDefragErrorSlot error)
{
    // Who cannot write leaves the file alone; the mark keeps such a volume from being used.
    if (_rollbackFile != nullptr && volume.isWritable() && !_rollbackFile->recover(volume, error)) {
        return false;
    }
    return HFSPlusVolume::probe(volume, valid, error);
}

std::unique_ptr<VZDefragVolume> HFSPlusVolumeProber::initWithVolume(const VZDefragVolume& volume,
                                                                    VZDefragErrorSlot error)
{
    std::unique_ptr<HFSPlusVolume> opened = HFSPlusVolume::initWithVolume(volume, error);
    if (opened != nullptr) {
        opened->changeMark().setRollbackFile(_rollbackFile);
    }
    return opened;
}
