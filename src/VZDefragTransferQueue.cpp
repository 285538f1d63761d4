#include "VZDefragTransferQueue.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "KLKit/KLMemory.h"
#include "VZDefragVolume.h"

namespace {

/** Enough to keep a disk's own queue filled; more only makes seeking disks jump further. */
constexpr size_t kThreads = 8;

}  // namespace

VZDefragTransferQueue::VZDefragTransferQueue(VZDefragVolume& volume) : _volume(volume)
{
    // With fewer threads it only takes longer; with none, finish() does the work itself.
    std::ignore = KLWithinMemory([this] {
        _threads.reserve(kThreads);
        while (_threads.size() < kThreads) {
            _threads.emplace_back([this] { _work(); });
        }
    });
}

VZDefragTransferQueue::~VZDefragTransferQueue()
{
    {
        const std::lock_guard guard(_lock);
        _ends = true;
        _waiting.clear();
    }
    _changed.notify_all();
    for (std::thread& thread : _threads) {
        thread.join();
    }
}

void VZDefragTransferQueue::read(uint8_t* buffer, size_t nbyte, uint64_t offset)
{
    _append({0, buffer, nullptr, nbyte, offset});
}

void VZDefragTransferQueue::write(const uint8_t* buffer, size_t nbyte, uint64_t offset)
{
    _append({0, nullptr, buffer, nbyte, offset});
}

void VZDefragTransferQueue::_append(Piece request)
{
    {
        const std::lock_guard guard(_lock);
        while (request.nbyte > 0 && !_failed) {
            Piece piece = request;
            piece.number = _nextNumber++;
            piece.nbyte = std::min(request.nbyte, VZDefragVolume::kLargestPiece);
            // Nothing is thrown at a caller whose buffers others are using.
            if (!KLWithinMemory([&] { _waiting.push_back(piece); })) {
                _pieceDidFail(piece, nullptr);
            }
            request.target += request.target != nullptr ? piece.nbyte : 0;
            request.source += request.source != nullptr ? piece.nbyte : 0;
            request.offset += piece.nbyte;
            request.nbyte -= piece.nbyte;
        }
    }
    _changed.notify_all();
}

bool VZDefragTransferQueue::finish(VZDefragErrorSlot error)
{
    std::unique_lock guard(_lock);
    while (_threads.empty() && !_waiting.empty()) {
        _doNextPiece(guard);
    }
    _changed.wait(guard, [this] { return _waiting.empty() && _underWay == 0; });
    std::unique_ptr<VZDefragError> failure = std::exchange(_failure, nullptr);
    if (!std::exchange(_failed, false)) {
        return true;
    }
    if (failure == nullptr) {
        return VZDefragFail(error, "Out of memory.");
    }
    if (VZDefragWantsError(error)) {
        *error = std::move(failure);
    }
    return false;
}

void VZDefragTransferQueue::_work()
{
    std::unique_lock guard(_lock);
    for (;;) {
        _changed.wait(guard, [this] { return _ends || !_waiting.empty(); });
        if (_ends) {
            return;
        }
        _doNextPiece(guard);
        if (_waiting.empty() && _underWay == 0) {
            _changed.notify_all();
        }
    }
}

/** Carries out the next waiting piece with @p guard open meanwhile. */
void VZDefragTransferQueue::_doNextPiece(std::unique_lock<std::mutex>& guard)
{
    const Piece piece = _waiting.front();
    _waiting.pop_front();
    ++_underWay;
    guard.unlock();
    std::unique_ptr<VZDefragError> failure;
    bool transferred = false;
    // What fails for lack of memory, the text that says so included, has failed without an error.
    std::ignore = KLWithinMemory([&] { transferred = _transfer(piece, &failure); });
    guard.lock();
    --_underWay;
    if (!transferred) {
        _pieceDidFail(piece, std::move(failure));
    }
}

void VZDefragTransferQueue::_pieceDidFail(const Piece& piece,
                                          std::unique_ptr<VZDefragError> failure)
{
    if (!_failed || piece.number < _failedNumber) {
        _failed = true;
        _failedNumber = piece.number;
        _failure = std::move(failure);
    }
    _waiting.clear();
}

bool VZDefragTransferQueue::_transfer(const Piece& piece, VZDefragErrorSlot error)
{
    return piece.target != nullptr ? _volume.read(piece.target, piece.nbyte, piece.offset, error)
                                   : _volume.write(piece.source, piece.nbyte, piece.offset, error);
}
