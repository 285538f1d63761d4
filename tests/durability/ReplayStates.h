#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "durability/ReplayRun.h"
#include "support/CrashStates.h"

/** One run that was recorded, ready to be cut off anywhere. */
struct ReplayCase {
    ReplayVolume volume;
    std::string name;  // of the volume and the command
    ReplayRun run;
    CrashStates states;
    ReplayExpectation expected;
};

/** How many states were judged, and what was found: one line about it when it goes. */
class ReplayCount {
public:
    /** @p what is for that line. */
    explicit ReplayCount(std::string what) : _what(std::move(what)) {}
    ReplayCount(const ReplayCount&) = delete;
    ReplayCount& operator=(const ReplayCount&) = delete;
    ~ReplayCount();

    /** Counts a state with its fault, which is empty where all is as it ought to be. The first few
     *  faults are printed. */
    void add(const ReplayCase& given, const std::string& state, const std::string& fault);

    [[nodiscard]] uint64_t states() const { return _states; }
    [[nodiscard]] uint64_t lost() const { return _lost; }

private:
    std::string _what;
    uint64_t _states = 0;
    uint64_t _lost = 0;
};

/** Judges the @p states states of one run that @p seed chooses. */
using ReplayJudge = std::function<void(const ReplayCase& given, uint64_t states, uint64_t seed)>;

/** Records DEFRAG, COMPACT and both on all volumes, then on others, until so many states were
 *  judged.
 *
 *  VZDEFRAG_TEST_ROUNDS says how many states, VZDEFRAG_TEST_SEED which ones; @p quickStates
 *  otherwise.
 */
void forEachReplay(uint64_t quickStates, bool hasRollbackFile, const ReplayCount& count,
                   const ReplayJudge& judge);

/** Hands out @p states of the places from 0 to @p last, evenly spread; all where there are fewer.
 */
void forPrefixes(uint64_t last, uint64_t states, uint64_t seed,
                 const std::function<void(uint64_t place)>& visit);
