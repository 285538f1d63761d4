#include "ControlProgressMeter.h"

#include <algorithm>
#include <array>
#include <limits>

namespace {

using Seconds = std::chrono::duration<double>;

constexpr double kRateWindow = 5;
// Samples closer together add nothing.
constexpr double kSampleDistance = 0.05;
// With less done, the time left would be a guess.
constexpr double kLeastShare = 0.01;
// What a move can cost beside its bytes, in bytes that could be copied meanwhile: a fraction of a
// millisecond on a solid-state disk, two seeks on another. The first is taken until more is known.
constexpr std::array kBytesPerMove = {64e3, 512e3, 2e6};
// Another one has to explain the run so far so much better.
constexpr double kBetter = 0.25;
constexpr size_t kHistoryLimit = 128;
// The moves of the first batch are read within so many seconds.
constexpr double kBatchLength = 0.05;
constexpr size_t kCrowdingCells = 4096;

double secondsBetween(ControlProgressMeter::Clock::time_point begin,
                      ControlProgressMeter::Clock::time_point end)
{
    return std::chrono::duration_cast<Seconds>(end - begin).count();
}

}  // namespace

ControlProgressMeter::ControlProgressMeter(uint32_t blockSize, const ControlWorkload& workload,
                                           Clock::time_point begin)
    : _blockSize(blockSize), _workload(workload), _begin(begin), _historyDistance(kSampleDistance)
{
}

void ControlProgressMeter::addMove(int percent, uint32_t count, Clock::time_point now)
{
    _blocks += count;
    _moves++;
    if (_moves == 1) {
        _firstMove = now;
    }
    // A batch of moves is told at once, when all of it is done.
    const Sample sample{.time = now, .blocks = _blocks, .moves = _moves};
    if (secondsBetween(_firstMove, now) < kBatchLength) {
        _first = sample;
    } else {
        _remember(sample);
    }
    // Room that had to be made can bring the tool's figure above 100.
    percent = std::clamp(percent, _percent, 100);
    if (percent > _percent) {
        _percent = percent;
        _blocksAtPercent = _blocks;
    }
    if (_samples.empty() || secondsBetween(_samples.back().time, now) >= kSampleDistance) {
        _samples.push_back(sample);
    }
    while (_samples.size() > 1 && secondsBetween(_samples[1].time, now) >= kRateWindow) {
        _samples.pop_front();
    }
}

void ControlProgressMeter::finish()
{
    _percent = 100;
    _blocksAtPercent = _blocks;
}

void ControlProgressMeter::_remember(const Sample& sample)
{
    if (!_history.empty() && secondsBetween(_history.back().time, sample.time) < _historyDistance) {
        return;
    }
    _history.push_back(sample);
    if (_history.size() == kHistoryLimit) {
        for (size_t index = 0; index < kHistoryLimit / 2; index++) {
            _history[index] = _history[2 * index];
        }
        _history.resize(kHistoryLimit / 2);
        _historyDistance *= 2;
    }
}

double ControlProgressMeter::_work(const Sample& begin, const Sample& end,
                                   double bytesPerMove) const
{
    return static_cast<double>(end.blocks - begin.blocks) * _blockSize +
           static_cast<double>(end.moves - begin.moves) * bytesPerMove;
}

double ControlProgressMeter::_bytesPerMove(const Sample& now) const
{
    const double seconds = secondsBetween(_first.time, now.time);
    double chosen = kBytesPerMove.front();
    double least = std::numeric_limits<double>::infinity();
    for (const double candidate : kBytesPerMove) {
        // With the right one, work goes with time in a straight line.
        const double all = _work(_first, now, candidate);
        double deviation = 0;
        for (const Sample& sample : _history) {
            const double difference = secondsBetween(_first.time, sample.time) / seconds -
                                      _work(_first, sample, candidate) / all;
            deviation += difference * difference;
        }
        if (deviation < least * kBetter) {
            chosen = candidate;
            least = deviation;
        }
    }
    return chosen;
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

double ControlProgressMeter::_shareMoved() const
{
    // What lies at a place makes room unless its turn has come before: with the share x done, a
    // block still does so with the probability 1 - x. The integral over x is what has moved.
    const double done = _exactPercent() / 100;
    return (done + _workload.crowding * (done - done * done / 2)) / (1 + _workload.crowding / 2);
}

std::optional<double> ControlProgressMeter::_secondsLeft(Clock::time_point now) const
{
    const double share = _shareMoved();
    if (_percent == 100) {
        return 0;
    }
    if (_moves == 0 || share < kLeastShare) {
        return std::nullopt;
    }
    const double ratio = (1 - share) / share;
    // Files in many pieces may come first or last: the pieces left are those not yet seen, but no
    // more of them than there were so far.
    const double allMoves = static_cast<double>(_workload.extents) * (1 + _workload.crowding / 2);
    const auto moves = static_cast<double>(_moves);
    const double movesLeft = std::clamp(allMoves - moves, 0.0, moves * ratio);
    const Sample sample{.time = now, .blocks = _blocks, .moves = _moves};
    const double since = secondsBetween(_first.time, now);
    const double bytesPerMove = _bytesPerMove(sample);
    const double all = _work({}, sample, bytesPerMove);
    const double done = _work(_first, sample, bytesPerMove);
    const double left =
        static_cast<double>(_blocks) * _blockSize * ratio + movesLeft * bytesPerMove;
    if (since <= 0 || done < kLeastShare * all) {
        return secondsBetween(_begin, now) * left / all;
    }
    return since * left / done;
}

ControlProgress ControlProgressMeter::progress(Clock::time_point now) const
{
    ControlProgress progress;
    progress.percent = _percent;
    progress.movedBlocks = _blocks;
    progress.movedBytes = _blocks * _blockSize;
    progress.elapsed = secondsBetween(_begin, now);
    progress.secondsLeft = _secondsLeft(now);
    if (!_samples.empty()) {
        // Until the window is full the rate is that since the beginning.
        const double since = secondsBetween(_samples.front().time, now);
        const bool isFull = progress.elapsed > kRateWindow && since > 0;
        const uint64_t blocks = _blocks - (isFull ? _samples.front().blocks : 0);
        const double seconds = isFull ? since : progress.elapsed;
        progress.bytesPerSecond =
            seconds > 0 ? static_cast<double>(blocks * _blockSize) / seconds : 0;
    }
    return progress;
}

ControlWorkload workloadOf(const ControlFigures& figures, ControlJob job)
{
    ControlWorkload workload{.crowding = 0, .extents = figures.fragmentation.extents};
    if (job == ControlJob::kCompact) {
        return workload;
    }
    // The files' data will lie at the front.
    uint64_t place = 0;
    uint64_t inUse = 0;
    const size_t cells = std::min<size_t>(kCrowdingCells, figures.totalBlocks);
    for (const ControlKindCounts& cell : figures.map.cells(cells)) {
        if (place >= figures.fileBlocks) {
            break;
        }
        const uint64_t files = cell.of(ControlKind::kUsed) + cell.of(ControlKind::kFragmented);
        place += files + cell.of(ControlKind::kFree);
        inUse += files;
    }
    workload.crowding = place == 0 ? 0 : static_cast<double>(inUse) / static_cast<double>(place);
    return workload;
}
