#pragma once

#include <functional>

#include "HFSPlus/HFSPlusFormat.h"
#include "VZDefragError.h"

class HFSPlusBTreeNode;
class HFSPlusVolume;

/** Hands out the blocks of all extended attributes that have forks of their own.
 *
 *  Nobody moves them, but nothing else may lie there either. The attributes file is read once from
 *  front to back. Ends early when the calling tool task is aborted.
 */
class HFSPlusAttributesScanner {
public:
    /** Takes an extent that is not empty and the file or folder that its attribute is of. */
    using Visitor = std::function<bool(const HFSPlusHostExtentDescriptor& extent, uint32_t fileID,
                                       VZDefragErrorSlot error)>;

    explicit HFSPlusAttributesScanner(HFSPlusVolume& volume) : _volume(volume) {}

    /** Succeeds at once on a volume without attributes. */
    [[nodiscard]] bool scanForkExtents(const Visitor& visit, VZDefragErrorSlot error);

private:
    [[nodiscard]] static bool _scanLeaf(const HFSPlusBTreeNode& node, const Visitor& visit,
                                        VZDefragErrorSlot error);

    HFSPlusVolume& _volume;
};
