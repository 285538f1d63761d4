#include "HFSPlus/HFSPlusVolumeProber.h"

#include "HFSPlus/HFSPlusVolume.h"

bool HFSPlusVolumeProber::probe(VZDefragVolume& volume, bool& valid, VZDefragErrorSlot error)
{
    return HFSPlusVolume::probe(volume, valid, error);
}

std::unique_ptr<VZDefragVolume> HFSPlusVolumeProber::initWithVolume(const VZDefragVolume& volume,
                                                                    VZDefragErrorSlot error)
{
    return HFSPlusVolume::initWithVolume(volume, error);
}
