#pragma once

#include <memory>

#include "HFSPlus/HFSPlusCachedForkData.h"
#include "HFSPlus/HFSPlusCatalogScanDelegate.h"
#include "HFSPlus/HFSPlusFile.h"

class HFSPlusBootCachePlaylist;
class HFSPlusFileForkSet;

/** The forks that the system reads while it starts, in its order, from the playlist that it keeps
 *  on the volume (HFSPlusBootCachePlaylist). */
class HFSPlusBootCacheProfile : private HFSPlusCachedForkData,
                                public HFSPlusFile,
                                private HFSPlusCatalogScanDelegate {
public:
    /** Adds the profile's forks to @p fileForks, which outlives the profile; null without an error
     *  when the volume has no usable playlist. */
    [[nodiscard]] static std::unique_ptr<HFSPlusBootCacheProfile> initWithVolume(
        HFSPlusVolume& volume, HFSPlusFileForkSet& fileForks, VZDefragErrorSlot error);

    /** Empties the playlist, whose ranges mean nothing once data have moved.
     *
     *  In memory, up to the volume's next flush. Leaves a playlist as it is that could not be
     *  emptied without giving up blocks that something else on the volume lays claim to.
     */
    static void reset(HFSPlusVolume& volume);

private:
    HFSPlusBootCacheProfile(HFSPlusVolume& volume, const HFSPlusHostForkData& forkData,
                            uint32_t fileID);
    ~HFSPlusBootCacheProfile() override;
    friend std::default_delete<HFSPlusBootCacheProfile>;

    [[nodiscard]] bool _readPlaylist(VZDefragErrorSlot error);
    [[nodiscard]] bool scanCatalogFile(const HFSPlusCatalogFile& file, std::span<const uint8_t> key,
                                       VZDefragErrorSlot error) override;

    std::unique_ptr<HFSPlusBootCachePlaylist> _playlist;
};
