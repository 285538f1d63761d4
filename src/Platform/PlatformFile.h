#pragma once

#include <cstddef>
#include <optional>
#include <string>

/** All bytes of the file at @p path, which may be a pipe that somebody writes to.
 *
 *  Nothing when it cannot be read or has more than @p mostBytes bytes. A pipe without a writer
 *  counts as empty instead of being waited for.
 */
[[nodiscard]] std::optional<std::string> PlatformContentsOfFile(const std::string& path,
                                                                size_t mostBytes);
