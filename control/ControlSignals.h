#pragma once

#include <sys/types.h>

#include <csignal>
#include <optional>

/** The signals that a person or the terminal sends, as something to read instead of handlers.
 *
 *  While the object lives, SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGTSTP and SIGWINCH are blocked and
 * read from descriptor(), SIGPIPE and SIGTTOU are ignored. One object in a program, on its main
 * thread, before it starts another.
 */
class ControlSignals {
public:
    ControlSignals();
    ControlSignals(const ControlSignals&) = delete;
    ControlSignals& operator=(const ControlSignals&) = delete;
    ~ControlSignals();

    /** Readable when a signal waits. */
    [[nodiscard]] int descriptor() const { return _descriptor; }
    /** The next signal that waits, or nothing. */
    [[nodiscard]] std::optional<int> take();

    /** Stops this process, as Ctrl-Z does, until it is continued. */
    static void suspend();

private:
    sigset_t _previous = {};
    int _descriptor = -1;
};
