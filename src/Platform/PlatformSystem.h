#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

/** Facts about the machine and this process. Any thread may ask. */

/** Bytes of physical memory; 0 when the system does not say. */
[[nodiscard]] uint64_t PlatformPhysicalMemory();

/** Seconds on a clock that never goes back, from an epoch of its own. */
[[nodiscard]] double PlatformMonotonicSeconds();

/** The time of day where the machine stands. */
struct PlatformLocalTime {
    std::tm calendar = {};
    uint32_t milliseconds = 0;
};
[[nodiscard]] PlatformLocalTime PlatformCurrentLocalTime();

/** Base name of the program's file as it was called. */
[[nodiscard]] std::string PlatformProgramName();

[[nodiscard]] int64_t PlatformProcessID();

/** Whether the calling thread is the one that entered main(). */
[[nodiscard]] bool PlatformIsMainThread();

/** Writes @p bytes to standard error in one call, so that other writers' bytes stay out. */
void PlatformWriteStandardError(std::string_view bytes);

/** Gives standard input, output and error to the null device where they came in closed.
 *
 *  Called before anything is opened: a device that took descriptor 1 would be overwritten by the
 *  lines of the protocol. Returns 0 or an errno value.
 */
[[nodiscard]] int PlatformOpenStandardDescriptors();
