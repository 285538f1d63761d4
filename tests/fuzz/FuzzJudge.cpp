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

/** All bytes of @p fork; nothing when they are not there, or when an extent begins at block 0: its
 *  descriptor is an empty one, and what the fork's bytes are is anybody's guess. */
std::optional<std::vector<uint8_t>> contentsOf(const Known& volume, const HFSPlusCheckedFork& fork)
{
    if (fork.logicalSize > kMostContents) {
        return std::nullopt;
    }
    std::vector<uint8_t> bytes(static_cast<size_t>(fork.logicalSize));
    size_t done = 0;
    for (const HFSPlusCheckedExtent& extent : fork.extents) {
        if (extent.startBlock == 0) {
            return std::nullopt;
        }
        const uint64_t place =
            volume.result.volumeOffset + uint64_t{extent.startBlock} * volume.result.blockSize;
        const auto count = static_cast<size_t>(std::min<uint64_t>(
            bytes.size() - done, uint64_t{extent.blockCount} * volume.result.blockSize));
        // The header and its copy change with every run, whatever file claims their blocks.
        const uint64_t end = volume.result.volumeOffset + volume.result.volumeSize;
        if (place + count > volume.memory.size() || place < volume.result.volumeOffset + 1536 ||
            place + count > end - 1024) {
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

/** Which bytes of a volume a run may change that moves nothing in the end. */
class Repairable {
public:
    explicit Repairable(const Known& volume) : _volume(volume.result)
    {
        const HFSPlusCheckedFork* const bitmap = _volume.forkWithCNID(6);
        for (size_t index = 0; bitmap != nullptr && index < bitmap->extents.size(); ++index) {
            const HFSPlusCheckedExtent& extent = bitmap->extents[index];
            const uint64_t place = _placeOf(extent.startBlock);
            const uint64_t size = uint64_t{extent.blockCount} * _volume.blockSize;
            if (place + size <= volume.memory.size()) {
                _places.push_back({place, size});
                _bits.resize(_bits.size() + size);
                volume.memory.peek(&_bits[_bits.size() - size], size, place);
            }
        }
    }

    [[nodiscard]] bool mayBecome(uint64_t place, uint8_t old, uint8_t now) const
    {
        return _isInHeaders(place) || _isInFreeBlock(place) ||
               (_isInBitmap(place) && (old & ~now) == 0);
    }

private:
    struct Piece {
        uint64_t place;  // bytes
        uint64_t size;   // bytes
    };

    [[nodiscard]] uint64_t _placeOf(uint32_t block) const
    {
        return _volume.volumeOffset + uint64_t{block} * _volume.blockSize;
    }
    /** A header's free or write count, or the alternate header, which is rewritten whole. */
    [[nodiscard]] bool _isInHeaders(uint64_t place) const
    {
        const uint64_t inHeader = place - _volume.volumeOffset - 1024;
        const uint64_t alternate = _volume.volumeOffset + _volume.volumeSize - 1024;
        return (inHeader >= 48 && inHeader < 52) || (inHeader >= 68 && inHeader < 72) ||
               (place >= alternate && place < alternate + 512);
    }
    [[nodiscard]] bool _isInFreeBlock(uint64_t place) const
    {
        const uint64_t block = (place - _volume.volumeOffset) / _volume.blockSize;
        return block < _volume.totalBlocks && block / 8 < _bits.size() &&
               (_bits[block / 8] & (0x80U >> (block % 8))) == 0;
    }
    [[nodiscard]] bool _isInBitmap(uint64_t place) const
    {
        return std::ranges::any_of(_places, [place](const Piece& piece) {
            return place >= piece.place && place < piece.place + piece.size;
        });
    }

    const HFSPlusCheckResult& _volume;
    std::vector<Piece> _places;
    std::vector<uint8_t> _bits;  // of the whole volume
};

/** What changed that is neither a repair of the bitmap nor in a free block; empty when nothing. */
std::string changeBesidesRepairs(const Known& before, const MemoryBlockDevice& after)
{
    if (after.hasSameBytesAs(before.memory)) {
        return "";
    }
    const Repairable repairable(before);
    constexpr size_t kPiece = 4096;
    std::array<uint8_t, kPiece> old{};
    std::array<uint8_t, kPiece> now{};
    for (uint64_t place = 0; place < after.size(); place += kPiece) {
        before.memory.peek(old.data(), kPiece, place);
        after.peek(now.data(), kPiece, place);
        for (size_t index = 0; old != now && index < kPiece; ++index) {
            if (old[index] != now[index] &&
                !repairable.mayBecome(place + index, old[index], now[index])) {
                return "byte " + std::to_string(place + index) + " was changed";
            }
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
    if (!run.emptiesPlaylist && !run.output.error().empty() && run.output.moves().empty()) {
        if (std::string change = changeBesidesRepairs(before, run.after); !change.empty()) {
            return change + ", but only said: " + run.output.error();
        }
    }
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
