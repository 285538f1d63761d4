#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Platform/TemporaryFolder.h"
#include "protocol/DefragSession.h"
#include "protocol/VolumeJudgement.h"

namespace {

// The checked build keeps freed memory for a while, so it says little about the program's need.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint64_t kMemoryAllowed = uint64_t{1} << 30;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr uint64_t kMemoryAllowed = uint64_t{1} << 30;
#else
constexpr uint64_t kMemoryAllowed = uint64_t{200} << 20;
#endif
#else
constexpr uint64_t kMemoryAllowed = uint64_t{200} << 20;
#endif

/** A copy of one volume that a file-system driver filled. */
class SampleVolumes : public testing::TestWithParam<const char*> {
protected:
    SampleVolumes() { copyImage(_sample() + ".img", _image); }

    /** Expects what the manifest says of every fork. */
    void expectManifest() const
    {
        const auto manifest = loadManifest(_sample() + ".txt");
        ASSERT_TRUE(manifest.has_value());
        ASSERT_GT(manifest->size(), 300U);
        const HFSPlusForkHashes found = readForkHashes(_image);
        for (const auto& [fork, hash] : *manifest) {
            ASSERT_TRUE(found.contains(fork)) << fork.first << " " << int{fork.second};
            EXPECT_EQ(found.at(fork), hash) << fork.first << " " << int{fork.second};
        }
    }

    [[nodiscard]] std::string _sample() const
    {
        return std::string(VZ_SAMPLE_VOLUMES_DIR) + "/" + GetParam();
    }

    TemporaryFolder _folder;
    const std::string _image = _folder.path("volume.img");
};

TEST_P(SampleVolumes, DefragLeavesEveryForkInOnePieceAndEveryByteAsItWas)
{
    const VolumeState before = readVolumeStateWithoutHashes(_image);
    ASSERT_TRUE(before.check.consistent) << before.check.description();
    ASSERT_GT(before.fragments.size(), 20U);

    const DefragTranscript run = defragImage(_image);

    EXPECT_EQ(run.errors(), std::vector<std::string>());
    EXPECT_GT(run.moves().size(), before.fragments.size());
    EXPECT_LT(run.peakMemory, kMemoryAllowed);
    const VolumeState after = readVolumeStateWithoutHashes(_image);
    expectSoundAsBefore(_image, after, before);
    EXPECT_EQ(after.fragments, std::vector<HFSPlusCheckedFork>());
    expectManifest();

    const DefragTranscript again = defragImage(_image);

    EXPECT_EQ(again.lines, (std::vector<std::string>{"DEFRAG,START", "DEFRAG,DONE"}));
    EXPECT_EQ(readVolumeStateWithoutHashes(_image).check.forks, after.check.forks);
}

TEST_P(SampleVolumes, AQuietDefragDoesTheSameAndPrintsNoMove)
{
    const VolumeState before = readVolumeStateWithoutHashes(_image);

    const DefragTranscript run = defragImage(_image, "DEFRAG -q");

    EXPECT_EQ(run.errors(), std::vector<std::string>());
    EXPECT_EQ(run.moves().size(), 0U);
    const VolumeState after = readVolumeStateWithoutHashes(_image);
    expectSoundAsBefore(_image, after, before);
    EXPECT_EQ(after.fragments, std::vector<HFSPlusCheckedFork>());
    expectManifest();
}

TEST_P(SampleVolumes, CompactGathersTheFreeSpaceAndKeepsTheOrderAndEveryByte)
{
    const VolumeState before = readVolumeStateWithoutHashes(_image);
    // One of them was filled without a gap.
    ASSERT_EQ(before.gaps.empty(), std::string(GetParam()) == "blk1k");

    const DefragTranscript run = defragImage(_image, "COMPACT");

    EXPECT_EQ(run.errors(), std::vector<std::string>());
    EXPECT_EQ(run.moves().empty(), before.gaps.empty());
    EXPECT_LT(run.peakMemory, kMemoryAllowed);
    const VolumeState after = readVolumeStateWithoutHashes(_image);
    expectSoundAsBefore(_image, after, before);
    EXPECT_EQ(after.order, before.order);
    EXPECT_EQ(after.gaps, std::vector<HFSPlusCheckedExtent>());
    expectManifest();

    const DefragTranscript again = defragImage(_image, "COMPACT");

    EXPECT_EQ(again.lines, (std::vector<std::string>{"COMPACT,START", "COMPACT,DONE"}));
    EXPECT_EQ(readVolumeStateWithoutHashes(_image).check.forks, after.check.forks);
}

INSTANTIATE_TEST_SUITE_P(Program, SampleVolumes,
                         testing::Values("plain4k", "blk1k", "journaled", "attrs"),
                         [](const auto& instance) { return std::string(instance.param); });

}  // namespace
