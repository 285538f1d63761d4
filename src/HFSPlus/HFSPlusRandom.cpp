#include "HFSPlus/HFSPlusRandom.h"

#include "Platform/PlatformSystem.h"

namespace {

constexpr size_t kTapDistance = 103;
constexpr size_t kFirstIndependentWord = 3;
constexpr size_t kIndependentWordStep = 7;
constexpr uint32_t kHighBit = 0x80000000;

/** The minimal standard generator of Park and Miller; values from 1 to 2^31 - 2. */
class MinimalStandard {
public:
    explicit MinimalStandard(uint32_t seed) : _value(static_cast<int32_t>(seed % kModulus))
    {
        // From 0 the sequence would never leave 0.
        if (_value == 0) {
            _value = 1;
        }
    }

    uint32_t next()
    {
        // Schrage's split keeps every product within 31 bits.
        _value = kMultiplier * (_value % kQuotient) - kRemainder * (_value / kQuotient);
        if (_value <= 0) {
            _value += kModulus;
        }
        return static_cast<uint32_t>(_value);
    }

private:
    static constexpr int32_t kModulus = 0x7FFFFFFF;
    static constexpr int32_t kMultiplier = 16807;
    static constexpr int32_t kQuotient = 127773;
    static constexpr int32_t kRemainder = 2836;

    int32_t _value;
};

uint32_t seedFromClock()
{
    constexpr double kNanosecondsPerSecond = 1e9;
    const auto now = static_cast<uint64_t>(PlatformMonotonicSeconds() * kNanosecondsPerSecond);
    return static_cast<uint32_t>(now ^ (now >> 32));
}

}  // namespace

HFSPlusRandom::HFSPlusRandom(uint32_t seed)
{
    MinimalStandard filler(seed);
    for (uint32_t& word : _words) {
        word = filler.next();
    }
    // The filler gives 31 bits; half the words get the top one.
    for (uint32_t& word : _words) {
        if (filler.next() > 0x40000000) {
            word |= kHighBit;
        }
    }
    _makeWordsIndependent();
}

void HFSPlusRandom::_makeWordsIndependent()
{
    // A triangle of 32 words, each with its own leading bit: whatever the seed, no bit position
    // can be a combination of the others, which would shorten the period.
    uint32_t mask = 0xFFFFFFFF;
    uint32_t bit = kHighBit;
    for (size_t index = kFirstIndependentWord; bit != 0; index += kIndependentWordStep) {
        _words[index] = (_words[index] & mask) | bit;
        mask >>= 1;
        bit >>= 1;
    }
}

uint32_t HFSPlusRandom::next()
{
    const size_t tap =
        _index < kTapDistance ? _index + kWordCount - kTapDistance : _index - kTapDistance;
    _words[_index] ^= _words[tap];
    const uint32_t value = _words[_index];
    _index = _index + 1 < kWordCount ? _index + 1 : 0;
    return value;
}

HFSPlusRandom& HFSPlusRandom::sharedRandom()
{
    static HFSPlusRandom shared(seedFromClock());
    return shared;
}
