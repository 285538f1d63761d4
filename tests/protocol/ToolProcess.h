#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/** A program started by a test and driven over its standard input and output.
 *
 *  Whatever waits has a deadline, counted from the start of the process; past it the process is
 *  killed and the wait reports what it has, so that a hang fails a test instead of holding it.
 */
class ToolProcess {
public:
    /** How the program is started. */
    struct Setup {
        std::string program;
        std::vector<std::string> arguments = {};
        std::map<std::string, std::string> environment = {};  // added to ours
        std::optional<std::string> inputPath = {};            // a file instead of the pipe
        bool inputClosed = false;                             // no standard input at all
        bool outputClosed = false;                            // no standard output at all
        int outputPipeSize = 0;                               // bytes; 0: what the system gives
    };

    explicit ToolProcess(const Setup& setup);
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;
    /** Kills the program if it still runs. */
    ~ToolProcess();

    void write(std::string_view bytes);
    void closeInput();
    /** Goes away as a reader. */
    void closeOutput();
    void sendSignal(int signal);
    /** Waits until the program's first thread sleeps for want of input, signals and work.
     *
     *  What was sent before has then been taken, if the program listens to it.
     */
    void awaitSleep();

    /** The next line of output without its newline; nothing at the end of output. */
    [[nodiscard]] std::optional<std::string> readLine();
    /** All output up to its end. */
    [[nodiscard]] std::string readToEnd();
    /** Everything written to standard error until it was closed. */
    [[nodiscard]] std::string readErrorsToEnd();
    /** The next line of standard error without its newline; nothing at its end. */
    [[nodiscard]] std::optional<std::string> readErrorLine();

    /** The exit status, or minus the number of the signal that ended the process. */
    [[nodiscard]] int wait();

    /** The process, while it has not been waited for. */
    [[nodiscard]] pid_t processID() const { return _process; }

private:
    /** One of the program's two outputs. */
    struct Stream {
        int descriptor = -1;
        std::string bytes;
    };

    [[nodiscard]] int _millisecondsLeft() const;
    [[nodiscard]] bool _sleepsInPoll() const;
    [[nodiscard]] bool _readMore();
    void _receive(Stream& stream);
    [[nodiscard]] std::optional<std::string> _readLine(Stream& stream);
    [[nodiscard]] std::string _readToEnd(Stream& stream);

    double _deadline;  // seconds on the monotonic clock
    pid_t _process = -1;
    int _input = -1;
    Stream _output;
    Stream _errors;
};
