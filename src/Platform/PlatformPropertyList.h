#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

/** Texts of a property list by their keys, as bytes that nobody has checked. */
using PlatformPropertyListStrings = std::map<std::string, std::string, std::less<>>;

/** The texts in the root dictionary of an XML or binary property list.
 *
 *  Values that are no texts are left out. Nothing when @p bytes are no property list, its root is
 *  no dictionary, or reading it could take more stack, memory or time than its size explains.
 */
[[nodiscard]] std::optional<PlatformPropertyListStrings> PlatformStringsInPropertyList(
    std::string_view bytes);
