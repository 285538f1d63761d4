#include "HFSPlus/HFSPlusBTreeFile.h"

#include <cerrno>

#include "HFSPlus/HFSPlusBTreeTransaction.h"
#include "HFSPlus/HFSPlusFile.h"
#include "HFSPlusTreeFixture.h"
#include "support/NothrowAllocations.h"

namespace {

constexpr std::string_view kHeaderMessage = "B-Tree header is inconsistent.";
constexpr std::string_view kMapMessage = "B-Tree file has inconsistent map node.";
constexpr std::string_view kCounterMessage = "Overflow extents file is inconsistent.";

/** A volume whose extents file has one leaf and @p freeNodes free nodes of @p nodeSize bytes. */
HFSPlusVolumeBuilder volumeWithFreeNodes(uint32_t freeNodes, uint32_t nodeSize = 4096)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(4000).contents(false);
    builder.extentsNodeSize(nodeSize).freeExtentsNodes(freeNodes);
    builder.file("/fragmented", 20).data(scattered(3800, 20, 2, 4));
    return builder;
}

HFSPlusVolumeBuilder damaged(HFSPlusBuilderDamage damage)
{
    HFSPlusVolumeBuilder builder = volumeWithFreeNodes(20);
    builder.damage(std::move(damage));
    return builder;
}

void touch(HFSPlusBTreeFile& btree, uint32_t index)
{
    const HFSPlusCachedNode node = btree.cachedNodeWithIndex(index, {}, nullptr);
    ASSERT_TRUE(node);
    node->setDirty(true);
}

void take(HFSPlusBTreeFile& btree, uint32_t index)
{
    ASSERT_TRUE(btree.cachedNodeWithIndex(index, {}, nullptr));
}

}  // namespace

TEST(HFSPlusBTreeFile, The2049thUnreferencedNodeOf4KiBEvictsTheLeastRecentlyReleasedOne)
{
    HFSPlusOpenedVolume volume(volumeWithFreeNodes(2100));
    volume.beginChanges();
    HFSPlusExtents& btree = volume->extents();
    const HFSPlusCachedNode header = btree.cachedNodeWithIndex(0, {}, nullptr);
    touch(btree, 1);
    for (uint32_t index = 2; index <= 2048; ++index) {
        take(btree, index);
    }
    ASSERT_EQ(nodesWritten(volume), std::vector<uint32_t>());

    take(btree, 2049);
    EXPECT_EQ(nodesWritten(volume), (std::vector<uint32_t>{1}));

    volume.memory().clearOperations();
    take(btree, 2049);
    take(btree, 3);
    EXPECT_EQ(nodesRead(volume), std::vector<uint32_t>());
    take(btree, 1);
    EXPECT_EQ(nodesRead(volume), (std::vector<uint32_t>{1}));
}

TEST(HFSPlusBTreeFile, TakingANodeTwiceAndReleasingItOnceLeavesItOutOfTheQueue)
{
    const HFSPlusOpenedVolume volume(volumeWithFreeNodes(20));
    HFSPlusExtents& btree = volume->extents();
    btree.setNodeCacheSize(btree.nodeSize());
    const HFSPlusCachedNode first = btree.cachedNodeWithIndex(5, {}, nullptr);
    take(btree, 5);
    for (uint32_t index = 6; index < 16; ++index) {
        take(btree, index);
    }
    volume.memory().clearOperations();

    const HFSPlusCachedNode again = btree.cachedNodeWithIndex(5, {}, nullptr);

    EXPECT_EQ(again.get(), first.get());
    EXPECT_EQ(nodesRead(volume), std::vector<uint32_t>());
}

TEST(HFSPlusBTreeFile, TheNextFreeNodeOfAMapFFBFIs9)
{
    const HFSPlusOpenedVolume volume(volumeWithFreeNodes(30));
    HFSPlusExtents& btree = volume->extents();
    for (uint32_t index = 0; index < 16; ++index) {
        if (index != 9) {
            btree.markNodeAsUsed(index);
        }
    }
    ASSERT_EQ(btree.freeNodeMap()[0], 0xFF);
    ASSERT_EQ(btree.freeNodeMap()[1], 0xBF);

    EXPECT_EQ(btree.getNextFreeNodeIndex(), 9u);
}

TEST(HFSPlusBTreeFile, WithoutFreeNodesTheNextFreeNodeIs0)
{
    const HFSPlusOpenedVolume volume(volumeWithFreeNodes(0));

    EXPECT_EQ(volume->extents().freeNodes(), 0u);
    EXPECT_EQ(volume->extents().getNextFreeNodeIndex(), 0u);
}

TEST(HFSPlusBTreeFile, TheSearchForAFreeNodeLooksAtAsManyMapBytesAsThereAreNodes)
{
    const HFSPlusOpenedVolume volume(volumeWithFreeNodes(6, 512));
    HFSPlusExtents& btree = volume->extents();
    const uint32_t searchedNodes = btree.nodeCount() * 8;
    ASSERT_LT(searchedNodes, btree.freeNodeMap().size() * 8);
    for (uint32_t index = 0; index + 1 < searchedNodes; ++index) {
        btree.markNodeAsUsed(index);
    }
    // Twice free, once used: the header counts more free nodes than the map shows.
    for (int count = 0; count < 2; ++count) {
        ASSERT_TRUE(btree.markNodeAsFree(1, nullptr));
        ASSERT_TRUE(btree.markNodeAsFree(1, nullptr));
        btree.markNodeAsUsed(1);
    }

    EXPECT_EQ(btree.getNextFreeNodeIndex(), searchedNodes - 1);  // no node has this number
    btree.markNodeAsUsed(searchedNodes - 1);
    ASSERT_GT(btree.freeNodes(), 0u);
    EXPECT_EQ(btree.getNextFreeNodeIndex(), 0u);
}

TEST(HFSPlusBTreeFile, AHeaderWithItsFirstLeafBeyondAllNodesFailsToOpen)
{
    HFSPlusVolumeBuilder sound = volumeWithFreeNodes(20);
    const uint32_t nodes = HFSPlusOpenedVolume(sound)->extents().nodeCount();

    EXPECT_EQ(openingFailure(damaged(damagedTreeHeader(3, "firstLeafNode", nodes + 1))),
              kHeaderMessage);
    EXPECT_EQ(openingFailure(damaged(damagedTreeHeader(3, "firstLeafNode", nodes))), "");
}

TEST(HFSPlusBTreeFile, AWrongHeaderNodeDescriptorFailsToOpen)
{
    EXPECT_EQ(openingFailure(damaged(damagedNode(3, 0, "bLink", 1))), kHeaderMessage);
    EXPECT_EQ(openingFailure(damaged(damagedNode(3, 0, "kind", 2))), kHeaderMessage);
    EXPECT_EQ(openingFailure(damaged(damagedNode(3, 0, "height", 1))), kHeaderMessage);
}

TEST(HFSPlusBTreeFile, AHeaderWithImpossibleSizesOrCountsFailsToOpen)
{
    for (const uint32_t nodeSize : {0u, 1u, 256u, 513u, 768u, 4097u, 0xC000u, 0xFFFFu}) {
        EXPECT_EQ(openingFailure(damaged(damagedTreeHeader(3, "nodeSize", nodeSize))),
                  kHeaderMessage)
            << nodeSize;
    }
    EXPECT_EQ(openingFailure(damaged(damagedHeader("extentsFile.logicalSize", 4096 * 20 + 512))),
              kHeaderMessage);
    EXPECT_EQ(openingFailure(damaged(damagedTreeHeader(3, "totalNodes", 0))), kHeaderMessage);
    EXPECT_EQ(openingFailure(damaged(damagedTreeHeader(3, "totalNodes", 0xFFFFFFFF))),
              kHeaderMessage);
    EXPECT_EQ(openingFailure(damaged(damagedTreeHeader(3, "freeNodes", 1000))), kHeaderMessage);
    EXPECT_EQ(openingFailure(damaged(damagedTreeHeader(3, "lastLeafNode", 1000))), kHeaderMessage);
}

TEST(HFSPlusBTreeFile, AHeaderWithoutTheBigKeysBitFailsToOpen)
{
    EXPECT_EQ(openingFailure(damaged(damagedTreeHeader(3, "attributes", 4))), kHeaderMessage);
}

TEST(HFSPlusBTreeFile, AHeaderNodeWithoutAMapRecordFailsToOpen)
{
    EXPECT_EQ(openingFailure(damaged(damagedNode(3, 0, "numRecords", 2))), kHeaderMessage);
    EXPECT_EQ(openingFailure(damaged(damagedNode(3, 0, "numRecords", 0xFFFF))), kHeaderMessage);
    EXPECT_EQ(openingFailure(damaged(damagedNode(3, 0, "offset[3]", 0xFFF0))), kHeaderMessage);
}

TEST(HFSPlusBTreeFile, AMapChainThatMeetsAnotherNodeFailsToOpen)
{
    EXPECT_EQ(openingFailure(damaged(damagedNode(3, 0, "fLink", 1))), kMapMessage);
    EXPECT_EQ(openingFailure(damaged(damagedNode(3, 0, "fLink", 0xFFFFFFF0))), kMapMessage);
}

TEST(HFSPlusBTreeFile, AMapChainThatComesBackToANodeFailsToOpen)
{
    HFSPlusVolumeBuilder builder = volumeWithFreeNodes(5000, 512);
    builder.damage([](HFSPlusVolumeBuilderPatcher& patcher) {
        const uint32_t firstMapNode = 1;
        return patcher.node(3, firstMapNode, "kind", 2) &&
               patcher.node(3, firstMapNode, "fLink", firstMapNode);
    });
    builder.damage(damagedNode(3, 0, "fLink", 1));

    EXPECT_EQ(openingFailure(std::move(builder)), kMapMessage);
}

TEST(HFSPlusBTreeFile, AFailedReadOfTheHeaderFailsTheOpeningWithThatError)
{
    HFSPlusVolumeBuilder builder = volumeWithFreeNodes(20);
    builder.damage(damagedHeader("extentsFile.logicalSize", 0));

    EXPECT_EQ(openingFailure(std::move(builder)),
              "Read of file ID 3 at offset 0 and size 512 was out of range.");
}

TEST(HFSPlusBTreeFile, NodesBeyondTheLastAreOutOfRange)
{
    const HFSPlusOpenedVolume volume(volumeWithFreeNodes(20));
    HFSPlusExtents& btree = volume->extents();
    const uint32_t beyond = btree.nodeCount();
    const std::string message = "B-Tree node " + std::to_string(beyond) + " is out of range.";
    std::vector<uint8_t> buffer(btree.nodeSize());

    EXPECT_EQ(failureOf([&](auto error) { return btree.readNode(beyond, buffer.data(), error); }),
              message);
    EXPECT_EQ(failureOf([&](auto error) { return btree.writeNode(beyond, buffer.data(), error); }),
              message);
    EXPECT_EQ(failureOf([&](auto error) {
                  return static_cast<bool>(btree.cachedNodeWithIndex(beyond, {}, error));
              }),
              message);
    EXPECT_EQ(failureOf([&](auto error) {
                  return static_cast<bool>(btree.cachedNodeWithIndex(beyond, buffer, error));
              }),
              message);
}

TEST(HFSPlusBTreeFile, ANodeInUseMustHaveSoundRecordsAndBeInRange)
{
    HFSPlusVolumeBuilder builder = damaged(damagedNode(3, 1, "offset[1]", 0xFFFE));
    const HFSPlusOpenedVolume volume(std::move(builder));
    HFSPlusExtents& btree = volume->extents();
    for (const uint32_t index : {0u, 1u, btree.nodeCount(), 0xFFFFFFFFu}) {
        EXPECT_EQ(failureOf([&](auto error) {
                      return static_cast<bool>(btree.soundNodeWithIndex(index, "bad", error));
                  }),
                  "bad")
            << index;
    }
}

TEST(HFSPlusBTreeFile, ANodeWithoutMemoryFailsWithOutOfMemory)
{
    const HFSPlusOpenedVolume volume(volumeWithFreeNodes(20));
    NothrowAllocations allocations;
    allocations.failAfter(0);
    const std::string noObject = failureOf([&](auto error) {
        return static_cast<bool>(volume->extents().cachedNodeWithIndex(7, {}, error));
    });
    allocations.failAfter(1);
    const std::string noBuffer = failureOf([&](auto error) {
        return static_cast<bool>(volume->extents().cachedNodeWithIndex(7, {}, error));
    });

    EXPECT_EQ(noObject, "Out of memory.");
    EXPECT_EQ(noBuffer, "Out of memory.");
}

TEST(HFSPlusBTreeFile, CountersThatWouldOverflowOrUnderflowAreInconsistent)
{
    const HFSPlusOpenedVolume most(damaged(damagedTreeHeader(3, "leafRecords", 0xFFFFFFFF)));
    const HFSPlusOpenedVolume none(damaged(damagedTreeHeader(3, "leafRecords", 0)));
    const HFSPlusOpenedVolume deep(damaged(damagedTreeHeader(3, "treeDepth", 0xFFFF)));
    const HFSPlusOpenedVolume flat(damaged(damagedTreeHeader(3, "treeDepth", 1)));

    EXPECT_EQ(
        failureOf([&](auto error) { return most->extents().incrementLeafRecordCount(error); }),
        kCounterMessage);
    EXPECT_EQ(
        failureOf([&](auto error) { return none->extents().decrementLeafRecordCount(error); }),
        kCounterMessage);
    EXPECT_EQ(failureOf([&](auto error) { return deep->extents().incrementTreeDepth(1, error); }),
              kCounterMessage);
    EXPECT_EQ(failureOf([&](auto error) { return flat->extents().decrementTreeDepth(1, error); }),
              kCounterMessage);
}

TEST(HFSPlusBTreeFile, TreeDepthStopsAtTheNumberOfNodes)
{
    HFSPlusVolumeBuilder builder = volumeWithFreeNodes(20);
    const uint32_t nodes = HFSPlusOpenedVolume(builder)->extents().nodeCount();
    const HFSPlusOpenedVolume volume(damaged(damagedTreeHeader(3, "treeDepth", nodes - 1)));
    HFSPlusExtents& btree = volume->extents();

    EXPECT_TRUE(btree.incrementTreeDepth(4, nullptr));
    EXPECT_EQ(btree.rootNode(), 4u);
    EXPECT_FALSE(btree.incrementTreeDepth(5, nullptr));
    EXPECT_EQ(btree.rootNode(), 4u);
}

TEST(HFSPlusBTreeFile, FlushingWithAnUnchangedHeaderRewritesNoHeaderNode)
{
    HFSPlusOpenedVolume volume(volumeWithFreeNodes(20));
    volume.beginChanges();
    HFSPlusExtents& btree = volume->extents();
    touch(btree, 1);
    ASSERT_TRUE(btree.isDirty());

    EXPECT_TRUE(btree.flush());
    EXPECT_EQ(nodesWritten(volume), (std::vector<uint32_t>{1}));
    EXPECT_FALSE(btree.isDirty());

    volume.memory().clearOperations();
    EXPECT_TRUE(btree.flush());
    EXPECT_EQ(nodesWritten(volume), std::vector<uint32_t>());
}

TEST(HFSPlusBTreeFile, FlushWritesDirtyNodesInAscendingOrder)
{
    HFSPlusOpenedVolume volume(volumeWithFreeNodes(20));
    volume.beginChanges();
    HFSPlusExtents& btree = volume->extents();
    const HFSPlusCachedNode referenced = btree.cachedNodeWithIndex(11, {}, nullptr);
    referenced->setDirty(true);
    for (const uint32_t index : {7u, 13u, 3u, 5u}) {
        touch(btree, index);
    }
    btree.setFirstLeafNode(3);

    EXPECT_TRUE(btree.flush());
    EXPECT_EQ(nodesWritten(volume), (std::vector<uint32_t>{0, 3, 5, 7, 11, 13}));
}

TEST(HFSPlusBTreeFile, MapBitsBeyondTheHeaderNodeReachTheirMapNode)
{
    HFSPlusOpenedVolume volume(volumeWithFreeNodes(5000, 512));
    volume.beginChanges();
    HFSPlusExtents& btree = volume->extents();
    const uint32_t freeNodes = btree.freeNodes();
    const uint32_t firstMapNode = btree.cachedNodeWithIndex(0, {}, nullptr)->fLink();
    ASSERT_NE(firstMapNode, 0u);
    btree.markNodeAsUsed(4000);

    ASSERT_TRUE(btree.flush());

    EXPECT_EQ(nodesWritten(volume), (std::vector<uint32_t>{0, firstMapNode}));
    volume.reopen();
    EXPECT_EQ(volume->extents().freeNodes(), freeNodes - 1);
    EXPECT_EQ(volume->extents().freeNodeMap()[500], 0x80);
}

TEST(HFSPlusBTreeFile, AWriteThatFailsInAFlushIsLoggedAndNotTriedAgain)
{
    HFSPlusOpenedVolume volume(volumeWithFreeNodes(20));
    volume.beginChanges();
    HFSPlusExtents& btree = volume->extents();
    touch(btree, 3);
    touch(btree, 4);
    volume.faults().fail(FaultyBlockDevice::Operation::kWrite, 1, EIO);

    testing::internal::CaptureStderr();
    EXPECT_FALSE(btree.flush());
    const std::string log = testing::internal::GetCapturedStderr();

    EXPECT_NE(log.find("WARNING: Write failed with an error 5"), std::string::npos) << log;
    EXPECT_FALSE(btree.isDirty());
    EXPECT_TRUE(btree.flush());
    EXPECT_EQ(nodesWritten(volume), std::vector<uint32_t>());
}

TEST(HFSPlusBTreeFile, AHeaderThatCannotBeRewrittenIsLoggedAndChangesNoResult)
{
    const HFSPlusOpenedVolume volume(volumeWithFreeNodes(20));
    HFSPlusExtents& btree = volume->extents();
    btree.setNodeCacheSize(btree.nodeSize());
    take(btree, 5);
    btree.setFirstLeafNode(2);
    volume.faults().fail(FaultyBlockDevice::Operation::kRead, 1, EIO);

    testing::internal::CaptureStderr();
    EXPECT_TRUE(btree.flush());
    EXPECT_NE(testing::internal::GetCapturedStderr().find("WARNING: "), std::string::npos);
    EXPECT_FALSE(btree.isDirty());
}

TEST(HFSPlusBTreeFile, MarkingANodeAsFreeZeroesIt)
{
    const HFSPlusOpenedVolume volume(volumeWithFreeNodes(20));
    HFSPlusExtents& btree = volume->extents();
    const uint32_t freeNodes = btree.freeNodes();

    ASSERT_TRUE(btree.markNodeAsFree(1, nullptr));

    const HFSPlusCachedNode node = btree.cachedNodeWithIndex(1, {}, nullptr);
    EXPECT_TRUE(std::ranges::all_of(node->bytes(), [](uint8_t byte) { return byte == 0; }));
    EXPECT_TRUE(node->dirty());
    EXPECT_EQ(btree.freeNodes(), freeNodes + 1);
    EXPECT_EQ(btree.getNextFreeNodeIndex(), 1u);
}

TEST(HFSPlusBTreeFile, GivenBytesMakeANodeOnlyWhenItIsNotCached)
{
    const HFSPlusOpenedVolume volume(volumeWithFreeNodes(20));
    HFSPlusExtents& btree = volume->extents();
    const std::vector<uint8_t> bytes(btree.nodeSize(), 0x5A);

    EXPECT_EQ(btree.cachedNodeWithIndex(9, bytes, nullptr)->bytes()[0], 0x5A);
    EXPECT_EQ(nodesRead(volume), std::vector<uint32_t>());
    EXPECT_NE(btree.cachedNodeWithIndex(0, bytes, nullptr)->bytes()[14], 0x5A);
}

TEST(HFSPlusBTreeFile, WhileWritesAreHeldOnlyCleanNodesLeaveTheCache)
{
    HFSPlusOpenedVolume volume(volumeWithFreeNodes(40));
    volume.beginChanges();
    HFSPlusExtents& btree = volume->extents();
    btree.setNodeCacheSize(4 * btree.nodeSize());
    {
        const HFSPlusHeldWrites held(btree);
        for (uint32_t index = 1; index <= 8; ++index) {
            touch(btree, index);
        }
        for (uint32_t index = 9; index <= 30; ++index) {
            take(btree, index);
        }
        EXPECT_EQ(nodesWritten(volume), std::vector<uint32_t>());
        volume.memory().clearOperations();
        for (uint32_t index = 1; index <= 8; ++index) {
            take(btree, index);
        }
        EXPECT_EQ(nodesRead(volume), std::vector<uint32_t>());
        take(btree, 30);
        EXPECT_EQ(nodesRead(volume), (std::vector<uint32_t>{30}));
        EXPECT_EQ(nodesWritten(volume), std::vector<uint32_t>());
    }
    EXPECT_EQ(nodesWritten(volume), std::vector<uint32_t>());

    take(btree, 31);
    EXPECT_EQ(nodesWritten(volume), (std::vector<uint32_t>{1, 2, 3, 4, 5}));
    EXPECT_TRUE(btree.flush());
    EXPECT_EQ(nodesWritten(volume), (std::vector<uint32_t>{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(HFSPlusBTreeFile, ADestroyedTreeWritesItsUnreferencedDirtyNodes)
{
    HFSPlusOpenedVolume volume(volumeWithFreeNodes(20));
    const uint64_t offset = extentsNodeOffset(volume.volume(), 6);
    volume.beginChanges();
    touch(volume->extents(), 6);
    volume.close();

    const std::vector<MemoryBlockDevice::Operation> operations = volume.operations();
    EXPECT_TRUE(std::ranges::any_of(operations, [&](const auto& operation) {
        return operation.kind == MemoryBlockDevice::Operation::Kind::kWrite &&
               operation.offset == offset;
    }));
}

TEST(HFSPlusBTreeFile, ATransactionThatIsNotCommittedLeavesNoTrace)
{
    const HFSPlusOpenedVolume volume(volumeWithFreeNodes(20));
    HFSPlusExtents& btree = volume->extents();
    const uint32_t freeNodes = btree.freeNodes();
    const uint32_t free = btree.getNextFreeNodeIndex();
    {
        const HFSPlusBTreeTransaction transaction(btree);
        ASSERT_TRUE(btree.deleteExtentRecord(16, 20, 0, nullptr));
        ASSERT_TRUE(btree.insertExtentRecord({}, 5, 99, 0, nullptr));
        btree.markNodeAsUsed(free);
        ASSERT_TRUE(btree.isDirty());
    }
    EXPECT_FALSE(btree.isDirty());
    EXPECT_EQ(btree.freeNodes(), freeNodes);
    EXPECT_EQ(btree.getNextFreeNodeIndex(), free);
    EXPECT_TRUE(volume->flush(nullptr));
    EXPECT_TRUE(isSound(volume));
    EXPECT_EQ(extentsOnDisk(volume, 20).size(), 20u);
}

TEST(HFSPlusBTreeFile, ACommittedTransactionKeepsItsChanges)
{
    const HFSPlusOpenedVolume volume(volumeWithFreeNodes(20));
    HFSPlusExtents& btree = volume->extents();
    const uint32_t records = btree.headerRecord().leafRecords;
    {
        HFSPlusBTreeTransaction transaction(btree);
        ASSERT_TRUE(btree.insertExtentRecord({}, 5, 99, 0, nullptr));
        transaction.commit();
    }
    EXPECT_TRUE(btree.isDirty());
    EXPECT_EQ(btree.headerRecord().leafRecords, records + 1);
}

TEST(HFSPlusBTreeFileDeathTest, ANodeGivenBytesOfAnotherSizeAborts)
{
    const HFSPlusOpenedVolume volume(volumeWithFreeNodes(20));
    const std::vector<uint8_t> bytes(100);
    EXPECT_DEATH(std::ignore = volume->extents().cachedNodeWithIndex(9, bytes, nullptr), "PANIC");
}
