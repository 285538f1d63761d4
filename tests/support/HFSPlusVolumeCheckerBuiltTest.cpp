#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "support/HFSPlusVolumeBuilder.h"
#include "support/HFSPlusVolumeChecker.h"
#include "support/HFSPlusVolumeCheckerSample.h"

namespace {

using Builder = HFSPlusVolumeBuilder;

/** One kind of volume, made by the builder, which shares nothing with the checker. */
struct Kind {
    const char* name;
    void (*describe)(Builder& volume);
};

void PrintTo(const Kind& kind, std::ostream* stream)
{
    *stream << kind.name;
}

/** @p count extents of one block, every @p step blocks from @p start. */
HFSPlusBuilderExtents pieces(uint32_t start, uint32_t count, uint32_t step)
{
    HFSPlusBuilderExtents extents;
    for (uint32_t index = 0; index < count; ++index) {
        extents.push_back({start + index * step, 1});
    }
    return extents;
}

template <uint32_t blockSize>
void blocksOf(Builder& volume)
{
    volume.blockSize(blockSize).totalBlocks(3000).folder("/folder", 30);
    volume.file("/folder/movie", 40).data(pieces(1000, 30, 3)).dataSize(29 * blockSize + 1);
    volume.file("/folder/song", 41).data({{2000, 10}}).resource(pieces(1001, 9, 3));
    volume.file("/empty", 42);
}

const Kind kKinds[] = {
    {"BlocksOf512", blocksOf<512>},
    {"BlocksOf1024", blocksOf<1024>},
    {"BlocksOf2048", blocksOf<2048>},
    {"BlocksOf4096", blocksOf<4096>},
    {"BlocksOf8192", blocksOf<8192>},
    {"BlocksOf65536", blocksOf<65536>},
    {"BlocksOf1048576", blocksOf<1048576>},
    {"BytesBehindTheLastBlock",
     [](Builder& volume) { volume.totalBlocks(1001).trailingBytes(1536).file("/a", 20); }},
    {"FoldedHFSX",
     [](Builder& volume) { volume.hfsx(false).file("/B/c", 20).file("/a/d", 21).folder("/a/e"); }},
    {"BinaryHFSX",
     [](Builder& volume) { volume.hfsx(true).file("/B", 20).file("/a", 21).file("/b", 22); }},
    {"Wrapped",
     [](Builder& volume) {
         volume.wrapper().totalBlocks(2000).file("/a", 20).data({{900, 5}});
     }},
    {"Journaled",
     [](Builder& volume) {
         volume.totalBlocks(4000).journal().file("/a", 20).data({{3000, 5}});
     }},
    {"JournaledWithLargeNodes",
     [](Builder& volume) {
         volume.blockSize(1024).totalBlocks(9000).journal().catalogNodeSize(8192);
         volume.file("/a", 20).data(pieces(6000, 40, 2));
     }},
    {"BigEndianJournal",
     [](Builder& volume) { volume.totalBlocks(4000).journalDetails({.littleEndian = false}); }},
    {"BlankJournal",
     [](Builder& volume) { volume.totalBlocks(4000).journalDetails({.flags = 5, .blank = true}); }},
    {"BadBlocks", [](Builder& volume) { volume.badBlocks(pieces(700, 5, 7)); }},
    {"ManyBadBlocks", [](Builder& volume) { volume.badBlocks(pieces(700, 29, 7)); }},
    {"StartupFile",
     [](Builder& volume) {
         volume.startupExtents({{600, 4}});
     }},
    {"InlineAttributes",
     [](Builder& volume) {
         volume.file("/a", 20).attribute("one", "value").attribute("two", std::string(3000, 'x'));
         volume.folder("/f", 30).attribute("one", "");
     }},
    {"ForkAttributes",
     [](Builder& volume) {
         volume.file("/a", 20).forkAttribute("big", pieces(600, 25, 3));
         volume.forkAttribute("small", {{800, 4}}).attribute("inline", "value");
     }},
    {"ExtentsTreeOfSeveralLevels",
     [](Builder& volume) {
         volume.blockSize(512).totalBlocks(60000).extentsNodeSize(512);
         volume.file("/a", 20).data(pieces(30000, 9000, 3));
         volume.file("/b", 21).resource(pieces(30001, 5000, 3));
     }},
    {"MapNodes",
     [](Builder& volume) {
         volume.blockSize(512).totalBlocks(60000).extentsNodeSize(512).freeExtentsNodes(5000);
         volume.file("/a", 20).data(pieces(30000, 9000, 3));
     }},
    {"SpecialFilesInPieces",
     [](Builder& volume) {
         volume.blockSize(512).totalBlocks(80000).catalogExtents(pieces(2000, 160, 3));
         volume.allocationExtents(pieces(5000, 20, 5)).attributesExtents(pieces(6000, 80, 3));
         volume.file("/a", 20).data({{100, 5}}).attribute("a", "b");
     }},
    {"ShuffledNodes",
     [](Builder& volume) {
         volume.totalBlocks(5000).freeCatalogNodes(7).freeExtentsNodes(3);
         volume.catalogTree().shuffled = true;
         volume.extentsTree().shuffled = true;
         volume.manyFiles(500).file("/a", 20).data(pieces(2000, 600, 3));
     }},
    {"Links",
     [](Builder& volume) {
         const std::string folder = "/" + std::string(4, '\0') + "HFS+ Private Data";
         volume.folder(folder, 30).file(folder + "/iNode31", 31).data({{700, 2}});
         volume.mode(0100644, 2).hardLink("/one", 32, 31).hardLink("/two", 33, 31);
         volume.symbolicLink("/link", 20, "one");
     }},
    {"ManyFiles",
     [](Builder& volume) { volume.blockSize(4096).totalBlocks(60000).manyFiles(40000); }},
};

using Sample = HFSPlusCheckSample;

/** A kind of volume that the samples lack, and one field of it broken. */
struct BuiltDamage {
    const char* name;
    void (*describe)(Builder& volume);
    void (*apply)(Sample& volume);
    const char* problem;
};

void PrintTo(const BuiltDamage& damage, std::ostream* stream)
{
    *stream << damage.name;
}

void forkAttribute(Builder& volume)
{
    volume.file("/a", 20).data({{900, 2}}).forkAttribute("big", pieces(600, 25, 3));
}

const BuiltDamage kDamages[] = {
    {"BitBeyondTheVolume", [](Builder& volume) { volume.totalBlocks(1001); },
     [](Sample& volume) {
         volume.putBit({Sample::kAllocationFile, 0}, 1001, true);
     },
     "marks 1 bits beyond the volume from 1001"},
    {"AttributeBlockNotMarked", forkAttribute,
     [](Sample& volume) {
         volume.putBit({Sample::kAllocationFile, 0}, 624, false);
     },
     "shows blocks 624+1 free that an attribute of file 20 uses"},
    {"AttributeBlockInAFile", forkAttribute,
     [](Sample& volume) { volume.put(volume.catalogRecord(2, 20) + 88 + 16, 4, 623); },
     "extent 624+1 of an attribute of file 20 overlaps 623+2 of the data fork of file 20"},
    {"AttributeExtentsOfAnotherBlock", forkAttribute,
     [](Sample& volume) {
         const auto data = volume.leafData(Sample::kAttributesFile, [&](auto, auto record) {
             return volume.get(record, 4) == 0x30;
         });
         // The key's block lies before the name's length and three units.
         volume.change({data.cnid, data.offset - 12}, 4, 1);
     },
     "the attribute extents of file 20 at block 9 belong to no fork"},
    {"BadBlocksOfAnotherFork", [](Builder& volume) { volume.badBlocks(pieces(700, 5, 7)); },
     [](Sample& volume) {
         volume.put(volume.record(3, volume.tree(3).firstLeafNode, 0) + 2, 1, 0xFF);
     },
     "the overflow record of the bad-block file at its block 0 belongs to no fork"},
    {"CompareTypeUnknown", [](Builder& volume) { volume.hfsx(true); },
     [](Sample& volume) {
         volume.put({Sample::kCatalogFile, 51}, 1, 0);
     },
     "keyCompareType is 0x00"},
    {"BinaryOrderReadAsFolded",
     [](Builder& volume) { volume.hfsx(true).file("/B", 20).file("/a", 21); },
     [](Sample& volume) {
         volume.put({Sample::kCatalogFile, 51}, 1, 0xCF);
     },
     "does not ascend"},
    {"FolderCountOneTooMany", [](Builder& volume) { volume.hfsx(true).folder("/a", 20); },
     [](Sample& volume) { volume.change(volume.catalogRecord(1, 2) + 84, 4, 1); },
     "folderCount of folder 2 is 2, it holds 1"},
    {"WrapperWithoutAlternate", [](Builder& volume) { volume.wrapper().totalBlocks(2000); },
     [](Sample& volume) {
         const uint64_t end = volume.reader().size() - volume.sound().volumeOffset;
         volume.put({0, end - 1024}, 2, 0);
     },
     "no alternate master directory block"},
    {"FoldersInsideEachOther", [](Builder& volume) { volume.folder("/a", 30).folder("/b", 31); },
     [](Sample& volume) {
         const auto a = volume.catalogRecord(1, 30);
         const auto b = volume.catalogRecord(1, 31);
         // The parents in their keys, before a length and a name of one unit.
         volume.put({a.cnid, a.offset - 8}, 4, 31);
         volume.put({b.cnid, b.offset - 8}, 4, 30);
     },
     "is inside itself"},
    {"NodeSplitOnAJournaledVolume",
     [](Builder& volume) {
         volume.blockSize(512).totalBlocks(9000).catalogExtents({{2000, 79}, {3000, 81}});
     },
     [](Sample& volume) { volume.change(Sample::headerField(4), 4, 0x2000); },
     "a node is split at the end of extent 2000+79"},
};

std::string nameOfDamage(const testing::TestParamInfo<BuiltDamage>& damage)
{
    return damage.param.name;
}

std::string nameOf(const testing::TestParamInfo<Kind>& kind)
{
    return kind.param.name;
}

}  // namespace

class BuiltVolume : public testing::TestWithParam<Kind> {};

TEST_P(BuiltVolume, IsConsistent)
{
    Builder builder;
    GetParam().describe(builder);
    const std::unique_ptr<MemoryBlockDevice> device = builder.build();
    ASSERT_NE(device, nullptr) << builder.error();

    HFSPlusCheckDeviceReader reader(*device);
    const HFSPlusCheckResult result = checkHFSPlusVolume(reader);

    EXPECT_TRUE(result.consistent) << result.description();
}

TEST_P(BuiltVolume, GetsTheVerdictOfTheFormatsOwnChecker)
{
    if (std::system("command -v fsck.hfsplus >/dev/null 2>&1") != 0) {
        std::fprintf(stderr, "fsck.hfsplus is not installed: only our own verdict counts.\n");
        return;
    }
    const std::string image = testing::TempDir() + "/HFSPlusVolumeChecker." +
                              std::to_string(getpid()) + "." + GetParam().name + ".img";
    Builder builder;
    GetParam().describe(builder);
    ASSERT_TRUE(builder.buildFile(image)) << builder.error();

    const int verdict = std::system(("fsck.hfsplus -fn '" + image + "' >/dev/null 2>&1").c_str());
    std::remove(image.c_str());

    EXPECT_EQ(verdict, 0);
}

INSTANTIATE_TEST_SUITE_P(HFSPlusVolumeChecker, BuiltVolume, testing::ValuesIn(kKinds), nameOf);

class DamagedBuiltVolume : public testing::TestWithParam<BuiltDamage> {};

TEST_P(DamagedBuiltVolume, IsReported)
{
    Builder builder;
    GetParam().describe(builder);
    HFSPlusCheckSample volume(builder.build());
    ASSERT_TRUE(volume.isSound()) << builder.error() << volume.sound().description();

    GetParam().apply(volume);
    const HFSPlusCheckResult result = volume.check();

    EXPECT_FALSE(result.consistent);
    EXPECT_NE(result.description().find(GetParam().problem), std::string::npos)
        << result.description();
}

INSTANTIATE_TEST_SUITE_P(HFSPlusVolumeChecker, DamagedBuiltVolume, testing::ValuesIn(kDamages),
                         nameOfDamage);

TEST(HFSPlusVolumeChecker, AnAlternateHeaderBehindTheBlocksCountsAfterThePartitionGrew)
{
    Builder builder;
    builder.totalBlocks(1000).file("/a", 20).data({{900, 2}});
    const auto device = builder.build();
    ASSERT_NE(device, nullptr) << builder.error();
    HFSPlusCheckDeviceReader reader(*device);
    std::vector<uint8_t> bytes(reader.size());
    ASSERT_TRUE(reader.read(bytes.data(), bytes.size(), 0));
    MemoryBlockDevice grown(bytes.size() + 65536);
    ASSERT_EQ(grown.writeAt(bytes.data(), bytes.size(), 0), static_cast<int64_t>(bytes.size()));

    HFSPlusCheckDeviceReader grownReader(grown);
    const HFSPlusCheckResult result = checkHFSPlusVolume(grownReader);

    EXPECT_TRUE(result.consistent) << result.description();
}

TEST(HFSPlusVolumeChecker, ForksAreThoseThatWereBuilt)
{
    Builder builder;
    const HFSPlusBuilderExtents given = pieces(600, 20, 3);
    builder.file("/a", 20).data(given).dataSize(70000).resource({{900, 3}, {910, 1}});
    const auto device = builder.build();
    ASSERT_NE(device, nullptr) << builder.error();

    HFSPlusCheckDeviceReader reader(*device);
    const HFSPlusCheckResult result = checkHFSPlusVolume(reader);

    const HFSPlusCheckedFork* data = result.forkWithCNID(20);
    ASSERT_NE(data, nullptr) << result.description();
    EXPECT_EQ(data->logicalSize, 70000U);
    EXPECT_EQ(data->totalBlocks, 20U);
    ASSERT_EQ(data->extents.size(), given.size());
    for (size_t index = 0; index < given.size(); ++index) {
        EXPECT_EQ(data->extents[index].startBlock, given[index].startBlock);
        EXPECT_EQ(data->extents[index].blockCount, given[index].blockCount);
    }
    const HFSPlusCheckedFork* resource = result.forkWithCNID(20, kHFSPlusCheckResourceFork);
    ASSERT_NE(resource, nullptr);
    EXPECT_EQ(resource->extents, (std::vector<HFSPlusCheckedExtent>{{900, 3}, {910, 1}}));
    EXPECT_EQ(result.forkWithCNID(21), nullptr);
}

TEST(HFSPlusVolumeChecker, AVolumeOfMoreThanTwoThousandMillionBlocksIsChecked)
{
    Builder builder;
    builder.blockSize(512).totalBlocks(0x80000010).contents(false);
    builder.file("/a", 20).data({{0x7FFFFFFE, 4}, {0x10000000, 0x20000000}});
    HFSPlusCheckSample volume(builder.build());
    ASSERT_TRUE(volume.isSound()) << builder.error() << volume.sound().description();

    volume.putBit({Sample::kAllocationFile, 0}, 0x80000000, false);

    EXPECT_NE(volume.check().description().find("shows blocks 2147483648+1 free"),
              std::string::npos);
}
