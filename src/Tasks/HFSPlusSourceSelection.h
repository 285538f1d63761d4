#pragma once

#include <cstdint>
#include <vector>

#include "VZDefragError.h"

/** Chooses which data the copy engine places next. */
class HFSPlusSourceSelection {
public:
    /** The next blocks to place, and whose they are; host order, allocation blocks. */
    struct Piece {
        uint32_t start = 0;   // first block of the source extent; 0: no piece
        uint32_t offset = 0;  // blocks of that extent already placed
        uint32_t count = 0;   // blocks still to place
        uint32_t cnid = 0;
        uint8_t fork = 0;
    };
    /** A run that went elsewhere to make room at the front. */
    struct Eviction {
        uint32_t start = 0;
        uint32_t count = 0;
        uint32_t cnid = 0;
        uint8_t fork = 0;
        uint32_t destination = 0;
    };
    enum class Found { kFailed, kNothing, kPiece };

    HFSPlusSourceSelection() = default;
    HFSPlusSourceSelection(const HFSPlusSourceSelection&) = delete;
    HFSPlusSourceSelection& operator=(const HFSPlusSourceSelection&) = delete;
    virtual ~HFSPlusSourceSelection() = default;

    /** Stores the next piece, or says that there is nothing to place now. */
    [[nodiscard]] virtual Found getSourceEntry(Piece& piece, VZDefragErrorSlot error) = 0;
    /** Takes note that the first @p piece.count blocks of the piece handed out are queued. */
    [[nodiscard]] virtual bool putSourceEntry(const Piece& piece, VZDefragErrorSlot error) = 0;
    /** A cycle's copies are done and the forks' extents have changed. */
    [[nodiscard]] virtual bool updateSource(VZDefragErrorSlot error) = 0;
    /** The runs at the front have left it; @p evictions are in block order of their old places. */
    virtual void sourceDidMove(const std::vector<Eviction>& evictions)
    {
        static_cast<void>(evictions);
    }
};
