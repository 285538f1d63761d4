#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "ControlRunDisplay.h"
#include "ControlSurvey.h"

/** What the program is asked for. */
struct ControlOptions {
    enum class Command { kInfo, kMap, kDefrag, kCompact, kReport, kRecover };
    enum class Color { kAuto, kAlways, kNever };

    Command command = Command::kInfo;
    std::string image;
    std::string tool;          // empty: beside this program, or in PATH
    std::string rollbackFile;  // empty: the one for the image
    bool isLowPriority = false;

    // info
    size_t top = 10;
    ControlSort sort = ControlSort::kExtents;
    bool asJSON = false;
    bool asCSV = false;

    // map
    size_t columns = 0;  // 0: those of the terminal
    size_t rows = 0;
    bool asASCII = false;
    Color color = Color::kAuto;
    std::string svgFile;

    // defrag and compact
    std::string profile;
    bool isPlain = false;
    bool asEvents = false;
    std::optional<double> timeLimit;  // seconds
    std::optional<double> threshold;  // percent
    bool verifies = false;
    bool isConfirmed = false;
    bool isForced = false;
    bool withoutRollback = false;

    // report, and the report of a run
    std::string reportFile;
    std::string baselineFile;

    [[nodiscard]] bool moves() const
    {
        return command == Command::kDefrag || command == Command::kCompact;
    }
};

/** Reads the command line into @p options.
 *
 *  Gives an exit status when the program is to end: after --help and --version, which are printed
 * on standard output, and after a mistake, which is told on standard error.
 */
[[nodiscard]] std::optional<int> parseCommandLine(int argc, const char* const* argv,
                                                  ControlOptions& options);

/** Seconds in @p text, such as "90", "90s", "5m", "2h" or "1h30m"; nothing when it is none. */
[[nodiscard]] std::optional<double> secondsIn(const std::string& text);
