#include "support/HFSPlusVolumeChecker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>

#include "support/HFSPlusVolumeCheckerSample.h"
#include "support/MemoryBlockDevice.h"

namespace {

constexpr uint32_t kExtentsFile = HFSPlusCheckSample::kExtentsFile;
constexpr uint32_t kCatalogFile = HFSPlusCheckSample::kCatalogFile;
constexpr uint32_t kAttributesFile = HFSPlusCheckSample::kAttributesFile;

/** A reader that fails from the nth read on. */
class FailingReader final : public HFSPlusCheckReader {
public:
    FailingReader(HFSPlusCheckReader& reader, size_t readCount) : _reader(reader), _left(readCount)
    {
    }

    [[nodiscard]] bool read(void* buffer, size_t nbyte, uint64_t offset) override
    {
        if (_left == 0) {
            _hasFailed = true;
            return false;
        }
        --_left;
        return _reader.read(buffer, nbyte, offset);
    }
    [[nodiscard]] uint64_t size() const override { return _reader.size(); }
    [[nodiscard]] bool hasFailed() const { return _hasFailed; }

private:
    HFSPlusCheckReader& _reader;
    size_t _left;
    bool _hasFailed = false;
};

}  // namespace

class SampleVolume : public testing::TestWithParam<const char*> {};

TEST_P(SampleVolume, IsConsistent)
{
    HFSPlusCheckSample volume(GetParam());

    EXPECT_TRUE(volume.isSound()) << volume.sound().description();
    EXPECT_EQ(volume.sound().catalog.treeDepth, 3U);
    EXPECT_GT(volume.sound().extents.leafRecords, 100U);
}

TEST_P(SampleVolume, HashesAreThoseOfItsManifest)
{
    HFSPlusCheckSample volume(GetParam());
    const auto wanted =
        loadManifest(std::string(VZ_SAMPLE_VOLUMES_DIR) + "/" + GetParam() + ".txt");
    ASSERT_TRUE(wanted.has_value());
    ASSERT_GT(wanted->size(), 300U);

    const HFSPlusForkHashes found = hashForks(volume.reader(), volume.sound());

    for (const auto& [fork, hash] : *wanted) {
        ASSERT_TRUE(found.contains(fork)) << fork.first << " " << int{fork.second};
        EXPECT_EQ(found.at(fork), hash) << fork.first << " " << int{fork.second};
    }
}

TEST_P(SampleVolume, IsSoundForTheFormatsOwnChecker)
{
    if (std::system("command -v fsck.hfsplus >/dev/null 2>&1") != 0) {
        std::fprintf(stderr, "fsck.hfsplus is not installed: only our own verdict counts.\n");
        return;
    }
    const std::string image = std::string(VZ_SAMPLE_VOLUMES_DIR) + "/" + GetParam() + ".img";

    EXPECT_EQ(std::system(("fsck.hfsplus -fn '" + image + "' >/dev/null 2>&1").c_str()), 0);
}

INSTANTIATE_TEST_SUITE_P(HFSPlusVolumeChecker, SampleVolume,
                         testing::Values("plain4k", "blk1k", "journaled", "attrs"),
                         [](const auto& instance) { return std::string(instance.param); });

TEST(HFSPlusVolumeChecker, AManifestThatIsNotWholeIsNotLoaded)
{
    std::ifstream whole(std::string(VZ_SAMPLE_VOLUMES_DIR) + "/attrs.txt");
    const std::string path = testing::TempDir() + "/" + "HFSPlusVolumeCheckerTest.manifest";
    std::ofstream cut(path);
    std::string line;
    size_t count = 0;
    while (std::getline(whole, line)) {
        // One line in the middle is gone.
        if (++count != 300) {
            cut << line << "\n";
        }
    }
    cut.close();
    ASSERT_GT(count, 300U);

    EXPECT_FALSE(loadManifest(path).has_value());
    EXPECT_FALSE(loadManifest(path + ".missing").has_value());
    std::remove(path.c_str());
}

TEST(HFSPlusVolumeChecker, AChangedByteOfAFileChangesItsHashAlone)
{
    HFSPlusCheckSample volume("attrs");
    const HFSPlusForkHashes before = hashForks(volume.reader(), volume.sound());
    const auto fork = std::find_if(volume.sound().forks.begin(), volume.sound().forks.end(),
                                   [](const auto& candidate) {
                                       return !candidate.isSpecial && candidate.extents.size() > 20;
                                   });
    ASSERT_NE(fork, volume.sound().forks.end());
    const uint64_t byte = uint64_t{fork->extents[20].startBlock} * volume.sound().blockSize;

    volume.change({0, byte}, 1, 1);
    HFSPlusForkHashes after = hashForks(volume.reader(), volume.sound());

    EXPECT_NE(after.at({fork->cnid, fork->forkType}), before.at({fork->cnid, fork->forkType}));
    after[{fork->cnid, fork->forkType}] = before.at({fork->cnid, fork->forkType});
    EXPECT_EQ(after, before);
}

TEST(HFSPlusVolumeChecker, HashingBlocksSeesTheSlackThatHashingBytesDoesNot)
{
    HFSPlusCheckSample volume("attrs");
    const auto fork = std::find_if(
        volume.sound().forks.begin(), volume.sound().forks.end(), [&](const auto& candidate) {
            return !candidate.isSpecial && candidate.extents.size() == 1 &&
                   candidate.logicalSize % volume.sound().blockSize != 0;
        });
    ASSERT_NE(fork, volume.sound().forks.end());
    const std::string bytesHash = hashFork(volume.reader(), volume.sound(), *fork);
    const std::string blocksHash = hashFork(volume.reader(), volume.sound(), *fork, true);
    const uint64_t lastByte = uint64_t{fork->extents[0].startBlock + fork->extents[0].blockCount} *
                                  volume.sound().blockSize -
                              1;

    volume.change({0, lastByte}, 1, 1);

    EXPECT_EQ(hashFork(volume.reader(), volume.sound(), *fork), bytesHash);
    EXPECT_NE(hashFork(volume.reader(), volume.sound(), *fork, true), blocksHash);
}

TEST(HFSPlusVolumeChecker, WithoutCollectingForksTheVerdictIsTheSame)
{
    HFSPlusCheckSample volume("blk1k");

    const HFSPlusCheckResult result = checkHFSPlusVolume(volume.reader(), {.collectForks = false});

    EXPECT_TRUE(result.consistent) << result.description();
    EXPECT_TRUE(result.forks.empty());
    EXPECT_EQ(result.freeBlocks, volume.sound().freeBlocks);
}

TEST(HFSPlusVolumeChecker, ADeviceOfLargeBlocksIsReadLikeAFile)
{
    constexpr uint32_t kDeviceBlockSize = 4096;
    constexpr size_t kSize = size_t{16} * kDeviceBlockSize;
    MemoryBlockDevice device(kSize, kDeviceBlockSize);
    std::vector<uint8_t> bytes(kSize);
    for (size_t index = 0; index < bytes.size(); ++index) {
        bytes[index] = static_cast<uint8_t>(index * 31 / 7);
    }
    ASSERT_EQ(device.writeAt(bytes.data(), bytes.size(), 0), static_cast<int64_t>(kSize));
    HFSPlusCheckDeviceReader reader(device);
    ASSERT_EQ(reader.size(), kSize);

    for (const auto& [offset, nbyte] : {std::pair<size_t, size_t>{0, kSize},
                                        {1, 1},
                                        {4095, 2},
                                        {1024, 512},
                                        {5000, 9000},
                                        {kSize - 1, 1}}) {
        std::vector<uint8_t> found(nbyte);
        ASSERT_TRUE(reader.read(found.data(), nbyte, offset));
        EXPECT_TRUE(std::equal(found.begin(), found.end(),
                               bytes.begin() + static_cast<std::ptrdiff_t>(offset)));
    }
    uint8_t byte = 0;
    EXPECT_FALSE(reader.read(&byte, 1, kSize));
    EXPECT_FALSE(reader.read(&byte, 1, UINT64_MAX));
}

TEST(HFSPlusVolumeChecker, EndsWithProblemsWhicheverReadFails)
{
    HFSPlusCheckSample volume("attrs");
    ASSERT_TRUE(volume.isSound());

    // Later failures hit the same loops again, so the distance grows.
    bool failed = true;
    for (size_t count = 0; failed; count += 1 + count / 16) {
        FailingReader reader(volume.reader(), count);
        const HFSPlusCheckResult result = checkHFSPlusVolume(reader);
        failed = reader.hasFailed();
        EXPECT_NE(result.consistent, failed) << "failing after " << count << " reads";
    }
}

TEST(HFSPlusVolumeChecker, EndsWithAVerdictWhateverBytesTheMetadataHold)
{
    HFSPlusCheckSample volume("attrs");
    ASSERT_TRUE(volume.isSound());
    constexpr std::array<uint8_t, 6> kBytes = {0x00, 0xFF, 0x01, 0x7F, 0x80, 0x10};

    size_t refusedCount = 0;
    for (uint32_t seed = 1; seed <= 150; ++seed) {
        std::mt19937 engine(seed);
        const auto random = [&engine] { return static_cast<uint32_t>(engine()); };
        volume.reader().clear();
        for (size_t hit = 0; hit < 24; ++hit) {
            const uint8_t byte = kBytes[random() % kBytes.size()];
            const uint32_t file =
                std::array<uint32_t, 4>{0, kExtentsFile, kCatalogFile, kAttributesFile}[hit % 4];
            if (file == 0) {
                // The identity and the sizes stay, or nothing else would be looked at.
                volume.put(HFSPlusCheckSample::headerField(112 + random() % 400), 1, byte);
                continue;
            }
            const uint32_t nodeSize = volume.tree(file).nodeSize;
            const uint32_t used = volume.tree(file).totalNodes - volume.tree(file).freeNodes;
            const uint64_t inNode =
                random() % 2 == 0 ? random() % 64 : nodeSize - 1 - random() % 64;
            volume.put(volume.node(file, random() % used) + inNode, 1, byte);
        }
        const HFSPlusCheckResult result = volume.check();
        refusedCount += result.consistent ? 0 : 1;
        EXPECT_EQ(result.consistent, result.problems.empty()) << "seed " << seed;
        EXPECT_LE(result.problems.size(), 201U) << "seed " << seed;
    }
    EXPECT_EQ(refusedCount, 150U);
}
