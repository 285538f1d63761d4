#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ControlMark.h"
#include "ControlRunDisplay.h"
#include "ControlScreenLayout.h"

/** How a run of characters on the screen looks. */
enum class ControlScreenStyle : uint8_t {
    kPlain,
    kTitle,
    kMark,    // as its mark
    kDone,    // the bar's part that is done
    kFaint,   // what matters less
    kStrong,  // what is to be seen
};

/** Characters of one look, beside each other. */
struct ControlScreenRun {
    std::string text;
    ControlScreenStyle style = ControlScreenStyle::kPlain;
    ControlMark mark = ControlMark::kFree;  // for kMark
};

using ControlScreenLine = std::vector<ControlScreenRun>;

/** All that the screen shows of a run. */
struct ControlScreenState {
    ControlJob job = ControlJob::kDefrag;
    std::string image;
    std::string format;
    uint32_t blockSize = 0;
    ControlMap map;
    ControlProgress progress;
    std::string status;                    // empty: how to stop
    bool isUrgent = false;                 // the status is not to be overlooked
    std::vector<ControlMove> recentMoves;  // to be marked on the map
};

/** The lines of a screen for @p state in a terminal of the layout's size, from the top.
 *
 *  As many as the layout has rows, none wider than its columns; those of the map, the title and the
 *  bar fill theirs. Texts are escaped.
 */
[[nodiscard]] std::vector<ControlScreenLine> pictureOfScreen(const ControlScreenState& state,
                                                             const ControlScreenLayout& layout,
                                                             ControlCharacters characters);
