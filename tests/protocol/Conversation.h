#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "protocol/ToolProcess.h"

/** The program on an image, one question at a time.
 *
 *  Progress by the clock is switched off, so that every answer is the same in every run.
 */
class Conversation {
public:
    explicit Conversation(const std::string& path);

    [[nodiscard]] ToolProcess& process() { return _process; }

    /** Everything that is printed between @p line and the next command's answer. */
    [[nodiscard]] std::string answerTo(std::string_view line);

private:
    ToolProcess _process;
};

/** What the program prints from "READY" on when @p input is all of its input. */
[[nodiscard]] std::string transcriptOf(const std::string& path, std::string_view input);

/** @p lines between the start and the done line of the command NAME. */
[[nodiscard]] std::string framedLines(const std::string& name,
                                      const std::vector<std::string>& lines);
