#pragma once

#include "HFSPlus/HFSPlusVolume.h"

/** Keeps the fork data of an ordinary file in the volume's cache for as long as it lives.
 *
 *  A class of file that is opened by such data has it as its first base: the data are there before
 *  the file looks for them and go after its last use.
 */
class HFSPlusCachedForkData {
public:
    /** @p fileID is not that of a special file, whose fork data the header holds. */
    HFSPlusCachedForkData(HFSPlusVolume& volume, const HFSPlusHostForkData& forkData,
                          uint32_t fileID)
        : _cachingVolume(volume), _cachedFileID(fileID)
    {
        _cachingVolume.cacheHostForkData(forkData, _cachedFileID);
    }
    HFSPlusCachedForkData(const HFSPlusCachedForkData&) = delete;
    HFSPlusCachedForkData& operator=(const HFSPlusCachedForkData&) = delete;
    ~HFSPlusCachedForkData() { _cachingVolume.uncacheHostForkData(_cachedFileID); }

private:
    HFSPlusVolume& _cachingVolume;
    uint32_t _cachedFileID;
};
