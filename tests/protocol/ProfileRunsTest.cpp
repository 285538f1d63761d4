#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "protocol/DefragSession.h"
#include "protocol/VolumeImage.h"
#include "protocol/VolumeJudgement.h"
#include "support/BootCachePlaylist.h"
#include "support/HFSPlusVolumeBuilder.h"

namespace {

constexpr uint64_t kBlock = 4096;  // bytes
constexpr uint32_t kBlocks = 100000;
constexpr uint32_t kPlaylistBlocks = 3;

/** Sixty files dealt out in pieces, every third an application, and a playlist of two of them. */
HFSPlusVolumeBuilder profiledVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(kBlock).totalBlocks(kBlocks);
    for (uint32_t file = 0; file < 60; ++file) {
        HFSPlusBuilderExtents extents;
        for (uint32_t piece = 0; piece < 12; ++piece) {
            extents.push_back({2000 + piece * 120 + file * 2, 1});
        }
        const std::string folder = file % 3 == 0 ? "/Applications/" : "/";
        builder.file(folder + "file" + std::to_string(100 + file), 100 + file).data(extents);
    }
    std::vector<PlaylistEntry> entries(500, {19000 * kBlock, kBlock, 1});
    entries[3] = {(2000 + 2 * 13) * kBlock, kBlock, 9};
    entries[4] = {(2000 + 2 * 41) * kBlock, kBlock, 8};
    addPlaylist(builder, playlistBytes(entries), {{4000, 1}, {4002, 2}});
    builder.file("/last", 700);
    return builder;
}

TEST(ProfileRuns, TheProgramLaysBothProfilesFirstAndEmptiesThePlaylist)
{
    HFSPlusVolumeBuilder builder = profiledVolume();
    const VolumeImage image(builder);
    const VolumeState before = readVolumeState(image.path());
    ASSERT_TRUE(before.check.consistent) << before.check.description();

    const DefragTranscript run = defragImage(image.path(), "DEFRAG --profile boot,app");

    EXPECT_EQ(run.errors(), std::vector<std::string>{});
    const VolumeState after = readVolumeState(image.path());
    EXPECT_TRUE(after.check.consistent) << after.check.description();
    EXPECT_TRUE(isAcceptedByFsck(image.path()));
    EXPECT_TRUE(after.fragments.empty());
    uint32_t expected = 1;  // behind the boot block
    std::vector<uint32_t> order = {100 + 41, 100 + 13};
    for (uint32_t file = 0; file < 60; file += 3) {
        order.push_back(100 + file);
    }
    for (const uint32_t cnid : order) {
        const HFSPlusCheckedFork& fork = *after.check.forkWithCNID(cnid);
        EXPECT_EQ(fork.extents, (std::vector<HFSPlusCheckedExtent>{{expected, 12}})) << cnid;
        expected += 12;
    }
    EXPECT_EQ(after.check.forkWithCNID(kPlaylistID)->logicalSize, 0U);
    EXPECT_EQ(after.check.forkWithCNID(kPlaylistID)->totalBlocks, 0U);
    EXPECT_EQ(after.check.freeBlocks, before.check.freeBlocks + kPlaylistBlocks);
    HFSPlusForkHashes unchanged = before.hashes;
    HFSPlusForkHashes now = after.hashes;
    unchanged.erase({kPlaylistID, uint8_t{0}});
    now.erase({kPlaylistID, uint8_t{0}});
    EXPECT_EQ(now, unchanged);
}

}  // namespace
