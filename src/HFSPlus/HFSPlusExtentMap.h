#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "HFSPlus/HFSPlusSkipList.h"
#include "VZDefragError.h"

class HFSPlusVolume;

/** Who owns the blocks of an entry; the top byte of its info word. */
enum HFSPlusExtentType : uint8_t {
    kHFSPlusExtentImmutable = 0,
    kHFSPlusExtentUnalloced = 1,
    kHFSPlusExtentAllocated = 2,
};

/** A run of blocks; its length is the distance to the next entry. */
struct HFSPlusExtentMapEntry {
    uint32_t start = 0;
    uint32_t cnid = 0;  // 0: free, or owner unknown
    uint32_t info = 0;  // type in bits 24-31, fork in bits 16-23

    [[nodiscard]] uint8_t type() const { return static_cast<uint8_t>(info >> 24); }
    [[nodiscard]] uint8_t fork() const { return static_cast<uint8_t>(info >> 16); }
};

/** The info word of a run of @p fork. */
[[nodiscard]] constexpr uint32_t HFSPlusExtentInfo(HFSPlusExtentType type, uint8_t fork)
{
    return (static_cast<uint32_t>(type) << 24) | (static_cast<uint32_t>(fork) << 16);
}

/** Is told of owned runs that leave a map because it became too large. */
class HFSPlusExtentMapClipDelegate {
public:
    virtual ~HFSPlusExtentMapClipDelegate() = default;
    /** Called just before the @p count blocks of @p entry leave at the back. */
    virtual void extentMapDidClip(const HFSPlusExtentMapEntry& entry, uint32_t count) = 0;
};

/** The volume as an ordered run of entries, each saying who owns its blocks.
 *
 *  The entries tile [startBlock(), startBlock() + blockCount()) without gaps, so no length is
 *  stored: it is the distance to the next entry. Entries handed out are the map's own and stay
 *  where they are until they leave the map; only the map changes them. All numbers are allocation
 *  blocks, host order. Used from the task's thread only.
 */
class HFSPlusExtentMap {
public:
    using Entry = HFSPlusExtentMapEntry;

    /** The blocks of @p volume from @p startBlock on, all free. Fails only with "Out of memory.".
     */
    [[nodiscard]] static std::unique_ptr<HFSPlusExtentMap> initWithVolume(
        HFSPlusVolume& volume, uint32_t startBlock, VZDefragErrorSlot error = nullptr);
    ~HFSPlusExtentMap();
    HFSPlusExtentMap(const HFSPlusExtentMap&) = delete;
    HFSPlusExtentMap& operator=(const HFSPlusExtentMap&) = delete;

    [[nodiscard]] uint32_t startBlock() const { return _startBlock; }
    [[nodiscard]] uint32_t blockCount() const { return _totalBlocks - _startBlock; }
    /** All blocks ever inserted as allocated, also those outside the span. */
    [[nodiscard]] uint32_t dataBlockTotal() const { return _dataBlockTotal; }
    [[nodiscard]] uint64_t extentCount() const { return _extentCount; }
    [[nodiscard]] bool isEmpty() const { return _extentCount == 0; }
    void setClipDelegate(HFSPlusExtentMapClipDelegate* delegate) { _clipDelegate = delegate; }

    /** Bounds the entries kept to @p bytes / 32; 0: no limit. Entries too many leave at the back.
     *  Aborts for 1 to 32 bytes, with which no map can work. */
    void limitMemoryUsageTo(uint64_t bytes);
    /** Gives @p count free blocks from @p start to @p cnid; neighbours are never joined.
     *
     *  Blocks outside the span are ignored. Fails when the run is not wholly inside one free
     *  entry; the map may then hold a split already made, and the caller abandons the span.
     *  Entries beyond the memory limit leave at the back, which may lower the span's end.
     */
    [[nodiscard]] bool insert(uint32_t start, uint32_t count, uint32_t cnid, uint32_t info,
                              VZDefragErrorSlot error = nullptr);
    /** Makes @p count blocks from @p start free and joins them with what they equal on both sides.
     *  Blocks outside the span are ignored. */
    [[nodiscard]] bool deleteRun(uint32_t start, uint32_t count, VZDefragErrorSlot error = nullptr);
    /** Drops the first entry, and its blocks from the span; any other is an internal error. */
    [[nodiscard]] bool removeEntry(const Entry& entry, VZDefragErrorSlot error = nullptr);
    /** Drops everything before @p block from the span. */
    [[nodiscard]] bool removeToBlock(uint32_t block, VZDefragErrorSlot error = nullptr);

    /** The length of @p entry, one of the map's own; no search. */
    [[nodiscard]] uint32_t blockCountForEntry(const Entry& entry) const;
    [[nodiscard]] uint32_t blockCountForType(uint8_t type) const;
    /** The entry that contains @p block, or null; its length goes to @p count. */
    [[nodiscard]] const Entry* findEntry(uint32_t block, uint32_t* count = nullptr) const;
    [[nodiscard]] const Entry* firstEntry(uint32_t* count = nullptr) const;
    /** The entry after @p entry, one of the map's own; after null the first. */
    [[nodiscard]] const Entry* nextEntryAfter(uint32_t* count, const Entry* entry) const;

    void dump() const;
    void dumpEntry(const Entry& entry) const;
    /** Recounts the blocks of each type; aborts when a total is wrong. */
    void validate(bool verbose) const;

private:
    struct Order {
        using Key = uint32_t;  // first block
        static Key key(const Entry& entry) { return entry.start; }
        static int compare(const Entry& entry, Key block)
        {
            return entry.start < block ? -1 : static_cast<int>(entry.start > block);
        }
    };
    static constexpr size_t kMaxLevels = 12;
    static constexpr size_t kTypeCount = 3;

    HFSPlusExtentMap(HFSPlusVolume& volume, uint32_t startBlock);
    [[nodiscard]] bool _clipRun(uint32_t& start, uint32_t& count) const;
    [[nodiscard]] Entry* _entryContaining(uint32_t block) const;
    [[nodiscard]] uint32_t _endOf(const Entry& entry) const;
    [[nodiscard]] Entry* _addEntry(const Entry& entry, VZDefragErrorSlot error);
    void _deleteEntry(const Entry& entry);
    void _mergeWithNeighbours(Entry& entry);
    void _clipToCapacity();
    void _clipLastExtent();

    HFSPlusVolume& _volume;
    uint32_t _startBlock;          // rises as entries leave at the front
    uint32_t _totalBlocks;         // one past the span; falls as entries are clipped at the back
    uint32_t _dataBlockTotal = 0;  // never falls; stays at its greatest value
    std::array<uint32_t, kTypeCount> _blockCountForType = {};
    uint64_t _extentCapacity;  // 0: no limit
    uint64_t _extentCount = 0;
    HFSPlusSkipList<Entry, Order, kMaxLevels> _map;
    HFSPlusExtentMapClipDelegate* _clipDelegate = nullptr;
};
