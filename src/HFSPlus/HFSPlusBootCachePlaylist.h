#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "VZDefragError.h"

class HFSPlusFileForkSet;
class HFSPlusVolume;

/** What the system read while it started, as its playlist file tells: byte ranges of the volume in
 *  groups, and the forks that they were found to belong to.
 *
 *  Ranges count in whole blocks. What begins before the first data block or behind the last block
 *  is left out, what reaches beyond the last block is cut there.
 */
class HFSPlusBootCachePlaylist {
public:
    static constexpr std::string_view kPath = "/private/var/db/BootCache.playlist";
    static constexpr uint64_t kMinimumSize = 12;       // bytes of the file
    static constexpr uint64_t kMaximumSize = 1048576;  // bytes of the file

    /** The playlist in @p file, which has at least kMinimumSize bytes; null without an error when
     *  it has fewer entries than it says. Aborts when it is no playlist at all. */
    [[nodiscard]] static std::unique_ptr<HFSPlusBootCachePlaylist> initWithVolume(
        const HFSPlusVolume& volume, std::span<const uint8_t> file, VZDefragErrorSlot error);

    /** An extent of the fork begins at @p block: the entry there, if any, is the fork's from now
     * on.
     *
     *  Where entries overlap it is the one that begins last, and of several that begin together
     *  the one of the lowest group.
     */
    void setForkAtBlock(uint32_t block, uint32_t fileID, uint8_t forkType);
    /** Adds the forks by ascending group and within a group by ascending start block. */
    void addForks(HFSPlusFileForkSet& fileForks) const;

private:
    struct Extent {
        uint32_t startBlock;
        uint32_t blockCount;
        uint32_t fileID;  // 0: nobody's so far
        uint8_t forkType;
        uint32_t group;
        uint32_t index;  // in the file

        [[nodiscard]] uint64_t end() const { return uint64_t{startBlock} + blockCount; }
    };
    /** From its first block to the next section, all blocks belong to the same entry or to none. */
    struct Section {
        uint64_t firstBlock;
        uint32_t extent;  // index of the entry, or kNoExtent
    };
    static constexpr uint32_t kNoExtent = UINT32_MAX;

    HFSPlusBootCachePlaylist() = default;
    [[nodiscard]] bool _allocate(uint32_t count, VZDefragErrorSlot error);
    void _addEntry(const HFSPlusVolume& volume, uint64_t offset, uint64_t length, uint32_t group,
                   uint32_t index);
    void _makeSections();
    void _closeExtents(uint64_t block);

    // Each with room for all that the file can name.
    std::unique_ptr<Extent[]> _extents;      // by start block
    std::unique_ptr<Section[]> _sections;    // by first block
    std::unique_ptr<uint32_t[]> _openStack;  // extents that the walk is inside of, the latest last
    uint32_t _extentCount = 0;
    uint32_t _sectionCount = 0;
    uint32_t _openCount = 0;
};
