#include "Tasks/HFSPlusApplicationProfile.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "HFSPlus/ForkList.h"
#include "Tasks/ProfileMaking.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"

namespace {

using Profile = MadeProfile;

template <typename Volume>
Profile profileOf(Volume&& volume)
{
    return makeProfile<HFSPlusApplicationProfile>(std::forward<Volume>(volume));
}

}  // namespace

TEST(HFSPlusApplicationProfile, SubfoldersAreVisitedBeforeTheLaterSiblingsOfTheirFolder)
{
    HFSPlusVolumeBuilder builder;
    builder.file("/Applications/M.app/a", 20).automaticData(1);
    builder.file("/Applications/M.app/In/b", 21).automaticData(1);
    builder.file("/Applications/M.app/In/Deep/c", 22).automaticData(1);
    builder.file("/Applications/M.app/Out/d", 23).automaticData(1);
    builder.file("/Applications/Z.app/e", 24).automaticData(1);
    builder.file("/Applications/Zfile", 25).automaticData(1);
    builder.file("/Other/f", 26).automaticData(1);

    EXPECT_EQ(profileOf(builder).forks,
              (ForkList{{25, 0}, {20, 0}, {21, 0}, {22, 0}, {23, 0}, {24, 0}}));
}

TEST(HFSPlusApplicationProfile, ForksWithoutBytesAreLeftOutAndDataComesBeforeResources)
{
    HFSPlusVolumeBuilder builder;
    builder.file("/Applications/a", 20).automaticData(1).automaticResource(1);
    builder.file("/Applications/b", 21).automaticResource(1);
    builder.file("/Applications/c", 22);
    builder.file("/Applications/d", 23).automaticData(1).dataSize(0);
    builder.file("/last", 30);

    EXPECT_EQ(profileOf(builder).forks, (ForkList{{20, 0}, {20, 0xFF}, {21, 0xFF}}));
}

TEST(HFSPlusApplicationProfile, ForksThatAreThereAlreadyKeepTheirPlace)
{
    HFSPlusVolumeBuilder builder;
    builder.file("/Applications/a", 20).automaticData(1);
    builder.file("/Applications/b", 21).automaticData(1);
    builder.file("/last", 30);
    const HFSPlusOpenedVolume volume(builder);
    HFSPlusFileForkSet set(*volume);
    set.add(21, 0);

    ASSERT_NE(HFSPlusApplicationProfile::initWithVolume(*volume, set, nullptr), nullptr);

    EXPECT_EQ(forksOf(set), (ForkList{{21, 0}, {20, 0}}));
}

TEST(HFSPlusApplicationProfile, ATreeOfEmptyFoldersAddsNothingAndSucceeds)
{
    HFSPlusVolumeBuilder builder;
    builder.folder("/Applications/Empty/Emptier", 20).folder("/Applications/Void", 21);
    builder.file("/last", 30);

    const Profile profile = profileOf(builder);

    EXPECT_TRUE(profile.made);
    EXPECT_EQ(profile.forks, ForkList{});
    EXPECT_EQ(profile.error, "");
}

TEST(HFSPlusApplicationProfile, WithoutTheFolderThereIsNoProfileAndNoError)
{
    HFSPlusVolumeBuilder file;
    file.file("/Applications", 20).automaticData(1);
    for (const HFSPlusVolumeBuilder& builder : {HFSPlusVolumeBuilder(), file}) {
        const Profile profile = profileOf(builder);

        EXPECT_FALSE(profile.made);
        EXPECT_EQ(profile.forks, ForkList{});
        EXPECT_EQ(profile.error, "");
    }
}

TEST(HFSPlusApplicationProfile, AFolderThatContainsItselfIsVisitedOnce)
{
    HFSPlusVolumeBuilder builder;
    builder.folder("/Applications", 20).folder("/Applications/Loop", 21);
    builder.file("/Applications/a", 22).automaticData(1).file("/last", 30);
    builder.damage(damagedCatalogRecord(21, "folderID", 20));

    const Profile profile = profileOf(builder);

    EXPECT_TRUE(profile.made);
    EXPECT_EQ(profile.forks, (ForkList{{22, 0}}));
}

TEST(HFSPlusApplicationProfile, ALoopOfFoldersEnds)
{
    HFSPlusVolumeBuilder builder;
    builder.folder("/Applications", 20).folder("/Applications/A", 21);
    builder.folder("/Applications/A/B", 22).folder("/Applications/A/B/C", 23);
    builder.file("/Applications/A/B/file", 24).automaticData(1).file("/last", 30);
    builder.damage(damagedCatalogRecord(23, "folderID", 21));

    const Profile profile = profileOf(builder);

    EXPECT_TRUE(profile.made);
    EXPECT_EQ(profile.forks, (ForkList{{24, 0}}));
}

TEST(HFSPlusApplicationProfile, FilesWithIDsOfTheFormatsOwnAreLeftOut)
{
    HFSPlusVolumeBuilder builder;
    builder.file("/Applications/a", 20).automaticData(1);
    builder.file("/Applications/b", 21).automaticData(1).file("/last", 30);
    builder.damage(damagedCatalogRecord(20, "fileID", 5));

    EXPECT_EQ(profileOf(builder).forks, (ForkList{{21, 0}}));
}

TEST(HFSPlusApplicationProfile, AFailedLookupIsTheError)
{
    const HFSPlusOpenedVolume volume{HFSPlusVolumeBuilder().folder("/Applications", 20)};
    volume.faults().fail(FaultyBlockDevice::Operation::kRead, 1, EIO);

    const Profile profile = profileOf(*volume);

    EXPECT_FALSE(profile.made);
    EXPECT_NE(profile.error, "");
}

TEST(HFSPlusApplicationProfile, AnUnsoundCatalogIsInconsistent)
{
    HFSPlusVolumeBuilder builder;
    builder.folder("/Applications", 20);
    for (uint32_t fileID = 100; fileID < 300; ++fileID) {
        builder.file("/Applications/file" + std::to_string(fileID), fileID);
    }
    builder.damage([](HFSPlusVolumeBuilderPatcher& patcher) {
        const uint32_t last = patcher.plan().catalogTree.lastLeafNode;
        const auto middle = patcher.leafWithRecord(4, 100);
        return middle.has_value() && *middle != last &&
               patcher.node(4, *middle, "fLink", patcher.plan().catalogTree.rootNode);
    });

    const Profile profile = profileOf(builder);

    EXPECT_FALSE(profile.made);
    EXPECT_EQ(profile.error, "Catalog file is inconsistent.");
}
