#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "VZDefragError.h"

/** Takes the first component off @p path; false when only separators are left. */
[[nodiscard]] bool HFSPlusTakePathComponent(std::string_view& path, std::string_view& component);

/** A component of a path (UTF-8) as names are stored: decomposed, at most 255 units. */
[[nodiscard]] bool HFSPlusCatalogName(std::string_view component, std::u16string& name,
                                      VZDefragErrorSlot error);

/** The path shown for a special file, which has no catalog record; empty for any other. */
[[nodiscard]] std::string_view HFSPlusSpecialFileName(uint32_t cnid);

/** A path that grows towards its front, in a buffer of fixed length. */
class HFSPlusCatalogPath {
public:
    /** Puts "/" and @p name (big-endian units) in front, a "/" of the name shown as ":".
     *
     *  Fails when they do not fit. Every call takes room, so a loop of parents ends.
     */
    [[nodiscard]] bool prependName(std::span<const uint8_t> name, VZDefragErrorSlot error);
    [[nodiscard]] std::string string() const;  // UTF-8

private:
    static constexpr size_t kLength = 1024;  // UTF-16 units

    std::array<uint16_t, kLength> _units = {};
    size_t _start = kLength;
};
