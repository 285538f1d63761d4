#include "HFSPlus/HFSPlusCatalogScanner.h"

#include <algorithm>
#include <string>

#include "HFSPlus/HFSPlusBTreeBulkIterator.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"
#include "KLKit/KLStringUtilities.h"
#include "KLKit/KLToolTask.h"
#include "VZDefragTask.h"

namespace {

constexpr double kSparseRatio = 5.0;  // nodes there are to nodes in use
constexpr std::string_view kCatalogInconsistent = "Catalog file is inconsistent.";

/** Whether this thread has told how it scans; once is enough for a task of many scans. */
thread_local bool didLogScan = false;

std::optional<uint32_t> childOfIndexRecord(std::span<const uint8_t> bytes)
{
    HFSPlusCatalogRecord record;
    const auto* const child =
        record.setBytes(bytes) ? record.dataAs<HFSPlusDiskOrder::UInt32>() : nullptr;
    return child == nullptr ? std::nullopt : std::optional<uint32_t>(*child);
}

/** Nodes there are for each node in use. */
double nodeRatio(const HFSPlusCatalog& catalog)
{
    // The header node is always in use, whatever the count says.
    const uint32_t used = std::max<uint32_t>(catalog.nodeCount() - catalog.freeNodes(), 1);
    return static_cast<double>(catalog.nodeCount()) / static_cast<double>(used);
}

void logScan(const HFSPlusCatalog& catalog, double ratio)
{
    const KLToolTask* const task = KLToolTask::currentToolTask();
    const std::string name = task == nullptr ? std::string() : task->name();
    KLDebugLog(KLDebugLevel::kDebug, "%@,DEBUG,Catalog total vs used node ratio is %.1f\n", name,
               ratio);
    KLDebugLog(KLDebugLevel::kDebug, "%@,DEBUG,Catalog cache size is %s\n", name,
               stringWithPrettySize(catalog.nodeCacheSize()));
    KLDebugLog(KLDebugLevel::kDebug, "%@,DEBUG,Catalog file size is %s\n", name,
               stringWithPrettySize(catalog.logicalSize()));
    if (ratio > kSparseRatio) {
        KLDebugLog(KLDebugLevel::kDebug, "%@,DEBUG,Catalog scan using sparse method\n", name);
    } else {
        KLDebugLog(KLDebugLevel::kDebug, "%@,DEBUG,Catalog scan using bulk method\n", name);
    }
}

}  // namespace

HFSPlusCatalogScanner::HFSPlusCatalogScanner(HFSPlusVolume& volume) : _catalog(volume.catalog()) {}

bool HFSPlusCatalogScanner::scanCatalogFiles(HFSPlusCatalogScanDelegate& delegate,
                                             VZDefragErrorSlot error)
{
    const double ratio = nodeRatio(_catalog);
    if (!didLogScan) {
        logScan(_catalog, ratio);
    }
    _leaves.reset();
    if (delegate.needsEveryCatalogFile()) {
        _leaves.emplace(_catalog, childOfIndexRecord);
    }
    const bool scanned = ratio > kSparseRatio ? _scanCatalogFilesSparse(delegate, error)
                                              : _scanCatalogFilesBulk(delegate, error);
    didLogScan = true;
    return scanned && (!_leaves || _leaves->checkIndex(kCatalogInconsistent, error));
}

bool HFSPlusCatalogScanner::_scanCatalogFilesBulk(HFSPlusCatalogScanDelegate& delegate,
                                                  VZDefragErrorSlot error)
{
    delegate.scanCatalogFilesWillStart();
    const bool scanned = _scanNodesInUse(delegate, error);
    delegate.scanCatalogFilesDidFinish();
    return scanned;
}

bool HFSPlusCatalogScanner::_scanCatalogFilesSparse(HFSPlusCatalogScanDelegate& delegate,
                                                    VZDefragErrorSlot error)
{
    delegate.scanCatalogFilesWillStart();
    const bool scanned = _scanLeafChain(delegate, error);
    delegate.scanCatalogFilesDidFinish();
    return scanned;
}

bool HFSPlusCatalogScanner::_scanNodesInUse(HFSPlusCatalogScanDelegate& delegate,
                                            VZDefragErrorSlot error)
{
    const std::unique_ptr<HFSPlusBTreeBulkIterator> iterator =
        HFSPlusBTreeBulkIterator::initWithBTree(_catalog, error);
    if (iterator == nullptr || !VZDefragCheckNotAborted(error)) {
        return false;
    }
    while (true) {
        HFSPlusCachedNode node;
        if (!iterator->nextCachedNode(node, error)) {
            return false;
        }
        if (!node) {
            return true;
        }
        if (node->kind() == kBTLeafNode && !_scanLeaf(*node, delegate, error)) {
            return false;
        }
        node = HFSPlusCachedNode();
        if (!VZDefragCheckNotAborted(error)) {
            return false;
        }
    }
}

bool HFSPlusCatalogScanner::_scanLeafChain(HFSPlusCatalogScanDelegate& delegate,
                                           VZDefragErrorSlot error)
{
    if (!VZDefragCheckNotAborted(error)) {
        return false;
    }
    uint32_t index = _catalog.firstLeafNode();
    uint32_t visited = 0;
    while (index != 0) {
        // A chain longer than the tree is a circle.
        if (visited++ == _catalog.nodeCount()) {
            return VZDefragFail(error, kCatalogInconsistent);
        }
        HFSPlusCachedNode node = _catalog.soundNodeWithIndex(index, kCatalogInconsistent, error);
        if (!node) {
            return false;
        }
        if (node->kind() != kBTLeafNode) {
            return VZDefragFail(error, kCatalogInconsistent);
        }
        if (!_scanLeaf(*node, delegate, error)) {
            return false;
        }
        index = node->fLink();
        node = HFSPlusCachedNode();
        if (!VZDefragCheckNotAborted(error)) {
            return false;
        }
    }
    return true;
}

/** Hands out the file records of a leaf; a damaged one must not pass for a file that is not there,
 *  since its blocks would then look like nobody's. */
bool HFSPlusCatalogScanner::_scanLeaf(const HFSPlusBTreeNode& node,
                                      HFSPlusCatalogScanDelegate& delegate, VZDefragErrorSlot error)
{
    if (!node.hasSoundRecords()) {
        return VZDefragFail(error, kCatalogInconsistent);
    }
    if (_leaves && !_leaves->addLeaf(node, kCatalogInconsistent, error)) {
        return false;
    }
    for (uint32_t index = 0; index < node.recordCount(); ++index) {
        HFSPlusCatalogRecord record;
        if (!record.setBytes(node.recordAtIndex(index))) {
            return VZDefragFail(error, kCatalogInconsistent);
        }
        if (record.recordType() != kHFSPlusFileRecord) {
            continue;
        }
        const auto* const file = record.dataAs<HFSPlusCatalogFile>();
        if (file == nullptr) {
            return VZDefragFail(error, kCatalogInconsistent);
        }
        if (!delegate.scanCatalogFile(*file, record.key(), error)) {
            return false;
        }
    }
    return true;
}
