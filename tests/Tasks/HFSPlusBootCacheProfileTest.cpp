#include "Tasks/HFSPlusBootCacheProfile.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "HFSPlus/ForkList.h"
#include "Tasks/ProfileMaking.h"
#include "support/BootCachePlaylist.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"
#include "support/NothrowAllocations.h"

namespace {

constexpr uint64_t kBlock = 4096;  // bytes
constexpr uint64_t kMostBytes = 1048576;

using Profile = MadeProfile;

template <typename Volume>
Profile profileOf(Volume&& volume)
{
    return makeProfile<HFSPlusBootCacheProfile>(std::forward<Volume>(volume));
}

/** Files a to c in blocks 300, 400 and 500, c also with a resource fork in block 510. */
HFSPlusVolumeBuilder threeFiles()
{
    HFSPlusVolumeBuilder builder;
    builder.file("/a", 20).data({{300, 10}});
    builder.file("/b", 21).data({{400, 10}});
    builder.file("/c", 22).data({{500, 10}}).resource({{510, 4}});
    return builder;
}

Profile profileWith(const std::vector<PlaylistEntry>& entries,
                    HFSPlusVolumeBuilder builder = threeFiles())
{
    addPlaylist(builder, playlistBytes(entries));
    return profileOf(std::move(builder));
}

PlaylistEntry blocks(uint64_t start, uint64_t count, uint32_t group = 1)
{
    return {start * kBlock, count * kBlock, group};
}

}  // namespace

TEST(HFSPlusBootCacheProfile, APlaylistOfTheOtherByteOrderYieldsTheSameForks)
{
    const std::vector<PlaylistEntry> entries = {blocks(500, 4, 0x01020304), blocks(300, 2, 2)};
    HFSPlusVolumeBuilder swapped = threeFiles();
    addPlaylist(swapped, playlistBytes(entries, true));

    EXPECT_EQ(profileOf(swapped).forks, (ForkList{{20, 0}, {22, 0}}));
    EXPECT_EQ(profileWith(entries).forks, (ForkList{{20, 0}, {22, 0}}));
}

TEST(HFSPlusBootCacheProfile, APlaylistOfTwelveBytesIsMadeWithoutForks)
{
    const Profile profile = profileWith({});

    EXPECT_TRUE(profile.made);
    EXPECT_EQ(profile.forks, ForkList{});
    EXPECT_EQ(profile.error, "");
}

TEST(HFSPlusBootCacheProfile, SizesOutsideTheLimitsAreIgnoredAndNoError)
{
    for (const uint64_t size : {uint64_t{0}, uint64_t{11}, kMostBytes + 1, UINT64_MAX}) {
        HFSPlusVolumeBuilder builder = threeFiles();
        builder.file(kPlaylistPath, kPlaylistID).automaticData(257);
        builder.dataBeginning(playlistBytes({blocks(300, 1)}));
        builder.damage(damagedCatalogRecord(kPlaylistID, "dataFork.logicalSize", size));

        const Profile profile = profileOf(builder);

        EXPECT_FALSE(profile.made) << size;
        EXPECT_EQ(profile.error, "") << size;
    }
}

TEST(HFSPlusBootCacheProfile, APlaylistOfTheGreatestSizeIsRead)
{
    std::vector<PlaylistEntry> entries((kMostBytes - 12) / 20, blocks(400, 1));
    entries.back() = blocks(300, 1, 0);
    std::string bytes = playlistBytes(entries);
    bytes.resize(kMostBytes);
    HFSPlusVolumeBuilder builder = threeFiles();
    addPlaylist(builder, bytes);

    EXPECT_EQ(profileOf(builder).forks, (ForkList{{20, 0}, {21, 0}}));
}

TEST(HFSPlusBootCacheProfile, ACountThatTheFileCannotHoldIsIgnoredAndNoError)
{
    for (const uint32_t count : {2U, 0xFFFFFFFFU, 0x0CCCCCCDU}) {  // 20 times the last wraps
        std::string bytes = playlistBytes({blocks(300, 1)});
        setPlaylistNumber(bytes, 4, count);
        HFSPlusVolumeBuilder builder = threeFiles();
        addPlaylist(builder, bytes);

        const Profile profile = profileOf(builder);

        EXPECT_FALSE(profile.made) << count;
        EXPECT_EQ(profile.error, "") << count;
    }
}

TEST(HFSPlusBootCacheProfileDeathTest, AWrongMagicEndsTheProcessAndNamesTheFile)
{
    std::string bytes = playlistBytes({});
    setPlaylistNumber(bytes, 0, 0xA1B2C3D7);
    HFSPlusVolumeBuilder builder = threeFiles();
    addPlaylist(builder, bytes);
    const HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_DEATH(std::ignore = profileOf(*volume),
                 "PANIC: /private/var/db/BootCache.playlist begins with A1B2C3D7");
}

TEST(HFSPlusBootCacheProfile, ARangeThatBeginsAndEndsInsideBlocksCountsAllThatItTouches)
{
    HFSPlusVolumeBuilder builder;
    builder.file("/a", 20).data({{300, 1}});
    builder.file("/b", 21).data({{301, 1}});
    builder.file("/c", 22).data({{302, 1}});
    builder.file("/d", 23).data({{303, 1}});
    addPlaylist(builder, playlistBytes({{301 * kBlock - 1, kBlock + 2, 1}}));

    // Blocks 300 to 302; the entry is one and goes to the fork met last.
    EXPECT_EQ(profileOf(builder).forks, (ForkList{{22, 0}}));
}

TEST(HFSPlusBootCacheProfile, ARangeWithoutBytesTouchesABlockOnlyWhereItLiesInside)
{
    EXPECT_EQ(profileWith({{300 * kBlock, 0, 1}}).forks, ForkList{});
    EXPECT_EQ(profileWith({{300 * kBlock + 1, 0, 1}}).forks, (ForkList{{20, 0}}));
}

TEST(HFSPlusBootCacheProfile, LowerGroupsComeFirstAndWithinAGroupLowerBlocks)
{
    const Profile profile = profileWith(
        {blocks(500, 1, 2), blocks(300, 1, 2), blocks(510, 1, 1), blocks(400, 1, 0xFFFFFFFF)});

    EXPECT_EQ(profile.forks, (ForkList{{22, 0xFF}, {20, 0}, {22, 0}, {21, 0}}));
}

TEST(HFSPlusBootCacheProfile, AForkNamedByManyEntriesIsPresentOnceAtItsFirstPosition)
{
    HFSPlusVolumeBuilder builder = threeFiles();
    builder.file("/a", 20).data({{300, 5}, {320, 5}, {340, 5}});

    EXPECT_EQ(
        profileWith({blocks(340, 5, 2), blocks(320, 5, 4), blocks(300, 5, 3), blocks(400, 5, 3)},
                    builder)
            .forks,
        (ForkList{{20, 0}, {21, 0}}));
}

TEST(HFSPlusBootCacheProfile, AnEntryMeansTheForkWithAnExtentThatBeginsInIt)
{
    EXPECT_EQ(profileWith({blocks(301, 9)}).forks, ForkList{});
    EXPECT_EQ(profileWith({blocks(299, 2)}).forks, (ForkList{{20, 0}}));
    EXPECT_EQ(profileWith({blocks(299, 1)}).forks, ForkList{});
}

TEST(HFSPlusBootCacheProfile, ExtentsOfOverflowRecordsCountForBothForks)
{
    HFSPlusBuilderExtents data;
    HFSPlusBuilderExtents resource;
    for (uint32_t piece = 0; piece < 20; ++piece) {
        data.push_back({600 + 2 * piece, 1});
        resource.push_back({700 + 2 * piece, 1});
    }
    HFSPlusVolumeBuilder builder;
    builder.file("/pieces", 20).data(data).resource(resource);

    EXPECT_EQ(profileWith({blocks(636, 1, 2), blocks(738, 1, 1)}, builder).forks,
              (ForkList{{20, 0xFF}, {20, 0}}));
}

TEST(HFSPlusBootCacheProfile, AMissingOverflowRecordIsTheProfilesError)
{
    for (const uint8_t forkType : {uint8_t{0}, uint8_t{0xFF}}) {
        HFSPlusBuilderExtents extents;
        for (uint32_t piece = 0; piece < 20; ++piece) {
            extents.push_back({600 + 2 * piece, 1});
        }
        HFSPlusVolumeBuilder builder = threeFiles();
        builder.file("/pieces", 30);
        std::ignore = forkType == 0 ? builder.data(extents) : builder.resource(extents);
        builder.damage(damagedOverflowRecord(30, forkType, 16, "startBlock", 17));

        const Profile profile = profileWith({blocks(300, 1)}, builder);

        EXPECT_FALSE(profile.made);
        EXPECT_EQ(profile.error, "Overflow extent record missing.");
        EXPECT_EQ(profile.forks, ForkList{});
    }
}

TEST(HFSPlusBootCacheProfile, EntriesOutsideTheDataBlocksAreLeftOut)
{
    HFSPlusVolumeBuilder builder = threeFiles();
    const std::vector<PlaylistEntry> entries = {
        {0, 400 * kBlock, 1},                        // begins below the first data block
        blocks(1000, 1),                             // behind the last block
        {(uint64_t{1} << 44) + 300 * kBlock, 1, 1},  // block 300 in 32 bits
        {UINT64_MAX, UINT64_MAX, 1},
        {UINT64_MAX - 5, 10, 1},
    };

    const Profile profile = profileWith(entries, builder);

    EXPECT_TRUE(profile.made);
    EXPECT_EQ(profile.forks, ForkList{});
}

TEST(HFSPlusBootCacheProfile, LengthsThatLeaveTheVolumeEndWithIt)
{
    for (const uint64_t length : {UINT64_MAX, UINT64_MAX - 5000, (uint64_t{1} << 44) + kBlock}) {
        HFSPlusVolumeBuilder builder;
        builder.file("/last", 20).data({{990, 5}});

        EXPECT_EQ(profileWith({{900 * kBlock + 7, length, 1}}, builder).forks, (ForkList{{20, 0}}))
            << length;
    }
}

TEST(HFSPlusBootCacheProfile, OfOverlappingEntriesTheOneThatBeginsLastTakesTheFork)
{
    // The outer entry alone has the blocks behind the inner one.
    EXPECT_EQ(profileWith({blocks(290, 230, 1), blocks(395, 10, 2)}).forks,
              (ForkList{{22, 0xFF}, {21, 0}}));
    EXPECT_EQ(profileWith({blocks(395, 10, 2), blocks(290, 230, 1)}).forks,
              (ForkList{{22, 0xFF}, {21, 0}}));
}

TEST(HFSPlusBootCacheProfile, OfEntriesThatBeginTogetherTheLowestGroupTakesTheFork)
{
    EXPECT_EQ(
        profileWith({blocks(300, 1, 5), blocks(300, 1, 1), blocks(300, 9, 3), blocks(400, 1, 2)})
            .forks,
        (ForkList{{20, 0}, {21, 0}}));
}

TEST(HFSPlusBootCacheProfile, BadBlocksAndSpecialFilesAreNeverNamed)
{
    HFSPlusVolumeBuilder builder = threeFiles();
    builder.badBlocks({{600, 2}});
    builder.file("/catalog", 30).data({{650, 2}});
    builder.damage(damagedCatalogRecord(30, "fileID", 4));

    EXPECT_EQ(profileWith({blocks(600, 2), blocks(650, 2), blocks(300, 1)}, builder).forks,
              (ForkList{{20, 0}}));
}

TEST(HFSPlusBootCacheProfile, AVolumeWithoutThePathHasNoProfileAndNoError)
{
    const Profile profile = profileOf(threeFiles());

    EXPECT_FALSE(profile.made);
    EXPECT_EQ(profile.error, "");
}

TEST(HFSPlusBootCacheProfile, AFileFoundInsteadOfAFolderOfThePathIsNoPlaylist)
{
    for (const char* path : {"/private", "/private/var", "/private/var/db"}) {
        HFSPlusVolumeBuilder builder = threeFiles();
        // It would pass for one, and as a wrong one end the process.
        builder.file(path, 30).dataBeginning(playlistBytes({blocks(300, 1)}));
        builder.dataSize(32).data({{700, 1}});
        const HFSPlusOpenedVolume volume(builder);
        ASSERT_TRUE(volume) << volume.error();
        const auto before = volume.memory().clone();

        EXPECT_FALSE(profileOf(*volume).made) << path;
        HFSPlusBootCacheProfile::reset(*volume);
        EXPECT_TRUE(volume->flush(nullptr));

        EXPECT_TRUE(volume.memory().hasSameBytesAs(*before)) << path;
    }
}

TEST(HFSPlusBootCacheProfile, AFolderInThePlaylistsPlaceIsNoPlaylist)
{
    HFSPlusVolumeBuilder builder = threeFiles();
    builder.folder(kPlaylistPath, kPlaylistID);

    EXPECT_FALSE(profileOf(builder).made);
}

TEST(HFSPlusBootCacheProfile, APlaylistWithTheIDOfASpecialFileIsNone)
{
    HFSPlusVolumeBuilder builder = threeFiles();
    addPlaylist(builder, playlistBytes({blocks(300, 1)}));
    builder.damage(damagedCatalogRecord(kPlaylistID, "fileID", 4));
    const HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_FALSE(profileOf(*volume).made);
    HFSPlusBootCacheProfile::reset(*volume);

    EXPECT_FALSE(volume->needsFlush());
}

TEST(HFSPlusBootCacheProfile, APlaylistInManyPiecesIsReadWhole)
{
    std::vector<PlaylistEntry> entries(2500, blocks(400, 1));
    entries.back() = blocks(300, 1, 0);
    HFSPlusBuilderExtents extents;
    for (uint32_t piece = 0; piece < 13; ++piece) {
        extents.push_back({900 - 2 * piece, 1});
    }
    HFSPlusVolumeBuilder builder = threeFiles();
    addPlaylist(builder, playlistBytes(entries), extents);

    EXPECT_EQ(profileOf(builder).forks, (ForkList{{20, 0}, {21, 0}}));
}

TEST(HFSPlusBootCacheProfile, AFailedReadIsTheProfilesError)
{
    HFSPlusVolumeBuilder builder = threeFiles();
    addPlaylist(builder, playlistBytes({blocks(300, 1)}));
    uint64_t failures = 0;
    for (bool reached = true; reached;) {
        const HFSPlusOpenedVolume volume(builder);
        ASSERT_TRUE(volume) << volume.error();
        volume.faults().fail(FaultyBlockDevice::Operation::kRead, failures + 1, EIO);

        const Profile profile = profileOf(*volume);

        reached = volume.faults().faultReached();
        EXPECT_EQ(profile.made, !reached);
        EXPECT_EQ(profile.error.empty(), !reached);
        failures += reached ? 1 : 0;
    }
    EXPECT_GE(failures, 2U);  // the catalog and the playlist at least
}

TEST(HFSPlusBootCacheProfile, WithoutMemoryTheProfileFails)
{
    HFSPlusVolumeBuilder builder = threeFiles();
    addPlaylist(builder, playlistBytes({blocks(300, 1)}));
    uint64_t failures = 0;
    for (bool reached = true; reached;) {
        const HFSPlusOpenedVolume volume(builder);
        NothrowAllocations allocations;
        allocations.failAfter(failures);

        const Profile profile = profileOf(*volume);

        reached = !profile.made;
        if (reached) {
            EXPECT_EQ(profile.error, "Out of memory.");
            ++failures;
        }
    }
    EXPECT_GE(failures, 4U);  // the file and the three parts of the list
}

TEST(HFSPlusBootCacheProfile, AfterwardsTheVolumeCachesNoForkData)
{
    HFSPlusVolumeBuilder builder = threeFiles();
    addPlaylist(builder, playlistBytes({blocks(300, 1)}));
    const HFSPlusOpenedVolume volume(builder);

    ASSERT_TRUE(profileOf(*volume).made);

    EXPECT_EQ(volume->hostForkData(kPlaylistID), nullptr);
}

TEST(HFSPlusBootCacheProfile, ResettingEmptiesThePlaylistAndFreesItsBlocks)
{
    HFSPlusBuilderExtents extents;
    for (uint32_t piece = 0; piece < 20; ++piece) {
        extents.push_back({900 - 2 * piece, 1});
    }
    HFSPlusVolumeBuilder builder = threeFiles();
    addPlaylist(builder, playlistBytes(std::vector<PlaylistEntry>(4000, blocks(300, 1))), extents);
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusCheckResult before = volume.check();
    ASSERT_EQ(before.extents.leafRecords, 2U);

    HFSPlusBootCacheProfile::reset(*volume);
    ASSERT_TRUE(volume->flush(nullptr));

    const HFSPlusCheckResult after = volume.check();
    EXPECT_TRUE(after.consistent) << after.description();
    EXPECT_EQ(after.forkWithCNID(kPlaylistID)->logicalSize, 0U);
    EXPECT_EQ(after.forkWithCNID(kPlaylistID)->totalBlocks, 0U);
    EXPECT_EQ(after.extents.leafRecords, 0U);
    EXPECT_EQ(after.freeBlocks, before.freeBlocks + 20);
}

TEST(HFSPlusBootCacheProfile, ResettingChangesNothingOnAReadOnlyVolume)
{
    HFSPlusVolumeBuilder builder = threeFiles();
    addPlaylist(builder, playlistBytes({}));
    builder.damage(damagedHeader("attributes", 0x00008100));
    const HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();

    HFSPlusBootCacheProfile::reset(*volume);

    EXPECT_FALSE(volume->needsFlush());
}

TEST(HFSPlusBootCacheProfile, ResettingAnEmptyOrAMissingPlaylistChangesNothing)
{
    HFSPlusVolumeBuilder empty = threeFiles();
    empty.file(kPlaylistPath, kPlaylistID);
    for (const HFSPlusVolumeBuilder& builder : {empty, threeFiles()}) {
        const HFSPlusOpenedVolume volume(builder);
        ASSERT_TRUE(volume) << volume.error();

        HFSPlusBootCacheProfile::reset(*volume);

        EXPECT_FALSE(volume->needsFlush());
    }
}

TEST(HFSPlusBootCacheProfile, AFailedResetIsIgnoredAndChangesNothing)
{
    HFSPlusVolumeBuilder builder = threeFiles();
    addPlaylist(builder, playlistBytes({}));
    uint64_t failures = 0;
    for (bool reached = true; reached;) {
        const HFSPlusOpenedVolume volume(builder);
        volume.faults().fail(FaultyBlockDevice::Operation::kRead, failures + 1, EIO,
                             FaultyBlockDevice::Lasting::kFromThenOn);

        HFSPlusBootCacheProfile::reset(*volume);

        reached = volume.faults().faultReached();
        EXPECT_EQ(volume->needsFlush(), !reached);
        failures += reached ? 1 : 0;
    }
    EXPECT_GE(failures, 2U);  // the catalog and the bitmap at least
}

TEST(HFSPlusBootCacheProfile, BlocksThatSomethingElseClaimsAreNotGivenUp)
{
    const auto claimed = [](const std::function<void(HFSPlusVolumeBuilder&)>& claim) {
        HFSPlusVolumeBuilder builder = threeFiles();
        addPlaylist(builder, playlistBytes({}), {{700, 1}, {710, 1}});
        builder.unchecked();
        claim(builder);
        const HFSPlusOpenedVolume volume(builder);
        EXPECT_TRUE(volume) << volume.error();
        HFSPlusBootCacheProfile::reset(*volume);
        return !volume->needsFlush();
    };

    EXPECT_FALSE(claimed([](HFSPlusVolumeBuilder&) {}));
    EXPECT_FALSE(claimed([](auto& builder) { builder.file("/x", 30).data({{701, 9}, {711, 9}}); }));
    EXPECT_TRUE(claimed([](auto& builder) { builder.file("/x", 30).data({{690, 11}}); }));
    EXPECT_TRUE(claimed([](auto& builder) { builder.file("/x", 30).resource({{710, 1}}); }));
    EXPECT_TRUE(claimed([](auto& builder) { builder.file("/x", 30).data({{650, 100}}); }));
    EXPECT_TRUE(claimed([](auto& builder) { builder.badBlocks({{710, 1}}); }));
    EXPECT_TRUE(claimed([](auto& builder) {
        builder.file("/x", 30).forkAttribute("fork", {{690, 11}});
    }));
    EXPECT_FALSE(claimed([](auto& builder) { builder.journal(750, 20); }));
    EXPECT_TRUE(claimed([](auto& builder) {
        builder.journal(640, 20);
        builder.damage(damagedJournalInfo("size", 61 * kBlock));
    }));
    EXPECT_TRUE(claimed([](auto& builder) { builder.damage(damagedBitmap(710, 1, false)); }));
    EXPECT_TRUE(claimed([](auto& builder) { builder.startupExtents({{705, 10}}); }));
    EXPECT_TRUE(claimed([](auto& builder) {
        addPlaylist(builder, playlistBytes({}), {{700, 5}, {704, 2}});
    }));
    EXPECT_TRUE(claimed([](auto& builder) {
        addPlaylist(builder, playlistBytes({}), {{700, 1}, {999, 1}});
    }));
    EXPECT_TRUE(claimed([](auto& builder) {
        builder.file("/x", 30).data({{800, 1}});
        builder.damage(damagedCatalogRecord(30, "fileID", kPlaylistID));
    }));
    EXPECT_TRUE(claimed(
        [](auto& builder) { builder.damage(damagedCatalogRecord(kPlaylistID, "fileID", 20)); }));
}
