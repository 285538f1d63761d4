#pragma once

#include <cstdint>
#include <memory>
#include <unordered_set>
#include <vector>

#include "HFSPlus/HFSPlusCatalog.h"

class HFSPlusFileForkSet;
class HFSPlusVolume;

/** Every fork with data of every file under "/Applications", folder by folder. */
class HFSPlusApplicationProfile : private HFSPlusCatalogFolderDelegate {
public:
    /** Adds the profile's forks to @p fileForks, which outlives the profile; null without an error
     *  when the volume has no such folder. */
    [[nodiscard]] static std::unique_ptr<HFSPlusApplicationProfile> initWithVolume(
        HFSPlusVolume& volume, HFSPlusFileForkSet& fileForks, VZDefragErrorSlot error);

private:
    explicit HFSPlusApplicationProfile(HFSPlusFileForkSet& fileForks) : _fileForkSet(fileForks) {}
    ~HFSPlusApplicationProfile() override = default;
    friend std::default_delete<HFSPlusApplicationProfile>;

    [[nodiscard]] bool _visitFolders(HFSPlusCatalog& catalog, uint32_t folderID,
                                     VZDefragErrorSlot error);
    [[nodiscard]] bool iterateFolderFile(const HFSPlusCatalogFile& file,
                                         std::span<const uint8_t> key,
                                         VZDefragErrorSlot error) override;
    [[nodiscard]] bool iterateFolderFolder(const HFSPlusCatalogFolder& folder,
                                           std::span<const uint8_t> key,
                                           VZDefragErrorSlot error) override;

    HFSPlusFileForkSet& _fileForkSet;
    std::vector<uint32_t> _folderIDs;          // still to visit, the next one last
    std::unordered_set<uint32_t> _metFolders;  // each is visited once, also in a loop of folders
};
