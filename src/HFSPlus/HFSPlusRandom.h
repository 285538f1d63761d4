#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

/** Random 32-bit words from the R250 shift register: x[n] = x[n-103] ^ x[n-250].
 *
 *  Cheap and good enough for drawing the levels of skip lists. Not locked: one thread at a time.
 */
class HFSPlusRandom {
public:
    explicit HFSPlusRandom(uint32_t seed);

    [[nodiscard]] uint32_t next();

    /** The generator of the process, seeded from the monotonic clock when first asked for. A run
     *  is made repeatable by assigning another to it. */
    [[nodiscard]] static HFSPlusRandom& sharedRandom();

private:
    static constexpr size_t kWordCount = 250;

    void _makeWordsIndependent();

    std::array<uint32_t, kWordCount> _words = {};
    size_t _index = 0;  // the oldest word, which the next draw replaces
};
