#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ControlSignals.h"
#include "ControlStatus.h"

/** A running vzdefrag with its three streams.
 *
 *  It runs in a process group of its own, so that what is typed at the terminal reaches this
 * program alone. When this program dies, vzdefrag reads the end of its input and ends safely.
 */
class ControlTool {
public:
    struct Setup {
        std::string program;  // a path, or a name to look for in PATH
        std::vector<std::string> arguments = {};
        std::string rollbackFile = {};  // empty: none
    };

    enum class Event {
        kLine,     // a line of output
        kLog,      // a line of the log
        kEnd,      // no more of either, and the process has ended
        kSignal,   // the signals given have one to take
        kTimeout,  // the deadline has passed
    };
    using Clock = std::chrono::steady_clock;

    /** Starts vzdefrag; null with an error when it cannot be. */
    [[nodiscard]] static std::unique_ptr<ControlTool> initWithSetup(const Setup& setup,
                                                                    ControlErrorSlot error);
    ControlTool(const ControlTool&) = delete;
    ControlTool& operator=(const ControlTool&) = delete;
    /** Waits for the end of the process. */
    ~ControlTool();

    /** Waits for the next event; @p line gets its line, valid until the next call. */
    [[nodiscard]] Event next(std::string_view& line, const ControlSignals& signals,
                             Clock::time_point deadline);

    /** Sends @p line; false when the tool has gone. */
    bool send(std::string_view line);
    /** Pauses the tool between two instructions, and lets it go on. */
    void pause();
    void goOn();

    /** Whether the process may still run, and was not left to itself. */
    [[nodiscard]] bool isRunning() const { return _process > 0; }
    /** Closes the tool's input, and its outputs, so that nothing that is left to say holds it. */
    void hangUp();
    /** Waits for the end of the process: its exit status, or minus the signal that ended it. */
    [[nodiscard]] int wait();
    /** Leaves the tool to itself: it reads the end of its input and ends at the next safe point. */
    void leave();

private:
    /** What was read from one of the tool's outputs and not yet handed out. */
    struct Stream {
        int descriptor = -1;
        std::string bytes = {};
        size_t taken = 0;    // bytes at the front that were handed out
        size_t scanned = 0;  // bytes at the front without a line's end behind taken
        size_t longestLine;  // what is longer is handed out in pieces

        [[nodiscard]] bool takeLine(std::string_view& line);
        void receive();
        void close();
    };

    ControlTool() = default;
    void _closeInput();
    /** Whether the process has ended by now. */
    [[nodiscard]] bool _hasEnded();
    void _setStatus(int status);
    [[nodiscard]] bool _start(const Setup& setup, ControlErrorSlot error);

    pid_t _process = -1;
    int _status = 0;
    int _input = -1;
    // A file in millions of pieces is one line.
    Stream _output{.longestLine = size_t{64} << 20};
    Stream _log{.longestLine = size_t{64} << 10};
};
