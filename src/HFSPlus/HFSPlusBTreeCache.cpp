#include "HFSPlus/HFSPlusBTreeFile.h"

#include <cstring>
#include <utility>

#include "HFSPlus/HFSPlusBTreeSnapshot.h"
#include "HFSPlus/HFSPlusBTreeTransaction.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"
#include "KLKit/KLMemory.h"

// The node cache of HFSPlusBTreeFile: references, the queue of nodes without any, eviction, and
// the transactions that put nodes back as they were.

HFSPlusCachedNode HFSPlusBTreeFile::cachedNodeWithIndex(uint32_t index,
                                                        std::span<const uint8_t> data,
                                                        VZDefragErrorSlot error)
{
    auto entry = _nodeCacheTOC.find(index);
    if (entry == _nodeCacheTOC.end()) {
        if (index >= nodeCount()) {
            std::ignore = VZDefragFail(error, "B-Tree node %1$lu is out of range.", index);
            return {};
        }
        std::unique_ptr<HFSPlusBTreeNode> node =
            HFSPlusBTreeNode::initWithBTree(*this, index, data, error);
        if (node == nullptr) {
            return {};
        }
        node->_cacheRetainCount = 1;
        entry = _nodeCacheTOC.emplace(index, std::move(node)).first;
    } else {
        _retain(*entry->second);
    }
    HFSPlusBTreeNode& node = *entry->second;
    HFSPlusCachedNode taken(*this, node);
    if (_snapshot != nullptr && !_snapshot->nodes.contains(index)) {
        const std::span<const uint8_t> bytes = node.bytes();
        _snapshot->nodes[index] = {{bytes.begin(), bytes.end()}, node.dirty()};
    }
    return taken;
}

HFSPlusCachedNode HFSPlusBTreeFile::soundNodeWithIndex(uint32_t index, std::string_view message,
                                                       VZDefragErrorSlot error)
{
    if (index == 0 || index >= nodeCount()) {
        std::ignore = VZDefragFail(error, message);
        return {};
    }
    HFSPlusCachedNode node = cachedNodeWithIndex(index, {}, error);
    if (node && node->checked() == HFSPlusBTreeNode::Checked::kNothing) {
        if (!node->hasSoundRecords()) {
            std::ignore = VZDefragFail(error, message);
            return {};
        }
        node->setChecked(HFSPlusBTreeNode::Checked::kOffsets);
    }
    return node;
}

const HFSPlusBTreeNode* HFSPlusBTreeFile::nodeInCache(uint32_t index) const
{
    const auto entry = _nodeCacheTOC.find(index);
    return entry == _nodeCacheTOC.end() ? nullptr : entry->second.get();
}

void HFSPlusBTreeFile::_retain(HFSPlusBTreeNode& node)
{
    if (node._cacheRetainCount++ > 0) {
        return;
    }
    if (node._cacheParked) {
        node._cacheParked = false;
    } else {
        _unlinkFromQueue(node);
    }
    --_nodeCacheCount;
}

void HFSPlusBTreeFile::cachedNodeRelease(HFSPlusBTreeNode& node)
{
    if (node._cacheRetainCount == 0) {
        KLPanic("B-Tree node %lu was released too often\n", node.index());
    }
    if (--node._cacheRetainCount > 0) {
        return;
    }
    node._cacheNextLink = _nodeCacheQHead;
    if (_nodeCacheQHead != nullptr) {
        _nodeCacheQHead->_cachePrevLink = &node;
    } else {
        _nodeCacheQTail = &node;
    }
    _nodeCacheQHead = &node;
    ++_nodeCacheCount;
    if (_nodeCacheLimit != 0) {
        _trimCache();
    }
}

void HFSPlusBTreeFile::_trimCache()
{
    while (_nodeCacheCount > _nodeCacheLimit && _nodeCacheQTail != nullptr) {
        HFSPlusBTreeNode& node = *_nodeCacheQTail;
        if (_holdsWrites && node.dirty()) {
            // Out of the queue, so that the next release does not meet it again; it still counts,
            // so that clean nodes make room for it.
            if (!KLWithinMemory([&] { _parkedNodes.push_back(node.index()); })) {
                return;  // the next release tries again
            }
            _unlinkFromQueue(node);
            node._cacheParked = true;
        } else {
            _cachedNodeDealloc(node);
        }
    }
}

void HFSPlusBTreeFile::_cachedNodeDealloc(HFSPlusBTreeNode& node)
{
    if (!_holdsWrites) {
        // The node logs a write that fails; nobody is left who could do more about it.
        if (!KLWithinMemory([&node] { std::ignore = node.flush(); })) {
            _volume.metadataWriteDidFail();
        }
    }
    _unlinkFromQueue(node);
    --_nodeCacheCount;
    _nodeCacheTOC.erase(node.index());
}

void HFSPlusBTreeFile::_unlinkFromQueue(HFSPlusBTreeNode& node)
{
    HFSPlusBTreeNode*& fromBefore =
        node._cachePrevLink != nullptr ? node._cachePrevLink->_cacheNextLink : _nodeCacheQHead;
    HFSPlusBTreeNode*& fromAfter =
        node._cacheNextLink != nullptr ? node._cacheNextLink->_cachePrevLink : _nodeCacheQTail;
    fromBefore = node._cacheNextLink;
    fromAfter = node._cachePrevLink;
    node._cachePrevLink = nullptr;
    node._cacheNextLink = nullptr;
}

bool HFSPlusBTreeFile::isDirty() const
{
    if (_updated) {
        return true;
    }
    for (const auto& [index, node] : _nodeCacheTOC) {
        if (node->dirty()) {
            return true;
        }
    }
    return false;
}

void HFSPlusBTreeFile::setHoldsWrites(bool holds)
{
    _holdsWrites = holds;
    if (!holds) {
        _requeueParkedNodes();
    }
}

void HFSPlusBTreeFile::_requeueParkedNodes()
{
    // Backwards: what was parked first had been out of use the longest and becomes the tail.
    for (auto index = _parkedNodes.rbegin(); index != _parkedNodes.rend(); ++index) {
        const auto entry = _nodeCacheTOC.find(*index);
        if (entry == _nodeCacheTOC.end() || !entry->second->_cacheParked) {
            continue;
        }
        HFSPlusBTreeNode& node = *entry->second;
        node._cacheParked = false;
        node._cachePrevLink = _nodeCacheQTail;
        if (_nodeCacheQTail != nullptr) {
            _nodeCacheQTail->_cacheNextLink = &node;
        } else {
            _nodeCacheQHead = &node;
        }
        _nodeCacheQTail = &node;
    }
    _parkedNodes.clear();
}

bool HFSPlusBTreeFile::_isReferenced(uint32_t index) const
{
    const auto entry = _nodeCacheTOC.find(index);
    return entry != _nodeCacheTOC.end() && entry->second->_cacheRetainCount > 0;
}

void HFSPlusBTreeFile::_beginTransaction()
{
    if (_snapshot != nullptr) {
        KLPanic("a transaction began inside another\n");
    }
    auto snapshot = std::make_unique<Snapshot>();
    snapshot->hostHeaderRec = _hostHeaderRec;
    snapshot->freeNodeMap = _freeNodeMap;
    snapshot->updated = _updated;
    snapshot->heldWrites = _holdsWrites;
    _snapshot = std::move(snapshot);
    setHoldsWrites(true);
}

void HFSPlusBTreeFile::_commit()
{
    setHoldsWrites(_snapshot->heldWrites);
    _snapshot = nullptr;
}

void HFSPlusBTreeFile::_rollBack()
{
    // A changed node cannot have left the cache, as writes are held; a node that did leave was
    // clean, so the disk still holds it as it was.
    for (const auto& [index, image] : _snapshot->nodes) {
        const auto entry = _nodeCacheTOC.find(index);
        if (entry != _nodeCacheTOC.end()) {
            std::memcpy(entry->second->_data.get(), image.bytes.data(), image.bytes.size());
            entry->second->_dirty = image.dirty;
            entry->second->_checked = HFSPlusBTreeNode::Checked::kNothing;
        }
    }
    _hostHeaderRec = _snapshot->hostHeaderRec;
    _freeNodeMap = std::move(_snapshot->freeNodeMap);
    _updated = _snapshot->updated;
    _commit();
}

HFSPlusBTreeTransaction::HFSPlusBTreeTransaction(HFSPlusBTreeFile& btree) : _btree(&btree)
{
    btree._beginTransaction();
}

HFSPlusBTreeTransaction::~HFSPlusBTreeTransaction()
{
    if (_btree != nullptr) {
        _btree->_rollBack();
    }
}

void HFSPlusBTreeTransaction::commit()
{
    _btree->_commit();
    _btree = nullptr;
}
