#pragma once

#include <iosfwd>
#include <optional>
#include <string>

#include "ControlRunDisplay.h"
#include "ControlText.h"

/** Shows a run in plain lines, for pipes, files and those who want no screen.
 *
 *  Progress and the summary are what was asked for and go to the output; all else is a message.
 *  Every line is flushed, since somebody may be waiting for it.
 */
class ControlPlainDisplay : public ControlRunDisplay {
public:
    ControlPlainDisplay(std::ostream& output, std::ostream& messages, ControlCharacters characters);

    void runWillBegin(ControlJob job, const ControlFigures& before) override;
    void phaseDidChange(const std::string& phase, std::optional<int> percent) override;
    void blocksDidMove(const ControlMove& move) override;
    void progressDidChange(const ControlProgress& progress) override;
    void runWillStop(const std::string& reason) override;
    void showMessage(const std::string& message) override;
    void runDidEnd(const ControlRunEnd& end) override;

private:
    std::ostream& _output;
    std::ostream& _messages;
    ControlCharacters _characters;
    ControlFigures _before;
    int _shownPercent = -1;
    std::string _shownPhase;
};
