#include "Tasks/HFSPlusCompactSelection.h"

#include <algorithm>
#include <map>
#include <utility>

#include "HFSPlus/HFSPlusExtentMap.h"
#include "Tasks/HFSPlusExtentMapBuilder.h"

namespace {

constexpr const char* kSource = "Tasks/HFSPlusCompactSelection.cpp";
constexpr unsigned kLineCursorInsideRun = 61;
constexpr unsigned kLineCursorBelowSpan = 82;
constexpr unsigned kLinePutWithoutPiece = 97;
constexpr unsigned kLinePutWithoutEvicted = 116;

constexpr uint32_t kMostRetries = 2;

using Piece = HFSPlusSourceSelection::Piece;
using Eviction = HFSPlusSourceSelection::Eviction;

/** The evictions of one cycle, by the block that they came from, as they are asked for. */
class Whereabouts {
public:
    explicit Whereabouts(const std::vector<Eviction>& evictions)
    {
        for (const Eviction& eviction : evictions) {
            _evictions.emplace(eviction.start, eviction);
        }
    }

    /** Takes the first part of @p run that lies in one piece off it, and says where that is. */
    [[nodiscard]] Piece takeFirstPart(Piece& run)
    {
        Piece part = run;
        auto after = _evictions.upper_bound(run.start);
        if (after != _evictions.begin() && _endOf(std::prev(after)->second) > run.start) {
            part = _take(std::prev(after), run.start, run.count);
        } else if (after != _evictions.end()) {
            part.count = std::min(run.count, after->first - run.start);
        }
        run.start += part.count;
        run.count -= part.count;
        return part;
    }

    /** What nobody has asked for, in block order of the old places. */
    [[nodiscard]] std::vector<Piece> others() const
    {
        std::vector<Piece> pieces;
        for (const auto& [start, eviction] : _evictions) {
            pieces.push_back(
                {eviction.destination, 0, eviction.count, eviction.cnid, eviction.fork});
        }
        return pieces;
    }

private:
    using Evictions = std::map<uint32_t, Eviction>;

    [[nodiscard]] static uint64_t _endOf(const Eviction& eviction)
    {
        return uint64_t{eviction.start} + eviction.count;
    }

    /** Takes up to @p most blocks from @p start on out of the eviction @p found. */
    [[nodiscard]] Piece _take(Evictions::iterator found, uint32_t start, uint32_t most)
    {
        const Eviction whole = found->second;
        const uint32_t head = start - whole.start;
        const uint32_t count = std::min(most, whole.count - head);
        _evictions.erase(found);
        const auto keep = [&](uint32_t offset, uint32_t kept) {
            if (kept != 0) {
                _evictions.emplace(whole.start + offset,
                                   Eviction{whole.start + offset, kept, whole.cnid, whole.fork,
                                            whole.destination + offset});
            }
        };
        keep(0, head);
        keep(head + count, whole.count - head - count);
        return {whole.destination + head, 0, count, whole.cnid, whole.fork};
    }

    Evictions _evictions;
};

}  // namespace

HFSPlusSourceSelection::Found HFSPlusCompactSelection::getSourceEntry(Piece& piece,
                                                                      VZDefragErrorSlot error)
{
    if (_pending.start == 0) {
        if (!_evicted.empty()) {
            _pending = _evicted.front();
        } else {
            const Found chosen = _chooseRun(error);
            if (chosen != Found::kPiece) {
                return chosen;
            }
        }
    }
    piece = _pending;
    return Found::kPiece;
}

HFSPlusSourceSelection::Found HFSPlusCompactSelection::_chooseRun(VZDefragErrorSlot error)
{
    const HFSPlusExtentMap& map = *_span.extentMap();
    if (map.isEmpty()) {
        return Found::kNothing;
    }
    if (_cursor == 0) {
        _cursor = map.startBlock();
    }
    uint32_t count = 0;
    const HFSPlusExtentMapEntry* entry = map.findEntry(_cursor, &count);
    if (entry == nullptr) {
        return _missCursor(error);
    }
    _retryCount = 0;
    if (entry->type() == kHFSPlusExtentAllocated && entry->start != _cursor) {
        VZDefragFailInternal(error, kSource, kLineCursorInsideRun);
        return Found::kFailed;
    }
    while (entry->type() != kHFSPlusExtentAllocated) {
        entry = map.nextEntryAfter(&count, entry);
        if (entry == nullptr) {
            return Found::kNothing;
        }
        _cursor = entry->start;
    }
    _entryCount = count;
    _pending = {entry->start, 0, count, entry->cnid, entry->fork()};
    return Found::kPiece;
}

/** The cursor lies outside the span: behind its end a fresh look may show more. */
HFSPlusSourceSelection::Found HFSPlusCompactSelection::_missCursor(VZDefragErrorSlot error)
{
    if (_cursor < _span.extentMap()->startBlock()) {
        VZDefragFailInternal(error, kSource, kLineCursorBelowSpan);
        return Found::kFailed;
    }
    if (_retryCount < kMostRetries) {
        ++_retryCount;
        return Found::kNothing;
    }
    VZDefragFail(error, "Volume is too congested, unable to continue.");
    return Found::kFailed;
}

bool HFSPlusCompactSelection::putSourceEntry(const Piece& piece, VZDefragErrorSlot error)
{
    if (!_evicted.empty()) {
        return _putEvicted(piece, error);
    }
    if (_pending.start == 0 || piece.count > _pending.count || _pending.start != _cursor) {
        return VZDefragFailInternal(error, kSource, kLinePutWithoutPiece);
    }
    if (piece.count < _pending.count) {
        _pending.offset += piece.count;
        _pending.count -= piece.count;
        return true;
    }
    _cursor += _entryCount;
    _entryCount = 0;
    _pending = {};
    return true;
}

bool HFSPlusCompactSelection::_putEvicted(const Piece& piece, VZDefragErrorSlot error)
{
    Piece& first = _evicted.front();
    if (_pending.start != first.start || piece.count > first.count) {
        return VZDefragFailInternal(error, kSource, kLinePutWithoutEvicted);
    }
    first.start += piece.count;
    first.count -= piece.count;
    if (first.count == 0) {
        _evicted.pop_front();
    }
    _pending = {};
    return true;
}

bool HFSPlusCompactSelection::updateSource(VZDefragErrorSlot /*error*/)
{
    if (_entryCount != 0) {
        _cursor += _entryCount - _pending.count;
    }
    _entryCount = 0;
    _pending = {};
    return true;
}

void HFSPlusCompactSelection::sourceDidMove(const std::vector<Eviction>& evictions)
{
    Whereabouts whereabouts(evictions);
    // Who is in line came before everything else on disk, and may have been moved once more.
    for (Piece run : std::exchange(_evicted, {})) {
        while (run.count != 0) {
            _evicted.push_back(whereabouts.takeFirstPart(run));
        }
    }
    for (const Piece& piece : whereabouts.others()) {
        _evicted.push_back(piece);
    }
    // The front will pass the run that the cursor names; the next one is the first behind it.
    _cursor = 0;
}
