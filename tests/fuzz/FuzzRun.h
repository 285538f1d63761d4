#pragma once

#include <cstdint>
#include <span>
#include <string>

/** What the fuzz targets run, on small volumes; the last one any of it, on sample volumes. */
enum class FuzzTarget { kReading, kDefrag, kCompact, kSamples };

/** Does what @p input says and returns what was wrong with it; empty when all was as it has to be.
 *
 *  Whatever the volume holds: nothing crashes, hangs or writes outside of the volume, commands end
 *  with DONE, reports write nothing, what is refused stays as it is, and no contents are lost.
 */
[[nodiscard]] std::string runFuzzInput(FuzzTarget target, std::span<const uint8_t> input);
