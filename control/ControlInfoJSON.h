#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "ControlFigures.h"

/** The version of the documents that controlInfoJSON() writes and ControlBaseline reads. */
constexpr uint32_t kControlInfoVersion = 1;
/** How many slices the map of a document has at most. */
constexpr size_t kControlInfoCells = 1024;

/** All figures of a volume as one JSON document, which docs/vzdefragctl-info.schema.json describes.
 *
 *  It is one line of ASCII: whatever else a name holds is written as \uHHHH, so that no name can
 *  harm a terminal. Bytes of a name that are no UTF-8 become U+FFFD, since JSON has no way to hold
 *  them; the file's ID still tells which one it is.
 */
[[nodiscard]] std::string controlInfoJSON(const ControlFigures& figures);
