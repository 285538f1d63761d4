#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/HFSPlusVolumeBuilder.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"

// What the tests of trees and of fork extents share.

/** Runs @p operation, which must fail, and returns why. */
template <typename Operation>
[[nodiscard]] std::string failureOf(const Operation& operation)
{
    std::unique_ptr<VZDefragError> error;
    const bool succeeded = operation(&error);
    EXPECT_FALSE(succeeded);
    return error == nullptr ? "no error" : error->description();
}

/** The message with which the volume refuses to open; empty when it opens. */
[[nodiscard]] inline std::string openingFailure(HFSPlusVolumeBuilder builder)
{
    const HFSPlusOpenedVolume volume(std::move(builder));
    EXPECT_EQ(static_cast<bool>(volume), volume.error().empty());
    return volume.error();
}

/** @p count extents of @p length blocks from @p start on, @p distance blocks from one to the next.
 */
[[nodiscard]] inline HFSPlusBuilderExtents scattered(uint32_t start, uint32_t count,
                                                     uint32_t length, uint32_t distance)
{
    HFSPlusBuilderExtents extents;
    for (uint32_t index = 0; index < count; ++index) {
        extents.push_back({start + index * distance, length});
    }
    return extents;
}

/** Byte offset on the volume of node @p index of the extents file, which is one extent. */
[[nodiscard]] inline uint64_t extentsNodeOffset(const HFSPlusVolume& volume, uint32_t index)
{
    const HFSPlusHostVolumeHeader& header = volume.hostVolumeHeader();
    return uint64_t{header.extentsFile.extents[0].startBlock} * header.blockSize +
           uint64_t{volume.extents().nodeSize()} * index;
}

/** The nodes of the extents file that were written, in order, since the log was emptied. */
[[nodiscard]] inline std::vector<uint32_t> nodesInLog(const HFSPlusOpenedVolume& opened,
                                                      MemoryBlockDevice::Operation::Kind kind)
{
    std::vector<uint32_t> nodes;
    for (const MemoryBlockDevice::Operation& operation : opened.operations()) {
        if (operation.kind == kind) {
            const uint64_t offset = operation.offset - extentsNodeOffset(opened.volume(), 0);
            nodes.push_back(static_cast<uint32_t>(offset / opened->extents().nodeSize()));
        }
    }
    return nodes;
}

[[nodiscard]] inline std::vector<uint32_t> nodesWritten(const HFSPlusOpenedVolume& opened)
{
    return nodesInLog(opened, MemoryBlockDevice::Operation::Kind::kWrite);
}

[[nodiscard]] inline std::vector<uint32_t> nodesRead(const HFSPlusOpenedVolume& opened)
{
    return nodesInLog(opened, MemoryBlockDevice::Operation::Kind::kRead);
}

/** The extents of a fork as the checker finds them on the device. */
[[nodiscard]] inline std::vector<HFSPlusCheckedExtent> extentsOnDisk(
    const HFSPlusOpenedVolume& opened, uint32_t cnid, uint8_t forkType = 0)
{
    const HFSPlusCheckResult result = opened.check();
    const HFSPlusCheckedFork* fork = result.forkWithCNID(cnid, forkType);
    EXPECT_NE(fork, nullptr);
    return fork == nullptr ? std::vector<HFSPlusCheckedExtent>() : fork->extents;
}

/** Whether the checker accepts what the device holds. */
[[nodiscard]] inline testing::AssertionResult isSound(const HFSPlusOpenedVolume& opened)
{
    const HFSPlusCheckResult result = opened.check();
    return result.consistent ? testing::AssertionSuccess()
                             : testing::AssertionFailure() << result.description();
}
