#pragma once

#include <exception>

#include "HFSPlus/HFSPlusVolume.h"

/** A change of the volume's metadata in memory, or a write of it, that is whole or goes nowhere.
 *
 *  Where an allocation that fails cuts it off, the volume takes no more writes: what is in memory
 *  contradicts itself then, and the disk holds what was last written whole.
 */
class HFSPlusUninterruptedChange {
public:
    explicit HFSPlusUninterruptedChange(HFSPlusVolume& volume) : _volume(volume) {}
    HFSPlusUninterruptedChange(const HFSPlusUninterruptedChange&) = delete;
    HFSPlusUninterruptedChange& operator=(const HFSPlusUninterruptedChange&) = delete;
    ~HFSPlusUninterruptedChange()
    {
        if (std::uncaught_exceptions() > _exceptions) {
            _volume.metadataWriteDidFail();
        }
    }

private:
    HFSPlusVolume& _volume;
    const int _exceptions = std::uncaught_exceptions();  // under way when the change began
};
