#include "HFSPlus/HFSPlusBTreeBulkIterator.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlusCatalogTesting.h"
#include "support/NothrowAllocations.h"

namespace {

/** A catalog of 600 nodes with some hundred in use, in no order, and free ones in between. */
HFSPlusVolumeBuilder sparseTree(uint32_t nodeSize = 4096)
{
    HFSPlusVolumeBuilder builder;
    builder.totalBlocks(20000).manyFiles(400, nullptr, "/many", 1000).catalogNodeSize(nodeSize);
    builder.catalogTree().maximumLeafRecords = 4;
    builder.catalogTree().shuffled = true;
    builder.catalogTree().totalNodes = 600;
    return builder;
}

std::vector<uint32_t> nodesInUse(const HFSPlusBTreeFile& tree)
{
    std::vector<uint32_t> nodes;
    for (uint32_t node = 0; node < tree.nodeCount(); ++node) {
        if ((tree.freeNodeMap()[node / 8] & (0x80 >> node % 8)) != 0) {
            nodes.push_back(node);
        }
    }
    return nodes;
}

std::vector<uint32_t> nodesOf(HFSPlusBTreeBulkIterator& iterator)
{
    std::vector<uint32_t> nodes;
    HFSPlusCachedNode node;
    while (iterator.nextCachedNode(node, nullptr) && node) {
        nodes.push_back(node->index());
    }
    return nodes;
}

TEST(HFSPlusBTreeBulkIterator, GivesEveryNodeInUseInTheOrderOfTheFile)
{
    HFSPlusOpenedVolume volume(sparseTree());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalog& tree = volume->catalog();
    const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(tree, nullptr);
    ASSERT_NE(iterator, nullptr);

    const std::vector<uint32_t> nodes = nodesOf(*iterator);

    EXPECT_EQ(nodes, nodesInUse(tree));
    EXPECT_GT(nodes.size(), 200U);
    EXPECT_LT(nodes.size(), 600U);
}

TEST(HFSPlusBTreeBulkIterator, StaysAtTheEnd)
{
    HFSPlusOpenedVolume volume(sparseTree());
    ASSERT_TRUE(volume) << volume.error();
    const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(volume->catalog(), nullptr);
    ASSERT_FALSE(nodesOf(*iterator).empty());
    HFSPlusCachedNode node;

    EXPECT_TRUE(iterator->nextCachedNode(node, nullptr));
    EXPECT_FALSE(node);
    EXPECT_TRUE(iterator->nextCachedNode(node, nullptr));
    EXPECT_FALSE(node);
}

TEST(HFSPlusBTreeBulkIterator, ReadsAMegabyteAtATimeAndTheRestAtTheEnd)
{
    for (const uint32_t nodeSize : {4096U, 8192U, 32768U}) {
        HFSPlusOpenedVolume volume(sparseTree(nodeSize));
        ASSERT_TRUE(volume) << volume.error();
        const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(volume->catalog(), nullptr);
        volume.memory().clearOperations();

        ASSERT_FALSE(nodesOf(*iterator).empty());

        uint64_t read = 0;
        for (const MemoryBlockDevice::Operation& operation : volume.operations()) {
            EXPECT_LE(operation.nbyte, 1048576U);
            read += operation.nbyte;
        }
        const uint64_t treeSize = uint64_t{600} * nodeSize;
        EXPECT_LE(read, treeSize);
        EXPECT_LE(volume.operations().size(), treeSize / 1048576 + 1);
    }
}

TEST(HFSPlusBTreeBulkIterator, ReadsNothingBeforeTheFirstNodeInUseOfABuffer)
{
    HFSPlusVolumeBuilder builder;
    builder.totalBlocks(20000).catalogNodeSize(4096);
    builder.catalogTree().totalNodes = 2000;
    // Only the header, the root and one node far behind are in use.
    builder.damage(damagedTreeMap(kHFSCatalogFileID, 1500, true));
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(volume->catalog(), nullptr);
    volume.memory().clearOperations();

    const std::vector<uint32_t> nodes = nodesOf(*iterator);

    EXPECT_EQ(nodes, (std::vector<uint32_t>{0, 1, 1500}));
    ASSERT_EQ(volume.operations().size(), 2U);
    EXPECT_EQ(volume.operations()[0].nbyte, 256U * 4096);
    EXPECT_EQ(volume.operations()[1].nbyte, 256U * 4096);
    EXPECT_EQ(volume.operations()[1].offset - volume.operations()[0].offset, 1500U * 4096);
}

TEST(HFSPlusBTreeBulkIterator, LeavesTheNodesItReadInTheCache)
{
    HFSPlusOpenedVolume volume(sparseTree());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalog& tree = volume->catalog();
    const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(tree, nullptr);
    const std::vector<uint32_t> nodes = nodesOf(*iterator);
    volume.memory().clearOperations();

    for (const uint32_t node : nodes) {
        ASSERT_TRUE(tree.cachedNodeWithIndex(node, {}, nullptr));
    }

    EXPECT_TRUE(volume.operations().empty());
}

TEST(HFSPlusBTreeBulkIterator, CachedNodesKeepWhatWasChangedInThem)
{
    HFSPlusOpenedVolume volume(sparseTree());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalog& tree = volume->catalog();
    const uint32_t leaf = tree.lastLeafNode();
    tree.cachedNodeWithIndex(leaf, {}, nullptr)->setBLink(0x12345678);
    const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(tree, nullptr);

    HFSPlusCachedNode node;
    while (iterator->nextCachedNode(node, nullptr) && node && node->index() != leaf) {
    }

    ASSERT_TRUE(node);
    EXPECT_EQ(node->bLink(), 0x12345678U);
}

TEST(HFSPlusBTreeBulkIterator, AChangedNodeEvictedOnTheWayComesBackAsItWasChanged)
{
    HFSPlusOpenedVolume volume(sparseTree());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalog& tree = volume->catalog();
    const std::vector<uint32_t> inUse = nodesInUse(tree);
    const uint32_t last = inUse[inUse.size() / 3];
    ASSERT_LT(last, 256U);
    // Two nodes fit, so the changed one goes to disk while those before it enter the cache.
    tree.setNodeCacheSize(2 * tree.nodeSize());
    tree.cachedNodeWithIndex(last, {}, nullptr)->setBLink(0x12345678);
    const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(tree, nullptr);

    HFSPlusCachedNode node;
    while (iterator->nextCachedNode(node, nullptr) && node && node->index() != last) {
    }

    ASSERT_TRUE(node);
    EXPECT_EQ(node->bLink(), 0x12345678U);
}

/** An overflow tree whose map goes on in two map nodes: 2048 nodes in the header node of 512 bytes,
 *  3936 more in each of the others. */
HFSPlusVolumeBuilder treeWithMapNodes()
{
    HFSPlusVolumeBuilder builder;
    builder.totalBlocks(40000).extentsNodeSize(512);
    builder.extentsTree().totalNodes = 9000;
    return builder;
}

/** Marks node 8999 as used in the last map node. */
void useLastNode(HFSPlusBTreeFile& tree)
{
    const uint32_t first = tree.cachedNodeWithIndex(0, {}, nullptr)->fLink();
    const uint32_t second = tree.cachedNodeWithIndex(first, {}, nullptr)->fLink();
    const uint32_t bit = 8999 - 2048 - 3936;
    tree.cachedNodeWithIndex(second, {}, nullptr)->recordDataAtIndex(0)[bit / 8] |=
        static_cast<uint8_t>(0x80 >> bit % 8);
}

TEST(HFSPlusBTreeBulkIterator, ATreeWithMapNodesIsReadToItsEnd)
{
    HFSPlusOpenedVolume volume(treeWithMapNodes());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusBTreeFile& tree = volume->extents();
    useLastNode(tree);
    const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(tree, nullptr);

    const std::vector<uint32_t> nodes = nodesOf(*iterator);

    std::vector<uint32_t> expected = nodesInUse(tree);
    expected.push_back(8999);
    EXPECT_EQ(nodes, expected);
}

TEST(HFSPlusBTreeBulkIterator, AMapThatEndsEarlyLeavesTheNodesBehindItFree)
{
    HFSPlusOpenedVolume volume(treeWithMapNodes());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusBTreeFile& tree = volume->extents();
    useLastNode(tree);
    tree.cachedNodeWithIndex(0, {}, nullptr)->setFLink(0);
    const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(tree, nullptr);
    ASSERT_NE(iterator, nullptr);

    EXPECT_EQ(nodesOf(*iterator), nodesInUse(tree));
}

TEST(HFSPlusBTreeBulkIterator, AMapChainThatIsACircleEnds)
{
    HFSPlusOpenedVolume volume(treeWithMapNodes());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusBTreeFile& tree = volume->extents();
    const uint32_t mapNode = tree.cachedNodeWithIndex(0, {}, nullptr)->fLink();
    ASSERT_NE(mapNode, 0U);
    tree.cachedNodeWithIndex(mapNode, {}, nullptr)->setFLink(mapNode);

    EXPECT_NE(HFSPlusBTreeBulkIterator::initWithBTree(tree, nullptr), nullptr);
}

TEST(HFSPlusBTreeBulkIterator, WithoutMemoryForBufferOrMapThereIsNoIterator)
{
    for (uint64_t granted = 0; granted < 2; ++granted) {
        HFSPlusOpenedVolume volume(sparseTree());
        ASSERT_TRUE(volume) << volume.error();
        std::unique_ptr<VZDefragError> error;
        NothrowAllocations allocations;
        allocations.failAfter(granted);

        EXPECT_EQ(HFSPlusBTreeBulkIterator::initWithBTree(volume->catalog(), &error), nullptr);

        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->description(), "Out of memory.");
    }
}

TEST(HFSPlusBTreeBulkIterator, AFailedReadIsReportedAndTheNextStepReadsAgain)
{
    HFSPlusOpenedVolume volume(sparseTree());
    ASSERT_TRUE(volume) << volume.error();
    const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(volume->catalog(), nullptr);
    volume.faults().fail(FaultyBlockDevice::Operation::kRead, 1, EIO);
    HFSPlusCachedNode node;
    std::unique_ptr<VZDefragError> error;

    EXPECT_FALSE(iterator->nextCachedNode(node, &error));
    EXPECT_NE(error, nullptr);
    EXPECT_FALSE(node);

    EXPECT_EQ(nodesOf(*iterator), nodesInUse(volume->catalog()));
}

/** Waits until the device has seen @p count reads; false when it does not in ten seconds. */
bool awaitReads(const HFSPlusOpenedVolume& volume, uint64_t count)
{
    for (int wait = 0; wait < 10000 && volume.memory().readCount() < count; ++wait) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return volume.memory().readCount() >= count;
}

TEST(HFSPlusBTreeBulkIterator, ReadsTheNextMegabyteWhileTheNodesBeforeItAreHandedOut)
{
    HFSPlusOpenedVolume volume(sparseTree());
    ASSERT_TRUE(volume) << volume.error();
    const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(volume->catalog(), nullptr);
    volume.memory().clearOperations();
    HFSPlusCachedNode node;

    ASSERT_TRUE(iterator->nextCachedNode(node, nullptr));

    EXPECT_TRUE(awaitReads(volume, 2));
    EXPECT_EQ(node->index(), 0U);
}

TEST(HFSPlusBTreeBulkIterator, ANodeThatWasChangedBeforeItIsDueIsNotReadAhead)
{
    HFSPlusOpenedVolume volume(sparseTree());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalog& tree = volume->catalog();
    const uint32_t changed = nodesInUse(tree).back();
    ASSERT_GE(changed, 512U);
    tree.cachedNodeWithIndex(changed, {}, nullptr)->setBLink(0x12345678);
    const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(tree, nullptr);
    HFSPlusCachedNode node;
    while (iterator->nextCachedNode(node, nullptr) && node && node->index() < 256) {
    }
    // Time for a read of the last nodes, before the changed one leaves the cache for the disk.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    tree.setNodeCacheSize(tree.nodeSize());
    std::ignore = tree.cachedNodeWithIndex(0, {}, nullptr);
    ASSERT_EQ(tree.nodeInCache(changed), nullptr);

    while (iterator->nextCachedNode(node, nullptr) && node && node->index() != changed) {
    }

    ASSERT_TRUE(node);
    EXPECT_EQ(node->bLink(), 0x12345678U);
}

TEST(HFSPlusBTreeBulkIterator, AFailureOfReadingAheadIsReportedWhenItsNodesAreDue)
{
    HFSPlusOpenedVolume volume(sparseTree());
    ASSERT_TRUE(volume) << volume.error();
    const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(volume->catalog(), nullptr);
    volume.faults().fail(FaultyBlockDevice::Operation::kRead, 2, EIO);
    std::vector<uint32_t> nodes;
    HFSPlusCachedNode node;
    std::unique_ptr<VZDefragError> error;
    while (iterator->nextCachedNode(node, &error)) {
        nodes.push_back(node->index());
    }

    EXPECT_NE(error, nullptr);
    EXPECT_FALSE(node);
    ASSERT_FALSE(nodes.empty());
    EXPECT_LT(nodes.back(), 256U);

    const std::vector<uint32_t> others = nodesOf(*iterator);
    nodes.insert(nodes.end(), others.begin(), others.end());
    EXPECT_EQ(nodes, nodesInUse(volume->catalog()));
}

TEST(HFSPlusBTreeBulkIterator, WithoutMemoryNothingIsReadAhead)
{
    HFSPlusOpenedVolume volume(sparseTree());
    ASSERT_TRUE(volume) << volume.error();
    const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(volume->catalog(), nullptr);
    // All that is left of the cache's nodes fits the grant, but no buffer does.
    std::ignore = nodesOf(*HFSPlusBTreeBulkIterator::initWithBTree(volume->catalog(), nullptr));
    volume.memory().clearOperations();
    NothrowAllocations allocations;
    allocations.failAfter(0);
    HFSPlusCachedNode node;

    ASSERT_TRUE(iterator->nextCachedNode(node, nullptr));
    EXPECT_EQ(volume.memory().readCount(), 1U);
    EXPECT_EQ(nodesOf(*iterator).size() + 1, nodesInUse(volume->catalog()).size());
}

TEST(HFSPlusBTreeBulkIterator, MayGoWhileItReadsAhead)
{
    HFSPlusOpenedVolume volume(sparseTree());
    ASSERT_TRUE(volume) << volume.error();
    for (int round = 0; round < 20; ++round) {
        const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(volume->catalog(), nullptr);
        HFSPlusCachedNode node;
        EXPECT_TRUE(iterator->nextCachedNode(node, nullptr));
    }
}

}  // namespace
