#include "HFSPlus/HFSPlusBTreeNode.h"

#include <array>

#include "HFSPlusTreeFixture.h"

namespace {

constexpr uint32_t kNodeSize = 512;
constexpr uint32_t kFreshNode = 5;  // free on every volume built here
constexpr std::string_view kInternal = "Internal error: HFSPlus/HFSPlusBTreeNode.cpp:";

std::string internalError(unsigned line)
{
    return std::string(kInternal) + std::to_string(line);
}

/** A record of @p size bytes with a key of four bytes, all of them @p fill. */
std::vector<uint8_t> record(uint8_t fill, size_t size = 20)
{
    std::vector<uint8_t> bytes(size, fill);
    bytes[0] = 0;
    bytes[1] = 4;
    return bytes;
}

/** A tree with a node that was just set up. */
class HFSPlusBTreeNodeTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(_volume) << _volume.error();
        ASSERT_EQ(btree().nodeSize(), kNodeSize);
        _node = btree().cachedNodeWithIndex(kFreshNode, {}, nullptr);
        ASSERT_TRUE(_node);
        _node->setupNewNode(kBTIndexNode);
    }

    HFSPlusExtents& btree() { return _volume->extents(); }
    HFSPlusBTreeNode& node() { return *_node; }
    [[nodiscard]] bool insert(const std::vector<uint8_t>& bytes, uint32_t index)
    {
        return node().insertRecordData(bytes, index, nullptr);
    }
    [[nodiscard]] std::vector<uint8_t> recordAt(uint32_t index)
    {
        const std::span<const uint8_t> bytes = node().recordAtIndex(index);
        return {bytes.begin(), bytes.end()};
    }

private:
    static HFSPlusVolumeBuilder _builder()
    {
        HFSPlusVolumeBuilder builder;
        builder.blockSize(512).extentsNodeSize(kNodeSize).freeExtentsNodes(10);
        return builder;
    }

    HFSPlusOpenedVolume _volume{_builder()};
    HFSPlusCachedNode _node;
};

}  // namespace

TEST_F(HFSPlusBTreeNodeTest, ANewNodeIsEmptyAndSound)
{
    EXPECT_TRUE(node().hasSoundRecords());
    EXPECT_EQ(node().recordCount(), 0u);
    EXPECT_EQ(node().freeSpace(), kNodeSize - 14 - 2);
    EXPECT_TRUE(node().dirty());
}

TEST_F(HFSPlusBTreeNodeTest, TheHeightOfANewNodeFollowsFromItsKind)
{
    node().setupNewNode(kBTLeafNode);
    EXPECT_EQ(node().height(), 1);
    node().setupNewNode(kBTIndexNode);
    EXPECT_EQ(node().height(), 2);
    node().setupNewNode(kBTMapNode);
    EXPECT_EQ(node().height(), 0);
    EXPECT_EQ(node().kind(), kBTMapNode);
}

TEST_F(HFSPlusBTreeNodeTest, DescriptorFieldsAreKeptInDiskOrderAndMarkTheNodeDirty)
{
    node().setDirty(false);
    node().setFLink(0x01020304);
    EXPECT_TRUE(node().dirty());
    node().setBLink(0x05060708);
    node().setKind(kBTLeafNode);
    node().setHeight(9);

    const std::array<uint8_t, 10> expected = {1, 2, 3, 4, 5, 6, 7, 8, 0xFF, 9};
    EXPECT_TRUE(std::ranges::equal(node().bytes().first(10), expected));
    EXPECT_EQ(node().fLink(), 0x01020304u);
    EXPECT_EQ(node().bLink(), 0x05060708u);
}

TEST_F(HFSPlusBTreeNodeTest, RecordsAreInsertedInFrontBetweenAndBehind)
{
    ASSERT_TRUE(insert(record(2), 0));
    ASSERT_TRUE(insert(record(1, 30), 0));
    ASSERT_TRUE(insert(record(4), 2));
    ASSERT_TRUE(insert(record(3, 10), 2));

    ASSERT_EQ(node().recordCount(), 4u);
    EXPECT_TRUE(node().hasSoundRecords());
    EXPECT_EQ(recordAt(0), record(1, 30));
    EXPECT_EQ(recordAt(1), record(2));
    EXPECT_EQ(recordAt(2), record(3, 10));
    EXPECT_EQ(recordAt(3), record(4));
    EXPECT_EQ(node().freeSpace(), kNodeSize - 14 - 80 - 2 * 5);
}

TEST_F(HFSPlusBTreeNodeTest, InsertingARecordOfExactlyTheFreeSpaceMinus2IsRefused)
{
    ASSERT_TRUE(insert(record(1), 0));
    const uint32_t freeSpace = node().freeSpace();
    node().setDirty(false);
    const std::vector<uint8_t> exact = record(2, freeSpace - 2);

    EXPECT_EQ(failureOf([&](auto error) { return node().insertRecordData(exact, 1, error); }),
              internalError(357));
    EXPECT_EQ(node().recordCount(), 1u);
    EXPECT_FALSE(node().dirty());

    EXPECT_TRUE(insert(record(2, freeSpace - 4), 1));
    EXPECT_EQ(node().freeSpace(), 2u);
}

TEST_F(HFSPlusBTreeNodeTest, InsertingBeyondTheEndIsRefused)
{
    ASSERT_TRUE(insert(record(1), 0));

    EXPECT_EQ(failureOf([&](auto error) { return node().insertRecordData(record(2), 2, error); }),
              internalError(356));
}

TEST_F(HFSPlusBTreeNodeTest, SettingARecordWithTheSameKeyAndNewDataSucceeds)
{
    ASSERT_TRUE(insert(record(1), 0));
    node().setDirty(false);
    std::vector<uint8_t> changed = record(1);
    std::fill(changed.begin() + 6, changed.end(), uint8_t{9});

    EXPECT_TRUE(node().setRecordData(changed, 0, nullptr));
    EXPECT_EQ(recordAt(0), changed);
    EXPECT_TRUE(node().dirty());
}

TEST_F(HFSPlusBTreeNodeTest, SettingARecordWithAChangedKeyIsRefused)
{
    ASSERT_TRUE(insert(record(1), 0));
    for (const size_t position : {1u, 2u, 3u, 4u, 5u}) {
        std::vector<uint8_t> changed = record(1);
        changed[position] ^= 0x40;
        EXPECT_EQ(failureOf([&](auto error) { return node().setRecordData(changed, 0, error); }),
                  internalError(330))
            << position;
    }
    EXPECT_EQ(recordAt(0), record(1));
}

TEST_F(HFSPlusBTreeNodeTest, SettingARecordOfAnotherSizeOrBeyondTheLastIsRefused)
{
    ASSERT_TRUE(insert(record(1), 0));

    EXPECT_EQ(failureOf([&](auto error) { return node().setRecordData(record(1), 1, error); }),
              internalError(323));
    EXPECT_EQ(failureOf([&](auto error) { return node().setRecordData(record(1, 22), 0, error); }),
              internalError(324));
}

TEST_F(HFSPlusBTreeNodeTest, DeletingMovesTheLaterRecordsDown)
{
    for (uint8_t index = 0; index < 4; ++index) {
        ASSERT_TRUE(insert(record(index), index));
    }
    const uint32_t freeSpace = node().freeSpace();

    ASSERT_TRUE(node().deleteRecordAtIndex(1, nullptr));

    ASSERT_EQ(node().recordCount(), 3u);
    EXPECT_TRUE(node().hasSoundRecords());
    EXPECT_EQ(recordAt(0), record(0));
    EXPECT_EQ(recordAt(1), record(2));
    EXPECT_EQ(recordAt(2), record(3));
    EXPECT_EQ(node().freeSpace(), freeSpace + 22);
}

TEST_F(HFSPlusBTreeNodeTest, DeletingBeyondTheLastRecordIsRefused)
{
    EXPECT_EQ(failureOf([&](auto error) { return node().deleteRecordAtIndex(0, error); }),
              internalError(407));
}

TEST_F(HFSPlusBTreeNodeTest, OnlyRecordsOfLeavesAreCounted)
{
    const uint32_t before = btree().headerRecord().leafRecords;
    ASSERT_TRUE(insert(record(1), 0));
    ASSERT_TRUE(node().deleteRecordAtIndex(0, nullptr));
    EXPECT_EQ(btree().headerRecord().leafRecords, before);

    node().setupNewNode(kBTLeafNode);
    ASSERT_TRUE(insert(record(1), 0));
    EXPECT_EQ(btree().headerRecord().leafRecords, before + 1);
    ASSERT_TRUE(node().deleteRecordAtIndex(0, nullptr));
    EXPECT_EQ(btree().headerRecord().leafRecords, before);
}

TEST_F(HFSPlusBTreeNodeTest, ARecordTooShortForAStructureIsNone)
{
    ASSERT_TRUE(insert(record(1, 12), 0));

    EXPECT_NE(node().recordAs<HFSPlusExtentKey>(0), nullptr);
    EXPECT_EQ(node().recordAs<HFSPlusExtentKey>(0, 2), nullptr);
    EXPECT_EQ(node().recordAs<HFSPlusExtentKey>(0, 0xFFFF), nullptr);
    EXPECT_EQ(node().recordAs<BTHeaderRec>(0), nullptr);
}

TEST_F(HFSPlusBTreeNodeTest, OffsetsThatLeaveTheNodeOrDoNotAscendAreNotSound)
{
    ASSERT_TRUE(insert(record(1), 0));
    ASSERT_TRUE(insert(record(2), 1));
    const std::vector<uint8_t> sound(node().bytes().begin(), node().bytes().end());
    const auto isSoundWith = [&](size_t offset, uint16_t value) {
        std::vector<uint8_t> bytes = sound;
        bytes[offset] = static_cast<uint8_t>(value >> 8);
        bytes[offset + 1] = static_cast<uint8_t>(value);
        return HFSPlusBTreeNode::initWithBTree(btree(), 6, bytes, nullptr)->hasSoundRecords();
    };
    ASSERT_TRUE(isSoundWith(kNodeSize - 2, 14));

    EXPECT_FALSE(isSoundWith(kNodeSize - 2, 16));             // the first record begins at 14
    EXPECT_FALSE(isSoundWith(kNodeSize - 4, 14));             // an empty record
    EXPECT_FALSE(isSoundWith(kNodeSize - 4, 35));             // an odd offset
    EXPECT_FALSE(isSoundWith(kNodeSize - 6, 30));             // falls
    EXPECT_TRUE(isSoundWith(kNodeSize - 6, kNodeSize - 6));   // exactly full
    EXPECT_FALSE(isSoundWith(kNodeSize - 6, kNodeSize - 4));  // into the table
    EXPECT_FALSE(isSoundWith(kNodeSize - 6, 0xFFFE));
    EXPECT_FALSE(isSoundWith(10, 0xFFFF));  // more records than a node has room for
    EXPECT_FALSE(isSoundWith(10, 249));
}

TEST_F(HFSPlusBTreeNodeTest, LookingAtARecordBeyondTheLastAborts)
{
    ASSERT_TRUE(insert(record(1), 0));

    EXPECT_DEATH(std::ignore = node().recordDataAtIndex(1), "PANIC");
    EXPECT_DEATH(std::ignore = node().recordSizeAtIndex(1), "PANIC");
}
