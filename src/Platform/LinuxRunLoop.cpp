#include "Platform/LinuxRunLoop.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>

std::unique_ptr<LinuxRunLoop> LinuxRunLoop::create(int inputDescriptor)
{
    std::unique_ptr<LinuxRunLoop> loop(new LinuxRunLoop(inputDescriptor));
    loop->_wakeUpDescriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (loop->_wakeUpDescriptor < 0) {
        return nullptr;
    }
    loop->_signalDescriptor = ::signalfd(-1, &loop->_signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (loop->_signalDescriptor < 0) {
        return nullptr;
    }
    if (std::signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
        return nullptr;
    }
    return loop;
}

LinuxRunLoop::LinuxRunLoop(int inputDescriptor) : _inputDescriptor(inputDescriptor), _signals{}
{
    sigemptyset(&_signals);
}

LinuxRunLoop::~LinuxRunLoop()
{
    if (_signalDescriptor >= 0) {
        ::close(_signalDescriptor);
    }
    if (_wakeUpDescriptor >= 0) {
        ::close(_wakeUpDescriptor);
    }
}

int LinuxRunLoop::watchSignal(int signal)
{
    sigset_t signals = _signals;
    if (sigaddset(&signals, signal) != 0) {
        return errno;
    }
    const int result = ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    if (result != 0) {
        return result;
    }
    if (::signalfd(_signalDescriptor, &signals, 0) < 0) {
        return errno;
    }
    _signals = signals;
    return 0;
}

void LinuxRunLoop::wakeUp()
{
    // A counter too full to take one more is not zero either, so a failure still wakes the loop.
    const uint64_t one = 1;
    while (::write(_wakeUpDescriptor, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

int LinuxRunLoop::wait(Turn& turn)
{
    turn = Turn{};
    pollfd descriptors[] = {
        {.fd = _wakeUpDescriptor, .events = POLLIN, .revents = 0},
        {.fd = _signalDescriptor, .events = POLLIN, .revents = 0},
        {.fd = _inputWatched ? _inputDescriptor : -1, .events = POLLIN, .revents = 0},
    };
    while (::poll(descriptors, std::size(descriptors), -1) < 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    int result = 0;
    if (descriptors[0].revents != 0) {
        result = _readWakeUps();
    }
    if (result == 0 && descriptors[1].revents != 0) {
        result = _readSignals(turn);
    }
    // A hang-up is read like input: what is left in the pipe comes first, then the end.
    turn.inputReadable = descriptors[2].revents != 0;
    return result;
}

int LinuxRunLoop::_readWakeUps()
{
    uint64_t count = 0;
    while (::read(_wakeUpDescriptor, &count, sizeof count) < 0) {
        if (errno == EAGAIN) {
            return 0;
        }
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

int LinuxRunLoop::_readSignals(Turn& turn)
{
    while (true) {
        signalfd_siginfo info = {};
        const ssize_t count = ::read(_signalDescriptor, &info, sizeof info);
        if (count == static_cast<ssize_t>(sizeof info)) {
            turn.signals.push_back(static_cast<int>(info.ssi_signo));
        } else if (count >= 0) {
            return EIO;
        } else if (errno == EAGAIN) {
            return 0;
        } else if (errno != EINTR) {
            return errno;
        }
    }
}

int64_t LinuxRunLoop::readInput(void* buffer, size_t nbyte)
{
    // Asked again although the wait said so: another reader of a shared terminal may have been
    // faster, and a blocking read would then hold up signals and wake-ups.
    pollfd input = {.fd = _inputDescriptor, .events = POLLIN, .revents = 0};
    int ready = 0;
    while ((ready = ::poll(&input, 1, 0)) < 0) {
        if (errno != EINTR) {
            return -errno;
        }
    }
    if (ready == 0) {
        return -EAGAIN;
    }
    while (true) {
        const ssize_t count = ::read(_inputDescriptor, buffer, nbyte);
        if (count >= 0) {
            return count;
        }
        if (errno != EINTR) {
            return -errno;
        }
    }
}
