#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ControlFigures.h"

/** The job that vzdefrag is asked for. */
enum class ControlJob { kDefrag, kCompact };

/** One move of blocks that vzdefrag reports. */
struct ControlMove {
    uint32_t source = 0;
    uint32_t destination = 0;
    uint32_t count = 0;
};

/** Where a run stands. */
struct ControlProgress {
    int percent = 0;  // 0 to 100, never less than before
    uint64_t movedBlocks = 0;
    uint64_t movedBytes = 0;
    double bytesPerSecond = 0;               // of the last seconds
    std::optional<double> secondsLeft = {};  // nothing while that cannot be told
    double elapsed = 0;                      // seconds since the run began
};

/** How a run ended. */
struct ControlRunEnd {
    bool isComplete = false;
    std::string message;  // why it ended early, for people; empty otherwise
    ControlProgress progress;
    const ControlFigures* after = nullptr;  // null when the volume could not be read again
};

/** Shows a run to somebody. Called on one thread, in this order: begin, the middle ones any number
 * of times, end.
 *
 *  Texts come as they are, with whatever names hold; each display escapes them for its output.
 */
class ControlRunDisplay {
public:
    virtual ~ControlRunDisplay() = default;

    virtual void runWillBegin(ControlJob job, const ControlFigures& before) = 0;
    /** A phase before or after the moves, such as "Hashing files"; @p percent where it is known. */
    virtual void phaseDidChange(const std::string& phase, std::optional<int> percent) = 0;
    virtual void blocksDidMove(const ControlMove& move) = 0;
    /** At least four times a second while the run goes on, and after each batch of moves. */
    virtual void progressDidChange(const ControlProgress& progress) = 0;
    /** The run was asked to stop; @p reason says by what and what it waits for. */
    virtual void runWillStop(const std::string& reason) = 0;
    /** A message meanwhile, for people. */
    virtual void showMessage(const std::string& message) = 0;
    virtual void runDidEnd(const ControlRunEnd& end) = 0;

    /** The terminal is ours no longer (Ctrl-Z) or again (fg). */
    virtual void willSuspend() {}
    virtual void didResume() {}
    /** The terminal has another size. */
    virtual void sizeDidChange() {}
};
