#include "ControlTerminal.h"

#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>

// Macros of these headers would take names of ours.
#define NCURSES_NOMACROS
#include <curses.h>
#include <term.h>
#undef columns
#undef lines

namespace {

/** Leaves the handlers of some signals as they were before it. */
class KeptSignals {
public:
    KeptSignals()
    {
        for (size_t index = 0; index < kSignals.size(); index++) {
            ::sigaction(kSignals.at(index), nullptr, &_actions.at(index));
        }
    }

    ~KeptSignals()
    {
        for (size_t index = 0; index < kSignals.size(); index++) {
            ::sigaction(kSignals.at(index), &_actions.at(index), nullptr);
        }
    }

    KeptSignals(const KeptSignals&) = delete;
    KeptSignals& operator=(const KeptSignals&) = delete;

private:
    static constexpr std::array kSignals = {SIGINT, SIGTERM, SIGTSTP, SIGWINCH};

    std::array<struct sigaction, kSignals.size()> _actions = {};
};

/** Whether terminals of kind @p term can show a screen. */
bool canShowScreens(const char* term, int descriptor)
{
    int reason = 0;
    if (::setupterm(term, descriptor, &reason) != OK) {
        return false;
    }
    const auto has = [](const char* name) {
        const char* const text = ::tigetstr(name);
        // Curses says "no such thing" in two ways, one of them no address.
        return text != nullptr && reinterpret_cast<intptr_t>(text) != -1;
    };
    const bool isCapable = has("cup") && has("clear");
    ::del_curterm(::cur_term);
    return isCapable;
}

/** Lets Ctrl-C and Ctrl-Z leave alone what is on its way to the terminal.
 *
 *  Else parts of the screen would be lost that curses takes for shown, or of what ends the screen.
 */
void keepOutputAtSignals(int descriptor)
{
    struct termios modes = {};
    if (::tcgetattr(descriptor, &modes) == 0) {
        modes.c_lflag |= NOFLSH;
        ::tcsetattr(descriptor, TCSADRAIN, &modes);
        // These are now the modes that curses returns to after a suspension.
        ::def_prog_mode();
    }
}

constexpr short kBarPair = 8;

short pairOfMark(ControlMark mark)
{
    return static_cast<short>(static_cast<int>(mark) + 1);
}

}  // namespace

struct ControlTerminal::Curses {
    SCREEN* screen = nullptr;
};

ControlTerminal::ControlTerminal(std::FILE* output, bool isColored)
    : _output(output), _curses(std::make_unique<Curses>()), _isColored(isColored)
{
}

std::unique_ptr<ControlTerminal> ControlTerminal::initWithFiles(std::FILE* output, std::FILE* input,
                                                                bool isColored)
{
    std::unique_ptr<ControlTerminal> terminal(new ControlTerminal(output, isColored));
    if (!terminal->_start(input)) {
        return nullptr;
    }
    return terminal;
}

bool ControlTerminal::_start(std::FILE* input)
{
    const char* const term = std::getenv("TERM");
    if (term == nullptr || *term == '\0' || ::isatty(::fileno(_output)) == 0 ||
        !canShowScreens(term, ::fileno(_output))) {
        return false;
    }
    std::fflush(_output);
    const KeptSignals signals;
    _curses->screen = ::newterm(term, _output, input);
    if (_curses->screen == nullptr) {
        return false;
    }
    // Keys still make signals, and nothing that is typed shows.
    ::cbreak();
    ::noecho();
    keepOutputAtSignals(::fileno(_output));
    ::curs_set(0);
    ::leaveok(::stdscr, TRUE);
    _startColors();
    return true;
}

void ControlTerminal::_startColors()
{
    _isColored = _isColored && ::has_colors() && ::start_color() == OK;
    if (!_isColored) {
        return;
    }
    const short background = ::use_default_colors() == OK ? short{-1} : short{COLOR_BLACK};
    for (const ControlMark mark :
         {ControlMark::kFree, ControlMark::kUsed, ControlMark::kFragmented, ControlMark::kFixed,
          ControlMark::kRead, ControlMark::kWritten}) {
        const int color = colorOfMark(mark);
        if (color >= 0) {
            ::init_pair(pairOfMark(mark), static_cast<short>(color), background);
        }
    }
    ::init_pair(kBarPair, COLOR_GREEN, background);
}

ControlTerminal::~ControlTerminal()
{
    if (_curses->screen == nullptr) {
        return;
    }
    if (!::isendwin()) {
        suspend();
    }
    ::delscreen(_curses->screen);
}

ControlTerminal::Size ControlTerminal::size()
{
    // Curses would rather believe LINES and COLUMNS, which do not follow the window.
    struct winsize window = {};
    if (::ioctl(::fileno(_output), TIOCGWINSZ, &window) == 0 && window.ws_col > 0 &&
        window.ws_row > 0 && (window.ws_col != ::COLS || window.ws_row != ::LINES)) {
        ::resizeterm(window.ws_row, window.ws_col);
        ::clearok(::stdscr, TRUE);
    }
    return {.columns = static_cast<size_t>(::COLS), .rows = static_cast<size_t>(::LINES)};
}

unsigned long ControlTerminal::_attributesOf(const ControlScreenRun& run) const
{
    const auto pair = [&](short number) -> unsigned long {
        return _isColored ? static_cast<unsigned long>(COLOR_PAIR(number)) : A_NORMAL;
    };
    switch (run.style) {
        case ControlScreenStyle::kPlain:
            return A_NORMAL;
        case ControlScreenStyle::kTitle:
            return A_REVERSE;
        case ControlScreenStyle::kDone:
            return A_BOLD | pair(kBarPair);
        case ControlScreenStyle::kFaint:
            return A_DIM;
        case ControlScreenStyle::kStrong:
            return A_BOLD;
        case ControlScreenStyle::kMark:
            break;
    }
    const int weight = weightOfMark(run.mark);
    return (weight > 0   ? A_BOLD
            : weight < 0 ? A_DIM
                         : A_NORMAL) |
           (colorOfMark(run.mark) >= 0 ? pair(pairOfMark(run.mark)) : A_NORMAL);
}

void ControlTerminal::show(const std::vector<ControlScreenLine>& lines)
{
    // Curses compares with what is shown, so that only differences are written.
    ::erase();
    int row = 0;
    for (const ControlScreenLine& line : lines) {
        ::move(row++, 0);
        for (const ControlScreenRun& run : line) {
            ::attrset(static_cast<int>(_attributesOf(run)));
            ::addstr(run.text.c_str());
        }
    }
    ::attrset(A_NORMAL);
    ::refresh();
}

void ControlTerminal::suspend()
{
    ::endwin();
    // What was typed into the screen is not meant for the shell.
    if (isForeground()) {
        ::tcflush(::fileno(_output), TCIFLUSH);
    }
}

void ControlTerminal::resume()
{
    ::clearok(::stdscr, TRUE);
}

bool ControlTerminal::isForeground() const
{
    const pid_t foreground = ::tcgetpgrp(::fileno(_output));
    // A terminal that does not control this process stops nobody.
    return foreground < 0 || foreground == ::getpgrp();
}
