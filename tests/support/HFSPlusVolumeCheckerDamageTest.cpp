#include <gtest/gtest.h>

#include <algorithm>

#include "support/HFSPlusVolumeCheckerSample.h"

namespace {

using Sample = HFSPlusCheckSample;
using Place = HFSPlusCheckSample::Place;

constexpr uint32_t kExtents = Sample::kExtentsFile;
constexpr uint32_t kCatalog = Sample::kCatalogFile;
constexpr uint32_t kAttributes = Sample::kAttributesFile;
constexpr uint16_t kFolderRecord = 1;
constexpr uint16_t kFileRecord = 2;

/** One field broken, and the problem that has to be among those reported. */
struct Damage {
    const char* name;
    const char* volume;
    void (*apply)(Sample& volume);
    const char* problem;
};

void PrintTo(const Damage& damage, std::ostream* stream)
{
    *stream << damage.name;
}

/** The data fork in the catalog of a file with extents enough, or with just one if that is asked.
 */
Place forkOfFile(Sample& volume, size_t extentCount)
{
    for (const HFSPlusCheckedFork& fork : volume.sound().forks) {
        if (!fork.isSpecial && fork.forkType == 0 && fork.extents.size() >= extentCount &&
            (extentCount > 1 || fork.extents.size() == 1)) {
            return volume.catalogRecord(kFileRecord, fork.cnid) + 88;
        }
    }
    return {};
}

/** The data of an overflow record whose eight extents are all in use. */
Place fullOverflowRecord(Sample& volume)
{
    return volume.leafData(kExtents,
                           [&](Place, Place data) { return volume.get(data + 60, 4) != 0; });
}

Place bitmapByte(uint64_t block)
{
    return {Sample::kAllocationFile, block / 8};
}

uint64_t firstBlock(Sample& volume, bool isUsed)
{
    uint64_t block = 100;
    while (((volume.get(bitmapByte(block), 1) >> (7 - block % 8) & 1) != 0) != isUsed) {
        ++block;
    }
    return block;
}

/** A leaf with a neighbour on both sides. */
Place middleLeaf(Sample& volume, uint32_t tree)
{
    const Place first = volume.node(tree, volume.tree(tree).firstLeafNode);
    return volume.node(tree, static_cast<uint32_t>(volume.get(first, 4)));
}

void swapFirstRecords(Sample& volume, Place node)
{
    // Records of one size: their bytes change places, the offsets stay.
    constexpr size_t kRecordSize = 76;
    for (size_t index = 0; index < kRecordSize; ++index) {
        const uint64_t first = volume.get(node + (14 + index), 1);
        const uint64_t second = volume.get(node + (14 + kRecordSize + index), 1);
        volume.put(node + (14 + index), 1, second);
        volume.put(node + (14 + kRecordSize + index), 1, first);
    }
}

Place treeHeader(uint32_t tree, uint64_t offset)
{
    return {tree, 14 + offset};
}

Place rootOf(Sample& volume, uint32_t tree)
{
    return volume.node(tree, volume.tree(tree).rootNode);
}

uint32_t firstFreeNode(Sample& volume, uint32_t tree)
{
    uint32_t number = 1;
    while ((volume.get({tree, 248 + number / 8}, 1) >> (7 - number % 8) & 1) != 0) {
        ++number;
    }
    return number;
}

const Damage kHeaderDamages[] = {
    {"SignatureUnknown", "plain4k",
     [](Sample& volume) { volume.put(Sample::headerField(0), 2, 0x482A); }, "are no HFS Plus"},
    {"BlockSizeNoPowerOfTwo", "plain4k",
     [](Sample& volume) { volume.put(Sample::headerField(40), 4, 4095); }, "blockSize is 4095"},
    {"BlockSizeZero", "plain4k", [](Sample& volume) { volume.put(Sample::headerField(40), 4, 0); },
     "blockSize is 0"},
    {"MoreBlocksThanTheDevice", "plain4k",
     [](Sample& volume) { volume.change(Sample::headerField(44), 4, 1); }, "do not fit a volume"},
    {"FreeBlocksOneTooMany", "plain4k",
     [](Sample& volume) { volume.change(Sample::headerField(48), 4, 1); }, "freeBlocks is"},
    {"FileCountOneTooFew", "plain4k",
     [](Sample& volume) { volume.change(Sample::headerField(32), 4, -1); }, "fileCount is"},
    {"FolderCountOneTooMany", "plain4k",
     [](Sample& volume) { volume.change(Sample::headerField(36), 4, 1); }, "folderCount is"},
    {"NextCatalogIDInUse", "plain4k",
     [](Sample& volume) { volume.put(Sample::headerField(64), 4, 30); }, "is not below nextCat"},
    {"NotUnmounted", "plain4k",
     [](Sample& volume) { volume.change(Sample::headerField(4), 4, -0x100); }, "was not unmounted"},
    {"CalledInconsistent", "plain4k",
     [](Sample& volume) { volume.change(Sample::headerField(4), 4, 0x800); },
     "call the volume inconsistent"},
    {"BadBlocksPromised", "plain4k",
     [](Sample& volume) { volume.change(Sample::headerField(4), 4, 0x200); },
     "bad blocks do not agree"},
    {"AlternateElsewhere", "plain4k",
     [](Sample& volume) {
         volume.put({0, volume.sound().volumeSize - 1024 + 272 + 19}, 1, 0xEE);
     },
     "alternate volume header"},
    {"AlternateOfAnotherVolume", "plain4k",
     [](Sample& volume) {
         volume.change({0, volume.sound().volumeSize - 1024 + 16}, 4, 1);
     },
     "alternate volume header"},
    {"AlternateMissing", "blk1k",
     [](Sample& volume) {
         volume.put({0, volume.sound().volumeSize - 1024}, 2, 0);
     },
     "alternate volume header"},
    {"JournalInfoBlockElsewhere", "journaled",
     [](Sample& volume) { volume.put(Sample::headerField(12), 4, 0x7FFFFFFF); },
     "journal info block 2147483647 is not"},
    {"JournalInfoBlockInFreeSpace", "journaled",
     [](Sample& volume) { volume.put(Sample::headerField(12), 4, volume.sound().totalBlocks - 2); },
     "belongs to no file"},
    {"JournalElsewhere", "journaled",
     [](Sample& volume) {
         const uint64_t info = uint64_t{volume.sound().journalInfoBlock} * 4096;
         volume.change({0, info + 36}, 8, 4096);
     },
     "the journal file is at block"},
    {"JournalNotEmpty", "journaled",
     [](Sample& volume) {
         const uint64_t info = uint64_t{volume.sound().journalInfoBlock} * 4096;
         const uint64_t journal = volume.get({0, info + 36}, 8);
         volume.put({0, info}, 4, 1);
         volume.put({0, journal}, 8, 0x4A4E4C7812345678);
         volume.put({0, journal + 8}, 8, 0x200);
         volume.put({0, journal + 16}, 8, 0x400);
     },
     "transactions wait in the journal"},
    {"JournalWithoutHeader", "journaled",
     [](Sample& volume) {
         const uint64_t info = uint64_t{volume.sound().journalInfoBlock} * 4096;
         volume.put({0, info}, 4, 1);
         volume.put({0, volume.get({0, info + 36}, 8)}, 8, 0);
     },
     "the journal has no header"},
};

const Damage kBlockDamages[] = {
    {"FreeBlockMarked", "plain4k",
     [](Sample& volume) {
         const uint64_t block = firstBlock(volume, false);
         volume.putBit({Sample::kAllocationFile, 0}, block, true);
     },
     "that nothing uses"},
    {"UsedBlockNotMarked", "plain4k",
     [](Sample& volume) {
         const uint64_t block = firstBlock(volume, true);
         volume.putBit({Sample::kAllocationFile, 0}, block, false);
     },
     "free that"},
    {"LastBlockNotMarked", "blk1k",
     [](Sample& volume) {
         volume.putBit({Sample::kAllocationFile, 0}, volume.sound().totalBlocks - 1, false);
     },
     "free that the reserved blocks uses"},
    {"ExtentOverlapsAnother", "plain4k",
     [](Sample& volume) {
         const Place fork = forkOfFile(volume, 8);
         volume.put(fork + 24, 4, volume.get(fork + 16, 4));
     },
     "overlaps"},
    {"ExtentOnTheReservedBlock", "plain4k",
     [](Sample& volume) { volume.put(forkOfFile(volume, 1) + 16, 4, 0); }, "overlaps"},
    {"ExtentBeyondTheVolume", "plain4k",
     [](Sample& volume) { volume.put(forkOfFile(volume, 1) + 16, 4, 0xFFFFFFFF); },
     "is not on the volume"},
    {"ExtentAfterAnUnusedOne", "plain4k",
     [](Sample& volume) {
         const Place fork = forkOfFile(volume, 9);
         volume.put(fork + 24, 8, 0);
     },
     "after an unused one"},
    {"ForkLongerThanItsBlocks", "plain4k",
     [](Sample& volume) { volume.put(forkOfFile(volume, 1), 8, uint64_t{1} << 60); }, "bytes in"},
    {"ForkOfOneBlockMore", "plain4k",
     [](Sample& volume) { volume.change(forkOfFile(volume, 9) + 12, 4, 1); },
     "has no overflow record"},
    {"ForkOfOneBlockLess", "plain4k",
     [](Sample& volume) { volume.change(forkOfFile(volume, 9) + 12, 4, -1); },
     "blocks, its extents"},
    {"SmallForkOfOneBlockMore", "plain4k",
     [](Sample& volume) { volume.change(forkOfFile(volume, 1) + 12, 4, 1); },
     "extents in use but lacks blocks"},
    {"OverflowRecordOfAnotherBlock", "plain4k",
     [](Sample& volume) {
         volume.change(volume.record(kExtents, volume.tree(kExtents).firstLeafNode, 0) + 11, 1, 1);
     },
     "belongs to no fork"},
    {"OverflowRecordMissing", "plain4k",
     [](Sample& volume) {
         volume.change(volume.record(kExtents, volume.tree(kExtents).firstLeafNode, 0) + 11, 1, 1);
     },
     "has no overflow record"},
    {"OverflowRecordOfNoFile", "plain4k",
     [](Sample& volume) {
         const Place last = volume.node(kExtents, volume.tree(kExtents).lastLeafNode);
         const uint64_t count = volume.get(last + 10, 2);
         volume.put(volume.record(kExtents, volume.tree(kExtents).lastLeafNode, count - 1) + 4, 4,
                    0x7FFFFFFF);
     },
     "belongs to no fork"},
    {"OverflowRecordNotFull", "plain4k",
     [](Sample& volume) {
         // The last extent joins the one before in its record; the sum stays as it was.
         const Place data = fullOverflowRecord(volume);
         volume.change(data + 52, 4, static_cast<int64_t>(volume.get(data + 60, 4)));
         volume.put(data + 56, 8, 0);
     },
     "after one that is not full"},
    {"OverflowRecordEmpty", "plain4k",
     [](Sample& volume) {
         const Place data = fullOverflowRecord(volume);
         for (uint64_t index = 0; index < 8; ++index) {
             volume.put(data + 8 * index, 8, 0);
         }
     },
     "has an empty overflow record"},
    {"ExtentsFileWithOverflow", "plain4k",
     [](Sample& volume) { volume.change(Sample::headerField(192 + 12), 4, 1); },
     "the extents overflow file has"},
};

const Damage kTreeDamages[] = {
    {"LeafRecordsOneTooMany", "plain4k",
     [](Sample& volume) { volume.change(treeHeader(kExtents, 6), 4, 1); }, "leafRecords is"},
    {"FreeNodesOneTooFew", "plain4k",
     [](Sample& volume) { volume.change(treeHeader(kExtents, 26), 4, -1); }, "freeNodes is"},
    {"TotalNodesOneTooMany", "plain4k",
     [](Sample& volume) { volume.change(treeHeader(kExtents, 22), 4, 1); },
     "are not its logicalSize"},
    {"DepthOneTooMany", "plain4k",
     [](Sample& volume) { volume.change(treeHeader(kExtents, 0), 2, 1); }, "on level 3 has kind"},
    {"DepthTooMany", "plain4k",
     [](Sample& volume) { volume.put(treeHeader(kExtents, 0), 2, 0xFFFF); }, "treeDepth is 65535"},
    {"DepthZeroOfAFullTree", "plain4k",
     [](Sample& volume) { volume.put(treeHeader(kExtents, 0), 2, 0); }, "but it is not empty"},
    {"RootOutOfRange", "plain4k",
     [](Sample& volume) { volume.put(treeHeader(kExtents, 2), 4, 0x10000000); }, "out of range"},
    {"FirstLeafElsewhere", "plain4k",
     [](Sample& volume) {
         volume.put(treeHeader(kExtents, 10), 4, volume.tree(kExtents).rootNode);
     },
     "the leaves run from"},
    {"LastLeafElsewhere", "blk1k",
     [](Sample& volume) {
         volume.put(treeHeader(kCatalog, 14), 4, volume.tree(kCatalog).rootNode);
     },
     "the leaves run from"},
    {"NodeSizeZero", "plain4k", [](Sample& volume) { volume.put(treeHeader(kCatalog, 18), 2, 0); },
     "nodeSize is 0"},
    {"KeyLengthUnknown", "plain4k",
     [](Sample& volume) { volume.put(treeHeader(kCatalog, 20), 2, 255); }, "maxKeyLength is 255"},
    {"LeafForwardLink", "plain4k",
     [](Sample& volume) { volume.change(middleLeaf(volume, kCatalog), 4, 1); }, "fLink of node"},
    {"LeafBackwardLink", "plain4k",
     [](Sample& volume) { volume.change(middleLeaf(volume, kExtents) + 4, 4, 1); },
     "bLink of node"},
    {"IndexForwardLink", "blk1k",
     [](Sample& volume) { volume.put(rootOf(volume, kExtents), 4, 5); }, "fLink of node"},
    {"IndexKeyNotTheFirst", "blk1k",
     [](Sample& volume) {
         const Place second = volume.record(kExtents, volume.tree(kExtents).rootNode, 1);
         volume.change(second + 8, 4, -1);
     },
     "is not its first key"},
    {"ChildTwice", "plain4k",
     [](Sample& volume) {
         const uint32_t root = volume.tree(kExtents).rootNode;
         volume.put(volume.record(kExtents, root, 1) + 12, 4,
                    volume.get(volume.record(kExtents, root, 0) + 12, 4));
     },
     "is reached twice"},
    {"ChildIsTheRoot", "plain4k",
     [](Sample& volume) {
         const uint32_t root = volume.tree(kExtents).rootNode;
         volume.put(volume.record(kExtents, root, 0) + 12, 4, root);
     },
     "is reached twice"},
    {"KeysUnsorted", "plain4k",
     [](Sample& volume) { swapFirstRecords(volume, middleLeaf(volume, kExtents)); },
     "does not ascend"},
    {"KeysUnsortedAcrossLeaves", "plain4k",
     [](Sample& volume) {
         const uint32_t first = volume.tree(kExtents).firstLeafNode;
         const uint64_t count = volume.get(volume.node(kExtents, first) + 10, 2);
         volume.put(volume.record(kExtents, first, count - 1) + 4, 4, 0x7FFFFFFF);
     },
     "of record 0 in node"},
    {"KeyMalformed", "plain4k",
     [](Sample& volume) { volume.put(middleLeaf(volume, kCatalog) + 14, 2, 4); }, "is malformed"},
    {"RecordOffsetBeyondTheNode", "plain4k",
     [](Sample& volume) { volume.put(middleLeaf(volume, kCatalog) + 4092, 2, 0xFFF0); },
     "record offsets of node"},
    {"MoreRecordsThanTheNodeHolds", "plain4k",
     [](Sample& volume) { volume.put(middleLeaf(volume, kCatalog) + 10, 2, 0xFFFF); },
     "cannot hold 65535 records"},
    {"NodeOfAnotherKind", "plain4k",
     [](Sample& volume) { volume.put(middleLeaf(volume, kCatalog) + 8, 1, 2); }, "has kind 0x02"},
    {"NodeOfAnotherHeight", "plain4k",
     [](Sample& volume) { volume.put(middleLeaf(volume, kCatalog) + 9, 1, 2); }, "and height 2"},
    {"UsedNodeMarkedFree", "plain4k",
     [](Sample& volume) {
         volume.putBit({kExtents, 248}, volume.tree(kExtents).rootNode, false);
     },
     "is in use but marked free"},
    {"FreeNodeMarkedUsed", "plain4k",
     [](Sample& volume) {
         volume.putBit({kExtents, 248}, firstFreeNode(volume, kExtents), true);
     },
     "is not in use but marked used"},
    {"NodeMarkedBeyondTheTree", "plain4k",
     [](Sample& volume) {
         volume.putBit({kExtents, 248}, volume.tree(kExtents).totalNodes, true);
     },
     "is not in use but marked used"},
    {"UnusedNodeNotZero", "plain4k",
     [](Sample& volume) {
         volume.put(volume.node(kExtents, firstFreeNode(volume, kExtents)) + 100, 1, 1);
     },
     "is not zero"},
    {"HeaderNodeOfAnotherKind", "plain4k",
     [](Sample& volume) {
         volume.put({kCatalog, 8}, 1, 0xFF);
     },
     "is no header node"},
    {"MapNodeThatIsNone", "plain4k",
     [](Sample& volume) {
         volume.put({kCatalog, 0}, 4, firstFreeNode(volume, kCatalog));
     },
     "is no sound map node"},
};

const Damage kRecordDamages[] = {
    {"ValenceOneTooMany", "plain4k",
     [](Sample& volume) { volume.change(volume.catalogRecord(kFolderRecord, 2) + 4, 4, 1); },
     "the valence of folder 2"},
    {"ThreadOfAnotherParent", "plain4k",
     [](Sample& volume) { volume.change(volume.threadRecord(20) + 4, 4, 1); },
     "names another place"},
    {"ThreadOfAnotherName", "plain4k",
     [](Sample& volume) { volume.change(volume.threadRecord(20) + 11, 1, 1); },
     "names another place"},
    {"ThreadOfAnotherKind", "plain4k",
     [](Sample& volume) {
         const Place thread = volume.threadRecord(20);
         volume.put(thread, 2, volume.get(thread, 2) == 3 ? 4 : 3);
     },
     "names another place"},
    {"CNIDWithoutThread", "plain4k",
     [](Sample& volume) {
         const Place file = forkOfFile(volume, 1);
         volume.put({kCatalog, file.offset - 88 + 8}, 4, 17);
     },
     "has no file or folder"},
    {"RecordOfUnknownType", "plain4k",
     [](Sample& volume) { volume.put(volume.threadRecord(20), 2, 9); },
     "a catalog record of type 9"},
    {"FlagsWithoutThread", "plain4k",
     [](Sample& volume) {
         const Place file = forkOfFile(volume, 1);
         volume.put({kCatalog, file.offset - 88 + 2}, 2, 0);
     },
     "say that it has no thread"},
    {"AttributeOfNobody", "attrs",
     [](Sample& volume) {
         const Place last = volume.node(kAttributes, volume.tree(kAttributes).lastLeafNode);
         const uint64_t count = volume.get(last + 10, 2);
         volume.put(
             volume.record(kAttributes, volume.tree(kAttributes).lastLeafNode, count - 1) + 4, 4,
             0x7FFFFFFF);
     },
     "has attributes but does not exist"},
    {"AttributeFlagMissing", "attrs",
     [](Sample& volume) {
         const Place first = volume.record(kAttributes, volume.tree(kAttributes).firstLeafNode, 0);
         const auto owner = static_cast<uint32_t>(volume.get(first + 4, 4));
         const Place record = volume.leafData(kCatalog, [&](Place, Place data) {
             return volume.get(data, 2) <= 2 && volume.get(data + 8, 4) == owner;
         });
         volume.change(record + 2, 2, -4);
     },
     "do not show its attributes"},
    {"AttributeOfUnknownKind", "attrs",
     [](Sample& volume) {
         volume.put(volume.leafData(kAttributes, [](Place, Place) { return true; }), 4, 0x40);
     },
     "has kind 0x40"},
    {"AttributeLongerThanItsRecord", "attrs",
     [](Sample& volume) {
         volume.put(volume.leafData(kAttributes, [](Place, Place) { return true; }) + 12, 4,
                    0x10000);
     },
     "an attribute record of file"},
    {"AttributeExtentsWithoutFork", "attrs",
     [](Sample& volume) {
         const Place record = volume.leafData(
             kAttributes, [&](Place, Place data) { return volume.get(data + 12, 4) == 56; });
         volume.put(record, 4, 0x30);
     },
     "belong to no fork"},
};

}  // namespace

class DamagedVolume : public testing::TestWithParam<Damage> {};

TEST_P(DamagedVolume, IsReported)
{
    HFSPlusCheckSample volume(GetParam().volume);
    ASSERT_TRUE(volume.isSound()) << volume.sound().description();

    GetParam().apply(volume);
    const HFSPlusCheckResult result = volume.check();

    EXPECT_FALSE(result.consistent);
    EXPECT_TRUE(std::any_of(result.problems.begin(), result.problems.end(),
                            [](const std::string& problem) {
                                return problem.find(GetParam().problem) != std::string::npos;
                            }))
        << result.description();
}

namespace {

std::string nameOf(const testing::TestParamInfo<Damage>& damage)
{
    return damage.param.name;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Header, DamagedVolume, testing::ValuesIn(kHeaderDamages), nameOf);
INSTANTIATE_TEST_SUITE_P(Blocks, DamagedVolume, testing::ValuesIn(kBlockDamages), nameOf);
INSTANTIATE_TEST_SUITE_P(Trees, DamagedVolume, testing::ValuesIn(kTreeDamages), nameOf);
INSTANTIATE_TEST_SUITE_P(Records, DamagedVolume, testing::ValuesIn(kRecordDamages), nameOf);
