#pragma once

#include <memory>
#include <utility>

#include "HFSPlus/HFSPlusRollbackFile.h"
#include "VZDefragVolume.h"

/** Lets VZDefragVolume find and open the HFS Plus volume on a device. */
class HFSPlusVolumeProber : public VZDefragVolumeProber {
public:
    /** What an interrupted run left half done is undone with @p file before anything else; it then
     *  serves the volume that is opened. */
    void setRollbackFile(std::shared_ptr<HFSPlusRollbackFile> file)
    {
        _rollbackFile = std::move(file);
    }

    [[nodiscard]] bool probe(VZDefragVolume& volume, bool& valid, VZDefragErrorSlot error) override;
    [[nodiscard]] std::unique_ptr<VZDefragVolume> initWithVolume(const VZDefragVolume& volume,
                                                                 VZDefragErrorSlot error) override;

private:
    std::shared_ptr<HFSPlusRollbackFile> _rollbackFile;
};
