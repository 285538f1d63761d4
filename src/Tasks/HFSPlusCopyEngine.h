#pragma once

#include <cstdint>

#include "Tasks/HFSPlusCopyList.h"
#include "Tasks/HFSPlusExtentMapBuilder.h"
#include "Tasks/HFSPlusSourceSelection.h"

class HFSPlusCopyBuffer;
class HFSPlusDefragProgress;
class HFSPlusFreeMap;
class HFSPlusVolume;
class KLToolTask;

/** Moves data to the front of the span, cycle by cycle: makes room there, asks the source
 *  selection what belongs there, copies it and lets the front advance past it. */
class HFSPlusCopyEngine {
public:
    HFSPlusCopyEngine(HFSPlusVolume& volume, const KLToolTask& task, HFSPlusExtentMapBuilder& span,
                      HFSPlusSourceSelection& selection, HFSPlusCopyBuffer& buffer,
                      HFSPlusDefragProgress& progress);

    [[nodiscard]] bool run(VZDefragErrorSlot error);

    /** Blocks of a file that may not be parted: a node of a B-tree on a journaled volume, whose
     *  other drivers take every node for contiguous. */
    [[nodiscard]] static uint32_t blocksKeptTogether(const HFSPlusVolume& volume, uint32_t cnid);

private:
    enum class Cycle { kFailed, kFinished, kGoOn };

    [[nodiscard]] HFSPlusExtentMap& _map() const { return *_span.extentMap(); }
    [[nodiscard]] uint32_t _movableBlocks() const;
    [[nodiscard]] Cycle _runCycle(VZDefragErrorSlot error);
    [[nodiscard]] Cycle _prepareSpan(uint32_t& movable, VZDefragErrorSlot error);
    [[nodiscard]] bool _rebuildFromFront(VZDefragErrorSlot error);
    [[nodiscard]] bool _clearCopyZone(uint32_t zone, bool& cleared, VZDefragErrorSlot error);
    [[nodiscard]] uint32_t _countCopyZoneFreeBlocks(uint32_t wanted) const;
    [[nodiscard]] bool _evictCopyZone(uint32_t zone, VZDefragErrorSlot error);
    [[nodiscard]] bool _findCopyZoneEnd(uint32_t zone, uint32_t& end,
                                        VZDefragErrorSlot error) const;
    [[nodiscard]] bool _queueEvictions(uint32_t zone, uint32_t end, VZDefragErrorSlot error);
    [[nodiscard]] bool _queueEviction(const HFSPlusExtentMapEntry& entry, uint32_t count,
                                      HFSPlusFreeMap& freeMap, VZDefragErrorSlot error);
    void _tellOfEvictions();
    [[nodiscard]] bool _fillCycle(uint32_t zone, VZDefragErrorSlot error);
    [[nodiscard]] bool _queuePiece(HFSPlusSourceSelection::Piece piece, uint32_t room,
                                   uint32_t& queued, VZDefragErrorSlot error);
    [[nodiscard]] bool _skipFront(uint32_t room, uint32_t frontCount, uint32_t& queued,
                                  VZDefragErrorSlot error);

    HFSPlusVolume& _volume;
    const KLToolTask& _task;
    HFSPlusExtentMapBuilder& _span;
    HFSPlusSourceSelection& _selection;
    HFSPlusCopyBuffer& _buffer;
    HFSPlusCopyList _copyList;
    bool _sourceIsDry = false;          // the last cycle ended for lack of a piece
    uint32_t _rebuildsWithoutNews = 0;  // rebuilds since blocks were queued or the span grew
};
