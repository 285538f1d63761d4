#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

/** One change or barrier, as a medium took it. */
struct RecordedEvent {
    enum class Medium : uint8_t { kDevice, kFile };
    enum class Kind : uint8_t { kCreate, kWrite, kSetSize, kSynchronize };

    Medium medium = Medium::kDevice;
    Kind kind = Kind::kWrite;
    uint64_t offset = 0;         // bytes; of kSetSize the new size
    std::vector<uint8_t> bytes;  // of kWrite
};

/** Everything that was written to a device and to a file beside it, in the order in which it came.
 *
 *  Any thread may add to it. A barrier stands behind all writes that had ended when it was asked
 *  for, and is added when it has succeeded.
 */
class Recording {
public:
    void add(RecordedEvent event);
    void addWrite(RecordedEvent::Medium medium, const void* bytes, size_t nbyte, uint64_t offset);

    /** Calls @p call once, when @p count more events were added. */
    void callAfter(size_t count, std::function<void()> call);

    /** What was added so far. */
    [[nodiscard]] std::vector<RecordedEvent> events() const;
    void clear();

private:
    mutable std::mutex _mutex;
    std::vector<RecordedEvent> _events;
    size_t _callAt = 0;  // events; 0: never
    std::function<void()> _call;
};
