#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusVolume.h"
#include "support/HFSPlusOpenedVolume.h"

/** What the tests of the volume object share. */

using VolumeOperation = MemoryBlockDevice::Operation;

inline HFSPlusVolumeBuilder plainVolume()
{
    return HFSPlusVolumeBuilder{}.blockSize(4096).totalBlocks(1000);
}

/** A number of @p size bytes at byte @p offset of the device. */
inline uint64_t numberOnDevice(const HFSPlusOpenedVolume& opened, uint64_t offset, size_t size)
{
    std::vector<uint8_t> bytes(size);
    opened.memory().peek(bytes.data(), size, offset);
    uint64_t number = 0;
    for (const uint8_t byte : bytes) {
        number = number << 8 | byte;
    }
    return number;
}

/** Fields of the header on the device: the primary one, or the alternate one. */
struct HeaderOnDevice {
    uint64_t freeBlocks;
    uint64_t writeCount;

    static HeaderOnDevice primary(const HFSPlusOpenedVolume& opened)
    {
        return at(opened, opened.plan().volumeOffset + 1024);
    }
    static HeaderOnDevice alternate(const HFSPlusOpenedVolume& opened)
    {
        return at(opened, opened.plan().volumeOffset + opened.plan().volumeSize - 1024);
    }
    static HeaderOnDevice at(const HFSPlusOpenedVolume& opened, uint64_t offset)
    {
        return {.freeBlocks = numberOnDevice(opened, offset + 48, 4),
                .writeCount = numberOnDevice(opened, offset + 68, 4)};
    }
};

/** What was written and made durable, in order, as "write 1024" and "sync". */
inline std::vector<std::string> changesOf(const HFSPlusOpenedVolume& opened)
{
    std::vector<std::string> changes;
    for (const VolumeOperation& operation : opened.operations()) {
        if (operation.kind == VolumeOperation::Kind::kWrite) {
            changes.push_back("write " + std::to_string(operation.offset));
        } else if (operation.kind == VolumeOperation::Kind::kSynchronize) {
            changes.push_back("sync");
        }
    }
    return changes;
}

/** The reason for which @p builder's volume cannot be opened; empty when it can. */
inline std::string openingError(HFSPlusVolumeBuilder builder, uint32_t deviceBlockSize = 512)
{
    const HFSPlusOpenedVolume opened(std::move(builder), deviceBlockSize);
    EXPECT_TRUE(opened || !opened.error().empty());
    return opened.error();
}
