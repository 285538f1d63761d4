#pragma once

#include <string>

#include "Tasks/DefragRun.h"
#include "support/MemoryBlockDevice.h"

/** A run of DEFRAG or COMPACT on a volume of any bytes. */
struct FuzzedRun {
    const MemoryBlockDevice& before;
    const MemoryBlockDevice& after;
    const DefragOutput& output;
    bool hasData = true;           // off: files are only as long as they say, without contents
    bool emptiesPlaylist = false;  // the run may empty one file
};

/** What the run did wrong; empty when nothing. */
[[nodiscard]] std::string judgeFuzzedRun(const FuzzedRun& run);

/** A write to @p after that lies outside of the volume that @p before holds; empty when there is
 *  none. */
[[nodiscard]] std::string writeOutside(const MemoryBlockDevice& before,
                                       const MemoryBlockDevice& after);
