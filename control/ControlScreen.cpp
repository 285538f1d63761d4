#include "ControlScreen.h"

#include <chrono>
#include <utility>

namespace {

constexpr double kDrawInterval = 0.1;  // seconds
constexpr double kMoveShown = 0.6;
constexpr double kMessageShown = 8;
constexpr size_t kMostMoves = 64;
constexpr size_t kMostMessages = 100;

double steadySeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

ControlScreen::ControlScreen(const ControlScreenOptions& options,
                             std::unique_ptr<ControlTerminal> terminal)
    : _options(options), _terminal(std::move(terminal))
{
}

std::unique_ptr<ControlScreen> ControlScreen::initWithTerminal(const ControlScreenOptions& options)
{
    auto terminal =
        ControlTerminal::initWithFiles(options.output, options.input, options.isColored);
    if (terminal == nullptr) {
        return nullptr;
    }
    return std::unique_ptr<ControlScreen>(new ControlScreen(options, std::move(terminal)));
}

ControlScreen::~ControlScreen()
{
    _giveTerminalBack();
}

void ControlScreen::_giveTerminalBack()
{
    _terminal.reset();
    // They were seen for a moment only, and went with the screen.
    for (const std::string& message : _messages) {
        std::fprintf(_options.messages, "%s\n",
                     escapedForTerminal(message, _options.characters).c_str());
    }
    _messages.clear();
}

void ControlScreen::runWillBegin(ControlJob job, const ControlFigures& before)
{
    _state.job = job;
    _state.image = before.image;
    _state.format = before.format;
    _state.blockSize = before.blockSize;
    _state.map = before.map;
    _draw();
}

void ControlScreen::phaseDidChange(const std::string& phase, std::optional<int> percent)
{
    _phase = phase;
    if (percent) {
        _phase += ": " + std::to_string(*percent) + "%";
    }
    _drawIfDue();
}

void ControlScreen::blocksDidMove(const ControlMove& move)
{
    // What DEFRAG moves is laid down in one piece; COMPACT leaves pieces what they are.
    _state.map.move(move.source, move.destination, move.count, _state.job == ControlJob::kDefrag);
    _phase.clear();
    if (_moves.size() == kMostMoves) {
        _moves.pop_front();
    }
    _moves.push_back({.move = move, .time = steadySeconds()});
    _drawIfDue();
}

void ControlScreen::progressDidChange(const ControlProgress& progress)
{
    _state.progress = progress;
    _drawIfDue();
}

void ControlScreen::runWillStop(const std::string& reason)
{
    _stopReason = reason;
    _message.clear();
    _draw();
}

void ControlScreen::showMessage(const std::string& message)
{
    _message = message;
    _messageTime = steadySeconds();
    _messages.push_back(message);
    if (_messages.size() > kMostMessages) {
        _messages.pop_front();
    }
    _drawIfDue();
}

void ControlScreen::runDidEnd(const ControlRunEnd& /*end*/)
{
    _giveTerminalBack();
}

void ControlScreen::willSuspend()
{
    if (_terminal != nullptr && _holder == Holder::kScreen) {
        _terminal->suspend();
    }
    _holder = Holder::kShell;
}

void ControlScreen::didResume()
{
    if (_holder == Holder::kShell) {
        _holder = Holder::kNobody;
    }
    _draw();
}

void ControlScreen::sizeDidChange()
{
    _draw();
}

void ControlScreen::_drawIfDue()
{
    if (steadySeconds() - _drawTime >= kDrawInterval) {
        _draw();
    }
}

void ControlScreen::_updateState(double now)
{
    while (!_moves.empty() && now - _moves.front().time > kMoveShown) {
        _moves.pop_front();
    }
    _state.recentMoves.clear();
    for (const TimedMove& move : _moves) {
        _state.recentMoves.push_back(move.move);
    }
    if (now - _messageTime > kMessageShown) {
        _message.clear();
    }
    _state.isUrgent = !_stopReason.empty() || !_message.empty();
    _state.status = !_message.empty() ? _message : !_stopReason.empty() ? _stopReason : _phase;
}

void ControlScreen::_draw()
{
    const double now = steadySeconds();
    _drawTime = now;
    if (_terminal != nullptr && _holder == Holder::kNobody && _terminal->isForeground()) {
        _terminal->resume();
        _holder = Holder::kScreen;
    }
    if (_terminal == nullptr || _holder != Holder::kScreen) {
        return;
    }
    _updateState(now);
    const ControlTerminal::Size size = _terminal->size();
    const ControlScreenLayout layout(size.columns, size.rows);
    _terminal->show(pictureOfScreen(_state, layout, _options.characters));
    _drawCount++;
}
