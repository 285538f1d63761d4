#pragma once

#include <cstdint>
#include <span>

#include "HFSPlus/HFSPlusCatalogFormat.h"
#include "VZDefragError.h"

/** Receives every file record of the catalog, in disk order; valid during the call only. */
class HFSPlusCatalogScanDelegate {
public:
    virtual ~HFSPlusCatalogScanDelegate() = default;

    virtual void scanCatalogFilesWillStart() {}
    /** @p key is the whole key with its name; false stops the scan with @p error. */
    [[nodiscard]] virtual bool scanCatalogFile(const HFSPlusCatalogFile& file,
                                               std::span<const uint8_t> key,
                                               VZDefragErrorSlot error) = 0;
    virtual void scanCatalogFilesDidFinish() {}
    /** Whether the scan fails where a search of the catalog could find a record that it did not
     *  meet. */
    [[nodiscard]] virtual bool needsEveryCatalogFile() const { return false; }
};
