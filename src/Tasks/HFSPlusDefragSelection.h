#pragma once

#include <deque>
#include <memory>
#include <vector>

#include "HFSPlus/HFSPlusFileForkSet.h"
#include "HFSPlus/HFSPlusForkExtents.h"
#include "Tasks/HFSPlusSourceSelection.h"

class HFSPlusExtentMapBuilder;
class HFSPlusVolume;

/** Picks whole forks, those of the profile first and then in the order in which their data is met
 *  on disk, and hands out each fork's extents one after another. */
class HFSPlusDefragSelection : public HFSPlusSourceSelection {
public:
    /** @p profileFileForks is emptied as its forks are placed and null once it is used up. */
    HFSPlusDefragSelection(HFSPlusVolume& volume, HFSPlusExtentMapBuilder& span,
                           std::unique_ptr<HFSPlusFileForkSet>& profileFileForks);

    [[nodiscard]] Found getSourceEntry(Piece& piece, VZDefragErrorSlot error) override;
    [[nodiscard]] bool putSourceEntry(const Piece& piece, VZDefragErrorSlot error) override;
    [[nodiscard]] bool updateSource(VZDefragErrorSlot error) override;

private:
    [[nodiscard]] Found _chooseFork(VZDefragErrorSlot error);
    [[nodiscard]] Found _chooseForkMet(VZDefragErrorSlot error);
    [[nodiscard]] Found _chooseForkOfProfile(VZDefragErrorSlot error);
    [[nodiscard]] Found _readExtents(VZDefragErrorSlot error);
    [[nodiscard]] bool _isFirstOfProfile() const;
    void _removeFirstOfProfile();

    HFSPlusVolume& _volume;
    HFSPlusExtentMapBuilder& _span;
    std::unique_ptr<HFSPlusFileForkSet>& _profileFileForks;
    uint32_t _cnid = 0;  // the fork being placed; 0: none
    uint8_t _fork = 0;
    uint32_t _retryCount = 0;  // cycles in a row without movable data in the span
    std::deque<HFSPlusHostExtentDescriptor> _extentList;  // from the front of the span onward
    bool _holdsExtentList = false;
    HFSPlusHostExtentDescriptor _currentExtent = {};
    Piece _pending;
};
