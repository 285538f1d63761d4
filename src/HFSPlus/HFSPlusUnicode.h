#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

/** Names on HFS Plus volumes (TN1150, "Unicode Subtleties").
 *
 *  All work is done on 16-bit units: surrogates are neither folded, decomposed nor reordered. The
 *  comparisons take names as they lie on disk, big-endian units, and never normalise them.
 */

/** @p unit as the case-folding comparison sees it; 0 for a unit that it ignores. */
[[nodiscard]] uint16_t HFSPlusFoldedUnit(uint16_t unit);

/** Order of two names by their folded units: negative, 0 or positive. A last odd byte is ignored.
 */
[[nodiscard]] int HFSPlusFastUnicodeCompare(std::span<const uint8_t> left,
                                            std::span<const uint8_t> right);

/** Order of two names by their raw units, the shorter first where one begins the other. */
[[nodiscard]] int HFSPlusBinaryUnicodeCompare(std::span<const uint8_t> left,
                                              std::span<const uint8_t> right);

/** @p name (host order) with every composed unit replaced by its parts, in canonical order. */
[[nodiscard]] std::u16string HFSPlusDecomposedName(std::u16string_view name);
