#include <filesystem>
#include <fstream>
#include <random>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlusForkExtentsFixture.h"
#include "support/TestSeed.h"

namespace {

constexpr std::string_view kCongested =
    "Overflow extents file is too congested, unable to continue.";

/** Whether the system's checker, where there is one, accepts what the device holds. */
testing::AssertionResult systemAccepts(const HFSPlusOpenedVolume& volume)
{
    if (std::system("command -v fsck.hfsplus >/dev/null 2>&1") != 0) {
        return testing::AssertionSuccess();
    }
    const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string path = testing::TempDir() + test->name() + ".img";
    std::vector<char> bytes(volume.memory().size());
    volume.memory().peek(bytes.data(), bytes.size(), 0);
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::ssize(bytes));
    const std::string command = "fsck.hfsplus -fn '" + path + "' >'" + path + ".log' 2>&1";
    const int status = std::system(command.c_str());
    std::ifstream log(path + ".log");
    const std::string text(std::istreambuf_iterator<char>(log), {});
    std::filesystem::remove(path);
    std::filesystem::remove(path + ".log");
    return status == 0 ? testing::AssertionSuccess() : testing::AssertionFailure() << text;
}

/** Moves every second block of the fork's first @p pieces pairs of blocks to @p to and beyond. */
void takeApart(HFSPlusForkExtents& fork, uint32_t from, uint32_t to, uint32_t pieces)
{
    for (uint32_t piece = 0; piece < pieces; ++piece) {
        ASSERT_TRUE(fork.moveTo(from + 2 * piece, to + 2 * piece, 1));
    }
}

/** Files with one extent of 100 blocks between files that fill the leaves of the overflow tree. */
HFSPlusVolumeBuilder crowdedVolume(uint32_t freeNodes)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(8000).extentsNodeSize(512).freeExtentsNodes(freeNodes);
    builder.file("/a", 20).data(scattered(1000, 60, 1, 2));
    builder.file("/movie", 21).data(scattered(2000, 10, 20, 22));
    builder.file("/z", 22).data(scattered(3000, 60, 1, 2));
    return builder;
}

}  // namespace

TEST(HFSPlusForkExtents, AnUpdateForWhichNodesAreMissingChangesNothing)
{
    uint32_t refusals = 0;
    for (uint32_t freeNodes = 0; freeNodes < 12; ++freeNodes) {
        for (uint32_t pieces = 1; pieces <= 100; pieces += 11) {
            const HFSPlusOpenedVolume volume(crowdedVolume(freeNodes));
            ASSERT_TRUE(volume) << volume.error();
            const HFSPlusForkHashes hashes = volume.hashes();
            const Extents before = extentsOnDisk(volume, 21);
            const auto fork = openFork(volume, 21);
            for (uint32_t piece = 0; piece < pieces; ++piece) {
                const uint32_t from = 2000 + piece % 10 * 22 + piece / 10 * 2;
                ASSERT_TRUE(moveData(volume, *fork, from, 5000 + 2 * piece, 1));
            }
            const uint32_t extents = fork->mergedExtentCount();

            std::unique_ptr<VZDefragError> error;
            if (fork->update(&error)) {
                ASSERT_TRUE(volume->flush(nullptr));
                EXPECT_EQ(extentsOnDisk(volume, 21).size(), extents);
            } else {
                ++refusals;
                EXPECT_EQ(error->description(), kCongested);
                EXPECT_FALSE(volume->extents().isDirty());
                EXPECT_FALSE(volume->catalog().isDirty());
                EXPECT_FALSE(volume->allocation().isDirty());
                EXPECT_EQ(volume->extents().freeNodes(), freeNodes);
                EXPECT_EQ(fork->mergedExtentCount(), extents);  // the working list stays
                ASSERT_TRUE(volume->flush(nullptr));
                EXPECT_EQ(extentsOnDisk(volume, 21), before);
            }
            EXPECT_EQ(volume.hashes(), hashes);
            EXPECT_TRUE(isSound(volume)) << freeNodes << " free nodes, " << pieces << " pieces";
        }
    }
    EXPECT_GT(refusals, 0u);
}

TEST(HFSPlusForkExtents, AnUpdateThatCannotReadANodeChangesNothing)
{
    const HFSPlusOpenedVolume volume(crowdedVolume(20));
    const HFSPlusForkHashes hashes = volume.hashes();
    const auto fork = openFork(volume, 21);
    for (uint32_t piece = 0; piece < 10; ++piece) {
        ASSERT_TRUE(moveData(volume, *fork, 2002 + 22 * piece, 5000 + 6 * piece, 5));
    }
    ASSERT_TRUE(volume->flush(nullptr));
    // Neither tree keeps a node that nobody holds; the bitmap is one chunk, which is in memory.
    volume->extents().setNodeCacheSize(volume->extents().nodeSize());
    volume->catalog().setNodeCacheSize(volume->catalog().nodeSize());
    uint32_t used = 0;
    ASSERT_TRUE(volume->allocation().isSet(0, 8000, used, nullptr));

    uint64_t reads = 0;
    bool updated = false;
    while (!updated) {
        volume.faults().heal();
        volume.faults().fail(FaultyBlockDevice::Operation::kRead, ++reads, EIO);
        updated = fork->update();
        EXPECT_EQ(volume->extents().isDirty(), updated);
        EXPECT_EQ(volume->catalog().isDirty(), updated);
        EXPECT_EQ(volume->allocation().isDirty(), updated);
        if (HasFailure()) {
            return;
        }
    }

    EXPECT_FALSE(volume.faults().faultReached());
    EXPECT_GT(reads, 5u);
    volume.faults().heal();
    ASSERT_TRUE(volume->flush(nullptr));
    EXPECT_TRUE(isSound(volume));
    EXPECT_EQ(volume.hashes(), hashes);
}

TEST(HFSPlusForkExtents, ExtentsThatChangePlacesBetweenRecordsStayMarked)
{
    const HFSPlusOpenedVolume volume(movieVolume(scattered(100, 9, 5, 10)));
    const HFSPlusForkHashes hashes = volume.hashes();
    const uint32_t freeBlocks = volume->hostVolumeHeader().freeBlocks;
    const auto fork = openFork(volume, 20);

    // The first extent of the catalog's record and the only one of the overflow record.
    ASSERT_TRUE(moveData(volume, *fork, 100, 700, 5));
    ASSERT_TRUE(moveData(volume, *fork, 180, 100, 5));
    ASSERT_TRUE(moveData(volume, *fork, 700, 180, 5));
    ASSERT_TRUE(fork->update());

    EXPECT_EQ(flushedExtents(volume, 20).front(), (HFSPlusCheckedExtent{180, 5}));
    EXPECT_EQ(flushedExtents(volume, 20).back(), (HFSPlusCheckedExtent{100, 5}));
    EXPECT_EQ(volume->hostVolumeHeader().freeBlocks, freeBlocks);
    EXPECT_EQ(volume.hashes(), hashes);
    EXPECT_TRUE(isSound(volume));
}

TEST(HFSPlusForkExtents, AForkStaysWhereItWasWhenTheBitsOfItsNewPlaceCannotBeRead)
{
    const HFSPlusOpenedVolume volume(movieVolume({{100, 5}}));
    const HFSPlusForkHashes hashes = volume.hashes();
    const auto fork = openFork(volume, 20);
    ASSERT_TRUE(moveData(volume, *fork, 100, 500, 5));

    // Both places lie under the bitmap's only chunk, which is not in memory yet.
    volume.faults().fail(FaultyBlockDevice::Operation::kRead, 1, EIO,
                         FaultyBlockDevice::Lasting::kFromThenOn);
    EXPECT_TRUE(failureOf([&](auto error) {
                    return fork->update(error);
                }).starts_with("Read failed with an error 5 at offset "));
    ASSERT_TRUE(volume.faults().faultReached());
    volume.faults().heal();

    EXPECT_TRUE(volume->flush(nullptr));
    EXPECT_EQ(extentsOnDisk(volume, 20), (Extents{{100, 5}}));
    EXPECT_EQ(volume.hashes(), hashes);
    EXPECT_TRUE(isSound(volume));
}

TEST(HFSPlusForkExtents, AForkStaysWhereItWasWhenTheBitsOfItsOldPlaceCannotBeRead)
{
    // The old place lies under the bitmap's second chunk, the new one under the first.
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(300000).contents(false);
    builder.file("/movie", 20).data({{280000, 5}});
    const HFSPlusOpenedVolume volume(std::move(builder));
    const uint32_t freeBlocks = volume->hostVolumeHeader().freeBlocks;
    const auto fork = openFork(volume, 20);
    ASSERT_TRUE(moveData(volume, *fork, 280000, 5000, 5));

    volume.faults().fail(FaultyBlockDevice::Operation::kRead, 1, EIO);
    EXPECT_FALSE(fork->update());
    ASSERT_TRUE(volume.faults().faultReached());

    EXPECT_EQ(flushedExtents(volume, 20), (Extents{{280000, 5}}));
    uint32_t clear = 0;
    ASSERT_TRUE(volume->allocation().isClear(5000, 5, clear, nullptr));
    EXPECT_EQ(clear, 5u);
    EXPECT_EQ(volume->hostVolumeHeader().freeBlocks, freeBlocks);
    EXPECT_TRUE(isSound(volume));

    EXPECT_TRUE(fork->update());
    EXPECT_EQ(flushedExtents(volume, 20), (Extents{{5000, 5}}));
    EXPECT_TRUE(isSound(volume));
}

TEST(HFSPlusForkExtents, TheExtentsFileInMoreThanEightPiecesIsTooCongested)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(8000).extentsNodeSize(512);
    builder.extentsFileExtents({{1000, 40}}).file("/movie", 20).data({{2000, 5}});
    const HFSPlusOpenedVolume volume(std::move(builder));
    const auto fork = openFork(volume, 3);
    takeApart(*fork, 1000, 5000, 4);  // eight extents: four moved, four left

    ASSERT_EQ(fork->mergedExtentCount(), 8u);
    ASSERT_TRUE(moveData(volume, *fork, 1020, 6000, 1));
    ASSERT_EQ(fork->mergedExtentCount(), 10u);

    EXPECT_EQ(failureOf([&](auto error) { return fork->update(error); }), kCongested);
    EXPECT_FALSE(volume->extents().isDirty());
    EXPECT_FALSE(volume->allocation().isDirty());
    EXPECT_EQ(volume->hostVolumeHeader().extentsFile.extents[0].startBlock, 1000u);
    EXPECT_TRUE(isSound(volume));
}

TEST(HFSPlusForkExtents, TheExtentsFileIsMovedThroughTheVolumeHeader)
{
    HFSPlusVolumeBuilder builder = crowdedVolume(10);
    builder.extentsFileExtents({{500, 60}});
    const HFSPlusOpenedVolume volume(std::move(builder));
    const auto fork = openFork(volume, 3);

    ASSERT_TRUE(moveData(volume, *fork, 510, 6000, 20));
    ASSERT_TRUE(fork->update());

    EXPECT_EQ(flushedExtents(volume, 3), (Extents{{500, 10}, {6000, 20}, {530, 30}}));
    EXPECT_TRUE(isSound(volume));
}

TEST(HFSPlusForkExtents, TheCatalogIsMovedWithItsOverflowRecords)
{
    HFSPlusVolumeBuilder builder = crowdedVolume(40);
    builder.catalogNodeSize(4096).catalogExtents(scattered(4000, 12, 8, 16));
    HFSPlusOpenedVolume volume(std::move(builder));
    const auto fork = openFork(volume, 4);
    {
        const HFSPlusHeldWrites held(volume->catalog());
        for (uint32_t extent = 0; extent < 12; ++extent) {
            for (uint32_t part = 0; part < 2; ++part) {
                ASSERT_TRUE(moveData(volume, *fork, 4000 + 16 * extent + 4 * part,
                                     5000 + 10 * extent + 5 * part, 4));
            }
        }
        ASSERT_TRUE(fork->update());
        ASSERT_TRUE(volume->flush(nullptr));
    }
    EXPECT_EQ(extentsOnDisk(volume, 4).size(), 24u);
    EXPECT_TRUE(isSound(volume));

    volume.reopen();
    HFSPlusCatalogLookupRecord record;
    ASSERT_TRUE(volume->catalog().copyRecordForPath(record, "/movie", nullptr));
    EXPECT_EQ(record.cnid(), 21u);
}

TEST(HFSPlusForkExtents, NoBitIsLostWhileTheAllocationFilesOwnRecordsAreRewritten)
{
    // 22 chunks of 32 KiB: more than the bitmap keeps, so they are read and written through the
    // very records that change. Every piece goes to blocks that another chunk stands for.
    constexpr uint32_t kBlocksOfChunk = 32768 * 8;
    constexpr uint32_t kChunks = 22;
    constexpr uint32_t kPiece = 16;
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(kBlocksOfChunk * kChunks).contents(false);
    builder.extentsNodeSize(512).freeExtentsNodes(100);
    builder.allocationExtents(scattered(20000, 22, 64, 100));
    builder.file("/movie", 20).data(scattered(100000, 20, 3, 100000));
    HFSPlusOpenedVolume volume(std::move(builder));
    const uint32_t freeBlocks = volume->hostVolumeHeader().freeBlocks;
    const auto fork = openFork(volume, 6);
    {
        const HFSPlusHeldWrites held(volume->allocation());
        for (uint32_t piece = 0; piece < 22 * 4; ++piece) {
            const uint32_t from = 20000 + piece / 4 * 100 + piece % 4 * kPiece;
            const uint32_t to = piece % kChunks * kBlocksOfChunk + 50000 + piece * 40;
            ASSERT_TRUE(moveData(volume, *fork, from, to, kPiece));
        }
        ASSERT_TRUE(fork->update());
        ASSERT_TRUE(volume->flush(nullptr));
    }

    EXPECT_EQ(volume->hostVolumeHeader().freeBlocks, freeBlocks);
    EXPECT_EQ(extentsOnDisk(volume, 6).size(), 88u);
    EXPECT_TRUE(isSound(volume));
}

namespace {

/** Moves random parts of random forks of a volume about and keeps its blocks in mind. */
class RandomMoves {
public:
    RandomMoves(const HFSPlusOpenedVolume& volume, std::vector<std::pair<uint32_t, uint8_t>> forks,
                uint32_t seed)
        : _volume(volume), _forks(std::move(forks)), _random(seed)
    {
    }

    /** One update with a few moves; false when the overflow file refuses it. */
    [[nodiscard]] bool perform()
    {
        const auto& [cnid, forkType] = _forks[_below(_forks.size())];
        const auto fork = openFork(_volume, cnid, forkType);
        const uint32_t moves = 1 + _below(12);
        for (uint32_t move = 0; move < moves; ++move) {
            _moveSomething(*fork);
        }
        std::unique_ptr<VZDefragError> error;
        const bool updated = fork->update(&error);
        EXPECT_TRUE(updated || error->description() == kCongested);
        return updated;
    }

private:
    uint32_t _below(size_t bound) { return static_cast<uint32_t>(_random() % bound); }

    void _moveSomething(HFSPlusForkExtents& fork)
    {
        const std::vector<HFSPlusHostExtentDescriptor> extents = fork.mergedExtents();
        // Every other time the end of one extent is continued by what follows, so that both
        // splits and joins happen.
        const uint32_t chosen = _below(extents.size());
        const HFSPlusHostExtentDescriptor& extent = extents[chosen];
        const bool joins = chosen > 0 && _below(2) == 0;
        const uint32_t offset = joins ? 0 : _below(extent.blockCount);
        const uint32_t count = 1 + _below(extent.blockCount - offset);
        const uint32_t to = joins ? extents[chosen - 1].startBlock + extents[chosen - 1].blockCount
                                  : 600 + _below(5000);
        uint32_t clear = 0;
        const bool isInRange = uint64_t{to} + count < 5990;
        if (isInRange && _volume->allocation().isClear(to, count, clear, nullptr) &&
            clear == count && !_taken(fork, to, count)) {
            // A piece of a merged extent may lie in two extents of the list; then nothing moves.
            if (fork.moveTo(extent.startBlock + offset, to, count)) {
                ASSERT_TRUE(copyBlocks(_volume, extent.startBlock + offset, to, count));
            }
        }
    }
    static bool _taken(const HFSPlusForkExtents& fork, uint32_t to, uint32_t count)
    {
        return std::ranges::any_of(fork.mergedExtents(), [&](const auto& extent) {
            return extent.startBlock < to + count && to < extent.startBlock + extent.blockCount;
        });
    }

    const HFSPlusOpenedVolume& _volume;
    std::vector<std::pair<uint32_t, uint8_t>> _forks;
    std::mt19937 _random;
};

}  // namespace

TEST(HFSPlusForkExtents, RandomMovesOfManyForksLeaveAVolumeThatCheckersAccept)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(6000).extentsNodeSize(512).freeExtentsNodes(3);
    std::vector<std::pair<uint32_t, uint8_t>> forks;
    for (uint32_t file = 0; file < 12; ++file) {
        const uint32_t start = 1000 + 200 * file;
        builder.file("/file" + std::to_string(file), 20 + file)
            .data(scattered(start, 3 + 2 * file, 3, 4));
        forks.emplace_back(20 + file, uint8_t{0});
        builder.resource(scattered(start + 120, 12, 2, 3));
        forks.emplace_back(20 + file, uint8_t{0xFF});
    }
    const HFSPlusOpenedVolume volume(std::move(builder));
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusForkHashes hashes = volume.hashes();
    const uint32_t freeBlocks = volume->hostVolumeHeader().freeBlocks;
    RandomMoves moves(volume, forks, testSeed());

    uint32_t refusals = 0;
    for (uint32_t batch = 0; batch < 25 && !HasFailure(); ++batch) {
        for (uint32_t update = 0; update < 20; ++update) {
            refusals += moves.perform() ? 0 : 1;
        }
        ASSERT_TRUE(volume->flush(nullptr));
        ASSERT_TRUE(isSound(volume));
        ASSERT_EQ(volume.hashes(), hashes);
        ASSERT_TRUE(systemAccepts(volume));
    }
    EXPECT_EQ(volume->hostVolumeHeader().freeBlocks, freeBlocks);
    EXPECT_LT(refusals, 500u);  // of 500 updates
}

TEST(HFSPlusForkExtents, ATreeThatShrinksUpdateByUpdateIsAcceptedByCheckers)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(20000).extentsNodeSize(512).freeExtentsNodes(10);
    for (uint32_t file = 0; file < 30; ++file) {
        builder.file("/file" + std::to_string(file), 20 + file)
            .data(scattered(1000 + 300 * file, 60, 1, 2));
    }
    const HFSPlusOpenedVolume volume(std::move(builder));
    ASSERT_TRUE(volume) << volume.error();
    ASSERT_GE(volume->extents().headerRecord().treeDepth, 3);
    const HFSPlusForkHashes hashes = volume.hashes();

    for (uint32_t file = 0; file < 30; ++file) {
        const uint32_t number = file * 7 % 30;  // from everywhere, not from one end
        const auto fork = openFork(volume, 20 + number);
        for (uint32_t block = 0; block < 60; ++block) {
            ASSERT_TRUE(moveData(volume, *fork, 1000 + 300 * number + 2 * block,
                                 12000 + 100 * number + block, 1));
        }
        ASSERT_TRUE(fork->update());
        ASSERT_TRUE(volume->flush(nullptr));
        ASSERT_TRUE(isSound(volume));
        ASSERT_TRUE(systemAccepts(volume));
        EXPECT_EQ(extentsOnDisk(volume, 20 + number).size(), 1u);
    }
    EXPECT_EQ(volume->extents().headerRecord().treeDepth, 0);
    EXPECT_EQ(volume.hashes(), hashes);
}
