#pragma once

#include <string>
#include <string_view>

struct ControlVolumeFacts;

/** One line of vzdefrag's log: time, program and process, level, message. */
class ControlLogLine {
public:
    [[nodiscard]] static ControlLogLine parse(std::string_view line);

    /** Writes what the line tells about the volume to @p facts. */
    void tell(ControlVolumeFacts& facts) const;
    /** Whether an interrupted run was rolled back. */
    [[nodiscard]] bool tellsOfRollback() const;
    /** Whether it is a warning or worse, or no line of the log at all. */
    [[nodiscard]] bool isForPeople() const { return _isForPeople; }
    [[nodiscard]] const std::string& message() const { return _message; }

private:
    std::string _message;
    bool _isForPeople = true;
};
