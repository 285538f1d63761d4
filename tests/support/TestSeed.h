#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>

/** The seed of a test's random operations: printed, and given back by VZDEFRAG_TEST_SEED. */
[[nodiscard]] inline uint32_t testSeed()
{
    const char* const given = std::getenv("VZDEFRAG_TEST_SEED");
    const uint32_t seed = given != nullptr ? static_cast<uint32_t>(std::strtoul(given, nullptr, 10))
                                           : std::random_device{}();
    std::cout << "VZDEFRAG_TEST_SEED=" << seed << std::endl;
    return seed;
}
