#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "ControlRunDisplay.h"

/** What a run has to do beside moving so many blocks. */
struct ControlWorkload {
    /** The share of the place to be filled where data lie that have to make room first: moves that
     *  the percentage leaves out.
     */
    double crowding = 0;
    uint64_t extents = 0;  // of all files; each is a piece to move
};

/** What a run does on a volume with @p figures: COMPACT begins where there is room. */
[[nodiscard]] ControlWorkload workloadOf(const ControlFigures& figures, ControlJob job);

/** Makes percent, rate and time left of the moves that a run reports. */
class ControlProgressMeter {
public:
    using Clock = std::chrono::steady_clock;

    /** A run that begins at @p begin on a volume with blocks of @p blockSize bytes. */
    ControlProgressMeter(uint32_t blockSize, const ControlWorkload& workload,
                         Clock::time_point begin);

    /** @p count blocks have moved, and vzdefrag says that @p percent are done. */
    void addMove(int percent, uint32_t count, Clock::time_point now);
    /** The run has come to its end. */
    void finish();

    [[nodiscard]] int percent() const { return _percent; }
    [[nodiscard]] ControlProgress progress(Clock::time_point now) const;

private:
    /** What was done at a time. */
    struct Sample {
        Clock::time_point time;
        uint64_t blocks = 0;
        uint64_t moves = 0;
    };

    [[nodiscard]] double _exactPercent() const;
    /** The share of all blocks that have moved, those that made room included. */
    [[nodiscard]] double _shareMoved() const;
    void _remember(const Sample& sample);
    /** What a move costs beside its bytes, in bytes, as the run so far tells. */
    [[nodiscard]] double _bytesPerMove(const Sample& now) const;
    /** The work from @p begin to @p end in bytes, with @p bytesPerMove more for each move. */
    [[nodiscard]] double _work(const Sample& begin, const Sample& end, double bytesPerMove) const;
    [[nodiscard]] std::optional<double> _secondsLeft(Clock::time_point now) const;

    uint32_t _blockSize;
    ControlWorkload _workload;
    Clock::time_point _begin;
    int _percent = 0;
    uint64_t _blocks = 0;
    uint64_t _moves = 0;
    uint64_t _blocksAtPercent = 0;  // moved when the percentage last rose
    Clock::time_point _firstMove;
    Sample _first;  // after the first batch of moves: before it the run was being prepared
    std::vector<Sample> _history;  // of the whole run since, about evenly spaced
    double _historyDistance;       // seconds
    std::deque<Sample> _samples;   // of the last seconds, the oldest first
};
