#include "HFSPlus/HFSPlusCatalog.h"

#include <algorithm>
#include <cstring>

#include "HFSPlus/HFSPlusCatalogPath.h"
#include "HFSPlus/HFSPlusFormatConversion.h"
#include "HFSPlus/HFSPlusUnicode.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"
#include "KLKit/KLStringUtilities.h"

namespace {

constexpr uint32_t kNodeCacheSize = 32 * 1024 * 1024;  // bytes
constexpr std::string_view kCatalogInconsistent = "Catalog file is inconsistent.";
constexpr std::string_view kVolumeInconsistent = "Volume is inconsistent.";
int compareNumbers(uint32_t left, uint32_t right)
{
    return left == right ? 0 : left < right ? -1 : 1;
}

template <int (*CompareNames)(std::span<const uint8_t>, std::span<const uint8_t>)>
int compareKeys(std::span<const uint8_t> left, std::span<const uint8_t> right)
{
    const int order =
        compareNumbers(HFSPlusCatalogKeyParentID(left), HFSPlusCatalogKeyParentID(right));
    return order != 0 ? order
                      : CompareNames(HFSPlusCatalogKeyName(left), HFSPlusCatalogKeyName(right));
}

bool isFolderOrFile(uint16_t recordType)
{
    return recordType == kHFSPlusFolderRecord || recordType == kHFSPlusFileRecord;
}

void copyKey(HFSPlusCatalogLookupRecord& record, std::span<const uint8_t> key)
{
    const std::span<const uint8_t> name = HFSPlusCatalogKeyName(key);
    record.keyLength = static_cast<uint16_t>(key.size() - sizeof(uint16_t));
    record.parentID = HFSPlusCatalogKeyParentID(key);
    record.nameLength = static_cast<uint16_t>(name.size() / 2);
    for (size_t index = 0; index < record.nameLength; ++index) {
        record.name[index] = static_cast<uint16_t>(name[2 * index] << 8 | name[2 * index + 1]);
    }
}

}  // namespace

std::unique_ptr<HFSPlusCatalog> HFSPlusCatalog::initWithVolume(HFSPlusVolume& volume,
                                                               VZDefragErrorSlot error)
{
    std::unique_ptr<HFSPlusCatalog> catalog(new HFSPlusCatalog(volume));
    if (!catalog->_initWithVolume(error)) {
        return nullptr;
    }
    return catalog;
}

HFSPlusCatalog::HFSPlusCatalog(HFSPlusVolume& volume) : HFSPlusBTreeFile(volume, kHFSCatalogFileID)
{
}

bool HFSPlusCatalog::_initWithVolume(VZDefragErrorSlot error)
{
    if (!_open(error)) {
        return false;
    }
    setNodeCacheSize(kNodeCacheSize);
    // On a volume that is not HFSX the field is reserved and its value means nothing.
    _binaryKeyCompare =
        _volume.isHFSX() && headerRecord().keyCompareType == uint8_t{kHFSBinaryCompare};
    _keyCompareProc = _binaryKeyCompare ? compareKeys<HFSPlusBinaryUnicodeCompare>
                                        : compareKeys<HFSPlusFastUnicodeCompare>;
    KLDebugLog(KLDebugLevel::kInfo,
               "Catalog size        = %@ (node size = %@, total nodes = %lu, free nodes = %lu)\n",
               stringWithPrettySize(uint64_t{nodeCount()} * nodeSize()),
               stringWithPrettySize(nodeSize()), nodeCount(), freeNodes());
    KLDebugLog(KLDebugLevel::kInfo,
               "Catalog root node   = %lu (first leaf node = %lu, last leaf node = %lu)\n",
               rootNode(), firstLeafNode(), lastLeafNode());
    return true;
}

int HFSPlusCatalog::compare(std::span<const uint8_t> left, std::span<const uint8_t> right) const
{
    return _binaryKeyCompare ? compareKeys<HFSPlusBinaryUnicodeCompare>(left, right)
                             : compareKeys<HFSPlusFastUnicodeCompare>(left, right);
}

bool HFSPlusCatalog::_recordAtIndex(const HFSPlusBTreeNode& node, uint32_t index,
                                    HFSPlusCatalogRecord& record, VZDefragErrorSlot error) const
{
    return record.setBytes(node.recordAtIndex(index)) || VZDefragFail(error, kCatalogInconsistent);
}

/** Sets the index and the verdict of @p position for @p key in the node that it holds.
 *
 *  Keys ascend in a sound node, so halving finds what a walk would; in any other the answer is
 *  some record of the node.
 */
bool HFSPlusCatalog::_findInNode(const HFSPlusCatalogKey& key, Position& position,
                                 VZDefragErrorSlot error) const
{
    uint32_t first = 0;
    uint32_t end = position.node->recordCount();
    position.isEqual = false;
    while (first < end) {
        const uint32_t middle = first + (end - first) / 2;
        HFSPlusCatalogRecord record;
        if (!_recordAtIndex(*position.node, middle, record, error)) {
            return false;
        }
        const int order = _keyCompareProc(record.key(), key.bytes());
        if (order < 0) {
            first = middle + 1;
        } else {
            end = middle;
            position.isEqual = order == 0;
        }
    }
    position.index = first;
    return true;
}

/** Goes down from the root to the leaf that holds @p key or would hold it. */
bool HFSPlusCatalog::_find(const HFSPlusCatalogKey& key, Position& position,
                           VZDefragErrorSlot error)
{
    uint32_t index = rootNode();
    // The count ends a descent whose children lead back up.
    for (uint32_t level = 0; level < kBTMaxTreeDepth; ++level) {
        position.node = soundNodeWithIndex(index, kCatalogInconsistent, error);
        if (!position.node || !_findInNode(key, position, error)) {
            return false;
        }
        if (position.node->kind() != kBTIndexNode) {
            break;
        }
        // The child to take is that of the last key not above the wanted one.
        const uint32_t child =
            position.isEqual || position.index == 0 ? position.index : position.index - 1;
        HFSPlusCatalogRecord record;
        if (child >= position.node->recordCount() ||
            !_recordAtIndex(*position.node, child, record, error)) {
            return VZDefragFail(error, kCatalogInconsistent);
        }
        const auto* const link = record.dataAs<HFSPlusDiskOrder::UInt32>();
        if (link == nullptr) {
            return VZDefragFail(error, kCatalogInconsistent);
        }
        index = *link;
    }
    return position.node->kind() == kBTLeafNode || VZDefragFail(error, kCatalogInconsistent);
}

/** Gives the key of the record of @p cnid, as its thread record tells it. */
bool HFSPlusCatalog::_findObjectKey(uint32_t cnid, HFSPlusCatalogKey& key, bool& found,
                                    VZDefragErrorSlot error)
{
    found = false;
    Position position;
    if (!_find(HFSPlusCatalogKey(cnid), position, error)) {
        return false;
    }
    if (!position.isEqual) {
        return true;
    }
    HFSPlusCatalogRecord record;
    if (!_recordAtIndex(*position.node, position.index, record, error)) {
        return false;
    }
    const uint16_t type = record.recordType();
    if (type != kHFSPlusFolderThreadRecord && type != kHFSPlusFileThreadRecord) {
        return true;
    }
    const auto* const thread = record.dataAs<HFSPlusCatalogThreadHead>();
    if (thread == nullptr || thread->nameLength > kHFSPlusMaxFileNameLength ||
        record.data().size() - sizeof *thread < 2 * size_t{thread->nameLength}) {
        return VZDefragFail(error, kCatalogInconsistent);
    }
    key = HFSPlusCatalogKey(thread->parentID,
                            record.data().subspan(sizeof *thread, 2 * size_t{thread->nameLength}));
    found = true;
    return true;
}

/** Fills @p record from the folder or file with @p key; untouched when there is none. @p type is
 *  that of the record with the key, 0 without one. */
bool HFSPlusCatalog::_copyRecordForKey(HFSPlusCatalogLookupRecord& record,
                                       const HFSPlusCatalogKey& key, uint16_t& type,
                                       VZDefragErrorSlot error)
{
    type = 0;
    Position position;
    if (!_find(key, position, error)) {
        return false;
    }
    if (!position.isEqual) {
        return true;
    }
    HFSPlusCatalogRecord onDisk;
    if (!_recordAtIndex(*position.node, position.index, onDisk, error)) {
        return false;
    }
    if (onDisk.recordType() == kHFSPlusFolderRecord) {
        const auto* const folder = onDisk.dataAs<HFSPlusCatalogFolder>();
        if (folder == nullptr) {
            return VZDefragFail(error, kCatalogInconsistent);
        }
        record.folder = hostOrder(*folder);
    } else if (onDisk.recordType() == kHFSPlusFileRecord) {
        const auto* const file = onDisk.dataAs<HFSPlusCatalogFile>();
        if (file == nullptr) {
            return VZDefragFail(error, kCatalogInconsistent);
        }
        record.file = hostOrder(*file);
    } else {
        type = onDisk.recordType();
        return true;
    }
    type = onDisk.recordType();
    record.recordType = type;
    copyKey(record, onDisk.key());
    return true;
}

bool HFSPlusCatalog::copyRecordForCNID(HFSPlusCatalogLookupRecord& record, uint32_t cnid,
                                       VZDefragErrorSlot error)
{
    record.recordType = 0;
    HFSPlusCatalogKey key(0);
    bool found = false;
    if (!_findObjectKey(cnid, key, found, error)) {
        return false;
    }
    return !found || _copyRecordForKey(record, key, record.recordType, error);
}

bool HFSPlusCatalog::copyRecordForPath(HFSPlusCatalogLookupRecord& record, std::string_view path,
                                       VZDefragErrorSlot error)
{
    bool complete = false;
    return _walkPath(record, path, complete, error);
}

bool HFSPlusCatalog::copyRecordForWholePath(HFSPlusCatalogLookupRecord& record,
                                            std::string_view path, VZDefragErrorSlot error)
{
    bool complete = false;
    const bool walked = _walkPath(record, path, complete, error);
    if (!walked || !complete) {
        record.recordType = 0;
    }
    return walked;
}

/** Follows @p path as far as it exists; @p complete when that is all of it, through folders. */
bool HFSPlusCatalog::_walkPath(HFSPlusCatalogLookupRecord& record, std::string_view path,
                               bool& complete, VZDefragErrorSlot error)
{
    record.recordType = 0;
    complete = false;
    uint32_t parentID = kHFSRootFolderID;
    bool throughFolders = true;
    std::string_view component;
    while (HFSPlusTakePathComponent(path, component)) {
        throughFolders = throughFolders && !record.isFile();
        std::u16string name;
        uint16_t type = 0;
        if (!HFSPlusCatalogName(component, name, error) ||
            !_copyRecordForKey(record, HFSPlusCatalogKey(parentID, name), type, error)) {
            return false;
        }
        if (!isFolderOrFile(type) && name.find(u':') == std::u16string::npos) {
            // What was found so far stays: callers tell a missing file by its folder's record.
            return true;
        }
        if (!isFolderOrFile(type)) {
            std::replace(name.begin(), name.end(), u':', u'/');
            if (!_copyRecordForKey(record, HFSPlusCatalogKey(parentID, name), type, error)) {
                return false;
            }
        }
        if (!isFolderOrFile(type)) {
            record.recordType = 0;
            return true;
        }
        parentID = record.cnid();
    }
    complete = throughFolders;
    return true;
}

bool HFSPlusCatalog::copyPathForCNID(std::string& path, uint32_t cnid, VZDefragErrorSlot error)
{
    path = HFSPlusSpecialFileName(cnid);
    if (!path.empty()) {
        return true;
    }
    HFSPlusCatalogPath buffer;
    uint32_t current = cnid;
    // Every step takes room in the buffer, so parents that form a loop run out of it.
    while (current > kHFSRootFolderID) {
        HFSPlusCatalogKey key(0);
        bool found = false;
        if (!_findObjectKey(current, key, found, error)) {
            return false;
        }
        if (!found) {
            return true;
        }
        if (!buffer.prependName(key.name(), error)) {
            return false;
        }
        current = key.parentID();
    }
    path = buffer.string();
    return true;
}

bool HFSPlusCatalog::iterateFolderID(uint32_t folderID, HFSPlusCatalogFolderDelegate& delegate,
                                     VZDefragErrorSlot error)
{
    delegate.iterateFolderWillStart();
    const bool walked = _walkFolder(folderID, delegate, error);
    delegate.iterateFolderDidFinish();
    return walked;
}

bool HFSPlusCatalog::_walkFolder(uint32_t folderID, HFSPlusCatalogFolderDelegate& delegate,
                                 VZDefragErrorSlot error)
{
    Position position;
    if (!_find(HFSPlusCatalogKey(folderID), position, error)) {
        return false;
    }
    // The chain of leaves may be a circle; no sound one has more nodes than the tree.
    for (uint32_t step = 0; step < nodeCount(); ++step) {
        bool ended = false;
        if (position.node->kind() != kBTLeafNode) {
            return VZDefragFail(error, kCatalogInconsistent);
        }
        if (!_walkFolderInNode(folderID, position, delegate, ended, error)) {
            return false;
        }
        if (ended) {
            return true;
        }
        const uint32_t next = position.node->fLink();
        if (next == 0) {
            break;
        }
        position.node = soundNodeWithIndex(next, kCatalogInconsistent, error);
        position.index = 0;
        if (!position.node) {
            return false;
        }
    }
    return VZDefragFail(error, kCatalogInconsistent);
}

/** Hands out the folder's records from @p position on; @p ended at the first of another parent. */
bool HFSPlusCatalog::_walkFolderInNode(uint32_t folderID, const Position& position,
                                       HFSPlusCatalogFolderDelegate& delegate, bool& ended,
                                       VZDefragErrorSlot error) const
{
    for (uint32_t index = position.index; index < position.node->recordCount(); ++index) {
        HFSPlusCatalogRecord record;
        if (!_recordAtIndex(*position.node, index, record, error)) {
            return false;
        }
        if (HFSPlusCatalogKeyParentID(record.key()) != folderID) {
            ended = true;
            return true;
        }
        if (record.recordType() == kHFSPlusFileRecord) {
            const auto* const file = record.dataAs<HFSPlusCatalogFile>();
            if (file == nullptr) {
                return VZDefragFail(error, kCatalogInconsistent);
            }
            if (!delegate.iterateFolderFile(*file, record.key(), error)) {
                return false;
            }
        } else if (record.recordType() == kHFSPlusFolderRecord) {
            const auto* const folder = record.dataAs<HFSPlusCatalogFolder>();
            if (folder == nullptr) {
                return VZDefragFail(error, kCatalogInconsistent);
            }
            if (!delegate.iterateFolderFolder(*folder, record.key(), error)) {
                return false;
            }
        }
    }
    return true;
}

bool HFSPlusCatalog::updateForkExtents(const HFSPlusHostExtentRecord& extents, uint32_t fileID,
                                       uint8_t forkType, bool setZeroLength,
                                       VZDefragErrorSlot error)
{
    if (forkType != kHFSDataForkType && forkType != kHFSResourceForkType) {
        return VZDefragFail(error, kVolumeInconsistent);
    }
    HFSPlusCatalogKey key(0);
    bool found = false;
    if (!_findObjectKey(fileID, key, found, error)) {
        return false;
    }
    Position position;
    if (found && !_find(key, position, error)) {
        return false;
    }
    if (!found || position.index >= position.node->recordCount()) {
        return VZDefragFail(error, kVolumeInconsistent);
    }
    if (!position.isEqual) {
        return true;
    }
    HFSPlusCatalogRecord record;
    if (!_recordAtIndex(*position.node, position.index, record, error)) {
        return false;
    }
    const auto* const file =
        record.recordType() == kHFSPlusFileRecord ? record.dataAs<HFSPlusCatalogFile>() : nullptr;
    // A thread record that leads to another file must not change that file's extents.
    if (file == nullptr || file->fileID != fileID) {
        return VZDefragFail(error, kVolumeInconsistent);
    }
    const bool isData = forkType == kHFSDataForkType;
    HFSPlusForkData fork = isData ? file->dataFork : file->resourceFork;
    fork.extents = diskOrder(extents);
    if (setZeroLength) {
        fork.logicalSize = 0;
        fork.totalBlocks = 0;
    }
    const size_t forkOffset = position.node->recordAtIndex(position.index).size() -
                              record.data().size() +
                              (isData ? offsetof(HFSPlusCatalogFile, dataFork)
                                      : offsetof(HFSPlusCatalogFile, resourceFork));
    std::memcpy(position.node->recordDataAtIndex(position.index) + forkOffset, &fork, sizeof fork);
    position.node->setDirty(true);
    return true;
}
