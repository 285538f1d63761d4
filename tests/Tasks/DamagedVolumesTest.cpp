#include <gtest/gtest.h>

#include <unordered_set>
#include <vector>

#include "Tasks/WatchedDefrag.h"
#include "support/HFSPlusVolumeBuilder.h"
#include "support/HFSPlusVolumeBuilderBytes.h"
#include "support/HFSPlusVolumeChecker.h"
#include "support/HFSPlusVolumeMutator.h"
#include "support/InterleavedFiles.h"
#include "support/TestSeed.h"

// DEFRAG and COMPACT on volumes with random damage. Whatever the bytes say, a run ends, stays
// within the volume, and leaves alone what it cannot understand.

namespace {

HFSPlusVolumeBuilder plainVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(900).extentsNodeSize(512).catalogNodeSize(4096);
    addInterleavedFiles(builder, 10, 20, 120);
    return builder;
}

HFSPlusVolumeBuilder journaledVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(1024).totalBlocks(2500).hfsx().journal(1200, 32).journalInfoBlock(1300);
    builder.catalogExtents({{60, 40}, {320, 40}}).extentsFileExtents({{420, 4}, {440, 4}});
    builder.extentsNodeSize(1024).attributesFile().attributesExtents({{480, 16}, {460, 16}});
    builder.attributesNodeSize(4096).badBlocks({{40, 2}, {1500, 3}});
    builder.catalogTree().maximumLeafRecords = 4;
    builder.catalogTree().maximumIndexRecords = 3;
    addInterleavedFiles(builder, 7, 12, 600);
    builder.attribute("inline", "some bytes").forkAttribute("fork", {{1400, 3}, {1410, 2}});
    return builder;
}

HFSPlusVolumeBuilder wrappedVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(3000).wrapper();
    builder.extentsTree().maximumLeafRecords = 3;
    builder.extentsTree().maximumIndexRecords = 3;
    builder.freeExtentsNodes(2);
    addInterleavedFiles(builder, 8, 30, 800);
    return builder;
}

HFSPlusVolumeBuilder volumeOfPieces()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(9000).hfsx(true).startupExtents({{1000, 4}});
    builder.allocationExtents({{700, 1}, {704, 1}, {702, 1}});
    builder.extentsNodeSize(512).extentsFileExtents({{720, 20}, {760, 20}});
    builder.catalogExtents({{800, 12}, {820, 13}, {840, 23}}).catalogNodeSize(4096);
    builder.catalogTree().shuffled = true;
    addInterleavedFiles(builder, 6, 25, 1100);
    return builder;
}

HFSPlusVolumeBuilder volumeOfLargeBlocks()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(65536).totalBlocks(80).extentsNodeSize(4096);
    builder.file("/one", 20).data({{60, 2}, {40, 3}, {50, 1}}).dataSize(65536 * 5 + 17);
    builder.file("/two", 21).data({{70, 1}, {30, 2}}).resource({{45, 1}, {65, 1}});
    return builder;
}

/** A catalog mostly of free nodes, which is scanned along the chain of its leaves. */
HFSPlusVolumeBuilder volumeOfSparseCatalog()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(600).freeCatalogNodes(120);
    builder.catalogTree().maximumLeafRecords = 3;
    builder.catalogTree().maximumIndexRecords = 4;
    builder.catalogTree().shuffled = true;
    addInterleavedFiles(builder, 8, 9, 250);
    return builder;
}

/** A kind of volume, built once. */
struct Kind {
    HFSPlusVolumeBuilder builder;
    std::unique_ptr<MemoryBlockDevice> memory;
};

std::vector<Kind> kinds()
{
    std::vector<Kind> kinds;
    for (const auto make : {plainVolume, journaledVolume, wrappedVolume, volumeOfPieces,
                            volumeOfLargeBlocks, volumeOfSparseCatalog}) {
        Kind kind{make(), nullptr};
        kind.memory = kind.builder.build();
        EXPECT_NE(kind.memory, nullptr) << kind.builder.error();
        if (kind.memory != nullptr) {
            kinds.push_back(std::move(kind));
        }
    }
    return kinds;
}

std::vector<uint8_t> bytesOf(const MemoryBlockDevice& memory, uint64_t offset, size_t count)
{
    std::vector<uint8_t> bytes(count);
    memory.peek(bytes.data(), count, offset);
    return bytes;
}

/** What a checker of its own knows of the bytes on a device. */
struct Knowledge {
    explicit Knowledge(const MemoryBlockDevice& memory)
    {
        const auto copy = memory.clone();
        HFSPlusCheckDeviceReader reader(*copy);
        result = checkHFSPlusVolume(reader);
        hashes = hashForks(reader, result);
    }

    HFSPlusCheckResult result;
    HFSPlusForkHashes hashes;
};

/** Where the device says that the volume lies: a wrapper's word, or all of the device. */
std::pair<uint64_t, uint64_t> boundsOf(const MemoryBlockDevice& memory)
{
    const std::vector<uint8_t> block = bytesOf(memory, 1024, 162);
    const uint64_t embedded = getBigEndian(&block[124], 2);
    if (getBigEndian(block.data(), 2) != 0x4244 || (embedded != 0x482B && embedded != 0x4858)) {
        return {0, memory.size()};
    }
    const uint64_t size = getBigEndian(&block[20], 4);
    return {getBigEndian(&block[28], 2) * 512 + getBigEndian(&block[126], 2) * size,
            getBigEndian(&block[128], 2) * size};
}

/** No write reaches the boot blocks, the last sector or what lies around the volume. */
void expectWritesInside(const MemoryBlockDevice& before, const MemoryBlockDevice& memory)
{
    const auto [start, size] = boundsOf(before);
    for (const MemoryBlockDevice::Operation& operation : memory.operations()) {
        if (operation.kind == MemoryBlockDevice::Operation::Kind::kWrite) {
            EXPECT_GE(operation.offset, start + 1024);
            EXPECT_LE(operation.offset + operation.nbyte, start + size - 512);
        }
    }
}

/** Which bytes may differ after a run that moved nothing. */
class Repairs {
public:
    explicit Repairs(const MemoryBlockDevice& before)
        : _known(before), _old(bytesOf(before, 0, before.size())), _bits(_old.size())
    {
        const HFSPlusCheckedFork* const bitmap = _known.result.forkWithCNID(6);
        uint64_t block = 0;  // the one that the next bit of the bitmap is for
        for (size_t index = 0; bitmap != nullptr && index < bitmap->extents.size(); ++index) {
            const uint64_t start = _placeOf(bitmap->extents[index].startBlock);
            const uint64_t size = bitmap->extents[index].blockCount * _blockSize();
            for (uint64_t place = start; place < start + size && place < _old.size(); ++place) {
                _bits[place] = true;
                for (uint32_t bit = 0; bit < 8; ++bit, ++block) {
                    if (block < _known.result.totalBlocks && (_old[place] & (0x80U >> bit)) == 0) {
                        _free.insert(block);
                    }
                }
            }
        }
    }

    /** Bits of the bitmap were set, counts brought in step and free blocks written, no more. */
    void expectNothingElse(const MemoryBlockDevice& memory) const
    {
        const std::vector<uint8_t> now = bytesOf(memory, 0, memory.size());
        ASSERT_EQ(now.size(), _old.size());
        for (uint64_t place = 0; place < now.size(); ++place) {
            if (now[place] != _old[place]) {
                ASSERT_TRUE(_isInHeaders(place) || _isInFreeBlock(place) ||
                            (_bits[place] && (_old[place] & ~now[place]) == 0))
                    << "byte " << place;
            }
        }
    }

private:
    [[nodiscard]] uint64_t _blockSize() const { return _known.result.blockSize; }
    [[nodiscard]] uint64_t _placeOf(uint64_t block) const
    {
        return _known.result.volumeOffset + block * _blockSize();
    }
    /** Whether a header's free or write count is there, or the alternate header, rewritten whole.
     */
    [[nodiscard]] bool _isInHeaders(uint64_t place) const
    {
        const uint64_t inHeader = place - _known.result.volumeOffset - 1024;
        const uint64_t alternate = _known.result.volumeOffset + _known.result.volumeSize - 1024;
        return (inHeader >= 48 && inHeader < 52) || (inHeader >= 68 && inHeader < 72) ||
               (place >= alternate && place < alternate + 512);
    }
    [[nodiscard]] bool _isInFreeBlock(uint64_t place) const
    {
        const uint64_t block = (place - _known.result.volumeOffset) / _blockSize();
        return block < _known.result.totalBlocks && _free.contains(block);
    }

    Knowledge _known;
    std::vector<uint8_t> _old;
    std::vector<bool> _bits;             // bytes that belong to the bitmap
    std::unordered_set<uint64_t> _free;  // blocks that the bitmap called free
};

/** Everything that must hold however a volume was damaged. */
void expectNoHarm(const MemoryBlockDevice& damaged, const MemoryBlockDevice& memory,
                  const WatchedDefrag& run)
{
    EXPECT_FALSE(run.isEndless);
    expectWritesInside(damaged, memory);
    if (!run.opened) {
        EXPECT_NE(run.openError, "");
        EXPECT_TRUE(memory.hasSameBytesAs(damaged));
        return;
    }
    EXPECT_TRUE(run.output.isWhole());
    if (!run.error().empty() && run.output.moves().empty()) {
        Repairs(damaged).expectNothingElse(memory);
    }
    const Knowledge before(damaged);
    const Knowledge after(memory);
    for (const auto& [fork, hash] : before.hashes) {
        const auto found = after.hashes.find(fork);
        EXPECT_TRUE(hash == "unreadable" || (found != after.hashes.end() && found->second == hash))
            << "file " << fork.first << " fork " << uint32_t{fork.second};
    }
    if (before.result.consistent) {
        EXPECT_TRUE(after.result.consistent) << after.result.description();
        EXPECT_EQ(after.result.freeBlocks, before.result.freeBlocks);
    }
}

void tryDamagedVolumes(const std::string& command, uint32_t rounds)
{
    const std::vector<Kind> all = kinds();
    const uint32_t seed = testSeed(1);
    uint32_t refused = 0;
    uint32_t moving = 0;
    for (uint32_t round = seed; round != seed + rounds && !testing::Test::HasFailure(); ++round) {
        std::mt19937 random(round);
        const Kind& kind = all[random() % all.size()];
        const auto memory = kind.memory->clone();
        HFSPlusVolumeMutator mutator(kind.builder.plan(), *memory, random);
        const uint64_t damages = random() % 3 != 0 ? 1 : 2 + random() % 3;
        for (uint64_t damage = 0; damage < damages; ++damage) {
            mutator.mutate();
        }
        const auto damaged = memory->clone();
        const uint32_t blockSize = kind.builder.plan().spec.blockSize;

        const uint64_t bufferSize = uint64_t{8 + random() % 200} * blockSize;

        const WatchedDefrag run =
            watchDefrag(*memory, {.command = command, .bufferSize = bufferSize});

        expectNoHarm(*damaged, *memory, run);
        EXPECT_FALSE(testing::Test::HasFailure())
            << "seed " << round << ": " << mutator.story() << run.error();
        refused += run.opened ? 0 : 1;
        moving += run.output.moves().empty() ? 0 : 1;
    }
    // Neither is all damage met at the door, nor does all of it go unnoticed.
    EXPECT_GT(refused, rounds / 10);
    EXPECT_GT(moving, rounds / 10);
}

}  // namespace

TEST(DamagedVolumes, EveryKindOfVolumeIsSoundBeforeItIsDamaged)
{
    for (const Kind& kind : kinds()) {
        const Knowledge known(*kind.memory);
        EXPECT_TRUE(known.result.consistent) << known.result.description();

        for (const char* command : {"DEFRAG", "COMPACT"}) {
            const auto memory = kind.memory->clone();
            const WatchedDefrag run =
                watchDefrag(*memory, {.command = command, .bufferSize = 400 * 1024});

            EXPECT_EQ(run.error(), "");
            EXPECT_NE(run.output.moves().size(), 0u);
            expectNoHarm(*kind.memory, *memory, run);
        }
    }
}

TEST(DamagedVolumes, ADefragEndsWithinTheVolumeAndChangesNoContents)
{
    tryDamagedVolumes("DEFRAG", testRounds(300));
}

TEST(DamagedVolumes, ACompactEndsWithinTheVolumeAndChangesNoContents)
{
    tryDamagedVolumes("COMPACT", testRounds(150));
}
