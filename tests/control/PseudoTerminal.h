#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/** A program that a test runs on a terminal of its own, without anything that shows it.
 *
 *  What waits has a deadline, counted from the start, past which it reports what there is.
 */
class PseudoTerminal {
public:
    struct Setup {
        std::vector<std::string> command;
        std::map<std::string, std::string> environment = {};  // added to ours; empty: unset
        uint16_t columns = 80;
        uint16_t rows = 24;
    };

    explicit PseudoTerminal(const Setup& setup);
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;
    /** Kills the program if it still runs. */
    ~PseudoTerminal();

    /** Types @p keys. Control characters make signals, as the terminal's modes say. */
    void type(std::string_view keys);
    /** Makes the window another size; the program is told by SIGWINCH. */
    void resize(uint16_t columns, uint16_t rows);
    /** Waits until the output from byte @p from on holds @p text; whether it does. */
    [[nodiscard]] bool waitFor(std::string_view text, size_t from = 0);
    /** Waits until the program is stopped, as by Ctrl-Z; whether it is. */
    [[nodiscard]] bool waitUntilStopped();
    /** Lets a stopped program go on. */
    void goOn();
    /** Waits for the end; the exit status, or minus the number of the signal that ended it. */
    [[nodiscard]] int wait();

    /** All bytes that the program has written to the terminal. */
    [[nodiscard]] const std::string& output() const { return _output; }
    /** All modes of the terminal, in a form to be compared. */
    [[nodiscard]] std::string modes() const;
    /** Whether typing Ctrl-C or Ctrl-Z throws away what was written and is not shown yet. */
    [[nodiscard]] bool signalsDiscardOutput() const;
    /** How many typed bytes nobody has read. */
    [[nodiscard]] int unreadBytes() const;

    [[nodiscard]] pid_t processID() const { return _process; }

private:
    enum class State { kRuns, kStopped, kEnded };

    void _setSize(uint16_t columns, uint16_t rows) const;
    [[noreturn]] void _becomeProgram(const Setup& setup);
    /** Takes output and the program's state for some milliseconds; false past the deadline. */
    bool _goOnWaiting();

    double _deadline;
    int _controller = -1;
    int _terminal = -1;  // kept open, so that modes and output outlive the program
    pid_t _process = -1;
    State _state = State::kRuns;
    int _status = 0;
    std::string _output;
};
