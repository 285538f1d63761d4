#pragma once

#include "HFSPlus/HFSPlusBTreeFormat.h"
#include "HFSPlus/HFSPlusCatalogFormat.h"
#include "HFSPlus/HFSPlusFormat.h"

/** Whole structures from disk order to host order and back; every field is converted. */

[[nodiscard]] HFSPlusHostExtentRecord hostOrder(const HFSPlusExtentRecord& disk);
[[nodiscard]] HFSPlusExtentRecord diskOrder(const HFSPlusHostExtentRecord& host);
[[nodiscard]] HFSPlusHostForkData hostOrder(const HFSPlusForkData& disk);
[[nodiscard]] HFSPlusForkData diskOrder(const HFSPlusHostForkData& host);
[[nodiscard]] HFSPlusHostVolumeHeader hostOrder(const HFSPlusVolumeHeader& disk);
[[nodiscard]] HFSPlusVolumeHeader diskOrder(const HFSPlusHostVolumeHeader& host);
[[nodiscard]] BTHostHeaderRec hostOrder(const BTHeaderRec& disk);
[[nodiscard]] BTHeaderRec diskOrder(const BTHostHeaderRec& host);
[[nodiscard]] HFSPlusHostCatalogFile hostOrder(const HFSPlusCatalogFile& disk);
[[nodiscard]] HFSPlusHostCatalogFolder hostOrder(const HFSPlusCatalogFolder& disk);
