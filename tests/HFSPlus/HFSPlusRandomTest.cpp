#include "HFSPlus/HFSPlusRandom.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <vector>

namespace {

/** The same sequence from its definition, with the whole history kept. */
std::vector<uint32_t> sequenceFromDefinition(uint32_t seed, size_t count)
{
    constexpr size_t kWords = 250;
    std::minstd_rand0 filler(seed);
    std::vector<uint32_t> history(kWords);
    for (uint32_t& word : history) {
        word = static_cast<uint32_t>(filler());
    }
    for (uint32_t& word : history) {
        word |= filler() > 0x40000000 ? 1U << 31 : 0U;
    }
    for (uint32_t row = 0; row < 32; ++row) {
        const uint32_t leading = 31 - row;
        uint32_t& word = history[3 + 7 * row];
        word &= static_cast<uint32_t>((uint64_t{1} << (leading + 1)) - 1);
        word |= 1U << leading;
    }
    for (size_t n = kWords; n < kWords + count; ++n) {
        history.push_back(history[n - 103] ^ history[n - 250]);
    }
    history.erase(history.begin(), history.begin() + kWords);
    return history;
}

std::vector<uint32_t> drawn(HFSPlusRandom random, size_t count)
{
    std::vector<uint32_t> values(count);
    std::ranges::generate(values, [&random] { return random.next(); });
    return values;
}

}  // namespace

TEST(HFSPlusRandom, DrawsTheSequenceOfItsDefinitionThroughSeveralTurnsOfTheCursor)
{
    for (const uint32_t seed : {1U, 42U, 0x7FFFFFFEU}) {
        EXPECT_EQ(drawn(HFSPlusRandom(seed), 2000), sequenceFromDefinition(seed, 2000)) << seed;
    }
}

TEST(HFSPlusRandom, SeedsThatTheFillerCannotUseStillGiveChangingWords)
{
    // 0 and the modulus of the filler would hold it at 0.
    for (const uint32_t seed : {0U, 0x7FFFFFFFU, 0xFFFFFFFEU}) {
        EXPECT_EQ(drawn(HFSPlusRandom(seed), 500), sequenceFromDefinition(1, 500)) << seed;
    }
}

TEST(HFSPlusRandom, HalfOfTheWordsLieBelowTheMiddle)
{
    HFSPlusRandom random(7);
    constexpr int kDraws = 200000;

    int below = 0;
    for (int draw = 0; draw < kDraws; ++draw) {
        below += random.next() < 0x7FFFFFFF ? 1 : 0;
    }

    EXPECT_NEAR(below, kDraws / 2, kDraws / 100);
}

TEST(HFSPlusRandom, TheSharedGeneratorIsOneAndCanBeMadeRepeatable)
{
    HFSPlusRandom& shared = HFSPlusRandom::sharedRandom();

    shared = HFSPlusRandom(99);

    EXPECT_EQ(&HFSPlusRandom::sharedRandom(), &shared);
    EXPECT_EQ(HFSPlusRandom::sharedRandom().next(), HFSPlusRandom(99).next());
}
