#pragma once

#include <cstdint>
#include <memory>

#include "HFSPlus/HFSPlusSkipList.h"
#include "VZDefragError.h"

class HFSPlusVolume;

/** A run of free blocks. */
struct HFSPlusFreeRun {
    uint32_t start = 0;
    uint32_t count = 0;
};

/** Free runs beyond a block, largest first and lower start first among equals.
 *
 *  Made for one eviction and never kept in step with the bitmap. All numbers are allocation
 *  blocks, host order. Used from the task's thread only.
 */
class HFSPlusFreeMap {
public:
    /** Scans the bitmap from @p startBlock until one run holds @p desiredBlocks. Keeps the
     *  @p capacity largest runs, all of them for 0. */
    [[nodiscard]] static std::unique_ptr<HFSPlusFreeMap> initWithVolume(
        HFSPlusVolume& volume, uint32_t startBlock, uint32_t desiredBlocks, uint32_t capacity,
        VZDefragErrorSlot error = nullptr);
    ~HFSPlusFreeMap();
    HFSPlusFreeMap(const HFSPlusFreeMap&) = delete;
    HFSPlusFreeMap& operator=(const HFSPlusFreeMap&) = delete;

    /** Takes up to @p count blocks from the largest run; returns their start, 0 on failure.
     *
     *  A run that is smaller is taken whole and @p count becomes its count: ask again for the rest.
     */
    [[nodiscard]] uint32_t allocate(uint32_t& count, VZDefragErrorSlot error = nullptr);
    /** Adds a run as it is: neighbours are not joined, overlaps not noticed. */
    [[nodiscard]] bool insert(uint32_t start, uint32_t count, VZDefragErrorSlot error = nullptr);
    [[nodiscard]] const HFSPlusFreeRun* firstEntry() const;
    /** The run after @p run, one of the map's own; after null the first. */
    [[nodiscard]] const HFSPlusFreeRun* nextEntry(const HFSPlusFreeRun* run) const;
    /** Drops @p run, one of the map's own. */
    void deleteEntry(const HFSPlusFreeRun& run);
    [[nodiscard]] uint32_t blockCount() const { return _blockCount; }
    void dump() const;

private:
    struct Order {
        using Key = HFSPlusFreeRun;
        static Key key(const HFSPlusFreeRun& run) { return run; }
        static int compare(const HFSPlusFreeRun& left, const Key& right)
        {
            if (left.count != right.count) {
                return left.count > right.count ? -1 : 1;
            }
            return left.start < right.start ? -1 : static_cast<int>(left.start > right.start);
        }
    };
    static constexpr size_t kMaxLevels = 6;

    HFSPlusFreeMap(HFSPlusVolume& volume, uint32_t startBlock, uint32_t capacity);
    [[nodiscard]] bool _scanForBlocks(uint32_t desiredBlocks, VZDefragErrorSlot error);
    void _clipLastEntry();

    HFSPlusVolume& _volume;
    uint32_t _startBlock;      // where the scan began
    uint32_t _blockCount = 0;  // of the runs held
    uint64_t _entryCapacity;   // 0: no limit
    uint64_t _entryCount = 0;
    HFSPlusSkipList<HFSPlusFreeRun, Order, kMaxLevels> _map;
};
