#pragma once

#include <vector>

#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusCatalogScanDelegate.h"

class HFSPlusForkExtents;

/** Tells whether anything on a volume lays claim to blocks of a file's data fork besides it.
 *
 *  Blocks are given up for good only where nothing does: on a damaged volume they may be somebody
 *  else's data as well.
 */
class HFSPlusBlockClaims : private HFSPlusCatalogScanDelegate {
public:
    HFSPlusBlockClaims(HFSPlusVolume& volume, const HFSPlusCatalogLookupRecord& file)
        : _volume(volume), _file(file)
    {
    }

    /** Whether @p fork, the file's data fork as its ID leads to it, is the only one with its
     *  blocks, and the bitmap has them in use; false also where that cannot be told. Takes a scan
     *  of the catalog. */
    [[nodiscard]] bool areExclusive(const HFSPlusForkExtents& fork);

private:
    [[nodiscard]] bool _isFoundByID() const;
    [[nodiscard]] bool _haveNoOverlaps() const;
    [[nodiscard]] bool _areMarkedUsed() const;
    [[nodiscard]] bool _avoidReservedAreas() const;
    [[nodiscard]] bool _avoidJournal() const;
    [[nodiscard]] bool _avoidSpecialFiles() const;
    [[nodiscard]] bool _avoidBadBlocks() const;
    [[nodiscard]] bool _avoidAttributes() const;
    [[nodiscard]] bool _overlap(const HFSPlusHostExtentDescriptor& extent) const;
    [[nodiscard]] bool scanCatalogFile(const HFSPlusCatalogFile& file, std::span<const uint8_t> key,
                                       VZDefragErrorSlot error) override;

    HFSPlusVolume& _volume;
    const HFSPlusCatalogLookupRecord& _file;
    std::vector<HFSPlusHostExtentDescriptor> _extents;  // by start block
    uint32_t _recordCount = 0;                          // file records met that have the file's ID
    bool _isShared = false;                             // another fork has one of the blocks
};
