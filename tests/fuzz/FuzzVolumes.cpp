#include "fuzz/FuzzVolumes.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "support/BootCachePlaylist.h"
#include "support/HFSPlusVolumeBuilder.h"
#include "support/HFSPlusVolumeBuilderBytes.h"
#include "support/InterleavedFiles.h"

namespace {

constexpr const char* kSampleVolumes[] = {"attrs", "blk1k", "journaled", "plain4k"};

HFSPlusVolumeBuilder plainVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(1024).totalBlocks(400).extentsNodeSize(512).catalogNodeSize(4096);
    addInterleavedFiles(builder, 5, 14, 80);
    return builder;
}

HFSPlusVolumeBuilder journaledVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(1024).totalBlocks(900).hfsx().journal(700, 16).journalInfoBlock(720);
    builder.catalogExtents({{60, 40}, {120, 40}}).extentsFileExtents({{170, 4}, {180, 4}});
    builder.extentsNodeSize(1024).attributesFile().attributesExtents({{208, 16}, {188, 16}});
    builder.attributesNodeSize(4096).badBlocks({{40, 2}, {730, 3}});
    builder.catalogTree().maximumLeafRecords = 4;
    builder.catalogTree().maximumIndexRecords = 3;
    addInterleavedFiles(builder, 5, 11, 240);
    builder.attribute("inline", "some bytes").forkAttribute("fork", {{740, 3}, {750, 2}});
    return builder;
}

HFSPlusVolumeBuilder wrappedVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(1000).wrapper();
    builder.extentsTree().maximumLeafRecords = 2;
    builder.extentsTree().maximumIndexRecords = 3;
    builder.freeExtentsNodes(2);
    addInterleavedFiles(builder, 4, 34, 260);
    return builder;
}

HFSPlusVolumeBuilder volumeOfPieces()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(1900).hfsx(true).startupExtents({{300, 4}});
    builder.allocationExtents({{100, 1}, {104, 1}, {102, 1}});
    builder.extentsNodeSize(512).extentsFileExtents({{120, 20}, {160, 20}});
    builder.catalogExtents({{200, 12}, {220, 13}, {240, 23}}).catalogNodeSize(4096);
    builder.catalogTree().shuffled = true;
    addInterleavedFiles(builder, 6, 25, 400);
    return builder;
}

HFSPlusVolumeBuilder volumeOfLargeBlocks()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(65536).totalBlocks(28).extentsNodeSize(4096).contents(true);
    builder.file("/one", 20).data({{20, 2}, {12, 3}, {16, 1}}).dataSize(65536 * 5 + 17);
    builder.file("/two", 21).data({{23, 1}, {9, 2}}).resource({{15, 1}, {25, 1}});
    return builder;
}

/** A catalog mostly of free nodes, which is scanned along the chain of its leaves. */
HFSPlusVolumeBuilder volumeOfSparseCatalog()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(260).freeCatalogNodes(80);
    builder.catalogTree().maximumLeafRecords = 3;
    builder.catalogTree().maximumIndexRecords = 4;
    builder.catalogTree().shuffled = true;
    addInterleavedFiles(builder, 4, 9, 130);
    return builder;
}

/** The bytes of a hot-files tree of one leaf. */
std::string hotFilesTree()
{
    HFSPlusBuilderTree shape;
    shape.nodeSize = 1024;
    HFSPlusBuilderTreePlan plan;
    plan.nodeSize = shape.nodeSize;
    const auto load = [](HFSPlusVolumeBuilderTree& tree) {
        for (const uint32_t fileID : {20U, 21U, 22U}) {
            HFSPlusVolumeBuilderBytes key;
            key.put16(10);
            key.put16(0);
            key.put32(100);
            key.put32(fileID);
            HFSPlusVolumeBuilderBytes data;
            data.put32(0);
            if (!tree.add(key.bytes(), data.bytes())) {
                return false;
            }
        }
        return tree.finish();
    };
    HFSPlusVolumeBuilderTree counter(shape, plan, nullptr);
    if (!load(counter) || !plan.plan(shape, shape.nodeSize)) {
        return "";
    }
    std::string bytes(plan.logicalSize(), '\0');
    HFSPlusVolumeBuilderTree tree(
        shape, plan, [&](uint32_t node, std::span<const uint8_t> content) {
            std::ranges::copy(content, bytes.begin() + int64_t{node} * 1024);
            return true;
        });
    return load(tree) && tree.writeHeader({10, 2, 0}) ? bytes : "";
}

/** What the profiles ask for: a playlist, applications, and a hot-files tree. */
HFSPlusVolumeBuilder profiledVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(1024).totalBlocks(700).journal(600, 20);
    builder.file("/movie", 20).data({{300, 10}, {400, 25}, {200, 5}});
    builder.file("/song", 21).data({{310, 4}, {500, 4}}).resource({{504, 2}, {320, 2}});
    builder.file("/Applications/A.app/run", 22).data({{330, 3}, {350, 3}}).resource({{340, 4}});
    builder.file("/Applications/A.app/help/page", 23).data({{360, 2}, {370, 2}, {380, 2}});
    builder.file("/Applications/B.app/run", 24).data({{550, 9}}).dataSize(9000);
    builder.file("/Applications/empty", 25);
    const std::string tree = hotFilesTree();
    builder.file("/.hotfiles.btree", 50).dataBeginning(tree).dataSize(tree.size());
    builder.data({{520, static_cast<uint32_t>(tree.size() / 1024)}});
    addPlaylist(builder,
                playlistBytes({{.offset = 550 * 1024, .length = 1024, .group = 3},
                               {.offset = 504 * 1024, .length = 1024, .group = 1},
                               {.offset = 400 * 1024, .length = 2048, .group = 2}}),
                {{250, 1}});
    return builder;
}

/** One fork with many overflow records in a tree of several levels, and little besides. */
HFSPlusVolumeBuilder deepVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(520).extentsNodeSize(512).freeExtentsNodes(1);
    builder.extentsTree().maximumLeafRecords = 2;
    builder.extentsTree().maximumIndexRecords = 2;
    HFSPlusBuilderExtents extents;
    for (uint32_t block = 480; block > 160; block -= 4) {
        extents.push_back({block, 1 + block / 4 % 2});
    }
    builder.file("/pieces", 20).data(extents);
    builder.file("/small", 21).data({{490, 2}}).resource({{494, 2}});
    return builder;
}

/** As little as a volume can be. */
HFSPlusVolumeBuilder tinyVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(128).catalogNodeSize(4096).extentsNodeSize(512);
    builder.freeCatalogNodes(0).freeExtentsNodes(0);
    builder.file("/a", 20).data({{100, 2}, {90, 3}});
    builder.file("/b", 21).resource({{95, 1}});
    return builder;
}

/** Almost full: there is hardly room to move anything. */
HFSPlusVolumeBuilder crowdedVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(1024).totalBlocks(220).extentsNodeSize(512).catalogNodeSize(4096);
    HFSPlusBuilderExtents one;
    HFSPlusBuilderExtents two;
    for (uint32_t block = 64; block < 210; block += 6) {
        one.push_back({block, 3});
        two.push_back({block + 3, block == 64 ? 2U : 3U});
    }
    builder.file("/one", 20).data(one);
    builder.file("/two", 21).data(two);
    return builder;
}

constexpr HFSPlusVolumeBuilder (*kBuiltVolumes[])() = {
    plainVolume,           journaledVolume, wrappedVolume, volumeOfPieces, volumeOfLargeBlocks,
    volumeOfSparseCatalog, profiledVolume,  deepVolume,    tinyVolume,     crowdedVolume,
};
constexpr const char* kBuiltNames[] = {
    "plain",          "journaled", "wrapped", "pieces", "large blocks",
    "sparse catalog", "profiled",  "deep",    "tiny",   "crowded",
};

[[noreturn]] void giveUp(const std::string& why)
{
    std::cerr << why << std::endl;
    std::abort();
}

void copyBytes(HFSPlusCheckReader& reader, MemoryBlockDevice& memory, uint64_t offset, size_t count)
{
    std::vector<uint8_t> bytes(count);
    if (!reader.read(bytes.data(), count, offset)) {
        giveUp("A sample volume is shorter than it says.");
    }
    memory.poke(bytes.data(), count, offset);
}

/** The volume of the image at @p path without the contents of its files. */
std::unique_ptr<MemoryBlockDevice> metadataOf(const std::string& path)
{
    const auto reader = HFSPlusCheckFileReader::initWithPath(path);
    if (reader == nullptr) {
        giveUp("No sample volume " + path);
    }
    const HFSPlusCheckResult result = checkHFSPlusVolume(*reader);
    auto memory = std::make_unique<MemoryBlockDevice>(reader->size());
    copyBytes(*reader, *memory, 0, 4096);
    copyBytes(*reader, *memory, reader->size() - 4096, 4096);
    for (const HFSPlusCheckedFork& fork : result.forks) {
        for (const HFSPlusCheckedExtent& extent : fork.extents) {
            if (fork.isSpecial) {
                copyBytes(*reader, *memory, uint64_t{extent.startBlock} * result.blockSize,
                          size_t{extent.blockCount} * result.blockSize);
            }
        }
    }
    if (result.journalInfoBlock != 0) {
        const uint64_t info = uint64_t{result.journalInfoBlock} * result.blockSize;
        copyBytes(*reader, *memory, info, 512);
        std::array<uint8_t, 8> offset{};
        memory->peek(offset.data(), 8, info + 36);
        copyBytes(*reader, *memory, getBigEndian(offset.data(), 8), 512);
    }
    return memory;
}

FuzzVolume makeVolume(size_t index)
{
    FuzzVolume volume;
    if (index < std::size(kBuiltVolumes)) {
        HFSPlusVolumeBuilder builder = kBuiltVolumes[index]();
        volume.name = kBuiltNames[index];
        volume.memory = builder.build();
        if (volume.memory == nullptr) {
            giveUp(std::string(volume.name) + ": " + builder.error());
        }
    } else {
        volume.name = kSampleVolumes[index - std::size(kBuiltVolumes)];
        volume.memory = metadataOf(std::string(VZ_SAMPLE_VOLUMES_DIR "/") + volume.name + ".img");
        volume.hasData = false;
    }
    volume.memory->freeze();
    volume.survey = std::make_unique<HFSPlusVolumeSurvey>(*volume.memory);
    if (!volume.survey->isSound()) {
        giveUp(std::string(volume.name) + ": " + volume.survey->result().description());
    }
    return volume;
}

}  // namespace

size_t fuzzVolumeCount()
{
    return std::size(kBuiltVolumes) + std::size(kSampleVolumes);
}

size_t builtFuzzVolumeCount()
{
    return std::size(kBuiltVolumes);
}

const FuzzVolume& fuzzVolumeAtIndex(size_t index)
{
    static std::vector<FuzzVolume> volumes(fuzzVolumeCount());
    FuzzVolume& volume = volumes[index];
    if (volume.memory == nullptr) {
        volume = makeVolume(index);
    }
    return volume;
}
