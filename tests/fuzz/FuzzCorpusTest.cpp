#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/FuzzRun.h"

// Inputs that once found something, or that reach what others do not.

namespace {

std::vector<std::filesystem::path> inputsOf(const std::string& target)
{
    std::vector<std::filesystem::path> paths;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::string(VZ_FUZZ_CORPUS_DIR "/") + target)) {
        paths.push_back(entry.path());
    }
    std::ranges::sort(paths);
    return paths;
}

void replay(const std::string& name, FuzzTarget target)
{
    const std::vector<std::filesystem::path> paths = inputsOf(name);
    EXPECT_GT(paths.size(), 10U);
    for (const std::filesystem::path& path : paths) {
        std::ifstream file(path, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
        const std::vector<uint8_t> input(bytes.begin(), bytes.end());

        EXPECT_EQ(runFuzzInput(target, input), "") << path;
    }
}

}  // namespace

TEST(FuzzCorpus, EveryKeptInputOfTheReportsDoesNoHarm)
{
    replay("reading", FuzzTarget::kReading);
}

TEST(FuzzCorpus, EveryKeptInputOfDefragDoesNoHarm)
{
    replay("defrag", FuzzTarget::kDefrag);
}

TEST(FuzzCorpus, EveryKeptInputOfCompactDoesNoHarm)
{
    replay("compact", FuzzTarget::kCompact);
}

TEST(FuzzCorpus, EveryKeptInputOnSampleVolumesDoesNoHarm)
{
    replay("samples", FuzzTarget::kSamples);
}
