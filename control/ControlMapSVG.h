#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "ControlMap.h"

/** @p text made safe for XML and HTML, as an element's text or in a quoted attribute.
 *
 *  What cannot stand there, or would not be seen, is escaped as for a terminal.
 */
[[nodiscard]] std::string escapedForMarkup(std::string_view text);

/** The size of a picture of the disk in cells. */
struct ControlMapSVGSize {
    size_t columns = 64;
    size_t rows = 32;

    [[nodiscard]] size_t cells() const { return columns * rows; }
};

/** The length of a cell's side in the picture's units. */
constexpr size_t kControlMapSVGCell = 10;

/** The rules of style for the classes that the picture uses, light and dark. For a style element.
 */
[[nodiscard]] std::string mapSVGStyle();

/** The cells of @p map: rectangles of the classes "free", "used", "fragmented" and "fixed", each
 * with the title that @p titleOf gives for its index. Cells begin at 0, 0.
 */
[[nodiscard]] std::string mapSVGCells(const ControlMap& map, ControlMapSVGSize size,
                                      const std::function<std::string(size_t)>& titleOf);

/** A whole document: the map, titled with @p name, its legend and its scale. */
[[nodiscard]] std::string mapAsSVG(const ControlMap& map, uint32_t blockSize, std::string_view name,
                                   ControlMapSVGSize size);
