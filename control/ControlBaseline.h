#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ControlFigures.h"
#include "ControlStatus.h"

/** The largest document that is read, in bytes. */
constexpr size_t kControlBaselineLimit = 8U << 20U;

/** The figures that controlInfoJSON() wrote as @p document; @p name is for messages.
 *
 *  The document may be anybody's: it is refused as a wrong use unless every figure is there, in
 *  its bounds and in keeping with the others. The map has as many slices as were written, and the
 *  list of worst files is left empty, since a document holds how many extents they have, not where.
 */
[[nodiscard]] std::optional<ControlFigures> figuresOfDocument(std::string_view document,
                                                              const std::string& name,
                                                              ControlErrorSlot error);

/** The same with the document in the file @p path. */
[[nodiscard]] std::optional<ControlFigures> figuresOfDocumentFile(const std::string& path,
                                                                  ControlErrorSlot error);
