#include "ControlTool.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <tuple>
#include <utility>

namespace {

constexpr size_t kReadSize = size_t{256} << 10;
// How often to look whether a process whose streams are closed has ended.
constexpr std::chrono::milliseconds kEndInterval{5};
constexpr const char* kLogLevelName = "KLDebugLevel";
constexpr const char* kRollbackName = "VZDefragRollbackFile";

/** Both ends of a pipe, closed with it. */
struct Pipe {
    std::array<int, 2> ends = {-1, -1};

    Pipe() { std::ignore = ::pipe2(ends.data(), O_CLOEXEC); }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe()
    {
        for (const int end : ends) {
            if (end >= 0) {
                ::close(end);
            }
        }
    }

    [[nodiscard]] bool isOpen() const { return ends[0] >= 0; }
    [[nodiscard]] int take(size_t index) { return std::exchange(ends.at(index), -1); }
};

/** What the program is started with, beside its arguments. */
class SpawnSettings {
public:
    SpawnSettings()
    {
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawnattr_init(&attributes);
        sigset_t none;
        ::sigemptyset(&none);
        sigset_t ours;
        ::sigemptyset(&ours);
        ::sigaddset(&ours, SIGPIPE);
        ::sigaddset(&ours, SIGTTOU);
        ::posix_spawnattr_setsigmask(&attributes, &none);
        ::posix_spawnattr_setsigdefault(&attributes, &ours);
        ::posix_spawnattr_setpgroup(&attributes, 0);
        ::posix_spawnattr_setflags(
            &attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;
    ~SpawnSettings()
    {
        ::posix_spawn_file_actions_destroy(&actions);
        ::posix_spawnattr_destroy(&attributes);
    }

    posix_spawn_file_actions_t actions = {};
    posix_spawnattr_t attributes = {};
};

/** Our environment with the two variables that the tool takes from us. */
std::vector<std::string> environmentFor(const std::string& rollbackFile)
{
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; variable++) {
        const std::string_view text = *variable;
        const std::string_view name = text.substr(0, text.find('='));
        if (name != kLogLevelName && name != kRollbackName) {
            variables.emplace_back(text);
        }
    }
    // The volume's sizes are told at level info.
    const char* const level = std::getenv(kLogLevelName);
    const bool isTalkative = level != nullptr && ::strncasecmp(level, "debug", 5) == 0;
    variables.push_back(std::string(kLogLevelName) + "=" + (isTalkative ? level : "info"));
    if (!rollbackFile.empty()) {
        variables.push_back(std::string(kRollbackName) + "=" + rollbackFile);
    }
    return variables;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

std::unique_ptr<ControlTool> ControlTool::initWithSetup(const Setup& setup, ControlErrorSlot error)
{
    std::unique_ptr<ControlTool> tool(new ControlTool);
    if (!tool->_start(setup, error)) {
        return nullptr;
    }
    return tool;
}

bool ControlTool::_start(const Setup& setup, ControlErrorSlot error)
{
    Pipe input;
    Pipe output;
    Pipe log;
    if (!input.isOpen() || !output.isOpen() || !log.isOpen()) {
        return ControlFail(error, ControlStatus::kToolFailed,
                           std::string("No pipe to vzdefrag: ") + std::strerror(errno));
    }
    SpawnSettings settings;
    ::posix_spawn_file_actions_adddup2(&settings.actions, input.ends[0], STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&settings.actions, output.ends[1], STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&settings.actions, log.ends[1], STDERR_FILENO);
    std::vector<std::string> arguments = {setup.program};
    arguments.insert(arguments.end(), setup.arguments.begin(), setup.arguments.end());
    std::vector<std::string> environment = environmentFor(setup.rollbackFile);
    const int failure =
        ::posix_spawnp(&_process, setup.program.c_str(), &settings.actions, &settings.attributes,
                       pointersTo(arguments).data(), pointersTo(environment).data());
    if (failure != 0) {
        _process = -1;
        return ControlFail(error, ControlStatus::kToolFailed,
                           "Unable to start " + setup.program + ": " + std::strerror(failure));
    }
    _input = input.take(1);
    _output.descriptor = output.take(0);
    _log.descriptor = log.take(0);
    return true;
}

ControlTool::~ControlTool()
{
    if (_process > 0) {
        goOn();
        std::ignore = wait();
    }
    hangUp();
}

void ControlTool::hangUp()
{
    _closeInput();
    _output.close();
    _log.close();
}

void ControlTool::_closeInput()
{
    if (_input >= 0) {
        ::close(_input);
        _input = -1;
    }
}

bool ControlTool::Stream::takeLine(std::string_view& line)
{
    const size_t end = bytes.find('\n', std::max(scanned, taken));
    if (end != std::string::npos) {
        line = std::string_view(bytes).substr(taken, end - taken);
        taken = end + 1;
        return true;
    }
    scanned = bytes.size();
    const bool isAll = descriptor < 0 || bytes.size() - taken > longestLine;
    if (isAll && taken < bytes.size()) {
        line = std::string_view(bytes).substr(taken);
        taken = bytes.size();
        return true;
    }
    return false;
}

void ControlTool::Stream::receive()
{
    bytes.erase(0, taken);
    scanned -= std::min(scanned, taken);
    taken = 0;
    const size_t size = bytes.size();
    bytes.resize(size + kReadSize);
    const ssize_t count = ::read(descriptor, bytes.data() + size, kReadSize);
    bytes.resize(size + (count > 0 ? static_cast<size_t>(count) : 0));
    if (count == 0 || (count < 0 && errno != EINTR)) {
        close();
    }
}

void ControlTool::Stream::close()
{
    if (descriptor >= 0) {
        ::close(descriptor);
        descriptor = -1;
    }
}

ControlTool::Event ControlTool::next(std::string_view& line, const ControlSignals& signals,
                                     Clock::time_point deadline)
{
    while (true) {
        // What is already here goes first, but a person who types Ctrl-C is never kept waiting.
        std::array<pollfd, 3> files = {pollfd{signals.descriptor(), POLLIN, 0},
                                       pollfd{_output.descriptor, POLLIN, 0},
                                       pollfd{_log.descriptor, POLLIN, 0}};
        // The log first: it says what the output then rests on.
        if (_log.takeLine(line)) {
            return Event::kLog;
        }
        if (_output.takeLine(line)) {
            return Event::kLine;
        }
        if (_output.descriptor < 0) {
            _closeInput();  // there is no answer to be had any more
        }
        const bool isClosed = _output.descriptor < 0 && _log.descriptor < 0;
        if (isClosed && _hasEnded()) {
            return Event::kEnd;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        const auto longest = isClosed ? kEndInterval : std::chrono::milliseconds(1 << 30);
        const auto wait = std::clamp<int64_t>(left.count(), 0, longest.count());
        const int ready = ::poll(files.data(), files.size(), static_cast<int>(wait));
        if (ready == 0 && Clock::now() >= deadline) {
            return Event::kTimeout;
        }
        if (ready > 0 && files[0].revents != 0) {
            return Event::kSignal;
        }
        if (ready > 0 && files[2].revents != 0) {
            _log.receive();
        }
        if (ready > 0 && files[1].revents != 0) {
            _output.receive();
        }
    }
}

bool ControlTool::send(std::string_view line)
{
    std::string bytes(line);
    bytes += '\n';
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count = ::write(_input, bytes.data() + sent, bytes.size() - sent);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        sent += count > 0 ? static_cast<size_t>(count) : 0;
    }
    return true;
}

void ControlTool::pause()
{
    if (_process > 0) {
        ::kill(-_process, SIGSTOP);
    }
}

void ControlTool::goOn()
{
    if (_process > 0) {
        ::kill(-_process, SIGCONT);
    }
}

void ControlTool::leave()
{
    goOn();
    _process = -1;
}

int ControlTool::wait()
{
    if (_process <= 0) {
        return _status;
    }
    hangUp();
    int status = 0;
    while (::waitpid(_process, &status, 0) < 0 && errno == EINTR) {
    }
    _setStatus(status);
    return _status;
}

bool ControlTool::_hasEnded()
{
    int status = 0;
    if (_process > 0 && ::waitpid(_process, &status, WNOHANG) != 0) {
        _setStatus(status);
    }
    return _process <= 0;
}

void ControlTool::_setStatus(int status)
{
    _process = -1;
    _status = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}
