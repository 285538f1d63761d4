#pragma once

#include <string>
#include <vector>

#include "ControlFigures.h"

/** "12", or "12 to 15" where the protocol leaves open how many forks of files are in pieces. */
[[nodiscard]] std::string readableForks(const ControlFragmentation& fragmentation);

/** The sizes of free runs that class @p index holds, in blocks: "1", "2-3", "4-7". */
[[nodiscard]] std::string readableRunClass(size_t index);

/** Whether a figure went where it is meant to go. */
enum class ControlTrend { kNone, kBetter, kWorse };

/** One figure of two surveys of a volume. */
struct ControlComparedFigure {
    std::string name;
    std::string before;
    std::string after;
    std::string change;  // "-12", "+3", "0"
    ControlTrend trend = ControlTrend::kNone;
};

/** The figures that a run of DEFRAG or COMPACT is meant to change. */
[[nodiscard]] std::vector<ControlComparedFigure> comparedFigures(const ControlFigures& before,
                                                                 const ControlFigures& after);
