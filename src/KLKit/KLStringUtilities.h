#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/** The text up to the first character of @p set, after trimming the set from both ends. */
[[nodiscard]] std::string firstComponentSeparatedByCharactersInSet(std::string_view text,
                                                                   std::string_view set);

/** The words of @p text; separators at the ends are ignored and runs of them count as one. */
[[nodiscard]] std::vector<std::string> trimmedComponentsSeparatedByCharactersInSet(
    std::string_view text, std::string_view set);

/** The decimal number that @p text begins with, after white space and whatever follows it; the
 *  nearest one of 64 bits. Nothing without a digit. */
[[nodiscard]] std::optional<int64_t> integerAtStart(std::string_view text);

/** A byte count for people: 512B, 4KiB, 1.5MiB. Fractions have no leading zeros. */
[[nodiscard]] std::string stringWithPrettySize(uint64_t size);

/** How many bytes a UTF-8 character has by its lead byte: 1 to 5, bad lead bytes included. */
[[nodiscard]] size_t sizeOfUTF8CharacterWithLeadByte(char lead);

/** Whether @p bytes are one character in its shortest form; a surrogate counts as one. */
[[nodiscard]] bool isWellFormedUTF8Character(std::string_view bytes);

/** Whether @p text is UTF-8 throughout, without surrogates. */
[[nodiscard]] bool isValidUTF8(std::string_view text);
