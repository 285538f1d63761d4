#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/MemoryBlockDevice.h"
#include "support/Recording.h"
#include "support/RecordingFile.h"

/** What is left of a device and of a file beside it when the power is cut. */
struct CrashState {
    std::unique_ptr<MemoryBlockDevice> device;
    RecordedFileBytes file;
    std::string description;  // how it came about: what a failing test prints
};

/** Makes the states in which a power cut may leave what a recording wrote.
 *
 *  States in order hold the first events whole. Those from a seed know what each medium promises:
 *  what came before its own last barrier is there; of what came after, anything may be lost, torn
 *  between sectors or done in another order, and a file's growth may be there without its bytes.
 */
class CrashStates {
public:
    static constexpr size_t kSectorSize = 512;

    /** Of @p events that began with these bytes. */
    CrashStates(const MemoryBlockDevice& device, RecordedFileBytes file,
                std::vector<RecordedEvent> events);

    [[nodiscard]] const std::vector<RecordedEvent>& events() const { return _events; }

    /** The state after the first @p count events. */
    [[nodiscard]] CrashState stateAfter(size_t count) const;

    /** The state that @p seed stands for: the power is cut before any of the events, or at the end.
     */
    [[nodiscard]] CrashState stateFromSeed(uint64_t seed) const;

private:
    using Medium = RecordedEvent::Medium;
    using Kind = RecordedEvent::Kind;

    /** The device and the file right behind one of their barriers. */
    struct Snapshot {
        size_t firstEvent = 0;                      // the first that is not in it
        std::unique_ptr<MemoryBlockDevice> device;  // null for the file's
        RecordedFileBytes file;
    };

    [[nodiscard]] static CrashState _copyOf(const Snapshot& device, const Snapshot& file);
    [[nodiscard]] static const Snapshot& _lastBefore(const std::vector<Snapshot>& snapshots,
                                                     size_t count);
    [[nodiscard]] std::vector<const RecordedEvent*> _unsafeEvents(Medium medium, size_t first,
                                                                  size_t end) const;

    std::vector<RecordedEvent> _events;
    std::vector<Snapshot> _devices;
    std::vector<Snapshot> _files;
};
