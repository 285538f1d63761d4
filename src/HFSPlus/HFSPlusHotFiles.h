#pragma once

#include <memory>

#include "HFSPlus/HFSPlusBTreeFile.h"
#include "HFSPlus/HFSPlusCachedForkData.h"

class HFSPlusFileForkSet;

/** The hot-files B-tree, an ordinary file in the root folder: read to learn which forks the system
 *  has brought into the metadata zone. Nothing in it is ever changed. */
class HFSPlusHotFiles : private HFSPlusCachedForkData, public HFSPlusBTreeFile {
public:
    /** Null without an error when the volume has no hot-files tree. */
    [[nodiscard]] static std::unique_ptr<HFSPlusHotFiles> initWithVolume(HFSPlusVolume& volume,
                                                                         VZDefragErrorSlot error);

    /** Adds every hot fork that lies before the volume's first data block in one extent at most.
     *
     *  Fails where the chain of leaves or a key is unsound; what was added before stays.
     */
    [[nodiscard]] bool mergeFileIDs(HFSPlusFileForkSet& forkSet, VZDefragErrorSlot error);

private:
    HFSPlusHotFiles(HFSPlusVolume& volume, const HFSPlusHostForkData& forkData, uint32_t fileID);

    [[nodiscard]] bool _mergeNode(const HFSPlusBTreeNode& node, HFSPlusFileForkSet& forkSet,
                                  VZDefragErrorSlot error);
    void _mergeFork(uint32_t fileID, uint8_t forkType, HFSPlusFileForkSet& forkSet);
};
