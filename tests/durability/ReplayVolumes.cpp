#include "durability/ReplayVolumes.h"

#include <algorithm>

#include "support/BootCachePlaylist.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"
#include "support/HFSPlusVolumeBuilderTesting.h"
#include "support/RandomVolume.h"

namespace {

constexpr uint32_t kBlockSizes[] = {512, 1024, 2048, 4096, 8192, 16384, 32768, 65536};
constexpr uint64_t kBytesPerRun = 32;  // of a map's memory
constexpr uint64_t kMostRandomBytes = uint64_t{2} << 20;

/** Forks of so many extents each. */
struct Shape {
    uint32_t forks = 1;
    uint32_t extents = 1;
};

/** What a volume has beside its files. */
enum class Extra : uint8_t {
    kNothing,
    kWrapper,
    kJournal,
    kObstacles,
    kAttributes,
    kMovedTrees,
    kMovedBitmap,
    kLargeDeviceBlocks,
    kCount
};

constexpr const char* kExtraNames[] = {
    "plain",      "wrapped",     "journaled",    "obstacles",
    "attributes", "moved trees", "moved bitmap", "large device blocks",
};

std::string fileName(uint32_t number)
{
    return "/file " + std::to_string(number);
}

/** Interleaves the pieces of all forks from @p first on, with a free block behind every second; the
 *  block behind the last. Every third fork is a resource fork. */
uint32_t addInterleavedForks(HFSPlusVolumeBuilder& builder, Shape shape, uint32_t first,
                             uint32_t blockSize)
{
    std::vector<HFSPlusBuilderExtents> forks(shape.forks);
    uint32_t block = first;
    for (uint32_t piece = 0; piece < shape.extents; ++piece) {
        for (uint32_t fork = 0; fork < shape.forks; ++fork) {
            const uint32_t count = 1 + (piece + fork) % 3 / 2;
            forks[fork].push_back({block, count});
            block += count + (piece + fork) % 2;
        }
        // A lone fork's pieces need something between them.
        block += shape.forks == 1 ? 1 : 0;
    }
    for (uint32_t fork = 0; fork < shape.forks; ++fork) {
        builder.file(fileName(fork));
        const uint64_t size = HFSPlusBuilderFork{forks[fork], {}, 0, {}}.size(blockSize);
        if (fork % 3 == 2) {
            builder.resource(forks[fork]).resourceSize(size - 7);
        } else {
            builder.data(forks[fork]).dataSize(size - fork);
        }
    }
    return block;
}

/** Adds @p extra behind block @p end; where that ends. */
uint32_t addExtra(ReplayVolume& volume, Extra extra, uint32_t blockSize, uint32_t end)
{
    HFSPlusVolumeBuilder& builder = volume.builder;
    const uint32_t node = std::max(1U, 4096 / blockSize);
    switch (extra) {
        case Extra::kWrapper:
            builder.wrapper();
            return end;
        case Extra::kJournal: {
            const uint32_t journal = std::max(2U, 16384 / blockSize);
            builder.journal(end + 1, journal).journalInfoBlock(end + journal + 2);
            return end + journal + 3;
        }
        case Extra::kObstacles:
            builder.badBlocks({{end, 1}, {end + 3, 2}}).startupExtents({{end + 6, 2}});
            return end + 8;
        case Extra::kAttributes:
            builder.attributesFile().attributesNodeSize(4096);
            builder.attributesExtents({{end, 3 * node}, {end + 4 * node, 3 * node}});
            builder.file(fileName(0)).attribute("small", "of a few bytes");
            builder.forkAttribute("large", {{end + 8 * node, 2}, {end + 8 * node + 3, 1}});
            return end + 8 * node + 4;
        case Extra::kMovedTrees:
            builder.catalogExtents(comb(end + 1, 4, 3 * node, 4 * node));
            builder.extentsFileExtents(comb(end + 17 * node, 3, 2 * node, 3 * node));
            return end + 28 * node;
        case Extra::kMovedBitmap:
            builder.allocationExtents({{end + 2, 1}, {end + 5, 1}});
            return end + 6;
        case Extra::kLargeDeviceBlocks:
            volume.deviceBlockSize = 4096;
            return end;
        case Extra::kNothing:
        case Extra::kCount:
            break;
    }
    return end;
}

/** Forks in pieces, on blocks of any size, with one thing more. */
ReplayVolume interleavedVolume(uint32_t blockSize, Shape shape, Extra extra)
{
    ReplayVolume volume;
    volume.name = std::to_string(shape.forks) + " forks of " + std::to_string(shape.extents) +
                  " extents, blocks of " + std::to_string(blockSize) + ", " +
                  kExtraNames[static_cast<size_t>(extra)];
    volume.builder.blockSize(blockSize).extentsNodeSize(blockSize < 4096 ? 512 : 4096);
    volume.builder.freeExtentsNodes(4);
    const uint32_t first = std::max(8U, 49152 / blockSize);
    uint32_t end = addInterleavedForks(volume.builder, shape, first, blockSize);
    end = addExtra(volume, extra, blockSize, end);
    const uint32_t room = std::max(8U, (end - first) / 2);
    const uint32_t total = end + room;
    volume.builder.totalBlocks(total + total % 8);
    volume.bufferSize = uint64_t{3 + shape.extents % 5} * blockSize;
    return volume;
}

bool suitsBlockSize(Extra extra, uint32_t blockSize)
{
    switch (extra) {
        case Extra::kLargeDeviceBlocks:
            return blockSize >= 4096;
        case Extra::kMovedTrees:
            return blockSize <= 8192;
        default:
            return true;
    }
}

void addInterleavedVolumes(std::vector<ReplayVolume>& volumes)
{
    constexpr Shape kShapes[] = {{1, 1}, {1, 20}, {2, 9}, {3, 12}, {4, 20}, {5, 3}, {6, 8}};
    uint32_t turn = 0;
    for (const uint32_t blockSize : kBlockSizes) {
        for (Shape shape : kShapes) {
            // Large blocks take no long forks, or the volume were not small.
            const uint32_t most = std::max(2U, uint32_t{163840} / blockSize);
            shape.extents = std::min(shape.extents, most);
            auto extra = static_cast<Extra>(turn++ % static_cast<uint32_t>(Extra::kCount));
            if (!suitsBlockSize(extra, blockSize)) {
                extra = Extra::kNothing;
            }
            volumes.push_back(interleavedVolume(blockSize, shape, extra));
        }
    }
}

/** A whole file at the front and free runs of one block, so that moving it out of the way gives it
 *  more overflow records than one node holds; in the end they are not needed any more. */
ReplayVolume splittingVolume(uint32_t blockSize, uint32_t cacheSize)
{
    ReplayVolume volume;
    volume.name = "splitting overflow tree, blocks of " + std::to_string(blockSize);
    HFSPlusVolumeBuilder& builder = volume.builder;
    const uint32_t first = std::max(24U, 65536 / blockSize);
    builder.blockSize(blockSize).extentsNodeSize(512).freeExtentsNodes(16);
    builder.file("/in the way").data({{first, 80}});
    // Files of eight extents each, which need no record; free blocks between all of them.
    for (uint32_t file = 0; file < 16; ++file) {
        builder.file(fileName(file)).data(comb(first + 80 + 2 * file, 8, 1, 32));
    }
    builder.file("/end").data({{first + 336, 140}});
    builder.totalBlocks(first + 480);
    volume.bufferSize = uint64_t{60} * blockSize;
    volume.nodeCacheSize = cacheSize;
    return volume;
}

/** Every special file in pieces among the files' pieces. */
ReplayVolume movingEverything(uint32_t blockSize, bool isJournaled)
{
    ReplayVolume volume;
    volume.name = "all special files in pieces, blocks of " + std::to_string(blockSize) +
                  (isJournaled ? ", journaled" : "");
    HFSPlusVolumeBuilder& builder = volume.builder;
    const uint32_t node = std::max(1U, 4096 / blockSize);
    const uint32_t first = std::max(4U, 16384 / blockSize);
    builder.blockSize(blockSize).totalBlocks(first + 90 * node + 150);
    builder.allocationExtents({{first + 3, 1}, {first + 9, 1}});
    builder.catalogExtents(comb(first + 12, 5, 2 * node, 5 * node));
    builder.extentsFileExtents(comb(first + 12 + 3 * node, 4, node, 5 * node));
    const uint32_t rest = first + 12 + 30 * node;
    builder.file("/a").data(comb(rest, 14, 2, 7)).resource(comb(rest + 3, 14, 1, 7));
    builder.file("/b").data(comb(rest + 5, 14, 1, 7));
    builder.file("/c").data({{first, 2}, {first + 5, 3}});
    if (isJournaled) {
        const uint32_t journal = std::max(2U, 16384 / blockSize);
        builder.journal(rest + 110, journal).journalInfoBlock(rest + 105);
    }
    volume.bufferSize = uint64_t{12 * node} * blockSize;
    volume.nodeCacheSize = 8192;
    return volume;
}

/** Fragmented applications, and a playlist that names blocks of three forks. */
ReplayVolume profiledVolume(uint32_t blockSize, const std::string& profiles)
{
    ReplayVolume volume;
    volume.name = "profiles " + profiles + ", blocks of " + std::to_string(blockSize);
    volume.profiles = profiles;
    HFSPlusVolumeBuilder& builder = volume.builder;
    const uint32_t first = std::max(8U, 49152 / blockSize);
    builder.blockSize(blockSize).totalBlocks(first + 200);
    builder.file("/movie").data({{first + 40, 10}, {first + 70, 15}, {first + 10, 5}});
    builder.file("/song").data({{first + 50, 4}, {first + 60, 4}}).resource({{first + 64, 2}});
    builder.file("/Applications/A.app/run").data({{first + 17, 3}, {first + 25, 3}});
    builder.file("/Applications/A.app/help").data(comb(first + 100, 12, 1, 2));
    const auto entryAt = [&](uint64_t block, uint32_t group) {
        return PlaylistEntry{block * blockSize, blockSize, group};
    };
    // The playlist lies where the first data go.
    addPlaylist(
        builder,
        playlistBytes({entryAt(first + 100, 3), entryAt(first + 64, 1), entryAt(first + 70, 2)}),
        {{first, 1}});
    volume.bufferSize = uint64_t{8} * blockSize;
    return volume;
}

/** More files than the smallest cache has nodes for, so that changes are written by eviction. */
ReplayVolume evictingVolume(uint32_t blockSize)
{
    ReplayVolume volume;
    volume.name = "evictions, blocks of " + std::to_string(blockSize);
    HFSPlusVolumeBuilder& builder = volume.builder;
    const uint32_t first = std::max(32U, 114688 / blockSize);
    builder.blockSize(blockSize).totalBlocks(first + 380).catalogNodeSize(4096);
    builder.extentsNodeSize(512).freeExtentsNodes(20);
    const std::string longName(180, 'x');
    for (uint32_t file = 0; file < 40; ++file) {
        builder.file(fileName(file) + longName).data(comb(first + 2 * file, 2, 1, 90));
    }
    for (uint32_t file = 0; file < 4; ++file) {
        builder.file("/long" + fileName(file)).data(comb(first + 180 + 2 * file, 16, 1, 10));
    }
    volume.bufferSize = uint64_t{60} * blockSize;
    volume.nodeCacheSize = 512;
    return volume;
}

/** Hardly any room, which splits what is moved out of the way. */
ReplayVolume crowdedVolume(uint32_t blockSize)
{
    ReplayVolume volume;
    volume.name = "crowded, blocks of " + std::to_string(blockSize);
    const uint32_t first = std::max(8U, 49152 / blockSize);
    volume.builder.blockSize(blockSize).totalBlocks(first + 160);
    volume.builder.extentsNodeSize(std::min(4096U, std::max(512U, blockSize))).freeExtentsNodes(6);
    for (uint32_t file = 0; file < 6; ++file) {
        volume.builder.file(fileName(file)).data(comb(first + 2 * file, 10, 2, 12));
    }
    volume.bufferSize = uint64_t{6} * blockSize;
    volume.spanMemory = 40 * kBytesPerRun;
    return volume;
}

}  // namespace

std::vector<ReplayVolume> replayVolumes()
{
    std::vector<ReplayVolume> volumes;
    addInterleavedVolumes(volumes);
    for (const uint32_t blockSize : {512U, 1024U, 4096U}) {
        volumes.push_back(splittingVolume(blockSize, blockSize == 512 ? 2048 : 0));
        volumes.push_back(movingEverything(blockSize, false));
        volumes.push_back(movingEverything(blockSize, true));
        volumes.push_back(crowdedVolume(blockSize));
        volumes.push_back(evictingVolume(blockSize));
    }
    for (const char* profiles : {"boot", "app", "boot,app"}) {
        volumes.push_back(profiledVolume(profiles[0] == 'a' ? 512 : 4096, profiles));
    }
    return volumes;
}

std::vector<ReplayVolume> volumesWithAWrongBitmap()
{
    std::vector<ReplayVolume> volumes;
    for (const uint32_t blockSize : {512U, 4096U}) {
        ReplayVolume volume = interleavedVolume(blockSize, {3, 12}, Extra::kNothing);
        volume.name += ", wrong bitmap";
        const uint32_t first = std::max(8U, 49152 / blockSize);
        const uint32_t freeBlocks = checked(*volume.builder.build()).freeBlocks;
        volume.builder.damage(damagedBitmap(first, 2, false));
        volume.builder.damage(damagedHeader("freeBlocks", freeBlocks + 2));
        volumes.push_back(std::move(volume));
    }
    return volumes;
}

void varyReplay(ReplayVolume& volume, std::mt19937& random)
{
    const auto below = [&](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
    volume.bufferSize = volume.bufferSize * (3 + below(14)) / 8;
    volume.nodeCacheSize = below(2) == 0 ? 0 : 4096 + 4096 * below(3);
    volume.spanMemory = below(3) == 0 ? kBytesPerRun * (25 + below(60)) : 0;
}

ReplayVolume randomReplayVolume(std::mt19937& random)
{
    RandomVolume layout(random);
    ReplayVolume volume;
    uint64_t size = 0;
    do {
        volume.builder = layout.make();
        size = uint64_t{layout.totalBlocks()} * layout.blockSize();
    } while (size > kMostRandomBytes || !HFSPlusVolumeBuilder(volume.builder).build());
    volume.name = "any layout: " + layout.description();
    volume.deviceBlockSize = layout.deviceBlockSize();
    volume.bufferSize = uint64_t{1 + random() % 60} * layout.blockSize();
    volume.nodeCacheSize = random() % 4 == 0 ? 8192 : 0;
    volume.spanMemory = random() % 3 == 0 ? kBytesPerRun * (25 + random() % 60) : 0;
    return volume;
}
