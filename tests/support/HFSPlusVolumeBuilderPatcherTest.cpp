#include "support/HFSPlusVolumeBuilderPatcher.h"

#include <gtest/gtest.h>

#include "support/HFSPlusVolumeBuilderTesting.h"

namespace {

constexpr uint32_t kCatalog = kHFSPlusBuilderCatalogID;
constexpr uint32_t kExtents = kHFSPlusBuilderExtentsID;

struct NamedDamage {
    const char* name;
    HFSPlusBuilderDamage damage;
};

HFSPlusVolumeBuilder sound()
{
    auto builder = HFSPlusVolumeBuilder{}.totalBlocks(2000).journal(500, 256);
    builder.manyFiles(200).file("/x", 5000).data(comb(900, 300, 1, 2));
    builder.extentsTree().maximumLeafRecords = 10;
    return builder;
}

class HFSPlusVolumeBuilderPatcherDamage : public testing::TestWithParam<NamedDamage> {};

TEST_P(HFSPlusVolumeBuilderPatcherDamage, IsFoundByTheChecker)
{
    auto builder = sound();
    const auto before = builder.build();
    ASSERT_NE(before, nullptr) << builder.error();
    ASSERT_TRUE(checked(*before).consistent) << checked(*before).description();

    const auto device = builder.damage(GetParam().damage).build();

    ASSERT_NE(device, nullptr) << builder.error();
    EXPECT_FALSE(device->hasSameBytesAs(*before));
    EXPECT_FALSE(checked(*device).consistent);
}

INSTANTIATE_TEST_SUITE_P(
    All, HFSPlusVolumeBuilderPatcherDamage,
    testing::Values(
        NamedDamage{"FreeBlocks", damagedHeader("freeBlocks", 7)},
        NamedDamage{"BlockSize", damagedHeader("blockSize", 0)},
        NamedDamage{"CatalogExtent", damagedHeader("catalogFile.extents[0].blockCount", 1)},
        NamedDamage{"AlternateSignature", damagedAlternateHeader("signature", 0)},
        NamedDamage{"JournalInfo", damagedJournalInfo("offset", uint64_t{1} << 60)},
        NamedDamage{"UsedBitOfFreeBlock", damagedBitmap(1990, 1, true)},
        NamedDamage{"ClearBitOfUsedBlock", damagedBitmap(900, 1, false)},
        NamedDamage{"NodeSize", damagedTreeHeader(kCatalog, "nodeSize", 0)},
        NamedDamage{"LeafRecords", damagedTreeHeader(kExtents, "leafRecords", 1)},
        NamedDamage{"TreeMap", damagedTreeMap(kCatalog, 1, false)},
        NamedDamage{"SiblingLink", damagedNode(kExtents, 1, "fLink", 1)},
        NamedDamage{"NodeKind", damagedNode(kCatalog, 1, "kind", 1)},
        NamedDamage{"RecordOffset", damagedNode(kCatalog, 1, "offset[1]", 5000)},
        NamedDamage{"ForkBlocks", damagedCatalogRecord(5000, "dataFork.totalBlocks", 9)},
        NamedDamage{"ForkExtent",
                    damagedCatalogRecord(5000, "dataFork.extents[7].startBlock", 900)},
        NamedDamage{"Valence", damagedCatalogRecord(2, "valence", 99)},
        NamedDamage{"OverflowKey", damagedOverflowRecord(5000, 0, 16, "startBlock", 17)},
        NamedDamage{"OverflowExtent",
                    damagedOverflowRecord(5000, 0, 16, "extents[0].blockCount", 0)}),
    [](const testing::TestParamInfo<NamedDamage>& damaged) { return damaged.param.name; });

TEST(HFSPlusVolumeBuilderPatcher, DamageThatHitsNothingIsRefused)
{
    for (const HFSPlusBuilderDamage& damage :
         {damagedHeader("freeBlock", 7), damagedHeader("catalogFile", 7),
          damagedHeader("catalogFile.extents[8].startBlock", 7), damagedWrapper("drAlBlkSiz", 0),
          damagedCatalogRecord(4711, "flags", 0), damagedOverflowRecord(5000, 0, 17, "pad", 1),
          damagedNode(kHFSPlusBuilderAttributesID, 0, "kind", 0),
          damagedNode(kCatalog, 1, "offset[9999]", 0), damagedBitmap(1 << 20, 1, true)}) {
        auto builder = sound();
        EXPECT_EQ(builder.damage(damage).build(), nullptr);
    }
}

TEST(HFSPlusVolumeBuilderPatcher, TheWrapperIsDamagedInFrontOfTheVolume)
{
    auto builder = HFSPlusVolumeBuilder{}.wrapper().damage(damagedWrapper("drAlBlkSiz", 0));
    const auto device = builder.build();
    ASSERT_NE(device, nullptr) << builder.error();

    EXPECT_FALSE(checked(*device).consistent);
}

TEST(HFSPlusVolumeBuilderPatcher, RecordsAreFoundInTheirLeaves)
{
    auto builder = sound();
    std::optional<uint32_t> first;
    std::optional<uint32_t> eleventh;
    std::optional<uint32_t> beyond;
    builder.damage([&](HFSPlusVolumeBuilderPatcher& patcher) {
        first = patcher.leafWithRecord(kExtents, 0);
        eleventh = patcher.leafWithRecord(kExtents, 10);
        beyond = patcher.leafWithRecord(kExtents, 1000);
        return true;
    });
    ASSERT_NE(builder.build(), nullptr) << builder.error();

    EXPECT_EQ(first, 1U);
    EXPECT_EQ(eleventh, 2U);
    EXPECT_EQ(beyond, std::nullopt);
}

}  // namespace
