#pragma once

#include <cstdint>
#include <string>

/** Seconds since 1970 as ISO 8601 in UTC, "2017-07-14T02:40:00Z"; empty outside years 1 to 9999. */
[[nodiscard]] std::string readableDate(int64_t seconds);

/** A Finder type or creator as its four characters where these are printable ASCII, else as
 * "0x0000001A"; empty for 0, which stands for none.
 */
[[nodiscard]] std::string readableCode(uint32_t code);
