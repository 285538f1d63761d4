#include "control/PseudoTerminal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <sstream>

namespace {

constexpr double kPatience = 30;  // seconds
constexpr int kPollMilliseconds = 10;

double now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

PseudoTerminal::PseudoTerminal(const Setup& setup) : _deadline(now() + kPatience)
{
    _controller = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    std::array<char, 64> name = {};
    if (_controller < 0 || ::grantpt(_controller) != 0 || ::unlockpt(_controller) != 0 ||
        ::ptsname_r(_controller, name.data(), name.size()) != 0) {
        ADD_FAILURE() << "there is no pseudo-terminal";
        return;
    }
    _terminal = ::open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    _setSize(setup.columns, setup.rows);
    _process = ::fork();
    if (_process == 0) {
        _becomeProgram(setup);
    }
}

PseudoTerminal::~PseudoTerminal()
{
    if (_process > 0 && _state != State::kEnded) {
        ::kill(_process, SIGKILL);
        ::waitpid(_process, nullptr, 0);
    }
    ::close(_terminal);
    ::close(_controller);
}

void PseudoTerminal::_becomeProgram(const Setup& setup)
{
    ::setsid();
    ::ioctl(_terminal, TIOCSCTTY, 0);
    for (int descriptor = 0; descriptor < 3; descriptor++) {
        ::dup2(_terminal, descriptor);
    }
    for (const auto& [name, value] : setup.environment) {
        if (value.empty()) {
            ::unsetenv(name.c_str());
        } else {
            ::setenv(name.c_str(), value.c_str(), 1);
        }
    }
    std::vector<char*> arguments;
    for (const std::string& argument : setup.command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    ::execvp(arguments[0], arguments.data());
    ::_exit(127);
}

void PseudoTerminal::_setSize(uint16_t columns, uint16_t rows) const
{
    const struct winsize size = {.ws_row = rows, .ws_col = columns, .ws_xpixel = 0, .ws_ypixel = 0};
    ::ioctl(_controller, TIOCSWINSZ, &size);
}

void PseudoTerminal::type(std::string_view keys)
{
    EXPECT_EQ(::write(_controller, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
}

void PseudoTerminal::resize(uint16_t columns, uint16_t rows)
{
    _setSize(columns, rows);
}

bool PseudoTerminal::_goOnWaiting()
{
    // The state comes first: what the program wrote before it ended is then there to be read.
    int status = 0;
    if (_state != State::kEnded && ::waitpid(_process, &status, WNOHANG | WUNTRACED) == _process) {
        _state = WIFSTOPPED(status) ? State::kStopped : State::kEnded;
        _status = status;
    }
    struct pollfd ready = {.fd = _controller, .events = POLLIN, .revents = 0};
    while (::poll(&ready, 1, _state == State::kEnded ? 0 : kPollMilliseconds) > 0) {
        std::array<char, 65536> bytes = {};
        const ssize_t count = ::read(_controller, bytes.data(), bytes.size());
        if (count <= 0) {
            break;
        }
        _output.append(bytes.data(), static_cast<size_t>(count));
        if (_state == State::kRuns) {
            break;
        }
    }
    return now() < _deadline;
}

bool PseudoTerminal::waitFor(std::string_view text, size_t from)
{
    while (_output.find(text, from) == std::string::npos) {
        const bool hasEnded = _state == State::kEnded;
        if (!_goOnWaiting() || hasEnded) {
            break;
        }
    }
    return _output.find(text, from) != std::string::npos;
}

bool PseudoTerminal::waitUntilStopped()
{
    while (_state == State::kRuns && _goOnWaiting()) {
    }
    return _state == State::kStopped;
}

void PseudoTerminal::goOn()
{
    _state = State::kRuns;
    ::kill(_process, SIGCONT);
}

int PseudoTerminal::wait()
{
    while (_state != State::kEnded && _goOnWaiting()) {
    }
    if (_state != State::kEnded) {
        ADD_FAILURE() << "the program did not end; its output was " << _output;
        return -SIGKILL;
    }
    return WIFEXITED(_status) ? WEXITSTATUS(_status) : -WTERMSIG(_status);
}

std::string PseudoTerminal::modes() const
{
    struct termios modes = {};
    EXPECT_EQ(::tcgetattr(_terminal, &modes), 0);
    std::ostringstream text;
    text << std::hex << modes.c_iflag << ' ' << modes.c_oflag << ' ' << modes.c_cflag << ' '
         << modes.c_lflag;
    for (const cc_t character : modes.c_cc) {
        text << ' ' << unsigned{character};
    }
    return text.str();
}

bool PseudoTerminal::signalsDiscardOutput() const
{
    struct termios modes = {};
    EXPECT_EQ(::tcgetattr(_terminal, &modes), 0);
    return (modes.c_lflag & tcflag_t{NOFLSH}) == 0;
}

int PseudoTerminal::unreadBytes() const
{
    int count = -1;
    EXPECT_EQ(::ioctl(_terminal, FIONREAD, &count), 0);
    return count;
}
