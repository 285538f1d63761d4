#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

/** @p text escaped for one field of an output line: backslash, comma and NUL. */
[[nodiscard]] std::string outputSafeString(std::string_view text);

/** A name's UTF-16 units (host order) as UTF-8; unpaired surrogates become U+FFFD. */
[[nodiscard]] std::string stringWithUnicodeUnits(std::span<const uint16_t> units);

/** A name on disk (TN1150, HFSUniStr255: big-endian length and units) as UTF-8, "/" shown as ":".
 *
 *  @p bytes holds at most what the record has; a length beyond it is cut.
 */
[[nodiscard]] std::string stringWithHFSUniStr255(std::span<const uint8_t> bytes);

/** The UTF-16 units of a UTF-8 text; false when it is not valid UTF-8. */
[[nodiscard]] bool unicodeUnitsOfString(std::string_view text, std::u16string& units);
