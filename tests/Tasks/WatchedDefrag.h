#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "Tasks/DefragRun.h"
#include "support/FaultyBlockDevice.h"
#include "support/MemoryBlockDevice.h"

/** How a watched run goes about it. */
struct WatchedDefragOptions {
    std::string command = "DEFRAG";  // or COMPACT
    uint64_t bufferSize = 0;         // bytes
    uint64_t abortAfter = 0;         // device operations of the run, after which it is told to end
    uint64_t spanMemory = 0;         // bytes of a map while it is filled; 0: as it is
    uint32_t nodeCacheSize = 0;      // bytes of each tree's cache; 0: as it is
    std::function<void(FaultyBlockDevice&)> faults = nullptr;  // asked for when the volume is open
};

/** What came of opening a volume and running a command on it. */
struct WatchedDefrag {
    bool opened = false;
    std::string openError;
    DefragOutput output;
    bool faultReached = false;
    bool isEndless = false;  // took more device operations than any volume of a test needs

    [[nodiscard]] std::string error() const { return opened ? output.error() : openError; }
};

/** Probes and opens what @p memory holds as the program does, and runs the command on it to the
 * end.
 *
 *  The device refuses everything from a certain count of operations on, so that a walk without an
 *  end shows as a failure instead of lasting for ever.
 */
[[nodiscard]] WatchedDefrag watchDefrag(const MemoryBlockDevice& memory,
                                        const WatchedDefragOptions& options);
