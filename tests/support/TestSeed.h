#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>

/** The number that environment variable @p name gives, else @p otherwise. */
[[nodiscard]] inline uint32_t testNumber(const char* name, uint32_t otherwise)
{
    const char* const given = std::getenv(name);
    return given != nullptr ? static_cast<uint32_t>(std::strtoul(given, nullptr, 10)) : otherwise;
}

/** The seed of a test's random operations: printed, and given back by VZDEFRAG_TEST_SEED. */
[[nodiscard]] inline uint32_t testSeed(uint32_t otherwise = std::random_device{}())
{
    const uint32_t seed = testNumber("VZDEFRAG_TEST_SEED", otherwise);
    std::cout << "VZDEFRAG_TEST_SEED=" << seed << std::endl;
    return seed;
}

/** How many rounds a random test does: VZDEFRAG_TEST_ROUNDS for a long hunt, else @p quick. */
[[nodiscard]] inline uint32_t testRounds(uint32_t quick)
{
    return testNumber("VZDEFRAG_TEST_ROUNDS", quick);
}
