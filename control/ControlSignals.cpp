#include "ControlSignals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <tuple>

ControlSignals::ControlSignals()
{
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGTSTP, SIGWINCH}) {
        ::sigaddset(&signals, signal);
    }
    // A run that was started with nohup goes on when the terminal goes.
    struct sigaction hangUp = {};
    if (::sigaction(SIGHUP, nullptr, &hangUp) == 0 && hangUp.sa_handler == SIG_IGN) {
        ::sigdelset(&signals, SIGHUP);
    }
    ::sigprocmask(SIG_BLOCK, &signals, &_previous);
    std::signal(SIGPIPE, SIG_IGN);
    // A screen is given back even when the job was put into the background meanwhile.
    std::signal(SIGTTOU, SIG_IGN);
    _descriptor = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

ControlSignals::~ControlSignals()
{
    if (_descriptor >= 0) {
        ::close(_descriptor);
    }
    std::signal(SIGPIPE, SIG_DFL);
    std::signal(SIGTTOU, SIG_DFL);
    ::sigprocmask(SIG_SETMASK, &_previous, nullptr);
}

std::optional<int> ControlSignals::take()
{
    signalfd_siginfo info = {};
    if (::read(_descriptor, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
        return std::nullopt;
    }
    return static_cast<int>(info.ssi_signo);
}

void ControlSignals::suspend()
{
    std::ignore = std::raise(SIGSTOP);
}
