#include "support/Recording.h"

#include <utility>

void Recording::add(RecordedEvent event)
{
    const std::lock_guard lock(_mutex);
    _events.push_back(std::move(event));
}

void Recording::addWrite(RecordedEvent::Medium medium, const void* bytes, size_t nbyte,
                         uint64_t offset)
{
    const auto* const first = static_cast<const uint8_t*>(bytes);
    add({medium, RecordedEvent::Kind::kWrite, offset, {first, first + nbyte}});
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
