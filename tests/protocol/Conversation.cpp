#include "protocol/Conversation.h"

#include <gtest/gtest.h>

#include <optional>

namespace {

// Seconds that no run takes.
constexpr const char* kNoProgress = "100000";
constexpr std::string_view kMark = "end-of-answer";

ToolProcess::Setup setupFor(const std::string& path)
{
    return {.program = VZDEFRAG_PROGRAM, .arguments = {"--interval", kNoProgress, path}};
}

bool runsInTheBackground(std::string_view line)
{
    return line.starts_with("DEFRAG") || line.starts_with("COMPACT");
}

}  // namespace

Conversation::Conversation(const std::string& path) : _process(setupFor(path))
{
    EXPECT_EQ(_process.readLine(), "READY");
}

std::string Conversation::answerTo(std::string_view line)
{
    // A command in the background lets the mark pass it, so its end is awaited first.
    bool markSent = false;
    const auto sendMark = [&] {
        _process.write(std::string(kMark) + "\n");
        markSent = true;
    };
    std::string answer;
    _process.write(std::string(line) + "\n");
    if (!runsInTheBackground(line)) {
        sendMark();
    }
    while (const std::optional<std::string> printed = _process.readLine()) {
        if (*printed == "ERROR," + std::string(kMark) + " is not a recognized command.") {
            return answer;
        }
        answer += *printed + "\n";
        if (!markSent && printed->ends_with(",DONE")) {
            sendMark();
        }
    }
    ADD_FAILURE() << "the program has ended after " << answer;
    return answer;
}

std::string transcriptOf(const std::string& path, std::string_view input)
{
    ToolProcess process(setupFor(path));
    process.write(input);
    process.closeInput();
    std::string output = process.readToEnd();
    EXPECT_EQ(process.readErrorsToEnd(), "");
    EXPECT_EQ(process.wait(), 0);
    return output;
}

std::string framedLines(const std::string& name, const std::vector<std::string>& lines)
{
    std::string text = name + ",START\n";
    for (const std::string& line : lines) {
        text += name + "," + line + "\n";
    }
    return text + name + ",DONE\n";
}
