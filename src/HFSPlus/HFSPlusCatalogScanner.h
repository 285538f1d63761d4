#pragma once

#include <optional>

#include "HFSPlus/HFSPlusBTreeLeafSet.h"
#include "HFSPlus/HFSPlusCatalogScanDelegate.h"

class HFSPlusBTreeNode;
class HFSPlusCatalog;
class HFSPlusVolume;

/** Hands every file record of a volume's catalog to a delegate, the quickest way there is.
 *
 *  A catalog in use for a fifth or more is read from front to back, so its records come in no
 *  particular order; a sparser one is read leaf by leaf in key order. Ends early when the delegate
 *  says so or the calling tool task is aborted.
 */
class HFSPlusCatalogScanner {
public:
    explicit HFSPlusCatalogScanner(HFSPlusVolume& volume);

    [[nodiscard]] bool scanCatalogFiles(HFSPlusCatalogScanDelegate& delegate,
                                        VZDefragErrorSlot error);

private:
    [[nodiscard]] bool _scanCatalogFilesBulk(HFSPlusCatalogScanDelegate& delegate,
                                             VZDefragErrorSlot error);
    [[nodiscard]] bool _scanCatalogFilesSparse(HFSPlusCatalogScanDelegate& delegate,
                                               VZDefragErrorSlot error);
    [[nodiscard]] bool _scanNodesInUse(HFSPlusCatalogScanDelegate& delegate,
                                       VZDefragErrorSlot error);
    [[nodiscard]] bool _scanLeafChain(HFSPlusCatalogScanDelegate& delegate,
                                      VZDefragErrorSlot error);
    [[nodiscard]] bool _scanLeaf(const HFSPlusBTreeNode& node, HFSPlusCatalogScanDelegate& delegate,
                                 VZDefragErrorSlot error);

    HFSPlusCatalog& _catalog;
    std::optional<HFSPlusBTreeLeafSet> _leaves;  // where the delegate needs every file
};
