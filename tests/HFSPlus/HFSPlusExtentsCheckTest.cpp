#include "HFSPlusExtentsFixture.h"

// The look at the whole tree before it changes.

namespace {

using Patcher = HFSPlusVolumeBuilderPatcher;
using Damage = std::function<bool(Patcher& patcher)>;

constexpr uint32_t kTree = kHFSPlusBuilderExtentsID;
constexpr uint32_t kRoot = 11;
constexpr const char* kSound = "";
constexpr const char* kInconsistent = "Overflow extents file is inconsistent.";

/** What the look says. */
std::string check(const ExtentsVolume& volume)
{
    std::unique_ptr<VZDefragError> error;
    const bool sound = volume.tree().checkTree(&error);
    EXPECT_EQ(sound, error == nullptr);
    EXPECT_EQ(volume.memory().writeCount(), 0u);
    return error == nullptr ? "" : error->description();
}

/** A tree of four levels; each record covers 16 blocks.
 *
 *      11: 16 144
 *       9: 16 80                  10: 144
 *       6: 16 48      7: 80 112    8: 144
 *       1: 16 32      3: 80 96     5: 144
 *       2: 48 64      4: 112 128
 */
HFSPlusVolumeBuilder fourLevels(uint32_t freeNodes = 1)
{
    HFSPlusVolumeBuilder builder = ExtentsVolume::builder(freeNodes);
    builder.extentsTree().maximumLeafRecords = 2;
    builder.extentsTree().maximumIndexRecords = 2;
    builder.file("/fragmented", 20).data(scattered(8000, 80, 2, 4));
    return builder;
}

std::string checkWith(const Damage& damage, HFSPlusVolumeBuilder builder = fourLevels())
{
    builder.damage(damage);
    return check(ExtentsVolume(std::move(builder)));
}

/** Gives the record at @p index of a leaf another start block. */
Damage leafKey(uint32_t node, uint32_t index, uint32_t startBlock)
{
    return [=](Patcher& patcher) {
        return patcher.nodeBytes(kTree, node, 14 + 76 * index + 8, startBlock, 4);
    };
}

/** The same for an index node. */
Damage indexKey(uint32_t node, uint32_t index, uint32_t startBlock)
{
    return [=](Patcher& patcher) {
        return patcher.nodeBytes(kTree, node, 14 + 16 * index + 8, startBlock, 4);
    };
}

}  // namespace

TEST(HFSPlusExtentsCheck, ATreeAsItOughtToBeIsSound)
{
    EXPECT_EQ(check(ExtentsVolume(10)), kSound);
    const ExtentsVolume volume(fourLevels());
    EXPECT_EQ(volume.tree().rootNode(), kRoot);
    EXPECT_EQ(volume.tree().headerRecord().treeDepth, 4);
    EXPECT_EQ(check(volume), kSound);
    EXPECT_EQ(check(ExtentsVolume(fourLevels(3000))), kSound);
}

TEST(HFSPlusExtentsCheck, EveryNodeOfTheTreeMustBeInUse)
{
    for (uint32_t node = 1; node <= kRoot; ++node) {
        EXPECT_EQ(
            checkWith([node](Patcher& patcher) { return patcher.treeMap(kTree, node, false); }),
            kInconsistent)
            << node;
    }
    // Nobody is ever given the header node, and one in use that leads nowhere is only lost space.
    EXPECT_EQ(checkWith([](Patcher& patcher) { return patcher.treeMap(kTree, 0, false); }), kSound);
    EXPECT_EQ(checkWith([](Patcher& patcher) { return patcher.treeMap(kTree, 12, true); }), kSound);
}

TEST(HFSPlusExtentsCheck, EveryNodeOfTheMapMustBeInUse)
{
    const ExtentsVolume large(fourLevels(3000));
    const uint32_t mapNode = large.tree().cachedNodeWithIndex(0, {}, nullptr)->fLink();
    ASSERT_NE(mapNode, 0u);

    EXPECT_EQ(checkWith([&](Patcher& patcher) { return patcher.treeMap(kTree, mapNode, false); },
                        fourLevels(3000)),
              kInconsistent);
}

TEST(HFSPlusExtentsCheck, ANodeIsMetOnlyOnce)
{
    // Without records, so that no key could tell.
    const auto emptyLeaf = [](Patcher& patcher) { return patcher.node(kTree, 2, "numRecords", 0); };
    EXPECT_EQ(checkWith(emptyLeaf), kSound);
    EXPECT_EQ(checkWith([&](Patcher& patcher) {
                  return emptyLeaf(patcher) && patcher.nodeBytes(kTree, 6, 14 + 12, 2, 4);
              }),
              kInconsistent);
}

TEST(HFSPlusExtentsCheck, EveryNodeMustHaveTheHeightOfItsLevel)
{
    EXPECT_EQ(checkWith([](Patcher& patcher) { return patcher.node(kTree, 5, "height", 2); }),
              kInconsistent);
    for (const uint32_t depth : {0u, 3u, 5u, 17u, 0xFFFFu}) {
        EXPECT_EQ(checkWith(damagedTreeHeader(kTree, "treeDepth", depth)), kInconsistent) << depth;
    }
    EXPECT_EQ(checkWith(damagedTreeHeader(kTree, "rootNode", 0)), kInconsistent);
}

TEST(HFSPlusExtentsCheck, RecordsAscendThroughAllLeaves)
{
    EXPECT_EQ(checkWith(leafKey(3, 1, 111)), kSound);
    EXPECT_EQ(checkWith(leafKey(3, 1, 112)), kInconsistent);  // would be looked for in node 4
    EXPECT_EQ(checkWith(leafKey(3, 1, 80)), kInconsistent);
    EXPECT_EQ(checkWith(leafKey(3, 1, 79)), kInconsistent);
    EXPECT_EQ(checkWith(leafKey(3, 0, 79)), kInconsistent);  // would be looked for in node 2
    EXPECT_EQ(checkWith(leafKey(3, 0, 81)), kSound);
}

TEST(HFSPlusExtentsCheck, IndexKeysPartTheRecords)
{
    EXPECT_EQ(checkWith(indexKey(kRoot, 1, 145)), kInconsistent);
    EXPECT_EQ(checkWith(indexKey(kRoot, 1, 129)), kSound);
    EXPECT_EQ(checkWith(indexKey(kRoot, 1, 128)), kInconsistent);
    EXPECT_EQ(checkWith(indexKey(7, 1, 113)), kInconsistent);
    EXPECT_EQ(checkWith(indexKey(7, 1, 96)), kInconsistent);
}

TEST(HFSPlusExtentsCheck, AFirstIndexKeyMayBeGreaterThanWhatLiesBelowIt)
{
    // As insertion leaves it where it does not write the node above.
    EXPECT_EQ(checkWith(indexKey(6, 0, 47)), kSound);
    EXPECT_EQ(checkWith(indexKey(kRoot, 0, 100)), kSound);
    EXPECT_EQ(checkWith(indexKey(6, 0, 48)), kInconsistent);
    EXPECT_EQ(checkWith(indexKey(kRoot, 0, 144)), kInconsistent);
}
