#pragma once

#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "ControlRunDisplay.h"
#include "ControlScreenPicture.h"
#include "ControlTerminal.h"

/** What the screen may use of a terminal. */
struct ControlScreenOptions {
    std::FILE* output = stdout;    // the terminal
    std::FILE* input = stdin;      // the same one; nothing is read from it
    std::FILE* messages = stderr;  // gets the messages once the screen is gone
    ControlCharacters characters = ControlCharacters::kASCII;
    bool isColored = false;
};

/** Shows a run on the whole of a terminal, and gives the terminal back as it was.
 *
 *  At most one lives at a time. Signals are left to the caller, who tells of sizes, suspension and
 *  resumption. Moves are only noted; the screen is drawn ten times a second at most, by whichever
 *  operation is called when the time has come.
 */
class ControlScreen : public ControlRunDisplay {
public:
    /** Takes the terminal. Null when it cannot show a screen; nothing has been written then. */
    [[nodiscard]] static std::unique_ptr<ControlScreen> initWithTerminal(
        const ControlScreenOptions& options);
    /** Gives the terminal back unless that is done. */
    ~ControlScreen() override;
    ControlScreen(const ControlScreen&) = delete;
    ControlScreen& operator=(const ControlScreen&) = delete;

    void runWillBegin(ControlJob job, const ControlFigures& before) override;
    void phaseDidChange(const std::string& phase, std::optional<int> percent) override;
    void blocksDidMove(const ControlMove& move) override;
    void progressDidChange(const ControlProgress& progress) override;
    void runWillStop(const std::string& reason) override;
    void showMessage(const std::string& message) override;
    /** Gives the terminal back; the summary is for the caller to print. */
    void runDidEnd(const ControlRunEnd& end) override;
    void willSuspend() override;
    void didResume() override;
    void sizeDidChange() override;

    /** How many times the screen was drawn. */
    [[nodiscard]] size_t drawCount() const { return _drawCount; }

private:
    /** Whose the terminal is. */
    enum class Holder {
        kScreen,
        kShell,   // until didResume()
        kNobody,  // it is to be taken again as soon as this is no job in the background
    };
    struct TimedMove {
        ControlMove move;
        double time;
    };

    ControlScreen(const ControlScreenOptions& options, std::unique_ptr<ControlTerminal> terminal);

    /** Draws unless that was done a moment ago. */
    void _drawIfDue();
    void _draw();
    void _updateState(double now);
    void _giveTerminalBack();

    ControlScreenOptions _options;
    std::unique_ptr<ControlTerminal> _terminal;  // null once it is given back
    ControlScreenState _state;
    std::deque<TimedMove> _moves;
    std::string _phase;
    std::string _stopReason;
    std::string _message;
    double _messageTime = 0;
    std::deque<std::string> _messages;  // the last ones
    double _drawTime = 0;
    size_t _drawCount = 0;
    Holder _holder = Holder::kScreen;
};
