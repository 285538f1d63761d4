#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "HFSPlus/HFSPlusForkExtents.h"

class HFSPlusExtentMap;
class HFSPlusVolume;

/** The forks of a copy list while their extents change.
 *
 *  A fork whose pieces alternate with another's stays open from its first piece to its last, so
 *  that a long extent list is read and rewritten once a list and not once a piece.
 */
class HFSPlusMovedForks {
public:
    HFSPlusMovedForks(HFSPlusVolume& volume, HFSPlusExtentMap& map) : _volume(volume), _map(map) {}

    /** The fork, opened unless it is open already; null with @p error. */
    [[nodiscard]] HFSPlusForkExtents* openFork(uint32_t cnid, uint32_t info,
                                               VZDefragErrorSlot error);
    /** Writes the fork's new extents, enters them into the map and closes the fork. */
    [[nodiscard]] bool updateFork(uint32_t cnid, uint32_t info, VZDefragErrorSlot error);
    /** Does the same for every open fork, in the order of opening, until one fails. */
    [[nodiscard]] bool updateAll(VZDefragErrorSlot error);

private:
    struct OpenFork {
        uint32_t cnid;
        uint32_t info;
        std::unique_ptr<HFSPlusForkExtents> extents;
    };

    [[nodiscard]] bool _update(OpenFork& fork, VZDefragErrorSlot error);
    [[nodiscard]] bool _replaceInMap(const OpenFork& fork,
                                     std::vector<HFSPlusHostExtentDescriptor>& before,
                                     std::vector<HFSPlusHostExtentDescriptor>& after,
                                     VZDefragErrorSlot error);

    HFSPlusVolume& _volume;
    HFSPlusExtentMap& _map;
    std::vector<OpenFork> _openForks;
};
