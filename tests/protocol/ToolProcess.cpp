#include "protocol/ToolProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <utility>

namespace {

constexpr double kSecondsAllowed = 120;

double now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void closeDescriptor(int& descriptor)
{
    if (descriptor >= 0) {
        ::close(descriptor);
        descriptor = -1;
    }
}

/** Puts the program on its three descriptors; only calls that are safe after a fork. */
[[noreturn]] void execute(const ToolProcess::Setup& setup, const std::vector<char*>& words,
                          std::array<int, 3> descriptors)
{
    for (const int signal : {SIGPIPE, SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        std::signal(signal, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    if (setup.inputPath) {
        descriptors[0] = ::open(setup.inputPath->c_str(), O_RDONLY | O_CLOEXEC);
    }
    for (int index = 0; index < 3; ++index) {
        ::dup2(descriptors[static_cast<size_t>(index)], index);
    }
    if (setup.inputClosed) {
        ::close(STDIN_FILENO);
    }
    if (setup.outputClosed) {
        ::close(STDOUT_FILENO);
    }
    ::execv(setup.program.c_str(), words.data());
    ::_exit(127);
}

}  // namespace

ToolProcess::ToolProcess(const Setup& setup) : _deadline(now() + kSecondsAllowed)
{
    std::array<int, 2> input = {-1, -1};
    std::array<int, 2> output = {-1, -1};
    std::array<int, 2> errors = {-1, -1};
    EXPECT_EQ(::pipe2(input.data(), O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(output.data(), O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(errors.data(), O_CLOEXEC), 0);
    if (setup.outputPipeSize != 0) {
        EXPECT_GE(::fcntl(output[1], F_SETPIPE_SZ, setup.outputPipeSize), setup.outputPipeSize);
    }
    // A program that has ended must not take the test with it.
    std::signal(SIGPIPE, SIG_IGN);

    std::vector<std::string> arguments = {setup.program};
    arguments.insert(arguments.end(), setup.arguments.begin(), setup.arguments.end());
    std::vector<char*> words;
    for (std::string& argument : arguments) {
        words.push_back(argument.data());
    }
    words.push_back(nullptr);

    ::unsetenv("KLDebugLevel");
    ::unsetenv("VZDefragRollbackFile");
    for (const auto& [name, value] : setup.environment) {
        ::setenv(name.c_str(), value.c_str(), 1);
    }
    _process = ::fork();
    if (_process == 0) {
        execute(setup, words, {input[0], output[1], errors[1]});
    }
    for (const auto& [name, value] : setup.environment) {
        ::unsetenv(name.c_str());
    }
    EXPECT_GT(_process, 0);
    closeDescriptor(input[0]);
    closeDescriptor(output[1]);
    closeDescriptor(errors[1]);
    _input = input[1];
    _output.descriptor = output[0];
    _errors.descriptor = errors[0];
}

ToolProcess::~ToolProcess()
{
    if (_process > 0) {
        ::kill(_process, SIGKILL);
        ::waitpid(_process, nullptr, 0);
    }
    closeDescriptor(_input);
    closeDescriptor(_output.descriptor);
    closeDescriptor(_errors.descriptor);
}

void ToolProcess::write(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = ::write(_input, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            return;  // it has ended: what it printed before tells the test why
        }
        bytes.remove_prefix(count > 0 ? static_cast<size_t>(count) : 0);
    }
}

void ToolProcess::closeInput()
{
    closeDescriptor(_input);
}

void ToolProcess::closeOutput()
{
    closeDescriptor(_output.descriptor);
}

void ToolProcess::sendSignal(int signal)
{
    // A process number of -1 would mean every process there is.
    ASSERT_GT(_process, 0) << "the program was waited for";
    EXPECT_EQ(::kill(_process, signal), 0);
}

void ToolProcess::awaitSleep()
{
    while (!_sleepsInPoll()) {
        if (_millisecondsLeft() == 0) {
            ADD_FAILURE() << "the program does not wait for anything";
            return;
        }
        ::sched_yield();
    }
}

/** Whoever makes a descriptor ready also wakes its poller, so a sleeper has nothing left to take.
 */
bool ToolProcess::_sleepsInPoll() const
{
    const std::string folder = "/proc/" + std::to_string(_process);
    // The state comes first: a thread that is only about to run is still shown in its call.
    std::ifstream status(folder + "/stat");
    std::string identifier;
    std::string name;
    std::string state;
    status >> identifier >> name >> state;
    std::ifstream call(folder + "/syscall");
    long number = -1;
    call >> number;
#ifdef SYS_poll
    const bool polls = number == SYS_poll || number == SYS_ppoll;
#else
    const bool polls = number == SYS_ppoll;
#endif
    return state == "S" && call && polls;
}

std::optional<std::string> ToolProcess::readLine()
{
    return _readLine(_output);
}

std::string ToolProcess::readToEnd()
{
    return _readToEnd(_output);
}

std::optional<std::string> ToolProcess::readErrorLine()
{
    return _readLine(_errors);
}

std::string ToolProcess::readErrorsToEnd()
{
    return _readToEnd(_errors);
}

int ToolProcess::wait()
{
    // The outputs are emptied first, or a program with much to say would never end.
    while (_readMore()) {
    }
    // The C library declares pidfd_open for C only.
    if (_process <= 0) {
        ADD_FAILURE() << "the program was waited for";
        return -1;
    }
    int processDescriptor = static_cast<int>(::syscall(SYS_pidfd_open, _process, 0));
    pollfd ended = {.fd = processDescriptor, .events = POLLIN, .revents = 0};
    if (::poll(&ended, 1, _millisecondsLeft()) <= 0) {
        ADD_FAILURE() << "the program does not end";
        ::kill(_process, SIGKILL);
    }
    closeDescriptor(processDescriptor);
    int status = 0;
    EXPECT_EQ(::waitpid(_process, &status, 0), _process);
    _process = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int ToolProcess::_millisecondsLeft() const
{
    const double left = (_deadline - now()) * 1000;
    return left > 0 ? static_cast<int>(left) : 0;
}

/** Waits for more of either output; false when both are at their end or the time is up. */
bool ToolProcess::_readMore()
{
    if (_output.descriptor < 0 && _errors.descriptor < 0) {
        return false;
    }
    std::array<pollfd, 2> descriptors = {{
        {.fd = _output.descriptor, .events = POLLIN, .revents = 0},
        {.fd = _errors.descriptor, .events = POLLIN, .revents = 0},
    }};
    const int ready = ::poll(descriptors.data(), descriptors.size(), _millisecondsLeft());
    if (ready < 0 && errno == EINTR) {
        return true;
    }
    if (ready <= 0) {
        ADD_FAILURE() << "no output within the time allowed";
        return false;
    }
    if (descriptors[0].revents != 0) {
        _receive(_output);
    }
    if (descriptors[1].revents != 0) {
        _receive(_errors);
    }
    return true;
}

void ToolProcess::_receive(Stream& stream)
{
    std::array<char, 65536> bytes;
    const ssize_t count = ::read(stream.descriptor, bytes.data(), bytes.size());
    if (count > 0) {
        stream.bytes.append(bytes.data(), static_cast<size_t>(count));
    } else if (count == 0 || errno != EINTR) {
        closeDescriptor(stream.descriptor);
    }
}

std::optional<std::string> ToolProcess::_readLine(Stream& stream)
{
    size_t newline = stream.bytes.find('\n');
    while (newline == std::string::npos) {
        if (stream.descriptor < 0 || !_readMore()) {
            return std::nullopt;
        }
        newline = stream.bytes.find('\n');
    }
    std::string line = stream.bytes.substr(0, newline);
    stream.bytes.erase(0, newline + 1);
    return line;
}

std::string ToolProcess::_readToEnd(Stream& stream)
{
    while (stream.descriptor >= 0 && _readMore()) {
    }
    return std::exchange(stream.bytes, std::string());
}
