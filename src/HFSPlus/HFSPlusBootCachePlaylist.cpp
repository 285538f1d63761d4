#include "HFSPlus/HFSPlusBootCachePlaylist.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <tuple>
#include <vector>

#include "HFSPlus/HFSPlusFileForkSet.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"

namespace {

constexpr uint32_t kMagic = 0xA1B2C3D6;
constexpr size_t kCountOffset = 4;
constexpr size_t kEntriesOffset = 12;
constexpr size_t kEntrySize = 20;
constexpr size_t kLengthOffset = 8;  // in an entry, whose offset on the volume comes first
constexpr size_t kGroupOffset = 16;

/** The numbers of a playlist, in the order of bytes of the machine that wrote it. */
class PlaylistNumbers {
public:
    explicit PlaylistNumbers(std::span<const uint8_t> file) : _file(file)
    {
        const uint32_t magic = number32(0);
        _isSwapped = magic == __builtin_bswap32(kMagic);
        if (magic != kMagic && !_isSwapped) {
            KLPanic("%@ begins with %08X, which is not the magic of a playlist\n",
                    HFSPlusBootCachePlaylist::kPath, magic);
        }
    }

    [[nodiscard]] uint32_t number32(size_t offset) const
    {
        uint32_t number = 0;
        std::memcpy(&number, _file.subspan(offset, sizeof number).data(), sizeof number);
        return _isSwapped ? __builtin_bswap32(number) : number;
    }
    [[nodiscard]] uint64_t number64(size_t offset) const
    {
        uint64_t number = 0;
        std::memcpy(&number, _file.subspan(offset, sizeof number).data(), sizeof number);
        return _isSwapped ? __builtin_bswap64(number) : number;
    }

private:
    std::span<const uint8_t> _file;
    bool _isSwapped = false;
};

}  // namespace

std::unique_ptr<HFSPlusBootCachePlaylist> HFSPlusBootCachePlaylist::initWithVolume(
    const HFSPlusVolume& volume, std::span<const uint8_t> file, VZDefragErrorSlot error)
{
    const PlaylistNumbers numbers(file);
    const uint32_t count = numbers.number32(kCountOffset);
    if (count > (file.size() - kEntriesOffset) / kEntrySize) {
        return nullptr;
    }
    std::unique_ptr<HFSPlusBootCachePlaylist> playlist(new HFSPlusBootCachePlaylist);
    if (!playlist->_allocate(count, error)) {
        return nullptr;
    }
    for (uint32_t index = 0; index < count; ++index) {
        const size_t entry = kEntriesOffset + kEntrySize * index;
        playlist->_addEntry(volume, numbers.number64(entry),
                            numbers.number64(entry + kLengthOffset),
                            numbers.number32(entry + kGroupOffset), index);
    }
    playlist->_makeSections();
    return playlist;
}

bool HFSPlusBootCachePlaylist::_allocate(uint32_t count, VZDefragErrorSlot error)
{
    _extents.reset(new (std::nothrow) Extent[count]);
    // Every entry begins a section, and ends one at most.
    _sections.reset(new (std::nothrow) Section[2 * size_t{count}]);
    _openStack.reset(new (std::nothrow) uint32_t[count]);
    return (_extents != nullptr && _sections != nullptr && _openStack != nullptr) ||
           VZDefragFail(error, "Out of memory.");
}

void HFSPlusBootCachePlaylist::_addEntry(const HFSPlusVolume& volume, uint64_t offset,
                                         uint64_t length, uint32_t group, uint32_t index)
{
    const uint64_t blockSize = volume.hostVolumeHeader().blockSize;
    const uint64_t totalBlocks = volume.hostVolumeHeader().totalBlocks;
    const uint64_t start = offset / blockSize;
    if (start < volume.firstDataBlock() || start >= totalBlocks) {
        return;
    }
    // A length beyond that of any volume says no more than the volume's, and sums stay in range.
    const uint64_t bytes = offset % blockSize + std::min(length, totalBlocks * blockSize);
    const uint64_t count = std::min((bytes + blockSize - 1) / blockSize, totalBlocks - start);
    if (count == 0) {
        return;
    }
    _extents[_extentCount] = {.startBlock = static_cast<uint32_t>(start),
                              .blockCount = static_cast<uint32_t>(count),
                              .fileID = 0,
                              .forkType = 0,
                              .group = group,
                              .index = index};
    ++_extentCount;
}

/** Cuts the volume into sections, so that one search finds the entry of a block however many
 *  overlap there. */
void HFSPlusBootCachePlaylist::_makeSections()
{
    const std::span<Extent> extents(_extents.get(), _extentCount);
    std::ranges::sort(extents, [](const Extent& left, const Extent& right) {
        // Of those that begin together the one to find comes last.
        return std::tie(left.startBlock, right.group, right.index) <
               std::tie(right.startBlock, left.group, left.index);
    });
    for (uint32_t index = 0; index < _extentCount; ++index) {
        _closeExtents(extents[index].startBlock);
        _openStack[_openCount++] = index;
        _sections[_sectionCount++] = {.firstBlock = extents[index].startBlock, .extent = index};
    }
    _closeExtents(UINT64_MAX);
}

/** Ends the entries that reach no further than @p block, each in favour of the one around it. */
void HFSPlusBootCachePlaylist::_closeExtents(uint64_t block)
{
    while (_openCount > 0 && _extents[_openStack[_openCount - 1]].end() <= block) {
        const uint64_t end = _extents[_openStack[_openCount - 1]].end();
        while (_openCount > 0 && _extents[_openStack[_openCount - 1]].end() <= end) {
            --_openCount;
        }
        _sections[_sectionCount++] = {
            .firstBlock = end, .extent = _openCount == 0 ? kNoExtent : _openStack[_openCount - 1]};
    }
}

void HFSPlusBootCachePlaylist::setForkAtBlock(uint32_t block, uint32_t fileID, uint8_t forkType)
{
    const std::span<const Section> sections(_sections.get(), _sectionCount);
    const auto next = std::ranges::upper_bound(sections, uint64_t{block}, {}, &Section::firstBlock);
    if (next == sections.begin() || std::prev(next)->extent == kNoExtent) {
        return;
    }
    Extent& extent = _extents[std::prev(next)->extent];
    extent.fileID = fileID;
    extent.forkType = forkType;
}

void HFSPlusBootCachePlaylist::addForks(HFSPlusFileForkSet& fileForks) const
{
    std::vector<Extent> extents(_extents.get(), _extents.get() + _extentCount);
    std::ranges::sort(extents, [](const Extent& left, const Extent& right) {
        return std::tie(left.group, left.startBlock, left.index) <
               std::tie(right.group, right.startBlock, right.index);
    });
    for (const Extent& extent : extents) {
        if (extent.fileID != 0) {
            fileForks.add(extent.fileID, extent.forkType);
        }
    }
}
