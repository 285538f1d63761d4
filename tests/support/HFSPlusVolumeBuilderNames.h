#pragma once

#include <string>
#include <string_view>
#include <vector>

/** The UTF-16 units of @p text; a byte that is no UTF-8 becomes U+FFFD. Nothing is decomposed. */
[[nodiscard]] std::u16string unitsOfText(std::string_view text);

/** The components of a path, as stored on disk: a colon in the path is a slash there. */
[[nodiscard]] std::vector<std::u16string> unitsOfPath(std::string_view path);

/** Negative, 0 or positive as @p one sorts before, with or after @p two (TN1150, "HFSX").
 *
 *  Not binary, units are folded by the table of FastUnicodeCompare and ignorable ones skipped.
 */
[[nodiscard]] int compareNames(std::u16string_view one, std::u16string_view two, bool binary);
