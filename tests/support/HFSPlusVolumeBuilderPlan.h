#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/HFSPlusVolumeBuilderBitmap.h"
#include "support/HFSPlusVolumeBuilderModel.h"
#include "support/HFSPlusVolumeBuilderTree.h"

/** One record of the extents overflow file (TN1150, "Extents Overflow File Key"). */
struct HFSPlusBuilderOverflow {
    uint32_t fileID = 0;
    uint8_t forkType = 0;
    uint32_t startBlock = 0;  // fork block of the record's first extent
    HFSPlusBuilderExtents extents;
};

/** A volume with every number settled: what is written where.
 *
 *  What to build is the caller's, completed: all CNIDs, the journal's files and the extents that
 * were left to the builder are filled in.
 */
struct HFSPlusVolumeBuilderPlan {
    explicit HFSPlusVolumeBuilderPlan(HFSPlusBuilderSpec given)
        : spec(std::move(given)), bitmap(spec.totalBlocks)
    {
    }

    /** Settles everything; false with the reason in @p error. */
    [[nodiscard]] bool settle(std::string& error);

    HFSPlusBuilderSpec spec;
    HFSPlusVolumeBuilderBitmap bitmap;
    std::vector<HFSPlusBuilderOverflow> overflow;  // in key order
    HFSPlusBuilderTreePlan extentsTree;
    HFSPlusBuilderTreePlan catalogTree;
    HFSPlusBuilderTreePlan attributesTree;
    HFSPlusBuilderExtents allocationExtents;
    uint64_t allocationSize = 0;  // bytes
    uint32_t fileCount = 0;
    uint32_t folderCount = 0;
    uint32_t nextCatalogID = 0;
    uint64_t volumeOffset = 0;  // bytes; not 0 inside a wrapper
    uint64_t volumeSize = 0;    // bytes
    uint64_t deviceSize = 0;    // bytes

private:
    [[nodiscard]] bool _checkGeometry(std::string& error);
    void _addJournalFiles();
    [[nodiscard]] bool _assignCNIDs(std::string& error);
    [[nodiscard]] bool _finishAttributes(std::string& error);
    [[nodiscard]] bool _useGivenExtents(std::string& error);
    [[nodiscard]] bool _useFork(uint32_t cnid, uint8_t forkType, const HFSPlusBuilderFork& fork,
                                std::string& error);
    [[nodiscard]] bool _placeJournal(std::string& error);
    [[nodiscard]] bool _placeTree(const HFSPlusBuilderTree& shape, HFSPlusBuilderTreePlan& tree,
                                  std::string& error);
    [[nodiscard]] bool _countTree(HFSPlusBuilderTree& shape, HFSPlusBuilderTreePlan& tree,
                                  const std::function<bool(HFSPlusVolumeBuilderTree&)>& load);
    [[nodiscard]] bool _countTrees(std::string& error);
    [[nodiscard]] bool _countExtentsTree(std::string& error);
    [[nodiscard]] bool _placeAutomaticForks(std::string& error);
    [[nodiscard]] bool _collectOverflow(std::string& error);
    [[nodiscard]] bool _place(uint32_t blocks, HFSPlusBuilderExtents& extents, const char* what,
                              std::string& error);
    void _overflow(uint32_t fileID, uint8_t forkType, const HFSPlusBuilderExtents& extents,
                   size_t inlineExtents);
};

/** Visits the forks of all files and attributes, of each file the data fork first. */
using HFSPlusBuilderForkVisitor =
    std::function<bool(uint32_t cnid, uint8_t forkType, const HFSPlusBuilderFork& fork)>;
[[nodiscard]] bool visitForks(const HFSPlusBuilderSpec& spec,
                              const HFSPlusBuilderForkVisitor& visitor);
