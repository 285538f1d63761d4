#pragma once

#include <deque>

#include "Tasks/HFSPlusSourceSelection.h"

class HFSPlusExtentMapBuilder;

/** Takes the allocated runs one after another in the order in which they lie on disk.
 *
 *  Runs that were evicted keep their place in that order: they stand in line before all that
 *  follows on disk, wherever they went, also beyond the span.
 */
class HFSPlusCompactSelection : public HFSPlusSourceSelection {
public:
    explicit HFSPlusCompactSelection(HFSPlusExtentMapBuilder& span) : _span(span) {}

    [[nodiscard]] Found getSourceEntry(Piece& piece, VZDefragErrorSlot error) override;
    [[nodiscard]] bool putSourceEntry(const Piece& piece, VZDefragErrorSlot error) override;
    [[nodiscard]] bool updateSource(VZDefragErrorSlot error) override;
    void sourceDidMove(const std::vector<Eviction>& evictions) override;

private:
    [[nodiscard]] Found _chooseRun(VZDefragErrorSlot error);
    [[nodiscard]] Found _missCursor(VZDefragErrorSlot error);
    [[nodiscard]] bool _putEvicted(const Piece& piece, VZDefragErrorSlot error);

    HFSPlusExtentMapBuilder& _span;
    std::deque<Piece> _evicted;  // in the order to keep; while any is left, the cursor is 0
    uint32_t _cursor = 0;        // start of the run being moved; 0: look from the front
    uint32_t _entryCount = 0;    // blocks of that run when it was chosen
    uint32_t _retryCount = 0;    // times in a row that the cursor lay beyond the span's end
    Piece _pending;
};
