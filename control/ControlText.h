#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/** Which characters the reader of our output can take. */
enum class ControlCharacters {
    kASCII,
    kUnicode,  // UTF-8
};

/** What the locale of the environment allows; setlocale(LC_ALL, "") comes before. */
[[nodiscard]] ControlCharacters charactersOfLocale();

/** @p text made safe for a terminal or a line of text.
 *
 *  Control characters, line and paragraph separators, marks that change the direction of writing,
 *  and bytes that are no UTF-8 become \xHH or \u{HHHH}; so does everything outside ASCII when only
 *  that can be shown. A backslash becomes two, so that the form is unambiguous.
 */
[[nodiscard]] std::string escapedForTerminal(std::string_view text, ControlCharacters characters);

/** How many cells of a terminal the (escaped) UTF-8 @p text takes. */
[[nodiscard]] size_t cellsOf(std::string_view text);

/** @p text cut to at most @p cells, the middle left out where it is too long. */
[[nodiscard]] std::string fitted(std::string_view text, size_t cells, ControlCharacters characters);

/** 1234567 as "1,234,567". */
[[nodiscard]] std::string grouped(uint64_t number);

/** Bytes with three digits and a binary unit: "0 B", "1.50 KiB", "12.0 GiB". */
[[nodiscard]] std::string readableSize(uint64_t bytes);

/** Seconds as "0:07", "12:34" or "3:04:05". */
[[nodiscard]] std::string readableDuration(double seconds);

/** @p part of @p whole in percent with one decimal, "0.0" for nothing of nothing. */
[[nodiscard]] std::string readablePercent(uint64_t part, uint64_t whole);
