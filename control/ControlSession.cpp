#include "ControlSession.h"

#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <tuple>
#include <utility>

#include "ControlLogLine.h"

namespace {

using Event = ControlTool::Event;

constexpr std::chrono::milliseconds kTick{100};
// Who asks so often has stopped waiting; vzdefrag ends by itself.
constexpr int kInterruptsToLeave = 3;
constexpr std::string_view kStopped = "Stopped.";

/** Whether the environment asks for more of the log than warnings. */
bool wantsLog()
{
    const char* const level = std::getenv("KLDebugLevel");
    return level != nullptr &&
           (::strcasecmp(level, "info") == 0 || ::strncasecmp(level, "debug", 5) == 0);
}

const ControlSession::Handler kIgnore = [](const ControlRecord&) {};

}  // namespace

std::unique_ptr<ControlSession> ControlSession::initWithSetup(const ControlTool::Setup& setup,
                                                              ControlSignals& signals,
                                                              ControlSessionObserver& observer,
                                                              ControlErrorSlot error)
{
    std::unique_ptr<ControlSession> session(new ControlSession(signals, observer));
    session->_tool = ControlTool::initWithSetup(setup, error);
    if (session->_tool == nullptr || !session->_awaitReady(error)) {
        return nullptr;
    }
    return session;
}

ControlSession::ControlSession(ControlSignals& signals, ControlSessionObserver& observer)
    : _signals(signals), _observer(observer), _showsLog(wantsLog()), _nextTick(Clock::now())
{
}

ControlSession::~ControlSession()
{
    if (_tool == nullptr) {
        return;
    }
    _tool->hangUp();
    Exchange rest{.task = "", .handler = kIgnore};
    // Signals are heard meanwhile: a disk that does not answer can hold the process for long.
    while (_tool->isRunning() && _handleEvent(rest, _nextTick)) {
    }
}

bool ControlSession::_awaitReady(ControlErrorSlot error)
{
    Exchange opening{.task = "", .handler = kIgnore};
    while (!opening.isDone && !opening.failure && _handleEvent(opening, _nextTick)) {
    }
    if (opening.failure) {
        return ControlFail(error, opening.failure->status, opening.failure->message);
    }
    if (_isStopping) {
        return ControlFail(error, ControlStatus::kStopped, std::string(kStopped));
    }
    if (!opening.isDone) {
        return _failForEnd(error);
    }
    if (_facts.blockSize == 0 || _facts.totalBlocks == 0) {
        return ControlFail(error, ControlStatus::kToolFailed,
                           "vzdefrag does not say how large the volume is.");
    }
    return true;
}

void ControlSession::setTimeLimit(Clock::time_point limit, std::string reason)
{
    _timeLimit = limit;
    _timeLimitReason = std::move(reason);
}

void ControlSession::requestStop(const std::string& reason)
{
    if (!_isStopping) {
        _isStopping = true;
        std::ignore = _tool->send("QUIT");
    }
    _observer.stopWasRequested(reason);
}

bool ControlSession::run(const std::string& command, const Handler& handler, ControlErrorSlot error)
{
    if (_isStopping) {
        return ControlFail(error, ControlStatus::kStopped, std::string(kStopped));
    }
    Exchange exchange{.task = command.substr(0, command.find(' ')), .handler = handler};
    std::ignore = _tool->send(command);  // a tool that is gone shows as the end of its output
    while (!exchange.isDone && _handleEvent(exchange, _nextTick)) {
    }
    if (exchange.failure) {
        return ControlFail(error, exchange.failure->status, exchange.failure->message);
    }
    if (_isStopping) {
        return ControlFail(error, ControlStatus::kStopped, std::string(kStopped));
    }
    return exchange.isDone || _failForEnd(error);
}

bool ControlSession::poll(ControlErrorSlot error)
{
    Exchange nothing{.task = "", .handler = kIgnore};
    if (!_handleEvent(nothing, Clock::now()) && !_isStopping) {
        return _failForEnd(error);
    }
    return !_isStopping || ControlFail(error, ControlStatus::kStopped, std::string(kStopped));
}

bool ControlSession::end(ControlErrorSlot error)
{
    if (!_isStopping) {
        std::ignore = _tool->send("QUIT");
    }
    Exchange rest{.task = "", .handler = kIgnore};
    while (!_isLeft && _handleEvent(rest, _nextTick)) {
    }
    return _isLeft || _tool->wait() == 0 || _failForEnd(error);
}

bool ControlSession::_handleEvent(Exchange& exchange, Clock::time_point deadline)
{
    std::string_view line;
    const Event event = _tool->next(line, _signals, deadline);
    _checkClock();
    switch (event) {
        case Event::kLine: {
            const ControlRecord* record = _reader.addLine(line);
            while (record != nullptr) {
                _handleRecord(exchange, *record);
                record = _reader.hasWholeRest() ? _reader.takeRest() : nullptr;
            }
            return true;
        }
        case Event::kLog:
            _handleLog(std::string(line));
            return true;
        case Event::kSignal:
            _handleSignals();
            return !_isLeft;
        case Event::kTimeout:
            return true;
        case Event::kEnd:
            break;
    }
    const ControlRecord* const record = _reader.takeRest();
    if (record != nullptr) {
        _handleRecord(exchange, *record);
    }
    return false;
}

void ControlSession::_handleRecord(Exchange& exchange, const ControlRecord& record)
{
    using Kind = ControlRecord::Kind;
    if (record.kind == Kind::kReady) {
        exchange.isDone = exchange.task.empty();
        return;
    }
    if (record.kind == Kind::kError && (record.task.empty() || record.task == exchange.task)) {
        if (!exchange.failure) {
            exchange.failure = {.status = statusOfToolMessage(record.text), .message = record.text};
        }
        return;
    }
    if (record.task != exchange.task) {
        return;
    }
    if (record.kind == Kind::kUnknown) {
        exchange.failure = {.status = ControlStatus::kToolFailed,
                            .message = "vzdefrag gave an answer that is not understood."};
        exchange.isDone = true;  // what comes next cannot be understood either
        return;
    }
    exchange.isDone = record.kind == Kind::kDone;
    exchange.handler(record);
}

void ControlSession::_handleLog(const std::string& line)
{
    const ControlLogLine log = ControlLogLine::parse(line);
    log.tell(_facts);
    _didRollBack = _didRollBack || log.tellsOfRollback();
    if (log.isForPeople() || _showsLog) {
        _observer.didLog(log.message());
    }
}

void ControlSession::_handleSignals()
{
    while (const std::optional<int> signal = _signals.take()) {
        if (*signal == SIGWINCH) {
            _observer.sizeDidChange();
        } else if (*signal == SIGTSTP) {
            _observer.willSuspend();
            _tool->pause();
            ControlSignals::suspend();
            _tool->goOn();
            _observer.didResume();
        } else {
            _interrupts++;
            requestStop(*signal == SIGINT ? "Ctrl-C" : ::strsignal(*signal));
            if (_interrupts >= kInterruptsToLeave) {
                _tool->leave();
                _isLeft = true;
            }
        }
    }
}

void ControlSession::_checkClock()
{
    const Clock::time_point now = Clock::now();
    if (now >= _nextTick) {
        _nextTick = now + kTick;
        _observer.timeDidPass();
    }
    if (_timeLimit && now >= *_timeLimit) {
        _timeLimit.reset();
        requestStop(_timeLimitReason);
    }
}

bool ControlSession::_failForEnd(ControlErrorSlot error)
{
    const int status = _tool->wait();
    std::string message = "vzdefrag ended without finishing what it was asked for.";
    if (status < 0) {
        message = std::string("vzdefrag was ended by a signal: ") + ::strsignal(-status) + ".";
    } else if (status == 127) {
        message = "vzdefrag could not be started.";
    } else if (status > 0) {
        message = "vzdefrag ended with status " + std::to_string(status) + ".";
    }
    return ControlFail(error, ControlStatus::kToolFailed, message);
}
