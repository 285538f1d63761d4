// Written by scripts/generate-unicode-tables from the CSV files beside it; not edited by hand.
#pragma once

#include <array>
#include <cstdint>

/** The lower-case table of FastUnicodeCompare (TN1150, "Unicode Subtleties"), by high byte.
 *
 *  The unit u folds to kFoldPages[kFoldPageOfHighByte[u >> 8]][u & 0xFF]; 0 means ignored. Page 0
 *  is that of high byte 0. High bytes whose units all fold to themselves have no page of their own:
 *  theirs is kFoldsToItself.
 */
inline constexpr uint8_t kFoldsToItself = 0xFF;
extern const std::array<uint8_t, 256> kFoldPageOfHighByte;
extern const std::array<std::array<uint16_t, 256>, 10> kFoldPages;

/** Units with a canonical decomposition, ascending (TN1150, "Unicode Subtleties"). */
extern const std::array<uint16_t, 970> kDecomposedUnits;
/** The decomposition of kDecomposedUnits[i] is kDecompositions[kDecompositionStarts[i]] up to the
 *  next start; complete and in canonical order. */
extern const std::array<uint16_t, 971> kDecompositionStarts;
extern const std::array<uint16_t, 2223> kDecompositions;

/** Units from first to last have this canonical combining class; ascending, all others have 0. */
struct HFSPlusCombiningRun {
    uint16_t first;
    uint16_t last;
    uint8_t combiningClass;
};
extern const std::array<HFSPlusCombiningRun, 155> kCombiningRuns;
