#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

/** Waits for input, signals and wake-ups in one place.
 *
 *  wakeUp() may be called by any thread; everything else belongs to the one that waits.
 */
class PlatformRunLoop {
public:
    /** Why a wait ended. */
    struct Turn {
        bool inputReadable = false;  // end of input counts as readable
        std::vector<int> signals;    // in the order in which the system delivers them
    };

    PlatformRunLoop() = default;
    PlatformRunLoop(const PlatformRunLoop&) = delete;
    PlatformRunLoop& operator=(const PlatformRunLoop&) = delete;
    virtual ~PlatformRunLoop() = default;

    /** Turns @p signal into ordinary input of the loop. Returns 0 or an errno value. */
    [[nodiscard]] virtual int watchSignal(int signal) = 0;

    /** Whether input ends a wait; on at first. */
    virtual void setInputWatched(bool watched) = 0;

    /** Ends the wait in progress or the next one; calls made before it starts count once. */
    virtual void wakeUp() = 0;

    /** Waits without limit for the next turn. Returns 0 or an errno value. */
    [[nodiscard]] virtual int wait(Turn& turn) = 0;

    /** Reads what has arrived, without waiting.
     *
     *  Returns the number of bytes, 0 at the end of input, or a negative errno value: -EAGAIN
     *  when nothing has arrived.
     */
    [[nodiscard]] virtual int64_t readInput(void* buffer, size_t nbyte) = 0;
};
