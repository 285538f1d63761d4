#include "support/Recording.h"

#include <utility>

void Recording::add(RecordedEvent event)
{
    std::function<void()> call;
    {
        const std::lock_guard lock(_mutex);
        _events.push_back(std::move(event));
        if (_events.size() == _callAt) {
            call = std::move(_call);
        }
    }
    if (call != nullptr) {
        call();
    }
}

void Recording::addWrite(RecordedEvent::Medium medium, const void* bytes, size_t nbyte,
                         uint64_t offset)
{
    const auto* const first = static_cast<const uint8_t*>(bytes);
    add({medium, RecordedEvent::Kind::kWrite, offset, {first, first + nbyte}});
}

void Recording::callAfter(size_t count, std::function<void()> call)
{
    const std::lock_guard lock(_mutex);
    _callAt = _events.size() + count;
    _call = std::move(call);
}

std::vector<RecordedEvent> Recording::events() const
{
    const std::lock_guard lock(_mutex);
    return _events;
}

void Recording::clear()
{
    const std::lock_guard lock(_mutex);
    _events.clear();
}
