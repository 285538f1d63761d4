#include "support/HFSPlusVolumeCheckerCatalog.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr uint32_t kRootParentID = 1;
constexpr uint32_t kRootFolderID = 2;
constexpr uint32_t kFirstUserID = 16;
constexpr uint16_t kFolderRecord = 1;
constexpr uint16_t kFileRecord = 2;
constexpr uint16_t kFolderThreadRecord = 3;
constexpr uint16_t kFileThreadRecord = 4;
constexpr uint16_t kThreadExistsFlag = 0x0002;
constexpr uint16_t kHasAttributesFlag = 0x0004;
constexpr uint16_t kHasFolderCountFlag = 0x0010;
constexpr uint16_t kLinkChainFlag = 0x0020;
constexpr uint32_t kReusedCNIDs = 0x00001000;
constexpr uint32_t kFolderLinkType = 0x66647270;
constexpr uint32_t kFolderLinkCreator = 0x4D414353;
constexpr size_t kFolderSize = 88;
constexpr size_t kFileSize = 248;
constexpr size_t kThreadSize = 10;
constexpr size_t kDataForkOffset = 88;
constexpr size_t kResourceForkOffset = 168;

/** A 64-bit hash whose collisions are too rare to hide a wrong name (FNV-1a, then mixed). */
uint64_t hashOfName(std::span<const uint8_t> name, bool isFolder)
{
    uint64_t hash = 0xCBF29CE484222325;
    for (const uint8_t byte : name) {
        hash = (hash ^ byte) * 0x100000001B3;
    }
    hash = (hash ^ (isFolder ? 1 : 2)) * 0x100000001B3;
    return hash ^ (hash >> 29);
}

bool nameIs(std::span<const uint8_t> name, std::string_view ascii)
{
    if (name.size() != 2 * ascii.size()) {
        return false;
    }
    for (size_t index = 0; index < ascii.size(); ++index) {
        if (checkedUInt16(name.data() + 2 * index) != static_cast<uint8_t>(ascii[index])) {
            return false;
        }
    }
    return true;
}

bool isFolderLink(std::span<const uint8_t> data)
{
    return (checkedUInt16(data.data() + 2) & kLinkChainFlag) != 0 &&
           checkedUInt32(data.data() + 48) == kFolderLinkType &&
           checkedUInt32(data.data() + 52) == kFolderLinkCreator;
}

}  // namespace

void HFSPlusCheckCatalog::visitRecord(std::span<const uint8_t> key, std::span<const uint8_t> data)
{
    const uint16_t type = data.size() < 2 ? uint16_t{0} : checkedUInt16(data.data());
    if (type == kFolderRecord && data.size() == kFolderSize) {
        _visitFolder(key, data);
    } else if (type == kFileRecord && data.size() == kFileSize) {
        _visitFile(key, data);
    } else if ((type == kFolderThreadRecord || type == kFileThreadRecord) &&
               data.size() >= kThreadSize) {
        _visitThread(key, data, type == kFolderThreadRecord);
    } else {
        _volume.problems.report("a catalog record of type %u in folder %u has %zu bytes", type,
                                checkedUInt32(key.data() + 2), data.size());
    }
}

void HFSPlusCheckCatalog::_addObject(std::span<const uint8_t> key, uint32_t cnid, uint16_t flags,
                                     bool isFolder)
{
    const uint32_t parentID = checkedUInt32(key.data() + 2);
    _objects.push_back({cnid, parentID, hashOfName(key.subspan(8), isFolder)});
    if (key.size() == 8) {
        _volume.problems.report("file or folder %u has no name", cnid);
    }
    if ((flags & kHasAttributesFlag) != 0) {
        _withAttributes.push_back(cnid);
    }
    // The children of a folder follow each other, so its counter is the last one.
    if (_children.empty() || _children.back().parentID != parentID) {
        _children.push_back({parentID, 0, 0});
    }
    ++_children.back().objectCount;
}

void HFSPlusCheckCatalog::_visitFolder(std::span<const uint8_t> key, std::span<const uint8_t> data)
{
    const uint16_t flags = checkedUInt16(data.data() + 2);
    const uint32_t cnid = checkedUInt32(data.data() + 8);
    _addObject(key, cnid, flags, true);
    ++_children.back().folderCount;
    _folders.push_back({cnid, checkedUInt32(key.data() + 2), checkedUInt32(data.data() + 4),
                        checkedUInt32(data.data() + 84), (flags & kHasFolderCountFlag) != 0});
}

void HFSPlusCheckCatalog::_visitFile(std::span<const uint8_t> key, std::span<const uint8_t> data)
{
    const uint16_t flags = checkedUInt16(data.data() + 2);
    const uint32_t cnid = checkedUInt32(data.data() + 8);
    _addObject(key, cnid, flags, false);
    ++_fileCount;
    if ((flags & kThreadExistsFlag) == 0) {
        _volume.problems.report("the flags of file %u say that it has no thread", cnid);
    }
    if (isFolderLink(data)) {
        ++_children.back().folderCount;
    }
    _addFork(data.data() + kDataForkOffset, cnid, kHFSPlusCheckDataFork, key);
    _addFork(data.data() + kResourceForkOffset, cnid, kHFSPlusCheckResourceFork, key);
}

void HFSPlusCheckCatalog::_addFork(const uint8_t* forkData, uint32_t cnid, uint8_t forkType,
                                   std::span<const uint8_t> key)
{
    HFSPlusCheckedFork fork = _overflow.resolve(forkData, cnid, forkType, false);
    if (forkType == kHFSPlusCheckDataFork && checkedUInt32(key.data() + 2) == kRootFolderID) {
        if (nameIs(key.subspan(8), ".journal")) {
            _journalExtents = fork.extents;
        } else if (nameIs(key.subspan(8), ".journal_info_block")) {
            _journalInfoExtents = fork.extents;
        }
    }
    const bool isEmpty = fork.logicalSize == 0 && fork.totalBlocks == 0 && fork.extents.empty();
    if (_collectForks && (forkType == kHFSPlusCheckDataFork || !isEmpty)) {
        _result.forks.push_back(std::move(fork));
    }
}

void HFSPlusCheckCatalog::_visitThread(std::span<const uint8_t> key, std::span<const uint8_t> data,
                                       bool isFolder)
{
    const uint32_t cnid = checkedUInt32(key.data() + 2);
    const size_t nameLength = checkedUInt16(data.data() + 8);
    if (key.size() != 8 || nameLength > 255 || kThreadSize + 2 * nameLength > data.size()) {
        _volume.problems.report("the thread record of %u is malformed", cnid);
        return;
    }
    _threads.push_back({cnid, checkedUInt32(data.data() + 4),
                        hashOfName(data.subspan(kThreadSize, 2 * nameLength), isFolder)});
}

void HFSPlusCheckCatalog::finish()
{
    const auto byCNID = [](const auto& left, const auto& right) { return left.cnid < right.cnid; };
    std::stable_sort(_objects.begin(), _objects.end(), byCNID);
    std::stable_sort(_threads.begin(), _threads.end(), byCNID);
    std::stable_sort(_folders.begin(), _folders.end(), byCNID);
    std::sort(_withAttributes.begin(), _withAttributes.end());
    _checkCNIDs();
    _checkThreads();
    _checkValences();
    _checkParents();

    const uint64_t folderCount = _folders.empty() ? 0 : _folders.size() - 1;
    if (_fileCount != _result.fileCount) {
        _volume.problems.report("fileCount is %u, the catalog has %llu files", _result.fileCount,
                                static_cast<unsigned long long>(_fileCount));
    }
    if (folderCount != _result.folderCount) {
        _volume.problems.report("folderCount is %u, the catalog has %llu folders besides the root",
                                _result.folderCount, static_cast<unsigned long long>(folderCount));
    }
}

bool HFSPlusCheckCatalog::hasObject(uint32_t cnid) const
{
    auto found =
        std::lower_bound(_objects.begin(), _objects.end(), cnid,
                         [](const Object& object, uint32_t value) { return object.cnid < value; });
    return found != _objects.end() && found->cnid == cnid;
}

const HFSPlusCheckCatalog::Folder* HFSPlusCheckCatalog::_folderWithCNID(uint32_t cnid) const
{
    auto found =
        std::lower_bound(_folders.begin(), _folders.end(), cnid,
                         [](const Folder& folder, uint32_t value) { return folder.cnid < value; });
    return found != _folders.end() && found->cnid == cnid ? &*found : nullptr;
}

void HFSPlusCheckCatalog::_checkCNIDs()
{
    const bool reuses = (_volume.attributes & kReusedCNIDs) != 0;
    for (size_t index = 0; index < _objects.size(); ++index) {
        const Object& object = _objects[index];
        if (index > 0 && _objects[index - 1].cnid == object.cnid) {
            _volume.problems.report("CNID %u is used twice", object.cnid);
        }
        if (object.cnid != kRootFolderID && object.cnid < kFirstUserID) {
            _volume.problems.report("a file or folder has the reserved CNID %u", object.cnid);
        }
        if (!reuses && object.cnid >= _result.nextCatalogID) {
            _volume.problems.report("CNID %u is not below nextCatalogID %u", object.cnid,
                                    _result.nextCatalogID);
        }
    }
}

void HFSPlusCheckCatalog::_checkThreads()
{
    size_t object = 0;
    size_t thread = 0;
    // Both lists are in order; each step takes from one or both.
    while (object < _objects.size() || thread < _threads.size()) {
        if (thread == _threads.size() ||
            (object < _objects.size() && _objects[object].cnid < _threads[thread].cnid)) {
            _volume.problems.report("file or folder %u has no thread record",
                                    _objects[object].cnid);
            ++object;
        } else if (object == _objects.size() || _threads[thread].cnid < _objects[object].cnid) {
            _volume.problems.report("thread record %u has no file or folder",
                                    _threads[thread].cnid);
            ++thread;
        } else {
            if (_objects[object] != _threads[thread]) {
                _volume.problems.report("the thread record of %u names another place",
                                        _threads[thread].cnid);
            }
            ++object;
            ++thread;
        }
    }
}

void HFSPlusCheckCatalog::_checkValences()
{
    // The key order keeps the parents ascending, unless the tree was damaged.
    std::stable_sort(
        _children.begin(), _children.end(),
        [](const Children& left, const Children& right) { return left.parentID < right.parentID; });
    for (const Folder& folder : _folders) {
        auto found = std::lower_bound(
            _children.begin(), _children.end(), folder.cnid,
            [](const Children& children, uint32_t value) { return children.parentID < value; });
        const bool hasChildren = found != _children.end() && found->parentID == folder.cnid;
        const Children children = hasChildren ? *found : Children{folder.cnid, 0, 0};
        if (folder.valence != children.objectCount) {
            _volume.problems.report("the valence of folder %u is %u, it holds %u", folder.cnid,
                                    folder.valence, children.objectCount);
        }
        if (folder.countsFolders && folder.folderCount != children.folderCount) {
            _volume.problems.report("folderCount of folder %u is %u, it holds %u folders",
                                    folder.cnid, folder.folderCount, children.folderCount);
        }
        if (_volume.isHFSX && !folder.countsFolders) {
            _volume.problems.report("folder %u does not count its folders", folder.cnid);
        }
    }
    for (const Children& children : _children) {
        if (children.parentID == kRootParentID ? children.objectCount != 1
                                               : _folderWithCNID(children.parentID) == nullptr) {
            _volume.problems.report("parent %u of %u files and folders is no such folder",
                                    children.parentID, children.objectCount);
        }
    }
}

void HFSPlusCheckCatalog::_checkParents()
{
    const Folder* root = _folderWithCNID(kRootFolderID);
    if (root == nullptr || root->parentID != kRootParentID) {
        _volume.problems.report("there is no root folder");
        return;
    }
    // The number of the climb that passed a folder; a climb that meets itself is a loop.
    std::vector<size_t> climbs(_folders.size(), 0);
    climbs[static_cast<size_t>(root - _folders.data())] = _folders.size() + 1;
    for (size_t index = 0; index < _folders.size(); ++index) {
        const Folder* folder = &_folders[index];
        // Every round marks another folder.
        while (folder != nullptr && climbs[static_cast<size_t>(folder - _folders.data())] == 0) {
            climbs[static_cast<size_t>(folder - _folders.data())] = index + 1;
            folder = _folderWithCNID(folder->parentID);
        }
        if (folder != nullptr &&
            climbs[static_cast<size_t>(folder - _folders.data())] == index + 1) {
            _volume.problems.report("folder %u is inside itself", folder->cnid);
        }
    }
}
