#include <algorithm>
#include <tuple>

#include "support/HFSPlusVolumeBuilderPlan.h"
#include "support/HFSPlusVolumeBuilderRecords.h"

bool HFSPlusVolumeBuilderPlan::_useGivenExtents(std::string& error)
{
    const auto useTree = [&](uint32_t cnid, const HFSPlusBuilderTree& tree) {
        return _useFork(cnid, 0, {tree.extents, {}, 0, {}}, error);
    };
    if (!useTree(kHFSPlusBuilderExtentsID, spec.extentsTree) ||
        !useTree(kHFSPlusBuilderCatalogID, spec.catalogTree) ||
        !useTree(kHFSPlusBuilderAttributesID, spec.attributesTree) ||
        !_useFork(kHFSPlusBuilderAllocationID, 0, {spec.allocationExtents, {}, 0, {}}, error) ||
        !_useFork(kHFSPlusBuilderBadBlocksID, 0, {spec.badBlocks, {}, 0, {}}, error) ||
        !_useFork(kHFSPlusBuilderStartupID, 0, spec.startup, error)) {
        return false;
    }
    spec.hasAttributesFile |= !spec.attributesTree.extents.empty();
    return visitForks(spec, [&](uint32_t cnid, uint8_t forkType, const HFSPlusBuilderFork& fork) {
        return _useFork(cnid, forkType, fork, error);
    });
}

bool HFSPlusVolumeBuilderPlan::_useFork(uint32_t cnid, uint8_t forkType,
                                        const HFSPlusBuilderFork& fork, std::string& error)
{
    for (const HFSPlusBuilderExtent& extent : fork.extents) {
        const bool sound = extent.startBlock != 0 && extent.blockCount != 0 &&
                           bitmap.isFree(extent.startBlock, extent.blockCount);
        if (!sound && !spec.unchecked) {
            error = "extent (" + std::to_string(extent.startBlock) + ", " +
                    std::to_string(extent.blockCount) + ") of file " + std::to_string(cnid) +
                    " fork " + std::to_string(forkType) + " is not free";
            return false;
        }
        bitmap.use(extent.startBlock, extent.blockCount);
    }
    return true;
}

bool HFSPlusVolumeBuilderPlan::_place(uint32_t blocks, HFSPlusBuilderExtents& extents,
                                      const char* what, std::string& error)
{
    const std::optional<uint32_t> start = bitmap.findRun(blocks, 1);
    if (!start.has_value()) {
        error = "no " + std::to_string(blocks) + " free blocks in a row for the " + what;
        return false;
    }
    bitmap.use(*start, blocks);
    extents = {{*start, blocks}};
    return true;
}

bool HFSPlusVolumeBuilderPlan::_placeTree(const HFSPlusBuilderTree& shape,
                                          HFSPlusBuilderTreePlan& tree, std::string& error)
{
    const bool isAttributes = &tree == &attributesTree;
    if (isAttributes && !spec.hasAttributesFile) {
        return true;
    }
    if (!tree.plan(shape, spec.blockSize)) {
        error = "a tree does not fit its nodes";
        return false;
    }
    tree.extents = shape.extents;
    if (!tree.extents.empty()) {
        return true;
    }
    const uint64_t blocks = (tree.logicalSize() + spec.blockSize - 1) / spec.blockSize;
    if (blocks > spec.totalBlocks) {
        error = "a tree is larger than the volume";
        return false;
    }
    return _place(static_cast<uint32_t>(blocks), tree.extents, "tree", error);
}

bool HFSPlusVolumeBuilderPlan::_countTree(
    HFSPlusBuilderTree& shape, HFSPlusBuilderTreePlan& tree,
    const std::function<bool(HFSPlusVolumeBuilderTree&)>& load)
{
    const uint32_t nodesPerBlock = std::max(1U, spec.blockSize / tree.nodeSize);
    const uint32_t loneAsGiven = shape.loneLeafRecords;
    const auto count = [&] {
        HFSPlusVolumeBuilderTree counter(shape, tree, nullptr);
        return load(counter) && counter.finish();
    };
    if (!count()) {
        return false;
    }
    if (!shape.freeNodes.has_value() || shape.totalNodes.has_value() || !shape.extents.empty()) {
        return true;
    }
    // Checkers want every node that the blocks can hold to be counted. Where a block holds several,
    // leaves with one record take up those that are not to be free.
    for (uint32_t turn = 0; turn < 16 * nodesPerBlock; turn++) {
        if (!tree.plan(shape, spec.blockSize) || tree.totalNodes % nodesPerBlock == 0) {
            return true;
        }
        shape.loneLeafRecords++;
        if (!count()) {
            return false;
        }
    }
    shape.loneLeafRecords = loneAsGiven;
    return count();
}

bool HFSPlusVolumeBuilderPlan::_countTrees(std::string& error)
{
    HFSPlusVolumeBuilderCatalog catalog(spec);
    const auto loadCatalog = [&](HFSPlusVolumeBuilderTree& counter) {
        return catalog.visit([&](auto key, auto data) { return counter.add(key, data); });
    };
    if (!_countTree(spec.catalogTree, catalogTree, loadCatalog)) {
        error = "catalog names are equal or out of order, or a record does not fit a node";
        return false;
    }
    const auto loadAttributes = [&](HFSPlusVolumeBuilderTree& counter) {
        return visitAttributeRecords(spec,
                                     [&](auto key, auto data) { return counter.add(key, data); });
    };
    if (!_countTree(spec.attributesTree, attributesTree, loadAttributes)) {
        error = "an attribute does not fit a node";
        return false;
    }
    return true;
}

bool HFSPlusVolumeBuilderPlan::_countExtentsTree(std::string& error)
{
    const auto load = [&](HFSPlusVolumeBuilderTree& counter) {
        return visitOverflowRecords(overflow,
                                    [&](auto key, auto data) { return counter.add(key, data); });
    };
    if (!_countTree(spec.extentsTree, extentsTree, load)) {
        error = "the extents overflow records do not fit their nodes";
        return false;
    }
    return true;
}

bool HFSPlusVolumeBuilderPlan::_placeAutomaticForks(std::string& error)
{
    const auto placeFork = [&](HFSPlusBuilderFork& fork) {
        return fork.automaticBlocks == 0 || !fork.extents.empty() ||
               _place(fork.automaticBlocks, fork.extents, "fork", error);
    };
    if (!placeFork(spec.startup)) {
        return false;
    }
    for (HFSPlusBuilderObject& object : spec.objects) {
        if (!placeFork(object.data) || !placeFork(object.resource)) {
            return false;
        }
    }
    return std::ranges::all_of(spec.attributes, [&](HFSPlusBuilderAttribute& attribute) {
        return placeFork(attribute.fork);
    });
}

bool HFSPlusVolumeBuilderPlan::_collectOverflow(std::string& error)
{
    if (spec.extentsTree.extents.size() > 8) {
        error = "the extents overflow file has more than eight extents";
        return false;
    }
    _overflow(kHFSPlusBuilderCatalogID, 0, catalogTree.extents, 8);
    _overflow(kHFSPlusBuilderBadBlocksID, 0, spec.badBlocks, 0);
    _overflow(kHFSPlusBuilderAllocationID, 0, allocationExtents, 8);
    _overflow(kHFSPlusBuilderStartupID, 0, spec.startup.extents, 8);
    _overflow(kHFSPlusBuilderAttributesID, 0, attributesTree.extents, 8);
    const auto collect = [&](uint32_t cnid, uint8_t forkType, const HFSPlusBuilderFork& fork) {
        if (forkType != kHFSPlusBuilderAttributeFork) {
            _overflow(cnid, forkType, fork.extents, 8);
        }
        return true;
    };
    const bool collected = visitForks(spec, collect);
    std::ranges::sort(overflow, {}, [](const HFSPlusBuilderOverflow& record) {
        return std::tie(record.fileID, record.forkType, record.startBlock);
    });
    return collected;
}

void HFSPlusVolumeBuilderPlan::_overflow(uint32_t fileID, uint8_t forkType,
                                         const HFSPlusBuilderExtents& extents, size_t inlineExtents)
{
    uint32_t block = 0;
    for (size_t index = 0; index < extents.size(); index++) {
        if (index >= inlineExtents) {
            if (index % 8 == 0) {
                overflow.push_back({fileID, forkType, block, {}});
            }
            overflow.back().extents.push_back(extents[index]);
        }
        block += extents[index].blockCount;
    }
}
