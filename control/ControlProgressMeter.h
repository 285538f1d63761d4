#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>

#include "ControlRunDisplay.h"

/** Makes percent, rate and time left of the moves that a run reports. */
class ControlProgressMeter {
public:
    using Clock = std::chrono::steady_clock;

    /** A run that begins at @p begin on a volume with blocks of @p blockSize bytes. */
    ControlProgressMeter(uint32_t blockSize, Clock::time_point begin);

    /** @p count blocks have moved, and vzdefrag says that @p percent are done. */
    void addMove(int percent, uint32_t count, Clock::time_point now);
    /** The run has come to its end. */
    void finish();

    [[nodiscard]] ControlProgress progress(Clock::time_point now) const;

private:
    /** What was done at a time. */
    struct Sample {
        Clock::time_point time;
        uint64_t blocks = 0;
        double percent = 0;
    };

    [[nodiscard]] double _exactPercent() const;
    [[nodiscard]] std::optional<double> _secondsLeft(Clock::time_point now) const;

    uint32_t _blockSize;
    Clock::time_point _begin;
    int _percent = 0;
    uint64_t _blocks = 0;
    uint64_t _blocksAtPercent = 0;  // moved when the percentage last rose
    std::optional<Sample> _first;   // after the first moves: what came before was preparation
    std::deque<Sample> _recent;     // of the last seconds, the oldest first
};
