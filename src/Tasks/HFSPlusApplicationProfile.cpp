#include "Tasks/HFSPlusApplicationProfile.h"

#include <algorithm>

#include "HFSPlus/HFSPlusFileForkSet.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "VZDefragTask.h"

namespace {

constexpr std::string_view kPath = "/Applications";

}  // namespace

std::unique_ptr<HFSPlusApplicationProfile> HFSPlusApplicationProfile::initWithVolume(
    HFSPlusVolume& volume, HFSPlusFileForkSet& fileForks, VZDefragErrorSlot error)
{
    HFSPlusCatalogLookupRecord record;
    if (!volume.catalog().copyRecordForWholePath(record, kPath, error) || !record.isFolder()) {
        return nullptr;
    }
    std::unique_ptr<HFSPlusApplicationProfile> profile(new HFSPlusApplicationProfile(fileForks));
    if (!profile->_visitFolders(volume.catalog(), record.cnid(), error)) {
        return nullptr;
    }
    return profile;
}

bool HFSPlusApplicationProfile::_visitFolders(HFSPlusCatalog& catalog, uint32_t folderID,
                                              VZDefragErrorSlot error)
{
    _folderIDs = {folderID};
    _metFolders = {folderID};
    while (!_folderIDs.empty()) {
        if (!VZDefragCheckNotAborted(error)) {
            return false;
        }
        const uint32_t current = _folderIDs.back();
        _folderIDs.pop_back();
        const auto waiting = static_cast<std::ptrdiff_t>(_folderIDs.size());
        if (!catalog.iterateFolderID(current, *this, error)) {
            return VZDefragFail(error, "Catalog file is inconsistent.");
        }
        // The first sub-folder is the next to visit, before the folder's later siblings.
        std::reverse(_folderIDs.begin() + waiting, _folderIDs.end());
    }
    return true;
}

bool HFSPlusApplicationProfile::iterateFolderFile(const HFSPlusCatalogFile& file,
                                                  std::span<const uint8_t> /*key*/,
                                                  VZDefragErrorSlot /*error*/)
{
    if (file.fileID < kHFSFirstUserCatalogNodeID) {
        return true;  // no file of a user, and not to be moved
    }
    if (file.dataFork.logicalSize != 0U) {
        _fileForkSet.add(file.fileID, kHFSDataForkType);
    }
    if (file.resourceFork.logicalSize != 0U) {
        _fileForkSet.add(file.fileID, kHFSResourceForkType);
    }
    return true;
}

bool HFSPlusApplicationProfile::iterateFolderFolder(const HFSPlusCatalogFolder& folder,
                                                    std::span<const uint8_t> /*key*/,
                                                    VZDefragErrorSlot /*error*/)
{
    if (_metFolders.insert(folder.folderID).second) {
        _folderIDs.push_back(folder.folderID);
    }
    return true;
}
