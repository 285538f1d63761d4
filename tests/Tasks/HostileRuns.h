#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "support/MemoryBlockDevice.h"

/** What came of a damaged volume: of opening it and of every command. */
struct HostileRuns {
    std::string openError;                      // empty when it was opened
    std::map<std::string, std::string> errors;  // by command; empty where all went well
    uint64_t memory = 0;                        // bytes that the worst of them took

    /** What the user saw: why the volume was not opened, or what DEFRAG and COMPACT said when
     *  both said the same. */
    [[nodiscard]] std::string error() const;
};

/** Opens @p damaged anew for every command there is and runs it to its end.
 *
 *  Adds a failure where one crashes or takes more requests than any small volume needs, where a
 *  report writes or anybody writes outside the volume, where a fork loses its contents, where a run
 *  that was refused before its first move leaves one byte changed, and where memory is not bounded.
 */
[[nodiscard]] HostileRuns runEveryCommand(const MemoryBlockDevice& damaged);
/** The same without pictures of the bitmap, which are as large as the volume says it is. */
[[nodiscard]] HostileRuns runEveryCommandButBitmap(const MemoryBlockDevice& damaged);

/** What one command may take beyond its copy buffer. */
constexpr uint64_t kMostHostileMemory = 150 << 20;  // bytes
