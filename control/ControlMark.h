#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ControlMap.h"
#include "ControlText.h"

/** What one cell of a picture of the disk shows. */
enum class ControlMark : uint8_t {
    kFree,
    kUsed,
    kFragmented,
    kFixed,
    kRead,     // blocks were just moved from here
    kWritten,  // blocks were just moved to here
};

/** The mark of a cell that holds @p counts. */
[[nodiscard]] ControlMark markOfCounts(const ControlKindCounts& counts);

/** The character for @p mark, one cell wide. No two are alike, so that colour is never needed. */
[[nodiscard]] std::string_view glyphOfMark(ControlMark mark, ControlCharacters characters);

/** The colour for @p mark, as terminals number the first eight; -1 for the terminal's own. */
[[nodiscard]] int colorOfMark(ControlMark mark);

/** Whether @p mark is to stand out (1), to stand back (-1) or neither (0). */
[[nodiscard]] int weightOfMark(ControlMark mark);

/** One kind in a legend: the glyph, and what follows it. */
struct ControlLegendEntry {
    ControlMark mark = ControlMark::kFree;
    std::string text;  // ASCII, with the gap to the glyph before it
};

/** The kinds of cells explained in one line. */
struct ControlLegend {
    std::vector<ControlLegendEntry> entries;
    std::string gap;  // between two entries

    /** How many cells of a terminal it takes. */
    [[nodiscard]] size_t cells() const;
};

/** What a legend explains. */
enum class ControlLegendMarks {
    kKinds,          // of blocks
    kKindsAndMoves,  // and the marks of moves, where there is room
};

/** The legend in at most @p columns cells.
 *
 *  With less room the shares go, then names grow shorter, then entries are left out from the end.
 *  How it looks depends on the width alone, so that it does not jump while the shares change.
 */
[[nodiscard]] ControlLegend legendFor(const ControlKindCounts& totals, size_t columns,
                                      ControlLegendMarks marks);
