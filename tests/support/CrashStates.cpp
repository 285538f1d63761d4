#include "support/CrashStates.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

using Medium = RecordedEvent::Medium;
using Kind = RecordedEvent::Kind;

/** Does to a state what the first @p nbyte bytes of an event from byte @p skip on did. */
void applyBytes(CrashState& state, const RecordedEvent& event, size_t skip, size_t nbyte)
{
    const uint8_t* const bytes = event.bytes.data() + skip;
    const uint64_t offset = event.offset + skip;
    if (event.medium == Medium::kDevice) {
        state.device->poke(bytes, nbyte, offset);
        return;
    }
    if (state.file->size() < offset + nbyte) {
        state.file->resize(offset + nbyte);
    }
    std::copy_n(bytes, nbyte, state.file->begin() + static_cast<std::ptrdiff_t>(offset));
}

void applyWhole(CrashState& state, const RecordedEvent& event)
{
    switch (event.kind) {
        case Kind::kCreate:
            state.file.emplace();
            break;
        case Kind::kWrite:
            applyBytes(state, event, 0, event.bytes.size());
            break;
        case Kind::kSetSize:
            state.file->resize(event.offset);
            break;
        case Kind::kSynchronize:
            break;
    }
}

/** What a cut may make of the events behind a barrier, by the chance of one seed. */
class Disorder {
public:
    explicit Disorder(std::mt19937_64& random) : _random(random)
    {
        // Some cuts lose nearly everything, some nearly nothing.
        _lossPercent = 5 + _below(90);
        _tearPercent = _chance(50) ? _below(60) : 0;
        _isShuffled = _chance(40);
    }

    /** Brings part of @p events upon @p state. */
    void apply(CrashState& state, std::vector<const RecordedEvent*> events)
    {
        if (_isShuffled) {
            for (size_t left = events.size(); left > 1; --left) {
                std::swap(events[left - 1], events[_below(left)]);
            }
        }
        for (const RecordedEvent* event : events) {
            _apply(state, *event);
        }
    }

private:
    [[nodiscard]] uint64_t _below(uint64_t limit) { return _random() % limit; }
    [[nodiscard]] bool _chance(uint64_t percent) { return _below(100) < percent; }

    void _apply(CrashState& state, const RecordedEvent& event)
    {
        if (_chance(_lossPercent)) {
            if (event.kind == Kind::kWrite && event.medium == Medium::kFile && _chance(30)) {
                _growOnly(state, event);
            }
        } else if (event.kind == Kind::kWrite && _chance(_tearPercent)) {
            _tear(state, event);
        } else {
            applyWhole(state, event);
        }
    }

    /** The file's new size came through, its bytes did not. */
    static void _growOnly(CrashState& state, const RecordedEvent& event)
    {
        const size_t end = event.offset + event.bytes.size();
        if (state.file->size() < end) {
            state.file->resize(end);
        }
    }

    void _tear(CrashState& state, const RecordedEvent& event)
    {
        // A front, a back, or any sectors.
        const uint64_t shape = _below(3);
        const size_t sectors = event.bytes.size() / CrashStates::kSectorSize + 1;
        const uint64_t border = _below(sectors + 1);
        size_t skip = 0;
        for (uint64_t sector = 0; skip < event.bytes.size(); ++sector) {
            const size_t inside = (event.offset + skip) % CrashStates::kSectorSize;
            const size_t nbyte =
                std::min(CrashStates::kSectorSize - inside, event.bytes.size() - skip);
            const bool isKept = shape == 0   ? sector < border
                                : shape == 1 ? sector >= border
                                             : _chance(50);
            if (isKept) {
                applyBytes(state, event, skip, nbyte);
            }
            skip += nbyte;
        }
    }

    std::mt19937_64& _random;
    uint64_t _lossPercent = 0;
    uint64_t _tearPercent = 0;
    bool _isShuffled = false;
};

}  // namespace

CrashStates::CrashStates(const MemoryBlockDevice& device, RecordedFileBytes file,
                         std::vector<RecordedEvent> events)
    : _events(std::move(events))
{
    CrashState state = {device.clone(), file, ""};
    _devices.push_back({0, device.clone(), {}});
    _files.push_back({0, nullptr, std::move(file)});
    for (size_t index = 0; index < _events.size(); ++index) {
        const RecordedEvent& event = _events[index];
        applyWhole(state, event);
        // The name of a file that was made is there at once.
        const bool isBarrier = event.kind == Kind::kSynchronize || event.kind == Kind::kCreate;
        if (isBarrier && event.medium == Medium::kDevice) {
            _devices.push_back({index + 1, state.device->clone(), {}});
        } else if (isBarrier) {
            _files.push_back({index + 1, nullptr, state.file});
        }
    }
}

CrashState CrashStates::stateAfter(size_t count) const
{
    const Snapshot& device = _lastBefore(_devices, count);
    const Snapshot& file = _lastBefore(_files, count);
    CrashState state = _copyOf(device, file);
    for (const RecordedEvent* event : _unsafeEvents(Medium::kDevice, device.firstEvent, count)) {
        applyWhole(state, *event);
    }
    for (const RecordedEvent* event : _unsafeEvents(Medium::kFile, file.firstEvent, count)) {
        applyWhole(state, *event);
    }
    state.description = "the first " + std::to_string(count) + " events";
    return state;
}

CrashState CrashStates::stateFromSeed(uint64_t seed) const
{
    std::mt19937_64 random(seed);
    const size_t count = random() % (_events.size() + 1);
    const Snapshot& device = _lastBefore(_devices, count);
    const Snapshot& file = _lastBefore(_files, count);
    CrashState state = _copyOf(device, file);
    Disorder(random).apply(state, _unsafeEvents(Medium::kDevice, device.firstEvent, count));
    Disorder(random).apply(state, _unsafeEvents(Medium::kFile, file.firstEvent, count));
    state.description =
        "cut before event " + std::to_string(count) + ", seed " + std::to_string(seed);
    return state;
}

CrashState CrashStates::_copyOf(const Snapshot& device, const Snapshot& file)
{
    return {device.device->clone(), file.file, ""};
}

const CrashStates::Snapshot& CrashStates::_lastBefore(const std::vector<Snapshot>& snapshots,
                                                      size_t count)
{
    const auto behind = std::ranges::upper_bound(snapshots, count, {}, &Snapshot::firstEvent);
    return *std::prev(behind);  // the first is that of 0
}

std::vector<const RecordedEvent*> CrashStates::_unsafeEvents(Medium medium, size_t first,
                                                             size_t end) const
{
    std::vector<const RecordedEvent*> events;
    for (size_t index = first; index < end; ++index) {
        if (_events[index].medium == medium && _events[index].kind != Kind::kSynchronize) {
            events.push_back(&_events[index]);
        }
    }
    return events;
}
