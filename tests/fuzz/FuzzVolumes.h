#pragma once

#include <cstddef>
#include <memory>

#include "support/HFSPlusVolumeSurvey.h"
#include "support/MemoryBlockDevice.h"

/** A volume that inputs begin from. */
struct FuzzVolume {
    const char* name = "";
    std::unique_ptr<MemoryBlockDevice> memory;
    std::unique_ptr<HFSPlusVolumeSurvey> survey;
    bool hasData = true;  // off: only the metadata of a volume that a file system filled
};

/** How many volumes there are: those of the builder, and behind them the sample volumes.
 *
 *  The order is part of every kept input's meaning: new ones go to the end of their kind.
 */
[[nodiscard]] size_t fuzzVolumeCount();

/** How many of them, at the front, the builder makes. */
[[nodiscard]] size_t builtFuzzVolumeCount();

/** The volume of that index, made when it is first asked for and never changed. One thread. */
[[nodiscard]] const FuzzVolume& fuzzVolumeAtIndex(size_t index);
