#pragma once

#include <optional>
#include <string>
#include <string_view>

/** How the program ends. The numbers are part of its interface. */
enum class ControlStatus {
    kDone = 0,
    kStopped = 1,       // ended early; the volume is consistent
    kUsage = 2,         // the command line is wrong
    kRefused = 3,       // in use, mounted, read-only, not confirmed, too little free space
    kInconsistent = 4,  // not an HFS Plus volume, or one that has to be checked first
    kInputOutput = 5,   // a read or a write failed
    kMismatch = 6,      // a file's blocks differ after the run
    kToolFailed = 7,    // vzdefrag could not be started, crashed or answered nonsense
};

/** Why something failed, for people, and the exit status that follows. */
struct ControlFailure {
    ControlStatus status = ControlStatus::kToolFailed;
    std::string message;
};

/** Where the first failure goes; null when nobody asks. */
using ControlErrorSlot = std::optional<ControlFailure>*;

/** Writes @p status and @p message to @p error unless it already holds a failure; always false. */
bool ControlFail(ControlErrorSlot error, ControlStatus status, std::string message);

/** The exit status that a message of vzdefrag stands for. */
[[nodiscard]] ControlStatus statusOfToolMessage(std::string_view message);
