#include "HFSPlus/HFSPlusExtents.h"

#include "HFSPlusExtentsFixture.h"

namespace {

constexpr std::string_view kInconsistent = "Overflow extents file is inconsistent.";
constexpr std::string_view kMissing = "Overflow extent record missing.";
constexpr std::string_view kCollision = "Overflow extent record collision.";
constexpr std::string_view kCongested =
    "Overflow extents file is too congested, unable to continue.";
constexpr uint32_t kIndexSize = 16;  // bytes of an index record

/** The key and the child number of an index record. */
std::pair<OverflowKey, uint32_t> indexRecord(const HFSPlusBTreeNode& node, uint32_t index)
{
    const auto* key = node.recordAs<HFSPlusExtentKey>(index);
    const auto* child = node.recordAs<HFSPlusDiskOrder::UInt32>(index, sizeof *key);
    return {{key->fileID, key->forkType, key->startBlock}, *child};
}

OverflowKey firstKey(HFSPlusBTreeFile& btree, uint32_t index)
{
    const HFSPlusCachedNode node = btree.cachedNodeWithIndex(index, {}, nullptr);
    const auto* key = node->recordAs<HFSPlusExtentKey>(0);
    return {key->fileID, key->forkType, key->startBlock};
}

HFSPlusCachedNode rootOf(HFSPlusBTreeFile& btree)
{
    return btree.cachedNodeWithIndex(btree.rootNode(), {}, nullptr);
}

/** The start of the record that the lookup of @p key finds and its mark; mark 0 for none. */
std::pair<uint32_t, uint32_t> lookUp(const ExtentsVolume& volume, const OverflowKey& key)
{
    HFSPlusExtentRecord record = overflowRecord(12345);
    uint32_t block = key.startBlock;
    EXPECT_TRUE(volume.tree().copyExtentRecord(record, block, key.fileID, key.forkType, nullptr));
    return {block, record[0].startBlock};
}

/** What a lookup, an update, an insertion and a deletion say about a broken tree. */
std::vector<std::string> failuresOn(const ExtentsVolume& volume, const OverflowKey& key)
{
    return {failureOf([&](auto error) {
                HFSPlusExtentRecord record;
                uint32_t block = key.startBlock;
                return volume.tree().copyExtentRecord(record, block, key.fileID, key.forkType,
                                                      error);
            }),
            failureOf([&](auto error) { return volume.update(key, 1, error); }),
            failureOf([&](auto error) { return volume.insert(key, 1, error); }),
            failureOf([&](auto error) { return volume.remove(key, error); })};
}

const std::vector<std::string> kAllInconsistent(4, std::string(kInconsistent));

/** Two levels: a fork of 80 extents takes nine overflow records, a leaf holds six. */
HFSPlusVolumeBuilder twoLevels()
{
    HFSPlusVolumeBuilder builder = ExtentsVolume::builder(10);
    builder.file("/fragmented", 20).data(scattered(8000, 80, 2, 4));
    return builder;
}

/** A tree of two levels, broken: node 1 is the first leaf, the root comes after the leaves. */
ExtentsVolume brokenVolume(
    const std::function<bool(HFSPlusVolumeBuilderPatcher&, uint32_t root)>& damage)
{
    HFSPlusVolumeBuilder builder = twoLevels();
    builder.damage([damage](HFSPlusVolumeBuilderPatcher& patcher) {
        return damage(patcher, patcher.plan().extentsTree.rootNode);
    });
    return ExtentsVolume(std::move(builder));
}

}  // namespace

TEST(HFSPlusExtents, KeysAreOrderedByFileThenForkThenStartBlock)
{
    const auto key = [](uint32_t fileID, uint8_t forkType, uint32_t startBlock) {
        HFSPlusExtentKey made = {};
        made.fileID = fileID;
        made.forkType = forkType;
        made.startBlock = startBlock;
        return made;
    };
    bool match = false;
    EXPECT_EQ(HFSPlusExtents::compare(key(2, 0, 0), key(0x80000000, 0, 0), match), -1);
    EXPECT_FALSE(match);
    EXPECT_EQ(HFSPlusExtents::compare(key(7, 0xFF, 0), key(7, 0, 9), match), 1);
    EXPECT_FALSE(match);
    EXPECT_EQ(HFSPlusExtents::compare(key(7, 0, 0xFFFFFFFF), key(7, 0, 1), match), 1);
    EXPECT_TRUE(match);
    EXPECT_EQ(HFSPlusExtents::compare(key(7, 0xFF, 3), key(7, 0xFF, 3), match), 0);
    EXPECT_TRUE(match);
}

TEST(HFSPlusExtents, InsertingIntoAnEmptyTreeCreatesAOneLeafTreeOfDepth1)
{
    const ExtentsVolume volume(10);
    HFSPlusExtents& tree = volume.tree();
    const uint32_t freeNodes = tree.freeNodes();
    ASSERT_EQ(tree.rootNode(), 0u);

    ASSERT_TRUE(volume.insert({30, 0xFF, 8}, 77));

    EXPECT_EQ(tree.headerRecord().treeDepth, 1);
    EXPECT_NE(tree.rootNode(), 0u);
    EXPECT_EQ(tree.firstLeafNode(), tree.rootNode());
    EXPECT_EQ(tree.lastLeafNode(), tree.rootNode());
    EXPECT_EQ(tree.headerRecord().leafRecords, 1u);
    EXPECT_EQ(tree.freeNodes(), freeNodes - 1);
    EXPECT_EQ(volume.recordsOnDisk(), (OverflowRecords{{{30, 0xFF, 8}, 77}}));
}

TEST(HFSPlusExtents, AFullRootLeafGrowsTheTreeToTwoLevels)
{
    const ExtentsVolume volume(10);
    HFSPlusExtents& tree = volume.tree();
    const uint32_t inserted =
        volume.insertUntil(20, [&] { return tree.headerRecord().treeDepth == 2; });

    EXPECT_EQ(inserted, 7u);  // 6 records leave 28 of 512 bytes
    const HFSPlusCachedNode root = rootOf(tree);
    ASSERT_EQ(root->recordCount(), 2);
    EXPECT_EQ(indexRecord(*root, 0), (std::pair{OverflowKey{20, 0, 1}, tree.firstLeafNode()}));
    EXPECT_EQ(indexRecord(*root, 1), (std::pair{OverflowKey{20, 0, 4}, tree.lastLeafNode()}));
    EXPECT_EQ(volume.recordsOnDisk().size(), 7u);
}

TEST(HFSPlusExtents, AFullLeafUnderAFullRootGrowsTheTreeByOneLevel)
{
    const ExtentsVolume volume(200);
    HFSPlusExtents& tree = volume.tree();
    std::ignore = volume.insertUntil(20, [&] { return tree.headerRecord().treeDepth == 2; });
    uint32_t oldRoot = 0;
    uint32_t oldRecords = 0;
    std::ignore = volume.insertUntil(30, [&] {
        if (tree.headerRecord().treeDepth == 3) {
            return true;
        }
        oldRoot = tree.rootNode();
        oldRecords = rootOf(tree)->recordCount();
        return false;
    });

    EXPECT_EQ(oldRecords, 27u);  // the node was as full as insertion allows
    const HFSPlusCachedNode root = rootOf(tree);
    ASSERT_EQ(root->recordCount(), 2);
    EXPECT_EQ(root->height(), 3);
    const auto [leftKey, left] = indexRecord(*root, 0);
    const auto [rightKey, right] = indexRecord(*root, 1);
    EXPECT_EQ(left, oldRoot);
    EXPECT_EQ(leftKey, firstKey(tree, left));
    EXPECT_EQ(rightKey, firstKey(tree, right));
    EXPECT_EQ(tree.cachedNodeWithIndex(left, {}, nullptr)->fLink(), right);
    EXPECT_EQ(tree.cachedNodeWithIndex(left, {}, nullptr)->recordCount(), 14);  // the larger half
    EXPECT_EQ(volume.recordsOnDisk().size(), tree.headerRecord().leafRecords);
}

TEST(HFSPlusExtents, AnIndexNodeWithRoomForExactlyOneRecordCountsAsFull)
{
    const ExtentsVolume volume(400, 1024);
    HFSPlusExtents& tree = volume.tree();
    std::ignore = volume.insertUntil(20, [&] {
        return tree.headerRecord().treeDepth == 2 && rootOf(tree)->recordCount() == 55;
    });
    ASSERT_EQ(rootOf(tree)->freeSpace(), kIndexSize + 2);

    std::ignore = volume.insertUntil(30, [&] { return tree.headerRecord().treeDepth == 3; });

    EXPECT_EQ(tree.headerRecord().treeDepth, 3);
    EXPECT_EQ(volume.recordsOnDisk().size(), tree.headerRecord().leafRecords);
}

TEST(HFSPlusExtents, DeletingTheLastRecordEmptiesTheTree)
{
    const ExtentsVolume volume(10);
    HFSPlusExtents& tree = volume.tree();
    const uint32_t freeNodes = tree.freeNodes();
    ASSERT_TRUE(volume.insert({20, 0, 8}, 1));

    ASSERT_TRUE(volume.remove({20, 0, 8}));

    EXPECT_EQ(tree.headerRecord().treeDepth, 0);
    EXPECT_EQ(tree.rootNode(), 0u);
    EXPECT_EQ(tree.headerRecord().leafRecords, 0u);
    EXPECT_EQ(tree.firstLeafNode(), 0u);
    EXPECT_EQ(tree.lastLeafNode(), 0u);
    EXPECT_EQ(tree.freeNodes(), freeNodes);
    EXPECT_TRUE(volume.recordsOnDisk().empty());
}

TEST(HFSPlusExtents, EmptyingALeafFreesItAndARootWithOneChildGivesWay)
{
    const ExtentsVolume volume(10);
    HFSPlusExtents& tree = volume.tree();
    ASSERT_EQ(volume.insertUntil(20, [&] { return tree.headerRecord().treeDepth == 2; }), 7u);
    const uint32_t lastLeaf = tree.lastLeafNode();
    const uint32_t freeNodes = tree.freeNodes();

    for (const uint32_t start : {1u, 2u, 3u}) {
        ASSERT_TRUE(volume.remove({20, 0, start}));
    }

    EXPECT_EQ(tree.headerRecord().treeDepth, 1);
    EXPECT_EQ(tree.rootNode(), lastLeaf);
    EXPECT_EQ(tree.firstLeafNode(), lastLeaf);
    EXPECT_EQ(tree.freeNodes(), freeNodes + 2);
    EXPECT_EQ(
        volume.recordsOnDisk(),
        (OverflowRecords{{{20, 0, 4}, 4}, {{20, 0, 5}, 5}, {{20, 0, 6}, 6}, {{20, 0, 7}, 7}}));
}

TEST(HFSPlusExtents, LookupBelowTheFirstRecordSucceedsWithAZeroFirstExtent)
{
    const ExtentsVolume volume(10);
    ASSERT_TRUE(volume.insert({19, 0, 4}, 1));
    ASSERT_TRUE(volume.insert({20, 0, 10}, 2));

    HFSPlusExtentRecord record = overflowRecord(12345);
    uint32_t block = 9;
    ASSERT_TRUE(volume.tree().copyExtentRecord(record, block, 20, 0, nullptr));
    EXPECT_EQ(block, 9u);
    EXPECT_EQ(record[0].startBlock, 0u);
    EXPECT_EQ(record[0].blockCount, 0u);
}

TEST(HFSPlusExtents, LookupFindsTheGreatestStartNotAboveTheBlock)
{
    const ExtentsVolume volume(10);
    ASSERT_TRUE(volume.insert({20, 0, 10}, 1));
    ASSERT_TRUE(volume.insert({20, 0, 30}, 2));
    ASSERT_TRUE(volume.insert({20, 0xFF, 20}, 3));

    EXPECT_EQ(lookUp(volume, {20, 0, 10}), (std::pair{10u, 1u}));
    EXPECT_EQ(lookUp(volume, {20, 0, 29}), (std::pair{10u, 1u}));
    EXPECT_EQ(lookUp(volume, {20, 0, 0xFFFFFFFF}), (std::pair{30u, 2u}));
    EXPECT_EQ(lookUp(volume, {20, 0xFF, 25}), (std::pair{20u, 3u}));
    EXPECT_EQ(lookUp(volume, {20, 0xFF, 19}), (std::pair{19u, 0u}));
    EXPECT_EQ(lookUp(volume, {21, 0, 25}), (std::pair{25u, 0u}));
}

TEST(HFSPlusExtents, AnUpdateReplacesTheExtentsOfExactlyThatKey)
{
    const ExtentsVolume volume(10);
    ASSERT_TRUE(volume.insert({20, 0, 10}, 1));
    ASSERT_TRUE(volume.insert({20, 0, 30}, 2));

    ASSERT_TRUE(volume.update({20, 0, 10}, 3));

    EXPECT_EQ(volume.recordsOnDisk(), (OverflowRecords{{{20, 0, 10}, 3}, {{20, 0, 30}, 2}}));
}

TEST(HFSPlusExtents, ANewFirstKeyReachesTheIndexNodesOnDisk)
{
    const ExtentsVolume volume(200);
    HFSPlusExtents& tree = volume.tree();
    std::ignore = volume.insertUntil(20, [&] { return tree.headerRecord().treeDepth == 3; });
    ASSERT_TRUE(tree.flush());
    // Room in the first leaf, so that nothing else marks the index nodes above it as changed.
    ASSERT_TRUE(volume.remove({20, 0, 2}));
    ASSERT_TRUE(tree.flush());

    ASSERT_TRUE(volume.insert({10, 0, 1}, 99));
    const OverflowRecords records = volume.recordsOnDisk();

    EXPECT_EQ(records.begin()->second, 99u);
    EXPECT_EQ(firstKey(tree, tree.rootNode()), (OverflowKey{10, 0, 1}));
}

TEST(HFSPlusExtents, InsertingAKeyThatIsThereIsACollision)
{
    const ExtentsVolume volume(10);
    ASSERT_TRUE(volume.insert({20, 0, 10}, 1));

    EXPECT_EQ(failureOf([&](auto error) {
                  return volume.insert({20, 0, 10}, 2, error);
              }),
              kCollision);
    EXPECT_EQ(volume.recordsOnDisk(), (OverflowRecords{{{20, 0, 10}, 1}}));
}

TEST(HFSPlusExtents, UpdatingOrDeletingAnAbsentKeyFindsItMissing)
{
    const ExtentsVolume volume(10);
    ASSERT_TRUE(volume.insert({20, 0, 10}, 1));

    for (const OverflowKey& key :
         {OverflowKey{20, 0, 9}, OverflowKey{20, 0, 11}, OverflowKey{20, 0xFF, 10}}) {
        EXPECT_EQ(failureOf([&](auto error) { return volume.update(key, 2, error); }), kMissing);
        EXPECT_EQ(failureOf([&](auto error) { return volume.remove(key, error); }), kMissing);
    }
}

TEST(HFSPlusExtents, AnEmptyTreeIsInconsistentForLookupAndUpdateAndMissesWhatIsDeleted)
{
    const ExtentsVolume volume(10);
    HFSPlusExtentRecord record;
    uint32_t block = 0;

    EXPECT_EQ(failureOf([&](auto error) {
                  return volume.tree().copyExtentRecord(record, block, 20, 0, error);
              }),
              kInconsistent);
    EXPECT_EQ(failureOf([&](auto error) {
                  return volume.update({20, 0, 1}, 1, error);
              }),
              kInconsistent);
    EXPECT_EQ(failureOf([&](auto error) { return volume.remove({20, 0, 1}, error); }), kMissing);
}

TEST(HFSPlusExtents, WithoutAFreeNodeAFirstRootASplitAndANewRootFindTheFileTooCongested)
{
    const ExtentsVolume none(0);
    EXPECT_EQ(failureOf([&](auto error) { return none.insert({20, 0, 1}, 1, error); }), kCongested);
    EXPECT_TRUE(none.recordsOnDisk().empty());

    // With one free node the root leaf is all there is, with two a new root finds no sibling.
    for (uint32_t freeNodes = 1; freeNodes <= 6; ++freeNodes) {
        const ExtentsVolume few(ExtentsVolume::builder(freeNodes));
        ASSERT_EQ(few.tree().freeNodes(), freeNodes);
        std::unique_ptr<VZDefragError> error;
        uint32_t inserted = 0;
        while (few.insert({20, 0, inserted + 1}, inserted + 1, &error)) {
            ++inserted;
        }
        EXPECT_EQ(error->description(), kCongested);
        EXPECT_EQ(few.recordsOnDisk().size(), inserted);
        EXPECT_EQ(few.tree().freeNodes(), freeNodes == 2 ? 1u : 0u);
    }
}

TEST(HFSPlusExtents, ANodeThatIsNeitherIndexNorLeafIsInconsistent)
{
    const auto volume = brokenVolume([](HFSPlusVolumeBuilderPatcher& patcher, uint32_t root) {
        return patcher.node(3, root, "kind", 2);
    });
    EXPECT_EQ(failuresOn(volume, {20, 0, 16}), kAllInconsistent);
}

TEST(HFSPlusExtents, AnIndexNodeWithoutRecordsIsInconsistent)
{
    const auto volume = brokenVolume([](HFSPlusVolumeBuilderPatcher& patcher, uint32_t root) {
        return patcher.node(3, root, "numRecords", 0);
    });
    EXPECT_EQ(failuresOn(volume, {20, 0, 16}), kAllInconsistent);
}

TEST(HFSPlusExtents, ChildrenThatLeadUpwardsOrOutOfTheFileAreInconsistent)
{
    const auto withChild = [](uint32_t child) {
        return brokenVolume([child](HFSPlusVolumeBuilderPatcher& patcher, uint32_t root) {
            return patcher.nodeBytes(3, root, 14 + 12, child == 1 ? root : child, 4);
        });
    };
    EXPECT_EQ(failuresOn(withChild(1), {20, 0, 16}), kAllInconsistent);  // the root itself
    EXPECT_EQ(failuresOn(withChild(0), {20, 0, 16}), kAllInconsistent);
    EXPECT_EQ(failuresOn(withChild(0xFFFFFFFF), {20, 0, 16}), kAllInconsistent);
}

TEST(HFSPlusExtents, HeightsThatDoNotFallByOneAreInconsistent)
{
    const auto leafTooHigh = brokenVolume([](HFSPlusVolumeBuilderPatcher& patcher, uint32_t) {
        return patcher.node(3, 1, "height", 2);
    });
    EXPECT_EQ(failuresOn(leafTooHigh, {20, 0, 16}), kAllInconsistent);
    for (const uint32_t depth : {0u, 1u, 3u, 17u, 0xFFFFu}) {
        HFSPlusVolumeBuilder builder = twoLevels();
        builder.damage(damagedTreeHeader(3, "treeDepth", depth));
        EXPECT_EQ(failuresOn(ExtentsVolume(std::move(builder)), {20, 0, 16}), kAllInconsistent);
    }
}

TEST(HFSPlusExtents, RecordsOfOtherSizesAreInconsistent)
{
    const auto volume = brokenVolume([](HFSPlusVolumeBuilderPatcher& patcher, uint32_t) {
        return patcher.node(3, 1, "offset[1]", 14 + 4);
    });
    EXPECT_EQ(failuresOn(volume, {20, 0, 16}), kAllInconsistent);
}

TEST(HFSPlusExtents, AFreeMapThatOffersANodeAtHandIsInconsistent)
{
    const auto volume = brokenVolume([](HFSPlusVolumeBuilderPatcher& patcher, uint32_t root) {
        return patcher.treeMap(3, root, false);
    });
    std::unique_ptr<VZDefragError> error;
    uint32_t start = 1000;
    while (volume.insert({20, 0, start}, start, &error) && start < 2000) {
        ++start;
    }
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), kInconsistent);
}

TEST(HFSPlusExtents, SiblingLinksThatLeadNowhereAreInconsistent)
{
    const auto volume = brokenVolume([](HFSPlusVolumeBuilderPatcher& patcher, uint32_t) {
        return patcher.node(3, 1, "fLink", 0x7FFFFFFF);
    });
    std::unique_ptr<VZDefragError> error;
    uint32_t start = 15;
    while (volume.insert({20, 0, start}, start, &error) && start > 1) {
        --start;
    }
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), kInconsistent);
}
