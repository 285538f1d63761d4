#include "HFSPlus/HotFilesTree.h"

#include <gtest/gtest.h>

#include "support/HFSPlusOpenedVolume.h"
#include "support/HFSPlusVolumeBuilderBytes.h"
#include "support/HFSPlusVolumeBuilderTree.h"

namespace {

constexpr uint32_t kHotFilesID = 50;

bool load(HFSPlusVolumeBuilderTree& tree, const std::vector<HotFileRecord>& records)
{
    for (const HotFileRecord& record : records) {
        HFSPlusVolumeBuilderBytes key;
        key.put16(10);
        key.put8(record.forkType);
        key.put8(0);
        key.put32(record.temperature);
        key.put32(record.fileID);
        HFSPlusVolumeBuilderBytes data;
        data.put32(0x686F7421);
        if (!tree.add(key.bytes(), data.bytes())) {
            return false;
        }
    }
    return tree.finish();
}

}  // namespace

std::string hotFilesTree(const std::vector<HotFileRecord>& records, uint32_t perLeaf)
{
    HFSPlusBuilderTree shape;
    shape.nodeSize = kHotFilesNodeSize;
    shape.maximumLeafRecords = perLeaf;
    HFSPlusBuilderTreePlan plan;
    plan.nodeSize = kHotFilesNodeSize;
    HFSPlusVolumeBuilderTree counter(shape, plan, nullptr);
    EXPECT_TRUE(load(counter, records));
    EXPECT_TRUE(plan.plan(shape, kHotFilesNodeSize));
    std::string bytes(plan.logicalSize(), '\0');
    HFSPlusVolumeBuilderTree tree(
        shape, plan, [&](uint32_t node, std::span<const uint8_t> content) {
            bytes.replace(size_t{node} * kHotFilesNodeSize, content.size(),
                          reinterpret_cast<const char*>(content.data()), content.size());
            return true;
        });
    EXPECT_TRUE(load(tree, records) && tree.writeHeader({10, 2, 0}));
    return bytes;
}

void damageHotFilesTree(std::string& tree, uint32_t node, uint32_t offset, uint64_t value,
                        size_t size)
{
    for (size_t index = 0; index < size; ++index) {
        tree.at(size_t{node} * kHotFilesNodeSize + offset + index) =
            static_cast<char>(value >> (8 * (size - 1 - index)));
    }
}

HFSPlusVolumeBuilder volumeWithMetadataZone()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(2'700'000).journal();
    return builder;
}

uint32_t metadataZoneEnd()
{
    static const uint32_t end = [] {
        const HFSPlusOpenedVolume volume(volumeWithMetadataZone());
        EXPECT_TRUE(volume && volume->hasMetadataZone());
        return volume ? volume->firstDataBlock() : 0;
    }();
    return end;
}

void addHotFilesTree(HFSPlusVolumeBuilder& builder, const std::string& tree,
                     const HFSPlusBuilderExtents& extents)
{
    builder.file("/.hotfiles.btree", kHotFilesID).dataBeginning(tree).dataSize(tree.size());
    if (extents.empty()) {
        builder.automaticData(static_cast<uint32_t>(tree.size() / kHotFilesNodeSize));
    } else {
        builder.data(extents);
    }
}
