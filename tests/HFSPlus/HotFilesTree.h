#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/HFSPlusVolumeBuilder.h"

constexpr uint32_t kHotFilesNodeSize = 4096;  // bytes

/** A leaf record of a hot-files tree. */
struct HotFileRecord {
    uint8_t forkType = 0;
    uint32_t temperature = 0;
    uint32_t fileID = 0;
};

/** The bytes of a hot-files tree with @p records, at most @p perLeaf in a node. */
[[nodiscard]] std::string hotFilesTree(const std::vector<HotFileRecord>& records,
                                       uint32_t perLeaf = 100);

/** Sets @p size bytes at byte @p offset of node @p node of @p tree to @p value, big-endian. */
void damageHotFilesTree(std::string& tree, uint32_t node, uint32_t offset, uint64_t value,
                        size_t size);

/** A volume with a metadata zone. */
[[nodiscard]] HFSPlusVolumeBuilder volumeWithMetadataZone();

/** Where that volume's zone ends: the first data block. */
[[nodiscard]] uint32_t metadataZoneEnd();

/** Adds the hot-files file with the bytes of @p tree in @p extents; in one free extent when there
 *  are none. */
void addHotFilesTree(HFSPlusVolumeBuilder& builder, const std::string& tree,
                     const HFSPlusBuilderExtents& extents = {});
