#include "HFSPlus/HFSPlusFileForkSet.h"

#include <string>

#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"
#include "VZDefragStringUtilities.h"

void HFSPlusFileForkSet::fileAtIndex(uint32_t& fileID, uint8_t& forkType, size_t index) const
{
    const Entry& entry = _entryAtIndex(index);
    fileID = entry.fileID;
    forkType = entry.forkType;
}

void HFSPlusFileForkSet::removeFileForkAtIndex(size_t index)
{
    _entriesSet.erase(_entryAtIndex(index));
    _entriesArray.erase(_entriesArray.begin() + static_cast<std::ptrdiff_t>(index));
}

void HFSPlusFileForkSet::add(uint32_t fileID, uint8_t forkType)
{
    const Entry entry = {.fileID = fileID, .forkType = forkType};
    if (_entriesSet.insert(entry).second) {
        _entriesArray.push_back(entry);
    }
}

bool HFSPlusFileForkSet::contains(uint32_t fileID, uint8_t forkType) const
{
    return _entriesSet.contains({.fileID = fileID, .forkType = forkType});
}

void HFSPlusFileForkSet::dump() const
{
    if (!KLDebugLevelIsEnabled(KLDebugLevel::kDebug)) {
        return;
    }
    for (const Entry& entry : _entriesArray) {
        std::string path;
        if (!_volume.catalog().copyPathForCNID(path, entry.fileID, nullptr)) {
            path.clear();
        }
        KLDebugLog(KLDebugLevel::kDebug, "%10u:%-2X  %@\n", entry.fileID, entry.forkType,
                   outputSafeString(path));
    }
}

const HFSPlusFileForkSet::Entry& HFSPlusFileForkSet::_entryAtIndex(size_t index) const
{
    if (index >= _entriesArray.size()) {
        KLPanic("fork %lu of %lu does not exist\n", index, _entriesArray.size());
    }
    return _entriesArray[index];
}
