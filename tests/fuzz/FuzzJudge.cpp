#include "fuzz/FuzzJudge.h"

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "support/HFSPlusVolumeBuilderBytes.h"
#include "support/HFSPlusVolumeChecker.h"

namespace {

constexpr uint64_t kMostContents = 8 << 20;  // bytes; no sound file of a small volume has more

/** A volume and what a checker of its own knows of it. */
struct Known {
    explicit Known(const MemoryBlockDevice& given) : memory(given)
    {
        const auto copy = memory.clone();
        HFSPlusCheckDeviceReader reader(*copy);
        result = checkHFSPlusVolume(reader);
    }

    const MemoryBlockDevice& memory;
    HFSPlusCheckResult result;
};

/** All bytes of @p fork; nothing when they are not there. */
std::optional<std::vector<uint8_t>> contentsOf(const Known& volume, const HFSPlusCheckedFork& fork)
{
    if (fork.logicalSize > kMostContents) {
        return std::nullopt;
    }
    std::vector<uint8_t> bytes(static_cast<size_t>(fork.logicalSize));
    size_t done = 0;
    for (const HFSPlusCheckedExtent& extent : fork.extents) {
        const uint64_t place =
            volume.result.volumeOffset + uint64_t{extent.startBlock} * volume.result.blockSize;
        const auto count = static_cast<size_t>(std::min<uint64_t>(
            bytes.size() - done, uint64_t{extent.blockCount} * volume.result.blockSize));
        if (place + count > volume.memory.size()) {
            return std::nullopt;
        }
        if (count > 0) {
            volume.memory.peek(&bytes[done], count, place);
        }
        done += count;
    }
    return done == bytes.size() ? std::optional(std::move(bytes)) : std::nullopt;
}

using ForkName = std::pair<uint32_t, uint8_t>;

std::string nameOf(const HFSPlusCheckedFork& fork)
{
    return "file " + std::to_string(fork.cnid) + " fork " + std::to_string(fork.forkType);
}

/** Whether any of the forks of that name has these contents. */
bool hasContents(const Known& volume,
                 const std::multimap<ForkName, const HFSPlusCheckedFork*>& forks,
                 const HFSPlusCheckedFork& wanted, const std::vector<uint8_t>& contents)
{
    const auto [first, last] = forks.equal_range({wanted.cnid, wanted.forkType});
    return std::any_of(first, last, [&](const auto& item) {
        const HFSPlusCheckedFork& fork = *item.second;
        return fork.logicalSize == contents.size() && contentsOf(volume, fork) == contents;
    });
}

/** A fork whose contents could be read before and are not the same now. */
std::string lostContents(const FuzzedRun& run, const Known& before, const Known& after)
{
    std::multimap<ForkName, const HFSPlusCheckedFork*> forks;
    for (const HFSPlusCheckedFork& fork : after.result.forks) {
        forks.insert({{fork.cnid, fork.forkType}, &fork});
    }
    bool mayEmptyOne = run.emptiesPlaylist;
    for (const HFSPlusCheckedFork& fork : before.result.forks) {
        const auto contents = fork.isSpecial ? std::nullopt : contentsOf(before, fork);
        if (!contents || hasContents(after, forks, fork, *contents)) {
            continue;
        }
        if (!mayEmptyOne || !hasContents(after, forks, fork, {})) {
            return nameOf(fork) + " lost its contents";
        }
        mayEmptyOne = false;
    }
    return "";
}

/** Sizes and names of all files are as they were; of a volume without contents. */
std::string lostForks(const Known& before, const Known& after)
{
    std::multimap<ForkName, uint64_t> sizes;
    for (const HFSPlusCheckedFork& fork : after.result.forks) {
        sizes.insert({{fork.cnid, fork.forkType}, fork.logicalSize});
    }
    for (const HFSPlusCheckedFork& fork : before.result.forks) {
        const auto [first, last] = sizes.equal_range({fork.cnid, fork.forkType});
        if (std::none_of(first, last,
                         [&](const auto& item) { return item.second == fork.logicalSize; })) {
            return nameOf(fork) + " is gone or has another size";
        }
    }
    return "";
}

/** Where the device says that the volume lies: a wrapper's word, or all of the device. */
std::pair<uint64_t, uint64_t> boundsOf(const MemoryBlockDevice& memory)
{
    std::array<uint8_t, 162> block{};
    memory.peek(block.data(), block.size(), 1024);
    const uint64_t embedded = getBigEndian(&block[124], 2);
    if (getBigEndian(block.data(), 2) != 0x4244 || (embedded != 0x482B && embedded != 0x4858)) {
        return {0, memory.size()};
    }
    const uint64_t size = getBigEndian(&block[20], 4);
    return {getBigEndian(&block[28], 2) * 512 + getBigEndian(&block[126], 2) * size,
            getBigEndian(&block[128], 2) * size};
}

}  // namespace

std::string writeOutside(const MemoryBlockDevice& before, const MemoryBlockDevice& after)
{
    const auto [start, size] = boundsOf(before);
    for (const MemoryBlockDevice::Operation& operation : after.operations()) {
        if (operation.kind == MemoryBlockDevice::Operation::Kind::kWrite &&
            (operation.offset < start + 1024 ||
             operation.offset + operation.nbyte > start + size - 512)) {
            return std::to_string(operation.nbyte) + " bytes were written at " +
                   std::to_string(operation.offset);
        }
    }
    return "";
}

std::string judgeFuzzedRun(const FuzzedRun& run)
{
    if (!run.output.isWhole()) {
        return "START or DONE is missing";
    }
    if (std::string outside = writeOutside(run.before, run.after); !outside.empty()) {
        return outside;
    }
    if (run.after.writeCount() == 0) {
        return "";
    }
    const Known before(run.before);
    const Known after(run.after);
    if (before.result.consistent && !after.result.consistent) {
        return "no longer consistent: " + after.result.description();
    }
    if (before.result.consistent && !run.emptiesPlaylist &&
        before.result.freeBlocks != after.result.freeBlocks) {
        return "free blocks were " + std::to_string(before.result.freeBlocks) + " and are " +
               std::to_string(after.result.freeBlocks);
    }
    return run.hasData ? lostContents(run, before, after) : lostForks(before, after);
}
