#include "ControlPlainDisplay.h"

#include <ostream>

#include "ControlRunText.h"

namespace {

/** "  37%", so that lines are aligned. */
std::string percentColumn(int percent)
{
    const std::string digits = std::to_string(percent);
    return std::string(digits.size() < 4 ? 4 - digits.size() : 0, ' ') + digits + "%";
}

}  // namespace

ControlPlainDisplay::ControlPlainDisplay(std::ostream& output, std::ostream& messages,
                                         ControlCharacters characters)
    : _output(output), _messages(messages), _characters(characters)
{
}

void ControlPlainDisplay::runWillBegin(ControlJob job, const ControlFigures& before)
{
    _before = before;
    // The summary takes none of these, and they are large.
    _before.map = ControlMap();
    _before.worst.clear();
    _output << titleOfJob(job) << " " << escapedForTerminal(before.image, _characters) << std::endl;
}

void ControlPlainDisplay::phaseDidChange(const std::string& phase, std::optional<int> percent)
{
    // A line for every ten percent tells that it goes on.
    const std::string shown =
        percent ? phase + ": " + std::to_string(*percent / 10 * 10) + "%" : phase;
    if (shown != _shownPhase) {
        _shownPhase = shown;
        _output << shown << std::endl;
    }
}

void ControlPlainDisplay::blocksDidMove(const ControlMove& /*move*/)
{
    // Too many for lines that people read.
}

void ControlPlainDisplay::progressDidChange(const ControlProgress& progress)
{
    if (progress.percent > _shownPercent) {
        _shownPercent = progress.percent;
        _output << percentColumn(progress.percent) << "  " << progressAsText(progress) << std::endl;
    }
}

void ControlPlainDisplay::runWillStop(const std::string& reason)
{
    showMessage(reason);
}

void ControlPlainDisplay::showMessage(const std::string& message)
{
    _messages << escapedForTerminal(message, _characters) << std::endl;
}

void ControlPlainDisplay::runDidEnd(const ControlRunEnd& end)
{
    _output << summaryOfRun(_before, end) << std::flush;
}
