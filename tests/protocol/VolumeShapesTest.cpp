#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "Platform/TemporaryFolder.h"
#include "protocol/DefragSession.h"
#include "protocol/VolumeJudgement.h"

namespace {

constexpr uint64_t kVolumeSize = uint64_t{400} << 20;  // bytes
constexpr uint32_t kPieceSize = 128 << 10;             // bytes
constexpr uint64_t kFirstByte = uint64_t{24} << 20;    // of the files

/** A kind of volume. */
struct Shape {
    const char* name;
    uint32_t blockSize;
    std::function<void(HFSPlusVolumeBuilder&)> add = [](HFSPlusVolumeBuilder&) {};
    size_t bytesBehind = 0;  // in the file, behind the volume
};

std::ostream& operator<<(std::ostream& stream, const Shape& shape)
{
    return stream << shape.name;
}

/** What must stay where it is, at the back and so out of the way of the forks. */
void addFixedFiles(HFSPlusVolumeBuilder& builder)
{
    builder.startupExtents({{90000, 20}, {91000, 20}})
        .badBlocks({{92000, 1}, {93000, 3}})
        .file("/documented", 90)
        .automaticData(3)
        .forkAttribute("note", {{94000, 10}, {95000, 10}})
        .attribute("colour", "blue");
}

void addTwoForkedFiles(HFSPlusVolumeBuilder& builder)
{
    builder.file("/two", 80).data({{20000, 5}, {20010, 7}}).resource({{20005, 5}, {20030, 9}});
    builder.file("/small", 81).resource({{20100, 1}, {20102, 1}}).resourceSize(4097);
}

std::vector<Shape> shapes()
{
    std::vector<Shape> all = {
        {"Blocks512", 512},
        {"Blocks1024", 1024},
        {"Blocks2048", 2048},
        {"Blocks4096", 4096},
        {"Blocks8192", 8192},
        {"Blocks16384", 16384},
        {"Blocks32768", 32768},
        {"Blocks65536", 65536},
        {"Wrapped", 4096, [](HFSPlusVolumeBuilder& builder) { builder.wrapper(); }},
        {"WrappedBlocks512", 512, [](HFSPlusVolumeBuilder& builder) { builder.wrapper(); }},
        {"HFSX", 4096, [](HFSPlusVolumeBuilder& builder) { builder.hfsx(); }},
        {"HFSXBinary", 4096, [](HFSPlusVolumeBuilder& builder) { builder.hfsx(true); }},
        {"Journaled", 4096, [](HFSPlusVolumeBuilder& builder) { builder.journal(); }},
        {"JournaledBlocks1024", 1024, [](HFSPlusVolumeBuilder& builder) { builder.journal(); }},
        {"FixedFiles", 4096, addFixedFiles},
        {"BothForks", 4096, addTwoForkedFiles},
        {"CatalogInPieces", 4096,
         [](HFSPlusVolumeBuilder& builder) {
             builder.catalogExtents({{30000, 10}, {30020, 10}, {30040, 12}})
                 .allocationExtents({{31000, 2}, {31010, 2}})
                 .extentsFileExtents({{32000, 8}, {32010, 8}})
                 .attributesExtents({{33000, 8}, {33010, 8}});
         }},
        {"BytesBehindTheLastBlock", 4096,
         [](HFSPlusVolumeBuilder& builder) { builder.trailingBytes(2048); }},
        {"FileOfOddSize", 4096, [](HFSPlusVolumeBuilder&) {}, 100},
    };
    return all;
}

void buildShape(const Shape& shape, const std::string& path)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(shape.blockSize)
        .totalBlocks(static_cast<uint32_t>(kVolumeSize / shape.blockSize));
    addInterleavedFiles(builder,
                        {.firstBlock = static_cast<uint32_t>(kFirstByte / shape.blockSize),
                         .files = 8,
                         .pieces = 12,
                         .pieceBlocks = std::max<uint32_t>(kPieceSize / shape.blockSize, 1),
                         .slackBytes = shape.blockSize / 3},
                        shape.blockSize);
    shape.add(builder);
    ASSERT_TRUE(builder.buildFile(path)) << builder.error();
    std::ofstream(path, std::ios::binary | std::ios::app) << std::string(shape.bytesBehind, 'x');
}

class VolumeShapes : public testing::TestWithParam<Shape> {};

TEST_P(VolumeShapes, DefragLeavesASoundVolumeWithEveryForkInOnePiece)
{
    const TemporaryFolder folder;
    const std::string path = folder.path("volume.img");
    buildShape(GetParam(), path);
    const VolumeState before = readVolumeState(path);
    ASSERT_TRUE(before.check.consistent) << before.check.description();
    ASSERT_GE(before.fragments.size(), 8U);

    const DefragTranscript run = defragImage(path);

    EXPECT_EQ(run.errors(), std::vector<std::string>());
    EXPECT_GE(run.moves().size(), 8U);
    EXPECT_EQ(readVolumeStateWithoutHashes(path).fragments, std::vector<HFSPlusCheckedFork>());
    expectUnharmed(path, before);
    for (const uint32_t cnid : {5U, 7U}) {
        const VolumeState after = readVolumeStateWithoutHashes(path);
        const HFSPlusCheckedFork* const fixed = before.check.forkWithCNID(cnid);
        ASSERT_EQ(fixed == nullptr, after.check.forkWithCNID(cnid) == nullptr);
        if (fixed != nullptr) {
            EXPECT_EQ(*after.check.forkWithCNID(cnid), *fixed);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Program, VolumeShapes, testing::ValuesIn(shapes()),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST(MetadataZone, NothingInItMovesAndNothingMovesIntoIt)
{
    // 256 MiB for a journaled volume of 10 GiB: bitmap, overflow extents, journal, catalog, hot
    // files and quotas come to some 170 MB, rounded up to what a block of the bitmap describes.
    constexpr uint32_t kZoneEnd = 65536;
    constexpr uint32_t kTotalBlocks = 2621440;
    const TemporaryFolder folder;
    const std::string path = folder.path("volume.img");
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(kTotalBlocks).journal();
    builder.file("/hot", 50).data({{40000, 10}, {41000, 10}, {kZoneEnd - 20, 20}});
    addInterleavedFiles(builder, {.firstBlock = 70000, .files = 8, .pieces = 12, .pieceBlocks = 32},
                        4096);
    ASSERT_TRUE(builder.buildFile(path)) << builder.error();
    const VolumeState before = readVolumeState(path);

    const DefragTranscript run = defragImage(path);

    EXPECT_EQ(run.errors(), std::vector<std::string>());
    ASSERT_FALSE(run.moves().empty());
    for (const PrintedMove& move : run.moves()) {
        EXPECT_GE(move.source, kZoneEnd);
        EXPECT_GE(move.destination, kZoneEnd);
    }
    const VolumeState after = readVolumeStateWithoutHashes(path);
    ASSERT_EQ(after.fragments.size(), 1U);
    EXPECT_EQ(after.fragments.front(), *before.check.forkWithCNID(50));
    // The forks follow on the zone.
    EXPECT_EQ(std::ranges::min(run.moves(), {}, &PrintedMove::destination).destination, kZoneEnd);
    expectUnharmed(path, before);
}

/** The program on an image that it may read but not write, whoever runs the test. */
TEST(ReadOnlyImage, DefragSaysSoAndChangesNothing)
{
    const TemporaryFolder folder;
    const std::string path = folder.path("volume.img");
    buildShape({"Plain", 4096}, path);
    std::filesystem::permissions(path, std::filesystem::perms::owner_read);
    ToolProcess::Setup setup = {.program = VZDEFRAG_PROGRAM, .arguments = {path}};
    if (::geteuid() == 0) {
        // The superuser may write whatever the permissions are, unless that right is given up.
        setup = {.program = "/usr/bin/setpriv",
                 .arguments = {"--bounding-set", "-dac_override", "--inh-caps", "-dac_override",
                               VZDEFRAG_PROGRAM, path}};
    }
    const VolumeState before = readVolumeState(path);

    ToolProcess process(setup);
    process.write("DEFRAG\n");
    EXPECT_EQ(process.readLine(), "READY");
    EXPECT_EQ(process.readLine(), "DEFRAG,START");
    EXPECT_EQ(process.readLine(), "DEFRAG,ERROR,Volume is read-only.");
    EXPECT_EQ(process.readLine(), "DEFRAG,DONE");
    process.write("QUIT\n");

    EXPECT_EQ(process.wait(), 0);
    const VolumeState after = readVolumeState(path);
    EXPECT_EQ(after.check.forks, before.check.forks);
    EXPECT_EQ(after.hashes, before.hashes);
}

TEST(ReadOnlyFolder, AnImageThatCanBeWrittenIsDefragmentedThere)
{
    const TemporaryFolder folder;
    const std::string path = folder.file("fixed/volume.img", "");
    buildShape({"Plain", 4096}, path);
    const VolumeState before = readVolumeState(path);
    const std::string fixed = folder.path("fixed");
    std::filesystem::permissions(
        fixed, std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);

    const DefragTranscript run = defragImage(path);

    std::filesystem::permissions(fixed, std::filesystem::perms::owner_all);
    EXPECT_EQ(run.errors(), std::vector<std::string>());
    EXPECT_EQ(readVolumeStateWithoutHashes(path).fragments, std::vector<HFSPlusCheckedFork>());
    expectUnharmed(path, before);
}

}  // namespace
