#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "VZDefragError.h"

class VZDefragVolume;

/** Carries out many reads or writes of a volume side by side, so that the device always has some
 *  at hand: extents that lie apart would otherwise cost a whole round trip each.
 *
 *  The transfers between two calls of finish() may not depend on one another. One thread uses the
 *  queue; the buffers belong to the queue until finish() returns.
 */
class VZDefragTransferQueue {
public:
    explicit VZDefragTransferQueue(VZDefragVolume& volume);
    VZDefragTransferQueue(const VZDefragTransferQueue&) = delete;
    VZDefragTransferQueue& operator=(const VZDefragTransferQueue&) = delete;
    /** Waits for the transfers under way; those not begun are dropped. */
    ~VZDefragTransferQueue();

    /** Begins to read @p nbyte bytes at byte @p offset. */
    void read(uint8_t* buffer, size_t nbyte, uint64_t offset);
    /** Begins to write @p nbyte bytes at byte @p offset. */
    void write(const uint8_t* buffer, size_t nbyte, uint64_t offset);

    /** Waits until everything asked for is done; fails with the error of the first transfer, in
     *  the order of asking, that failed. What was not begun by then is not done. */
    [[nodiscard]] bool finish(VZDefragErrorSlot error);

private:
    struct Piece {
        uint64_t number = 0;  // in the order of asking
        uint8_t* target = nullptr;
        const uint8_t* source = nullptr;
        size_t nbyte = 0;
        uint64_t offset = 0;  // bytes
    };

    void _append(Piece request);
    void _work();
    void _doNextPiece(std::unique_lock<std::mutex>& guard);
    void _pieceDidFail(const Piece& piece, std::unique_ptr<VZDefragError> failure);
    [[nodiscard]] bool _transfer(const Piece& piece, VZDefragErrorSlot error);

    VZDefragVolume& _volume;
    std::mutex _lock;  // guards the fields below but the threads; a leaf
    std::condition_variable _changed;
    std::deque<Piece> _waiting;
    uint64_t _nextNumber = 0;
    size_t _underWay = 0;
    bool _ends = false;
    bool _failed = false;
    uint64_t _failedNumber = 0;
    std::unique_ptr<VZDefragError> _failure;  // of the piece _failedNumber; null: no memory
    std::vector<std::thread> _threads;
};
