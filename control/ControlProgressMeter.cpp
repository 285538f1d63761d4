#include "ControlProgressMeter.h"

#include <algorithm>

namespace {

using Seconds = std::chrono::duration<double>;

constexpr Seconds kWindow{5};
// Samples closer together add nothing.
constexpr Seconds kSampleDistance{0.1};
// With less done, the time left would be a guess.
constexpr double kLeastPercent = 1;

double secondsBetween(ControlProgressMeter::Clock::time_point begin,
                      ControlProgressMeter::Clock::time_point end)
{
    return std::chrono::duration_cast<Seconds>(end - begin).count();
}

}  // namespace

ControlProgressMeter::ControlProgressMeter(uint32_t blockSize, Clock::time_point begin)
    : _blockSize(blockSize), _begin(begin)
{
}

void ControlProgressMeter::addMove(int percent, uint32_t count, Clock::time_point now)
{
    _blocks += count;
    // Room that had to be made can bring the tool's figure above 100.
    percent = std::clamp(percent, _percent, 100);
    if (percent > _percent) {
        _percent = percent;
        _blocksAtPercent = _blocks;
    }
    const Sample sample{.time = now, .blocks = _blocks, .percent = _exactPercent()};
    // A batch of moves is told at once, when all of it is done.
    if (!_first || secondsBetween(_first->time, now) < kSampleDistance.count() / 10) {
        _first = sample;
    }
    if (_recent.empty() || secondsBetween(_recent.back().time, now) >= kSampleDistance.count()) {
        _recent.push_back(sample);
    }
    while (_recent.size() > 1 && secondsBetween(_recent.front().time, now) > kWindow.count()) {
        _recent.pop_front();
    }
}

void ControlProgressMeter::finish()
{
    _percent = 100;
    _blocksAtPercent = _blocks;
}

double ControlProgressMeter::_exactPercent() const
{
    if (_percent == 0 || _percent == 100) {
        return _percent;
    }
    const double blocksPerPercent = static_cast<double>(_blocksAtPercent) / _percent;
    const double beyond = static_cast<double>(_blocks - _blocksAtPercent) / blocksPerPercent;
    return _percent + std::min(beyond, 1.0);
}

std::optional<double> ControlProgressMeter::_secondsLeft(Clock::time_point now) const
{
    const double percent = _exactPercent();
    if (!_first || percent < kLeastPercent) {
        return std::nullopt;
    }
    const double since = secondsBetween(_first->time, now);
    const double done = percent - _first->percent;
    if (done < kLeastPercent || since <= 0) {
        return secondsBetween(_begin, now) * (100 - percent) / percent;
    }
    return since * (100 - percent) / done;
}

ControlProgress ControlProgressMeter::progress(Clock::time_point now) const
{
    ControlProgress progress;
    progress.percent = _percent;
    progress.movedBlocks = _blocks;
    progress.movedBytes = _blocks * _blockSize;
    progress.elapsed = secondsBetween(_begin, now);
    progress.secondsLeft = _secondsLeft(now);
    if (!_recent.empty()) {
        // Until the window is full the rate is that since the beginning.
        const bool isFull = progress.elapsed > kWindow.count();
        const double since = isFull ? secondsBetween(_recent.front().time, now) : progress.elapsed;
        const uint64_t before = isFull ? _recent.front().blocks : 0;
        progress.bytesPerSecond =
            since > 0 ? static_cast<double>((_blocks - before) * _blockSize) / since : 0;
    }
    return progress;
}
