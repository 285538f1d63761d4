#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "HFSPlusVolumeTestFixture.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"

namespace {

constexpr uint32_t kMovie = 0x20;

/** A file whose data fork has nine pieces of two blocks and whose resource fork has one. */
HFSPlusVolumeBuilder dumpVolume()
{
    HFSPlusBuilderExtents extents;
    for (uint32_t piece = 0; piece < 9; ++piece) {
        extents.push_back({.startBlock = 100 + piece * 10, .blockCount = 2});
    }
    return plainVolume().file("/films/movie", kMovie).data(extents).resource({{500, 3}});
}

HFSPlusHostCatalogFile fileRecord(const HFSPlusOpenedVolume& opened)
{
    HFSPlusCatalogLookupRecord record;
    EXPECT_TRUE(opened->catalog().copyRecordForCNID(record, kMovie, nullptr) && record.isFile());
    return record.file;
}

using Dump = bool (HFSPlusVolume::*)(const HFSPlusHostCatalogFile&, VZDefragErrorSlot);

/** Dumps the file with the debug log on, then ends the process: the level is read once in one. */
[[noreturn]] void dumpAndExit(Dump dump)
{
    setenv("KLDebugLevel", "debug", 1);
    const HFSPlusOpenedVolume opened(dumpVolume());
    std::exit((opened.volume().*dump)(fileRecord(opened), nullptr) ? 0 : 1);
}

class HFSPlusVolumeDumpTest : public testing::Test {
protected:
    HFSPlusVolumeDumpTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

}  // namespace

TEST_F(HFSPlusVolumeDumpTest, ExtentsOfBothForksAreDumpedWithTheirOverflow)
{
    EXPECT_EXIT(dumpAndExit(&HFSPlusVolume::dumpFileExtents), testing::ExitedWithCode(0),
                "\\]: 100, 2, 110, 2, 120, 2, 130, 2, 140, 2, 150, 2, 160, 2, 170, 2, 180, 2\n"
                ".*\\]: 500, 3\n");
}

TEST_F(HFSPlusVolumeDumpTest, OverflowExtentsAreDumpedWithTheirBytes)
{
    EXPECT_EXIT(dumpAndExit(&HFSPlusVolume::dumpFileExtentsOverflows), testing::ExitedWithCode(0),
                "\\]: 00000020 /films/movie\n"
                ".*\\]:          000000B4 00000002:  00000000000B4000 - 00000000000B5FFF\n");
}

TEST_F(HFSPlusVolumeDumpTest, PathIsDumpedWithItsCNID)
{
    EXPECT_EXIT(dumpAndExit(&HFSPlusVolume::dumpFilePath), testing::ExitedWithCode(0),
                "\\]: 00000020 /films/movie\n");
    EXPECT_EXIT(dumpAndExit(&HFSPlusVolume::dumpFilePathFull), testing::ExitedWithCode(0),
                "\\]: 00000020 /films/movie\n");
}

TEST_F(HFSPlusVolumeDumpTest, MissingOverflowRecordFails)
{
    HFSPlusOpenedVolume opened(dumpVolume());
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusHostCatalogFile file = fileRecord(opened);
    std::unique_ptr<VZDefragError> data;
    std::unique_ptr<VZDefragError> resource;

    file.dataFork.totalBlocks += 1;
    EXPECT_FALSE(opened->dumpFileExtents(file, &data));
    file.dataFork.totalBlocks -= 1;
    file.resourceFork.totalBlocks += 1;
    EXPECT_FALSE(opened->dumpFileExtentsOverflows(file, &resource));

    ASSERT_TRUE(data && resource);
    EXPECT_EQ(data->description(), "Overflow extent record missing.");
    EXPECT_EQ(resource->description(), "Overflow extent record missing.");
}

TEST_F(HFSPlusVolumeDumpTest, PathOfAnUnknownCNIDFails)
{
    HFSPlusOpenedVolume opened(dumpVolume());
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusHostCatalogFile file = {};
    file.fileID = 4711;
    std::unique_ptr<VZDefragError> error;

    EXPECT_FALSE(opened->dumpFilePath(file, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Path lookup failed for CNID 4711.");
}

TEST_F(HFSPlusVolumeDumpTest, PathThatLeadsToAnotherCNIDFails)
{
    HFSPlusOpenedVolume opened(dumpVolume().damage(damagedCatalogRecord(kMovie, "fileID", 0x99)));
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusHostCatalogFile file = {};
    file.fileID = kMovie;
    std::unique_ptr<VZDefragError> error;

    EXPECT_FALSE(opened->dumpFilePathFull(file, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "CNID 32 -> /films/movie -> CNID 153.");
}

TEST_F(HFSPlusVolumeDumpTest, PathThatLeadsNowhereFails)
{
    HFSPlusVolumeBuilder builder = plainVolume().file("/movie", kMovie);
    std::unique_ptr<MemoryBlockDevice> memory = builder.build();
    ASSERT_NE(memory, nullptr) << builder.error();
    // The file's thread: its key, its type, its parent, and a name that the file does not have.
    const std::string key("\0\x06\0\0\0\x20\0\0\0\x04", 10);
    constexpr uint64_t kNameOffset = 18;
    std::string bytes(memory->size(), '\0');
    memory->peek(bytes.data(), bytes.size(), 0);
    const size_t thread = bytes.find(key);
    ASSERT_NE(thread, std::string::npos);
    memory->poke("\0n", 2, thread + kNameOffset);
    const HFSPlusOpenedVolume opened(std::move(memory));
    ASSERT_TRUE(opened) << opened.error();
    HFSPlusHostCatalogFile file = {};
    file.fileID = kMovie;
    std::unique_ptr<VZDefragError> error;

    EXPECT_FALSE(opened->dumpFilePathFull(file, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "File lookup failed for /novie.");
}
