#pragma once

#include "VZDefragVolume.h"

/** Lets VZDefragVolume find and open the HFS Plus volume on a device. */
class HFSPlusVolumeProber : public VZDefragVolumeProber {
public:
    [[nodiscard]] bool probe(VZDefragVolume& volume, bool& valid, VZDefragErrorSlot error) override;
    [[nodiscard]] std::unique_ptr<VZDefragVolume> initWithVolume(const VZDefragVolume& volume,
                                                                 VZDefragErrorSlot error) override;
};
