#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "HFSPlus/HFSPlusFile.h"
#include "HFSPlus/HFSPlusForkExtents.h"
#include "VZDefragError.h"
#include "VZDefragTransferQueue.h"

class HFSPlusCopyBuffer;
class HFSPlusDefragProgress;
class HFSPlusExtentMap;
class HFSPlusMovedForks;
class HFSPlusVolume;

/** One queued copy; host order, allocation blocks. */
struct HFSPlusCopyEntry {
    uint32_t start = 0;  // source extent
    uint32_t cnid = 0;
    uint32_t info = 0;  // as in the extent map
    uint32_t offset = 0;
    uint32_t count = 0;
    uint32_t nustart = 0;  // destination
    std::unique_ptr<HFSPlusCopyEntry> next = nullptr;

    [[nodiscard]] uint32_t source() const { return start + offset; }
    [[nodiscard]] uint32_t destination() const { return nustart; }
    [[nodiscard]] uint8_t fork() const { return static_cast<uint8_t>(info >> 16); }
    [[nodiscard]] bool hasForkOf(const HFSPlusCopyEntry& other) const
    {
        return cnid == other.cnid && fork() == other.fork();
    }
};

/** The copies of one cycle, in order, and how they are carried out.
 *
 *  All data are read before the first is written, and all data are on the medium before any
 *  record names their new places. The old blocks are given up only then.
 */
class HFSPlusCopyList {
public:
    HFSPlusCopyList(HFSPlusVolume& volume, HFSPlusCopyBuffer& buffer,
                    HFSPlusDefragProgress& progress);
    HFSPlusCopyList(const HFSPlusCopyList&) = delete;
    HFSPlusCopyList& operator=(const HFSPlusCopyList&) = delete;
    ~HFSPlusCopyList();

    [[nodiscard]] bool append(const HFSPlusCopyEntry& entry, VZDefragErrorSlot error);
    /** Copies the data, rewrites the forks' extents, brings @p map in step and flushes the volume.
     *
     *  After a failure the forks that were done name their new places; the volume is flushed in
     *  every case. Yields the volume's gate between steps.
     */
    [[nodiscard]] bool perform(HFSPlusExtentMap& map, bool countProgress, VZDefragErrorSlot error);
    void dispose();
    /** The first entry, from which the others follow; null when there is none. */
    [[nodiscard]] const HFSPlusCopyEntry* firstEntry() const { return _head.get(); }

private:
    struct Group;

    [[nodiscard]] bool _perform(HFSPlusExtentMap& map, bool countProgress, VZDefragErrorSlot error);
    [[nodiscard]] bool _checkExtentsFile(VZDefragErrorSlot error);
    [[nodiscard]] bool _checkDestinations(VZDefragErrorSlot error);
    [[nodiscard]] std::vector<HFSPlusHeldWrites> _holdSpecialFiles();
    template <typename Transfer>
    [[nodiscard]] bool _forEachRun(uint32_t (HFSPlusCopyEntry::*firstBlock)() const,
                                   Transfer transfer) const;
    [[nodiscard]] bool _readData(VZDefragErrorSlot error);
    [[nodiscard]] bool _writeData(VZDefragErrorSlot error);
    [[nodiscard]] std::vector<Group> _groups() const;
    [[nodiscard]] bool _moveForks(HFSPlusExtentMap& map, bool countProgress,
                                  VZDefragErrorSlot error);
    [[nodiscard]] bool _moveGroups(HFSPlusMovedForks& forks, bool countProgress,
                                   VZDefragErrorSlot error);
    [[nodiscard]] bool _moveGroup(HFSPlusForkExtents& fork, const Group& group, bool countProgress,
                                  VZDefragErrorSlot error);

    HFSPlusVolume& _volume;
    HFSPlusCopyBuffer& _buffer;
    HFSPlusDefragProgress& _progress;
    VZDefragTransferQueue _transfers;
    std::unique_ptr<HFSPlusCopyEntry> _head;
    HFSPlusCopyEntry* _tail = nullptr;
    uint64_t _blockCount = 0;  // of all entries; never more than the buffer holds
};
