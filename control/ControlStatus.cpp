#include "ControlStatus.h"

#include <array>
#include <utility>

namespace {

struct ToolMessage {
    std::string_view text;  // what the message begins with
    ControlStatus status;
};

/** The messages of vzdefrag that are neither a broken volume nor a failing disk. */
constexpr std::array kToolMessages = {
    ToolMessage{"No device specified.", ControlStatus::kUsage},
    ToolMessage{"Unknown option: ", ControlStatus::kUsage},
    ToolMessage{"Unknown profile: ", ControlStatus::kUsage},
    ToolMessage{"The device is busy.", ControlStatus::kRefused},
    ToolMessage{"Permission was denied.", ControlStatus::kRefused},
    ToolMessage{"Volume is mounted.", ControlStatus::kRefused},
    ToolMessage{"Volume is read-only.", ControlStatus::kRefused},
    ToolMessage{"Rollback file ", ControlStatus::kRefused},
    ToolMessage{"Volume was changed after rollback file ", ControlStatus::kInconsistent},
    ToolMessage{"The amount of free space is insufficient.", ControlStatus::kStopped},
    ToolMessage{"Volume is too congested, ", ControlStatus::kStopped},
    ToolMessage{"Overflow extents file is too congested, ", ControlStatus::kStopped},
    ToolMessage{"Read failed ", ControlStatus::kInputOutput},
    ToolMessage{"Write failed ", ControlStatus::kInputOutput},
    ToolMessage{"Write failure.", ControlStatus::kInputOutput},
    ToolMessage{"Unable to open ", ControlStatus::kInputOutput},
    ToolMessage{"Unable to read ", ControlStatus::kInputOutput},
    ToolMessage{"Unable to write ", ControlStatus::kInputOutput},
    ToolMessage{"Out of memory.", ControlStatus::kToolFailed},
    ToolMessage{"Internal error: ", ControlStatus::kToolFailed},
};

}  // namespace

bool ControlFail(ControlErrorSlot error, ControlStatus status, std::string message)
{
    if (error != nullptr && !error->has_value()) {
        *error = ControlFailure{.status = status, .message = std::move(message)};
    }
    return false;
}

ControlStatus statusOfToolMessage(std::string_view message)
{
    if (message.ends_with(" is not a recognized command.")) {
        return ControlStatus::kToolFailed;
    }
    for (const ToolMessage& known : kToolMessages) {
        if (message.starts_with(known.text)) {
            return known.status;
        }
    }
    // All others say what is wrong with the volume.
    return ControlStatus::kInconsistent;
}
