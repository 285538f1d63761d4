#pragma once

#include <cstdio>
#include <memory>
#include <vector>

#include "ControlScreenPicture.h"

/** A terminal taken for a screen, by way of curses; given back when this goes.
 *
 *  Curses' own handlers of signals are not left in place. At most one lives at a time.
 */
class ControlTerminal {
public:
    struct Size {
        size_t columns = 0;
        size_t rows = 0;

        bool operator==(const Size& other) const = default;
    };

    /** Takes the terminal of TERM's kind behind @p output, and @p input, which is the same one.
     *
     *  Null when it cannot show a screen, for want of a cursor that moves or of a known kind;
     *  nothing has been written then.
     */
    [[nodiscard]] static std::unique_ptr<ControlTerminal> initWithFiles(std::FILE* output,
                                                                        std::FILE* input,
                                                                        bool isColored);
    ~ControlTerminal();
    ControlTerminal(const ControlTerminal&) = delete;
    ControlTerminal& operator=(const ControlTerminal&) = delete;

    /** The size that it has now; asked for whenever it may have changed. */
    [[nodiscard]] Size size();
    /** Shows @p lines from the top; what is below and beside them becomes empty. */
    void show(const std::vector<ControlScreenLine>& lines);
    /** Gives the terminal back for a while. */
    void suspend();
    /** Takes it again; the next show() paints all of it. */
    void resume();
    /** Whether this process may write to the terminal, as a job in the background may not. */
    [[nodiscard]] bool isForeground() const;

private:
    struct Curses;

    ControlTerminal(std::FILE* output, bool isColored);
    [[nodiscard]] bool _start(std::FILE* input);
    void _startColors();
    [[nodiscard]] unsigned long _attributesOf(const ControlScreenRun& run) const;

    std::FILE* _output;
    std::unique_ptr<Curses> _curses;
    bool _isColored;
};
