#pragma once

#include <memory>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusForkExtents.h"
#include "HFSPlusTreeFixture.h"

using Extents = std::vector<HFSPlusCheckedExtent>;

/** A volume of 1000 blocks with the file "movie", CNID 20. */
[[nodiscard]] inline HFSPlusVolumeBuilder movieVolume(HFSPlusBuilderExtents extents)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(1000).file("/movie", 20).data(std::move(extents));
    return builder;
}

[[nodiscard]] inline std::unique_ptr<HFSPlusForkExtents> openFork(const HFSPlusOpenedVolume& volume,
                                                                  uint32_t fileID,
                                                                  uint8_t forkType = 0)
{
    EXPECT_TRUE(volume) << volume.error();
    std::unique_ptr<VZDefragError> error;
    auto fork = HFSPlusForkExtents::initWithVolume(volume.volume(), fileID, forkType, &error);
    EXPECT_NE(fork, nullptr) << error->description();
    return fork;
}

/** Why the fork cannot be opened. */
[[nodiscard]] inline std::string openingError(const HFSPlusOpenedVolume& volume, uint32_t fileID,
                                              uint8_t forkType = 0)
{
    EXPECT_TRUE(volume) << volume.error();
    return failureOf([&](auto error) {
        return HFSPlusForkExtents::initWithVolume(volume.volume(), fileID, forkType, error) !=
               nullptr;
    });
}

[[nodiscard]] inline std::string missingExtents(uint32_t fileID)
{
    return "Extents for file ID = " + std::to_string(fileID) +
           " (movie) could not be found. The extents overflow file may be corrupt.";
}

/** Copies blocks on the device, as the engine does before it records a move. */
[[nodiscard]] inline bool copyBlocks(const HFSPlusOpenedVolume& opened, uint32_t from, uint32_t to,
                                     uint32_t count)
{
    const size_t blockSize = opened->hostVolumeHeader().blockSize;
    std::vector<uint8_t> bytes(blockSize * count);
    return opened->read(bytes.data(), bytes.size(), blockSize * from, nullptr) &&
           opened->write(bytes.data(), bytes.size(), blockSize * to, nullptr);
}

[[nodiscard]] inline bool moveData(const HFSPlusOpenedVolume& opened, HFSPlusForkExtents& fork,
                                   uint32_t from, uint32_t to, uint32_t count)
{
    return copyBlocks(opened, from, to, count) && fork.moveTo(from, to, count);
}

/** The extents of a fork on disk after a flush. */
[[nodiscard]] inline Extents flushedExtents(const HFSPlusOpenedVolume& volume, uint32_t cnid)
{
    EXPECT_TRUE(volume->flush(nullptr));
    return extentsOnDisk(volume, cnid);
}
